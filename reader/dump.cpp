// dtldump FILE: prints a detail file and checks its structure, without
// changing it.
//
//   dtldump [--json] [--summary] FILE
//
// Prints the headers, the header strings, every record with its logical path
// and the hard-link table, as text or as JSON (--json); --summary prints only
// the headers and the totals. The whole file is checked in one pass while it
// is printed: the first fault stops the output and is named on standard
// error with its offset, and the exit status is 1. Names are printed
// losslessly: text output escapes control characters and bytes that are not
// UTF-8 as \xNN; JSON gives a string that is not UTF-8 a "...Hex" twin
// holding its bytes in hexadecimal.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <string>
#include <string_view>

#include "reader/dtldump.h"
#include "reader/dtlread.h"
#include "reader/textout.h"

namespace {

bool json = false;     // --json
bool summary = false;  // --summary
std::string out;       // the text being built; flushed to standard output per item

void Flush() {
    fwrite(out.data(), 1, out.size(), stdout);
    out.clear();
}

#define Add(...) AppendFormat(&out, __VA_ARGS__)

void AddQuoted(std::string_view text) { AppendEscaped(&out, text, true); }

void AddJsonMember(const char* key, std::string_view text) { AppendJsonMember(&out, key, text); }

// %llu takes unsigned long long, which uint64_t is not on every platform.
unsigned long long ToUll(uint64_t v) { return v; }

// A number of the headers or the totals, named once for both forms.
struct Field {
    const char* name;              // the JSON member, and the text line's name unless label is set
    unsigned long long value;
    const char* label = nullptr;   // text: the line's name
    const char* note = "";         // text: after the value
};

// Text: one line per field, its name in a column of 21. JSON: the members of
// one object, without the braces.
void AddFields(std::initializer_list<Field> fields) {
    const char* separator = "";
    for (const Field& f : fields) {
        if (json)
            Add("%s\"%s\": %llu", separator, f.name, f.value);
        else
            Add("  %-21s%llu%s\n", f.label ? f.label : f.name, f.value, f.note);
        separator = ", ";
    }
}

// The log header's numbers after its magic; when is the text's note on runTime.
void AddLogFields(const DtlLogHeader& l, const char* when) {
    AddFields({{"formatVersion", l.formatVersion},
               {.name = "runTime", .value = l.runTime, .note = when},
               {"tagOffset", l.tagOffset},
               {"nodeNameOffset", l.nodeNameOffset},
               {"hardLinkTableOffset", l.hardLinkTableOffset},
               {"completionFlags", l.completionFlags}});
}

void AddRootFields(const DtlRootHeader& h) {
    AddFields({{"totalFileSize", h.totalFileSize},
               {"dtlStartPos", h.dtlStartPos},
               {"pathOffset", h.pathOffset},
               {"mountSourceOffset", h.mountSourceOffset},
               {"includeDirsOffset", h.includeDirsOffset},
               {"dirCount", h.dirCount},
               {"emptyDirCount", h.emptyDirCount},
               {"fileCount", h.fileCount},
               {"hardLinkCount", h.hardLinkCount},
               {"symlinkCount", h.symlinkCount},
               {"otherCount", h.otherCount},
               {"availableSpace", h.availableSpace},
               {"volumeCapacity", h.volumeCapacity}});
}

// ---- Headers ---------------------------------------------------------------

void PrintHeadersText(const DtlReader& r) {
    const DtlLogHeader& l = r.log;
    const DtlRootHeader& h = r.root;
    const DtlStrings& s = r.strings;
    char when[64] = "";
    time_t t = l.runTime;
    struct tm tm;
    if (gmtime_r(&t, &tm)) strftime(when, sizeof when, " (%Y-%m-%d %H:%M:%S UTC)", &tm);
    out += "Detail file ";
    AddQuoted(r.path);
    if (r.wasCompressed) out += " (compressed)";
    out += "\nLog header\n  magic                FDTL\n";
    AddLogFields(l, when);
    out += "Root header\n";
    AddRootFields(h);
    out += "Version header\n  version              ";
    AddQuoted(r.version.version);
    out += "\n  platform             ";
    AddQuoted(r.version.platform);
    out += "\n  architecture         ";
    AddQuoted(r.version.architecture);
    Add("\nHeader strings\n  @%-8u nodeName     ", l.nodeNameOffset);
    AddQuoted(s.nodeName);
    Add("\n  @%-8u tag          ", l.tagOffset);
    AddQuoted(s.tag);
    Add("\n  @%-8u rootPath     ", h.pathOffset);
    AddQuoted(s.rootPath);
    out += '\n';
    if (s.hasMountSource) {
        Add("  @%-8u mountSource  ", h.mountSourceOffset);
        AddQuoted(s.mountSource);
        out += '\n';
    }
    if (h.includeDirsOffset) {
        for (int copy = 0; copy < 4; copy++) {
            Add("  @%-8llu includeDirs copy %d:", ToUll(s.includeDirsCopyPos[copy]), copy + 1);
            for (const std::string& text : s.includeDirs) {
                out += ' ';
                AddQuoted(text);
            }
            out += '\n';
        }
    }
    Flush();
}

void PrintHeadersJson(const DtlReader& r) {
    const DtlLogHeader& l = r.log;
    const DtlRootHeader& h = r.root;
    const DtlStrings& s = r.strings;
    out += "{\n  ";
    AddJsonMember("file", r.path);
    Add(", \"compressed\": %s", r.wasCompressed ? "true" : "false");
    out += ",\n  \"logHeader\": {\"magic\": \"FDTL\", ";
    AddLogFields(l, "");
    out += "},\n  \"rootHeader\": {";
    AddRootFields(h);
    out += "},\n  \"versionHeader\": {";
    AddJsonMember("version", r.version.version);
    out += ", ";
    AddJsonMember("platform", r.version.platform);
    out += ", ";
    AddJsonMember("architecture", r.version.architecture);
    out += "},\n  \"headerStrings\": {";
    AddJsonMember("nodeName", s.nodeName);
    out += ", ";
    AddJsonMember("tag", s.tag);
    out += ", ";
    AddJsonMember("rootPath", s.rootPath);
    out += ", ";
    if (s.hasMountSource)
        AddJsonMember("mountSource", s.mountSource);
    else
        out += "\"mountSource\": null";
    out += ", \"includeDirs\": [";
    for (size_t i = 0; i < s.includeDirs.size(); i++) {
        if (i) out += ", ";
        out += '{';
        AddJsonMember("template", s.includeDirs[i]);
        out += '}';
    }
    out += "], \"includeDirsCopies\": [";
    if (h.includeDirsOffset)
        Add("%llu, %llu, %llu, %llu", ToUll(s.includeDirsCopyPos[0]), ToUll(s.includeDirsCopyPos[1]),
            ToUll(s.includeDirsCopyPos[2]), ToUll(s.includeDirsCopyPos[3]));
    out += "]}";
    Flush();
}

// ---- Records and hard links --------------------------------------------------

void PrintRecordText(const DtlRecord& rec) {
    const DtlRecordFixed& f = rec.fixed;
    Add("  @%-10llu ", ToUll(rec.pos));
    if (rec.kind == DTL_REC_END_MARKER) {
        out += "end\n";
    } else if (rec.kind == DTL_REC_DIR_HEADER) {
        out += "dir    ";
        AddQuoted(rec.name);
        Add("  files=%u subdirs=%u bytes=%llu\n", f.atime, f.mtime, ToUll(f.size));
    } else {
        out += "entry  ";
        AddQuoted(DtlJoinPath(rec.dirPath, rec.name));
        if (f.entryFlags & DTL_SYMLINK) {
            out += " -> ";
            AddQuoted(rec.target);
        }
        Add("  %s mode=0%o links=%u%s uid=%u gid=%u inode=%u size=%llu ctime=%u atime=%u mtime=%u\n",
            KindName(f.mode), f.mode & 07777, f.linkCount, f.entryFlags & DTL_HARDLINK ? " hardlink" : "", f.uid,
            f.gid, f.inode, ToUll(f.size), f.ctime, f.atime, f.mtime);
    }
    Flush();
}

void PrintRecordJson(const DtlRecord& rec, bool first) {
    const DtlRecordFixed& f = rec.fixed;
    Add("%s    {\"offset\": %llu, ", first ? "" : ",\n", ToUll(rec.pos));
    if (rec.kind == DTL_REC_END_MARKER) {
        out += "\"kind\": \"end\"}";
    } else if (rec.kind == DTL_REC_DIR_HEADER) {
        out += "\"kind\": \"directory\", ";
        AddJsonMember("path", rec.name);
        Add(", \"files\": %u, \"subdirs\": %u, \"bytes\": %llu}", f.atime, f.mtime, ToUll(f.size));
    } else {
        out += "\"kind\": \"entry\", ";
        AddJsonMember("path", DtlJoinPath(rec.dirPath, rec.name));
        out += ", ";
        AddJsonMember("name", rec.name);
        if (f.entryFlags & DTL_SYMLINK) {
            out += ", ";
            AddJsonMember("target", rec.target);
        }
        Add(", \"type\": \"%s\", \"entryFlags\": %u, \"hardLink\": %s, \"mode\": %u, \"uid\": %u, \"gid\": %u, "
            "\"inode\": %u, \"links\": %u, \"size\": %llu, \"ctime\": %u, \"atime\": %u, \"mtime\": %u}",
            KindName(f.mode), f.entryFlags, f.entryFlags & DTL_HARDLINK ? "true" : "false", f.mode, f.uid, f.gid,
            f.inode, f.linkCount, ToUll(f.size), f.ctime, f.atime, f.mtime);
    }
    Flush();
}

// The path of a hard-link table entry's record, read out of turn.
std::string LinkPath(DtlReader* r, const DtlLink& link, bool* ok) {
    std::string dir, name;
    *ok = DtlNameAt(r, link.entry.parentDirPos, &dir) && DtlNameAt(r, link.entry.recordPos, &name);
    return *ok ? DtlJoinPath(dir, name) : std::string();
}

void PrintLinkText(DtlReader* r, const DtlLink& link) {
    const DtlHardLinkEntry& e = link.entry;
    Add("  #%-6u @%-10llu inode=%u ", link.index, ToUll(link.pos), link.inode);
    if (link.first)
        out += "first      ";
    else
        Add("prev=#%-6llu", ToUll(e.prevEntry / sizeof(DtlHardLinkEntry)));
    Add(" dir=@%llu record=@%llu ", ToUll(e.parentDirPos), ToUll(e.recordPos));
    bool ok;
    std::string path = LinkPath(r, link, &ok);
    if (ok) AddQuoted(path);
    out += '\n';
    Flush();
}

void PrintLinkJson(DtlReader* r, const DtlLink& link, bool first) {
    const DtlHardLinkEntry& e = link.entry;
    Add("%s    {\"index\": %u, \"offset\": %llu, \"inode\": %u, \"prevEntry\": %llu, \"first\": %s, "
        "\"parentDirPos\": %llu, \"recordPos\": %llu",
        first ? "" : ",\n", link.index, ToUll(link.pos), link.inode, ToUll(e.prevEntry), link.first ? "true" : "false",
        ToUll(e.parentDirPos), ToUll(e.recordPos));
    bool ok;
    std::string path = LinkPath(r, link, &ok);
    if (ok) {
        out += ", ";
        AddJsonMember("path", path);
    }
    out += '}';
    Flush();
}

void PrintTotals(const DtlTotals& t) {
    out += json ? "  \"totals\": {" : "Totals from the records\n";
    AddFields({{"dirHeaders", t.dirHeaders, "directory records"},
               {"emptyDirHeaders", t.emptyDirHeaders, "empty directories"},
               {"entries", t.entries, "entry records"},
               {"files", t.files, "files"},
               {"subdirEntries", t.subdirEntries, "subdirectories"},
               {"symlinks", t.symlinks, "symbolic links"},
               {"hardLinks", t.hardLinks, "hard-link entries"},
               {"linkedInodes", t.linkedInodes, "hard-linked inodes"},
               {"totalFileSize", t.totalFileSize, "total file size"}});
    out += json ? "}" : "Structure: sound\n";
    Flush();
}

// Reads the records and the table, printing them unless --summary. Returns
// the step that ended the file: DTL_STEP_DONE or DTL_STEP_FAULT.
DtlStep PrintBody(DtlReader* r) {
    enum { NONE, RECORDS, LINKS } open = NONE;
    bool first = true;
    DtlStep step;
    while ((step = DtlNext(r)) == DTL_STEP_RECORD || step == DTL_STEP_LINK) {
        if (summary) continue;
        if (step == DTL_STEP_RECORD) {
            if (open == NONE) {
                out += json ? ",\n  \"records\": [\n" : "Records\n";
                open = RECORDS;
            }
            json ? PrintRecordJson(r->rec, first) : PrintRecordText(r->rec);
        } else {
            if (open != LINKS) {
                out += json ? "\n  ],\n  \"hardLinks\": [\n" : "Hard links\n";
                open = LINKS;
                first = true;
            }
            json ? PrintLinkJson(r, r->link, first) : PrintLinkText(r, r->link);
        }
        first = false;
    }
    if (json && open != NONE) out += "\n  ]";
    if (json && open == RECORDS && step == DTL_STEP_DONE) out += ",\n  \"hardLinks\": [\n  ]";
    return step;
}

}  // namespace

