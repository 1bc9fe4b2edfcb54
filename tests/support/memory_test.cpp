#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/memory.h"

TEST(TempAlloc, ServesFromTheNewestBlockAndStartsANewOneWhenFull) {
    TempBlock* chain = nullptr;
    char* first = static_cast<char*>(TempAlloc(5, &chain));
    ASSERT_NE(chain, nullptr);
    EXPECT_EQ(first, reinterpret_cast<char*>(chain + 1));
    // Sizes round up to 8, so the next piece follows 8 bytes later.
    EXPECT_EQ(static_cast<char*>(TempAlloc(1, &chain)), first + 8);
    // A zero-byte request returns the current free byte without advancing.
    char* zero = static_cast<char*>(TempAlloc(0, &chain));
    EXPECT_EQ(zero, first + 16);
    EXPECT_EQ(static_cast<char*>(TempAlloc(8, &chain)), zero);

    // A request that exactly fills the rest of the block goes to a new block.
    TempBlock* old = chain;
    size_t rest = static_cast<size_t>(old->end - old->free);
    char* filled = static_cast<char*>(TempAlloc(rest, &chain));
    EXPECT_NE(chain, old);
    EXPECT_EQ(chain->next, old);
    EXPECT_EQ(filled, reinterpret_cast<char*>(chain + 1));
    TempFree(&chain);
    EXPECT_EQ(chain, nullptr);
}

TEST(TempAlloc, ServesRequestsLargerThanABlock) {
    TempBlock* chain = nullptr;
    const size_t big = 100000;
    char* p = static_cast<char*>(TempAlloc(big, &chain));
    memset(p, 0x5A, big);  // the sanitizer build catches any overrun here
    char* small = static_cast<char*>(TempAlloc(16, &chain));
    memset(small, 1, 16);
    TempFree(&chain);
}

TEST(TempAlloc, ReusesFreedBlocksAndStillHandsOutZeroedPieces) {
    TempBlock* chain = nullptr;
    char* first = static_cast<char*>(TempAlloc(200, &chain));
    TempBlock* block = chain;
    memset(first, 0x5A, 200);
    TempFree(&chain);
    // The freed block comes back for the next chain, but not the bytes it held.
    char* again = static_cast<char*>(TempAlloc(200, &chain));
    EXPECT_EQ(chain, block);
    EXPECT_EQ(again, first);
    EXPECT_EQ(std::string(again, 200), std::string(200, '\0'));
    EXPECT_EQ(chain->next, nullptr);
    TempFree(&chain);
}

TEST(ArenaAlloc, PacksZeroedBlocksAndTakesANewChunkWhenFull) {
    Arena arena{};
    char* a = static_cast<char*>(ArenaAlloc(&arena, 29, "test"));
    ASSERT_NE(arena.chunks, nullptr);
    EXPECT_EQ(a, reinterpret_cast<char*>(arena.chunks + 1));
    // Rounded up to 8: the next block follows 32 bytes later.
    char* b = static_cast<char*>(ArenaAlloc(&arena, 1, "test"));
    EXPECT_EQ(b, a + 32);
    EXPECT_EQ(std::string(a, 40), std::string(40, '\0'));

    // A block that still fits the chunk exactly stays in it; the next one does not.
    ArenaChunk* first = arena.chunks;
    size_t rest = static_cast<size_t>(arena.end - arena.free);
    char* last = static_cast<char*>(ArenaAlloc(&arena, rest, "test"));
    EXPECT_EQ(arena.chunks, first);
    EXPECT_EQ(last + rest, reinterpret_cast<char*>(first) + ARENA_CHUNK_SIZE);
    char* next = static_cast<char*>(ArenaAlloc(&arena, 8, "test"));
    EXPECT_NE(arena.chunks, first);
    EXPECT_EQ(arena.chunks->next, first);
    EXPECT_EQ(next, reinterpret_cast<char*>(arena.chunks + 1));

    // Larger than a chunk: a chunk of its own, fully usable.
    const size_t big = 3 * ARENA_CHUNK_SIZE;
    char* p = static_cast<char*>(ArenaAlloc(&arena, big, "test"));
    memset(p, 0x5A, big);  // the sanitizer build catches any overrun here
    EXPECT_EQ(arena.chunks->size, big + sizeof(ArenaChunk));
    for (ArenaChunk* c = arena.chunks; c;) {
        ArenaChunk* older = c->next;
        free(c);
        c = older;
    }
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
