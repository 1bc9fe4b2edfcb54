// Every entry of a detail file as one row of CSV (RFC 4180, with a header
// row) or one line of NDJSON, for databases and data-frame tools.
//
// The file is streamed: each row is written as its record is read, through
// one buffer, so memory does not grow with the file. Columns, in order:
// path (the real path: root path and path below it), pathHex, kind, uid,
// gid, mode (permission bits, 4 octal digits), size, links, inode, counted
// (whether the size counts in the totals: each hard-linked inode counts at
// its first record only), mtime, mtimeSec, atime, atimeSec, ctime, ctimeSec
// (ISO 8601 UTC and seconds since 1970), target, targetHex (symbolic links).
// pathHex and targetHex hold the exact bytes in hexadecimal when the text is
// not valid UTF-8 (the text column then has U+FFFD for each stray byte) and
// are empty (CSV) or absent (NDJSON) otherwise.
#pragma once

#include <string>

#include "reader/report.h"

enum ExportFormat { EXPORT_CSV, EXPORT_NDJSON };

/// Where the rows go and how it went.
struct ExportSink {
    int fd = -1;         ///< written with write(); -1 keeps everything in `text`
    std::string text;    ///< with fd -1: every byte written
    int writeError = 0;  ///< errno of the first failed write; nothing is written after it
};

/// Writes the rows of the detail file at path to sink (the CSV header row
/// first). scan receives the headers, whether the file was complete, and
/// the fault that ended it. False when it cannot be exported: it cannot be
/// opened, its headers are damaged, or (without partial) it is unfinished
/// or has a fault; the rows before a fault found later have been written.
/// With partial an unfinished or damaged file is exported as far as its
/// records go. A write error stops the export (sink->writeError). With
/// scanColumns every row ends with four more: scanNode, scanRoot (the
/// scan's node and root), scanStart and scanStartSec (its start, ISO 8601
/// UTC and seconds), so that the rows of many scans make one table.
bool ExportEntries(const char* path, ExportFormat format, bool partial, ExportSink* sink, ReportScan* scan,
                   bool scanColumns = false);
