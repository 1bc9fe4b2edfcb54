// dtldump FILE as existing scripts read it: the dump in text, JSON and
// summary, of a plain file and of a compressed one.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "detail/compress.h"
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

// The dump and every report of a compressed file are those of the plain
// one but for the file's name and its compressed mark; the file stays as it was.
TEST(DtldumpTest, ReadsACompressedFileAsThePlainOne) {
    ScopedTempDir dir;
    std::string plain = dir / "plain.dtl", packed = dir / "packed.dtl";
    WriteFile(plain, BuildDetail(SampleScan()).bytes);
    ASSERT_EQ(compressFile(plain.c_str(), packed.c_str()), 0);
    const std::string packedBytes = ReadFile(packed);
    for (std::string command : {"", "top", "owners", "age", "types", "export", "diff"}) {
        for (bool json : {false, true}) {
            SCOPED_TRACE(command + (json ? " --json" : ""));
            auto args = [&](const std::string& path) {
                std::vector<std::string> a = {path};
                if (command == "diff") a.push_back(path);
                if (json) a.insert(a.begin(), "--json");
                if (!command.empty()) a.insert(a.begin(), command);
                return a;
            };
            RunResult a = RunDtldump(args(plain)), b = RunDtldump(args(packed));
            ASSERT_EQ(b.status, 0) << b.err;
            std::string expected = a.out;
            for (size_t at; (at = expected.find("plain.dtl")) != std::string::npos;) {
                expected.replace(at, 9, "packed.dtl");
                expected.insert(expected.find_first_of(",\n", at), json ? "" : " (compressed)");
            }
            for (size_t at = 0; (at = expected.find("\"compressed\": false", at)) != std::string::npos;)
                expected.replace(at, 19, "\"compressed\": true");
            EXPECT_EQ(b.out, expected);
        }
    }
    EXPECT_EQ(ReadFile(packed), packedBytes);
}

}  // namespace
