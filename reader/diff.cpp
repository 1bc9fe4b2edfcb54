// The comparison of two scans of one root, directory by directory.
#include <string_view>
#include <unordered_map>

#include "reader/report.h"

namespace {

// A directory as its parent's row and its name.
struct Place {
    uint32_t parent;
    std::string_view name;
    bool operator==(const Place&) const = default;
};

struct PlaceHash {
    size_t operator()(const Place& p) const { return std::hash<std::string_view>{}(p.name) * 31 + p.parent; }
};

// The directories of `side` that the other scan lacks, as rows for their
// topmost ones (whose parent the other scan has), each with the number of
// such directories below it. Returns how many there are in all.
uint64_t Unmatched(const std::vector<DirRow>& side, const std::vector<int64_t>& match, bool inOld,
                   std::vector<DiffRow>* rows) {
    std::vector<int64_t> topRow(side.size(), -1);  // the row of a directory's topmost unmatched ancestor
    uint64_t count = 0;
    for (size_t i = 0; i < side.size(); i++) {
        if (match[i] >= 0) continue;
        count++;
        const DirRow& d = side[i];
        int64_t top = i ? topRow[d.parent] : -1;
        if (top >= 0) {
            (*rows)[static_cast<size_t>(top)].dirsInside++;
            topRow[i] = top;
            continue;
        }
        DiffRow& row = rows->emplace_back();
        row.path = DirPath(side, i);
        row.depth = d.depth;
        row.inOld = inOld;
        row.inNew = !inOld;
        (inOld ? row.before : row.after) = d.total;
        topRow[i] = static_cast<int64_t>(rows->size() - 1);
    }
    return count;
}

}  // namespace

ScanDiff DiffScans(const ReportScan& before, const ReportScan& after) {
    ScanDiff diff;
    // Parents come before their subdirectories, so each directory of the new
    // scan is matched after its parent: by the parent's match and its name.
    std::unordered_map<Place, uint32_t, PlaceHash> oldPlaces;
    oldPlaces.reserve(before.dirs.size());
    for (uint32_t i = 1; i < before.dirs.size(); i++)
        oldPlaces.emplace(Place{before.dirs[i].parent, before.dirs[i].name}, i);
    std::vector<int64_t> oldMatch(before.dirs.size(), -1), newMatch(after.dirs.size(), -1);
    for (size_t i = 0; i < after.dirs.size(); i++) {
        const DirRow& now = after.dirs[i];
        int64_t found = -1;
        if (i == 0) {
            found = before.dirs.empty() ? -1 : 0;
        } else if (newMatch[now.parent] >= 0) {
            auto it = oldPlaces.find(Place{static_cast<uint32_t>(newMatch[now.parent]), now.name});
            if (it != oldPlaces.end()) found = it->second;
        }
        if (found < 0) continue;
        newMatch[i] = found;
        oldMatch[static_cast<size_t>(found)] = static_cast<int64_t>(i);
        const DirRow& then = before.dirs[static_cast<size_t>(found)];
        if (then.total.bytes == now.total.bytes && then.total.entries == now.total.entries) {
            diff.unchanged++;
            continue;
        }
        DiffRow& row = diff.changed.emplace_back();
        row.path = DirPath(after.dirs, i);
        row.depth = now.depth;
        row.inOld = row.inNew = true;
        row.before = then.total;
        row.after = now.total;
    }
    diff.appearedDirs = Unmatched(after.dirs, newMatch, false, &diff.appeared);
    diff.vanishedDirs = Unmatched(before.dirs, oldMatch, true, &diff.vanished);
    return diff;
}
