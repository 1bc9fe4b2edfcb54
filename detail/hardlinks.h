// The hard-link table: for each inode that entries with two or more links
// carry (the low 32 bits of its number), the position in hlinkFile of its
// newest chain entry, its link count at first sight and how many entries
// carried it. Inodes live in an open-addressing hash table of bounded size;
// those that come after it is full go on into the paged B-tree hlinkTree,
// and a lookup consults both. Only the answers (first sight or not, the
// previous position) reach the detail file, so where an inode is kept
// changes no byte of it.
#pragma once

#include <cstddef>
#include <cstdint>

struct TreeHeader;

/// The data kept with each inode, in the hash table and in hlinkTree alike.
struct HardLinkInfo {
    uint64_t lastEntryPos;  ///< position in hlinkFile of the newest entry of the inode
    uint32_t linkCount;     ///< link count at first sight
    uint32_t seenCount;     ///< entries seen for the inode
};
static_assert(sizeof(HardLinkInfo) == 16);
static_assert(offsetof(HardLinkInfo, lastEntryPos) == 0);
static_assert(offsetof(HardLinkInfo, linkCount) == 8);
static_assert(offsetof(HardLinkInfo, seenCount) == 12);

/// Bytes of one hash-table slot: the 4-byte key and the 16 bytes of a HardLinkInfo.
constexpr size_t HLINK_SLOT_BYTES = sizeof(uint32_t) + sizeof(HardLinkInfo);

/// The hash table's default budget: the key-node memory hlinkTree is given,
/// so that spilling never more than doubles the table's memory. A build may
/// set another (FERROVAN_HLINK_HASH_BUDGET) to exercise the spill on real trees.
#ifdef FERROVAN_HLINK_HASH_BUDGET
constexpr size_t HLINK_HASH_BUDGET = FERROVAN_HLINK_HASH_BUDGET;
#else
constexpr size_t HLINK_HASH_BUDGET = 10000000;
#endif

extern TreeHeader* hlinkTree;   ///< the inodes that came after the hash table was full (HardLinksOpen)
extern size_t hlinkHashBudget;  ///< bytes the hash table may take; HardLinksOpen reads it

/// A fresh hard-link tree: 4-byte inode keys with a HardLinkInfo each, in
/// temporary page files. Exits 1 when its page files cannot be created.
TreeHeader* PlantHardLinkTree();
/// Plants hlinkTree and empties the hash table.
void HardLinksOpen();
/// Frees both parts of the table and hlinkTree's page files.
void HardLinksFree();

/// Finds or adds inode. Found: returns its lastEntryPos, counts one more
/// entry and makes entryPos its lastEntryPos; *first = false. Not found: adds
/// {entryPos, linkCount, 1} and returns 0; *first = true.
uint64_t HardLinkNote(uint32_t inode, uint32_t linkCount, uint64_t entryPos, bool* first);
/// Starts loading the hash-table slot where inode's lookup begins: the walk
/// calls it as soon as it knows an entry has two or more links, so that the
/// slot's cache miss overlaps the record's formatting instead of following it.
void HardLinkPrefetch(uint32_t inode);
/// Copies what the table holds for inode into *info; false when it holds nothing.
bool HardLinkFind(uint32_t inode, HardLinkInfo* info);
/// Inodes held by the hash table; the others are in hlinkTree.
size_t HardLinksHashed();
/// Bytes the hash table takes now.
size_t HardLinkHashBytes();
