#include <gtest/gtest.h>
#include <pwd.h>

#include <cstring>
#include <map>
#include <set>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "btree/btree.h"
#include "scan/idtable.h"

namespace {

// A table as its tree holds it, in key order: "id useCount name" per record.
std::vector<std::string> Table(TreeHeader* tree = idTree) {
    std::vector<std::string> out;
    for (KeySlot* slot = TreeLowKey(tree); slot; slot = TreeNextKey(tree)) {
        IdRecord* r;
        memcpy(&r, TreeSlotKey(slot), sizeof r);
        EXPECT_EQ(r->idKind, ID_USER);
        out.push_back(std::to_string(r->id) + " " + std::to_string(r->useCount) + " " + r->userName);
    }
    return out;
}

TEST(CheckIdTree, KeepsOneRecordPerNumberAndNamesGroupsFromTheUserDatabase) {
    const uint32_t unknown = 3999999999u;
    ASSERT_EQ(getpwuid(unknown), nullptr);
    struct Case {
        const char* what;
        std::vector<std::pair<uint32_t, uint32_t>> lookups;  // id, kind
        std::vector<std::string> table;
    } cases[] = {
        {"same user twice", {{0, ID_USER}, {0, ID_USER}}, {"0 2 root"}},
        {"a new tree knows nothing of the last one", {{0, ID_USER}}, {"0 1 root"}},
        {"group equal to a seen user adds no key and no use", {{0, ID_USER}, {0, ID_GROUP}, {0, ID_GROUP}},
         {"0 1 root"}},
        {"unseen group becomes a user record that users then count",
         {{65534, ID_GROUP}, {65534, ID_GROUP}, {65534, ID_USER}}, {"65534 2 nobody"}},
        // 0 - 3999999999 wraps to a positive difference: 0 sorts last.
        {"unknown group", {{0, ID_USER}, {unknown, ID_GROUP}}, {"3999999999 1 <unknown>", "0 1 root"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        IdTableOpen();
        for (auto [id, kind] : c.lookups) CheckIdTree(id, kind);
        EXPECT_EQ(Table(), c.table);
        IdTableFree();
    }
}

// The owner table's algorithm step by step, on a tree of its own: a search
// with the kind asked for, and on a miss a new record of kind 1 that the tree
// may refuse, for groups and users alike.
struct ReferenceTable {
    TreeHeader* tree = PlantIdTree();
    std::vector<std::unique_ptr<char[]>> blocks;  // records, kept as the program keeps them
    std::map<uint32_t, std::string> names;        // the user database's answers, asked once
    ~ReferenceTable() { TreeFree(tree); }

    void Check(uint32_t id, uint32_t kind) {
        IdRecord probe{id, kind, 0, nullptr};
        IdRecord* key = &probe;
        if (KeySlot* slot = TreeSearch(tree, &key, sizeof key)) {
            memcpy(&key, TreeSlotKey(slot), sizeof key);
            key->useCount++;
            return;
        }
        auto [known, added] = names.try_emplace(id);
        if (added) {
            const struct passwd* pw = getpwuid(id);
            known->second = pw ? pw->pw_name : "<unknown>";
        }
        const std::string& name = known->second;
        blocks.emplace_back(new char[name.size() + 25]());
        auto* record = reinterpret_cast<IdRecord*>(blocks.back().get());
        *record = {id, ID_USER, 1, blocks.back().get() + sizeof(IdRecord)};
        memcpy(record->userName, name.data(), name.size());
        TreeAddKey(tree, &record, sizeof record, nullptr);
    }
};

// Random lookups over ids that users and groups share and ids more than 2^31
// apart, whose wrapped comparison is not transitive, so that where a key lands
// (and whether a later search finds it) depends on the tree's shape. The
// program's table must hold the same records, in the same order, with the
// same counts as the algorithm's, at every step of the sequence.
TEST(CheckIdTree, HoldsWhatTheAlgorithmHoldsOnCollidingAndFarApartIds) {
    struct Case {
        const char* what;
        uint32_t seed, lookups, spread;  // spread: further random ids, so that nodes split
        double groupShare;
    } cases[] = {
        {"few ids, mostly groups", 1, 4000, 0, 0.7},
        {"few ids, mostly users", 2, 4000, 0, 0.2},
        {"thousands of ids across the whole range: splits", 3, 30000, 3000, 0.5},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::mt19937 rng(c.seed);
        std::vector<uint32_t> pool = {0, 1, 2, 65534, 1000, 4242,  // shared by users and groups; then far apart
                                      0x7FFFFFFFu, 0x80000000u, 0x80000001u, 0xC0000000u, 0xFFFFFFFFu, 3999999999u};
        for (uint32_t i = 0; i < c.spread; i++) pool.push_back(static_cast<uint32_t>(rng()));
        IdTableOpen();
        ReferenceTable reference;
        std::bernoulli_distribution group(c.groupShare);
        for (uint32_t i = 0; i < c.lookups; i++) {
            uint32_t id = pool[rng() % pool.size()];
            uint32_t kind = group(rng) ? ID_GROUP : ID_USER;
            CheckIdTree(id, kind);
            reference.Check(id, kind);
            if (i % 1000 == 999 || i + 1 == c.lookups) {
                std::vector<std::string> ours = Table(), theirs = Table(reference.tree);
                ASSERT_EQ(ours, theirs) << "after " << i + 1 << " lookups";
            }
        }
        // Far-apart ids make the algorithm hold some numbers more than once;
        // without that the sequence would not test the wrapped comparison.
        std::set<std::string> numbers;
        for (const std::string& record : Table()) numbers.insert(record.substr(0, record.find(' ')));
        EXPECT_LT(numbers.size(), Table().size());
        IdTableFree();
    }
}

}  // namespace
