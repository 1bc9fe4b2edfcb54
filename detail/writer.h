// The detail-file writer: lays down the headers before the walk, appends one
// record per walker event, completes each directory's header record when the
// walk leaves it, and finishes the file ("FDTL") when the root is done.
#pragma once

#include <cstdint>

struct AuditRoot;
struct FileRecord;
struct TemplateRec;

extern int32_t headerStrOffset;      ///< where the next header string goes; 284 at start
extern unsigned char* logHdr;        ///< the 88-byte log header, kept for the final rewrite
extern uint64_t hlinkFilePos;        ///< bytes written to hlinkFile so far
extern uint64_t dirPathStack[100];   ///< offsets of the header records of the open directories
extern int32_t dirPathStackPtr;      ///< top of dirPathStack; -1 when empty
extern const char* dtlFileName;      ///< the detail file's name, for messages

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
