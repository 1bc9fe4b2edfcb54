// The paged B-tree: an ordered index of fixed-size byte keys with optional
// fixed-size caller data, whose index nodes and key nodes live in two private
// page files behind a bounded least-recently-used cache of each kind.
//
// Tree nodes hold only references (key node, slot) to keys; key bytes and data
// live in slots of key nodes. Entries in a tree node are right-aligned, and the
// last entry of a node names the greatest key below it, so keys arriving in
// ascending order take an append path that fills nodes completely.
//
// Page files are created exclusively (no links followed) and their names are
// removed as soon as they are open: the tree works through the descriptors,
// and nothing is left behind however the process ends. A page file that cannot
// be created, read or written ends the run with a message naming it; reading
// a page that was never written yields zeros.
//
// Cache floor: every operation re-addresses its nodes by number after anything
// that may page, and never needs more than two nodes of one kind at the same
// moment, so each cache holds at least MIN_CACHED_NODES nodes (a smaller
// request is raised to it). No node is pinned.
//
// Deletion keeps its removal step exactly (see TreeDeleteKey: saved trees
// and the tools that load them depend on the layout it leaves) and never
// adjusts ancestors, so an inner entry may still name a deleted greatest key
// (whose slot is therefore not reused). A search that meets such a stale key,
// or a leaf whose keys are all smaller than the search key, reports the key as
// missing and places it after the leaf's last entry.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

/// Allocation function: a block of the given size (the default, GetTreeMem,
/// zero-fills it and never returns null).
using TreeAllocFn = void* (*)(uint32_t size);
/// Release function for blocks of the allocation function.
using TreeFreeFn = void (*)(void* block);
/// Key comparison: negative when key sorts before stored, 0 when equal,
/// positive after. The caller's key always comes first.
using TreeCompareFn = int32_t (*)(const void* key, uint32_t keyLen, const void* stored, uint32_t storedLen);

/// The first 24 bytes of every node: its number and its place in the recency list.
struct NodeHead {
    uint32_t nodeNumber;  ///< 0 is never used
    uint32_t entryCount;  ///< tree node: entries in use; key node: unused
    NodeHead* olderNode;  ///< toward the least recently used (stale in a page image)
    NodeHead* newerNode;  ///< toward the most recently used (stale in a page image)
};
static_assert(sizeof(NodeHead) == 24);
static_assert(offsetof(NodeHead, nodeNumber) == 0);
static_assert(offsetof(NodeHead, entryCount) == 4);
static_assert(offsetof(NodeHead, olderNode) == 8);
static_assert(offsetof(NodeHead, newerNode) == 16);

/// One entry of a tree node: a child (inner nodes) and the slot of a key.
struct NodeEntry {
    uint32_t childNode;  ///< child tree node; 0 in a leaf
    uint32_t keyNode;    ///< key node of the entry's key
    uint32_t keySlot;    ///< slot index in that key node
};
static_assert(sizeof(NodeEntry) == 12);
static_assert(offsetof(NodeEntry, childNode) == 0);
static_assert(offsetof(NodeEntry, keyNode) == 4);
static_assert(offsetof(NodeEntry, keySlot) == 8);

/// A tree node; `capacity` entries follow the 48-byte head.
struct TreeNode {
    NodeHead head;        ///< number, entries in use, recency links
    uint32_t level;       ///< 0 for a leaf; a parent is one above its children
    uint32_t capacity;    ///< always the tree's order
    uint32_t leftNode;    ///< neighbour with smaller keys on the same level (0 = none)
    uint32_t rightNode;   ///< neighbour with greater keys on the same level (0 = none)
    uint32_t parentNode;  ///< 0 for the root
    uint32_t unused;
};
static_assert(sizeof(TreeNode) == 48);
static_assert(offsetof(TreeNode, head) == 0);
static_assert(offsetof(TreeNode, level) == 24);
static_assert(offsetof(TreeNode, capacity) == 28);
static_assert(offsetof(TreeNode, leftNode) == 32);
static_assert(offsetof(TreeNode, rightNode) == 36);
static_assert(offsetof(TreeNode, parentNode) == 40);

/// The entries of a tree node; those in use are the last entryCount of capacity.
inline NodeEntry* Entries(TreeNode* node) { return reinterpret_cast<NodeEntry*>(node + 1); }

/// A key node; keysPerNode slots of slotSize bytes follow the 24-byte head.
struct KeyNode {
    NodeHead head;  ///< number and recency links
};
static_assert(sizeof(KeyNode) == 24);

