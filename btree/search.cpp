// Search and insertion: descent by binary search per level, insertion in
// front of an entry with splits in halves, and the append path for keys
// beyond the end, which fills nodes completely and never splits.
//
// Node addresses stay valid only until the next call that may page in the
// same table, so code that creates or pages tree nodes keeps node numbers and
// addresses the nodes again afterwards.

#include <bit>
#include <cstring>

#include "btree/btree.h"
#include "log/log.h"

static inline int32_t BytesCmp(const void* a, uint32_t aLen, const void* b, uint32_t bLen) {
    if (aLen == 4 && bLen == 4) {
        // The hard-link tree's inode keys: four bytes compared as one
        // big-endian number give memcmp's order.
        uint32_t x, y;
        memcpy(&x, a, 4);
        memcpy(&y, b, 4);
        if constexpr (std::endian::native == std::endian::little) {
            x = __builtin_bswap32(x);
            y = __builtin_bswap32(y);
        }
        return x < y ? -1 : x > y ? 1 : 0;
    }
    int diff = memcmp(a, b, aLen < bLen ? aLen : bLen);
    if (diff != 0) return diff < 0 ? -1 : 1;
    if (aLen == bLen) return 0;
    return aLen < bLen ? -1 : 1;
}

int32_t _keyCmp(const void* a, uint32_t aLen, const void* b, uint32_t bLen) { return BytesCmp(a, aLen, b, bLen); }

// Runs for every key comparison: the default comparison is inlined instead of
// called through the pointer.
static inline int32_t CompareWith(TreeHeader* tree, const void* key, uint32_t keyLen, const NodeEntry* entry,
                                  KeySlot** slotOut) {
    KeySlot* slot = _keyAddr(tree, entry);
    *slotOut = slot;
    if (tree->compareFn == _keyCmp) return BytesCmp(key, keyLen, TreeSlotKey(slot), slot->storedLength);
    return tree->compareFn(key, keyLen, TreeSlotKey(slot), slot->storedLength);
}

// Binary search in one node over the entries in use. Returns the last
// comparison's result and in *indexOut the equal entry, or the first greater
// one. A key greater than the node's last key ends one past the last entry
// with a null slot: in an intact tree the parent entry rules that out, but
// deletion may have removed a leaf's greatest key (or all its keys).
static inline int32_t NodeScan(TreeHeader* tree, TreeNode* node, const void* key, uint32_t keyLen,
                               int32_t* indexOut, KeySlot** slotOut) {
    NodeEntry* entries = Entries(node);
    int32_t hi = static_cast<int32_t>(node->capacity) - 1;
    int32_t lo = hi - static_cast<int32_t>(node->head.entryCount);
    *slotOut = nullptr;
    if (lo >= hi) {
        *indexOut = hi + 1;
        return 1;
    }
    for (;;) {
        int32_t mid = hi - ((hi - lo) >> 1);
        int32_t result = CompareWith(tree, key, keyLen, &entries[mid], slotOut);
        if (result == 0) {
            *indexOut = mid;
            return 0;
        }
        if (result > 0) {
            if (mid == hi) {
                *indexOut = hi + 1;
                *slotOut = nullptr;
                return result;
            }
            lo = mid;
        } else {
            if (mid == lo + 1) {
                *indexOut = mid;
                return result;
            }
            hi = mid;
        }
    }
}

int32_t _nodeSearch(TreeHeader* tree, TreeNode* node, NodeEntry** entryOut, KeySlot** slotOut, const void* key,
                    uint32_t keyLen) {
    int32_t index;
    int32_t result = NodeScan(tree, node, key, keyLen, &index, slotOut);
    *entryOut = &Entries(node)[index];
    return result;
}

static int NotFoundAt(TreeHeader* tree, TreeNode* leaf, int32_t index, NodeEntry** entryOut, TreeNode** nodeOut) {
    tree->cursorNode = leaf->head.nodeNumber;
    tree->cursorIndex = index;
    *entryOut = &Entries(leaf)[index];
    *nodeOut = leaf;
    return 0;
}

