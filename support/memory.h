// Allocation that never returns null, short-lived block allocation for the
// walk, text duplication, byte-to-16-bit widening and growable string objects.
#pragma once

#include <cstddef>
#include <cstdint>

/// Zero-filled memory; on exhaustion ends the program with
/// "Insufficient memory: called from '<caller>'" (or without the caller when null).
void* GetMem(size_t size, const char* caller);
/// GetMem with the caller text "tree alloc".
void* GetTreeMem(uint32_t size);

/// One block of a TempAlloc chain: a 32-byte head, then the data.
struct TempBlock {
    TempBlock* next;  ///< next (older) block
    uint64_t size;    ///< bytes in the block, head included
    char* end;        ///< one past the block's last byte
    char* free;       ///< first free byte
};
static_assert(sizeof(TempBlock) == 32);

constexpr uint32_t TEMP_BLOCK_SIZE = 32768;
/// Freed standard blocks kept for reuse, at most (1 MiB).
constexpr uint32_t TEMP_POOL_MAX = 32;

/// Returns size bytes (rounded up to 8, zero-filled) from the newest block of
/// *chain, starting a new 32 KiB block in front when it has no room: a freed
/// one when TempFree kept some, else a new one. A request larger than a
/// block's data area gets a block of its own.
void* TempAlloc(size_t size, TempBlock** chain);
/// Releases every block of *chain and empties it (null-safe): standard
/// blocks are kept for reuse, up to TEMP_POOL_MAX, the rest are freed.
void TempFree(TempBlock** chain);

/// One chunk of an arena: a 16-byte head, then the blocks.
struct ArenaChunk {
    ArenaChunk* next;  ///< the chunk taken before this one
    uint64_t size;     ///< bytes in the chunk, head included
};
static_assert(sizeof(ArenaChunk) == 16);

/// A bump allocator for small blocks that are never freed: no per-block
/// header or rounding beyond 8 bytes, and every chunk stays reachable.
struct Arena {
    char* free;           ///< first free byte of the newest chunk
    char* end;            ///< one past the newest chunk
    ArenaChunk* chunks;   ///< newest chunk first
};

constexpr size_t ARENA_CHUNK_SIZE = 1 << 20;

/// size bytes (rounded up to 8), zero-filled and 8-aligned, from the newest
/// chunk of arena, which takes a new 1 MiB chunk when it has no room (a
/// larger request gets a chunk of its own). Exhaustion ends the program as
/// GetMem does with caller. The blocks live until the process ends.
void* ArenaAlloc(Arena* arena, size_t size, const char* caller);

/// Heap copy of an 8-bit string.
char* SaveAStr(const char* str);
/// Heap copy of a wide string.
wchar_t* SaveWStr(const wchar_t* wstr);
/// Widens each byte of src to one 16-bit unit by sign extension and writes a
/// zero unit at the end; dst must hold strlen(src) + 1 units. Returns dst.
uint16_t* Chr2WChr(uint16_t* dst, const char* src);

/// A growable text: capacity grows in steps of growBy.
struct StringObject {
    uint32_t growBy;   ///< capacity increment; 256 when created with 0
    int32_t capacity;  ///< bytes allocated for text; 0 = no buffer
    int32_t length;    ///< text length without the terminator
    char* text;        ///< the zero-terminated text; null until the first append
};
static_assert(sizeof(StringObject) == 24);
static_assert(offsetof(StringObject, growBy) == 0);
static_assert(offsetof(StringObject, capacity) == 4);
static_assert(offsetof(StringObject, length) == 8);
static_assert(offsetof(StringObject, text) == 16);

/// A new string object holding init (when not null).
StringObject* NewStringObject(const char* init, uint32_t growBy);
/// Appends str; returns the text.
char* StringObjectCat(StringObject* obj, const char* str);
/// Appends the first n bytes of str; returns the text.
char* StringObjectCatN(StringObject* obj, const char* str, size_t n);
/// Replaces the text by str, keeping the buffer; returns the text.
char* StringObjectSet(StringObject* obj, const char* str);
/// Frees the text buffer and empties the object.
void FreeStringContents(StringObject* obj);
/// Frees the text buffer and the object.
void FreeStringObject(StringObject* obj);
