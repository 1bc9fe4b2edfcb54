#include "reader/export.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "reader/dtlpipe.h"
#include "reader/textout.h"

namespace {

constexpr size_t FLUSH_AT = 1 << 20;

constexpr const char* CSV_HEADER =
    "path,pathHex,kind,uid,gid,mode,size,links,inode,counted,mtime,mtimeSec,atime,atimeSec,ctime,ctimeSec,target,"
    "targetHex";
constexpr const char* CSV_HEADER_SCAN = ",scanNode,scanRoot,scanStart,scanStartSec";

// Bytes a text may hold and still be copied as it is: printable ASCII but
// the characters each format must quote or escape.
struct PlainBytes {
    bool csv[256] = {}, json[256] = {};
    PlainBytes() {
        for (int c = 0x20; c < 0x7F; c++) {
            csv[c] = c != ',' && c != '"';
            json[c] = c != '"' && c != '\\';
        }
    }
};
const PlainBytes plainBytes;

bool IsPlain(std::string_view text, const bool* table) {
    for (unsigned char c : text)
        if (!table[c]) return false;
    return true;
}

// The date parts of recent days: times in one tree gather in a few years.
struct DateCache {
    static constexpr size_t SIZE = 4096;
    uint32_t day[SIZE];
    char text[SIZE][11];  // "YYYY-MM-DDT"
    DateCache() {
        for (size_t i = 0; i < SIZE; i++) day[i] = ~0u;
    }
};

// Runs three times per entry: no division but by constants, no call but
// for a day not in the cache.
char* PutTime(char* p, uint32_t seconds, DateCache* cache) {
    uint32_t day = seconds / 86400;
    size_t slot = day % DateCache::SIZE;
    if (cache->day[slot] != day) {
        char full[24];
        PutIsoTime(full, seconds);
        memcpy(cache->text[slot], full, 11);
        cache->day[slot] = day;
    }
    memcpy(p, cache->text[slot], 11);
    p += 11;
    unsigned rest = seconds % 86400;
    unsigned parts[3] = {rest / 3600, rest / 60 % 60, rest % 60};
    for (int i = 0; i < 3; i++) {
        *p++ = static_cast<char>('0' + parts[i] / 10);
        *p++ = static_cast<char>('0' + parts[i] % 10);
        *p++ = i < 2 ? ':' : 'Z';
    }
    return p;
}

// A text as one format writes it: escaped (without the double quotes
// around a CSV field), and what the whole field needs besides.
struct Escaped {
    std::string text;
    bool quote = false;  // CSV: the field must be in double quotes
    bool utf8 = true;    // else the exact bytes go to the twin column
};

// Appends raw to e as the format escapes it: CSV doubles double quotes and
// quotes the field for a comma, a quote or a line break; JSON escapes
// quotes, backslashes and control characters; both put U+FFFD for each
// byte that is not part of valid UTF-8. Pieces escaped one after the other
// make the escaped whole, as long as each ends on a character boundary.
void Escape(std::string_view raw, bool csv, Escaped* e) {
    const bool* plain = csv ? plainBytes.csv : plainBytes.json;
    const auto* p = reinterpret_cast<const unsigned char*>(raw.data());
    size_t i = 0, n = raw.size();
    while (i < n) {
        size_t run = i;
        while (run < n && plain[p[run]]) run++;
        e->text.append(raw.data() + i, run - i);
        if ((i = run) == n) break;
        unsigned char c = p[i];
        if (c >= 0x80) {
            size_t len = Utf8Length(p + i, n - i);
            if (len) {
                e->text.append(raw.data() + i, len);
                i += len;
            } else {
                e->text += "\xEF\xBF\xBD";
                e->utf8 = false;
                i++;
            }
            continue;
        }
        i++;
        if (csv) {
            e->quote |= c == '"' || c == ',' || c == '\n' || c == '\r';
            if (c == '"') e->text += '"';
            e->text += static_cast<char>(c);
        } else if (c == '"' || c == '\\') {
            e->text += '\\';
            e->text += static_cast<char>(c);
        } else {
            AppendFormat(&e->text, "\\u%04x", c);
        }
    }
}

// Copies bytes; with a literal the length is known when compiling.
char* Put(char* p, std::string_view text) {
    if (!text.empty()) memcpy(p, text.data(), text.size());
    return p + text.size();
}

template <size_t N>
char* Lit(char* p, const char (&text)[N]) {
    memcpy(p, text, N - 1);
    return p + N - 1;
}

char* PutHex(char* p, std::string_view bytes) {
    static const char digits[] = "0123456789abcdef";
    for (unsigned char c : bytes) {
        *p++ = digits[c >> 4];
        *p++ = digits[c & 15];
    }
    return p;
}

// The text of columns whose values often repeat from row to row (owner and
// group; a time, when files were made together), kept with their values.
struct Repeat {
    bool valid = false;
    uint64_t key = 0;
    size_t length = 0;
    char text[64];
};

// Copies the kept text when the key is the last one's, else formats it anew.
template <typename Format>
char* Repeated(char* p, Repeat* r, uint64_t key, Format format) {
    if (!r->valid || r->key != key) {
        r->length = static_cast<size_t>(format(r->text) - r->text);
        r->key = key;
        r->valid = true;
    }
    memcpy(p, r->text, r->length);
    return p + r->length;
}

struct Writer {
    ExportSink* sink;
    std::unique_ptr<char[]> buf;  // rows not yet handed to the sink
    size_t cap = 0, len = 0;
    std::string root;       // the root path
    Escaped prefix;         // the real path of the current directory, with its slash
    std::string prefixRaw;  // its bytes, for a path that is not UTF-8
    Escaped scratch;        // a name or target that is not plain, escaped
    DateCache dates;
    Repeat owner, times[3];
    std::string scanColumns;  // the same on every row: the scan's node, root and start
};

void Flush(Writer* w) {
    ExportSink* sink = w->sink;
    if (sink->fd < 0) {
        sink->text.append(w->buf.get(), w->len);
        w->len = 0;
        return;
    }
    for (size_t done = 0; done < w->len && !sink->writeError;) {
        ssize_t put = write(sink->fd, w->buf.get() + done, w->len - done);
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) sink->writeError = put < 0 ? errno : EIO;
        if (put > 0) done += static_cast<size_t>(put);
    }
    w->len = 0;
}

