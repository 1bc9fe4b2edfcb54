// The two tables of the walk at scale, outside ctest:
//
//   table_scale hardlinks [DISTINCT [REPEATS [BUDGET]]]
//     The hard-link table fed DISTINCT inodes (default 5,000,000) and REPEATS
//     further entries of inodes already seen (default 5,000,000) in one
//     generated order. A first pass times the table alone and reports time
//     per operation before and after the hash table is full, the hash
//     table's bytes against its budget and the growth of peak resident
//     memory; a second pass checks every answer against std::unordered_map.
//
//   table_scale owners [LOOKUPS [IDS]]
//     The owner table with LOOKUPS lookups (default 100,000,000) of IDS ids
//     (default 1,000), users and groups mixed: time per lookup and resident
//     memory along the way, which must stay flat, and the table's contents
//     against a model at the end.
//
// Page files go where the program puts them (TMPDIR, else /tmp).
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "btree/btree.h"
#include "detail/hardlinks.h"
#include "scan/idtable.h"

static double Seconds() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

// A field of /proc/self/status in KiB (VmRSS, VmHWM).
static long StatusKiB(const char* field) {
    FILE* f = fopen("/proc/self/status", "r");
    char line[256];
    long value = -1;
    size_t n = strlen(field);
    while (f && fgets(line, sizeof line, f)) {
        if (strncmp(line, field, n) == 0 && line[n] == ':') value = atol(line + n + 1);
    }
    if (f) fclose(f);
    return value;
}

// The generated order: each step is a new inode (the next of a bijective
// scramble of 0, 1, 2, ..., so all distinct) or a repeat of one seen before,
// drawn at random, in the proportion of what is left of each.
struct HardLinkOrder {
    uint64_t distinct, repeats, newDone = 0, repeatDone = 0;
    std::mt19937_64 rng{42};
    HardLinkOrder(uint64_t d, uint64_t r) : distinct(d), repeats(r) {}
    static uint32_t Inode(uint64_t i) { return static_cast<uint32_t>(i * 2654435761u + 12345u); }
    bool Next(uint32_t* inode, bool* isNew) {
        uint64_t left = (distinct - newDone) + (repeats - repeatDone);
        if (left == 0) return false;
        bool fresh = newDone == 0 || rng() % left < distinct - newDone;
        *isNew = fresh;
        *inode = fresh ? Inode(newDone++) : Inode(rng() % newDone);
        if (!fresh) repeatDone++;
        return true;
    }
};

static int HardLinks(uint64_t distinct, uint64_t repeats, size_t budget) {
    hlinkHashBudget = budget;
    printf("hard-link table: %" PRIu64 " distinct inodes, %" PRIu64 " repeats, hash budget %zu bytes\n", distinct,
           repeats, budget);

    // Pass 1: the table alone, timed on both sides of the spill.
    long rssBefore = StatusKiB("VmHWM");
    HardLinksOpen();
    HardLinkOrder order(distinct, repeats);
    uint32_t inode;
    bool isNew, first;
    uint64_t pos = 0, opsBefore = 0, opsAfter = 0, spillAt = 0;
    double start = Seconds(), spillTime = 0;
    while (order.Next(&inode, &isNew)) {
        HardLinkNote(inode, 2, pos, &first);
        pos += 24;
        if (spillAt == 0 && hlinkTree->rootNode != 0) {
            spillAt = opsBefore + 1;
            spillTime = Seconds();
        }
        if (spillAt == 0) {
            opsBefore++;
        } else {
            opsAfter++;
        }
    }
    double end = Seconds();
    if (spillAt == 0) spillTime = end;
    long rssAfter = StatusKiB("VmHWM");
    printf("  before the spill: %" PRIu64 " operations, %.0f ns each\n", opsBefore,
           opsBefore ? (spillTime - start) / opsBefore * 1e9 : 0.0);
    printf("  after the spill:  %" PRIu64 " operations, %.0f ns each (spill at operation %" PRIu64 ")\n", opsAfter,
           opsAfter ? (end - spillTime) / opsAfter * 1e9 : 0.0, spillAt);
    printf("  hash table: %zu bytes (budget %zu), %zu inodes; the tree %s\n", HardLinkHashBytes(), budget,
           HardLinksHashed(), hlinkTree->rootNode ? "took the rest" : "stayed empty");
    printf("  peak resident memory grew by %.1f MiB (to %.1f MiB)\n", (rssAfter - rssBefore) / 1024.0,
           rssAfter / 1024.0);
    bool ok = HardLinkHashBytes() <= budget;
    HardLinksFree();

    // Pass 2: the same order, every answer checked against a map.
    HardLinksOpen();
    std::unordered_map<uint32_t, HardLinkInfo> model;
    model.reserve(distinct);
    HardLinkOrder again(distinct, repeats);
    pos = 0;
    uint64_t wrong = 0;
    while (again.Next(&inode, &isNew)) {
        uint64_t prev = HardLinkNote(inode, 2, pos, &first);
        auto [it, added] = model.try_emplace(inode, HardLinkInfo{pos, 2, 1});
        uint64_t expected = added ? 0 : it->second.lastEntryPos;
        if (!added) {
            it->second.lastEntryPos = pos;
            it->second.seenCount++;
        }
        if (first != added || prev != expected || added != isNew) wrong++;
        pos += 24;
    }
    for (const auto& [key, info] : model) {
        HardLinkInfo held{};
        if (!HardLinkFind(key, &held) || held.lastEntryPos != info.lastEntryPos || held.seenCount != info.seenCount)
            wrong++;
    }
    HardLinksFree();
    printf("  answers checked against std::unordered_map: %" PRIu64 " wrong\n", wrong);
    return ok && wrong == 0 ? 0 : 1;
}

