#include "reader/dtlread.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdarg>
#include <cstring>

#include "reader/dtlinput.h"
#include "support/byteorder.h"

namespace {

constexpr size_t READ_BUF_SIZE = 1 << 20;  // holds the largest record (131,118 bytes) many times over

/// Where the reader is in the file.
enum Phase { PHASE_RECORDS, PHASE_LINKS, PHASE_TRAILER, PHASE_DONE };

/// One directory on the current path of the walk.
struct Frame {
    std::string path;         // logical path
    uint64_t headerPos = 0;   // offset of its header record
    uint32_t expFiles = 0;    // counts from the header record
    uint32_t expSubdirs = 0;
    uint64_t expBytes = 0;
    uint32_t files = 0;       // counts of the entry records that follow it
    uint32_t subdirs = 0;
    uint64_t bytes = 0;
    uint64_t entries = 0;
    bool checked = false;     // its entry records are over and were counted
    bool nameKept = false;    // its path is among the kept link names
    std::string subdirNames;  // names of its subdirectory entries, each ended by a zero byte
    std::vector<size_t> subdirStart;
    size_t nextSubdir = 0;    // subdirectories before this one were walked or skipped
};

/// Inode number -> table-relative position of its newest hard-link entry.
/// Open addressing keeps this at 12 bytes a slot for millions of inodes.
struct InodeMap {
    std::vector<uint32_t> keys;
    std::vector<uint64_t> vals;  // position + 1; 0 = empty slot
    size_t used = 0;
};

/// A name kept for DtlNameAt: the record's offset and where its bytes are.
struct KeptName {
    uint64_t pos;
    size_t start, length;
};

}  // namespace

struct DtlWalkState {
    DtlInput input;
    DtlOpenOptions options;
    std::vector<uint8_t> buf;
    size_t len = 0;         // valid bytes in buf
    size_t at = 0;          // read position in buf
    uint64_t bufStart = 0;  // file offset of buf[0]
    bool eof = false;
    Phase phase = PHASE_RECORDS;
    std::vector<Frame> frames;
    std::vector<DtlHardLinkEntry> expLinks;  // the table as the records say it must be
    std::vector<uint32_t> linkInodes;
    std::vector<bool> linkFirst;
    InodeMap inodes;
    uint32_t linkIndex = 0;
    // Compressed input: the names of the hard-linked records and of their
    // directories' header records, in file order, for DtlNameAt.
    std::string keptBytes;
    std::vector<KeptName> kept;
};

static bool Fail(DtlReader* r, uint64_t offset, const char* format, ...) __attribute__((format(printf, 3, 4)));

static bool Fail(DtlReader* r, uint64_t offset, const char* format, ...) {
    if (r->failed) return false;
    char text[1024];
    va_list ap;
    va_start(ap, format);
    vsnprintf(text, sizeof text, format, ap);
    va_end(ap);
    r->failed = true;
    r->fault.offset = offset;
    r->fault.message = text;
    return false;
}

static uint64_t Pos(const DtlWalkState& s) { return s.bufStart + s.at; }

// Makes up to n bytes available at the read position and returns how many
// are (fewer only at the end of the file or after a read error or a damaged
// compressed stream, which is a fault of its own). This is the one place
// bytes come in, plain or inflated.
static size_t Need(DtlReader* r, size_t n) {
    DtlWalkState& s = *r->state;
    if (s.len - s.at >= n || s.eof) return std::min(n, s.len - s.at);
    memmove(s.buf.data(), s.buf.data() + s.at, s.len - s.at);
    s.bufStart += s.at;
    s.len -= s.at;
    s.at = 0;
    std::string error;
    while (s.len < n) {
        ssize_t got = DtlInputRead(&s.input, s.buf.data() + s.len, s.buf.size() - s.len, &error);
        if (got < 0) {
            Fail(r, s.bufStart + s.len, "%s", error.c_str());
            s.eof = true;
            break;
        }
        if (got == 0) {
            s.eof = true;
            break;
        }
        s.len += static_cast<size_t>(got);
    }
    return std::min(n, s.len);
}

static const uint8_t* Here(const DtlWalkState& s) { return s.buf.data() + s.at; }

static uint16_t Get16(const uint8_t* p) {
    uint16_t v;
    memcpy(&v, p, 2);
    return logShort(v);
}

static uint32_t Get32(const uint8_t* p) {
    uint32_t v;
    memcpy(&v, p, 4);
    return logInt(v);
}

static uint64_t Get64(const uint8_t* p) {
    uint64_t v;
    memcpy(&v, p, 8);
    return logInt64(v);
}

static bool AllZero(const uint8_t* p, size_t n) {
    for (size_t i = 0; i < n; i++)
        if (p[i]) return false;
    return true;
}

