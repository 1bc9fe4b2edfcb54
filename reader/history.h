// The HTML report's history (dtldump html --history): the size of the
// page's root and of its largest top-level directories in every scan of the
// same tree, drawn beside the treemap as small line charts.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "reader/report.h"

/// How many top-level directories the history follows, largest first.
constexpr size_t HISTORY_ROWS = 12;

/// Sizes over time.
struct History {
    std::vector<ReportScan> scans;            ///< heads and totals, earliest first; the page's scan among them
    std::vector<std::string> paths;           ///< logical paths: "/", then the directories followed
    std::vector<std::vector<int64_t>> bytes;  ///< per path, per scan: its size; -1 where the scan has no such directory
};

/// Reads the earlier scans in files, one after the other (each checked
/// whole, its directories let go once the followed ones are found), for the
/// page's scan, read with its directories. False with *error filled when a
/// file cannot be reported on or is not a scan of the page's root on its
/// node.
bool ReadHistory(const ReportScan& page, const std::vector<const char*>& files, bool partial, History* history,
                 std::string* error);

/// The history as an HTML section: a table with one row per directory, its
/// size in each scan as a line chart (inline SVG, each point titled with
/// its scan's start and size), first and last size, change and change per day.
std::string HistoryHtml(const History& history);