static int Owners(uint64_t lookups, uint32_t ids) {
    printf("owner table: %" PRIu64 " lookups of %u ids\n", lookups, ids);
    IdTableOpen();
    std::mt19937 rng(9);
    std::vector<uint32_t> pool(ids);
    for (uint32_t i = 0; i < ids; i++) pool[i] = i * 7;  // near one another: the comparison stays transitive
    // The model: per id, whether it has a record and the record's use count.
    std::unordered_map<uint32_t, uint32_t> uses;
    double start = Seconds();
    for (uint64_t i = 1; i <= lookups; i++) {
        uint32_t r = rng();
        uint32_t id = pool[r % ids];
        uint32_t kind = (r >> 20) & 1 ? ID_GROUP : ID_USER;
        CheckIdTree(id, kind);
        auto [it, added] = uses.try_emplace(id, 1);
        if (!added && kind == ID_USER) it->second++;
        if (i == 1000000 || i == 10000000 || i % 25000000 == 0 || i == lookups) {
            double now = Seconds();
            printf("  after %11" PRIu64 " lookups: resident %.1f MiB, peak %.1f MiB, %.1f ns per lookup\n", i,
                   StatusKiB("VmRSS") / 1024.0, StatusKiB("VmHWM") / 1024.0, (now - start) / i * 1e9);
        }
    }
    uint64_t records = 0, wrong = 0;
    for (KeySlot* slot = TreeLowKey(idTree); slot; slot = TreeNextKey(idTree)) {
        IdRecord* record;
        memcpy(&record, TreeSlotKey(slot), sizeof record);
        records++;
        auto it = uses.find(record->id);
        if (it == uses.end() || it->second != record->useCount) wrong++;
    }
    if (records != uses.size()) wrong++;
    IdTableFree();
    printf("  %" PRIu64 " records; contents against the model: %" PRIu64 " wrong\n", records, wrong);
    return wrong == 0 ? 0 : 1;
}

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);  // figures as they come: a pass can take minutes
    std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "hardlinks") {
        uint64_t distinct = argc > 2 ? strtoull(argv[2], nullptr, 10) : 5000000;
        uint64_t repeats = argc > 3 ? strtoull(argv[3], nullptr, 10) : 5000000;
        size_t budget = argc > 4 ? strtoull(argv[4], nullptr, 10) : HLINK_HASH_BUDGET;
        return HardLinks(distinct, repeats, budget);
    }
    if (mode == "owners") {
        uint64_t lookups = argc > 2 ? strtoull(argv[2], nullptr, 10) : 100000000;
        uint32_t ids = argc > 3 ? static_cast<uint32_t>(strtoul(argv[3], nullptr, 10)) : 1000;
        return Owners(lookups, ids);
    }
    fprintf(stderr, "usage: table_scale hardlinks [DISTINCT [REPEATS [BUDGET]]] | owners [LOOKUPS [IDS]]\n");
    return 2;
}