// Quotes a name for a fault message: printable ASCII as it is, other bytes as \xNN.
static std::string Quote(std::string_view text) {
    std::string out = "\"";
    for (unsigned char c : text.substr(0, 200)) {
        if (c >= 0x20 && c < 0x7F && c != '"' && c != '\\') {
            out += static_cast<char>(c);
        } else {
            char esc[8];
            snprintf(esc, sizeof esc, "\\x%02x", c);
            out += esc;
        }
    }
    if (text.size() > 200) out += "...";
    return out + "\"";
}

// ---- Inode map -----------------------------------------------------------

static size_t Slot(const InodeMap& m, uint32_t key) {
    size_t mask = m.keys.size() - 1;
    size_t i = (key * 0x9E3779B97F4A7C15ull) >> 20 & mask;
    while (m.vals[i] && m.keys[i] != key) i = (i + 1) & mask;
    return i;
}

// Returns the slot's value (position + 1, 0 when new) and stores pos + 1.
static uint64_t Exchange(InodeMap* m, uint32_t key, uint64_t pos) {
    if (2 * (m->used + 1) > m->keys.size()) {
        InodeMap bigger;
        size_t size = m->keys.empty() ? 1024 : 2 * m->keys.size();
        bigger.keys.assign(size, 0);
        bigger.vals.assign(size, 0);
        for (size_t i = 0; i < m->keys.size(); i++) {
            if (!m->vals[i]) continue;
            size_t j = Slot(bigger, m->keys[i]);
            bigger.keys[j] = m->keys[i];
            bigger.vals[j] = m->vals[i];
        }
        bigger.used = m->used;
        *m = std::move(bigger);
    }
    size_t i = Slot(*m, key);
    uint64_t old = m->vals[i];
    if (!old) m->used++;
    m->keys[i] = key;
    m->vals[i] = pos + 1;
    return old;
}

// ---- Headers and header strings ------------------------------------------

// Reads one header string at the read position into out (its bytes).
static bool ReadHeaderString(DtlReader* r, const char* what, std::string* out) {
    DtlWalkState& s = *r->state;
    uint64_t pos = Pos(s);
    if (Need(r, 2) < 2) return Fail(r, pos, "file ends inside the %s header string", what);
    uint16_t byteLength = Get16(Here(s));
    if (byteLength < 2 || byteLength % 2)
        return Fail(r, pos, "%s header string: byteLength %u is not 2 x (characters + 1)", what, byteLength);
    if (Need(r, 2u + byteLength) < 2u + byteLength)
        return Fail(r, pos, "file ends inside the %s header string (byteLength %u)", what, byteLength);
    const uint8_t* p = Here(s) + 2;
    size_t units = byteLength / 2;
    out->clear();
    for (size_t i = 0; i + 1 < units; i++) {
        uint16_t unit = Get16(p + 2 * i);
        // Every character is one byte widened by sign extension.
        if (unit == 0 || (unit > 0x7F && unit < 0xFF80))
            return Fail(r, pos + 2 + 2 * i, "%s header string: unit 0x%04x is not a sign-extended byte", what, unit);
        out->push_back(static_cast<char>(unit & 0xFF));
    }
    if (Get16(p + 2 * (units - 1)) != 0)
        return Fail(r, pos + byteLength, "%s header string does not end in a zero unit", what);
    s.at += 2u + byteLength;
    return true;
}

static bool CheckLogHeader(DtlReader* r, const uint8_t* p) {
    DtlLogHeader& h = r->log;
    h.formatVersion = Get32(p + 4);
    h.runTime = Get32(p + 8);
    h.tagOffset = Get32(p + 12);
    h.nodeNameOffset = Get32(p + 16);
    h.hardLinkTableOffset = Get64(p + 40);
    h.completionFlags = Get32(p + 64);
    if (h.formatVersion != DTL_FORMAT_VERSION)
        return Fail(r, 4, "formatVersion is %u, expected %u", h.formatVersion, DTL_FORMAT_VERSION);
    if (!AllZero(p + 20, 20)) return Fail(r, 20, "reserved bytes 20-39 of the log header are not zero");
    if (!AllZero(p + 48, 16)) return Fail(r, 48, "reserved bytes 48-63 of the log header are not zero");
    if (!AllZero(p + 68, 20)) return Fail(r, 68, "reserved bytes 68-87 of the log header are not zero");
    if (r->unfinished) {
        // The scan writes the flags with the finished magic, never before.
        if (h.completionFlags != 0)
            return Fail(r, 64, "completionFlags is %u in an unfinished file, expected 0", h.completionFlags);
    } else if (h.completionFlags != DTL_COMPLETE && h.completionFlags != DTL_COMPLETE_TAGGED) {
        return Fail(r, 64, "completionFlags is %u, expected 1 or 9", h.completionFlags);
    }
    return true;
}

