// The report commands of dtldump: their options, reading the files, and
// writing the reports to standard output.
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "reader/dtldump.h"
#include "reader/export.h"
#include "reader/report.h"
#include "reader/reportprint.h"
#include "reader/textout.h"

const char* const DTLDUMP_USAGE =
    "usage: dtldump [--json] [--summary] FILE      print and check a detail file\n"
    "       dtldump COMMAND [OPTIONS] FILE         report on the scan it holds\n"
    "       dtldump diff [OPTIONS] OLD NEW         compare two scans of one root\n"
    "\n"
    "commands:\n"
    "  top      the largest directories: -n N, --depth D, --by size|entries\n"
    "  owners   entries, files, directories and bytes per user and group: -n N\n"
    "  age      files by age of modification and access, the coldest directories:\n"
    "           --buckets LIST (1m,6m,1y,3y), --cold AGE (1y), -n N, --depth D\n"
    "  types    entries by kind, regular files by name extension: -n N\n"
    "  export   every entry as CSV or NDJSON: --format csv|ndjson\n"
    "  diff     totals, the directories that grew, shrank, appeared or vanished:\n"
    "           -n N, --depth D, --by size|entries, --force (different roots)\n"
    "\n"
    "options of every command: --json (JSON instead of text tables; export: NDJSON),\n"
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
};

struct Command {
    const char* name;
    unsigned options;  // the Options it takes besides --json, --partial and --help
    size_t files;      // how many files it reads
};

const Command COMMANDS[] = {
    {"top", OPT_ROWS | OPT_DEPTH | OPT_BY, 1},
    {"owners", OPT_ROWS, 1},
    {"age", OPT_ROWS | OPT_DEPTH | OPT_BUCKETS | OPT_COLD, 1},
    {"types", OPT_ROWS, 1},
    {"export", OPT_FORMAT, 1},
    {"diff", OPT_ROWS | OPT_DEPTH | OPT_BY | OPT_FORCE, 2},
};

struct Args {
    const Command* command = nullptr;
    std::vector<const char*> files;
    bool partial = false, force = false, help = false;
    ExportFormat format = EXPORT_CSV;
    PrintOptions print;
    ReportOptions report;
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
    std::string buckets, cold = "1y";
    bool options = true;
    for (int i = 2; i < argc; i++) {
        std::string_view arg = argv[i];
        if (!options || arg.size() < 2 || arg[0] != '-') {
            a->files.push_back(argv[i]);
            continue;
        }
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
        } else if (arg.substr(0, 2) == "-n" && arg.size() > 2) {
            name = "-n";
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
            {"--force", OPT_FORCE, false},
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
        } else if (name == "-n" || name == "--depth") {
            if (!ParseCount(value, &count)) return Usage("'%s' is not a count", value.c_str());
            if (name == "-n")
                a->print.rows = static_cast<size_t>(count);
            else
                a->print.depth = count;
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
        }
    }
    if (a->help) return 0;
    if (a->files.size() != a->command->files)
        return Usage(a->command->files == 1 ? "%s takes one detail file" : "%s takes two detail files: OLD NEW",
                     a->command->name);
    std::string error;
    std::vector<int64_t> bounds;
    std::vector<std::string> names;
    if (!buckets.empty() && !ParseAgeList(buckets, &a->report.ageBounds, &a->report.ageNames, &error))
        return Usage("--buckets: %s", error.c_str());
    if (!ParseAgeList(cold, &bounds, &names, &error) || bounds.size() != 1)
        return Usage("--cold: %s", error.empty() ? "one age, such as 1y" : error.c_str());
    a->report.coldAge = bounds[0];
    a->print.coldName = cold;
    if (a->print.json && a->command->options & OPT_FORMAT) a->format = EXPORT_NDJSON;
    return 0;
}

// Names why a file cannot be reported on, as the dump does.
int Refuse(const ReportScan& s) {
    fflush(stdout);
    if (!s.opened)
        fprintf(stderr, "dtldump: %s: %s\n", s.path.c_str(), s.fault.message.c_str());
    else
        fprintf(stderr, "dtldump: %s: offset %llu: %s\n", s.path.c_str(),
                static_cast<unsigned long long>(s.fault.offset), s.fault.message.c_str());
    return 1;
}

int Write(const std::string& text) {
    if (fwrite(text.data(), 1, text.size(), stdout) != text.size() || fflush(stdout) != 0) {
        fprintf(stderr, "dtldump: error writing standard output: %s\n", strerror(errno));
        return 1;
    }
    return 0;
}

int Export(const Args& a) {
    ExportSink sink;
    sink.fd = STDOUT_FILENO;
    ReportScan scan;
    bool ok = ExportEntries(a.files[0], a.format, a.partial, &sink, &scan);
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
    ReportOptions& r = a.report;
    r.partial = a.partial;
    r.dirs = name == "top" || name == "age" || name == "diff";
    r.owners = name == "owners";
    r.ages = name == "age";
    r.types = name == "types";
    ReportScan scans[2];
    for (size_t i = 0; i < a.files.size(); i++)
        if (!ReadReport(a.files[i], r, &scans[i])) return Refuse(scans[i]);
    std::string out;
    if (name == "top") {
        PrintTop(&out, scans[0], a.print);
    } else if (name == "owners") {
        PrintOwners(&out, scans[0], a.print);
    } else if (name == "age") {
        PrintAges(&out, scans[0], a.print);
    } else if (name == "types") {
        PrintTypes(&out, scans[0], a.print);
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