int DumpMain(int argc, char** argv) {
    const char* path = nullptr;
    bool options = true;
    for (int i = 1; i < argc; i++) {
        std::string_view arg = argv[i];
        if (options && arg == "--json") {
            json = true;
        } else if (options && arg == "--summary") {
            summary = true;
        } else if (options && (arg == "--help" || arg == "-h")) {
            fputs(DTLDUMP_USAGE, stdout);
            return 0;
        } else if (options && arg == "--") {
            options = false;
        } else if (options && arg.size() > 1 && arg[0] == '-') {
            fprintf(stderr, "dtldump: unknown option '%s'\n%s", argv[i], DTLDUMP_USAGE);
            return 1;
        } else if (path) {
            fprintf(stderr, "dtldump: more than one file given\n%s", DTLDUMP_USAGE);
            return 1;
        } else {
            path = argv[i];
        }
    }
    if (!path) {
        fputs(DTLDUMP_USAGE, stderr);
        return 1;
    }
    static char outBuf[1 << 20];
    setvbuf(stdout, outBuf, _IOFBF, sizeof outBuf);

    DtlReader r;
    DtlStep step = DTL_STEP_FAULT;
    DtlOpenOptions openOptions;
    openOptions.nameLinks = !summary;  // only the hard-link table's lines need them
    bool headers = DtlOpen(&r, path, openOptions);
    if (headers) {
        json ? PrintHeadersJson(r) : PrintHeadersText(r);
        step = PrintBody(&r);
        if (step == DTL_STEP_DONE) {
            if (json) out += ",\n";
            PrintTotals(r.totals);
        }
    }
    if (json && headers) {
        // Keep the JSON whole after a fault, and name the fault in it too.
        if (step == DTL_STEP_FAULT) {
            Add(",\n  \"error\": {\"offset\": %llu, ", ToUll(r.fault.offset));
            AddJsonMember("message", r.fault.message);
            out += '}';
        }
        out += "\n}\n";
        Flush();
    }
    bool opened = r.fd >= 0;
    DtlClose(&r);
    if (step == DTL_STEP_FAULT) {
        fflush(stdout);
        if (!opened)
            fprintf(stderr, "dtldump: %s: %s\n", path, r.fault.message.c_str());
        else
            fprintf(stderr, "dtldump: %s: offset %llu: %s\n", path, ToUll(r.fault.offset), r.fault.message.c_str());
    }
    if (fflush(stdout) != 0 || ferror(stdout)) {
        fprintf(stderr, "dtldump: error writing standard output: %s\n", strerror(errno));
        return 1;
    }
    return step == DTL_STEP_DONE ? 0 : 1;
}
