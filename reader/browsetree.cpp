// The browser's model: the directories of a scan with what lies below each,
// read in one pass, and a directory's own entries read again from the file
// when it is opened.
#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "reader/browse.h"

namespace {

// Plain bytes of the file read at a time when a directory is opened: most
// directories' records fit in one read.
constexpr size_t LIST_CHUNK = 256 << 10;

// A window on the file's plain bytes, refilled through the seeker.
struct Window {
    DtlSeeker* seeker;
    std::vector<uint8_t> buf;
    uint64_t start = 0;  // file offset of buf[0]
    size_t len = 0;
    bool eof = false;
};

// Makes n bytes at pos available; returns a pointer to them, or nullptr when
// the file ends first or a read fails (*error then says which).
const uint8_t* Fetch(Window* w, uint64_t pos, size_t n, std::string* error) {
    if (pos >= w->start && pos + n <= w->start + w->len) return w->buf.data() + (pos - w->start);
    size_t keep = 0;
    if (pos >= w->start && pos < w->start + w->len) {
        keep = static_cast<size_t>(w->start + w->len - pos);
        memmove(w->buf.data(), w->buf.data() + (pos - w->start), keep);
    }
    w->start = pos;
    w->len = keep;
    if (w->buf.size() < n) w->buf.resize(n);
    while (w->len < n) {
        ssize_t got = DtlSeekRead(w->seeker, pos + w->len, w->buf.data() + w->len, w->buf.size() - w->len, error);
        if (got < 0) return nullptr;
        if (got == 0) {
            *error = "the detail file ends inside a record";
            return nullptr;
        }
        w->len += static_cast<size_t>(got);
    }
    return w->buf.data();
}

// What the pass counted in each directory's own entries becomes what lies
// below each: children follow their parents, so one backward sweep adds
// them up. Then every directory's subdirectories are laid out in one run.
void Finish(BrowseTree* t) {
    std::vector<BrowseDir>& dirs = t->dirs;
    for (size_t i = dirs.size(); i-- > 1;) {
        BrowseDir& parent = dirs[dirs[i].parent];
        parent.bytes += dirs[i].bytes;
        parent.apparent += dirs[i].apparent;
        parent.entries += dirs[i].entries;
        parent.childCount++;
    }
    uint32_t next = 0;
    for (BrowseDir& d : dirs) {
        d.firstChild = next;
        next += d.childCount;
        d.childCount = 0;
    }
    t->children.resize(next);
    for (size_t i = 1; i < dirs.size(); i++) {
        BrowseDir& parent = dirs[dirs[i].parent];
        t->children[parent.firstChild + parent.childCount++] = static_cast<uint32_t>(i);
    }
}

}  // namespace

bool BrowseOpen(const char* path, bool partial, BrowseTree* t) {
    t->path = path;
    DtlReader r;
    DtlCheckpoints checkpoints;
    bool opened = DtlOpen(&r, path, {.acceptUnfinished = partial, .nameLinks = false, .checkpoints = &checkpoints});
    t->opened = r.fd >= 0;
    t->compressed = r.wasCompressed;
    t->unfinished = r.unfinished;
    if (!opened) {
        t->fault = r.fault;
        DtlClose(&r);
        return false;
    }
    t->log = r.log;
    t->strings = r.strings;
    std::vector<uint32_t> open;  // rows of the directories on the walk's path
    t->dirs.reserve(std::min<uint32_t>(r.root.dirCount, 1u << 20));
    DtlStep step;
    // Runs once per record: no allocation but for a directory.
    while ((step = DtlNext(&r)) == DTL_STEP_RECORD || step == DTL_STEP_LINK) {
        if (step != DTL_STEP_RECORD) continue;
        const DtlRecord& rec = r.rec;
        if (rec.kind == DTL_REC_DIR_HEADER) {
            uint32_t depth = rec.depth - 1;  // the reader counts the root as 1
            open.resize(depth);
            BrowseDir& d = t->dirs.emplace_back();
            if (depth) d.name = rec.name.substr(rec.name.rfind('/') + 1);
            d.parent = depth ? open[depth - 1] : 0;
            d.pos = rec.pos;
            open.push_back(static_cast<uint32_t>(t->dirs.size() - 1));
        } else if (rec.kind == DTL_REC_ENTRY) {
            BrowseDir& d = t->dirs[open[rec.depth - 1]];
            d.entries++;
            d.apparent += rec.fixed.size;
            if (rec.counted)
                d.bytes += rec.fixed.size;
            else
                t->uncounted.push_back(rec.pos);
        }
    }
    t->complete = step == DTL_STEP_DONE && !r.unfinished;
    if (step == DTL_STEP_FAULT) {
        t->fault = r.fault;
        t->readEnd = r.fault.offset;
    }
    DtlClose(&r);
    if (step == DTL_STEP_FAULT && !partial) return false;
    Finish(t);
    std::string error;
    if (!DtlSeekOpen(&t->seeker, path, t->compressed, std::move(checkpoints), &error)) {
        t->fault = {0, error};
        return false;
    }
    return true;
}

