// Saving a whole tree into an open file and loading it back with fresh page
// files. A saved tree is the header, the two node tables as node numbers and
// the two page-file images, all in the machine's own byte order.

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <initializer_list>

#include "btree/btree.h"
#include "log/log.h"
#include "support/memory.h"

// Reads from the caller's file; what a short file lacks reads as zeros.
static void ReadIn(int fd, void* buffer, size_t size) {
    auto* bytes = static_cast<char*>(buffer);
    while (size > 0) {
        ssize_t got = read(fd, bytes, size);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        bytes += got;
        size -= static_cast<size_t>(got);
    }
    memset(bytes, 0, size);
}

// Node numbers are saved as 64-bit values, sign-extended.
static uint64_t SavedNumber(uint32_t nodeNumber) {
    return static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(nodeNumber)));
}

// The tables whose page files a saved tree carries: the key pages live in the
// tree page file in the shared-file mode. Their counters are the ones in use.
static void PageTables(TreeHeader* tree, NodeTable** out) {
    out[0] = &tree->treeNodes;
    out[1] = (tree->flags & TREE_SHARED_FILE) ? nullptr : &tree->keyNodes;
}

int64_t TreeSave(TreeHeader* tree, int fd) {
    off_t start = lseek(fd, 0, SEEK_END);
    if (start < 0) return -1;
    NodeTable* tables[2] = {&tree->treeNodes, &tree->keyNodes};
    size_t scratchSize = 0;
    for (NodeTable* table : tables) {
        if (table->nodeSize > scratchSize) scratchSize = table->nodeSize;
        if (size_t{8} * table->capacity > scratchSize) scratchSize = size_t{8} * table->capacity;
    }
    auto* scratch = static_cast<char*>(_treeAlloc(tree, static_cast<uint32_t>(scratchSize)));

    // Cached nodes go to their pages with recency links as node numbers.
    for (NodeTable* table : tables) {
        for (uint32_t i = 0; i < table->count; i++) {
            NodeHead* node = table->nodes[i];
            memcpy(scratch, node, table->nodeSize);
            if (node->olderNode) {
                uint64_t number = SavedNumber(node->olderNode->nodeNumber);
                memcpy(scratch + offsetof(NodeHead, olderNode), &number, sizeof number);
            }
            if (node->newerNode) {
                uint64_t number = SavedNumber(node->newerNode->nodeNumber);
                memcpy(scratch + offsetof(NodeHead, newerNode), &number, sizeof number);
            }
            _writePage(tree, table, node->nodeNumber, scratch);
        }
    }
    // Write failures are not reported here: the saved image is the caller's to check.
    WriteFully(fd, reinterpret_cast<const char*>(tree), sizeof(TreeHeader));
    for (NodeTable* table : tables) {
        memset(scratch, 0, size_t{8} * table->capacity);
        for (uint32_t i = 0; i < table->count; i++) {
            uint64_t number = SavedNumber(table->nodes[i]->nodeNumber);
            memcpy(scratch + size_t{8} * i, &number, sizeof number);
        }
        WriteFully(fd, scratch, size_t{8} * table->capacity);
    }
    NodeTable* pageTables[2];
    PageTables(tree, pageTables);
    for (NodeTable* table : pageTables) {
        if (!table) continue;
        for (uint32_t n = 0; n < *table->nextNodePtr; n++) {
            _fetchNode(tree, table, n, scratch);
            WriteFully(fd, scratch, table->nodeSize);
        }
    }
    tree->freeFn(scratch);
    return start;
}

// A header whose sizes cannot belong to a tree would make the load itself
// overrun memory; it is refused rather than loaded.
static bool PlausibleHeader(const TreeHeader& h) {
    uint64_t slotSize = uint64_t{h.keyLength} + h.dataLength + sizeof(KeySlot);
    uint64_t block = TreeBlockSize(h.treeNodes.capacity, h.keyNodes.capacity);
    return h.order >= 2 && h.keysPerNode >= 1 && h.treeNodes.nodeSize == TreeNodeSize(h.order) &&
           h.slotSize == slotSize && h.keyNodes.nodeSize == KeyNodeSize(h.keysPerNode, slotSize) &&
           h.treeNodes.nodeSize <= INT32_MAX && h.keyNodes.nodeSize <= INT32_MAX && block <= UINT32_MAX &&
           h.treeNodes.count <= h.treeNodes.capacity && h.keyNodes.count <= h.keyNodes.capacity &&
           h.treeNodes.capacity >= MIN_CACHED_NODES && h.keyNodes.capacity >= MIN_CACHED_NODES;
}

