#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "detail/compress.h"
#include "tests/support/dtlbuilder.h"
#include "tests/support/testutil.h"

namespace {

// A strict JSON parser's verdict on text.
bool ValidJson(const std::string& text) {
    const char* parse = "import json, sys; json.loads(sys.stdin.buffer.read())";
    return RunProgram("python3", {"-c", parse}, {.input = text}).status == 0;
}

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
    };
    ScopedTempDir dir;
    std::string path = dir / "sample.dtl";
    WriteFile(path, BuildDetail(SampleScan()).bytes);
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        std::vector<std::string> args = c.args;
        args.push_back(path);
        RunResult run = RunProgram(DtldumpPath(), args);
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_EQ(run.err, "");
        for (const std::string& text : c.present) EXPECT_NE(run.out.find(text), std::string::npos) << text;
        for (const std::string& text : c.absent) EXPECT_EQ(run.out.find(text), std::string::npos) << text;
        if (!c.args.empty() && c.args[0] == "--json") {
            EXPECT_TRUE(ValidJson(run.out)) << run.out;
        }
    }
}

}  // namespace

TEST(Dtldump, ReadsACompressedFileWithoutChangingIt) {
    ScopedTempDir dir;
    std::string plain = dir / "plain.dtl", packed = dir / "packed.dtl";
    WriteFile(plain, BuildDetail(SampleScan()).bytes);
    ASSERT_EQ(compressFile(plain.c_str(), packed.c_str()), 0);
    const std::string packedBytes = ReadFile(packed);
    ASSERT_EQ(packedBytes.substr(0, 2), std::string("\x78\x01", 2));
    for (bool json : {false, true}) {
        auto args = [&](const std::string& path) {
            return json ? std::vector<std::string>{"--json", path} : std::vector<std::string>{path};
        };
        RunResult a = RunProgram(DtldumpPath(), args(plain));
        RunResult b = RunProgram(DtldumpPath(), args(packed));
        ASSERT_EQ(b.status, 0) << b.err;
        // The two dumps differ only in the file's name and its compressed mark.
        std::string expected = a.out;
        if (json) {
            expected.replace(expected.find("\"compressed\": false"), 19, "\"compressed\": true");
        } else {
            expected.insert(expected.find('\n'), " (compressed)");
        }
        for (size_t at; (at = expected.find(plain)) != std::string::npos;) expected.replace(at, plain.size(), packed);
        EXPECT_EQ(b.out, expected);
    }
    EXPECT_EQ(ReadFile(packed), packedBytes);
}
