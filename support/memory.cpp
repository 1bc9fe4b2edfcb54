#include "support/memory.h"

#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "log/log.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define TEMP_POISON(p, n) ASAN_POISON_MEMORY_REGION(p, n)
#define TEMP_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION(p, n)
#else
#define TEMP_POISON(p, n) ((void)(p), (void)(n))
#define TEMP_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

void* GetMem(size_t size, const char* caller) {
    void* p = calloc(1, size ? size : 1);
    if (!p) {
        if (caller) ErrExit("Insufficient memory: called from '%s'\n", caller);
        ErrExit("Insufficient memory\n");
    }
    return p;
}

void* GetTreeMem(uint32_t size) { return GetMem(size, "tree alloc"); }

// Standard blocks that TempFree gave back, reused before new ones are taken:
// the walk starts and frees a chain for every directory, and a fresh block
// would have to be zeroed whole. The pool keeps at most TEMP_POOL_MAX blocks.
static TempBlock* tempPool = nullptr;
static uint32_t tempPoolCount = 0;

static TempBlock* NewTempBlock(size_t blockSize) {
    if (blockSize == TEMP_BLOCK_SIZE && tempPool) {
        TempBlock* block = tempPool;
        TEMP_UNPOISON(block, TEMP_BLOCK_SIZE);
        tempPool = block->next;
        tempPoolCount--;
        return block;
    }
    auto* block = static_cast<TempBlock*>(GetMem(blockSize, "allocate temm mem"));
    block->size = blockSize;
    return block;
}

// Runs once per subdirectory: a new block only when the current one is full.
void* TempAlloc(size_t size, TempBlock** chain) {
    size = (size + 7) & ~static_cast<size_t>(7);
    TempBlock* block = *chain;
    char* p;
    if (block && block->free + size < block->end) {
        p = block->free;
        block->free += size;
    } else {
        // A request that no standard block can hold gets a block sized for it.
        size_t blockSize = TEMP_BLOCK_SIZE;
        if (size + sizeof(TempBlock) >= TEMP_BLOCK_SIZE) blockSize = sizeof(TempBlock) + size + 8;
        block = NewTempBlock(blockSize);
        block->next = *chain;
        block->end = reinterpret_cast<char*>(block) + blockSize;
        p = reinterpret_cast<char*>(block + 1);
        block->free = p + size;
        *chain = block;
    }
    // A reused block holds an earlier chain's bytes: every piece is handed out zeroed.
    memset(p, 0, size);
    return p;
}

void TempFree(TempBlock** chain) {
    if (!chain) return;
    for (TempBlock* b = *chain; b;) {
        TempBlock* next = b->next;
        if (b->size == TEMP_BLOCK_SIZE && tempPoolCount < TEMP_POOL_MAX) {
            b->next = tempPool;
            tempPool = b;
            tempPoolCount++;
            // The sanitizer build still reports any use of a freed chain.
            TEMP_POISON(reinterpret_cast<char*>(b + 1), TEMP_BLOCK_SIZE - sizeof(TempBlock));
        } else {
            free(b);
        }
        b = next;
    }
    *chain = nullptr;
}

// Runs once per owner-table record: a new chunk only when the current one is full.
void* ArenaAlloc(Arena* arena, size_t size, const char* caller) {
    size = (size + 7) & ~static_cast<size_t>(7);
    if (static_cast<size_t>(arena->end - arena->free) < size) {
        size_t chunkSize = ARENA_CHUNK_SIZE;
        if (size > chunkSize - sizeof(ArenaChunk)) chunkSize = sizeof(ArenaChunk) + size;
        // Zero-filled: large blocks come straight from the system, untouched until used.
        auto* chunk = static_cast<ArenaChunk*>(GetMem(chunkSize, caller));
        chunk->next = arena->chunks;
        chunk->size = chunkSize;
        arena->chunks = chunk;
        arena->free = reinterpret_cast<char*>(chunk + 1);
        arena->end = reinterpret_cast<char*>(chunk) + chunkSize;
    }
    void* p = arena->free;
    arena->free += size;
    return p;
}

char* SaveAStr(const char* str) {
    size_t n = strlen(str);
    auto* copy = static_cast<char*>(GetMem(n + 1, "save astring"));
    memcpy(copy, str, n);
    return copy;
}

wchar_t* SaveWStr(const wchar_t* wstr) {
    size_t n = wcslen(wstr);
    auto* copy = static_cast<wchar_t*>(GetMem((n + 1) * sizeof(wchar_t), "save wstring"));
    wmemcpy(copy, wstr, n);
    return copy;
}

uint16_t* Chr2WChr(uint16_t* dst, const char* src) {
    uint16_t* out = dst;
    for (; *src; src++) *out++ = static_cast<uint16_t>(static_cast<int16_t>(static_cast<signed char>(*src)));
    *out = 0;
    return dst;
}

StringObject* NewStringObject(const char* init, uint32_t growBy) {
    auto* obj = static_cast<StringObject*>(GetMem(sizeof(StringObject), "string object"));
    obj->growBy = growBy ? growBy : 256;
    if (init) StringObjectCat(obj, init);
    return obj;
}

char* StringObjectCatN(StringObject* obj, const char* str, size_t n) {
    size_t need = static_cast<size_t>(obj->length) + n + 1;
    if (static_cast<size_t>(obj->capacity) < need) {
        size_t capacity = static_cast<size_t>(obj->capacity);
        while (capacity < need) capacity += obj->growBy;
        if (capacity > INT32_MAX) ErrExit("Insufficient memory: called from '%s'\n", "string object");
        // realloc keeps the text, as the copy-aside-and-back did.
        auto* text = static_cast<char*>(realloc(obj->capacity ? obj->text : nullptr, capacity));
        if (!text) ErrExit("Insufficient memory: called from '%s'\n", "string object");
        obj->text = text;
        obj->capacity = static_cast<int32_t>(capacity);
    }
    memcpy(obj->text + obj->length, str, n);
    obj->length += static_cast<int32_t>(n);
    obj->text[obj->length] = '\0';
    return obj->text;
}

char* StringObjectCat(StringObject* obj, const char* str) { return StringObjectCatN(obj, str, strlen(str)); }

char* StringObjectSet(StringObject* obj, const char* str) {
    obj->length = 0;
    return StringObjectCat(obj, str);
}

void FreeStringContents(StringObject* obj) {
    if (obj->capacity == 0) return;
    free(obj->text);
    obj->text = nullptr;
    obj->capacity = obj->length = 0;
}

void FreeStringObject(StringObject* obj) {
    if (obj->capacity) free(obj->text);
    free(obj);
}
