// The report commands of dtldump: their options, reading the files, and
// writing the reports to standard output.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "reader/browse.h"
#include "reader/dtldump.h"
#include "reader/export.h"
#include "reader/history.h"
#include "reader/htmlreport.h"
#include "reader/multiscan.h"
#include "reader/report.h"
#include "reader/reportprint.h"
#include "reader/textout.h"

const char* const DTLDUMP_USAGE =
    "usage: dtldump [--json] [--summary] FILE      print and check a detail file\n"
    "       dtldump COMMAND [OPTIONS] FILE         report on the scan it holds\n"
    "       dtldump COMMAND [OPTIONS] FILE...      top, owners, age, types: the scans of\n"
    "                                              several trees or machines summed\n"
    "       dtldump diff [OPTIONS] OLD NEW         compare two scans of one root\n"
    "       dtldump trend [OPTIONS] FILE...        follow successive scans of one root\n"
    "\n"
    "commands:\n"
    "  top      the largest directories: -n N, --depth D, --by size|entries;\n"
    "           --files: the largest files instead\n"
    "  owners   entries, files, directories and bytes per user and group: -n N\n"
    "  age      files by age of modification and access, the coldest directories:\n"
    "           --buckets LIST (1m,6m,1y,3y), --cold AGE (1y), -n N, --depth D\n"
    "  types    entries by kind, regular files by name extension: -n N\n"
    "  export   every entry as CSV or NDJSON: --format csv|ndjson, --scan-columns\n"
    "           (each row also names the scan: node, root and start)\n"
    "  diff     totals, the directories that grew, shrank, appeared or vanished:\n"
    "           -n N, --depth D, --by size|entries, --force (different roots)\n"
    "  trend    totals per scan in the order of their start, the directories that grew\n"
    "           or shrank most over the period and the change per day: -n N, --depth D\n"
    "  browse   a full-screen browser of the scan in the terminal (keys: ? in it)\n"
    "  html     one page to open in a browser: a zoomable treemap of the directories\n"
    "           and the tables of top, owners, age and types: -o FILE (standard output),\n"
    "           --min-share PERCENT (0.1), --colour top|age, -n N (50), --depth D,\n"
    "           --buckets LIST, --cold AGE, --history FILE... (earlier scans of the root:\n"
    "           each large directory's size over time)\n"
    "\n"
    "options of every command: --json (JSON instead of text tables; export: NDJSON;\n"
    "  not html),\n"
    "  --partial (report on an unfinished or damaged file as far as its records go)\n"
    "A first word that is not a command names a file: write ./top for a file named top.\n";

namespace {

enum Option : unsigned {
    OPT_ROWS = 1,
    OPT_DEPTH = 2,
    OPT_BY = 4,
    OPT_BUCKETS = 8,
    OPT_COLD = 16,
    OPT_FORMAT = 32,
    OPT_FORCE = 64,
    OPT_OUTPUT = 128,
    OPT_SHARE = 256,
    OPT_COLOUR = 512,
    OPT_FILES = 1024,
    OPT_SCAN_COLUMNS = 2048,
    OPT_HISTORY = 4096,
};

constexpr size_t SEVERAL = 0;  // a command that reads one file or more

struct Command {
    const char* name;
    unsigned options;  // the Options it takes besides --json, --partial and --help
    size_t files;      // how many files it reads, or SEVERAL
};

const Command COMMANDS[] = {
    {"top", OPT_ROWS | OPT_DEPTH | OPT_BY | OPT_FILES, SEVERAL},
    {"owners", OPT_ROWS, SEVERAL},
    {"age", OPT_ROWS | OPT_DEPTH | OPT_BUCKETS | OPT_COLD, SEVERAL},
    {"types", OPT_ROWS, SEVERAL},
    {"export", OPT_FORMAT | OPT_SCAN_COLUMNS, 1},
    {"diff", OPT_ROWS | OPT_DEPTH | OPT_BY | OPT_FORCE, 2},
    {"trend", OPT_ROWS | OPT_DEPTH, SEVERAL},
    {"browse", 0, 1},
    {"html", OPT_ROWS | OPT_DEPTH | OPT_BUCKETS | OPT_COLD | OPT_OUTPUT | OPT_SHARE | OPT_COLOUR | OPT_HISTORY, 1},
};

struct Args {
    const Command* command = nullptr;
    std::vector<const char*> files;
    std::vector<const char*> history;  // html --history: the files after it, up to the next option
    bool afterHistory = false;
    bool scanColumns = false;
    bool partial = false, force = false, help = false, largestFiles = false;
    ExportFormat format = EXPORT_CSV;
    PrintOptions print;
    ReportOptions report;
    bool rowsGiven = false;
    std::string output;  // -o: html's file; "": standard output
    double minShare = 0;           // --min-share, as a fraction
    bool colourByAge = false;
};

int Usage(const char* format, const char* what) {
    fputs("dtldump: ", stderr);
    fprintf(stderr, format, what);
    fprintf(stderr, "\n%s", DTLDUMP_USAGE);
    return 1;
}

bool ParseCount(std::string_view text, int64_t* value) {
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), *value);
    return ec == std::errc() && end == text.data() + text.size() && *value >= 0;
}