bool BrowseList(BrowseTree* t, uint32_t dir, std::vector<BrowseEntry>* entries, std::string* error) {
    entries->clear();
    const BrowseDir& d = t->dirs[dir];
    Window w{&t->seeker, std::vector<uint8_t>(LIST_CHUNK)};
    DtlRecordFixed fx;
    const uint8_t* p = Fetch(&w, d.pos, sizeof fx, error);
    if (!p) return false;
    DtlDecodeFixed(p, &fx);
    if (fx.entryFlags != DTL_DIR_HEADER) {
        *error = "the detail file changed since it was read: no directory header record where there was one";
        return false;
    }
    uint64_t pos = d.pos + sizeof fx + fx.nameLength;
    uint32_t child = 0;
    auto uncounted = std::lower_bound(t->uncounted.begin(), t->uncounted.end(), pos);
    // The directory's own entry records follow its header up to the next
    // header record or the end marker.
    while (pos < t->readEnd) {
        if (!(p = Fetch(&w, pos, sizeof fx, error))) return false;
        DtlDecodeFixed(p, &fx);
        if (fx.entryFlags == DTL_END_MARKER || !(fx.entryFlags & DTL_ENTRY)) break;
        size_t length = sizeof fx + fx.nameLength + fx.linkTargetLength;
        if (pos + length > t->readEnd) break;  // the record the reading stopped in
        if (fx.nameLength == 0 || !(p = Fetch(&w, pos, length, error))) {
            if (fx.nameLength == 0) *error = "the detail file changed since it was read: a record without a name";
            return false;
        }
        BrowseEntry& e = entries->emplace_back();
        e.fixed = fx;
        e.pos = pos;
        e.name.assign(reinterpret_cast<const char*>(p + sizeof fx), fx.nameLength - 1);
        if (fx.linkTargetLength)
            e.target.assign(reinterpret_cast<const char*>(p + sizeof fx + fx.nameLength), fx.linkTargetLength - 1);
        while (uncounted != t->uncounted.end() && *uncounted < pos) ++uncounted;
        e.counted = uncounted == t->uncounted.end() || *uncounted != pos;
        e.apparent = fx.size;
        e.bytes = e.counted ? fx.size : 0;
        // Subdirectories the walk entered come in the order of their entries.
        if (S_ISDIR(fx.mode) && child < d.childCount) {
            uint32_t row = t->children[d.firstChild + child];
            if (t->dirs[row].name == e.name) {
                e.dir = row;
                e.bytes = t->dirs[row].bytes;
                e.apparent = t->dirs[row].apparent;
                e.entries = t->dirs[row].entries;
                child++;
            }
        }
        pos += length;
    }
    return true;
}

void BrowseClose(BrowseTree* t) { DtlSeekClose(&t->seeker); }

void SortEntries(std::vector<BrowseEntry>* entries, BrowseSort key, bool reverse, bool apparent) {
    auto before = [&](const BrowseEntry& a, const BrowseEntry& b) {
        uint64_t x = 0, y = 0;
        switch (key) {
            case SORT_SIZE:
                x = apparent ? a.apparent : a.bytes;
                y = apparent ? b.apparent : b.bytes;
                break;
            case SORT_COUNT:
                x = a.entries;
                y = b.entries;
                break;
            case SORT_MTIME:
                x = a.fixed.mtime;
                y = b.fixed.mtime;
                break;
            case SORT_NAME: break;
        }
        // Largest first, names from A to Z; reversing turns both round.
        if (x != y) return (x > y) != reverse;
        int order = a.name.compare(b.name);
        return key == SORT_NAME && reverse ? order > 0 : order < 0;
    };
    std::stable_sort(entries->begin(), entries->end(), before);
}

std::string BrowsePath(const BrowseTree& t, uint32_t dir) {
    if (dir == 0) return "/";
    std::vector<uint32_t> chain;
    for (uint32_t i = dir; i != 0; i = t.dirs[i].parent) chain.push_back(i);
    std::string path;
    for (size_t i = chain.size(); i-- > 0;) path.append("/").append(t.dirs[chain[i]].name);
    return path;
}

std::string ModeText(uint32_t mode) {
    std::string text(10, '-');
    switch (mode & S_IFMT) {
        case S_IFDIR: text[0] = 'd'; break;
        case S_IFLNK: text[0] = 'l'; break;
        case S_IFCHR: text[0] = 'c'; break;
        case S_IFBLK: text[0] = 'b'; break;
        case S_IFIFO: text[0] = 'p'; break;
        case S_IFSOCK: text[0] = 's'; break;
    }
    const char rwx[] = "rwxrwxrwx";
    for (int i = 0; i < 9; i++)
        if (mode & (0400 >> i)) text[1 + i] = rwx[i];
    // Set-id and sticky bits take the place of the execute bits: lower case
    // when that bit is set too.
    auto special = [&](uint32_t bit, int at, char letter) {
        if (mode & bit) text[at] = text[at] == 'x' ? letter : static_cast<char>(letter - 'a' + 'A');
    };
    special(S_ISUID, 3, 's');
    special(S_ISGID, 6, 's');
    special(S_ISVTX, 9, 't');
    return text;
}
