#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <set>

#include "detail/compress.h"
#include "detail/dtlclose.h"
#include "tests/support/testutil.h"

static std::set<std::string> Entries(const std::string& dir) {
    std::set<std::string> names;
    DIR* d = opendir(dir.c_str());
    while (dirent* e = d ? readdir(d) : nullptr) {
        std::string name = e->d_name;
        if (name != "." && name != "..") names.insert(name);
    }
    if (d) closedir(d);
    return names;
}

static std::string StreamBytes(FILE* f) {
    std::string s;
    for (int c; (c = fgetc(f)) != EOF;) s += static_cast<char>(c);
    return s;
}

// A finished detail file's worth of bytes, big enough for several buffers.
static std::string Plain() {
    std::string s = "FDTL" + std::string(84, '\0');
    for (int i = 0; s.size() < 2 * COMPRESS_BUFFER_SIZE + 100; i++) s += "/dir" + std::to_string(i) + '\0';
    return s;
}

// The names CloseDtlFile and OpenDtlFile will pick in the next few seconds.
static std::vector<std::string> TempNames(const std::string& path) {
    std::vector<std::string> names;
    for (time_t t = time(nullptr), end = t + 3; t < end; t++) names.push_back(path + "-" + std::to_string(t) + ".tmp");
    return names;
}

TEST(DtlFileClose, CompressesInPlaceAndOpenRestoresTheFile) {
    ScopedTempDir dir;
    const std::string path = dir / "ferro.dtl", plain = Plain();
    WriteFile(path, plain);
    FILE* stream = fopen(path.c_str(), "rb");
    testing::internal::CaptureStdout();
    CloseDtlFile(stream, path.c_str(), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Compressing DTL file\n");
    std::string packed = ReadFile(path);
    EXPECT_EQ(packed.substr(0, 2), "\x78\x01");
    EXPECT_LT(packed.size(), plain.size() / 4);
    EXPECT_EQ(Entries(dir.path), std::set<std::string>{"ferro.dtl"});

    // The copy leaves the compressed file as it is.
    int wasCompressed = 0;
    FILE* copy = OpenDtlFileCopy(path.c_str(), &wasCompressed);
    EXPECT_EQ(wasCompressed, 1);
    EXPECT_TRUE(StreamBytes(copy) == plain);
    fclose(copy);
    EXPECT_TRUE(ReadFile(path) == packed);

    wasCompressed = 0;
    testing::internal::CaptureStdout();
    FILE* opened = OpenDtlFile(path.c_str(), "rb", &wasCompressed);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Decompressing DTL file\n");
    EXPECT_EQ(wasCompressed, 1);
    EXPECT_TRUE(StreamBytes(opened) == plain);
    fclose(opened);
    EXPECT_TRUE(ReadFile(path) == plain);
    EXPECT_EQ(Entries(dir.path), std::set<std::string>{"ferro.dtl"});
}

TEST(DtlFileClose, PlainFilesOpenUnchangedAtTheirStart) {
    ScopedTempDir dir;
    const std::string path = dir / "ferro.dtl";
    for (const std::string& plain : {std::string("IDTL") + std::string(84, '\1'), std::string("x"), std::string()}) {
        WriteFile(path, plain);
        int wasCompressed = 7;
        FILE* opened = OpenDtlFile(path.c_str(), "r+b", &wasCompressed);
        EXPECT_EQ(StreamBytes(opened), plain);
        fclose(opened);
        FILE* copy = OpenDtlFileCopy(path.c_str(), &wasCompressed);
        EXPECT_EQ(StreamBytes(copy), plain);
        fclose(copy);
        EXPECT_EQ(wasCompressed, 7);
        EXPECT_EQ(ReadFile(path), plain);
    }
    // Without the zip flag the file is only closed.
    CloseDtlFile(fopen(path.c_str(), "rb"), path.c_str(), 0);
    CloseDtlFile(nullptr, path.c_str(), 0);
    EXPECT_EQ(ReadFile(path), "");
}

// Every failure ends the run with its message, leaves the detail file as it
// was, removes its own temporary file and never touches anyone else's.
TEST(DtlFileClose, FailuresAreFatalAndLeaveTheOriginalAndNoTemporaryFile) {
    ScopedTempDir dir;
    const std::string plain = Plain(), path = dir / "ferro.dtl", packedPath = dir / "packed.dtl";
    WriteFile(path, plain);
    ASSERT_EQ(compressFile(path.c_str(), packedPath.c_str()), 0);
    const std::string packed = ReadFile(packedPath);
    std::string corrupt = packed;
    corrupt[corrupt.size() - 1] ^= 1;
    // A name whose temporary name is one component too long for the file system.
    const std::string longPath = dir / std::string(245, 'n');
    // A path whose temporary name does not fit the 1024-byte name buffer.
    std::string deep = dir.path;
    for (int i = 0; i < 5; i++) mkdir((deep += "/" + std::string(200, 'd')).c_str(), 0700);
    const std::string tooLong = deep + "/ferro.dtl";
    const std::string exists = "'\n  \\(p17\\) File exists\n";
    struct Case {
        std::string path, content;
        char plant;  // in the temporary names: 'f' a file, 'l' a link to a file
        bool compress;
        std::string message;
    } cases[] = {
        {path, plain, 'f', true, "Error. Could not write temp file for decompressing '" + path + exists},
        {packedPath, packed, 'l', false, "Error. Could not write temp file for decompressing '" + packedPath + exists},
        {packedPath, corrupt, 0, false,
         "Error occurred during decompression of '" + packedPath + "'\nCould not write temp file: " + packedPath +
             "-[0-9]+.tmp\n  \\(p74\\) Bad message\n"},
        {longPath, plain, 0, true,
         "Error occurred during compression of '" + longPath + "'\nCould not write temp file: " + longPath +
             "-[0-9]+.tmp\n  \\(p36\\) File name too long\n"},
        {tooLong, plain, 0, true,
         "DTL file path too long for its temporary file \\(more than 1023 bytes\\): '" + tooLong + "'\n"},
        {dir / "missing", "", 0, true,
         "Couldn't find DTL file: '" + dir / "missing" + "'\n  \\(p2\\) No such file or directory\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        if (c.path != dir / "missing") WriteFile(c.path, c.content);
        WriteFile(dir / "target", "link target");
        for (const std::string& temp : TempNames(c.path)) {
            if (c.plant == 'f') WriteFile(temp, "planted");
            ASSERT_TRUE(c.plant != 'l' || symlink((dir / "target").c_str(), temp.c_str()) == 0) << temp;
        }
        const std::set<std::string> before = Entries(dir.path);
        if (c.compress) {
            EXPECT_EXIT(CloseDtlFile(nullptr, c.path.c_str(), 1), testing::ExitedWithCode(1), c.message);
        } else {
            EXPECT_EXIT(OpenDtlFile(c.path.c_str(), "rb", nullptr), testing::ExitedWithCode(1), c.message);
        }
        EXPECT_EQ(Entries(dir.path), before);
        EXPECT_TRUE(c.path == dir / "missing" || ReadFile(c.path) == c.content);
        EXPECT_EQ(ReadFile(dir / "target"), "link target");
        for (const std::string& temp : TempNames(c.path)) unlink(temp.c_str());
    }
}
