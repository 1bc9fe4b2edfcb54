#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "config/roots.h"
#include "log/log.h"
#include "scan/totals.h"

TEST(DisplayTotals, PrintsOptionalLinesOnlyForPositiveCountsAndMetricSizes) {
    struct Case {
        const char* what;
        uint32_t dirs, empty, files, symlinks;
        int32_t hardLinks;
        uint64_t capacity, total, available;
        std::string expected;
    } cases[] = {
        {"every line", 12, 3, 40, 2, 5, 1234567, 5000000000, 2500000000000,
         "---- Totals ----\n\n\tDirectories: 12\n\tEmpty dirs: 3\n\tFiles: 40\n"
         "\tVolume capacity: 1.23mb (1,234,567)\n\tTotal file size: 5.00gb (5,000,000,000)\n"
         "\tAvailable space: 2.50tb (2,500,000,000,000)\n\tSymbolic links: 2\n\tHard links: 5\n"},
        {"counts are signed: past 2^31 they are negative and the optional lines vanish", 0x80000000u, 0x80000000u,
         0xFFFFFFFFu, 0x80000001u, -1, 0, 0, 0,
         "---- Totals ----\n\n\tDirectories: -2147483648\n\tFiles: -1\n\tVolume capacity:  bytes\n"
         "\tTotal file size:  bytes\n\tAvailable space:  bytes\n"},
    };
    FILE* saved = logFile;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        AuditRoot root{};
        root.dirCount = c.dirs;
        root.emptyDirCount = c.empty;
        root.fileCount = c.files;
        root.symlinkCount = c.symlinks;
        root.hardLinkCount = c.hardLinks;
        root.volumeCapacity = c.capacity;
        root.totalFileSize = c.total;
        root.availableSpace = c.available;
        char* text = nullptr;
        size_t size = 0;
        logFile = open_memstream(&text, &size);
        DisplayTotals(&root);
        fclose(logFile);
        EXPECT_EQ(std::string(text, size), c.expected);
        free(text);
    }
    logFile = saved;
}
