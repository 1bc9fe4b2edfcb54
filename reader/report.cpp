#include "reader/report.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <unordered_map>

#include "reader/textout.h"

namespace {

// Name extensions, 1 to 16 bytes, held in the slots of an open-addressed
// table: no allocation per extension, two slots to a cache line. The bytes,
// zero-padded, are the key; an extension holds no zero byte, so its length
// is where the zeros start and an empty slot is all zero. Files without an
// extension are counted apart.
struct ExtensionSlot {
    uint64_t key[2];
    uint64_t files, bytes;
};
static_assert(sizeof(ExtensionSlot) == 32);

// A regular file's extension waiting to be counted.
struct PendingExtension {
    uint64_t key[2];
    uint64_t bytes;
};

constexpr size_t EXTENSION_BATCH = 32;

struct ExtensionTable {
    std::vector<ExtensionSlot> slots = std::vector<ExtensionSlot>(1024);
    size_t used = 0;
    Tally none;  // files without an extension
    PendingExtension pending[EXTENSION_BATCH];
    size_t pendingCount = 0;
};

size_t Home(size_t mask, const uint64_t key[2]) {
    return ((key[0] * 0x9E3779B97F4A7C15ull) ^ (key[1] * 0xC2B2AE3D27D4EB4Full)) >> 17 & mask;
}

size_t Probe(const std::vector<ExtensionSlot>& slots, size_t i, const uint64_t key[2]) {
    size_t mask = slots.size() - 1;
    while (slots[i].key[0] && (slots[i].key[0] != key[0] || slots[i].key[1] != key[1])) i = (i + 1) & mask;
    return i;
}

// Counts the waiting extensions. A tree may hold a hundred thousand of
// them, and then nearly every lookup misses the processor's caches: all the
// batch's slots are fetched before any is read, so the misses overlap.
void FlushExtensions(ExtensionTable* t) {
    while (2 * (t->used + t->pendingCount) > t->slots.size()) {
        std::vector<ExtensionSlot> bigger(2 * t->slots.size());
        for (const ExtensionSlot& old : t->slots)
            if (old.key[0]) bigger[Probe(bigger, Home(bigger.size() - 1, old.key), old.key)] = old;
        t->slots.swap(bigger);
    }
    size_t mask = t->slots.size() - 1;
    size_t home[EXTENSION_BATCH];
    for (size_t i = 0; i < t->pendingCount; i++) {
        home[i] = Home(mask, t->pending[i].key);
        __builtin_prefetch(&t->slots[home[i]]);
    }
    for (size_t i = 0; i < t->pendingCount; i++) {
        const PendingExtension& p = t->pending[i];
        ExtensionSlot& slot = t->slots[Probe(t->slots, home[i], p.key)];
        if (!slot.key[0]) {
            slot.key[0] = p.key[0];
            slot.key[1] = p.key[1];
            t->used++;
        }
        slot.files++;
        slot.bytes += p.bytes;
    }
    t->pendingCount = 0;
}

void AddExtension(ExtensionTable* t, std::string_view ext, uint64_t bytes) {
    if (ext.empty()) {
        t->none.entries++;
        t->none.files++;
        t->none.bytes += bytes;
        return;
    }
    PendingExtension& p = t->pending[t->pendingCount];
    p.key[0] = p.key[1] = 0;
    memcpy(p.key, ext.data(), ext.size());
    p.bytes = bytes;
    if (++t->pendingCount == EXTENSION_BATCH) FlushExtensions(t);
}

using IdMap = std::unordered_map<uint32_t, Tally>;

// The state of one pass: what is open and what was counted so far.
struct Gather {
    const ReportOptions& options;
    ReportScan& scan;
    int64_t runTime = 0;
    std::vector<uint32_t> open;  // rows of the directories on the walk's path, the root first
    IdMap users, groups;
    uint32_t lastUid = 0, lastGid = 0;
    Tally* lastUser = nullptr;
    Tally* lastGroup = nullptr;
    ExtensionTable extensions;
    uint64_t bytesSoFar = 0;  // what the files counted so far add up to, for fileShare
};

// The largest files are kept in a heap whose top is the smallest kept (the
// latest in walk order among equals), so that a file needs one comparison
// to be passed over.
bool SmallerFile(const FileRow& a, const FileRow& b) { return a.bytes != b.bytes ? a.bytes > b.bytes : a.pos < b.pos; }

// Keeps a file that may be among the largest or at least fileShare of the
// total. A file below fileShare of the bytes counted so far is below it of
// the final total too; those kept that the total outgrew go in Finish.
// Runs once per counted file: a comparison or two, no allocation.
void KeepFile(Gather* g, const DtlRecord& rec) {
    const ReportOptions& o = g->options;
    uint64_t bytes = rec.fixed.size;
    std::vector<FileRow>& largest = g->scan.largest;
    bool large = o.largestFiles && (largest.size() < o.largestFiles || bytes > largest.front().bytes);
    bool big = o.fileShare >= 0 && bytes > 0 && static_cast<double>(bytes) >= o.fileShare * g->bytesSoFar;
    if (!large && !big) return;
    FileRow row{DtlJoinPath(rec.dirPath, rec.name),
                bytes,
                rec.pos,
                o.dirs ? g->open[rec.depth - 1] : 0,
                rec.fixed.uid,
                rec.fixed.gid,
                rec.fixed.mtime};
    if (big) g->scan.bigFiles.push_back(row);
    if (!large) return;
    if (largest.size() == o.largestFiles) {
        std::pop_heap(largest.begin(), largest.end(), SmallerFile);
        largest.pop_back();
    }
    largest.push_back(std::move(row));
    std::push_heap(largest.begin(), largest.end(), SmallerFile);
}

void Add(Tally* t, bool file, uint64_t bytes) {
    t->entries++;
    t->files += file;
    t->bytes += bytes;
}

Tally* IdTally(IdMap* map, uint32_t id, uint32_t* lastId, Tally** last) {
    // Entries of one owner come in long runs: the last answer is asked first.
    if (*last && *lastId == id) return *last;
    *lastId = id;
    return *last = &(*map)[id];
}

int64_t Age(int64_t runTime, uint32_t time) {
    int64_t age = runTime - static_cast<int64_t>(time);
    return age < 0 ? 0 : age;  // a time after the scan started counts as new
}

size_t AgeBound(const std::vector<int64_t>& bounds, int64_t age) {
    size_t i = 0;
    while (i < bounds.size() && age >= bounds[i]) i++;
    return i;
}

void EnterDirectory(Gather* g, const DtlRecord& rec) {
    std::vector<DirRow>& dirs = g->scan.dirs;
    uint32_t depth = rec.depth - 1;  // the reader counts the root as 1
    g->open.resize(depth);
    DirRow& row = dirs.emplace_back();
    if (depth) row.name = rec.name.substr(rec.name.rfind('/') + 1);
    row.depth = depth;
    row.parent = depth ? g->open[depth - 1] : 0;
    g->open.push_back(static_cast<uint32_t>(dirs.size() - 1));
}

// Runs once per entry record: no allocation but for an owner, an extension
// or a directory seen for the first time.
void CountEntry(Gather* g, const DtlRecord& rec) {
    const DtlRecordFixed& fx = rec.fixed;
    const ReportOptions& o = g->options;
    bool dir = S_ISDIR(fx.mode);
    uint64_t bytes = rec.counted ? fx.size : 0;
    uint32_t touched = std::max(fx.mtime, fx.atime);
    if (o.dirs) {
        DirRow& row = g->scan.dirs[g->open[rec.depth - 1]];
        Add(&row.own, !dir, bytes);
        row.ownNewest = std::max(row.ownNewest, fx.mtime);
        if (!dir && Age(g->runTime, touched) >= o.coldAge) {
            row.coldFiles++;  // its own until FinishDirs adds its subdirectories'
            row.coldBytes += bytes;
        }
    }
    if (o.largestFiles || o.fileShare >= 0) {
        g->bytesSoFar += bytes;
        if (!dir && rec.counted) KeepFile(g, rec);
    }
    if (o.owners) {
        Add(IdTally(&g->users, fx.uid, &g->lastUid, &g->lastUser), !dir, bytes);
        Add(IdTally(&g->groups, fx.gid, &g->lastGid, &g->lastGroup), !dir, bytes);
    }
    if (o.ages && !dir) {
        std::vector<AgeRow>& ages = g->scan.ages;
        Add(&ages[AgeBound(o.ageBounds, Age(g->runTime, fx.mtime))].modified, true, bytes);
        Add(&ages[AgeBound(o.ageBounds, Age(g->runTime, fx.atime))].accessed, true, bytes);
    }
    if (o.types) {
        Add(&g->scan.kinds[KindOf(fx.mode)], !dir, bytes);
        if (S_ISREG(fx.mode)) {
            char buffer[16];
            AddExtension(&g->extensions, ExtensionOf(rec.name, buffer), bytes);
        }
    }
}

std::vector<OwnerRow> OwnerRows(const IdMap& map, bool users, bool names) {
    std::vector<OwnerRow> rows;
    std::vector<char> buffer(16384);
    for (const auto& [id, tally] : map) {
        OwnerRow& row = rows.emplace_back();
        row.id = id;
        row.tally = tally;
        if (!names) continue;
        if (users) {
            struct passwd pw, *found = nullptr;
            if (getpwuid_r(id, &pw, buffer.data(), buffer.size(), &found) == 0 && found) row.name = found->pw_name;
        } else {
            struct group gr, *found = nullptr;
            if (getgrgid_r(id, &gr, buffer.data(), buffer.size(), &found) == 0 && found) row.name = found->gr_name;
        }
    }
    std::sort(rows.begin(), rows.end(), [](const OwnerRow& a, const OwnerRow& b) {
        return a.tally.bytes != b.tally.bytes ? a.tally.bytes > b.tally.bytes : a.id < b.id;
    });
    return rows;
}

// What the pass counted per directory becomes what lies below each one:
// children follow their parents, so one backward sweep adds them up.
void FinishDirs(std::vector<DirRow>* dirs) {
    for (DirRow& row : *dirs) {
        row.total = row.own;
        row.newest = row.ownNewest;
    }
    for (size_t i = dirs->size(); i-- > 1;) {
        const DirRow& child = (*dirs)[i];
        DirRow& parent = (*dirs)[child.parent];
        parent.total.entries += child.total.entries;
        parent.total.files += child.total.files;
        parent.total.bytes += child.total.bytes;
        parent.coldFiles += child.coldFiles;
        parent.coldBytes += child.coldBytes;
        parent.newest = std::max(parent.newest, child.newest);
    }
}

void Finish(Gather* g) {
    ReportScan& s = g->scan;
    std::sort_heap(s.largest.begin(), s.largest.end(), SmallerFile);
    double bound = g->options.fileShare * static_cast<double>(g->bytesSoFar);
    std::erase_if(s.bigFiles, [&](const FileRow& f) { return static_cast<double>(f.bytes) < bound; });
    if (g->options.dirs) FinishDirs(&s.dirs);
    if (g->options.owners) {
        s.users = OwnerRows(g->users, true, g->options.ownerNames);
        s.groups = OwnerRows(g->groups, false, g->options.ownerNames);
    }
    // Sorted as small keys that hold everything the order needs (the bytes
    // big-endian compare as the text does), the rows made once in order.
    ExtensionTable& t = g->extensions;
    FlushExtensions(&t);
    struct Order {
        uint64_t bytes, name0, name1, files;  // name0 0: the files without an extension
    };
    std::vector<Order> order;
    order.reserve(t.used + 1);
    for (const ExtensionSlot& x : t.slots)
        if (x.key[0]) order.push_back({x.bytes, __builtin_bswap64(x.key[0]), __builtin_bswap64(x.key[1]), x.files});
    if (t.none.files) order.push_back({t.none.bytes, 0, 0, t.none.files});
    std::sort(order.begin(), order.end(), [](const Order& a, const Order& b) {
        if (a.bytes != b.bytes) return a.bytes > b.bytes;
        return a.name0 != b.name0 ? a.name0 < b.name0 : a.name1 < b.name1;
    });
    s.extensions.reserve(order.size());
    for (const Order& o : order) {
        uint64_t key[2] = {__builtin_bswap64(o.name0), __builtin_bswap64(o.name1)};
        const char* text = reinterpret_cast<const char*>(key);
        s.extensions.push_back({std::string(text, strnlen(text, 16)), {o.files, o.files, o.bytes}});
    }
}

void StartAges(const ReportOptions& o, std::vector<AgeRow>* ages) {
    for (size_t i = 0; i <= o.ageBounds.size(); i++) {
        AgeRow& row = ages->emplace_back();
        row.from = i ? o.ageBounds[i - 1] : 0;
        row.to = i < o.ageBounds.size() ? o.ageBounds[i] : -1;
        if (i == 0)
            row.label = "< " + o.ageNames[0];
        else if (i == o.ageBounds.size())
            row.label = ">= " + o.ageNames[i - 1];
        else
            row.label = o.ageNames[i - 1] + " - " + o.ageNames[i];
    }
}

}  // namespace