/// The head of a key slot; the key bytes follow at 12, the data at 12 + keyLength.
/// Slots are packed at any byte offset, so the struct has no alignment.
struct [[gnu::packed]] KeySlot {
    uint32_t slotLink[2];   ///< free: next free key node and slot; in use: 0, or the data address
    uint32_t storedLength;  ///< length of the stored key
};
static_assert(sizeof(KeySlot) == 12);
static_assert(alignof(KeySlot) == 1);
static_assert(offsetof(KeySlot, slotLink) == 0);
static_assert(offsetof(KeySlot, storedLength) == 8);

/// The data address that a lookup stored in a returned slot (trees with data).
inline void* TreeSlotData(const KeySlot* slot) {
    void* data;
    std::memcpy(&data, slot->slotLink, sizeof data);
    return data;
}
/// The stored key bytes of a slot.
inline unsigned char* TreeSlotKey(KeySlot* slot) { return reinterpret_cast<unsigned char*>(slot) + sizeof(KeySlot); }

/// The cache and page file of one node kind.
struct NodeTable {
    NodeHead** nodes;       ///< cached node buffers sorted by node number; count in use
    uint32_t capacity;      ///< how many nodes of this kind may be in memory
    uint32_t count;         ///< how many are in memory
    uint32_t nodeSize;      ///< bytes of one node image
    uint32_t pad20;
    uint32_t* nextNodePtr;  ///< the counter numbering new nodes: nextNode or sharedNextNode
    uint32_t nextNode;      ///< the next node number of this table; starts at 1
    uint32_t pad36;
    int32_t* fdPtr;         ///< the page-file descriptor in use: fd or sharedFd
    int32_t fd;             ///< this table's page-file descriptor
    uint32_t pad52;
    NodeHead* newestNode;   ///< most recently used (tail of the recency list)
    NodeHead* oldestNode;   ///< least recently used (the next victim)
};
static_assert(sizeof(NodeTable) == 72);
static_assert(offsetof(NodeTable, nodes) == 0);
static_assert(offsetof(NodeTable, capacity) == 8);
static_assert(offsetof(NodeTable, count) == 12);
static_assert(offsetof(NodeTable, nodeSize) == 16);
static_assert(offsetof(NodeTable, nextNodePtr) == 24);
static_assert(offsetof(NodeTable, nextNode) == 32);
static_assert(offsetof(NodeTable, fdPtr) == 40);
static_assert(offsetof(NodeTable, fd) == 48);
static_assert(offsetof(NodeTable, newestNode) == 56);
static_assert(offsetof(NodeTable, oldestNode) == 64);

/// The tree handle; the two node-pointer arrays follow it in the same block.
struct TreeHeader {
    uint32_t flags;          ///< bit 0: one page file and one node numbering for both kinds
    uint32_t rootNode;       ///< root tree node; 0 while the tree is empty
    uint32_t cursorNode;     ///< leaf of the cursor; 0 = no position
    int32_t cursorIndex;     ///< entry index of the cursor in that leaf
    uint32_t order;          ///< entries per tree node
    uint32_t keysPerNode;    ///< slots per key node
    TreeAllocFn allocFn;     ///< allocation function
    TreeFreeFn freeFn;       ///< release function
    TreeCompareFn compareFn; ///< key comparison
    uint32_t keyLength;      ///< bytes reserved for a key in a slot
    uint32_t dataLength;     ///< bytes of caller data per key (0 = none)
    uint32_t slotSize;       ///< keyLength + dataLength + 12
    uint32_t pad60;
    NodeTable treeNodes;     ///< cache and page file of tree nodes
    NodeTable keyNodes;      ///< cache and page file of key nodes
    uint32_t freeSlotNode;   ///< head of the free-slot list: key node (0 = empty list)
    uint32_t freeSlotIndex;  ///< head of the free-slot list: slot index
    uint32_t sharedNextNode; ///< node counter of both kinds in the shared-file mode
    int32_t sharedFd;        ///< page-file descriptor of both kinds in the shared-file mode
    char* treeFileName;      ///< path the tree page file was created at
    char* keyFileName;       ///< path the key page file was created at; null in the shared-file mode
};
static_assert(sizeof(TreeHeader) == 240);
static_assert(offsetof(TreeHeader, flags) == 0);
static_assert(offsetof(TreeHeader, rootNode) == 4);
static_assert(offsetof(TreeHeader, cursorNode) == 8);
static_assert(offsetof(TreeHeader, cursorIndex) == 12);
static_assert(offsetof(TreeHeader, order) == 16);
static_assert(offsetof(TreeHeader, keysPerNode) == 20);
static_assert(offsetof(TreeHeader, allocFn) == 24);
static_assert(offsetof(TreeHeader, freeFn) == 32);
static_assert(offsetof(TreeHeader, compareFn) == 40);
static_assert(offsetof(TreeHeader, keyLength) == 48);
static_assert(offsetof(TreeHeader, dataLength) == 52);
static_assert(offsetof(TreeHeader, slotSize) == 56);
static_assert(offsetof(TreeHeader, treeNodes) == 64);
static_assert(offsetof(TreeHeader, keyNodes) == 136);
static_assert(offsetof(TreeHeader, freeSlotNode) == 208);
static_assert(offsetof(TreeHeader, freeSlotIndex) == 212);
static_assert(offsetof(TreeHeader, sharedNextNode) == 216);
static_assert(offsetof(TreeHeader, sharedFd) == 220);
static_assert(offsetof(TreeHeader, treeFileName) == 224);
static_assert(offsetof(TreeHeader, keyFileName) == 232);