static bool CheckRootHeader(DtlReader* r, const uint8_t* p) {
    DtlRootHeader& h = r->root;
    h.totalFileSize = Get64(p);
    h.dtlStartPos = Get64(p + 16);
    h.pathOffset = Get32(p + 24);
    h.mountSourceOffset = Get32(p + 28);
    h.includeDirsOffset = Get32(p + 32);
    h.dirCount = Get32(p + 48);
    h.emptyDirCount = Get32(p + 52);
    h.fileCount = Get32(p + 56);
    h.hardLinkCount = Get32(p + 60);
    h.symlinkCount = Get32(p + 64);
    h.otherCount = Get32(p + 72);
    h.availableSpace = Get64(p + 104);
    h.volumeCapacity = Get64(p + 112);
    const uint64_t base = DTL_ROOT_HEADER_POS;
    if (!AllZero(p + 8, 8)) return Fail(r, base + 8, "reserved bytes 8-15 of the root header are not zero");
    if (!AllZero(p + 36, 12)) return Fail(r, base + 36, "reserved bytes 36-47 of the root header are not zero");
    if (!AllZero(p + 68, 4)) return Fail(r, base + 68, "reserved bytes 68-71 of the root header are not zero");
    if (!AllZero(p + 76, 28)) return Fail(r, base + 76, "reserved bytes 76-103 of the root header are not zero");
    return true;
}

static bool CheckVersionHeader(DtlReader* r, const uint8_t* p) {
    memcpy(&r->version, p, sizeof r->version);
    // Each text is cut to its field size minus one, so the last byte is zero.
    if (r->version.version[11]) return Fail(r, DTL_VERSION_HEADER_POS + 11, "version text is not terminated");
    if (r->version.platform[31]) return Fail(r, DTL_VERSION_HEADER_POS + 43, "platform text is not terminated");
    if (r->version.architecture[31])
        return Fail(r, DTL_VERSION_HEADER_POS + 75, "architecture text is not terminated");
    return true;
}

// Checks that a header's string offset names the string that comes next.
static bool ExpectOffset(DtlReader* r, uint64_t fieldPos, const char* field, uint32_t value) {
    uint64_t next = Pos(*r->state);
    if (value == next) return true;
    return Fail(r, fieldPos, "%s is %u, but that header string is at %llu", field, value,
                static_cast<unsigned long long>(next));
}

// The include-directory list is stored four times in a row, each copy ended
// by an empty string; includeDirsOffset names the fourth copy.
static bool ReadIncludeLists(DtlReader* r) {
    DtlWalkState& s = *r->state;
    const uint64_t fieldPos = DTL_ROOT_HEADER_POS + offsetof(DtlRootHeader, includeDirsOffset);
    uint64_t listStart = Pos(s);
    uint64_t fourth = r->root.includeDirsOffset;
    if (fourth <= listStart || (fourth - listStart) % 3)
        return Fail(r, fieldPos, "includeDirsOffset %llu does not name the fourth of four list copies from %llu",
                    static_cast<unsigned long long>(fourth), static_cast<unsigned long long>(listStart));
    uint64_t copyLength = (fourth - listStart) / 3;
    std::string text;
    std::vector<std::string>& list = r->strings.includeDirs;  // the first copy, its empty terminator included
    for (int copy = 0; copy < 4; copy++) {
        uint64_t copyPos = listStart + copy * copyLength;
        r->strings.includeDirsCopyPos[copy] = copyPos;
        size_t index = 0;
        while (Pos(s) < copyPos + copyLength) {
            uint64_t textPos = Pos(s);
            if (!ReadHeaderString(r, "include-directory", &text)) return false;
            if (copy == 0) {
                list.push_back(text);
            } else if (index >= list.size() || text != list[index]) {
                return Fail(r, textPos, "include-directory list copy %d differs from the first copy", copy + 1);
            }
            index++;
        }
        bool closed = copy == 0 ? !list.empty() && list.back().empty() : index == list.size();
        if (Pos(s) != copyPos + copyLength || !closed)
            return Fail(r, copyPos, "include-directory list copy %d does not end in an empty header string at %llu",
                        copy + 1, static_cast<unsigned long long>(copyPos + copyLength));
    }
    list.pop_back();
    return true;
}

