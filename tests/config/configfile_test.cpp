#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "config/configfile.h"
#include "tests/config/config_testutil.h"
#include "tests/support/testutil.h"

// Every logical line ReadConfigLine delivers for the file content, then its
// final result (0 at the end, or an error code) as a last element "=<code>".
static std::vector<std::string> LogicalLines(const std::string& content) {
    std::vector<std::string> lines;
    std::string copy = content;
    FILE* f = fmemopen(copy.data(), copy.size(), "r");
    if (!f) f = tmpfile();  // an empty buffer
    configEOF = 0;
    char out[CONFIG_LINE_MAX + 1];
    int length;
    while ((length = ReadConfigLine(f, out)) > 0) {
        EXPECT_EQ(static_cast<size_t>(length), strlen(out));
        lines.emplace_back(out, static_cast<size_t>(length));
    }
    std::string last = "=";
    last += std::to_string(length);
    lines.push_back(last);
    if (length == 0) {
        EXPECT_EQ(configEOF, 1);
        EXPECT_EQ(ReadConfigLine(f, out), 0) << "after the end";
    }
    fclose(f);
    return lines;
}

TEST(ReadConfigLine, BuildsLogicalLines) {
    const std::string x132(132, 'x');
    struct Case {
        const char* what;
        std::string content;
        std::vector<std::string> lines;
    } cases[] = {
        {"empty file", "", {"=0"}},
        {"one line", "path = /data\n", {"path = /data", "=0"}},
        {"no newline at the end", "a\nb", {"a", "b", "=0"}},
        {"comments and blank lines", "# c\n\n   \n\t\nincludedirs = x # note\n#\n", {"includedirs = x", "=0"}},
        {"continuation", "path = /a/b/_\nc\n", {"path = /a/b/c", "=0"}},
        {"continuation over comments", "a_\n# x\n\nb\n", {"ab", "=0"}},
        {"continuation keeps blanks", "x _\n  y  \n", {"x   y", "=0"}},
        {"continuation at the end", "a_\n", {"a", "=0"}},
        {"continuation without newline", "a_", {"a", "=0"}},
        {"leading blanks kept", "  key = v  \n", {"  key = v", "=0"}},
        {"controls and high bytes blanked", "a\tb\x01" "caf\xc3\xa9s\xff\n", {"a b caf  s", "=0"}},
        {"carriage return", "a = b\r\n", {"a = b", "=0"}},
        {"embedded zero ends the line", std::string("ab\0cd\nef\n", 9), {"ab", "ef", "=0"}},
        // A physical line longer than 132 bytes comes in pieces, each a line of its own.
        {"long line in pieces", x132 + "yy\n", {x132, "yy", "=0"}},
        {"piece ending in '_' continues", std::string(131, 'x') + "_yz\n", {std::string(131, 'x') + "yz", "=0"}},
        {"a comment ends with its piece", "a#" + std::string(130, 'c') + "bc\n", {"a", "bc", "=0"}},
    };
    for (const Case& c : cases) EXPECT_EQ(LogicalLines(c.content), c.lines) << c.what;
}

TEST(ReadConfigLine, LogicalLinesHoldAtMost512Bytes) {
    // Four pieces of 128 bytes joined by continuations: 512 exactly.
    std::string piece(128, 'p');
    std::string full = piece + "_\n" + piece + "_\n" + piece + "_\n" + piece + "\n";
    EXPECT_EQ(LogicalLines(full), (std::vector<std::string>{piece + piece + piece + piece, "=0"}));
    EXPECT_EQ(LogicalLines(piece + "_\n" + full), (std::vector<std::string>{"=-1"}));
    EXPECT_EQ(LogicalLines("ok\n" + full + "q\n"), (std::vector<std::string>{"ok", piece + piece + piece + piece, "q", "=0"}));
    EXPECT_EQ(LogicalLines(full.substr(0, full.size() - 1) + "q\n"), (std::vector<std::string>{"=-1"}));
}

