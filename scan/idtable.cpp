#include "scan/idtable.h"

#include <pwd.h>

#include <cstring>
#include <string>
#include <unordered_map>

#include "btree/btree.h"
#include "driver/globals.h"
#include "support/memory.h"


// The user database's answer per id, kept for the run: the tree still gets
// its records and slots exactly as without it, but a million entries cost
// one getpwuid per distinct id instead of one per group lookup.
static std::unordered_map<uint32_t, std::string> knownNames;

// The records: never freed, and a refused one is referenced by nothing but
// its chunk, so they are packed into an arena (32 bytes for a four-letter
// name instead of a 48-byte heap block).
static Arena records;

static const std::string& UserName(uint32_t id) {
    auto [it, added] = knownNames.try_emplace(id);
    if (added) {
        const struct passwd* pw = getpwuid(id);
        it->second = pw ? pw->pw_name : "<unknown>";
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

// WARNING: this function is performance-critical (twice per entry); please
// benchmark any changes you make to it.
void CheckIdTree(uint32_t id, uint32_t kind) {
    IdRecord probe{id, kind, 0, nullptr};
    IdRecord* key = &probe;
    if (KeySlot* slot = TreeSearch(idTree, &key, sizeof key)) {
        memcpy(&key, TreeSlotKey(slot), sizeof key);
        key->useCount++;
        return;
    }
    const std::string& name = UserName(id);
    size_t length = name.size();
    auto* record = static_cast<IdRecord*>(ArenaAlloc(&records, length + 25, "add uid/gid"));
    record->id = id;
    record->idKind = ID_USER;  // whatever kind was asked for
    record->useCount = 1;
    record->userName = reinterpret_cast<char*>(record + 1);
    memcpy(record->userName, name.data(), length);
    // A refused key (a record of that number exists) leaves the new record abandoned.
    TreeAddKey(idTree, &record, sizeof record, nullptr);
}