constexpr uint32_t TREE_SHARED_FILE = 0x1;               ///< flags bit: shared page file
constexpr int32_t TREE_DEFAULT_TREE_MEMORY = 50000000;   ///< tree-node budget for treeMemory 0
constexpr int32_t TREE_DEFAULT_KEY_MEMORY = 100000000;   ///< key-node budget for keyMemory 0
constexpr uint32_t MIN_CACHED_NODES = 2;                 ///< smallest cache of either kind

/// The cached nodes of one table by node number, kept beside the sorted
/// array: a cache hit costs one load instead of a binary search. Changes only
/// when a node enters or leaves the cache.
struct NodeIndex {
    NodeHead** byNumber;  ///< byNumber[n]: cached node n, or null; malloc'd, grown as numbers grow
    uint32_t size;        ///< elements of byNumber
    uint32_t pad12;
};
static_assert(sizeof(NodeIndex) == 16);

/// Bytes of the block holding the header, the two node-pointer arrays, the
/// two node indexes and, behind them, the cached node numbers parallel to
/// each array (searched instead of the buffers, whose numbers are scattered
/// through memory).
constexpr uint64_t TreeBlockSize(uint64_t treeCapacity, uint64_t keyCapacity) {
    return 240 + 2 * sizeof(NodeIndex) + (8 + 4) * (treeCapacity + keyCapacity);
}

/// Tree node image size for an order.
constexpr uint64_t TreeNodeSize(uint64_t order) { return 12 * order + sizeof(TreeNode); }
/// Key node image size.
constexpr uint64_t KeyNodeSize(uint64_t keysPerNode, uint64_t slotSize) { return slotSize * keysPerNode + sizeof(KeyNode); }
static_assert(TreeNodeSize(512) == 6192);
static_assert(KeyNodeSize(128, 8 + 0 + 12) == 2584);
static_assert(KeyNodeSize(512, 4 + 16 + 12) == 16408);

// ---- Creation and release (btree/plant.cpp) ----

/// Creates an empty tree. treeMemory and keyMemory: 0 = default budget,
/// negative = minus the number of nodes to cache, positive = a byte budget.
/// Null names select temporary page files; null functions select GetTreeMem,
/// free and _keyCmp. An order below 2, no key slots, or sizes that do not fit
/// in 32 bits are fatal, as is a page file that cannot be created.
TreeHeader* TreePlant(uint32_t flags, uint32_t order, int32_t treeMemory, const char* treeFileName,
                      uint32_t keysPerNode, uint32_t keyLength, uint32_t dataLength, int32_t keyMemory,
                      const char* keyFileName, TreeAllocFn allocFn, TreeFreeFn freeFn, TreeCompareFn compareFn);
/// Releases the tree, its cached nodes and its page files (null is ignored).
/// In the shared-file mode it closes the tree table's own fd field (0) and
/// leaves the shared descriptor open for its owner to close.
void TreeFree(TreeHeader* tree);

/// Installs the functions, points the tables at their counters and
/// descriptors and creates the page files (shared with TreeLoad).
void _rootSetup(TreeHeader* tree, const char* treeFileName, const char* keyFileName, TreeAllocFn allocFn,
                TreeFreeFn freeFn, TreeCompareFn compareFn);