bool OpenScan(DtlReader* r, const char* path, bool partial, ReportScan* scan) {
    scan->path = path;
    bool opened = DtlOpen(r, path, {.acceptUnfinished = partial, .nameLinks = false});
    scan->opened = r->fd >= 0;
    scan->compressed = r->wasCompressed;
    scan->unfinished = r->unfinished;
    if (!opened) {
        scan->fault = r->fault;
        DtlClose(r);
        return false;
    }
    scan->log = r->log;
    scan->root = r->root;
    scan->strings = r->strings;
    return true;
}

bool ReadReport(const char* path, const ReportOptions& options, ReportScan* scan) {
    ReportScan& s = *scan;
    DtlReader r;
    if (!OpenScan(&r, path, options.partial, scan)) return false;
    ReportOptions o = options;
    std::string error;
    if (o.ageBounds.empty()) ParseAgeList(DEFAULT_AGE_LIST, &o.ageBounds, &o.ageNames, &error);
    if (o.ages) StartAges(o, &s.ages);
    Gather g{o, s, r.log.runTime, {}, {}, {}, 0, 0, nullptr, nullptr, {}, 0};
    // The header's count, when it has one, saves growing the table: the
    // walk enters at most that many directories. A damaged file may claim
    // any number, so a million is all it gets in advance.
    if (o.dirs) s.dirs.reserve(std::min<uint32_t>(r.root.dirCount, 1u << 20));
    // Tallying costs little beside reading: handing the records over to a
    // thread of their own (reader/dtlpipe) was measured to cost more CPU
    // than it saved time, so the figures are gathered as the records come.
    DtlStep step;
    while ((step = DtlNext(&r)) == DTL_STEP_RECORD || step == DTL_STEP_LINK) {
        if (step != DTL_STEP_RECORD) continue;
        if (r.rec.kind == DTL_REC_ENTRY)
            CountEntry(&g, r.rec);
        else if (r.rec.kind == DTL_REC_DIR_HEADER && options.dirs)
            EnterDirectory(&g, r.rec);
    }
    s.totals = r.totals;
    s.complete = step == DTL_STEP_DONE && !r.unfinished;
    if (step == DTL_STEP_FAULT) s.fault = r.fault;
    DtlClose(&r);
    if (step == DTL_STEP_FAULT && !options.partial) return false;
    Finish(&g);
    return true;
}

