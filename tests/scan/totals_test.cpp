#include <gtest/gtest.h>

#include <string>

#include "config/roots.h"
#include "scan/totals.h"
#include "tests/support/testutil.h"

TEST(DisplayTotals, PrintsOptionalLinesOnlyForPositiveCountsAndMetricSizes) {
    struct Case {
        uint32_t dirs, empty, files, symlinks;
        int32_t hardLinks;
        uint64_t capacity, total, available;
        std::string expected;
    } cases[] = {
        {12, 3, 40, 2, 5, 1234567, 5000000000, 2500000000000,
         "---- Totals ----\n\n\tDirectories: 12\n\tEmpty dirs: 3\n\tFiles: 40\n"
         "\tVolume capacity: 1.23mb (1,234,567)\n\tTotal file size: 5.00gb (5,000,000,000)\n"
         "\tAvailable space: 2.50tb (2,500,000,000,000)\n\tSymbolic links: 2\n\tHard links: 5\n"},
        // Counts are signed: past 2^31 they are negative and the optional lines vanish.
        {0x80000000u, 0x80000000u, 0xFFFFFFFFu, 0x80000001u, -1, 0, 0, 0,
         "---- Totals ----\n\n\tDirectories: -2147483648\n\tFiles: -1\n\tVolume capacity:  bytes\n"
         "\tTotal file size:  bytes\n\tAvailable space:  bytes\n"},
    };
    for (const auto& c : cases) {
        AuditRoot root{};
        root.dirCount = c.dirs;
        root.emptyDirCount = c.empty;
        root.fileCount = c.files;
        root.symlinkCount = c.symlinks;
        root.hardLinkCount = c.hardLinks;
        root.volumeCapacity = c.capacity;
        root.totalFileSize = c.total;
        root.availableSpace = c.available;
        EXPECT_EQ(WrittenTo(logFile, [&] { DisplayTotals(&root); }), c.expected);
    }
}
