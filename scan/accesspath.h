// The access-path builder: joins a base (the scan root), a logical directory
// path below it and an entry name into the path the file system is given,
// optionally also behind a prefix, in memory the caller provides.
#pragma once

#include <cstddef>

/// The built paths: two pointers, then the texts they point to (the
/// prefixed path first), each zero-terminated, all in the caller's memory.
struct AccessPaths {
    char* prefixedPath;  ///< prefix + middle + name; null when no prefix was given
    char* accessPath;    ///< base + middle + name; null when no base was given
};
static_assert(sizeof(AccessPaths) == 16);
static_assert(offsetof(AccessPaths, prefixedPath) == 0);
static_assert(offsetof(AccessPaths, accessPath) == 8);

/// Bytes BuildAccessPaths needs for the same arguments (any may be null):
/// A + B + 2 x (C + D), with A = 16, or strlen(prefix) + 17 with a prefix;
/// B = strlen(base) + 1 or 0; C = strlen(path) + 2 or 0; D = strlen(name) or 0.
/// The one combination that formula undercounts (prefix and base with a name
/// but no path) gets the exact need instead.
int AccessStructLength(const char* prefix, const char* base, const char* path, const char* name);

/// Builds the paths into out (at least AccessStructLength bytes, aligned for
/// pointers; callers reserve whole 16-byte units) and returns it. The middle
/// part is "/" for a null, empty or lone-separator path, else "/" + the path
/// without one leading '/' or '\' + "/" (left out when the path already ends
/// in a separator). One leading separator of the name is skipped; without a
/// name the middle part loses its last character. Every '\' becomes '/'.
/// Examples with base /vol/data: ("/", no name) gives /vol/data; ("/a/b", no
/// name) /vol/data/a/b; ("/a/b", "f") /vol/data/a/b/f; ("/", "f") /vol/data/f.
AccessPaths* BuildAccessPaths(const char* prefix, const char* base, const char* path, const char* name, void* out);