// Runs for every search of the owner and hard-link tables: no allocation.
int _treeSearch(TreeHeader* tree, const void* key, uint32_t keyLen, NodeEntry** entryOut, TreeNode** nodeOut) {
    if (tree->rootNode == 0) {
        *entryOut = nullptr;
        *nodeOut = nullptr;
        return 0;
    }
    TreeNode* node = _treeNodeAddr(tree, tree->rootNode);
    int32_t index = static_cast<int32_t>(node->capacity) - 1;
    KeySlot* slot;
    // A root leaf emptied by deletions holds no last key: everything lies beyond.
    int32_t result = node->head.entryCount == 0 ? 1 : CompareWith(tree, key, keyLen, &Entries(node)[index], &slot);
    if (result > 0) {
        // Beyond the end: the rightmost leaf, where the append path starts.
        tree->cursorNode = 0;
        tree->cursorIndex = 0;
        while (node->level > 0) node = _treeNodeAddr(tree, Entries(node)[node->capacity - 1].childNode);
        *entryOut = nullptr;
        *nodeOut = node;
        return 0;
    }
    if (result != 0) {
        for (;;) {
            result = NodeScan(tree, node, key, keyLen, &index, &slot);
            if (result == 0) break;
            if (node->level == 0) return NotFoundAt(tree, node, index, entryOut, nodeOut);
            // Only a damaged tree ends beyond an inner node's last entry.
            if (index >= static_cast<int32_t>(node->capacity)) index = static_cast<int32_t>(node->capacity) - 1;
            node = _treeNodeAddr(tree, Entries(node)[index].childNode);
        }
    }
    if (node->level > 0) {
        // Equal to an inner entry: the key is the greatest of that subtree.
        while (node->level > 0) {
            node = _treeNodeAddr(tree, Entries(node)[index].childNode);
            index = static_cast<int32_t>(node->capacity) - 1;
        }
        // Deletion leaves ancestors alone, so the inner entry may name a key
        // that is gone: then the key belongs after the leaf's last entry.
        if (node->head.entryCount == 0 || CompareWith(tree, key, keyLen, &Entries(node)[index], &slot) != 0) {
            return NotFoundAt(tree, node, index + 1, entryOut, nodeOut);
        }
    }
    tree->cursorNode = node->head.nodeNumber;
    tree->cursorIndex = index;
    *entryOut = &Entries(node)[index];
    *nodeOut = node;
    return 1;
}

KeySlot* TreeSearch(TreeHeader* tree, const void* key, uint32_t keyLen) {
    NodeEntry* entry;
    TreeNode* node;
    if (!_treeSearch(tree, key, keyLen, &entry, &node)) return nullptr;
    return _keyAddr(tree, entry);
}

TreeNode* _insertInNode(TreeHeader* tree, TreeNode* node, int32_t idx, const NodeEntry* newEntry) {
    NodeEntry entry = *newEntry;  // the caller's entry may live in a node that pages out
    TreeNode* target = node;
    if (node->head.entryCount == tree->order) {
        uint32_t nodeNumber = node->head.nodeNumber;
        uint32_t leftNumber = _splitNode(tree, node)->head.nodeNumber;
        node = _treeNodeAddr(tree, nodeNumber);
        int32_t remaining = static_cast<int32_t>(node->head.entryCount);
        int32_t firstInUse = static_cast<int32_t>(tree->order) - remaining;
        if (idx < firstInUse) {
            target = _treeNodeAddr(tree, leftNumber);
            idx += remaining;
        } else {
            target = node;
        }
    }
    NodeEntry* entries = Entries(target);
    if (idx > 1) memmove(&entries[0], &entries[1], static_cast<size_t>(idx - 1) * sizeof(NodeEntry));
    entries[idx - 1] = entry;
    target->head.entryCount++;
    return target;
}

