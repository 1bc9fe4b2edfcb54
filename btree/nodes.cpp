// The node caches: node-number-sorted tables with a recency list, paging
// against the page files, new nodes and key-slot addressing.

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "btree/btree.h"
#include "log/log.h"
#include "support/memory.h"

const char* _pageFileName(const TreeHeader* tree, const NodeTable* table) {
    return table == &tree->keyNodes && tree->keyFileName ? tree->keyFileName : tree->treeFileName;
}

// Offsets are 64-bit: a page file may grow past 2 GiB.
static off_t PageOffset(const NodeTable* table, uint32_t nodeNumber) {
    return static_cast<off_t>(uint64_t{nodeNumber} * table->nodeSize);
}

void _writePage(TreeHeader* tree, NodeTable* table, uint32_t nodeNumber, const void* image) {
    auto* bytes = static_cast<const char*>(image);
    size_t left = table->nodeSize;
    off_t offset = PageOffset(table, nodeNumber);
    while (left > 0) {
        ssize_t put = pwrite(*table->fdPtr, bytes, left, offset);
        if (put < 0) {
            if (errno == EINTR) continue;
            PosixErrExit(0, "Unable to write B-tree page file '%s'\n", _pageFileName(tree, table));
        }
        bytes += put;
        left -= static_cast<size_t>(put);
        offset += put;
    }
}

void _flushNode(TreeHeader* tree, NodeTable* table, const NodeHead* node) {
    _writePage(tree, table, node->nodeNumber, node);
}

void _fetchNode(TreeHeader* tree, NodeTable* table, uint32_t nodeNumber, void* buffer) {
    auto* bytes = static_cast<char*>(buffer);
    size_t left = table->nodeSize;
    off_t offset = PageOffset(table, nodeNumber);
    while (left > 0) {
        ssize_t got = pread(*table->fdPtr, bytes, left, offset);
        if (got < 0) {
            if (errno == EINTR) continue;
            PosixErrExit(0, "Unable to read B-tree page file '%s'\n", _pageFileName(tree, table));
        }
        if (got == 0) {  // never written: the page reads as zeros
            memset(bytes, 0, left);
            return;
        }
        bytes += got;
        left -= static_cast<size_t>(got);
        offset += got;
    }
}

// Index of the element holding nodeNumber, or of the first greater one
// (count when all are smaller).
// Runs for every key comparison that misses the node index: no allocation.
static inline uint32_t TablePlace(const uint32_t* numbers, const NodeTable* table, uint32_t nodeNumber) {
    int32_t count = static_cast<int32_t>(table->count);
    if (count == 0 || nodeNumber > numbers[count - 1]) return static_cast<uint32_t>(count);
    int32_t lo = -1, hi = count - 1;
    while (hi - lo > 1) {
        int32_t mid = hi - ((hi - lo) >> 1);
        uint32_t number = numbers[mid];
        if (number == nodeNumber) return static_cast<uint32_t>(mid);
        if (number < nodeNumber) {
            lo = mid;
        } else {
            hi = mid;
        }
    }
    return static_cast<uint32_t>(hi);
}

NodeHead** _findNode(TreeHeader* tree, NodeTable* table, uint32_t nodeNumber) {
    return table->nodes + TablePlace(_tableNumbers(tree, table), table, nodeNumber);
}

void _indexNode(TreeHeader* tree, NodeTable* table, uint32_t nodeNumber, NodeHead* node) {
    NodeIndex* index = _tableIndex(tree, table);
    if (nodeNumber >= index->size) {
        // Only numbers handed out are indexed: a damaged entry naming some
        // huge number must not make the index huge (lookups fall back to
        // the sorted array for anything the index does not hold).
        if (!node || nodeNumber >= *table->nextNodePtr) return;
        // Numbers are handed out in order, so doubling keeps growth rare.
        uint64_t size = index->size ? index->size : 64;
        while (size <= nodeNumber) size *= 2;
        if (size > UINT32_MAX) size = UINT32_MAX;  // numbers handed out stay below it
        auto* grown = static_cast<NodeHead**>(realloc(index->byNumber, size * sizeof(NodeHead*)));
        if (!grown) ErrExit("Insufficient memory: called from '%s'\n", "tree alloc");
        memset(grown + index->size, 0, (size - index->size) * sizeof(NodeHead*));
        index->byNumber = grown;
        index->size = static_cast<uint32_t>(size);
    }
    index->byNumber[nodeNumber] = node;
}

void _shiftMemoryTable(TreeHeader* tree, NodeTable* table, uint32_t from, uint32_t to) {
    uint32_t* numbers = _tableNumbers(tree, table);
    memmove(table->nodes + to, table->nodes + from, (table->count - from) * sizeof(NodeHead*));
    memmove(numbers + to, numbers + from, (table->count - from) * sizeof(uint32_t));
    if (to > from) {
        table->count++;
    } else {
        table->count--;
    }
}

static void Unlink(NodeTable* table, NodeHead* node) {
    if (node->olderNode) {
        node->olderNode->newerNode = node->newerNode;
    } else {
        table->oldestNode = node->newerNode;
    }
    if (node->newerNode) {
        node->newerNode->olderNode = node->olderNode;
    } else {
        table->newestNode = node->olderNode;
    }
}

static void AppendNewest(NodeTable* table, NodeHead* node) {
    node->newerNode = nullptr;
    node->olderNode = table->newestNode;
    if (table->newestNode) {
        table->newestNode->newerNode = node;
    } else {
        table->oldestNode = node;
    }
    table->newestNode = node;
}