static bool ReadHeaderStrings(DtlReader* r) {
    DtlStrings& str = r->strings;
    if (!ExpectOffset(r, offsetof(DtlLogHeader, nodeNameOffset), "nodeNameOffset", r->log.nodeNameOffset) ||
        !ReadHeaderString(r, "node-name", &str.nodeName))
        return false;
    uint64_t tagPos = Pos(*r->state);
    if (!ExpectOffset(r, offsetof(DtlLogHeader, tagOffset), "tagOffset", r->log.tagOffset) ||
        !ReadHeaderString(r, "tag", &str.tag))
        return false;
    if (str.tag.size() != DTL_TAG_LENGTH)
        return Fail(r, tagPos, "tag header string holds %zu characters, expected 31", str.tag.size());
    uint32_t flags = CompletionFlagsFor(str.tag.c_str());
    if (!r->unfinished && r->log.completionFlags != flags)
        return Fail(r, offsetof(DtlLogHeader, completionFlags), "completionFlags is %u, expected %u for the tag %s",
                    r->log.completionFlags, flags, Quote(str.tag).c_str());
    const uint64_t root = DTL_ROOT_HEADER_POS;
    if (!ExpectOffset(r, root + offsetof(DtlRootHeader, pathOffset), "pathOffset", r->root.pathOffset) ||
        !ReadHeaderString(r, "root-path", &str.rootPath))
        return false;
    if (r->root.mountSourceOffset) {
        str.hasMountSource = true;
        if (!ExpectOffset(r, root + offsetof(DtlRootHeader, mountSourceOffset), "mountSourceOffset",
                          r->root.mountSourceOffset) ||
            !ReadHeaderString(r, "mount-source", &str.mountSource))
            return false;
    }
    if (r->root.includeDirsOffset && !ReadIncludeLists(r)) return false;
    r->recordsPos = Pos(*r->state);
    // An unfinished file's root header still holds 0 there.
    if (r->root.dtlStartPos != r->recordsPos && !(r->unfinished && r->root.dtlStartPos == 0))
        return Fail(r, root + offsetof(DtlRootHeader, dtlStartPos),
                    "dtlStartPos is %llu, but the header strings end at %llu",
                    static_cast<unsigned long long>(r->root.dtlStartPos),
                    static_cast<unsigned long long>(r->recordsPos));
    return true;
}

bool DtlOpen(DtlReader* r, const char* path, const DtlOpenOptions& options) {
    WhichEnd();
    r->path = path;
    r->state = new DtlWalkState;
    DtlWalkState& s = *r->state;
    s.options = options;
    s.buf.resize(READ_BUF_SIZE);
    std::string error;
    bool opened = DtlInputOpen(&s.input, path, &error);
    r->fd = s.input.fd;
    r->wasCompressed = s.input.compressed;
    if (!opened) return Fail(r, 0, "%s", error.c_str());
    if (s.input.compressed) s.input.checkpoints = options.checkpoints;
    size_t got = Need(r, DTL_STRINGS_POS);
    if (r->failed) return false;
    const uint8_t* p = Here(s);
    if (got < 4) return Fail(r, 0, "file ends inside the log header (%zu of 88 bytes): not a detail file", got);
    r->log.magic = Get32(p);
    if (r->log.magic == DTL_MAGIC_UNFINISHED && options.acceptUnfinished)
        r->unfinished = true;
    else if (r->log.magic == DTL_MAGIC_UNFINISHED)
        return Fail(r, 0, "unfinished detail file: magic \"IDTL\" (the scan that wrote it did not complete)");
    else if (r->log.magic != DTL_MAGIC_COMPLETE)
        return Fail(r, 0, "not a detail file: magic 0x%08x, expected \"FDTL\"", r->log.magic);
    if (got < sizeof(DtlLogHeader))
        return Fail(r, got, "file ends inside the log header (%zu of 88 bytes)", got);
    if (!CheckLogHeader(r, p)) return false;
    if (got < DTL_VERSION_HEADER_POS)
        return Fail(r, got, "file ends inside the root header (%zu of 120 bytes)", got - DTL_ROOT_HEADER_POS);
    if (!CheckRootHeader(r, p + DTL_ROOT_HEADER_POS)) return false;
    if (got < DTL_STRINGS_POS)
        return Fail(r, got, "file ends inside the version header (%zu of 76 bytes)", got - DTL_VERSION_HEADER_POS);
    if (!CheckVersionHeader(r, p + DTL_VERSION_HEADER_POS)) return false;
    s.at = DTL_STRINGS_POS;
    return ReadHeaderStrings(r);
}

// ---- Records -------------------------------------------------------------

