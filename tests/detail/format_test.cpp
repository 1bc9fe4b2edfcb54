#include "detail/format.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/detail/dtlbuilder.h"

namespace {

template <typename T>
std::string Bytes(const T& value) {
    return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}

class FormatTest : public testing::Test {
protected:
    void SetUp() override { WhichEnd(); }
    FakeFile sample = BuildDetail(SampleScan());
    std::string At(uint64_t pos, size_t n) const { return sample.bytes.substr(pos, n); }
};

TEST_F(FormatTest, EncodesRecordsAsTheFileHoldsThem) {
    struct stat st {};
    st.st_uid = 1000;
    st.st_gid = 100;
    st.st_ino = 0x500000000 + 77;  // only the low 32 bits are stored
    st.st_mode = S_IFREG | 0644;
    st.st_ctim.tv_sec = 1700000001;
    st.st_atim.tv_sec = 1700000002;
    st.st_mtim.tv_sec = 1700000003;
    st.st_size = 50;
    st.st_nlink = 2;
    DtlRecordFixed rec;
    EncodeEntryFixed(&rec, DTL_HARDLINK, st, 3, 0);
    EXPECT_EQ(Bytes(rec), At(sample.recordPos.at("/h1"), 48));

    st.st_ino = 21;
    st.st_mode = S_IFLNK | 0777;
    st.st_size = 11;
    st.st_nlink = 1;
    EncodeEntryFixed(&rec, DTL_SYMLINK, st, 2, 12);
    EXPECT_EQ(Bytes(rec), At(sample.recordPos.at("/l"), 48));

    EncodeDirHeaderFixed(&rec, 3);
    SetDirCounts(&rec, 2, 1, 57);
    EXPECT_EQ(Bytes(rec), At(sample.recordPos.at("dir:/a"), 48));

    EncodeEndMarker(&rec);
    EXPECT_EQ(Bytes(rec), At(sample.endMarkerPos, 48));

    DtlHardLinkEntry link;
    EncodeHardLinkEntry(&link, 24, sample.recordPos.at("dir:/a"), sample.recordPos.at("/a/h2"));
    EXPECT_EQ(Bytes(link), At(sample.tablePos + 4 * 24, 24));
}

TEST_F(FormatTest, EncodesHeaderStringsAsSignExtendedUnits) {
    struct Case {
        std::string text;
        std::string bytes;
    } cases[] = {
        {"", std::string("\x02\x00\x00\x00", 4)},
        {"A", std::string("\x04\x00\x41\x00\x00\x00", 6)},
        {"\xC3", std::string("\x04\x00\xC3\xFF\x00\x00", 6)},
        {"a\x7F\x80", std::string("\x08\x00\x61\x00\x7F\x00\x80\xFF\x00\x00", 10)},
    };
    for (const Case& c : cases) {
        uint8_t out[16];
        size_t n = EncodeHeaderString(out, c.text.c_str());
        EXPECT_EQ(n, HeaderStringSize(c.text.size()));
        EXPECT_EQ(std::string(reinterpret_cast<char*>(out), n), c.bytes) << c.text;
    }
    // The node name as the sample file holds it.
    uint8_t out[16];
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out), EncodeHeaderString(out, "node1")), At(284, 14));

    // The unit count is a signed 16-bit number: 32,766 bytes fit, 32,767 do not.
    std::vector<uint8_t> big(HeaderStringSize(32767));
    EXPECT_EQ(EncodeHeaderString(big.data(), std::string(32766, 'x').c_str()), HeaderStringSize(32766));
    EXPECT_EQ(big[0] | big[1] << 8, 0xFFFE);
    EXPECT_EQ(EncodeHeaderString(big.data(), std::string(32767, 'x').c_str()), 0u);
}

TEST_F(FormatTest, EncodesTheVersionHeaderWithBoundedTexts) {
    DtlVersionHeader v;
    EncodeVersionHeader(&v, "2.2.0", "Mac", "IA32");
    EXPECT_EQ(Bytes(v), At(208, 76));
    EncodeVersionHeader(&v, "123456789012345", std::string(40, 'p').c_str(), "");
    EXPECT_EQ(std::string(v.version, 12), std::string("12345678901\0", 12));
    EXPECT_EQ(std::string(v.platform, 32), std::string(31, 'p') + '\0');
    EXPECT_EQ(std::string(v.architecture, 32), std::string(32, '\0'));
}

TEST_F(FormatTest, FlagsATaggedRunByItsFirstCharacter) {
    struct Case {
        const char* tag;
        uint32_t flags;
    } cases[] = {
        {"                               ", DTL_COMPLETE},
        {" abc                           ", DTL_COMPLETE},
        {"abc                            ", DTL_COMPLETE_TAGGED},
    };
    for (const Case& c : cases) EXPECT_EQ(CompletionFlagsFor(c.tag), c.flags) << c.tag;
}

}  // namespace