// Reads the options of the command in argv[1]. Returns 0 when they are good,
// else the exit status after saying what is wrong.
int ParseArgs(int argc, char** argv, Args* a) {
    for (const Command& c : COMMANDS)
        if (strcmp(c.name, argv[1]) == 0) a->command = &c;
    std::string buckets, cold = "1y", share = DEFAULT_MIN_SHARE;
    bool options = true;
    for (int i = 2; i < argc; i++) {
        std::string_view arg = argv[i];
        if (!options || arg.size() < 2 || arg[0] != '-') {
            (a->afterHistory ? a->history : a->files).push_back(argv[i]);
            continue;
        }
        a->afterHistory = false;
        if (arg == "--") {
            options = false;
            continue;
        }
        // --name=value or --name value; -n N or -nN.
        std::string name(arg), value;
        bool inlineValue = false;
        if (size_t eq = arg.find('='); arg.substr(0, 2) == "--" && eq != std::string_view::npos) {
            name = arg.substr(0, eq);
            value = arg.substr(eq + 1);
            inlineValue = true;
        } else if ((arg.substr(0, 2) == "-n" || arg.substr(0, 2) == "-o") && arg.size() > 2) {
            name = arg.substr(0, 2);
            value = arg.substr(2);
            inlineValue = true;
        }
        struct Known {
            const char* name;
            unsigned option;  // 0: every command takes it
            bool takesValue;
        } const known[] = {
            {"--json", 0, false},          {"--partial", 0, false},
            {"--help", 0, false},          {"-h", 0, false},
            {"-n", OPT_ROWS, true},        {"--depth", OPT_DEPTH, true},
            {"--by", OPT_BY, true},        {"--buckets", OPT_BUCKETS, true},
            {"--cold", OPT_COLD, true},    {"--format", OPT_FORMAT, true},
            {"--force", OPT_FORCE, false},   {"-o", OPT_OUTPUT, true},
            {"--output", OPT_OUTPUT, true},  {"--min-share", OPT_SHARE, true},
            {"--colour", OPT_COLOUR, true},  {"--color", OPT_COLOUR, true},
            {"--files", OPT_FILES, false},
            {"--scan-columns", OPT_SCAN_COLUMNS, false},
            {"--history", OPT_HISTORY, false},
        };
        const Known* k = nullptr;
        for (const Known& x : known)
            if (name == x.name) k = &x;
        if (!k) return Usage("unknown option '%s'", argv[i]);
        if (k->option && !(a->command->options & k->option))
            return Usage(("option '%s' does not apply to " + std::string(a->command->name)).c_str(), k->name);
        if (k->takesValue && !inlineValue) {
            if (i + 1 >= argc) return Usage("option '%s' needs a value", k->name);
            value = argv[++i];
        } else if (!k->takesValue && inlineValue) {
            return Usage("option '%s' takes no value", k->name);
        }
        int64_t count = 0;
        if (name == "--json") {
            a->print.json = true;
        } else if (name == "--partial") {
            a->partial = true;
        } else if (name == "--help" || name == "-h") {
            a->help = true;
        } else if (name == "--force") {
            a->force = true;
        } else if (name == "--files") {
            a->largestFiles = true;
        } else if (name == "--scan-columns") {
            a->scanColumns = true;
        } else if (name == "--history") {
            a->afterHistory = true;
        } else if (name == "-n" || name == "--depth") {
            if (!ParseCount(value, &count)) return Usage("'%s' is not a count", value.c_str());
            if (name == "-n") {
                a->print.rows = static_cast<size_t>(count);
                a->rowsGiven = true;
            } else {
                a->print.depth = count;
            }
        } else if (name == "--by") {
            if (value != "size" && value != "entries")
                return Usage("--by takes size or entries, not '%s'", value.c_str());
            a->print.byEntries = value == "entries";
        } else if (name == "--format") {
            if (value != "csv" && value != "ndjson")
                return Usage("--format takes csv or ndjson, not '%s'", value.c_str());
            a->format = value == "csv" ? EXPORT_CSV : EXPORT_NDJSON;
        } else if (name == "--buckets") {
            buckets = value;
        } else if (name == "--cold") {
            cold = value;
        } else if (name == "-o" || name == "--output") {
            if (value.empty()) return Usage("option '%s' needs a file name", k->name);
            a->output = value;
        } else if (name == "--min-share") {
            share = value;
        } else if (name == "--colour" || name == "--color") {
            if (value != "top" && value != "age")
                return Usage(("%s takes top or age, not '" + value + "'").c_str(), k->name);
            a->colourByAge = value == "age";
        }
    }
    if (a->help) return 0;
    if (a->largestFiles && (a->print.depth >= 0 || a->print.byEntries))
        return Usage("%s does not apply to top --files", a->print.depth >= 0 ? "--depth" : "--by");
    if (a->print.json && (a->command->options & OPT_OUTPUT || !a->command->options))
        return Usage(("option '%s' does not apply to " + std::string(a->command->name)).c_str(), "--json");
    if (a->command->files == SEVERAL ? a->files.empty() : a->files.size() != a->command->files)
        return Usage(a->command->files == SEVERAL ? "%s takes one or more detail files"
                     : a->command->files == 1     ? "%s takes one detail file"
                                                  : "%s takes two detail files: OLD NEW",
                     a->command->name);
    if (a->largestFiles && a->files.size() > 1) return Usage("%s takes one detail file", "top --files");
    if (a->command->options & OPT_HISTORY && a->afterHistory && a->history.empty())
        return Usage("option '%s' needs the files of earlier scans", "--history");
    std::string error;
    std::vector<int64_t> bounds;
    std::vector<std::string> names;
    if (!buckets.empty() && !ParseAgeList(buckets, &a->report.ageBounds, &a->report.ageNames, &error))
        return Usage("--buckets: %s", error.c_str());
    if (!ParseAgeList(cold, &bounds, &names, &error) || bounds.size() != 1)
        return Usage("--cold: %s", error.empty() ? "one age, such as 1y" : error.c_str());
    a->report.coldAge = bounds[0];
    a->print.coldName = cold;
    char* end = nullptr;
    a->minShare = strtod(share.c_str(), &end) / 100;
    if (share.empty() || *end || !(a->minShare >= 0 && a->minShare <= 1))
        return Usage("--min-share takes a percentage from 0 to 100, not '%s'", share.c_str());
    if (a->command->options & OPT_OUTPUT && !a->rowsGiven) a->print.rows = 50;
    if (a->print.json && a->command->options & OPT_FORMAT) a->format = EXPORT_NDJSON;
    return 0;
}