TreeNode* _appendToTree(TreeHeader* tree, TreeNode* node, const NodeEntry* entry) {
    uint32_t order = tree->order;
    uint32_t nodeNumber = node->head.nodeNumber;
    uint32_t parentNumber = node->parentNode;
    if (node->head.entryCount < order) {
        NodeEntry* entries = Entries(node);
        uint32_t count = node->head.entryCount;
        uint32_t last = node->capacity - 1;
        memmove(&entries[last - count], &entries[last - count + 1], count * sizeof(NodeEntry));
        entries[last] = *entry;
        node->head.entryCount++;
        // Every ancestor's last entry names the new greatest key.
        while (parentNumber != 0) {
            TreeNode* parent = _treeNodeAddr(tree, parentNumber);
            NodeEntry& up = Entries(parent)[parent->capacity - 1];
            up.keyNode = entry->keyNode;
            up.keySlot = entry->keySlot;
            parentNumber = parent->parentNode;
        }
        return _treeNodeAddr(tree, nodeNumber);
    }
    // Full: a new right neighbour takes the entry; the full node is not split.
    uint32_t level = node->level;
    NodeEntry oldLast = Entries(node)[node->capacity - 1];
    NodeEntry added = *entry;
    TreeNode* right = _getNewTreeNode(tree);
    uint32_t rightNumber = right->head.nodeNumber;
    right->leftNode = nodeNumber;
    right->parentNode = parentNumber;
    right->level = level;
    right->head.entryCount = 1;
    Entries(right)[order - 1] = added;
    _treeNodeAddr(tree, nodeNumber)->rightNode = rightNumber;
    if (parentNumber != 0) {
        NodeEntry up = added;
        up.childNode = rightNumber;
        uint32_t receiver = _appendToTree(tree, _treeNodeAddr(tree, parentNumber), &up)->head.nodeNumber;
        right = _treeNodeAddr(tree, rightNumber);
        right->parentNode = receiver;
        return right;
    }
    TreeNode* root = _getNewTreeNode(tree);
    uint32_t rootNumber = root->head.nodeNumber;
    root->level = level + 1;
    root->head.entryCount = 2;
    Entries(root)[order - 2] = NodeEntry{nodeNumber, oldLast.keyNode, oldLast.keySlot};
    Entries(root)[order - 1] = NodeEntry{rightNumber, added.keyNode, added.keySlot};
    tree->rootNode = rootNumber;
    _treeNodeAddr(tree, nodeNumber)->parentNode = rootNumber;
    right = _treeNodeAddr(tree, rightNumber);
    right->parentNode = rootNumber;
    return right;
}

// Where the separator of a split goes in the parent: the node-level search
// with the separator's own key. The key is copied out first, because the
// comparisons page key nodes and may evict the one holding it.
static int32_t SeparatorPlace(TreeHeader* tree, uint32_t parentNumber, const NodeEntry* separator) {
    unsigned char small[64];
    KeySlot* slot = _keyAddr(tree, separator);
    uint32_t length = slot->storedLength;
    if (length > tree->keyLength) length = tree->keyLength;
    unsigned char* key = length <= sizeof small ? small : static_cast<unsigned char*>(_treeAlloc(tree, length));
    memcpy(key, TreeSlotKey(slot), length);
    int32_t index;
    NodeScan(tree, _treeNodeAddr(tree, parentNumber), key, length, &index, &slot);
    if (key != small) tree->freeFn(key);
    return index;
}

