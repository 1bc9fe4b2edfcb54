// Randomised operations on small trees checked against std::map: insertion,
// search, refused duplicates, data changed in place, traversal both ways and
// from a searched position, deletion where its removal is exact, and saving
// and loading mid-way. The caches hold two nodes of each kind, so nodes keep
// leaving memory. Then the shapes insertion gives the nodes.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <iterator>
#include <map>
#include <random>
#include <vector>

#include "tests/btree/treefixture.h"

namespace {

struct Data {
    uint64_t a, b;
    bool operator==(const Data&) const = default;
};

// Pointer keys: the key bytes are the address of a value; the comparison
// looks through it, as the owner-id tree does.
int32_t PointerCmp(const void* key, uint32_t, const void* stored, uint32_t) {
    uint32_t* a;
    uint32_t* b;
    memcpy(&a, key, sizeof a);
    memcpy(&b, stored, sizeof b);
    return *a < *b ? -1 : *a > *b;
}

struct Config {
    const char* name;
    uint32_t flags, order, keysPerNode, keyLength, dataLength;
    bool pointerKeys;
};

const Config configs[] = {
    {"order 4, data", 0, 4, 3, 6, 16, false},
    {"order 5, no data", 0, 5, 4, 4, 0, false},
    {"order 8, pointer keys", 0, 8, 5, 8, 16, true},
    // Equal node sizes (12 x 4 + 48 = 3 x (4 + 8 + 12) + 24) keep the kinds apart in one file.
    {"shared file", TREE_SHARED_FILE, 4, 3, 4, 8, false},
};

struct Harness {
    explicit Harness(const Config& c) : config(c) {}
    const Config& config;
    TreeHeader* tree = nullptr;
    std::map<uint32_t, Data> model;
    std::deque<uint32_t> values;  // pointer keys point here, and never move

