#include <gtest/gtest.h>
#include <pwd.h>

#include <cstring>
#include <string>
#include <vector>

#include "btree/btree.h"
#include "scan/idtable.h"

namespace {

// The table as the tree holds it, in key order: "id useCount name" per record.
std::vector<std::string> Table() {
    std::vector<std::string> out;
    for (KeySlot* slot = TreeLowKey(idTree); slot; slot = TreeNextKey(idTree)) {
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
    struct Lookup {
        uint32_t id, kind;
    };
    struct Case {
        const char* what;
        std::vector<Lookup> lookups;
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
        for (const Lookup& l : c.lookups) CheckIdTree(l.id, l.kind);
        EXPECT_EQ(Table(), c.table);
        IdTableFree();
    }
}

}  // namespace