// The entry records of the innermost directory are over: its header's counts
// must be what they add up to.
static bool CloseEntries(DtlReader* r) {
    DtlWalkState& s = *r->state;
    if (s.frames.empty() || s.frames.back().checked) return true;
    Frame& f = s.frames.back();
    f.checked = true;
    if (f.entries == 0) r->totals.emptyDirHeaders++;
    // The scan fills a directory's counts when it leaves the directory.
    if (r->unfinished && f.expFiles == 0 && f.expSubdirs == 0 && f.expBytes == 0) return true;
    if (f.files != f.expFiles)
        return Fail(r, f.headerPos + DTL_DIR_FILES_POS,
                    "directory %s: its header record counts %u files, but %u file records follow it", Quote(f.path).c_str(),
                    f.expFiles, f.files);
    if (f.subdirs != f.expSubdirs)
        return Fail(r, f.headerPos + DTL_DIR_SUBDIRS_POS,
                    "directory %s: its header record counts %u subdirectories, but %u subdirectory records follow it",
                    Quote(f.path).c_str(), f.expSubdirs, f.subdirs);
    if (f.bytes != f.expBytes)
        return Fail(r, f.headerPos + DTL_DIR_BYTES_POS,
                    "directory %s: its header record counts %llu bytes of files, but its file records add up to %llu",
                    Quote(f.path).c_str(), static_cast<unsigned long long>(f.expBytes),
                    static_cast<unsigned long long>(f.bytes));
    return true;
}

// Checks the bytes of a name or link target: zero byte last and nowhere else.
static bool CheckText(DtlReader* r, uint64_t pos, const uint8_t* p, size_t length, const char* what) {
    if (length == 0 || p[length - 1] != 0) return Fail(r, pos, "%s does not end in a zero byte", what);
    if (memchr(p, 0, length - 1)) return Fail(r, pos, "%s holds a zero byte before its end", what);
    return true;
}

// A directory header record must continue the walk: the root first, then
// each directory only after its parent's entry records, as one of the
// parent's subdirectory entries not yet passed, in their order.
static bool EnterDirectory(DtlReader* r, uint64_t pos, const DtlRecordFixed& fx, std::string_view path) {
    DtlWalkState& s = *r->state;
    if (fx.uid || fx.gid || fx.inode || fx.mode || fx.ctime || fx.linkCount || fx.linkTargetLength)
        return Fail(r, pos, "directory header record %s has non-zero fields besides its name and counts",
                    Quote(path).c_str());
    size_t frame;
    size_t index = 0;
    if (s.frames.empty()) {
        if (path != "/")
            return Fail(r, pos, "the first directory header record names %s, expected the root \"/\"",
                        Quote(path).c_str());
        frame = SIZE_MAX;
    } else {
        size_t slash = path.rfind('/');
        if (path.empty() || path[0] != '/' || slash == path.size() - 1)
            return Fail(r, pos, "directory header record %s is not a logical path below the root", Quote(path).c_str());
        std::string_view parent = slash == 0 ? std::string_view("/") : path.substr(0, slash);
        std::string_view leaf = path.substr(slash + 1);
        frame = s.frames.size();
        while (frame > 0 && s.frames[frame - 1].path != parent) frame--;
        if (frame == 0)
            return Fail(r, pos, "directory header record %s: its parent is not a directory the walk is in",
                        Quote(path).c_str());
        Frame& f = s.frames[--frame];
        for (index = f.nextSubdir; index < f.subdirStart.size(); index++) {
            size_t start = f.subdirStart[index];
            size_t end = index + 1 < f.subdirStart.size() ? f.subdirStart[index + 1] - 1 : f.subdirNames.size() - 1;
            if (std::string_view(f.subdirNames).substr(start, end - start) == leaf) break;
        }
        if (index == f.subdirStart.size())
            return Fail(r, pos,
                        "directory header record %s is out of walk order: not a subdirectory entry of %s "
                        "still to be walked",
                        Quote(path).c_str(), Quote(parent).c_str());
    }
    if (frame != SIZE_MAX) {
        s.frames.resize(frame + 1);
        s.frames[frame].nextSubdir = index + 1;
    }
    Frame& f = s.frames.emplace_back();
    f.path = path;
    f.headerPos = pos;
    f.expFiles = fx.atime;
    f.expSubdirs = fx.mtime;
    f.expBytes = fx.size;
    r->totals.dirHeaders++;
    return true;
}

static void Keep(DtlWalkState* s, uint64_t pos, std::string_view name) {
    s->kept.push_back({pos, s->keptBytes.size(), name.size()});
    s->keptBytes.append(name);
}

// A compressed file cannot be read out of turn: the names a hard-link table
// entry points at are kept as the records pass, in file order.
static void KeepLinkNames(DtlWalkState* s, Frame* f, uint64_t pos, std::string_view name) {
    if (!f->nameKept) Keep(s, f->headerPos, f->path);
    f->nameKept = true;
    Keep(s, pos, name);
}

