// Reading a detail file on a thread of its own: the reader reads and checks
// the records a few hundred kilobytes ahead while the caller formats the ones
// before. The export uses it: formatting a row costs more than reading its
// record. The tallies of the other reports cost less than the hand-over
// (measured), so they read on their own thread.
//
// The reading thread copies each directory header and entry record (the
// fixed part, name, link target, depth and whether its size counts) into
// batches of 256 KiB, at most four of them, so memory stays flat however
// large the file; the end marker and the hard-link table are read and
// checked but not handed on. When no thread can be started the records are
// read on the caller's thread instead, with the same results.
#pragma once

#include "reader/dtlread.h"

struct DtlPipe;

/// Starts reading the records of an opened reader (DtlOpen succeeded). The
/// reader belongs to the pipe until DtlPipeFinish.
DtlPipe* DtlPipeStart(DtlReader* reader);

/// The next directory header or entry record, valid until the next call;
/// nullptr once the file is read to its end or its first fault.
const DtlRecord* DtlPipeNext(DtlPipe* pipe);

/// Stops the reading (early, when the caller has stopped taking records),
/// waits for it and frees the pipe. Returns the step that ended it: the
/// reader's DTL_STEP_DONE or DTL_STEP_FAULT (with reader->fault and totals
/// as the reader left them), or DTL_STEP_RECORD when it was stopped early.
DtlStep DtlPipeFinish(DtlPipe* pipe);