TreeHeader* TreeLoad(int fd, int64_t offset, const char* treeFileName, const char* keyFileName,
                     TreeAllocFn allocFn, TreeFreeFn freeFn, TreeCompareFn compareFn) {
    TreeHeader saved;
    lseek(fd, static_cast<off_t>(offset), SEEK_SET);
    ReadIn(fd, &saved, sizeof saved);
    if (!PlausibleHeader(saved)) ErrExit("Saved B-tree at offset %lld is damaged\n", static_cast<long long>(offset));
    auto blockSize = static_cast<uint32_t>(TreeBlockSize(saved.treeNodes.capacity, saved.keyNodes.capacity));
    saved.allocFn = allocFn ? allocFn : GetTreeMem;
    auto* tree = static_cast<TreeHeader*>(_treeAlloc(&saved, blockSize));
    memset(tree, 0, blockSize);
    memcpy(tree, &saved, sizeof saved);
    for (NodeTable* table : {&tree->treeNodes, &tree->keyNodes}) {
        table->newestNode = table->oldestNode = nullptr;
    }
    _rootSetup(tree, treeFileName, keyFileName, allocFn, freeFn, compareFn);

    tree->treeNodes.nodes = reinterpret_cast<NodeHead**>(tree + 1);
    tree->keyNodes.nodes = tree->treeNodes.nodes + tree->treeNodes.capacity;
    for (NodeTable* table : {&tree->treeNodes, &tree->keyNodes}) {
        ReadIn(fd, table->nodes, size_t{8} * table->capacity);
        memset(table->nodes + table->count, 0, size_t{8} * (table->capacity - table->count));
    }
    uint32_t pageSize = tree->treeNodes.nodeSize > tree->keyNodes.nodeSize ? tree->treeNodes.nodeSize
                                                                            : tree->keyNodes.nodeSize;
    void* page = _treeAlloc(tree, pageSize);
    NodeTable* pageTables[2];
    PageTables(tree, pageTables);
    for (NodeTable* table : pageTables) {
        if (!table) continue;
        for (uint32_t n = 0; n < *table->nextNodePtr; n++) {
            ReadIn(fd, page, table->nodeSize);
            _writePage(tree, table, n, page);
        }
    }
    tree->freeFn(page);
    FixNodeTable(tree, &tree->treeNodes);
    FixNodeTable(tree, &tree->keyNodes);
    return tree;
}

// The relinked recency list must run from oldest to newest through every
// cached node exactly once, with matching back links.
static bool ConsistentList(const NodeTable* table) {
    uint32_t seen = 0;
    const NodeHead* previous = nullptr;
    for (const NodeHead* node = table->oldestNode; node; node = node->newerNode) {
        if (++seen > table->count || node->olderNode != previous) return false;
        previous = node;
    }
    return seen == table->count && previous == table->newestNode;
}

void FixNodeTable(TreeHeader* tree, NodeTable* table) {
    bool sorted = true;
    for (uint32_t i = 0; i < table->count; i++) {
        uint64_t saved;
        memcpy(&saved, &table->nodes[i], sizeof saved);
        auto number = static_cast<uint32_t>(saved);
        auto* node = static_cast<NodeHead*>(_treeAlloc(tree, table->nodeSize));
        table->nodes[i] = node;
        _fetchNode(tree, table, number, node);
        node->nodeNumber = number;
        _tableNumbers(tree, table)[i] = number;
        _indexNode(tree, table, number, node);
        if (i > 0 && number <= table->nodes[i - 1]->nodeNumber) sorted = false;
    }
    // Each node's saved older and newer numbers are matched against the other
    // cached nodes in table order; after a match the held value is the address,
    // whose low 32 bits later nodes are compared with. Trees saved by earlier
    // runs load only through this exact matching.
    bool matched = sorted;
    for (uint32_t a = 0; a < table->count && matched; a++) {
        NodeHead* node = table->nodes[a];
        uint64_t older, newer;
        memcpy(&older, &node->olderNode, sizeof older);
        memcpy(&newer, &node->newerNode, sizeof newer);
        bool olderFound = older == 0, newerFound = newer == 0;
        if (newer == 0) table->newestNode = node;
        if (older == 0) table->oldestNode = node;
        for (uint32_t b = 0; b < table->count; b++) {
            NodeHead* other = table->nodes[b];
            if (b == a) continue;
            if (other->nodeNumber == static_cast<uint32_t>(older)) {
                node->olderNode = other;
                older = reinterpret_cast<uintptr_t>(other);
                olderFound = true;
            }
            if (other->nodeNumber == static_cast<uint32_t>(newer)) {
                node->newerNode = other;
                newer = reinterpret_cast<uintptr_t>(other);
                newerFound = true;
            }
        }
        matched = olderFound && newerFound;
    }
    if (!matched || !ConsistentList(table)) {
        ErrExit("Saved B-tree is damaged: its %u cached nodes do not form a cache\n", table->count);
    }
}