/// A fresh temporary page-file path for the letter ('t' or 'k'), copied with
/// allocFn into *out; returns it.
char* _btreeTemp(TreeHeader* tree, char letter, char** out);
/// allocFn, ending the run when it returns null.
void* _treeAlloc(TreeHeader* tree, uint32_t size);

// ---- Node caches and page I/O (btree/nodes.cpp) ----

/// A fresh zeroed node of the table's kind, cached as the newest.
NodeHead* _getNewNode(TreeHeader* tree, NodeTable* table);
/// A fresh leaf with capacity = order.
TreeNode* _getNewTreeNode(TreeHeader* tree);
/// A fresh key node with all its slots put on the free-slot list.
KeyNode* _getNewKeyNode(TreeHeader* tree);

/// The cached node with that number, paged in (and made newest) as needed.
NodeHead* _nodeAddr(TreeHeader* tree, NodeTable* table, uint32_t nodeNumber);
/// _nodeAddr on the tree nodes.
/// (The newest node is checked inline: searches mostly return to the node
/// they used last.)
inline TreeNode* _treeNodeAddr(TreeHeader* tree, uint32_t nodeNumber) {
    NodeHead* newest = tree->treeNodes.newestNode;
    if (newest && newest->nodeNumber == nodeNumber) return reinterpret_cast<TreeNode*>(newest);
    return reinterpret_cast<TreeNode*>(_nodeAddr(tree, &tree->treeNodes, nodeNumber));
}
/// _nodeAddr on the key nodes.
inline KeyNode* _keyNodeAddr(TreeHeader* tree, uint32_t nodeNumber) {
    NodeHead* newest = tree->keyNodes.newestNode;
    if (newest && newest->nodeNumber == nodeNumber) return reinterpret_cast<KeyNode*>(newest);
    return reinterpret_cast<KeyNode*>(_nodeAddr(tree, &tree->keyNodes, nodeNumber));
}
/// The slot at index in a key node.
inline KeySlot* _slotAt(const TreeHeader* tree, KeyNode* node, uint32_t index) {
    return reinterpret_cast<KeySlot*>(reinterpret_cast<char*>(node + 1) + size_t{tree->slotSize} * index);
}
/// The slot an entry names, with its slotLink set to its data address when
/// the tree has data.
/// Runs once per key comparison: no call but the node lookups.
inline KeySlot* _keyAddr(TreeHeader* tree, const NodeEntry* entry) {
    KeySlot* slot = _slotAt(tree, _keyNodeAddr(tree, entry->keyNode), entry->keySlot);
    if (tree->dataLength > 0) {
        void* data = TreeSlotKey(slot) + tree->keyLength;
        std::memcpy(slot->slotLink, &data, sizeof data);
    }
    return slot;
}

/// The node numbers of a table's cached nodes, element for element as in `nodes`.
inline uint32_t* _tableNumbers(TreeHeader* tree, const NodeTable* table) {
    auto* numbers = reinterpret_cast<uint32_t*>(reinterpret_cast<NodeIndex*>(tree->keyNodes.nodes + tree->keyNodes.capacity) + 2);
    return table == &tree->treeNodes ? numbers : numbers + tree->treeNodes.capacity;
}
/// The node index of a table (behind the two node-pointer arrays).
inline NodeIndex* _tableIndex(TreeHeader* tree, const NodeTable* table) {
    auto* indexes = reinterpret_cast<NodeIndex*>(tree->keyNodes.nodes + tree->keyNodes.capacity);
    return table == &tree->treeNodes ? indexes : indexes + 1;
}
/// Records in the table's index that node (null: nothing) is cached under nodeNumber.
void _indexNode(TreeHeader* tree, NodeTable* table, uint32_t nodeNumber, NodeHead* node);
/// The array element holding that node number, or the first with a greater one.
NodeHead** _findNode(TreeHeader* tree, NodeTable* table, uint32_t nodeNumber);
/// Moves the elements from index `from` to the end by one place to `to`
/// (from + 1 opens a gap at from, from - 1 closes the gap at to) and adjusts count.
void _shiftMemoryTable(TreeHeader* tree, NodeTable* table, uint32_t from, uint32_t to);
/// Writes a node image at its offset in the table's page file.
void _flushNode(TreeHeader* tree, NodeTable* table, const NodeHead* node);
/// Writes nodeSize bytes as the image of node nodeNumber.
void _writePage(TreeHeader* tree, NodeTable* table, uint32_t nodeNumber, const void* image);
/// Reads node nodeNumber's image into buffer; bytes beyond the file end read as 0.
void _fetchNode(TreeHeader* tree, NodeTable* table, uint32_t nodeNumber, void* buffer);
/// The path a table's page file was created at (for messages).
const char* _pageFileName(const TreeHeader* tree, const NodeTable* table);

