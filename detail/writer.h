// The detail-file writer: lays down the headers before the walk, appends one
// record per walker event, completes each directory's header record when the
// walk leaves it, and finishes the file ("FDTL") when the root is done. It
// also keeps the hard-link chain: every entry with two or more links is
// chained to the earlier entries of its inode (found in the hard-link table,
// detail/hardlinks.h) through hlinkFile, and the chain is copied behind the
// records at the end.
//
// The writer adds to the root record it is handed: hardLinkCount (entries
// with FLAG_MULTI_LINK), totalFileSize (sizes of the entries, each
// hard-linked inode once) and symlinkCount. The walk keeps the other counts.
#pragma once

#include <cstdint>
#include <cstdio>
#include <ctime>

struct AuditRoot;
struct FileRecord;
struct TemplateRec;

/// Deepest nesting of open directories the writer keeps positions for; the
/// walk never enters a directory deeper than this.
constexpr int DTL_MAX_OPEN_DIRS = 100;

extern FILE* dtlFile;                ///< the detail file, open for update (DtlWriterOpen)
extern const char* dtlFileName;      ///< the detail file's name, for messages
extern char* tagStr;                 ///< 31-character tag, blank-padded, zero-terminated (DtlWriterOpen)
extern time_t timeStamp;             ///< start time of the run, stored in the log header (DtlWriterOpen)
extern char* compiledArchitecture;   ///< architecture text of the version header (DtlWriterOpen)
extern int32_t headerStrOffset;      ///< where the next header string goes; 284 at start
extern unsigned char* logHdr;        ///< the 88-byte log header, kept for the final rewrite
extern FILE* hlinkFile;              ///< anonymous temporary file collecting hard-link entries
extern uint64_t hlinkFilePos;        ///< bytes written to hlinkFile so far
extern uint64_t dirPathStack[DTL_MAX_OPEN_DIRS];  ///< offsets of the header records of the open directories
extern int32_t dirPathStackPtr;      ///< top of dirPathStack; -1 when empty

/// Takes the run's detail file (stream open for update, name for messages)
/// and what its headers record: the start time, the tag (null: none; it is
/// padded to 31 blanks) and the architecture text.
void DtlWriterOpen(FILE* stream, const char* name, time_t runTime, const char* tag, const char* architecture);

/// Opens the hard-link table (detail/hardlinks.h: its hash table and
/// hlinkTree) and hlinkFile; exits 1 when either fails.
void HardLinkTableOpen();
/// Frees the hard-link table and hlinkTree's page files.
void HardLinkTableFree();

/// Writes one header string at headerStrOffset, advances it, and returns the
/// offset at which the string was written.
uint32_t WriteHeaderString(const char* str);
/// Writes the written texts of a template list as header strings and one
/// empty string; returns the offset of the first.
uint32_t WriteIncludeExcludeList(const TemplateRec* list);
/// Writes root's header strings and its 120-byte root header.
void WriteRootHeader(AuditRoot* root);
/// Writes the 76-byte version header.
void WriteVersionHeader();
/// Writes everything in front of the first record; the next record goes to
/// the end of the header strings.
void WriteLogHeaders();
/// The detail-file offset at which the next record will be written.
int64_t DtlPosition();
/// Writes or completes the record for one walker event; returns 0.
int LogDetailData(FileRecord* record);
/// Writes the end marker and the hard-link table, patches the root totals and
/// marks the file finished ("FDTL").
void LogRootTotals(AuditRoot* root);
