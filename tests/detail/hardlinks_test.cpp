// The hard-link table against a plain map, across the point where its hash
// table is full and inodes go on into hlinkTree.
#include <gtest/gtest.h>

#include <random>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "detail/hardlinks.h"
#include "tests/btree/treefixture.h"

namespace {

// The page files go to the fixture's private directory.
using HardLinkTable = TreeTest;

TEST_F(HardLinkTable, AnswersAsAMapDoesOnBothSidesOfTheSpill) {
    struct Case {
        const char* what;
        size_t budget;
        bool spills;
    } cases[] = {
        {"the default budget holds them all", HLINK_HASH_BUDGET, false},
        {"a hundred slots: most go to the tree", 100 * HLINK_SLOT_BYTES, true},
        {"a budget that grows the table twice before it is full", 3 * 4096 * HLINK_SLOT_BYTES, true},
        {"no room for a single key: everything in the tree", HLINK_SLOT_BYTES, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        hlinkHashBudget = c.budget;
        HardLinksOpen();
        // 20,000 inodes seen one to eleven times in a shuffled order, with the
        // free-slot marker 0 and the largest number among them.
        std::mt19937 rng(5);
        std::vector<uint32_t> order;
        for (uint32_t i = 0; i < 20000; i++) {
            uint32_t inode = i == 0 ? 0 : i == 1 ? 0xFFFFFFFFu : static_cast<uint32_t>(rng());
            for (uint32_t n = 1 + rng() % 11; n > 0; n--) order.push_back(inode);
        }
        std::shuffle(order.begin(), order.end(), rng);

        std::unordered_map<uint32_t, HardLinkInfo> model;
        uint64_t pos = (uint64_t{1} << 32) - 24 * 1000;  // hlinkFile passes 4 GiB early on
        for (uint32_t inode : order) {
            uint32_t links = 2 + inode % 9;
            bool first = false;
            uint64_t prev = HardLinkNote(inode, links, pos, &first);
            auto [it, added] = model.try_emplace(inode, HardLinkInfo{pos, links, 0});
            uint64_t expectedPrev = added ? 0 : std::exchange(it->second.lastEntryPos, pos);
            it->second.seenCount++;
            ASSERT_EQ(std::pair(first, prev), std::pair(added, expectedPrev)) << "inode " << inode << " at " << pos;
            pos += 24;
        }
        for (const auto& [inode, m] : model) {
            HardLinkInfo held{};
            ASSERT_TRUE(HardLinkFind(inode, &held)) << inode;
            EXPECT_EQ(std::tie(held.lastEntryPos, held.linkCount, held.seenCount),
                      std::tie(m.lastEntryPos, m.linkCount, m.seenCount)) << inode;
        }
        uint32_t absent = 7;
        while (model.count(absent)) absent++;
        HardLinkInfo none;
        EXPECT_FALSE(HardLinkFind(absent, &none));
        EXPECT_LE(HardLinkHashBytes(), c.budget);
        EXPECT_EQ(hlinkTree->rootNode != 0, c.spills);
        if (!c.spills) {
            EXPECT_EQ(HardLinksHashed(), model.size());
        }
        HardLinksFree();
        hlinkHashBudget = HLINK_HASH_BUDGET;
    }
}

}  // namespace
