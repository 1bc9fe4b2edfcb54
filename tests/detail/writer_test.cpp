// The writer replays scans described for the test builder, which lays the
// same scans down byte by byte on its own: both files must be identical.
#include <gtest/gtest.h>

#include <cstring>
#include <utility>

#include "config/roots.h"
#include "config/templates.h"
#include "reader/dtlread.h"
#include "detail/writer.h"
#include "detail/record.h"
#include "support/byteorder.h"
#include "tests/support/dtlbuilder.h"
#include "tests/support/testutil.h"

namespace {

// Sets up the run-wide state the writer reads, around one detail file.
struct WriterRun {
    ScopedTempDir dir;
    std::string path = dir / "out.dtl";
    AuditRoot* root = NewRoot();
    FileRecord* record = static_cast<FileRecord*>(calloc(1, sizeof(FileRecord)));

    explicit WriterRun(const FakeScan& scan) {
        WhichEnd();
        DtlWriterOpen(fopen(path.c_str(), "w+b"), path.c_str(), scan.runTime,
                      scan.tag.empty() ? nullptr : scan.tag.c_str(), "IA32");
        HardLinkTableOpen();
        hlinkFilePos = 0;
        dirPathStackPtr = -1;
        snprintf(srvrName, sizeof srvrName, "%s", scan.nodeName.c_str());
        root->path = const_cast<char*>(scan.rootPath.c_str());
        root->mountSource = scan.mountSource.empty() ? nullptr : const_cast<char*>(scan.mountSource.c_str());
        // Lists hold their newest template first.
        for (auto t = scan.includeDirs.rbegin(); t != scan.includeDirs.rend(); ++t) AddIncludeDir(root, t->c_str());
        root->availableSpace = scan.availableSpace;
        root->volumeCapacity = scan.volumeCapacity;
        rootList = rootLast = root;
        record->dirPath = NewStringObject("init", 1024);
        record->linkTarget = NewStringObject("init", 1024);
    }

    ~WriterRun() {
        fclose(dtlFile);
        fclose(hlinkFile);
        HardLinkTableFree();
        dtlFile = hlinkFile = nullptr;
        rootList = rootLast = nullptr;
        FreeStringObject(record->dirPath);
        FreeStringObject(record->linkTarget);
        free(record);
        // What lives for a whole run in the program lives for one test here.
        for (TemplateRec* t = root->includeDirs; t;) free(std::exchange(t, t->next));
        free(root);
        free(std::exchange(logHdr, nullptr));
        free(std::exchange(tagStr, nullptr));
    }

    void Event(uint32_t kind, const std::string& dirPath) {
        record->recordKind = kind;
        record->entryFlags = 0;
        record->root = kind == RECORD_DIR_END ? nullptr : root;
        StringObjectSet(record->dirPath, dirPath.c_str());
        memset(&record->statData, 0, sizeof record->statData + sizeof record->name);
    }

    void End(const FakeDir& d) {
        Event(RECORD_DIR_END, d.path);
        for (const FakeEntry& e : d.entries) {
            if (S_ISDIR(e.mode)) {
                DirEndSubdirCount(record->statData)++;
            } else {
                DirEndFileCount(record->statData)++;
                record->statData.st_size += static_cast<off_t>(e.size);
            }
        }
        LogDetailData(record);
    }

    void Entry(const std::string& dirPath, const FakeEntry& e) {
        Event(RECORD_ENTRY, dirPath);
        struct stat& st = record->statData;
        st.st_uid = e.uid;
        st.st_gid = e.gid;
        st.st_ino = e.inode;
        st.st_mode = e.mode;
        st.st_ctim.tv_sec = e.ctime;
        st.st_atim.tv_sec = e.atime;
        st.st_mtim.tv_sec = e.mtime;
        st.st_size = static_cast<off_t>(e.size);
        st.st_nlink = e.links;
        snprintf(record->name, sizeof record->name, "%s", e.name.c_str());
        if (e.links >= 2) record->entryFlags |= FLAG_MULTI_LINK;
        if (S_ISLNK(e.mode)) {
            record->entryFlags |= FLAG_SYMLINK;
            StringObjectSet(record->linkTarget, e.target.c_str());
        }
        LogDetailData(record);
    }

    // Replays the scan's directories in walk order, keeping the walk's counters.
    std::string Replay(const FakeScan& scan) {
        WriteLogHeaders();
        root->dtlStartPos = DtlPosition();
        std::vector<const FakeDir*> open;
        auto within = [](const std::string& path, const FakeDir* dir) {
            return dir->path == "/" || path.rfind(dir->path + "/", 0) == 0;
        };
        for (const FakeDir& d : scan.dirs) {
            for (; !open.empty() && !within(d.path, open.back()); open.pop_back()) End(*open.back());
            Event(RECORD_DIR_START, d.path);
            LogDetailData(record);
            open.push_back(&d);
            if (d.entries.empty()) root->emptyDirCount++;
            for (const FakeEntry& e : d.entries) {
                if (!S_ISDIR(e.mode)) root->fileCount++;
                Entry(d.path, e);
            }
        }
        for (; !open.empty(); open.pop_back()) End(*open.back());
        root->dirCount = static_cast<uint32_t>(scan.dirs.size()) + scan.extraDirs;
        LogRootTotals(root);
        fflush(dtlFile);
        return ReadFile(path);
    }
};

}  // namespace

// Each scan is written as the builder lays it down, byte for byte, and the
// reader finds the file sound. Where the hard-link table keeps an inode
// changes no byte: the table's own test checks its answers against a map on
// both sides of its spill into hlinkTree.
TEST(Writer, ProducesExactlyTheBuilderBytes) {
    FakeScan sample = SampleScan();
    FakeScan bare;  // no templates, no hard links; header strings sign-extend high bytes
    bare.mountSource = "server:/exp\xf6rt";
    bare.tag = " lead";  // a tag that begins with a blank marks an untagged run
    bare.dirs = {{"/", {{.name = "only", .size = 3, .inode = 5}}}};
    FakeScan wide;  // a directory whose header record leaves the buffer long before it is completed
    wide.dirs = {{"/", {}}, {"/d", {}}};
    for (uint32_t i = 0; i < 40000; i++)
        wide.dirs[0].entries.push_back({.name = std::string(90, 'n') + std::to_string(i), .size = i, .inode = 100 + i});
    wide.dirs[0].entries.push_back({.name = "d", .mode = S_IFDIR | 0755, .size = 4096, .links = 2, .inode = 99});
    for (uint32_t i = 0; i < 3; i++)
        wide.dirs[1].entries.push_back({.name = std::string(1, 'h').append(std::to_string(i)), .size = 5000000000ull, .links = 3, .inode = 7});

    for (const FakeScan* scan : {&sample, &bare, &wide}) {
        SCOPED_TRACE(testing::Message() << scan->dirs[0].entries.size() << " entries");
        WriterRun run(*scan);
        const std::string written = run.Replay(*scan), expected = BuildDetail(*scan).bytes;
        EXPECT_TRUE(written == expected) << FirstDifference(written, expected);
        DtlFault fault;
        EXPECT_TRUE(DtlCheckFile(run.path.c_str(), &fault)) << fault.offset << ": " << fault.message;
    }
}