bool ParseAgeList(std::string_view text, std::vector<int64_t>* bounds, std::vector<std::string>* names,
                  std::string* error) {
    error->clear();
    bounds->clear();
    names->clear();
    size_t at = 0;
    while (at <= text.size()) {
        size_t comma = std::min(text.find(',', at), text.size());
        std::string_view item = text.substr(at, comma - at);
        at = comma + 1;
        uint64_t count = 0;
        auto [end, ec] = std::from_chars(item.data(), item.data() + item.size(), count);
        size_t digits = static_cast<size_t>(end - item.data());
        int64_t unit = 0;
        if (ec == std::errc() && digits + 1 == item.size()) {
            switch (item.back()) {
                case 'h': unit = 3600; break;
                case 'd': unit = 86400; break;
                case 'w': unit = 7 * 86400; break;
                case 'm': unit = 2629800; break;  // a twelfth of 365.25 days
                case 'y': unit = 31557600; break;
            }
        }
        bool valid = unit && count > 0 && count <= 1000000;
        int64_t seconds = valid ? static_cast<int64_t>(count) * unit : 0;
        if (!valid)
            *error = Cat("'", item, "' is not an age such as 30d, 6m or 2y");
        else if (!bounds->empty() && seconds <= bounds->back())
            *error = Cat("ages must grow from left to right: '", item, "' follows '", names->back(), "'");
        if (!error->empty()) {
            bounds->clear();
            names->clear();
            return false;
        }
        bounds->push_back(seconds);
        names->emplace_back(item);
    }
    return true;
}