TEST(SplitConfigLine, ClassifiesAndCuts) {
    struct Case {
        const char* line;
        ConfigLineKind kind;
        const char* key;
        const char* value;
    } cases[] = {
        {"[ScanRoot]", CONFIG_HEADER, nullptr, nullptr},
        {"[SCANROOT]", CONFIG_HEADER, nullptr, nullptr},
        {"[ScanRoot] x", CONFIG_UNKNOWN_HEADER, nullptr, nullptr},
        {"[Root]", CONFIG_UNKNOWN_HEADER, nullptr, nullptr},
        {"[path = x", CONFIG_UNKNOWN_HEADER, nullptr, nullptr},
        {" [ScanRoot]", CONFIG_MISSING_EQUALS, nullptr, nullptr},  // a blank first makes it a setting
        {"path /data", CONFIG_MISSING_EQUALS, nullptr, nullptr},
        {"Path = /data", CONFIG_SETTING, "Path", "/data"},
        {"PATH=/data", CONFIG_SETTING, "PATH", "/data"},
        {"   path   =   /a b", CONFIG_SETTING, "path", "/a b"},
        {"path =", CONFIG_SETTING, "path", ""},
        {"= x", CONFIG_SETTING, "", "x"},
        {"a=b = c", CONFIG_SETTING, "a", "b = c"},
        {"my key = v", CONFIG_SETTING, "my key", "v"},
    };
    for (const Case& c : cases) {
        std::string line = c.line;
        char* key = nullptr;
        char* value = nullptr;
        EXPECT_EQ(SplitConfigLine(line.data(), &key, &value), c.kind) << c.line;
        if (c.kind != CONFIG_SETTING) continue;
        EXPECT_STREQ(key, c.key) << c.line;
        EXPECT_STREQ(value, c.value) << c.line;
    }
}

static std::vector<std::string> Texts(const TemplateRec* list) {
    std::vector<std::string> out;
    for (; list; list = list->next) out.push_back(list->origText);
    return out;
}

TEST(ProcessConfigFile, BuildsTheRootRecord) {
    ScopedTempDir dir;
    struct Case {
        const char* what;
        std::string content;
        bool hasRoot;
        const char* path;
        std::vector<std::vector<std::string>> lists;  // includeDirs, excludeDirs, includeFiles, excludeFiles
    } cases[] = {
        {"empty", "", false, nullptr, {{}, {}, {}, {}}},
        {"only comments", "# a\n\n  # b\n", false, nullptr, {{}, {}, {}, {}}},
        {"section without path", "[ScanRoot]\n", true, nullptr, {{}, {}, {}, {}}},
        {"every key, any case",
         "[scanROOT]\nPath = /data\nINCLUDEDIRS=/a\nexcludeDirs = /b\nIncludeFiles = *.c\nincludefiles= *.h\n"
         "excludefiles =  *.o # objects\n",
         true, "/data", {{"/a"}, {"/b"}, {"*.h", "*.c"}, {"*.o"}}},
        {"second path replaces the first", "[ScanRoot]\npath = /one\npath = /two\n", true, "/two", {{}, {}, {}, {}}},
        {"continued value", "[ScanRoot]\npath = /a/b/_\nc\nincludedirs = /x/_\n  y\n", true, "/a/b/c",
         {{"/x/  y"}, {}, {}, {}}},
        {"empty template kept", "[ScanRoot]\nexcludefiles =\n", true, nullptr, {{}, {}, {}, {""}}},
    };
    for (const Case& c : cases) {
        WriteFile(dir / "c.cfg", c.content);
        ProcessConfigFile((dir / "c.cfg").c_str());
        ASSERT_EQ(rootList != nullptr, c.hasRoot) << c.what;
        if (rootList) {
            EXPECT_EQ(rootLast, rootList) << c.what;
            EXPECT_EQ(rootList->next, nullptr) << c.what;
            if (c.path) {
                EXPECT_STREQ(rootList->path, c.path) << c.what;
            } else {
                EXPECT_EQ(rootList->path, nullptr) << c.what;
            }
            EXPECT_EQ(Texts(rootList->includeDirs), c.lists[0]) << c.what;
            EXPECT_EQ(Texts(rootList->excludeDirs), c.lists[1]) << c.what;
            EXPECT_EQ(Texts(rootList->includeFiles), c.lists[2]) << c.what;
            EXPECT_EQ(Texts(rootList->excludeFiles), c.lists[3]) << c.what;
        }
        ResetRoots();
    }
}
