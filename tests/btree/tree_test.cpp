// Node shapes after insertion, which the memory a tree takes depends on: keys
// that arrive in ascending order fill every node instead of leaving halves.
// What the tree holds, in any shape, is checked against a map in model_test.

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

using TreeShapeTest = TreeTest;

TEST_F(TreeShapeTest, AscendingKeysFillNodesAndAKeyBelowAllSplitsInHalves) {
    struct Case {
        uint32_t order, keys;
        bool thenBelowAll;                          // one more key, smaller than all
        std::vector<std::vector<uint32_t>> levels;  // leaves first
    };
    const Case cases[] = {
        {4, 4, false, {{4}}},
        {4, 5, false, {{4, 1}, {2}}},
        {4, 17, false, {{4, 4, 4, 4, 1}, {4, 1}, {2}}},
        {8, 8, true, {{5, 4}, {2}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "order " << c.order << ", " << c.keys << " keys");
        TreeHeader* tree = PlantKeys4(c.order);
        for (uint32_t k = 1; k <= c.keys; k++) ASSERT_EQ(Add(tree, k * 10), 1);
        if (c.thenBelowAll) {
            ASSERT_EQ(Add(tree, 5), 1);
        }
        size_t nodes = 0;
        for (uint32_t level = 0; level < c.levels.size(); level++) {
            EXPECT_EQ(LevelCounts(tree, level), c.levels[level]) << "level " << level;
            nodes += c.levels[level].size();
        }
        EXPECT_EQ(_treeNodeAddr(tree, tree->rootNode)->level, c.levels.size() - 1);
        EXPECT_EQ(tree->treeNodes.nextNode - 1, nodes);  // no node beyond those filled
        TreeFree(tree);
    }
}

}  // namespace