// Takes the least recently used node out of the list, writes it back and
// returns its buffer; *placeOut is its element in the array (still there).
static NodeHead* Evict(TreeHeader* tree, NodeTable* table, uint32_t* placeOut) {
    NodeHead* victim = table->oldestNode;
    Unlink(table, victim);
    *placeOut = TablePlace(_tableNumbers(tree, table), table, victim->nodeNumber);
    _flushNode(tree, table, victim);
    _indexNode(tree, table, victim->nodeNumber, nullptr);
    return victim;
}

// The miss path of _nodeAddr: place is where nodeNumber belongs in the array.
// Kept out of line: its registers would weigh on every hit of _nodeAddr.
[[gnu::noinline]] static NodeHead* PageIn(TreeHeader* tree, NodeTable* table, uint32_t nodeNumber, uint32_t place) {
    NodeHead** nodes = table->nodes;
    uint32_t* numbers = _tableNumbers(tree, table);
    NodeHead* buffer;
    if (table->count < table->capacity) {
        // Only reachable before the cache has filled (a loaded tree whose
        // node was not cached when saved): take a fresh buffer.
        buffer = static_cast<NodeHead*>(_treeAlloc(tree, table->nodeSize));
        _shiftMemoryTable(tree, table, place, place + 1);
        nodes[place] = buffer;
        numbers[place] = nodeNumber;
    } else {
        uint32_t victimPlace;
        buffer = Evict(tree, table, &victimPlace);
        // One block move closes the victim's element and opens the new one.
        uint32_t target = place > victimPlace ? place - 1 : place;
        if (target < victimPlace) {
            memmove(nodes + target + 1, nodes + target, (victimPlace - target) * sizeof(NodeHead*));
            memmove(numbers + target + 1, numbers + target, (victimPlace - target) * sizeof(uint32_t));
        } else if (target > victimPlace) {
            memmove(nodes + victimPlace, nodes + victimPlace + 1, (target - victimPlace) * sizeof(NodeHead*));
            memmove(numbers + victimPlace, numbers + victimPlace + 1, (target - victimPlace) * sizeof(uint32_t));
        }
        nodes[target] = buffer;
        numbers[target] = nodeNumber;
    }
    _fetchNode(tree, table, nodeNumber, buffer);
    buffer->nodeNumber = nodeNumber;  // keeps the array sorted even for a page never written
    AppendNewest(table, buffer);
    _indexNode(tree, table, nodeNumber, buffer);
    return buffer;
}

// Runs for every key comparison: hits are found through the node index
// without a search; only a miss searches the sorted array or pages.
NodeHead* _nodeAddr(TreeHeader* tree, NodeTable* table, uint32_t nodeNumber) {
    NodeHead* newest = table->newestNode;
    if (newest && newest->nodeNumber == nodeNumber) return newest;
    const NodeIndex* index = _tableIndex(tree, table);
    NodeHead* node = nodeNumber < index->size ? index->byNumber[nodeNumber] : nullptr;
    uint32_t place = 0;
    if (!node) {
        // Not indexed: cached under a number never handed out, or a miss.
        uint32_t* numbers = _tableNumbers(tree, table);
        place = TablePlace(numbers, table, nodeNumber);
        if (place < table->count && numbers[place] == nodeNumber) node = table->nodes[place];
    }
    if (node) {
        // Not the newest (checked above), so it has a newer neighbour.
        node->newerNode->olderNode = node->olderNode;
        if (node->olderNode) {
            node->olderNode->newerNode = node->newerNode;
        } else {
            table->oldestNode = node->newerNode;
        }
        node->olderNode = newest;
        node->newerNode = nullptr;
        newest->newerNode = node;
        table->newestNode = node;
        return node;
    }
    return PageIn(tree, table, nodeNumber, place);
}

NodeHead* _getNewNode(TreeHeader* tree, NodeTable* table) {
    NodeHead* node;
    if (table->count == table->capacity) {
        uint32_t victimPlace;
        node = Evict(tree, table, &victimPlace);
        _shiftMemoryTable(tree, table, victimPlace + 1, victimPlace);
        memset(node, 0, table->nodeSize);
    } else {
        node = static_cast<NodeHead*>(_treeAlloc(tree, table->nodeSize));
        // The default allocator's blocks are zero-filled already.
        if (tree->allocFn != GetTreeMem) memset(node, 0, table->nodeSize);
    }
    uint32_t* counter = table->nextNodePtr;
    if (*counter == 0) ErrExit("B-tree page file '%s' is full\n", _pageFileName(tree, table));
    node->nodeNumber = (*counter)++;  // numbers only grow, so appending keeps the array sorted
    AppendNewest(table, node);
    _indexNode(tree, table, node->nodeNumber, node);
    _tableNumbers(tree, table)[table->count] = node->nodeNumber;
    table->nodes[table->count++] = node;
    return node;
}

TreeNode* _getNewTreeNode(TreeHeader* tree) {
    auto* node = reinterpret_cast<TreeNode*>(_getNewNode(tree, &tree->treeNodes));
    node->capacity = tree->order;
    return node;
}

KeyNode* _getNewKeyNode(TreeHeader* tree) {
    auto* node = reinterpret_cast<KeyNode*>(_getNewNode(tree, &tree->keyNodes));
    uint32_t number = node->head.nodeNumber;
    for (uint32_t i = 0; i < tree->keysPerNode; i++) {
        KeySlot* slot = _slotAt(tree, node, i);
        slot->slotLink[0] = number;
        slot->slotLink[1] = i + 1;
    }
    KeySlot* last = _slotAt(tree, node, tree->keysPerNode - 1);
    last->slotLink[0] = tree->freeSlotNode;
    last->slotLink[1] = tree->freeSlotIndex;
    tree->freeSlotNode = number;
    tree->freeSlotIndex = 0;
    return node;
}

