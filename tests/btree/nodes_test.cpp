// Page files: 64-bit page offsets, exclusive creation, nothing left behind,
// and fatal page-file failures.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <vector>

#include "tests/btree/treefixture.h"

namespace {

size_t OpenDescriptors() { return Entries("/proc/self/fd").size(); }

using NodeCacheTest = TreeTest;

TEST_F(NodeCacheTest, PageOffsetsBeyondTwoGibibytes) {
    TreeHeader* tree = TreePlant(0, 512, -2, nullptr, 128, 8, 0, -2, nullptr, nullptr, nullptr, nullptr);
    NodeTable* table = &tree->treeNodes;
    const uint32_t far = 400000;  // 400000 x 6192 bytes is past 2^31
    std::vector<char> image(table->nodeSize, 'x'), back(table->nodeSize, 'y');
    _writePage(tree, table, far, image.data());
    struct stat st;
    ASSERT_EQ(fstat(table->fd, &st), 0);
    EXPECT_EQ(uint64_t(st.st_size), uint64_t{far + 1} * table->nodeSize);
    _fetchNode(tree, table, far, back.data());
    EXPECT_EQ(back, image);
    _fetchNode(tree, table, far + 10, back.data());  // beyond the end of the file
    EXPECT_EQ(back, std::vector<char>(table->nodeSize, 0));
    _fetchNode(tree, table, far - 1, back.data());   // a hole
    EXPECT_EQ(back, std::vector<char>(table->nodeSize, 0));
    TreeFree(tree);
}

// Page files go where tempnam puts temporary files: TMPDIR first, so that an
// administrator can keep large scans' pages off a RAM-backed /tmp. Their
// names are removed as soon as they are open, so only /proc/self/fd still
// shows where they live; freeing the tree closes them.
TEST_F(NodeCacheTest, PageFilesGoToTmpdirAndLeaveNothingBehind) {
    ScopedTempDir scratch;
    ScopedEnv tmpdir("TMPDIR", scratch.path.c_str());
    size_t descriptors = OpenDescriptors();
    // Two nodes of each kind in memory: most of the tree lives in its pages.
    TreeHeader* tree = PlantKeys4(4);
    EXPECT_EQ(OpenDescriptors(), descriptors + 2);
    for (uint32_t k = 0; k < 500; k++) Add(tree, k * 7919 % 500);
    const std::pair<int, std::string> files[] = {{tree->keyNodes.fd, "/kpage"}, {tree->treeNodes.fd, "/tpage"}};
    for (const auto& [fd, kind] : files) {
        char target[4096] = {};
        EXPECT_GT(readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof target - 1), 0);
        EXPECT_EQ(std::string(target).rfind(scratch.path + kind, 0), 0u) << target;
        struct stat st;
        ASSERT_EQ(fstat(fd, &st), 0);
        EXPECT_GT(st.st_size, 0);  // pages went out to it
    }
    EXPECT_EQ(Entries(scratch.path), std::set<std::string>{});
    TreeFree(tree);
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

// The program's trees take the default allocator, which zero-fills; a node
// buffer reused after eviction must come out zeroed as well.
TEST_F(NodeCacheTest, NewNodesAreZeroAlsoInReusedBuffers) {
    TreeHeader* tree = PlantKeys4(4);
    for (int i = 0; i < 3; i++) {  // the third reuses an evicted node's buffer
        auto* node = reinterpret_cast<unsigned char*>(_getNewTreeNode(tree));
        std::vector<unsigned char> body(node + sizeof(NodeHead), node + tree->treeNodes.nodeSize);
        std::vector<unsigned char> zeroBody(body.size(), 0);
        std::memcpy(zeroBody.data() + offsetof(TreeNode, capacity) - sizeof(NodeHead), &tree->order, 4);
        EXPECT_EQ(body, zeroBody) << "node " << i;
    }
    TreeFree(tree);
}

using NodeCacheDeathTest = NodeCacheTest;

TEST_F(NodeCacheDeathTest, PageFileIsCreatedExclusivelyWithoutFollowingLinks) {
    std::string link = dir / "link", target = dir / "target";
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
    EXPECT_EXIT(PlantKeys4(4, link.c_str()), testing::ExitedWithCode(1),
                "Unable to create B-tree page file '" + link + "'\n  \\(p17\\) File exists");
    EXPECT_FALSE(PathExists(target));
    unlink(link.c_str());
    // The key page file was made first; the failed run must not leave it behind (the fixture checks).
    EXPECT_EXIT(PlantKeys4(4, (dir / "no/such/dir").c_str()), testing::ExitedWithCode(1),
                "Unable to create B-tree page file '.*/no/such/dir'\n  \\(p2\\) ");
}

TEST_F(NodeCacheDeathTest, PageFileThatCannotBeWrittenOrReadIsFatal) {
    auto fillPastLimit = [] {
        // The page file may not grow past 64 KiB: eviction fails to write.
        signal(SIGXFSZ, SIG_IGN);
        rlimit limit{65536, 65536};
        setrlimit(RLIMIT_FSIZE, &limit);
        TreeHeader* tree = PlantKeys4(4);
        for (uint32_t k = 0; k < 100000; k++) Add(tree, k);
    };
    EXPECT_EXIT(fillPastLimit(), testing::ExitedWithCode(1),
                "Unable to write B-tree page file '.*/tpage.*'\n  \\(p27\\) File too large");
    auto readWriteOnly = [] {
        TreeHeader* tree = PlantKeys4(4);
        for (uint32_t k = 0; k < 100; k++) Add(tree, k);
        // A descriptor that can be written but not read under the key nodes.
        dup2(open("/dev/null", O_WRONLY), tree->keyNodes.fd);
        for (uint32_t k = 0; k < 100; k++) Find(tree, k);
    };
    EXPECT_EXIT(readWriteOnly(), testing::ExitedWithCode(1),
                "Unable to read B-tree page file '.*/kpage.*'\n  \\(p9\\) Bad file descriptor");
}

}  // namespace