size_t AgeRowOf(const std::vector<AgeRow>& ages, int64_t runTime, uint32_t time) {
    int64_t age = Age(runTime, time);
    size_t i = 0;
    while (i + 1 < ages.size() && age >= ages[i].to) i++;
    return i;
}

EntryKind KindOf(uint32_t mode) {
    switch (mode & S_IFMT) {
        case S_IFREG: return KIND_FILE;
        case S_IFDIR: return KIND_DIR;
        case S_IFLNK: return KIND_SYMLINK;
        default: return KIND_OTHER;
    }
}

std::string_view ExtensionOf(std::string_view name, char (&buffer)[16]) {
    size_t dot = name.rfind('.');
    if (dot == std::string_view::npos || dot == 0 || dot + 1 == name.size() || name.size() - dot - 1 > sizeof buffer)
        return {};
    size_t length = name.size() - dot - 1;
    for (size_t i = 0; i < length; i++) {
        char c = name[dot + 1 + i];
        buffer[i] = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }
    return {buffer, length};
}

std::string DirPath(const std::vector<DirRow>& dirs, size_t row) {
    if (row == 0) return "/";
    std::vector<size_t> chain;
    for (size_t i = row; i != 0; i = dirs[i].parent) chain.push_back(i);
    std::string path;
    for (size_t i = chain.size(); i-- > 0;) path.append("/").append(dirs[chain[i]].name);
    return path;
}

std::string FullPath(std::string_view rootPath, std::string_view logical) {
    std::string path(rootPath);
    if (logical == "/") return path.empty() ? "/" : path;
    if (!path.empty() && path.back() == '/') path.pop_back();
    path += logical;
    return path;
}