// Says why the files cannot be reported on: a file's fault as the dump
// names it, or why several cannot go together.
int Refuse(const std::string& line) {
    fflush(stdout);
    fprintf(stderr, "dtldump: %s\n", line.c_str());
    return 1;
}

int Refuse(const ReportScan& s) { return Refuse(FaultLine(s)); }

int Write(const std::string& text) {
    if (fwrite(text.data(), 1, text.size(), stdout) != text.size() || fflush(stdout) != 0) {
        fprintf(stderr, "dtldump: error writing standard output: %s\n", strerror(errno));
        return 1;
    }
    return 0;
}

// Writes the page to its file, which a failure removes again: half a page
// shows nothing.
int WriteReportFile(const std::string& path, const std::string& text) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    int error = fd < 0 ? errno : 0;
    for (size_t done = 0; fd >= 0 && !error && done < text.size();) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n > 0)
            done += static_cast<size_t>(n);
        else if (n == 0 || errno != EINTR)
            error = n == 0 ? EIO : errno;
    }
    if (fd >= 0 && close(fd) != 0 && !error) error = errno;
    if (!error) return 0;
    if (fd >= 0) unlink(path.c_str());
    fprintf(stderr, "dtldump: cannot write %s: %s\n", path.c_str(), strerror(error));
    return 1;
}