// Room for n more bytes; a row longer than the buffer gets a larger one.
char* Room(Writer* w, size_t n) {
    if (w->len + n > w->cap) Flush(w);
    if (n > w->cap) {
        w->cap = n;
        w->buf.reset(new char[n]);
    }
    return w->buf.get() + w->len;
}

// The most bytes a text can take escaped and in hexadecimal.
size_t Bound(std::string_view text) { return 8 * text.size() + 16; }

// Writes a path (the directory's prefix and a name) or a link target (no
// prefix) as the format's text column or member and its hexadecimal twin.
template <bool csv>
char* PutText(Writer* w, char* p, std::string_view key, const Escaped* prefix, std::string_view prefixRaw,
              std::string_view tail) {
    std::string_view text = tail;
    bool quote = prefix && prefix->quote, utf8 = !prefix || prefix->utf8;
    if (!IsPlain(tail, csv ? plainBytes.csv : plainBytes.json)) {
        Escaped& e = w->scratch;
        e.text.clear();
        e.quote = quote;
        e.utf8 = utf8;
        Escape(tail, csv, &e);
        text = e.text;
        quote = e.quote;
        utf8 = e.utf8;
    }
    if (!csv) {
        p = Lit(p, "\"");
        p = Put(p, key);
        p = Lit(p, "\":\"");
    }
    if (quote) *p++ = '"';
    if (prefix) p = Put(p, prefix->text);
    p = Put(p, text);
    if (quote || !csv) *p++ = '"';
    if (csv) *p++ = ',';
    if (utf8) return p;
    if (!csv) {
        p = Lit(p, ",\"");
        p = Put(p, key);
        p = Lit(p, "Hex\":\"");
    }
    p = PutHex(p, prefixRaw);
    p = PutHex(p, tail);
    if (!csv) *p++ = '"';
    return p;
}

// A JSON member's key with its comma and colon; nothing in CSV, whose
// columns are in the header row.
template <bool csv, size_t N>
char* Key(char* p, const char (&member)[N]) {
    return csv ? p : Lit(p, member);
}

template <bool csv>
char* End(char* p) {
    if (csv) *p++ = ',';
    return p;
}

