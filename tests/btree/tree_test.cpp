// Shapes of search, insertion, traversal and deletion on small orders.

#include <vector>

#include "tests/btree/treefixture.h"

namespace {

// entryCount of every node on one level, left to right.
std::vector<uint32_t> LevelCounts(TreeHeader* tree, uint32_t level) {
    TreeNode* node = _treeNodeAddr(tree, tree->rootNode);
    while (node->level > level) {
        node = _treeNodeAddr(tree, Entries(node)[node->capacity - node->head.entryCount].childNode);
    }
    std::vector<uint32_t> counts;
    for (;;) {
        counts.push_back(node->head.entryCount);
        if (node->rightNode == 0) return counts;
        node = _treeNodeAddr(tree, node->rightNode);
    }
}

// Keys in order through TreeLowKey/TreeNextKey, or reversed through TreeHighKey/TreePrevKey.
std::vector<uint32_t> Walk(TreeHeader* tree, bool forward) {
    std::vector<uint32_t> keys;
    for (KeySlot* s = forward ? TreeLowKey(tree) : TreeHighKey(tree); s;
         s = forward ? TreeNextKey(tree) : TreePrevKey(tree)) {
        keys.push_back(SlotValue(s));
    }
    return keys;
}

using TreeShapeTest = TreeTest;

TEST_F(TreeShapeTest, AscendingKeysFillEveryNodeWithoutSplitting) {
    struct Case {
        uint32_t order, keys;
        std::vector<std::vector<uint32_t>> levels;  // leaves first
    };
    const Case cases[] = {
        {4, 1, {{1}}},
        {4, 4, {{4}}},
        {4, 5, {{4, 1}, {2}}},
        {4, 17, {{4, 4, 4, 4, 1}, {4, 1}, {2}}},
        {5, 26, {{5, 5, 5, 5, 5, 1}, {5, 1}, {2}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "order " << c.order << ", " << c.keys << " keys");
        TreeHeader* tree = PlantKeys4(c.order, 2, 2);
        for (uint32_t k = 1; k <= c.keys; k++) ASSERT_EQ(Add(tree, k * 10), 1);
        size_t nodes = 0;
        for (uint32_t level = 0; level < c.levels.size(); level++) {
            EXPECT_EQ(LevelCounts(tree, level), c.levels[level]) << "level " << level;
            nodes += c.levels[level].size();
        }
        EXPECT_EQ(_treeNodeAddr(tree, tree->rootNode)->level, c.levels.size() - 1);
        EXPECT_EQ(tree->treeNodes.nextNode - 1, nodes);  // no node beyond those filled
        for (uint32_t k = 1; k <= c.keys; k++) ASSERT_NE(Find(tree, k * 10), nullptr) << k;
        TreeFree(tree);
    }
}

TEST_F(TreeShapeTest, KeyBelowAllSplitsAFullRootLeafInHalves) {
    for (uint32_t order : {4u, 8u}) {
        TreeHeader* tree = PlantKeys4(order, 2, 2);
        for (uint32_t k = 1; k <= order; k++) Add(tree, k * 10);
        ASSERT_EQ(Add(tree, 5), 1);
        TreeNode* root = _treeNodeAddr(tree, tree->rootNode);
        EXPECT_EQ(root->level, 1u);
        EXPECT_EQ(root->head.entryCount, 2u);
        EXPECT_EQ(LevelCounts(tree, 0), (std::vector<uint32_t>{order / 2 + 1, order / 2}));
        std::vector<uint32_t> expected{5};
        for (uint32_t k = 1; k <= order; k++) expected.push_back(k * 10);
        EXPECT_EQ(Walk(tree, true), expected);
        TreeFree(tree);
    }
}

TEST_F(TreeShapeTest, CursorAfterSearch) {
    TreeHeader* tree = PlantKeys4(4, 2, 2);
    for (uint32_t k = 1; k <= 10; k++) Add(tree, k * 10);
    struct Case {
        uint32_t searched;
        bool found;
        int64_t next, prev;  // -1: null
    };
    const Case cases[] = {
        {35, false, 50, 30},   // the cursor stands on 40, the first greater key
        {40, true, 50, 30},
        {80, true, 90, 70},    // 80 is a leaf's last key: next crosses to the neighbour
        {5, false, 20, -1},
        {1000, false, -1, -1}, // beyond the end: no position
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.searched);
        EXPECT_EQ(Find(tree, c.searched) != nullptr, c.found);
        KeySlot* next = TreeNextKey(tree);
        EXPECT_EQ(next ? int64_t{SlotValue(next)} : -1, c.next);
        Find(tree, c.searched);
        KeySlot* prev = TreePrevKey(tree);
        EXPECT_EQ(prev ? int64_t{SlotValue(prev)} : -1, c.prev);
    }
    std::vector<uint32_t> up{10, 20, 30, 40, 50, 60, 70, 80, 90, 100};
    EXPECT_EQ(Walk(tree, true), up);
    EXPECT_EQ(Walk(tree, false), std::vector<uint32_t>(up.rbegin(), up.rend()));
    TreeFree(tree);

    tree = PlantKeys4(4, 2, 2);
    uint32_t cursorNode = tree->cursorNode;
    EXPECT_EQ(Find(tree, 1), nullptr);
    EXPECT_EQ(TreeLowKey(tree), nullptr);
    EXPECT_EQ(TreeHighKey(tree), nullptr);
    EXPECT_EQ(tree->cursorNode, cursorNode);
    EXPECT_EQ(TreeLowKey(nullptr), nullptr);
    TreeFree(tree);
}

TEST_F(TreeShapeTest, DeletedSlotIsTheNextOneUsed) {
    struct Case {
        uint32_t keys, deleted;
        bool reused;
    };
    const Case cases[] = {
        {9, 10, true},   // first of its leaf
        {9, 20, true},   // second of its leaf
        {6, 60, false},  // greatest of its leaf: the root still names it
        {2, 20, true},   // greatest of a root leaf
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.deleted);
        TreeHeader* tree = PlantKeys4(4, 2, 2);
        std::vector<uint32_t> rest;
        for (uint32_t k = 1; k <= c.keys; k++) {
            Add(tree, k * 10);
            if (k * 10 != c.deleted) rest.push_back(k * 10);
        }
        ASSERT_NE(Find(tree, c.deleted), nullptr);
        NodeEntry deleted = Entries(_treeNodeAddr(tree, tree->cursorNode))[tree->cursorIndex];
        EXPECT_EQ(TreeDeleteKey(tree, Key4(c.deleted).b, 4), 1);
        EXPECT_EQ(TreeDeleteKey(tree, Key4(c.deleted).b, 4), 0);
        EXPECT_EQ(Find(tree, c.deleted), nullptr);
        EXPECT_EQ(Walk(tree, true), rest);
        Add(tree, c.deleted + 5);
        ASSERT_NE(Find(tree, c.deleted + 5), nullptr);
        NodeEntry added = Entries(_treeNodeAddr(tree, tree->cursorNode))[tree->cursorIndex];
        EXPECT_EQ(added.keyNode == deleted.keyNode && added.keySlot == deleted.keySlot, c.reused);
        EXPECT_EQ(Add(tree, c.deleted), 1);
        EXPECT_NE(Find(tree, c.deleted), nullptr);
        TreeFree(tree);
    }
}

}  // namespace