int Export(const Args& a) {
    ExportSink sink;
    sink.fd = STDOUT_FILENO;
    ReportScan scan;
    bool ok = ExportEntries(a.files[0], a.format, a.partial, &sink, &scan, a.scanColumns);
    if (sink.writeError) {
        fprintf(stderr, "dtldump: error writing standard output: %s\n", strerror(sink.writeError));
        return 1;
    }
    if (!ok) return Refuse(scan);
    // The rows leave no room for a note: it goes beside them.
    if (!scan.complete) fprintf(stderr, "dtldump: %s:\n%s", scan.path.c_str(), PartialNote(scan).c_str());
    return 0;
}

}  // namespace

int RefuseFile(const std::string& path, bool opened, const DtlFault& fault) {
    fprintf(stderr, "dtldump: %s\n", FaultLine(path, opened, fault).c_str());
    return 1;
}

bool IsCommand(const char* word) {
    for (const Command& c : COMMANDS)
        if (strcmp(c.name, word) == 0) return true;
    return false;
}

int CommandMain(int argc, char** argv) {
    Args a;
    if (int status = ParseArgs(argc, argv, &a)) return status;
    if (a.help) {
        fputs(DTLDUMP_USAGE, stdout);
        return 0;
    }
    std::string name = a.command->name;
    if (name == "export") return Export(a);
    if (name == "browse") return BrowseMain(a.files[0], a.partial);
    ReportOptions& r = a.report;
    r.partial = a.partial;
    bool html = name == "html";  // the page shows every report
    r.dirs = (name == "top" && !a.largestFiles) || name == "age" || name == "diff" || html;
    if (a.largestFiles) r.largestFiles = a.print.rows;
    if (html) r.fileShare = std::max(a.minShare, MIN_FILE_SHARE);
    r.owners = name == "owners" || html;
    r.ages = name == "age" || html;
    r.types = name == "types" || html;
    std::string out, error;
    if (name == "trend") {
        Trend trend;
        if (!ReadTrend(a.files, a.partial, &trend, &error)) return Refuse(error);
        PrintTrend(&out, trend, a.print);
        return Write(out);
    }
    ReportScan scans[2];
    if (a.command->files == SEVERAL && a.files.size() > 1) {
        if (!ReadScans(a.files, r, a.print, &scans[0], &error)) return Refuse(error);
    } else {
        for (size_t i = 0; i < a.files.size(); i++)
            if (!ReadReport(a.files[i], r, &scans[i])) return Refuse(scans[i]);
    }
    if (name == "top" && a.largestFiles) {
        PrintTopFiles(&out, scans[0], a.print);
    } else if (name == "top") {
        PrintTop(&out, scans[0], a.print);
    } else if (name == "owners") {
        PrintOwners(&out, scans[0], a.print);
    } else if (name == "age") {
        PrintAges(&out, scans[0], a.print);
    } else if (name == "types") {
        PrintTypes(&out, scans[0], a.print);
    } else if (html) {
        HtmlOptions page{a.print, a.minShare, a.colourByAge, {}};
        if (!a.history.empty()) {
            History history;
            if (!ReadHistory(scans[0], a.history, a.partial, &history, &error)) return Refuse(error);
            page.history = HistoryHtml(history);
        }
        AppendHtmlReport(&out, scans[0], page);
        if (!a.output.empty()) return WriteReportFile(a.output, out);
    } else {
        if (scans[0].strings.rootPath != scans[1].strings.rootPath && !a.force) {
            std::string roots;
            AppendEscaped(&roots, scans[0].strings.rootPath, true);
            roots += " and ";
            AppendEscaped(&roots, scans[1].strings.rootPath, true);
            fprintf(stderr, "dtldump: the two scans are of different roots, %s; --force compares them anyway\n",
                    roots.c_str());
            return 1;
        }
        PrintDiff(&out, scans[0], scans[1], DiffScans(scans[0], scans[1]), a.print);
    }
    return Write(out);
}
