// Shared pieces of the tree tests: a fixture whose temporary page files go to
// a private directory that must stay empty, and big-endian integer keys, which
// the default comparison orders numerically.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <string>

#include "btree/btree.h"
#include "support/helpers.h"
#include "tests/support/testutil.h"

/// Temporary page files are made in dir (TMPDIR, which would come first, is
/// unset); nothing may be left in it.
struct TreeTest : testing::Test {
    ScopedTempDir dir;
    ScopedEnv noTmpdir{"TMPDIR", nullptr};
    void SetUp() override { tempDir = dir.path.data(); }
    void TearDown() override {
        EXPECT_EQ(Entries(dir.path), std::set<std::string>{});
        tempDir = nullptr;
    }
};

/// A 4-byte big-endian key.
struct Key4 {
    unsigned char b[4];
    explicit Key4(uint32_t v) : b{uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)} {}
};

/// The value of a 4-byte big-endian key in a slot.
inline uint32_t SlotValue(KeySlot* slot) {
    const unsigned char* k = TreeSlotKey(slot);
    return uint32_t{k[0]} << 24 | uint32_t{k[1]} << 16 | uint32_t{k[2]} << 8 | k[3];
}

/// Plants a tree of 4-byte keys without data, 3 keys to a key node and two
/// nodes of each kind in memory; its tree page file is treeFile when given.
inline TreeHeader* PlantKeys4(uint32_t order, const char* treeFile = nullptr) {
    return TreePlant(0, order, -2, treeFile, 3, 4, 0, -2, nullptr, nullptr, nullptr, nullptr);
}

/// Adds the key v with no data; returns TreeAddKey's result.
inline int Add(TreeHeader* tree, uint32_t v) {
    Key4 k(v);
    return TreeAddKey(tree, k.b, 4, nullptr);
}

/// TreeSearch for v.
inline KeySlot* Find(TreeHeader* tree, uint32_t v) {
    Key4 k(v);
    return TreeSearch(tree, k.b, 4);
}
