// Small helpers around the C library: stream positions, path order,
// temporary names, directory creation, file copy, decimal parsing and reading
// a secret line from the terminal. Nothing here knows about scans.
#pragma once

#include <cstdint>
#include <cstdio>

extern char* tempDir;  ///< directory for temporary names when TMPDIR names none; null = the system's
extern char* tempId;   ///< prefix for temporary names; null = the caller's base

/// The stream's position as a 64-bit byte offset; returns 0 or -1.
int fGetpos(FILE* stream, int64_t* pos);
/// Moves the stream to a 64-bit byte offset; returns 0 or -1.
int fSetpos(FILE* stream, const int64_t* pos);

/// Compares at most n bytes in path order: '/' sorts before every other byte
/// but after the end of a string. 0 when equal.
int PathNCmp(const char* a, const char* b, size_t n);
/// PathNCmp over the shorter length + 1 bytes, so the terminator takes part.
int PathCmp(const char* a, const char* b);

/// A fresh path in the temporary directory, chosen as tempnam chooses it
/// (TMPDIR, else tempDir, else the system's), whose file name starts with up
/// to five characters of the prefix (tempId, or "tempId.base" when both are
/// set, else base). Allocated with malloc; the caller creates the file
/// exclusively.
char* DefinedTempName(const char* base);

/// An unnamed read-write stream like tmpfile's, but in the directory
/// DefinedTempName would choose, so that TMPDIR keeps a large scan's
/// temporary data off a RAM-backed /tmp (tmpfile always uses /tmp). Nothing
/// of it is ever left behind. Null with errno when it cannot be made.
FILE* AnonymousTempFile();

/// Creates every missing directory of path (mode 0700); failures are ignored.
void MkdirRecursive(const char* path);

/// Copies the file from onto to (created or truncated, mode 0666).
/// Returns 0, or -1 with errno from the failing call.
int cp(const char* to, const char* from);

/// Decimal digits from the first character: no sign, no blanks, no overflow
/// check. *end (when given) points to the first non-digit.
uint64_t strtoul64(const char* s, char** end);
/// strtoul64 for wide strings.
uint64_t wcstoul64(const wchar_t* ws, wchar_t** end);

/// Reads a line from standard input with echo and line editing off, printing
/// '*' per character kept (at most size - 1). Returns the control character
/// that ended the line, or 0 when the buffer filled.
int GetSecure(char* buf, int size);