// ---- Search and insertion (btree/search.cpp) ----

/// The slot of the stored key equal to key, or null; moves the cursor. The
/// slot (and its data, reached through TreeSlotData) may be changed in place
/// until the next call on the tree.
KeySlot* TreeSearch(TreeHeader* tree, const void* key, uint32_t keyLen);
/// Adds the key with dataLength bytes of data (data may be null): 1 when
/// added, 0 when an equal key is stored (one free slot is used up then).
/// A key longer than keyLength is fatal.
int TreeAddKey(TreeHeader* tree, const void* key, uint32_t keyLen, const void* data);

/// The default comparison: bytes unsigned, then the shorter key first.
int32_t _keyCmp(const void* a, uint32_t aLen, const void* b, uint32_t bLen);
/// 1 when found (entry and leaf of the key); 0 when missing, with the leaf and
/// the entry in front of which the key belongs (one past the leaf's last entry
/// when it belongs after all of them), or a null entry and the rightmost leaf
/// when the key is greater than every key. Nulls for an empty tree.
int _treeSearch(TreeHeader* tree, const void* key, uint32_t keyLen, NodeEntry** entryOut, TreeNode** nodeOut);
/// Binary search within one node: 0 with the equal entry and its slot, or the
/// last comparison's result with the entry where the search ended and its
/// slot (one past the last entry, with a null slot, when key is greater than all).
int32_t _nodeSearch(TreeHeader* tree, TreeNode* node, NodeEntry** entryOut, KeySlot** slotOut, const void* key,
                    uint32_t keyLen);
/// Puts newEntry in front of entry index idx of node (idx = capacity appends),
/// splitting the node first when it is full; returns the node that received it.
TreeNode* _insertInNode(TreeHeader* tree, TreeNode* node, int32_t idx, const NodeEntry* newEntry);
/// Appends entry after the last entry of node, the rightmost of its level,
/// growing the level to the right when it is full; returns the receiving node.
TreeNode* _appendToTree(TreeHeader* tree, TreeNode* node, const NodeEntry* entry);
/// Splits a full node; returns the new left node, which holds the lower half.
TreeNode* _splitNode(TreeHeader* tree, TreeNode* node);

// ---- Traversal and deletion (btree/walk.cpp) ----

/// Slot of the smallest key, or null (also for a null tree); sets the cursor.
KeySlot* TreeLowKey(TreeHeader* tree);
/// Slot of the greatest key, or null (also for a null tree); sets the cursor.
KeySlot* TreeHighKey(TreeHeader* tree);
/// Slot of the key after the cursor, or null at the end (cursor reset).
/// After a failed search it is the key after the first greater one.
KeySlot* TreeNextKey(TreeHeader* tree);
/// Slot of the key before the cursor, or null at the start (cursor reset).
KeySlot* TreePrevKey(TreeHeader* tree);
/// Removes the key: 1 when found, 0 when absent. Its slot heads the free
/// list, unless it is the greatest key of a leaf below the root: ancestors
/// still name that key and are never adjusted, so its slot is not reused.
/// The removal copies the previous entry onto the deleted one and drops the
/// leaf's first entry in use: exact only for the first or second entry in
/// use of a leaf; deeper in, the first key is lost and its predecessor
/// appears twice. Nodes are never merged and may be left empty.
int TreeDeleteKey(TreeHeader* tree, const void* key, uint32_t keyLen);

// ---- Save and load (btree/save.cpp) ----

/// Appends the saved tree to the file open on fd; returns where it begins,
/// or -1 when the end of the file cannot be found. Writes to fd are not checked.
int64_t TreeSave(TreeHeader* tree, int fd);
/// Reads a saved tree from fd at offset into a new tree with fresh page files;
/// names and functions as for TreePlant. A short file loads as zeros; a header
/// whose sizes cannot be a tree's is fatal.
TreeHeader* TreeLoad(int fd, int64_t offset, const char* treeFileName, const char* keyFileName,
                     TreeAllocFn allocFn, TreeFreeFn freeFn, TreeCompareFn compareFn);
/// Turns a loaded table of saved node numbers back into cached buffers and
/// relinks their recency list; a list that does not come out whole is fatal.
void FixNodeTable(TreeHeader* tree, NodeTable* table);