// Runs once per entry record: no allocation beyond the subdirectory names
// and the hard-link expectations.
static bool CheckEntry(DtlReader* r, uint64_t pos, const DtlRecordFixed& fx, const uint8_t* name) {
    DtlWalkState& s = *r->state;
    if (s.frames.empty()) return Fail(r, pos, "entry record before the root's directory header record");
    Frame& f = s.frames.back();
    std::string_view text(reinterpret_cast<const char*>(name), fx.nameLength - 1);
    if (text.empty() || text == "." || text == ".." || text.find('/') != std::string_view::npos)
        return Fail(r, pos + 48, "entry record name %s is not a directory entry name", Quote(text).c_str());
    if (fx.mode > 0xFFFF || fx.linkCount > 0xFFFF)
        return Fail(r, pos + 16, "entry record %s: mode or linkCount does not fit 16 bits", Quote(text).c_str());
    bool symlink = fx.entryFlags & DTL_SYMLINK;
    if (symlink != S_ISLNK(fx.mode))
        return Fail(r, pos, "entry record %s: the symbolic-link flag does not match mode 0%o", Quote(text).c_str(),
                    fx.mode);
    if (!symlink && fx.linkTargetLength)
        return Fail(r, pos + 46, "entry record %s has a link target but is not a symbolic link", Quote(text).c_str());
    bool hardLink = fx.entryFlags & DTL_HARDLINK;
    if (!hardLink && fx.linkCount > 1)
        return Fail(r, pos, "entry record %s: link count %u without the hard-link flag", Quote(text).c_str(),
                    fx.linkCount);
    DtlTotals& t = r->totals;
    t.entries++;
    f.entries++;
    if (symlink) t.symlinks++;
    if (S_ISDIR(fx.mode)) {
        t.subdirEntries++;
        f.subdirs++;
        f.subdirStart.push_back(f.subdirNames.size());
        f.subdirNames.append(text);
        f.subdirNames.push_back('\0');
    } else {
        t.files++;
        f.files++;
        f.bytes += fx.size;
    }
    if (!hardLink) {
        t.totalFileSize += fx.size;
        r->rec.counted = true;
        return true;
    }
    // The hard-link table must hold one entry per flagged record, in record
    // order, chained to the previous entry of the same inode.
    uint64_t relPos = t.hardLinks * sizeof(DtlHardLinkEntry);
    uint64_t slot = Exchange(&s.inodes, fx.inode, relPos);
    bool first = slot == 0;
    if (first) {
        t.linkedInodes++;
        t.totalFileSize += fx.size;
    }
    r->rec.counted = first;
    if (r->wasCompressed && s.options.nameLinks) KeepLinkNames(&s, &f, pos, text);
    s.expLinks.push_back({first ? 0 : slot - 1, f.headerPos, pos});
    s.linkInodes.push_back(fx.inode);
    s.linkFirst.push_back(first);
    t.hardLinks++;
    return true;
}

// The end marker: every count the root header holds that the records can
// confirm must agree with them.
static bool CheckEnd(DtlReader* r, uint64_t pos, const uint8_t* p) {
    for (size_t i = 0; i < sizeof(DtlRecordFixed); i++)
        if (p[i] != 0xFF) return Fail(r, pos + i, "end marker is not 48 bytes of 0xFF");
    if (!CloseEntries(r)) return false;
    r->endMarkerPos = pos;
    if (r->unfinished) return true;  // the totals and the table come after the marker
    const DtlRootHeader& h = r->root;
    const DtlTotals& t = r->totals;
    const uint64_t base = DTL_ROOT_HEADER_POS;
    if (h.fileCount != t.files)
        return Fail(r, base + offsetof(DtlRootHeader, fileCount), "fileCount is %u, but there are %llu file records",
                    h.fileCount, static_cast<unsigned long long>(t.files));
    if (h.symlinkCount != t.symlinks)
        return Fail(r, base + offsetof(DtlRootHeader, symlinkCount),
                    "symlinkCount is %u, but %llu records carry the symbolic-link flag", h.symlinkCount,
                    static_cast<unsigned long long>(t.symlinks));
    if (h.hardLinkCount != t.hardLinks)
        return Fail(r, base + offsetof(DtlRootHeader, hardLinkCount),
                    "hardLinkCount is %u, but %llu records carry the hard-link flag", h.hardLinkCount,
                    static_cast<unsigned long long>(t.hardLinks));
    if (h.totalFileSize != t.totalFileSize)
        return Fail(r, base + offsetof(DtlRootHeader, totalFileSize),
                    "totalFileSize is %llu, but the records add up to %llu",
                    static_cast<unsigned long long>(h.totalFileSize),
                    static_cast<unsigned long long>(t.totalFileSize));
    // Excluded and unopenable directories count without a header record.
    if (h.dirCount < t.dirHeaders)
        return Fail(r, base + offsetof(DtlRootHeader, dirCount),
                    "dirCount is %u, fewer than the %llu directory header records", h.dirCount,
                    static_cast<unsigned long long>(t.dirHeaders));
    if (h.emptyDirCount > t.emptyDirHeaders)
        return Fail(r, base + offsetof(DtlRootHeader, emptyDirCount),
                    "emptyDirCount is %u, more than the %llu directory header records without entries",
                    h.emptyDirCount, static_cast<unsigned long long>(t.emptyDirHeaders));
    uint64_t table = t.hardLinks ? pos + sizeof(DtlRecordFixed) : 0;
    if (r->log.hardLinkTableOffset != table)
        return Fail(r, offsetof(DtlLogHeader, hardLinkTableOffset), "hardLinkTableOffset is %llu, expected %llu",
                    static_cast<unsigned long long>(r->log.hardLinkTableOffset),
                    static_cast<unsigned long long>(table));
    return true;
}

