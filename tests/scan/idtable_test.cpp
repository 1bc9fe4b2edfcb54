#include <gtest/gtest.h>
#include <pwd.h>

#include <cstring>
#include <string>
#include <vector>

#include "btree/btree.h"
#include "driver/globals.h"
#include "scan/idtable.h"

namespace {

int32_t Compare(uint32_t idA, uint32_t kindA, uint32_t idB, uint32_t kindB) {
    IdRecord a{idA, kindA, 0, nullptr}, b{idB, kindB, 0, nullptr};
    IdRecord* pa = &a;
    IdRecord* pb = &b;
    return IdKeyCmp(&pa, 8, &pb, 8);
}

TEST(IdKeyCmp, KindsFirstThenIdsAsWrapped32BitDifferences) {
    struct Case {
        uint32_t idA, kindA, idB, kindB;
        int32_t expected;
    } cases[] = {
        {5, 1, 5, 1, 0},
        {5, 1, 9, 1, -4},
        {9, 2, 5, 2, 4},
        {900, 1, 5, 2, -1},  // kinds decide before ids
        {5, 2, 900, 1, 1},
        {0x90000000u, 1, 1, 1, static_cast<int32_t>(0x8FFFFFFFu)},  // more than 2^31 apart: reversed
        {0, 1, 0xFFFFFFFFu, 1, 1},                                  // wraps: 0 sorts after 4294967295
        {0xFFFFFFFFu, 1, 0, 1, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.idA << "/" << c.kindA << " vs " << c.idB << "/" << c.kindB);
        EXPECT_EQ(Compare(c.idA, c.kindA, c.idB, c.kindB), c.expected);
    }
}

// The table as the tree holds it, in key order.
std::vector<IdRecord> Records() {
    std::vector<IdRecord> out;
    for (KeySlot* slot = TreeLowKey(idTree); slot; slot = TreeNextKey(idTree)) {
        IdRecord* record;
        memcpy(&record, TreeSlotKey(slot), sizeof record);
        EXPECT_STREQ(record->userName, reinterpret_cast<char*>(record + 1));
        out.push_back(*record);
    }
    return out;
}

// A lookup sequence and the table it must leave: {id, kind(stored), useCount, name}.
TEST(CheckIdTree, KeepsOneRecordPerNumberAndNamesGroupsFromTheUserDatabase) {
    const uint32_t unknown = 3999999999u;
    ASSERT_EQ(getpwuid(unknown), nullptr);
    struct Lookup {
        uint32_t id, kind;
    };
    struct Case {
        const char* what;
        std::vector<Lookup> lookups;
        std::vector<std::tuple<uint32_t, uint32_t, std::string>> table;  // id, useCount, name
    } cases[] = {
        {"same user twice", {{0, ID_USER}, {0, ID_USER}}, {{0, 2, "root"}}},
        {"unknown user", {{unknown, ID_USER}}, {{unknown, 1, "<unknown>"}}},
        {"group equal to a seen user adds no key and no use", {{0, ID_USER}, {0, ID_GROUP}, {0, ID_GROUP}},
         {{0, 1, "root"}}},
        {"unseen group becomes a user record that users then count",
         {{65534, ID_GROUP}, {65534, ID_GROUP}, {65534, ID_USER}}, {{65534, 2, "nobody"}}},
        // 0 - 3999999999 wraps to a positive difference: 0 sorts last.
        {"unknown group", {{0, ID_USER}, {unknown, ID_GROUP}}, {{unknown, 1, "<unknown>"}, {0, 1, "root"}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        idTree = TreePlant(0, 512, -513, nullptr, 128, 8, 0, 50000000, nullptr, nullptr, nullptr, IdKeyCmp);
        for (const Lookup& l : c.lookups) CheckIdTree(l.id, l.kind);
        std::vector<IdRecord> records = Records();
        ASSERT_EQ(records.size(), c.table.size());
        for (size_t i = 0; i < records.size(); i++) {
            EXPECT_EQ(records[i].id, std::get<0>(c.table[i]));
            EXPECT_EQ(records[i].idKind, ID_USER);
            EXPECT_EQ(records[i].useCount, std::get<1>(c.table[i]));
            EXPECT_EQ(std::string(records[i].userName), std::get<2>(c.table[i]));
        }
        TreeFree(idTree);
        idTree = nullptr;
    }
}

}  // namespace
