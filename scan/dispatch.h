// File dispatch: the one file record of the run, filled for every record the
// walk produces, completed for directory entries (link flags, owners, link
// target) and handed to the detail writer.
#pragma once

#include <cstdint>

#include "detail/record.h"

struct AuditRoot;

extern FileRecord* logBlk;  ///< the run's file record; created by the first DispatchFile

/// The run's file record (logBlk), created on first use: zero-filled, with
/// its two string objects holding "init".
FileRecord* DispatchRecord();
/// Fills logBlk for one walker event and hands it to LogDetailData; returns
/// what that returns. statBlock may be null (kinds 2 and 3 without counts)
/// or the record's own (RecordStatBlock), and logicalPath may be the
/// record's own dirPath text: what is already in place is not copied again.
int DispatchFile(uint32_t kind, const char* logicalPath, const StatBlock* statBlock, AuditRoot* root);
/// Completes an entry record: the multiple-links and symbolic-link flags and
/// the owner and group in the id table. A symbolic link's target is already
/// in linkTarget: the walk read it when it examined the entry
/// (ReadLinkTarget, scan/readahead.h). Returns the type bits of st_mode
/// (0xA000 for a symbolic link).
uint32_t ProcessFile(FileRecord* record);