    std::vector<unsigned char> KeyOf(uint32_t v) {
        if (!config.pointerKeys) {
            Key4 k(v);
            return {k.b, k.b + 4};
        }
        values.push_back(v);
        uint32_t* p = &values.back();
        std::vector<unsigned char> bytes(8);
        memcpy(bytes.data(), &p, 8);
        return bytes;
    }
    uint32_t ValueOf(KeySlot* slot) const {
        if (!config.pointerKeys) return SlotValue(slot);
        uint32_t* p;
        memcpy(&p, TreeSlotKey(slot), sizeof p);
        return *p;
    }
    // What the tree keeps of d: its first dataLength bytes.
    Data Stored(const Data& d) const {
        Data kept{};
        memcpy(&kept, &d, config.dataLength);
        return kept;
    }
    Data DataOf(KeySlot* slot) const {
        Data d{};
        if (config.dataLength) memcpy(&d, TreeSlotData(slot), config.dataLength);
        return d;
    }
    KeySlot* Search(uint32_t v) {
        auto key = KeyOf(v);
        return TreeSearch(tree, key.data(), uint32_t(key.size()));
    }
    void Plant() {
        tree = TreePlant(config.flags, config.order, -2, nullptr, config.keysPerNode, config.keyLength,
                         config.dataLength, -2, nullptr, nullptr, nullptr, config.pointerKeys ? PointerCmp : nullptr);
    }
    // The shared-file mode closes descriptor 0 and leaves the shared one open.
    void Free() {
        int stdinCopy = dup(0), shared = tree->sharedFd;
        TreeFree(tree);
        if (config.flags & TREE_SHARED_FILE) close(shared);
        dup2(stdinCopy, 0);
        close(stdinCopy);
    }
    void CheckWalks() {
        std::vector<uint32_t> expected, forward, backward;
        for (auto& [k, d] : model) expected.push_back(k);
        for (KeySlot* s = TreeLowKey(tree); s; s = TreeNextKey(tree)) forward.push_back(ValueOf(s));
        for (KeySlot* s = TreeHighKey(tree); s; s = TreePrevKey(tree)) backward.push_back(ValueOf(s));
        std::reverse(backward.begin(), backward.end());
        ASSERT_EQ(forward, expected);
        ASSERT_EQ(backward, expected);
    }
    // A search leaves the cursor where v is or would go (nowhere beyond the
    // last key). TreePrevKey then gives the key before that place and
    // TreeNextKey the key after the one there: a failed search skips the first
    // greater key, unless a deletion left v's place past the end of a leaf.
    void CheckCursor(uint32_t v) {
        auto at = model.lower_bound(v);  // v or the first greater key
        auto key = [this](auto it) { return it == model.end() ? int64_t{-1} : int64_t{it->first}; };
        auto value = [this](KeySlot* s) { return s ? int64_t{ValueOf(s)} : int64_t{-1}; };
        Search(v);
        TreeNode* leaf = tree->cursorNode ? _treeNodeAddr(tree, tree->cursorNode) : nullptr;
        const bool pastLeaf = leaf && tree->cursorIndex == int32_t(leaf->capacity);
        ASSERT_EQ(value(TreeNextKey(tree)), !leaf || at == model.end() ? -1 : key(pastLeaf ? at : std::next(at))) << v;
        Search(v);
        ASSERT_EQ(value(TreePrevKey(tree)), !leaf || at == model.begin() ? -1 : key(std::prev(at))) << v;
    }
    void SaveAndLoad(const std::string& path) {
        int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
        ASSERT_EQ(write(fd, "prefix", 6), 6);
        int64_t offset = TreeSave(tree, fd);
        ASSERT_EQ(offset, 6);
        Free();
        tree = TreeLoad(fd, offset, nullptr, nullptr, nullptr, nullptr, config.pointerKeys ? PointerCmp : nullptr);
        close(fd);
        unlink(path.c_str());
    }
};

using TreeModelTest = TreeTest;

TEST_F(TreeModelTest, RandomOperationsMatchAMap) {
    for (const Config& config : configs) {
        SCOPED_TRACE(config.name);
        Harness h(config);
        h.Plant();
        h.CheckWalks();
        h.CheckCursor(5);
        std::mt19937 random(1234);
        const int operations = 6000;
        int deleted = 0;
        for (int op = 0; op < operations; op++) {
            if (op == operations / 2) h.SaveAndLoad(dir / "saved");  // here, where no branch's continue skips it
            uint32_t v = random() % 1500;
            // The first third adds mostly ascending keys, so the append path takes part.
            if (op < operations / 3 && random() % 2) v = 1500 + op;
            bool present = h.model.count(v) > 0;
            unsigned choice = random() % 100;
            if (choice < 45) {
                Data d{random(), v};
                auto key = h.KeyOf(v);
                ASSERT_EQ(TreeAddKey(h.tree, key.data(), uint32_t(key.size()), &d), present ? 0 : 1) << v;
                if (!present) h.model[v] = h.Stored(d);
            } else if (choice < 85) {
                KeySlot* slot = h.Search(v);
                ASSERT_EQ(slot != nullptr, present) << v;
                if (!slot) continue;
                ASSERT_EQ(h.ValueOf(slot), v);
                ASSERT_EQ(h.DataOf(slot), h.model[v]);
                if (config.dataLength && random() % 2) {
                    // Data changed in place must survive paging.
                    Data d{random(), v + 1};
                    memcpy(TreeSlotData(slot), &d, config.dataLength);
                    h.model[v] = h.Stored(d);
                }
            } else if (choice < 98) {
                auto key = h.KeyOf(v);
                if (!present) {
                    ASSERT_EQ(TreeDeleteKey(h.tree, key.data(), uint32_t(key.size())), 0);
                    continue;
                }
                // Removal is exact for the first two entries in use of a leaf.
                ASSERT_NE(h.Search(v), nullptr);
                TreeNode* leaf = _treeNodeAddr(h.tree, h.tree->cursorNode);
                if (h.tree->cursorIndex - int32_t(leaf->capacity - leaf->head.entryCount) > 1) continue;
                ASSERT_EQ(TreeDeleteKey(h.tree, key.data(), uint32_t(key.size())), 1);
                ASSERT_EQ(h.Search(v), nullptr);
                h.model.erase(v);
                deleted++;
            } else {
                h.CheckWalks();
                h.CheckCursor(v);
            }
            ASSERT_FALSE(HasFatalFailure());
        }
        EXPECT_GT(deleted, 50);
        h.CheckWalks();
        for (uint32_t v : {0u, h.model.begin()->first, h.model.rbegin()->first, 100000u}) h.CheckCursor(v);
        for (auto& [v, d] : h.model) {
            KeySlot* slot = h.Search(v);
            ASSERT_NE(slot, nullptr) << v;
            EXPECT_EQ(h.DataOf(slot), d);
        }
        EXPECT_GT(_treeNodeAddr(h.tree, h.tree->rootNode)->level, 2u);
        h.Free();
    }
}

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

// Node shapes after insertion, which the memory a tree takes depends on: keys
// that arrive in ascending order fill every node instead of leaving halves.
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
