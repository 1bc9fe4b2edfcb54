#include "scan/idtable.h"

#include <pwd.h>

#include <cstring>
#include <string>
#include <unordered_map>

#include "btree/btree.h"
#include "support/memory.h"

TreeHeader* idTree = nullptr;

// What the run has learnt about each id: the user database's name for it,
// and the tree's answer to a search for it as a user id. Nothing is removed
// from the tree and a refused key changes neither its keys nor their order,
// so an answer found stays the answer until the tree next takes a key; a
// million entries then cost one getpwuid and about one tree search per
// distinct id, and memory grows with the ids, not with the entries.
struct KnownId {
    std::string name;
    IdRecord* user = nullptr;  // the tree's answer, while stamp == keysTaken
    uint64_t stamp = 0;
};
static std::unordered_map<uint32_t, KnownId> knownIds;
// Keys idTree has taken from this module, plus one per tree planted: every
// change outdates every answer (answers are stamped with the count).
static uint64_t keysTaken = 1;

// The ids of the last owner and group: the entries of one directory mostly
// share them, and a map node stays where it is while the map grows.
static uint32_t lastId[2];
static KnownId* lastKnown[2];

// The records that the tree holds: never freed, so they are packed into an
// arena (32 bytes for a four-letter name instead of a 48-byte heap block).
static Arena records;

static KnownId& LearnId(uint32_t id, uint32_t kind) {
    size_t memo = kind != ID_USER;
    if (lastKnown[memo] && lastId[memo] == id) return *lastKnown[memo];
    auto [it, added] = knownIds.try_emplace(id);
    if (added) {
        const struct passwd* pw = getpwuid(id);
        it->second.name = pw ? pw->pw_name : "<unknown>";
    }
    lastId[memo] = id;
    lastKnown[memo] = &it->second;
    return it->second;
}

static const IdRecord* RecordOfKey(const void* key) {
    const IdRecord* record;
    memcpy(&record, key, sizeof record);
    return record;
}

int32_t IdKeyCmp(const void* keyA, uint32_t, const void* keyB, uint32_t) {
    const IdRecord* a = RecordOfKey(keyA);
    const IdRecord* b = RecordOfKey(keyB);
    if (a->idKind != b->idKind) return static_cast<int32_t>(a->idKind - b->idKind);
    return static_cast<int32_t>(a->id - b->id);
}

TreeHeader* PlantIdTree() {
    return TreePlant(0, 512, -513, nullptr, 128, sizeof(IdRecord*), 0, 50000000, nullptr, nullptr, nullptr, IdKeyCmp);
}

void IdTableOpen() {
    idTree = PlantIdTree();
    keysTaken++;  // the answers of an earlier tree are not this one's
}

void IdTableFree() {
    TreeFree(idTree);
    idTree = nullptr;
    keysTaken++;
}

// The tree's answer to a search for id as a user id: the record it holds
// under that number, or null. Searches only when the tree has taken a key
// since the last answer.
static IdRecord* UserRecord(uint32_t id, KnownId& known) {
    if (known.stamp == keysTaken) return known.user;
    IdRecord probe{id, ID_USER, 0, nullptr};
    IdRecord* key = &probe;
    KeySlot* slot = TreeSearch(idTree, &key, sizeof key);
    if (slot) memcpy(&key, TreeSlotKey(slot), sizeof key);
    known.user = slot ? key : nullptr;
    known.stamp = keysTaken;
    return known.user;
}

// Runs twice per entry: an answer already known must cost no tree search and
// no allocation.
void CheckIdTree(uint32_t id, uint32_t kind) {
    KnownId& known = LearnId(id, kind);
    IdRecord* user = UserRecord(id, known);
    if (user) {
        // A user lookup finds the record. A group lookup never finds one
        // (stored records are all of kind 1, and the comparison puts kinds
        // first); the record of kind 1 it would add is refused by the tree,
        // which changes nothing, so none is made.
        if (kind == ID_USER) user->useCount++;
        return;
    }
    // Not in the tree (the same search as the one TreeAddKey makes): the id
    // enters it as a user id, whatever kind was asked for.
    size_t length = known.name.size();
    auto* record = static_cast<IdRecord*>(ArenaAlloc(&records, length + 25, "add uid/gid"));
    record->id = id;
    record->idKind = ID_USER;
    record->useCount = 1;
    record->userName = reinterpret_cast<char*>(record + 1);
    memcpy(record->userName, known.name.data(), length);
    if (TreeAddKey(idTree, &record, sizeof record, nullptr)) keysTaken++;
}
