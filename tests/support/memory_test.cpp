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

// The capacity steps and buffer addresses are the module's own business: what
// callers see is the text, at every length (the sanitizer build catches a
// buffer shorter than the text and its terminator at any step boundary).
TEST(StringObject, SetReplacesTheTextAndCatGrowsItAtEveryLength) {
    StringObject* s = NewStringObject("init", 0);  // 0: the default step, not none
    StringObjectSet(s, "0123456789");
    std::string expected = "0123456789";
    for (int i = 0; i < 1500; i++) {
        StringObjectCat(s, "x");
        expected += 'x';
        ASSERT_EQ(std::string(s->text), expected);
        ASSERT_EQ(s->length, static_cast<int32_t>(expected.size()));
    }
    StringObjectSet(s, "ab");
    EXPECT_STREQ(s->text, "ab");
    EXPECT_EQ(s->length, 2);
    FreeStringObject(s);
}
