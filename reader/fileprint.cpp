// top --files: the largest files of a scan, as a text table or JSON.
#include <pwd.h>

#include <vector>

#include "reader/reportprint.h"
#include "reader/textout.h"

// The owner's name on this machine, or the number when it has none.
static std::string OwnerName(uint32_t uid) {
    char buffer[16384];
    struct passwd pw, *found = nullptr;
    if (getpwuid_r(uid, &pw, buffer, sizeof buffer, &found) == 0 && found) return found->pw_name;
    return std::to_string(uid);
}

static std::string Modified(uint32_t mtime) { return HeadingTime(mtime).substr(0, 16); }

TextTable FilesTable(const ReportScan& s) {
    TextTable t{{"SIZE", "BYTES", "OWNER", "MODIFIED", "PATH"}, {true, true, false, false, false}, {}};
    t.sortBy = {1};
    for (const FileRow& f : s.largest)
        t.rows.push_back({HumanSize(f.bytes), Number(f.bytes), OwnerName(f.uid), Modified(f.mtime),
                          CellPath(FullPath(s.strings.rootPath, f.logical))});
    return t;
}

void PrintTopFiles(std::string* out, const ReportScan& s, const PrintOptions& o) {
    if (o.json) {
        *out += "{\"command\": \"top\", ";
        AppendJsonHead(out, s);
        AppendFormat(out, ", \"by\": \"files\", \"totalFileSize\": %llu, \"files\": [",
                     static_cast<unsigned long long>(s.totals.totalFileSize));
        for (size_t i = 0; i < s.largest.size(); i++) {
            const FileRow& f = s.largest[i];
            *out += i ? ",\n  {" : "\n  {";
            AppendJsonMember(out, "path", FullPath(s.strings.rootPath, f.logical));
            *out += ", ";
            AppendJsonMember(out, "logicalPath", f.logical);
            char modified[24];
            *PutIsoTime(modified, f.mtime) = '\0';
            AppendFormat(out, ", \"bytes\": %llu, \"uid\": %u, ", static_cast<unsigned long long>(f.bytes), f.uid);
            AppendJsonMember(out, "owner", OwnerName(f.uid));
            AppendFormat(out, ", \"gid\": %u, \"mtime\": %u, \"modified\": \"%s\"}", f.gid, f.mtime, modified);
        }
        *out += "\n]}\n";
        return;
    }
    AppendTextHead(out, s, "Detail file");
    *out +=
        "\nLargest files\n"
        "(entries that are not directories; each hard-linked inode once, at the name\n"
        " where the walk met it first; modification times in UTC)\n\n";
    AppendTable(out, FilesTable(s));
}