void DtlDecodeFixed(const uint8_t* p, DtlRecordFixed* fx) {
    fx->entryFlags = Get32(p);
    fx->uid = Get32(p + 4);
    fx->gid = Get32(p + 8);
    fx->inode = Get32(p + 12);
    fx->mode = Get32(p + 16);
    fx->ctime = Get32(p + 20);
    fx->atime = Get32(p + 24);
    fx->mtime = Get32(p + 28);
    fx->size = Get64(p + 32);
    fx->linkCount = Get32(p + 40);
    fx->nameLength = Get16(p + 44);
    fx->linkTargetLength = Get16(p + 46);
}

// Runs once per record: no allocation, no copy of the name.
static DtlStep NextRecord(DtlReader* r) {
    DtlWalkState& s = *r->state;
    uint64_t pos = Pos(s);
    size_t got = Need(r, sizeof(DtlRecordFixed));
    if (r->failed) return DTL_STEP_FAULT;
    if (got == 0) {
        Fail(r, pos, "file ends without an end marker");
        return DTL_STEP_FAULT;
    }
    if (got < sizeof(DtlRecordFixed)) {
        Fail(r, pos, "file ends inside a record (%zu of 48 bytes)", got);
        return DTL_STEP_FAULT;
    }
    DtlRecord& rec = r->rec;
    rec.pos = pos;
    rec.name = rec.target = {};
    rec.counted = false;
    DtlRecordFixed& fx = rec.fixed;
    DtlDecodeFixed(Here(s), &fx);
    if (fx.entryFlags == DTL_END_MARKER) {
        rec.kind = DTL_REC_END_MARKER;
        rec.dirPath = {};
        rec.depth = 0;
        if (!CheckEnd(r, pos, Here(s))) return DTL_STEP_FAULT;
        s.at += sizeof(DtlRecordFixed);
        s.phase = r->unfinished ? PHASE_DONE : r->totals.hardLinks ? PHASE_LINKS : PHASE_TRAILER;
        return DTL_STEP_RECORD;
    }
    if (fx.entryFlags == DTL_DIR_HEADER) {
        rec.kind = DTL_REC_DIR_HEADER;
    } else if ((fx.entryFlags & DTL_ENTRY) && !(fx.entryFlags & ~(DTL_ENTRY | DTL_SYMLINK | DTL_HARDLINK))) {
        rec.kind = DTL_REC_ENTRY;
    } else {
        Fail(r, pos, "record with unknown entryFlags 0x%08x", fx.entryFlags);
        return DTL_STEP_FAULT;
    }
    size_t length = sizeof(DtlRecordFixed) + fx.nameLength + fx.linkTargetLength;
    if (Need(r, length) < length) {
        if (!r->failed)
            Fail(r, pos, "file ends inside a record of %zu bytes (nameLength %u, linkTargetLength %u)", length,
                 fx.nameLength, fx.linkTargetLength);
        return DTL_STEP_FAULT;
    }
    const uint8_t* name = Here(s) + sizeof(DtlRecordFixed);
    if (!CheckText(r, pos + 48, name, fx.nameLength, "record name")) return DTL_STEP_FAULT;
    rec.name = std::string_view(reinterpret_cast<const char*>(name), fx.nameLength - 1);
    if (rec.kind == DTL_REC_DIR_HEADER) {
        if (!CloseEntries(r) || !EnterDirectory(r, pos, fx, rec.name)) return DTL_STEP_FAULT;
    } else {
        if (fx.linkTargetLength) {
            const uint8_t* target = name + fx.nameLength;
            if (!CheckText(r, pos + 48 + fx.nameLength, target, fx.linkTargetLength, "link target"))
                return DTL_STEP_FAULT;
            rec.target = std::string_view(reinterpret_cast<const char*>(target), fx.linkTargetLength - 1);
        } else if (fx.entryFlags & DTL_SYMLINK) {
            Fail(r, pos + 46, "symbolic-link record without a link target");
            return DTL_STEP_FAULT;
        }
        if (!CheckEntry(r, pos, fx, name)) return DTL_STEP_FAULT;
    }
    rec.dirPath = s.frames.back().path;
    rec.depth = static_cast<uint32_t>(s.frames.size());
    s.at += length;
    return DTL_STEP_RECORD;
}