// Runs once per entry record: no allocation but for a name that must be
// quoted or escaped, no system call but the buffer's write.
template <bool csv>
void PutEntry(Writer* w, const DtlRecord& rec) {
    const DtlRecordFixed& fx = rec.fixed;
    char* start = Room(w, w->prefix.text.size() + 2 * w->prefixRaw.size() + Bound(rec.name) + Bound(rec.target) +
                              w->scanColumns.size() + 512);
    char* p = start;
    if (!csv) *p++ = '{';
    p = PutText<csv>(w, p, "path", &w->prefix, w->prefixRaw, rec.name);
    if (csv) *p++ = ',';  // after pathHex
    p = Key<csv>(p, ",\"kind\":\"");
    p = Put(p, KindName(fx.mode));
    if (!csv) *p++ = '"';
    p = End<csv>(p);
    p = Repeated(p, &w->owner, uint64_t{fx.uid} << 32 | fx.gid, [&](char* q) {
        q = End<csv>(PutDecimal(Key<csv>(q, ",\"uid\":"), fx.uid));
        return End<csv>(PutDecimal(Key<csv>(q, ",\"gid\":"), fx.gid));
    });
    p = Key<csv>(p, ",\"mode\":\"");
    for (int shift = 9; shift >= 0; shift -= 3) *p++ = static_cast<char>('0' + (fx.mode >> shift & 7));
    if (!csv) *p++ = '"';
    p = End<csv>(p);
    p = End<csv>(PutDecimal(Key<csv>(p, ",\"size\":"), fx.size));
    p = End<csv>(PutDecimal(Key<csv>(p, ",\"links\":"), fx.linkCount));
    p = End<csv>(PutDecimal(Key<csv>(p, ",\"inode\":"), fx.inode));
    p = Key<csv>(p, ",\"counted\":");
    p = rec.counted ? Lit(p, "true") : Lit(p, "false");
    p = End<csv>(p);
    p = Repeated(p, &w->times[0], fx.mtime, [&](char* q) {
        q = PutTime(Key<csv>(q, ",\"mtime\":\""), fx.mtime, &w->dates);
        if (!csv) *q++ = '"';
        return End<csv>(PutDecimal(Key<csv>(End<csv>(q), ",\"mtimeSec\":"), fx.mtime));
    });
    p = Repeated(p, &w->times[1], fx.atime, [&](char* q) {
        q = PutTime(Key<csv>(q, ",\"atime\":\""), fx.atime, &w->dates);
        if (!csv) *q++ = '"';
        return End<csv>(PutDecimal(Key<csv>(End<csv>(q), ",\"atimeSec\":"), fx.atime));
    });
    p = Repeated(p, &w->times[2], fx.ctime, [&](char* q) {
        q = PutTime(Key<csv>(q, ",\"ctime\":\""), fx.ctime, &w->dates);
        if (!csv) *q++ = '"';
        return End<csv>(PutDecimal(Key<csv>(End<csv>(q), ",\"ctimeSec\":"), fx.ctime));
    });
    // CSV: "target,targetHex", both empty unless a symbolic link.
    if (fx.entryFlags & DTL_SYMLINK) {
        if (!csv) *p++ = ',';
        p = PutText<csv>(w, p, "target", nullptr, {}, rec.target);
    } else if (csv) {
        *p++ = ',';
    }
    p = Put(p, w->scanColumns);
    p = csv ? Lit(p, "\n") : Lit(p, "}\n");
    w->len += static_cast<size_t>(p - start);
    if (w->len >= FLUSH_AT) Flush(w);
}

void EnterDirectory(Writer* w, bool csv, std::string_view logical) {
    std::string& path = w->prefixRaw;
    path = FullPath(w->root, logical);
    if (path.back() != '/') path += '/';
    w->prefix.text.clear();
    w->prefix.quote = false;
    w->prefix.utf8 = true;
    Escape(path, csv, &w->prefix);
}

// The columns that name the scan, with the comma in front of them: CSV
// fields, or NDJSON members. A node or root that is not UTF-8 has U+FFFD for
// each stray byte here; the path column's twin holds the root's exact bytes.
std::string ScanColumns(const DtlReader& r, bool csv) {
    char started[24];
    *PutIsoTime(started, r.log.runTime) = '\0';
    std::string columns = ",";
    if (csv) {
        AppendCsvField(&columns, r.strings.nodeName);
        columns += ',';
        AppendCsvField(&columns, r.strings.rootPath);
        AppendFormat(&columns, ",%s,%u", started, r.log.runTime);
    } else {
        columns += "\"scanNode\":";
        AppendJsonString(&columns, r.strings.nodeName);
        columns += ",\"scanRoot\":";
        AppendJsonString(&columns, r.strings.rootPath);
        AppendFormat(&columns, ",\"scanStart\":\"%s\",\"scanStartSec\":%u", started, r.log.runTime);
    }
    return columns;
}

}  // namespace

bool ExportEntries(const char* path, ExportFormat format, bool partial, ExportSink* sink, ReportScan* scan,
                   bool scanColumns) {
    DtlReader r;
    if (!OpenScan(&r, path, partial, scan)) return false;
    std::unique_ptr<Writer> w(new Writer);
    w->sink = sink;
    w->cap = 2 * FLUSH_AT;
    w->buf.reset(new char[w->cap]);
    w->root = r.strings.rootPath;
    bool csv = format == EXPORT_CSV;
    if (scanColumns) w->scanColumns = ScanColumns(r, csv);
    if (csv) {
        std::string header = Cat(CSV_HEADER, scanColumns ? CSV_HEADER_SCAN : "", "\n");
        w->len = static_cast<size_t>(Put(w->buf.get(), header) - w->buf.get());
    }
    DtlPipe* pipe = DtlPipeStart(&r);
    while (const DtlRecord* rec = DtlPipeNext(pipe)) {
        if (rec->kind == DTL_REC_ENTRY)
            csv ? PutEntry<true>(w.get(), *rec) : PutEntry<false>(w.get(), *rec);
        else
            EnterDirectory(w.get(), csv, rec->name);
        if (sink->writeError) break;
    }
    DtlStep step = DtlPipeFinish(pipe);
    Flush(w.get());
    scan->totals = r.totals;
    scan->complete = step == DTL_STEP_DONE && !r.unfinished;
    if (step == DTL_STEP_FAULT) scan->fault = r.fault;
    DtlClose(&r);
    return !sink->writeError && (step != DTL_STEP_FAULT || partial);
}
