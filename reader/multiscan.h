// Reports over several detail files: the scans of many servers or roots
// summed into one report, and the successive scans of one tree followed over
// time (trend).
//
// The files are read one after the other and each one's directories are let
// go once the rows it may show are kept, so memory follows the largest scan
// and the rows shown, not the sum of all the scans.
#pragma once

#include <string>
#include <vector>

#include "reader/report.h"
#include "reader/reportprint.h"

/// The line that refuses a file (without "dtldump: " and the line feed):
/// "FILE: offset N: what is wrong", or "FILE: what is wrong" when the file
/// could not be opened.
std::string FaultLine(const std::string& path, bool opened, const DtlFault& fault);
std::string FaultLine(const ReportScan& scan);

/// A scan's head, status and totals without its rows and tallies.
ReportScan HeadOf(const ReportScan& scan);

/// True when two scans are of one tree: the same root path on the same node.
bool SameTree(const ReportScan& a, const ReportScan& b);

/// What two scans are of, for a message: FILE is of "/root" on "node", ...
std::string TreesOf(const ReportScan& a, const ReportScan& b);

/// Opens each file and reads its headers only (node, root, start time),
/// checking them. False with *error filled (a FaultLine) on the first that
/// cannot be read; the heads read so far stay in *heads.
bool ReadHeads(const std::vector<const char*>& paths, bool partial, std::vector<ReportScan>* heads, std::string* error);

/// Reads every file with what options ask for and sums the figures into
/// *sum, a report whose parts are the scans (see ReportScan::parts): totals,
/// owners by number, ages, kinds and extensions added up; of the directories
/// only those the printing options could rank among the rows shown (by size
/// or entries, and by cold bytes when ages are on). False with *error
/// filled when a file cannot be reported on (its FaultLine) or when two of
/// them are scans of one tree (the same node and root), whose figures
/// would count the same entries twice.
bool ReadScans(const std::vector<const char*>& paths, const ReportOptions& options, const PrintOptions& print,
               ReportScan* sum, std::string* error);

/// Successive scans of one tree, in the order of their start times.
struct Trend {
    std::vector<ReportScan> scans;  ///< heads and totals, earliest first; no rows
    ReportScan first, last;         ///< the earliest and the latest scan with their directories
    ScanDiff diff;                  ///< the directories of first and last compared
    double days = 0;                ///< from the first scan's start to the last one's
};

/// Reads the files as successive scans of one tree: every file is checked
/// whole, the earliest and the latest with their directories. False with
/// *error filled when a file cannot be reported on, or when the files are
/// not all scans of one root on one node.
bool ReadTrend(const std::vector<const char*>& paths, bool partial, Trend* trend, std::string* error);

/// trend: totals per scan, and the directories that grew or shrank most
/// from the first scan to the last, with the change per day.
void PrintTrend(std::string* out, const Trend& trend, const PrintOptions& options);

/// A byte change spread over days, rounded to whole bytes (0 when days is 0).
int64_t PerDay(int64_t change, double days);
