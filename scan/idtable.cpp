#include "scan/idtable.h"

#include <pwd.h>

#include <cstring>
#include <string>
#include <unordered_map>

#include "btree/btree.h"
#include "support/memory.h"

TreeHeader* idTree = nullptr;

// What the run has learnt about each id: the user database's name for it,
// and the tree's answer to a user lookup of it. Nothing is removed from the
// tree and a refused key changes no answer, so a found record stays the
// answer until the tree next takes a key; a million entries then cost one
// getpwuid and about one tree search per distinct id for their owners.
struct KnownId {
    std::string name;
    IdRecord* user = nullptr;  // the tree's answer, while stamp == keysTaken
    uint64_t stamp = 0;
};
static std::unordered_map<uint32_t, KnownId> knownIds;
static uint64_t keysTaken;  // keys idTree has taken from this module

// The records: never freed, and a refused one is referenced by nothing but
// its chunk, so they are packed into an arena (32 bytes for a four-letter
// name instead of a 48-byte heap block).
static Arena records;

static KnownId& LearnId(uint32_t id) {
    auto [it, added] = knownIds.try_emplace(id);
    if (added) {
        const struct passwd* pw = getpwuid(id);
        it->second.name = pw ? pw->pw_name : "<unknown>";
    }
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

void IdTableOpen() { idTree = PlantIdTree(); }

void IdTableFree() {
    TreeFree(idTree);
    idTree = nullptr;
}

// Runs twice per entry: an answer already known must cost no tree search and
// no allocation.
void CheckIdTree(uint32_t id, uint32_t kind) {
    KnownId& known = LearnId(id);
    // Stored records are all of kind 1, so a group lookup never finds one:
    // its search is skipped, as it could only miss.
    if (kind != ID_GROUP) {
        // An empty tree is a new one (the tests plant several): it has taken
        // no key yet, and its first one outdates every answer.
        if (known.user && known.stamp == keysTaken && idTree->rootNode != 0) {
            known.user->useCount++;
            return;
        }
        IdRecord probe{id, kind, 0, nullptr};
        IdRecord* key = &probe;
        if (KeySlot* slot = TreeSearch(idTree, &key, sizeof key)) {
            memcpy(&key, TreeSlotKey(slot), sizeof key);
            key->useCount++;
            known.user = key;
            known.stamp = keysTaken;
            return;
        }
    }
    size_t length = known.name.size();
    auto* record = static_cast<IdRecord*>(ArenaAlloc(&records, length + 25, "add uid/gid"));
    record->id = id;
    record->idKind = ID_USER;  // whatever kind was asked for
    record->useCount = 1;
    record->userName = reinterpret_cast<char*>(record + 1);
    memcpy(record->userName, known.name.data(), length);
    // A refused key (a record of that number exists) leaves the new record
    // abandoned and changes no answer; a key taken may change them all.
    if (TreeAddKey(idTree, &record, sizeof record, nullptr)) keysTaken++;
}
