// The paged B-tree in the scanner's two configurations beside std::map on the
// same keys: one million insertions in ascending and in random order and one
// million searches, with caches that hold every node and with caches small
// enough to page. Reports time per operation and peak heap bytes; the tree's
// page files add file_MiB on disk.
//
//   hlink: 4-byte keys, 16 bytes of data, 512 keys per key node, default comparison
//   id:    8-byte pointer keys, no data, 128 keys per key node, comparison through the pointers

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <numeric>
#include <random>
#include <vector>

#include "btree/btree.h"

namespace {

constexpr uint32_t KEYS = 1000000;

// Heap accounting shared by the tree's allocation functions and the map's allocator.
size_t liveBytes, peakBytes;

void* CountingAlloc(uint32_t size) {
    auto* block = static_cast<size_t*>(malloc(size + 16));
    block[0] = size;
    liveBytes += size;
    peakBytes = std::max(peakBytes, liveBytes);
    return block + 2;
}

void CountingFree(void* p) {
    auto* block = static_cast<size_t*>(p) - 2;
    liveBytes -= block[0];
    free(block);
}

template <typename T>
struct CountingAllocator {
    using value_type = T;
    CountingAllocator() = default;
    template <typename U>
    CountingAllocator(const CountingAllocator<U>&) {}
    T* allocate(size_t n) {
        liveBytes += n * sizeof(T);
        peakBytes = std::max(peakBytes, liveBytes);
        return static_cast<T*>(malloc(n * sizeof(T)));
    }
    void deallocate(T* p, size_t n) {
        liveBytes -= n * sizeof(T);
        free(p);
    }
    bool operator==(const CountingAllocator&) const { return true; }
};

// The owner-id tree's record and comparison: kind, then id.
struct IdRecord {
    uint32_t id, idKind, useCount;
};

int32_t IdCmp(const void* a, uint32_t, const void* b, uint32_t) {
    const IdRecord* x;
    const IdRecord* y;
    memcpy(&x, a, sizeof x);
    memcpy(&y, b, sizeof y);
    if (x->idKind != y->idKind) return static_cast<int32_t>(x->idKind - y->idKind);
    return static_cast<int32_t>(x->id - y->id);
}

struct IdLess {
    bool operator()(const IdRecord* a, const IdRecord* b) const { return IdCmp(&a, 8, &b, 8) < 0; }
};

struct HardLinkInfo {
    uint64_t lastEntryPos;
    uint32_t linkCount, seenCount;
};

// Key values: 0, 7, 14, ... in insertion order, shuffled unless ascending.
std::vector<uint32_t> KeyValues(bool ascending) {
    std::vector<uint32_t> values(KEYS);
    for (uint32_t i = 0; i < KEYS; i++) values[i] = i * 7;
    if (!ascending) std::shuffle(values.begin(), values.end(), std::mt19937(42));
    return values;
}

// Big-endian, so that ascending values are ascending keys for the byte comparison.
void HlinkKey(uint32_t v, unsigned char* k) {
    k[0] = uint8_t(v >> 24), k[1] = uint8_t(v >> 16), k[2] = uint8_t(v >> 8), k[3] = uint8_t(v);
}

enum Cache { LARGE, SMALL };

TreeHeader* PlantHlink(Cache cache) {
    // Small is the scanner's own budget: 513 tree nodes, 10,000,000 bytes of key nodes.
    return TreePlant(0, 512, cache == LARGE ? -100000 : -513, nullptr, 512, 4, 16,
                     cache == LARGE ? -100000 : 10000000, nullptr, CountingAlloc, CountingFree, nullptr);
}

TreeHeader* PlantId(Cache cache) {
    // The scanner's 50,000,000 bytes hold every key node of a million ids; small pages.
    return TreePlant(0, 512, cache == LARGE ? -100000 : -513, nullptr, 128, 8, 0,
                     cache == LARGE ? -100000 : -1000, nullptr, CountingAlloc, CountingFree, IdCmp);
}

void Report(benchmark::State& state, uint64_t operations, TreeHeader* tree) {
    state.counters["ns_per_op"] =
        benchmark::Counter(double(operations), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["peak_MiB"] = double(peakBytes) / (1 << 20);
    if (tree) {
        double file = double(tree->treeNodes.nextNode) * tree->treeNodes.nodeSize +
                      double(tree->keyNodes.nextNode) * tree->keyNodes.nodeSize;
        state.counters["file_MiB"] = file / (1 << 20);
    }
}

void AddAll(TreeHeader* tree, bool id, const std::vector<uint32_t>& values, std::vector<IdRecord>& records) {
    unsigned char key[8];
    HardLinkInfo info{1, 2, 1};
    for (uint32_t i = 0; i < values.size(); i++) {
        if (id) {
            records[i] = IdRecord{values[i], 1, 1};
            IdRecord* p = &records[i];
            memcpy(key, &p, 8);
            TreeAddKey(tree, key, 8, nullptr);
        } else {
            HlinkKey(values[i], key);
            TreeAddKey(tree, key, 4, &info);
        }
    }
}

void BM_TreeInsert(benchmark::State& state) {
    bool id = state.range(0), ascending = state.range(1);
    Cache cache = Cache(state.range(2));
    std::vector<uint32_t> values = KeyValues(ascending);
    std::vector<IdRecord> records(KEYS);
    TreeHeader* tree = nullptr;
    for (auto _ : state) {
        state.PauseTiming();
        TreeFree(tree);
        liveBytes = peakBytes = 0;
        tree = id ? PlantId(cache) : PlantHlink(cache);
        state.ResumeTiming();
        AddAll(tree, id, values, records);
    }
    Report(state, uint64_t{KEYS} * state.iterations(), tree);
    TreeFree(tree);
}

void BM_TreeSearch(benchmark::State& state) {
    bool id = state.range(0);
    Cache cache = Cache(state.range(2));
    std::vector<uint32_t> values = KeyValues(state.range(1));
    std::vector<IdRecord> records(KEYS);
    liveBytes = peakBytes = 0;
    TreeHeader* tree = id ? PlantId(cache) : PlantHlink(cache);
    AddAll(tree, id, values, records);
    std::vector<uint32_t> probes = KeyValues(false);
    unsigned char key[8];
    uint64_t found = 0;
    for (auto _ : state) {
        for (uint32_t v : probes) {
            KeySlot* slot;
            if (id) {
                IdRecord probe{v, 1, 0};
                IdRecord* p = &probe;
                memcpy(key, &p, 8);
                slot = TreeSearch(tree, key, 8);
            } else {
                HlinkKey(v, key);
                slot = TreeSearch(tree, key, 4);
            }
            found += slot != nullptr;
        }
    }
    if (found != uint64_t{KEYS} * state.iterations()) state.SkipWithError("a key was not found");
    Report(state, uint64_t{KEYS} * state.iterations(), tree);
    TreeFree(tree);
}

using HlinkMap = std::map<uint32_t, HardLinkInfo, std::less<uint32_t>,
                          CountingAllocator<std::pair<const uint32_t, HardLinkInfo>>>;
using IdMap = std::map<IdRecord*, int, IdLess, CountingAllocator<std::pair<IdRecord* const, int>>>;

void BM_MapInsert(benchmark::State& state) {
    bool id = state.range(0);
    std::vector<uint32_t> values = KeyValues(state.range(1));
    std::vector<IdRecord> records(KEYS);
    for (auto _ : state) {
        liveBytes = peakBytes = 0;
        if (id) {
            IdMap map;
            for (uint32_t i = 0; i < KEYS; i++) {
                records[i] = IdRecord{values[i], 1, 1};
                map.emplace(&records[i], 0);
            }
            state.PauseTiming();  // the map's destruction is not part of the insertions
        } else {
            HlinkMap map;
            for (uint32_t v : values) map.emplace(v, HardLinkInfo{1, 2, 1});
            state.PauseTiming();
        }
        state.ResumeTiming();
    }
    Report(state, uint64_t{KEYS} * state.iterations(), nullptr);
}

void BM_MapSearch(benchmark::State& state) {
    bool id = state.range(0);
    std::vector<uint32_t> values = KeyValues(state.range(1));
    std::vector<IdRecord> records(KEYS);
    liveBytes = peakBytes = 0;
    IdMap idMap;
    HlinkMap hlinkMap;
    for (uint32_t i = 0; i < KEYS; i++) {
        records[i] = IdRecord{values[i], 1, 1};
        if (id) {
            idMap.emplace(&records[i], 0);
        } else {
            hlinkMap.emplace(values[i], HardLinkInfo{1, 2, 1});
        }
    }
    std::vector<uint32_t> probes = KeyValues(false);
    uint64_t found = 0;
    for (auto _ : state) {
        for (uint32_t v : probes) {
            if (id) {
                IdRecord probe{v, 1, 0};
                found += idMap.count(&probe);
            } else {
                found += hlinkMap.count(v);
            }
        }
    }
    if (found != uint64_t{KEYS} * state.iterations()) state.SkipWithError("a key was not found");
    Report(state, uint64_t{KEYS} * state.iterations(), nullptr);
}

// Arguments: configuration (0 hlink, 1 id), ascending (1) or random (0), cache (0 large, 1 small).
void TreeArgs(benchmark::internal::Benchmark* b) {
    b->ArgNames({"id", "ascending", "small_cache"});
    for (int id : {0, 1})
        for (int ascending : {1, 0})
            for (int cache : {LARGE, SMALL}) b->Args({id, ascending, cache});
    b->Unit(benchmark::kMillisecond)->Iterations(1);
}

void MapArgs(benchmark::internal::Benchmark* b) {
    b->ArgNames({"id", "ascending"});
    for (int id : {0, 1})
        for (int ascending : {1, 0}) b->Args({id, ascending});
    b->Unit(benchmark::kMillisecond)->Iterations(1);
}

BENCHMARK(BM_TreeInsert)->Apply(TreeArgs);
BENCHMARK(BM_MapInsert)->Apply(MapArgs);
BENCHMARK(BM_TreeSearch)->Apply(TreeArgs);
BENCHMARK(BM_MapSearch)->Apply(MapArgs);

}  // namespace

BENCHMARK_MAIN();
