#include "reader/dtlpipe.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/dtlbuilder.h"
#include "tests/support/testutil.h"

namespace {

// A scan large enough to fill many of the pipe's batches: long names,
// symbolic links and hard links in a few hundred directories.
FakeScan LargeScan() {
    FakeScan s;
    s.dirs.push_back({"/", {}});
    for (uint32_t d = 0; d < 300; d++) {
        std::string name = std::string("dir") + std::to_string(d);
        s.dirs[0].entries.push_back(
            {.name = name, .mode = S_IFDIR | 0755, .size = 4096, .links = 2, .inode = 100000 + d});
        FakeDir dir{"/" + name, {}};
        for (uint32_t f = 0; f < 100; f++) {
            FakeEntry e{.name = std::string(200, 'a' + f % 26) + std::to_string(f), .size = f, .inode = d * 1000 + f};
            if (f % 10 == 0)
                e.name = std::string("l") + std::to_string(f), e.mode = S_IFLNK | 0777, e.target.assign(500, 't');
            if (f % 7 == 0) e.links = 2, e.inode = 7;  // one inode with many names
            dir.entries.push_back(e);
        }
        s.dirs.push_back(dir);
    }
    return s;
}

// Every record as text, with what the pipe carries.
std::string Text(const DtlRecord& r) {
    return std::to_string(r.kind).append(" ") + std::string(r.name) + " -> " + std::string(r.target) + " depth " +
           std::to_string(r.depth) + (r.counted ? " counted " : " - ") + std::to_string(r.fixed.size) + " " +
           std::to_string(r.fixed.inode) + " " + std::to_string(r.fixed.mode) + " " +
           std::to_string(r.fixed.entryFlags);
}

TEST(DtlPipe, HandsOnEveryRecordAsTheReaderReadsIt) {
    ScopedTempDir dir;
    std::string sound = dir / "sound.dtl", cut = dir / "cut.dtl";
    const std::string bytes = BuildDetail(LargeScan()).bytes;
    ASSERT_GT(bytes.size(), 8u << 20);  // many batches
    WriteFile(sound, bytes);
    WriteFile(cut, bytes.substr(0, bytes.size() * 2 / 3));
    for (const std::string& path : {sound, cut}) {
        SCOPED_TRACE(path);
        std::vector<std::string> direct, piped;
        DtlReader a, b;
        ASSERT_TRUE(DtlOpen(&a, path.c_str()) && DtlOpen(&b, path.c_str()));
        DtlStep step;
        while ((step = DtlNext(&a)) == DTL_STEP_RECORD || step == DTL_STEP_LINK)
            if (step == DTL_STEP_RECORD && a.rec.kind != DTL_REC_END_MARKER) direct.push_back(Text(a.rec));
        DtlPipe* pipe = DtlPipeStart(&b);
        while (const DtlRecord* rec = DtlPipeNext(pipe)) piped.push_back(Text(*rec));
        EXPECT_EQ(DtlPipeFinish(pipe), step);
        EXPECT_EQ(piped, direct);
        EXPECT_EQ(b.fault.message, a.fault.message);
        EXPECT_EQ(b.totals.totalFileSize, a.totals.totalFileSize);
        DtlClose(&a);
        DtlClose(&b);
    }
    // A caller that stops taking records stops the reading.
    for (int taken : {0, 1, 5000, 20000}) {
        DtlReader r;
        ASSERT_TRUE(DtlOpen(&r, sound.c_str()));
        DtlPipe* pipe = DtlPipeStart(&r);
        for (int i = 0; i < taken; i++) ASSERT_NE(DtlPipeNext(pipe), nullptr);
        EXPECT_EQ(DtlPipeFinish(pipe), DTL_STEP_RECORD) << taken;  // stopped before the end
        DtlClose(&r);
    }
}

}  // namespace
