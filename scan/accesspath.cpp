#include "scan/accesspath.h"

#include <cstring>
#include <string_view>

static bool IsSeparator(char c) { return c == '/' || c == '\\'; }

// The two parts that follow the prefix or base: "/" + rest + "/" (the last
// one only when rest does not already end in a separator); without a name
// the middle's last character is dropped.
struct PathTail {
    std::string_view rest;   ///< the logical path without its leading separator
    bool closingSlash;       ///< a "/" follows rest
    bool leadingSlash;       ///< the middle part starts with "/"
    std::string_view name;   ///< the name without its leading separator
};

static PathTail SplitTail(const char* path, const char* name) {
    PathTail t{};
    std::string_view rest = path ? path : "";
    if (!rest.empty() && IsSeparator(rest.front())) rest.remove_prefix(1);
    t.leadingSlash = true;
    if (!rest.empty()) {
        t.rest = rest;
        t.closingSlash = !IsSeparator(rest.back());
    }
    if (name) {
        t.name = name;
        if (!t.name.empty() && IsSeparator(t.name.front())) t.name.remove_prefix(1);
        return t;
    }
    // No name: drop the middle part's final character, its trailing separator.
    if (t.closingSlash) {
        t.closingSlash = false;
    } else if (!t.rest.empty()) {
        t.rest.remove_suffix(1);
    } else {
        t.leadingSlash = false;
    }
    return t;
}

static size_t TailLength(const PathTail& t) {
    return (t.leadingSlash ? 1 : 0) + t.rest.size() + (t.closingSlash ? 1 : 0) + t.name.size();
}

int AccessStructLength(const char* prefix, const char* base, const char* path, const char* name) {
    size_t a = prefix ? strlen(prefix) + 17 : 16;
    size_t b = base ? strlen(base) + 1 : 0;
    size_t c = path ? strlen(path) + 2 : 0;
    size_t d = name ? strlen(name) : 0;
    size_t formula = a + b + 2 * (c + d);
    // A null path still yields the middle "/", which C does not count: with
    // both strings stored that is two bytes more than the formula gives.
    size_t tail = TailLength(SplitTail(path, name));
    size_t exact = sizeof(AccessPaths) + (prefix ? strlen(prefix) + tail + 1 : 0) + (base ? strlen(base) + tail + 1 : 0);
    return static_cast<int>(formula > exact ? formula : exact);
}

// Writes head + tail at dst with every '\' turned into '/'; returns the byte
// after the terminator.
static char* StorePath(char* dst, const char* head, const PathTail& t) {
    char* p = dst;
    auto put = [&p](std::string_view s) {
        for (char c : s) *p++ = c == '\\' ? '/' : c;
    };
    put(head);
    if (t.leadingSlash) *p++ = '/';
    put(t.rest);
    if (t.closingSlash) *p++ = '/';
    put(t.name);
    *p++ = '\0';
    return p;
}

AccessPaths* BuildAccessPaths(const char* prefix, const char* base, const char* path, const char* name, void* out) {
    auto* paths = static_cast<AccessPaths*>(out);
    PathTail tail = SplitTail(path, name);
    char* text = reinterpret_cast<char*>(paths + 1);
    paths->prefixedPath = nullptr;
    paths->accessPath = nullptr;
    if (prefix) {
        paths->prefixedPath = text;
        text = StorePath(text, prefix, tail);
    }
    if (base) {
        paths->accessPath = text;
        StorePath(text, base, tail);
    }
    return paths;
}
