// Creation and release of a tree, and its page files.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "btree/btree.h"
#include "log/log.h"
#include "support/helpers.h"
#include "support/memory.h"

// A fresh temporary name that someone else created first is tried again with
// another name; a hundred collisions in a row mean something is wrong.
constexpr int MAX_NAME_ATTEMPTS = 100;

void* _treeAlloc(TreeHeader* tree, uint32_t size) {
    void* block = tree->allocFn(size);
    if (!block) ErrExit("Insufficient memory: called from '%s'\n", "tree alloc");
    return block;
}

static char* CopyName(TreeHeader* tree, const char* name) {
    size_t length = strlen(name) + 1;
    if (length > UINT32_MAX) ErrExit("B-tree page file name too long: '%s'\n", name);
    auto* copy = static_cast<char*>(_treeAlloc(tree, static_cast<uint32_t>(length)));
    memcpy(copy, name, length);
    return copy;
}

char* _btreeTemp(TreeHeader* tree, char letter, char** out) {
    char base[10];
    snprintf(base, sizeof base, "%cpage.tmp", letter);
    char* name = DefinedTempName(base);
    if (!name) ErrExit("Insufficient memory: called from '%s'\n", "tree alloc");
    *out = CopyName(tree, name);
    free(name);
    return *out;
}

// Creates the page file exclusively, never through a link, and removes its
// name at once: nobody can plant a file under the name first, and nothing is
// left behind however the run ends. The tree keeps the name for messages.
static int32_t CreatePageFile(TreeHeader* tree, const char* given, char letter, char** nameOut) {
    for (int attempt = 1;; attempt++) {
        if (given) {
            *nameOut = CopyName(tree, given);
        } else {
            _btreeTemp(tree, letter, nameOut);
        }
        int fd = open(*nameOut, O_RDWR | O_CREAT | O_EXCL | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0700);
        if (fd >= 0) {
            if (unlink(*nameOut) != 0) PosixErrExit(0, "Unable to remove B-tree page file '%s'\n", *nameOut);
            return fd;
        }
        if (given || errno != EEXIST || attempt == MAX_NAME_ATTEMPTS) {
            PosixErrExit(0, "Unable to create B-tree page file '%s'\n", *nameOut);
        }
        tree->freeFn(*nameOut);
        *nameOut = nullptr;
    }
}

void _rootSetup(TreeHeader* tree, const char* treeFileName, const char* keyFileName, TreeAllocFn allocFn,
                TreeFreeFn freeFn, TreeCompareFn compareFn) {
    tree->allocFn = allocFn ? allocFn : GetTreeMem;
    tree->freeFn = freeFn ? freeFn : free;
    tree->compareFn = compareFn ? compareFn : _keyCmp;
    tree->treeFileName = nullptr;
    tree->keyFileName = nullptr;
    if (tree->flags & TREE_SHARED_FILE) {
        tree->treeNodes.nextNodePtr = tree->keyNodes.nextNodePtr = &tree->sharedNextNode;
        tree->treeNodes.fdPtr = tree->keyNodes.fdPtr = &tree->sharedFd;
        if (tree->sharedNextNode == 0) tree->sharedNextNode = 1;
    } else {
        for (NodeTable* table : {&tree->treeNodes, &tree->keyNodes}) {
            table->nextNodePtr = &table->nextNode;
            table->fdPtr = &table->fd;
            if (table->nextNode == 0) table->nextNode = 1;  // a loaded tree keeps its counters
        }
        tree->keyNodes.fd = CreatePageFile(tree, keyFileName, 'k', &tree->keyFileName);
    }
    *tree->treeNodes.fdPtr = CreatePageFile(tree, treeFileName, 't', &tree->treeFileName);
}

// Nodes to cache for a memory argument: 0 = the default budget, negative =
// a node count, positive = a byte budget (signed 32-bit division).
static uint64_t CacheNodes(int32_t memory, int32_t defaultBudget, uint32_t nodeSize) {
    if (memory == 0) memory = defaultBudget;
    int64_t nodes = memory < 0 ? -static_cast<int64_t>(memory) : memory / static_cast<int32_t>(nodeSize);
    return nodes < MIN_CACHED_NODES ? MIN_CACHED_NODES : static_cast<uint64_t>(nodes);
}

TreeHeader* TreePlant(uint32_t flags, uint32_t order, int32_t treeMemory, const char* treeFileName,
                      uint32_t keysPerNode, uint32_t keyLength, uint32_t dataLength, int32_t keyMemory,
                      const char* keyFileName, TreeAllocFn allocFn, TreeFreeFn freeFn, TreeCompareFn compareFn) {
    uint64_t slotSize = uint64_t{keyLength} + dataLength + sizeof(KeySlot);
    uint64_t treeNodeSize = TreeNodeSize(order);
    uint64_t keyNodeSize = KeyNodeSize(keysPerNode, slotSize);
    if (order < 2 || keysPerNode < 1 || treeNodeSize > INT32_MAX || keyNodeSize > INT32_MAX) {
        ErrExit("Invalid B-tree layout: order %u, %u keys per key node, key length %u, data length %u\n", order,
                keysPerNode, keyLength, dataLength);
    }
    TreeHeader header;
    memset(&header, 0, sizeof header);
    header.flags = flags;
    header.order = order;
    header.treeNodes.nodeSize = static_cast<uint32_t>(treeNodeSize);
    header.keysPerNode = keysPerNode;
    header.keyLength = keyLength;
    header.dataLength = dataLength;
    header.slotSize = static_cast<uint32_t>(slotSize);
    header.keyNodes.nodeSize = static_cast<uint32_t>(keyNodeSize);
    uint64_t treeCapacity = CacheNodes(treeMemory, TREE_DEFAULT_TREE_MEMORY, header.treeNodes.nodeSize);
    uint64_t keyCapacity = CacheNodes(keyMemory, TREE_DEFAULT_KEY_MEMORY, header.keyNodes.nodeSize);
    uint64_t blockSize = TreeBlockSize(treeCapacity, keyCapacity);
    if (blockSize > UINT32_MAX) {
        ErrExit("B-tree caches too large: %llu tree nodes and %llu key nodes\n",
                static_cast<unsigned long long>(treeCapacity), static_cast<unsigned long long>(keyCapacity));
    }
    header.treeNodes.capacity = static_cast<uint32_t>(treeCapacity);
    header.keyNodes.capacity = static_cast<uint32_t>(keyCapacity);

    header.allocFn = allocFn ? allocFn : GetTreeMem;
    auto* tree = static_cast<TreeHeader*>(_treeAlloc(&header, static_cast<uint32_t>(blockSize)));
    memset(tree, 0, blockSize);
    memcpy(tree, &header, sizeof header);
    tree->treeNodes.nodes = reinterpret_cast<NodeHead**>(tree + 1);
    tree->keyNodes.nodes = tree->treeNodes.nodes + treeCapacity;
    _rootSetup(tree, treeFileName, keyFileName, allocFn, freeFn, compareFn);
    return tree;
}

void TreeFree(TreeHeader* tree) {
    if (!tree) return;
    for (NodeTable* table : {&tree->treeNodes, &tree->keyNodes}) {
        for (uint32_t i = 0; i < table->count; i++) tree->freeFn(table->nodes[i]);
        free(_tableIndex(tree, table)->byNumber);
    }
    // The names were removed when the files were created; closing is enough.
    if (tree->keyFileName) {
        close(tree->keyNodes.fd);
        tree->freeFn(tree->keyFileName);
    }
    close(tree->treeNodes.fd);
    tree->freeFn(tree->treeFileName);
    tree->freeFn(tree);
}
