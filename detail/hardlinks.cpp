#include "detail/hardlinks.h"

#include <cstdlib>
#include <cstring>

#include "btree/btree.h"
#include "support/memory.h"

TreeHeader* hlinkTree = nullptr;
size_t hlinkHashBudget = HLINK_HASH_BUDGET;

// The hash table: linear probing over an array of keys, with each key's data
// in a parallel array, so that a probe reads 16 keys to a cache line and the
// data is touched only on a hit. Key 0 marks a free slot; inode 0 (whose low
// 32 bits are 0) is kept apart.
//
// A paged B-tree pays a search that misses and an insertion for every first
// sight, each level comparing against key slots in other nodes; directories
// alone give one first sight per directory. The hash table costs one or two
// cache lines per lookup.
static uint32_t* keys = nullptr;
static HardLinkInfo* infos = nullptr;
static uint32_t capacity = 0;     // slots in both arrays; 0 = no hash table
static uint32_t maxCapacity = 0;  // the most slots the budget allows
static uint32_t used = 0;         // keys held in the arrays
static bool zeroHeld = false;
static HardLinkInfo zeroInfo;

constexpr uint32_t FIRST_CAPACITY = 4096;

// A table at most three quarters full keeps probe runs short and always has
// a free slot, which ends every probe.
static bool Full(uint32_t keysHeld, uint32_t slots) { return uint64_t{keysHeld} * 4 >= uint64_t{slots} * 3; }

// Multiplicative hashing spreads the nearly consecutive inode numbers of a
// file system; the product's high bits pick a slot in a table of any size.
static inline uint32_t Home(uint32_t key, uint32_t slots) {
    return static_cast<uint32_t>((uint64_t{key * 0x9E3779B1u} * slots) >> 32);
}

// The slot holding key, or the free slot where it belongs.
static inline uint32_t Probe(const uint32_t* table, uint32_t slots, uint32_t key) {
    uint32_t i = Home(key, slots);
    while (table[i] != key && table[i] != 0) {
        if (++i == slots) i = 0;
    }
    return i;
}

static void Allocate(uint32_t slots) {
    keys = static_cast<uint32_t*>(GetMem(size_t{slots} * sizeof *keys, "hard link table"));
    infos = static_cast<HardLinkInfo*>(GetMem(size_t{slots} * sizeof *infos, "hard link table"));
    capacity = slots;
}

static void Release() {
    free(keys);
    free(infos);
    keys = nullptr;
    infos = nullptr;
    capacity = used = 0;
}

// Moves every key into arrays of the given size.
static void Grow(uint32_t slots) {
    uint32_t* oldKeys = keys;
    HardLinkInfo* oldInfos = infos;
    uint32_t oldCapacity = capacity;
    Allocate(slots);
    for (uint32_t i = 0; i < oldCapacity; i++) {
        if (oldKeys[i] == 0) continue;
        uint32_t at = Probe(keys, capacity, oldKeys[i]);
        keys[at] = oldKeys[i];
        infos[at] = oldInfos[i];
    }
    free(oldKeys);
    free(oldInfos);
}

// Room for one more key: grows the arrays while the budget allows.
// False when the table is full for good.
static bool MakeRoom() {
    if (!Full(used + 1, capacity)) return true;
    if (capacity >= maxCapacity) return false;
    uint64_t slots = uint64_t{capacity} * 2;
    Grow(static_cast<uint32_t>(slots < maxCapacity ? slots : maxCapacity));
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

// The data the table holds for inode, or null. A pointer into hlinkTree
// stays valid only until the tree's next call.
static HardLinkInfo* Lookup(uint32_t inode) {
    if (capacity != 0) {
        if (inode == 0) {
            if (zeroHeld) return &zeroInfo;
        } else {
            uint32_t at = Probe(keys, capacity, inode);
            if (keys[at] == inode) return &infos[at];
        }
    }
    // Only inodes that came after the hash table was full are in the tree.
    if (hlinkTree->rootNode == 0) return nullptr;
    KeySlot* slot = TreeSearch(hlinkTree, &inode, sizeof inode);
    return slot ? static_cast<HardLinkInfo*>(TreeSlotData(slot)) : nullptr;
}

// Runs once per entry with two or more links: no allocation but the rare
// growth of the hash table, no system call until the tree takes inodes.
uint64_t HardLinkNote(uint32_t inode, uint32_t linkCount, uint64_t entryPos, bool* first) {
    if (HardLinkInfo* info = Lookup(inode)) {
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
        uint32_t at = Probe(keys, capacity, inode);
        keys[at] = inode;
        infos[at] = fresh;
        used++;
    } else {
        TreeAddKey(hlinkTree, &inode, sizeof inode, &fresh);
    }
    return 0;
}

bool HardLinkFind(uint32_t inode, HardLinkInfo* info) {
    const HardLinkInfo* held = Lookup(inode);
    if (held) *info = *held;
    return held != nullptr;
}

size_t HardLinksHashed() { return used + (zeroHeld ? 1 : 0); }

size_t HardLinkHashBytes() { return size_t{capacity} * HLINK_SLOT_BYTES; }
