// dtldump FILE as existing scripts read it: the dump in text, JSON and
// summary (of a compressed file too in commands_test.cpp).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/reader/scantree.h"
#include "tests/support/dtlbuilder.h"

namespace {

TEST(DtldumpTest, PrintsASoundFile) {
    struct Case {
        std::vector<std::string> args;     // the file's path is appended
        std::vector<std::string> present;  // in standard output
        std::vector<std::string> absent;
    } cases[] = {
        {{},
         {"  completionFlags      9\n", "  @298      tag          \"abc                            \"\n",
          "  @450      includeDirs copy 4: \"/a~\" \"/b~\"\n",
          "  @474        dir    \"/\"  files=3 subdirs=3 bytes=161\n",
          "  @625        entry  \"/l\" -> \"/etc/passwd\"  symlink mode=0777 links=1 uid=1000",
          "  @889        entry  \"/a/h2\"  file mode=0644 links=2 hardlink uid=1000 gid=100 inode=77 size=50 "
          "ctime=1700000001 atime=1700000002 mtime=1700000003\n",
          "\"/a/caf\\xe9\"  file", "\"/b/n\\nl\"  fifo", "  @1199       end\n",
          "  #4      @1343       inode=77 prev=#1      dir=@838 record=@889 \"/a/h2\"\n",
          "  hard-linked inodes   5\n  total file size      16552\nStructure: sound\n"},
         {}},
        {{"--json"},
         {"\"path\": \"/a/caf\xEF\xBF\xBD\", \"pathHex\": \"2f612f636166e9\"", "\"name\": \"n\\u000al\"",
          "\"target\": \"/etc/passwd\"", "\"prevEntry\": 24, \"first\": false, \"parentDirPos\": 838",
          "\"includeDirsCopies\": [378, 402, 426, 450]", "\"mountSource\": null", "\"totalFileSize\": 16552}"},
         {"error"}},
        {{"--summary"},
         {"  symlinkCount         1\n", "Totals from the records\n  directory records    4\n",
          "  total file size      16552\nStructure: sound\n"},
         {"Records\n", "Hard links\n", "dir    \"/\""}},
    };
    ScopedTempDir dir;
    std::string path = dir / "sample.dtl";
    WriteFile(path, BuildDetail(SampleScan()).bytes);
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        std::vector<std::string> args = c.args;
        args.push_back(path);
        RunResult run = RunDtldump(args);
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_EQ(run.err, "");
        for (const std::string& text : c.present) EXPECT_NE(run.out.find(text), std::string::npos) << text;
        for (const std::string& text : c.absent) EXPECT_EQ(run.out.find(text), std::string::npos) << text;
        if (!c.args.empty() && c.args[0] == "--json") Python("import json, sys; json.load(sys.stdin.buffer)", run.out);
    }
}

}  // namespace