static DtlStep NextLink(DtlReader* r) {
    DtlWalkState& s = *r->state;
    uint32_t i = s.linkIndex;
    uint64_t pos = Pos(s);
    size_t got = Need(r, sizeof(DtlHardLinkEntry));
    if (r->failed) return DTL_STEP_FAULT;
    if (got < sizeof(DtlHardLinkEntry)) {
        Fail(r, pos, "file ends inside hard-link table entry %u of %zu", i, s.expLinks.size());
        return DTL_STEP_FAULT;
    }
    const uint8_t* p = Here(s);
    DtlLink& link = r->link;
    link.index = i;
    link.pos = pos;
    link.entry = {Get64(p), Get64(p + 8), Get64(p + 16)};
    link.inode = s.linkInodes[i];
    link.first = s.linkFirst[i];
    const DtlHardLinkEntry& want = s.expLinks[i];
    unsigned long long relPos = 24ull * i;
    if (link.entry.recordPos != want.recordPos)
        Fail(r, pos + 16, "hard-link entry %u: recordPos is %llu, expected %llu (entry record %u with the hard-link flag)",
             i, static_cast<unsigned long long>(link.entry.recordPos),
             static_cast<unsigned long long>(want.recordPos), i);
    else if (link.entry.parentDirPos != want.parentDirPos)
        Fail(r, pos + 8, "hard-link entry %u: parentDirPos is %llu, expected %llu (the header record of its directory)",
             i, static_cast<unsigned long long>(link.entry.parentDirPos),
             static_cast<unsigned long long>(want.parentDirPos));
    else if (link.entry.prevEntry != want.prevEntry)
        Fail(r, pos,
             "hard-link entry %u at table position %llu: prevEntry is %llu, expected %llu (the previous entry of "
             "inode %u, or 0 for its first)",
             i, relPos, static_cast<unsigned long long>(link.entry.prevEntry),
             static_cast<unsigned long long>(want.prevEntry), link.inode);
    if (r->failed) return DTL_STEP_FAULT;
    s.at += sizeof(DtlHardLinkEntry);
    if (++s.linkIndex == s.expLinks.size()) s.phase = PHASE_TRAILER;
    return DTL_STEP_LINK;
}

DtlStep DtlNext(DtlReader* r) {
    if (r->failed || !r->state) return DTL_STEP_FAULT;
    DtlWalkState& s = *r->state;
    switch (s.phase) {
        case PHASE_RECORDS:
            return NextRecord(r);
        case PHASE_LINKS:
            return NextLink(r);
        case PHASE_TRAILER: {
            uint64_t pos = Pos(s);
            if (Need(r, 1)) {
                Fail(r, pos, "unexpected bytes after the %s", r->totals.hardLinks ? "hard-link table" : "end marker");
                return DTL_STEP_FAULT;
            }
            if (r->failed) return DTL_STEP_FAULT;
            s.phase = PHASE_DONE;
            return DTL_STEP_DONE;
        }
        case PHASE_DONE:
            break;
    }
    return DTL_STEP_DONE;
}

bool DtlNameAt(DtlReader* r, uint64_t pos, std::string* name) {
    if (r->wasCompressed) {
        if (!r->state) return false;
        const std::vector<KeptName>& kept = r->state->kept;
        auto it = std::lower_bound(kept.begin(), kept.end(), pos,
                                   [](const KeptName& k, uint64_t at) { return k.pos < at; });
        if (it == kept.end() || it->pos != pos) return false;
        name->assign(r->state->keptBytes, it->start, it->length);
        return true;
    }
    uint8_t fixed[sizeof(DtlRecordFixed)];
    if (r->fd < 0 || pread(r->fd, fixed, sizeof fixed, static_cast<off_t>(pos)) != sizeof fixed) return false;
    uint16_t length = Get16(fixed + 44);
    if (length == 0) return false;
    name->resize(length);
    if (pread(r->fd, name->data(), length, static_cast<off_t>(pos + sizeof fixed)) != length) return false;
    name->pop_back();
    return true;
}

void DtlClose(DtlReader* r) {
    if (r->state) DtlInputClose(&r->state->input);
    r->fd = -1;
    delete r->state;
    r->state = nullptr;
}

bool DtlCheckFile(const char* path, DtlFault* fault) {
    DtlReader r;
    DtlStep step = DTL_STEP_FAULT;
    if (DtlOpen(&r, path)) {
        do step = DtlNext(&r);
        while (step == DTL_STEP_RECORD || step == DTL_STEP_LINK);
    }
    DtlClose(&r);
    if (step == DTL_STEP_DONE) return true;
    *fault = r.fault;
    return false;
}

std::string DtlJoinPath(std::string_view dirPath, std::string_view name) {
    std::string path(dirPath);
    if (path != "/") path += '/';
    path += name;
    return path;
}