TreeNode* _splitNode(TreeHeader* tree, TreeNode* node) {
    uint32_t order = tree->order;
    uint32_t nodeNumber = node->head.nodeNumber;
    uint32_t level = node->level;
    uint32_t oldLeft = node->leftNode;
    uint32_t parentNumber = node->parentNode;
    uint32_t half = node->capacity >> 1;

    TreeNode* left = _getNewTreeNode(tree);
    uint32_t leftNumber = left->head.nodeNumber;
    left->level = level;
    left->leftNode = oldLeft;
    left->rightNode = nodeNumber;
    // The new node is the newest, so paging the old one in cannot evict it.
    node = _treeNodeAddr(tree, nodeNumber);
    NodeEntry* from = Entries(node) + (node->capacity - node->head.entryCount);
    memcpy(Entries(left) + (order - half), from, half * sizeof(NodeEntry));
    memset(Entries(node), 0xAA, half * sizeof(NodeEntry));
    left->head.entryCount = half;
    node->head.entryCount -= half;
    node->leftNode = leftNumber;
    NodeEntry nodeLast = Entries(node)[node->capacity - 1];
    NodeEntry leftLast = Entries(left)[order - 1];
    NodeEntry separator{leftNumber, leftLast.keyNode, leftLast.keySlot};

    if (oldLeft != 0) _treeNodeAddr(tree, oldLeft)->rightNode = leftNumber;
    if (level > 0) {
        for (uint32_t i = order - half; i < order; i++) {
            uint32_t child = Entries(_treeNodeAddr(tree, leftNumber))[i].childNode;
            _treeNodeAddr(tree, child)->parentNode = leftNumber;
        }
    }
    uint32_t newParent;
    if (parentNumber == 0) {
        TreeNode* root = _getNewTreeNode(tree);
        newParent = root->head.nodeNumber;
        root->level = level + 1;
        root->head.entryCount = 2;
        Entries(root)[order - 2] = separator;
        Entries(root)[order - 1] = NodeEntry{nodeNumber, nodeLast.keyNode, nodeLast.keySlot};
        tree->rootNode = newParent;
        _treeNodeAddr(tree, nodeNumber)->parentNode = newParent;
    } else {
        int32_t idx = SeparatorPlace(tree, parentNumber, &separator);
        newParent = _insertInNode(tree, _treeNodeAddr(tree, parentNumber), idx, &separator)->head.nodeNumber;
    }
    left = _treeNodeAddr(tree, leftNumber);
    left->parentNode = newParent;
    return left;
}

int TreeAddKey(TreeHeader* tree, const void* key, uint32_t keyLen, const void* data) {
    if (keyLen > tree->keyLength) {
        ErrExit("B-tree key of %u bytes is longer than the %u bytes reserved for it\n", keyLen, tree->keyLength);
    }
    if (tree->freeSlotNode == 0) _getNewKeyNode(tree);
    uint32_t slotNode = tree->freeSlotNode;
    uint32_t slotIndex = tree->freeSlotIndex;
    NodeEntry entry{0, slotNode, slotIndex};
    KeySlot* slot = _slotAt(tree, _keyNodeAddr(tree, slotNode), slotIndex);
    tree->freeSlotNode = slot->slotLink[0];
    tree->freeSlotIndex = slot->slotLink[1];
    // Lossy deletions (see TreeDeleteKey) can leave an entry naming a free
    // slot, whose link a lookup then overwrites with a data address. A link
    // that names no slot ends the list instead of leading out of the nodes.
    if (tree->freeSlotIndex >= tree->keysPerNode || tree->freeSlotNode >= *tree->keyNodes.nextNodePtr) {
        tree->freeSlotNode = 0;
        tree->freeSlotIndex = 0;
    }
    slot->slotLink[0] = 0;
    slot->slotLink[1] = 0;
    slot->storedLength = keyLen;
    memcpy(TreeSlotKey(slot), key, keyLen);
    if (tree->dataLength > 0 && data) memcpy(TreeSlotKey(slot) + tree->keyLength, data, tree->dataLength);

    if (tree->rootNode == 0) {
        TreeNode* root = _getNewTreeNode(tree);
        tree->rootNode = root->head.nodeNumber;
        root->head.entryCount = 1;
        Entries(root)[tree->order - 1] = entry;
        return 1;
    }
    NodeEntry* place;
    TreeNode* leaf;
    // A refused key keeps its slot off the free list for good (callers search first).
    if (_treeSearch(tree, key, keyLen, &place, &leaf)) return 0;
    if (!place) {
        _appendToTree(tree, leaf, &entry);
    } else {
        _insertInNode(tree, leaf, static_cast<int32_t>(place - Entries(leaf)), &entry);
    }
    return 1;
}
