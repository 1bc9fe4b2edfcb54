#include "detail/hardlinks.h"

#include <cstdlib>
#include <cstring>

#include "btree/btree.h"
#include "support/memory.h"

TreeHeader* hlinkTree = nullptr;
size_t hlinkHashBudget = HLINK_HASH_BUDGET;

// The hash table: linear probing over one array of 20-byte slots, each key
// with its data, so that a lookup mostly costs one cache miss (entries of a
// snapshot farm hit inodes all over the table). Key 0 marks a free slot;
// inode 0 (whose low 32 bits are 0) is kept apart.
//
// A paged B-tree pays a search that misses and an insertion for every first
// sight, each level comparing against key slots in other nodes; directories
// alone give one first sight per directory.
struct HashSlot {
    uint32_t key;
    uint32_t linkCount;
    uint32_t seenCount;
    uint32_t lastEntryPos[2];  // low and high halves: the slot stays 20 bytes
};
static_assert(sizeof(HashSlot) == HLINK_SLOT_BYTES);

static HashSlot* slots = nullptr;
static uint32_t capacity = 0;     // slots; 0 = no hash table
static uint32_t maxCapacity = 0;  // the most slots the budget allows
static uint32_t used = 0;         // keys held in slots
static bool zeroHeld = false;
static HardLinkInfo zeroInfo;

static uint64_t LastEntryPos(const HashSlot& slot) {
    return uint64_t{slot.lastEntryPos[1]} << 32 | slot.lastEntryPos[0];
}

static void SetLastEntryPos(HashSlot& slot, uint64_t pos) {
    slot.lastEntryPos[0] = static_cast<uint32_t>(pos);
    slot.lastEntryPos[1] = static_cast<uint32_t>(pos >> 32);
}

constexpr uint32_t FIRST_CAPACITY = 4096;

// A table at most three quarters full keeps probe runs short and always has
// a free slot, which ends every probe.
static bool Full(uint32_t keysHeld, uint32_t size) { return uint64_t{keysHeld} * 4 >= uint64_t{size} * 3; }

// Multiplicative hashing spreads the nearly consecutive inode numbers of a
// file system; the product's high bits pick a slot in a table of any size.
static inline uint32_t Home(uint32_t key, uint32_t size) {
    return static_cast<uint32_t>((uint64_t{key * 0x9E3779B1u} * size) >> 32);
}

// The slot holding key, or the free slot where it belongs.
static inline uint32_t Probe(const HashSlot* table, uint32_t size, uint32_t key) {
    uint32_t i = Home(key, size);
    while (table[i].key != key && table[i].key != 0) {
        if (++i == size) i = 0;
    }
    return i;
}

static void Allocate(uint32_t size) {
    slots = static_cast<HashSlot*>(GetMem(size_t{size} * sizeof *slots, "hard link table"));
    capacity = size;
}

static void Release() {
    free(slots);
    slots = nullptr;
    capacity = used = 0;
}

// Moves every key into a table of the given size.
static void Grow(uint32_t size) {
    HashSlot* old = slots;
    uint32_t oldCapacity = capacity;
    Allocate(size);
    for (uint32_t i = 0; i < oldCapacity; i++) {
        if (old[i].key != 0) slots[Probe(slots, capacity, old[i].key)] = old[i];
    }
    free(old);
}

// Room for one more key: grows the table while the budget allows.
// False when the table is full for good.
static bool MakeRoom() {
    if (!Full(used + 1, capacity)) return true;
    if (capacity >= maxCapacity) return false;
    uint64_t doubled = uint64_t{capacity} * 2;
    Grow(static_cast<uint32_t>(doubled < maxCapacity ? doubled : maxCapacity));
    return !Full(used + 1, capacity);
}

TreeHeader* PlantHardLinkTree() {
    return TreePlant(0, 512, -513, nullptr, 512, sizeof(uint32_t), sizeof(HardLinkInfo), 10000000, nullptr, nullptr,
                     nullptr, nullptr);
}

void HardLinksOpen() {
    hlinkTree = PlantHardLinkTree();
    Release();
    zeroHeld = false;
    uint64_t most = hlinkHashBudget / HLINK_SLOT_BYTES;
    maxCapacity = static_cast<uint32_t>(most < UINT32_MAX ? most : UINT32_MAX);
    // A table too small to hold a key leaves everything to the tree.
    if (maxCapacity >= 2) Allocate(maxCapacity < FIRST_CAPACITY ? maxCapacity : FIRST_CAPACITY);
}

void HardLinksFree() {
    TreeFree(hlinkTree);
    hlinkTree = nullptr;
    Release();
    zeroHeld = false;
}

// The slot holding inode in the hash table, or null.
static inline HashSlot* Hashed(uint32_t inode) {
    if (capacity == 0 || inode == 0) return nullptr;
    HashSlot* slot = &slots[Probe(slots, capacity, inode)];
    return slot->key == inode ? slot : nullptr;
}

// What hlinkTree holds for inode, or null; valid until the tree's next call.
// Only inodes that came after the hash table was full are in the tree.
static HardLinkInfo* InTree(uint32_t inode) {
    if (hlinkTree->rootNode == 0) return nullptr;
    KeySlot* slot = TreeSearch(hlinkTree, &inode, sizeof inode);
    return slot ? static_cast<HardLinkInfo*>(TreeSlotData(slot)) : nullptr;
}

static HardLinkInfo* ZeroHeld(uint32_t inode) { return capacity != 0 && inode == 0 && zeroHeld ? &zeroInfo : nullptr; }

// Runs once per entry with two or more links: no allocation but the rare
// growth of the hash table, no system call until the tree takes inodes.
uint64_t HardLinkNote(uint32_t inode, uint32_t linkCount, uint64_t entryPos, bool* first) {
    if (HashSlot* slot = Hashed(inode)) {
        uint64_t prev = LastEntryPos(*slot);
        slot->seenCount++;
        SetLastEntryPos(*slot, entryPos);
        *first = false;
        return prev;
    }
    HardLinkInfo* info = ZeroHeld(inode);
    if (!info) info = InTree(inode);
    if (info) {
        uint64_t prev = info->lastEntryPos;
        info->seenCount++;
        info->lastEntryPos = entryPos;
        *first = false;
        return prev;
    }
    *first = true;
    HardLinkInfo fresh{entryPos, linkCount, 1};
    if (capacity != 0 && inode == 0) {
        zeroInfo = fresh;
        zeroHeld = true;
    } else if (capacity != 0 && MakeRoom()) {
        HashSlot& slot = slots[Probe(slots, capacity, inode)];
        slot = HashSlot{inode, linkCount, 1, {}};
        SetLastEntryPos(slot, entryPos);
        used++;
    } else {
        TreeAddKey(hlinkTree, &inode, sizeof inode, &fresh);
    }
    return 0;
}

void HardLinkPrefetch(uint32_t inode) {
    if (capacity != 0) __builtin_prefetch(&slots[Home(inode, capacity)], 1);
}

bool HardLinkFind(uint32_t inode, HardLinkInfo* info) {
    if (const HashSlot* slot = Hashed(inode)) {
        *info = HardLinkInfo{LastEntryPos(*slot), slot->linkCount, slot->seenCount};
        return true;
    }
    const HardLinkInfo* held = ZeroHeld(inode);
    if (!held) held = InTree(inode);
    if (held) *info = *held;
    return held != nullptr;
}

size_t HardLinksHashed() { return used + (zeroHeld ? 1 : 0); }

size_t HardLinkHashBytes() { return size_t{capacity} * HLINK_SLOT_BYTES; }
