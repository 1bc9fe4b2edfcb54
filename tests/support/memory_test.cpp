#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "support/memory.h"

// Hands out pieces of the given sizes from one allocator and checks that each
// is 8-aligned and zeroed when handed out, then fills it; afterwards every
// piece must still hold its own filling (no two overlap; the sanitizer build
// catches a piece shorter than asked).
template <typename Alloc>
void ExpectSeparateZeroedPieces(const std::vector<size_t>& sizes, Alloc alloc) {
    std::vector<char*> pieces;
    for (size_t i = 0; i < sizes.size(); i++) {
        char* p = static_cast<char*>(alloc(sizes[i]));
        EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 8, 0u) << i;
        EXPECT_EQ(std::string(p, sizes[i]), std::string(sizes[i], '\0')) << i;
        memset(p, 'a' + static_cast<int>(i), sizes[i]);
        pieces.push_back(p);
    }
    for (size_t i = 0; i < sizes.size(); i++)
        EXPECT_EQ(std::string(pieces[i], sizes[i]), std::string(sizes[i], static_cast<char>('a' + i))) << i;
}

TEST(TempAlloc, PiecesAreSeparateAndZeroedAlsoFromReusedBlocks) {
    // Small pieces, one that fills a block to the last byte, one larger than a block.
    const std::vector<size_t> sizes = {5, 1, 0, 8, TEMP_BLOCK_SIZE - sizeof(TempBlock) - 24, 7, 100000, 16};
    TempBlock* chain = nullptr;
    for (int round = 0; round < 2; round++) {  // the second round reuses the pooled blocks
        ExpectSeparateZeroedPieces(sizes, [&](size_t n) { return TempAlloc(n, &chain); });
        TempFree(&chain);
        EXPECT_EQ(chain, nullptr);
    }
}

TEST(ArenaAlloc, PiecesAreSeparateAndZeroed) {
    Arena arena{};
    ExpectSeparateZeroedPieces({29, 1, ARENA_CHUNK_SIZE - sizeof(ArenaChunk) - 40, 8, 3 * ARENA_CHUNK_SIZE, 8},
                               [&](size_t n) { return ArenaAlloc(&arena, n, "test"); });
    for (ArenaChunk* c = arena.chunks; c;) free(std::exchange(c, c->next));
}

TEST(StringObject, GrowsInStepsAndKeepsItsBufferOnSet) {
    StringObject* s = NewStringObject("init", 1024);
    EXPECT_EQ(s->capacity, 1024);
    EXPECT_EQ(s->length, 4);
    EXPECT_STREQ(s->text, "init");
    char* buffer = s->text;
    StringObjectSet(s, "0123456789");
    EXPECT_EQ(s->text, buffer);
    EXPECT_EQ(s->capacity, 1024);
    EXPECT_EQ(s->length, 10);

    std::string longText(1500, 'x');
    StringObjectCat(s, longText.c_str());
    EXPECT_EQ(s->capacity, 2048);
    EXPECT_EQ(s->length, 1510);
    EXPECT_EQ(std::string(s->text), "0123456789" + longText);
    FreeStringContents(s);
    EXPECT_EQ(s->capacity, 0);
    EXPECT_EQ(s->length, 0);
    FreeStringObject(s);

    StringObject* d = NewStringObject(nullptr, 0);
    EXPECT_EQ(d->growBy, 256u);
    EXPECT_EQ(d->capacity, 0);
    StringObjectCat(d, "abc");
    EXPECT_EQ(d->capacity, 256);
    FreeStringObject(d);
}

TEST(Chr2WChr, SignExtendsEveryByte) {
    struct Case {
        const char* in;
        std::vector<uint16_t> out;
    } cases[] = {
        {"", {0}},
        {"Az", {'A', 'z', 0}},
        {"\x7f\x80\xc3\xff", {0x7F, 0xFF80, 0xFFC3, 0xFFFF, 0}},
    };
    for (const auto& c : cases) {
        std::vector<uint16_t> dst(c.out.size() + 2, 0xEEEE);
        Chr2WChr(dst.data(), c.in);
        dst.resize(c.out.size());
        EXPECT_EQ(dst, c.out) << c.in;
    }
}
