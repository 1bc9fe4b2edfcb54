// The configuration file: one [ScanRoot] section of key = value lines that
// declares the scan root and its include/exclude templates.
#pragma once

#include <cstdio>

struct AuditRoot;

extern int configEOF;  ///< set once ReadConfigLine has met the end of the file

/// Longest logical line, after comments, blanks and continuations are removed.
constexpr int CONFIG_LINE_MAX = 512;
/// Bytes of one physical read: a longer physical line comes in several pieces.
constexpr int CONFIG_PIECE_SIZE = 133;

// ReadConfigLine's results besides a length.
constexpr int CONFIG_LINE_TOO_LONG = -1;  ///< the logical line exceeds CONFIG_LINE_MAX
constexpr int CONFIG_READ_ERROR = -2;     ///< the stream failed; errno says why

/// Reads and builds the root record from the file at path; returns only on
/// success. Every mistake in the file exits 1 with its message.
void ProcessConfigFile(const char* path);

/// Delivers the next logical line into out (CONFIG_LINE_MAX + 1 bytes):
/// comments cut, control and non-ASCII bytes blanked, trailing blanks dropped,
/// lines ending in '_' joined with the next. Returns its length, 0 when the
/// file is used up (configEOF), or CONFIG_LINE_TOO_LONG / CONFIG_READ_ERROR.
int ReadConfigLine(FILE* stream, char* out);

/// What one logical line is.
enum ConfigLineKind {
    CONFIG_HEADER,          ///< "[ScanRoot]" in any case
    CONFIG_UNKNOWN_HEADER,  ///< any other line beginning with '['
    CONFIG_MISSING_EQUALS,  ///< a setting line without '='
    CONFIG_SETTING,         ///< key = value
};

/// Classifies a logical line; for a setting, cuts it in place into *key
/// (blanks around it dropped) and *value (from the first non-blank after '=').
ConfigLineKind SplitConfigLine(char* line, char** key, char** value);

/// 0..4 for the keys path, includedirs, excludedirs, includefiles,
/// excludefiles (any case); -1 for any other key.
int ConfigKeyIndex(const char* key);

/// Applies one setting to root; an unknown key exits 1.
void RootLine(const char* key, const char* value, AuditRoot* root);

/// Stores a heap copy of text in *dest and returns its length.
int SaveString(char** dest, const char* text);
