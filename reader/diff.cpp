// The comparison of two scans of one root, directory by directory.
#include <string_view>
#include <unordered_map>

#include "reader/report.h"

namespace {

using PathIndex = std::unordered_map<std::string_view, uint32_t>;

PathIndex IndexPaths(const std::vector<DirRow>& dirs) {
    PathIndex index;
    index.reserve(dirs.size());
    for (uint32_t i = 0; i < dirs.size(); i++) index.emplace(dirs[i].path, i);
    return index;
}

// The directories of `side` that the other scan lacks, as rows for their
// topmost ones (whose parent the other scan has), each with the number of
// such directories below it. Returns how many there are in all.
uint64_t Unmatched(const std::vector<DirRow>& side, const std::vector<bool>& matched, bool inOld,
                   std::vector<DiffRow>* rows) {
    std::vector<int64_t> topRow(side.size(), -1);  // the row of a directory's topmost unmatched ancestor
    uint64_t count = 0;
    for (size_t i = 0; i < side.size(); i++) {
        if (matched[i]) continue;
        count++;
        const DirRow& d = side[i];
        int64_t top = i ? topRow[d.parent] : -1;
        if (top >= 0) {
            (*rows)[static_cast<size_t>(top)].dirsInside++;
            topRow[i] = top;
            continue;
        }
        DiffRow& row = rows->emplace_back();
        row.path = d.path;
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
    PathIndex oldIndex = IndexPaths(before.dirs);
    std::vector<bool> oldMatched(before.dirs.size()), newMatched(after.dirs.size());
    for (size_t i = 0; i < after.dirs.size(); i++) {
        const DirRow& now = after.dirs[i];
        auto it = oldIndex.find(now.path);
        if (it == oldIndex.end()) continue;
        const DirRow& then = before.dirs[it->second];
        oldMatched[it->second] = newMatched[i] = true;
        if (then.total.bytes == now.total.bytes && then.total.entries == now.total.entries) {
            diff.unchanged++;
            continue;
        }
        DiffRow& row = diff.changed.emplace_back();
        row.path = now.path;
        row.depth = now.depth;
        row.inOld = row.inNew = true;
        row.before = then.total;
        row.after = now.total;
    }
    diff.appearedDirs = Unmatched(after.dirs, newMatched, false, &diff.appeared);
    diff.vanishedDirs = Unmatched(before.dirs, oldMatched, true, &diff.vanished);
    return diff;
}
