#include "driver/options.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "support/memory.h"

OptionRec cmdOpts[] = {
    {"cfg", OPT_ARG | OPT_ARG_REQUIRED, 0, nullptr, 0},
    {"log", OPT_ARG | OPT_ARG_REQUIRED, 0, nullptr, 0},
    {"err", OPT_ARG | OPT_ARG_REQUIRED, 0, nullptr, 0},
    {"dtl", OPT_ARG | OPT_ARG_REQUIRED, 0, nullptr, 0},
    {"tag", OPT_ARG | OPT_ARG_REQUIRED, 0, nullptr, 0},
    {"p", 0, 0, nullptr, 0},
    {"touch", OPT_ARG | OPT_NUMERIC, 0, nullptr, 0},
    {"f", 0, 0, nullptr, 0},
    {"tmod", 0, 0, nullptr, 0},
    {"zip", 0, 0, nullptr, 0},
    {nullptr, 0, 0, nullptr, 0},
};

int gArgc = 0;
char** gArgv = nullptr;

int strncmpci(const char* a, const char* b, int n) {
    for (int i = 0; i < n; i++) {
        int ca = tolower(static_cast<unsigned char>(a[i]));
        int cb = tolower(static_cast<unsigned char>(b[i]));
        if (ca != cb) return static_cast<signed char>(ca) - static_cast<signed char>(cb);
        if (ca == 0) break;
    }
    return 0;
}

uint32_t CheckOptionTable(int mode, const char* text, OptionRec* table, uint32_t* matchLenOut) {
    uint32_t best = OPT_NOT_FOUND;
    size_t bestLen = 0;
    uint32_t count = 0;
    // ">=" so that among names of equal length the later record wins.
    for (; table[count].optName; count++) {
        const char* name = table[count].optName;
        size_t len = strlen(name);
        if (len == 0 || len < bestLen || len > INT_MAX) continue;
        int diff = (mode & OPT_MODE_FOLD_CASE) ? strncmpci(name, text, static_cast<int>(len))
                                               : strncmp(name, text, len);
        if (diff == 0) {
            best = count;
            bestLen = len;
        }
    }
    if (matchLenOut) *matchLenOut = static_cast<uint32_t>(bestLen);
    // A broken alias chain must not send the parser outside the table.
    for (uint32_t hops = 0; best != OPT_NOT_FOUND && table[best].optFlags == OPT_ALIAS; hops++) {
        uint32_t target = table[best].optArgIndex;
        best = (hops < count && target < count) ? target : OPT_NOT_FOUND;
    }
    if (best == OPT_NOT_FOUND && matchLenOut) *matchLenOut = 0;
    return best;
}

// Converts an argument candidate: signed when it begins with '+' or '-',
// otherwise unsigned, base 0 either way. *value takes the converted value cut
// to 32 bits; the result is true only when the whole text converted.
static bool ConvertNumber(const char* text, uint32_t* value) {
    char* end = nullptr;
    errno = 0;  // a stale ERANGE must not make a good number look bad
    if (text[0] == '+' || text[0] == '-') {
        *value = static_cast<uint32_t>(strtol(text, &end, 0));
    } else {
        *value = static_cast<uint32_t>(strtoul(text, &end, 0));
    }
    return end != text && *end == '\0' && errno != ERANGE;
}

// The no-exit mode's error return: code and element for the caller.
static int Refused(int code, int index, char* element, int* errCodeOut, char** errTextOut) {
    if (errCodeOut) *errCodeOut = code;
    if (errTextOut) *errTextOut = element;
    return index;
}

int ProcessCommandLineElement(int mode, int index, OptionRec* table, int* errCodeOut, char** errTextOut) {
    if (errCodeOut) *errCodeOut = 0;
    int next = index + 1;
    if (index < 0 || index >= gArgc) return next;
    char* element = gArgv[index];
    if (!element || (element[0] != '-' && element[0] != '+')) return next;

    gArgv[index] = nullptr;
    const char prefix = element[0];
    if (element[1] == '?' && (element[2] == 'V' || element[2] == 'v') && element[3] == '\0') ShowVersion();
    if (element[1] == '?' && element[2] == '\0') ShowUsage();

    const bool noExit = mode & OPT_MODE_NO_EXIT;
    // One element may hold several options in a row ("-pf").
    char* cursor = element + 1;
    const size_t wholeLen = strlen(cursor);
    while (*cursor) {
        uint32_t matchLen = 0;
        uint32_t found = CheckOptionTable(mode, cursor, table, &matchLen);
        if (found == OPT_NOT_FOUND) {
            if (noExit) return Refused(OPT_ERR_UNKNOWN, index, element, errCodeOut, errTextOut);
            CommandErr("'%c%s' is an unknown option\n", prefix, cursor);
        }
        OptionRec* rec = &table[found];
        const uint32_t flags = rec->optFlags;
        char* rest = cursor + matchLen;
        cursor = rest;

        // "Other text follows" is judged against the whole element, so only the
        // first option of an element may be a long name followed by more.
        if (matchLen != wholeLen && (matchLen == 1 ? (flags & OPT_SHORT_ALONE) : !(flags & OPT_LONG_JOINED))) {
            if (noExit) return Refused(OPT_ERR_UNKNOWN, index, element, errCodeOut, errTextOut);
            CommandErr("'%s' is an unknown option\n", element);
        }
        uint32_t bits = 0;
        if (prefix == '+') {
            if (!(flags & OPT_PLUS)) {
                if (noExit) return Refused(OPT_ERR_UNKNOWN, index, element, errCodeOut, errTextOut);
                CommandErr("'%c%s' is an unknown option\n", prefix, rec->optName);
            }
            bits |= OPT_PLUS_FORM;
        }

        char* arg = nullptr;
        uint32_t number = 0;
        if (flags & OPT_ARG) {
            char* candidate = nullptr;
            bool attached = false;
            if (!(flags & (OPT_ATTACHED | OPT_ATTACHED_ONLY)) || !*rest) {
                // An earlier option of this element may already have taken the
                // next element, which is then null: no candidate.
                if (!(flags & OPT_ATTACHED_ONLY) && index + 1 < gArgc) candidate = gArgv[index + 1];
            } else {
                candidate = rest;
                attached = true;
                cursor = rest + strlen(rest);
            }
            if (candidate) {
                const bool hasSign = candidate[0] == '+' || candidate[0] == '-';
                if (ConvertNumber(candidate, &number)) {
                    arg = candidate;
                    bits |= OPT_HAS_ARG | OPT_ARG_NUMERIC | (hasSign ? OPT_ARG_SIGNED : 0);
                } else if (attached || !hasSign) {
                    arg = candidate;
                    bits |= OPT_HAS_ARG;
                }
                if (!arg) number = 0;
                // A separate "-x" that is no number is the next option, not an argument.
                if (arg && !attached) {
                    gArgv[index + 1] = nullptr;
                    next = index + 2;
                }
            }
        }

        if ((flags & OPT_FOUND) && !(flags & OPT_MULTIPLE)) {
            if (noExit) return Refused(OPT_ERR_CONFLICT, index, element, errCodeOut, errTextOut);
            if (arg) CommandErr("'%c%s %s' is a conflicting option\n", prefix, rec->optName, arg);
            CommandErr("'%c%s' is a conflicting option\n", prefix, rec->optName);
        }
        if ((flags & OPT_ARG_REQUIRED) && !arg) {
            if (noExit) return Refused(OPT_ERR_NO_ARG, index, element, errCodeOut, errTextOut);
            CommandErr("'%c%s' requires an argument\n", prefix, rec->optName);
        }
        if ((flags & OPT_NUMERIC) && !(bits & OPT_ARG_NUMERIC)) {
            if (noExit) return Refused(OPT_ERR_NOT_NUMERIC, index, element, errCodeOut, errTextOut);
            CommandErr("'%c%s' arguments must be numeric\n", prefix, rec->optName);
        }

        if (flags & OPT_MULTIPLE) {
            auto* occ = static_cast<OptionOccurrence*>(GetMem(sizeof(OptionOccurrence), "ProcessCommandLineElement"));
            occ->flags = flags | bits | OPT_FOUND;
            occ->argIndex = static_cast<uint32_t>(index);
            occ->arg = arg;
            occ->number = number;
            auto** tail = reinterpret_cast<OptionOccurrence**>(&rec->optArg);
            while (*tail) tail = &(*tail)->next;
            *tail = occ;
            rec->optFlags = flags | OPT_FOUND;
            rec->optNumber++;
        } else {
            rec->optFlags = flags | bits | OPT_FOUND;
            rec->optArgIndex = static_cast<uint32_t>(index);
            rec->optArg = arg;
            rec->optNumber = number;
        }
    }
    return next;
}

int ParseCommandLineEx(int mode, int argc, char** argv, OptionRec* table, char** errTextOut) {
    gArgc = argc;
    gArgv = argv;
    int errCode = 0;
    for (int index = 1; index < argc;) {
        index = ProcessCommandLineElement(mode, index, table, &errCode, errTextOut);
        if (errCode) return errCode;
    }
    if ((mode & OPT_MODE_NO_EXIT) && errTextOut) *errTextOut = nullptr;
    return 0;
}

void ParseCommandLine(int argc, char** argv, OptionRec* table) { ParseCommandLineEx(0, argc, argv, table, nullptr); }

void CommandErr(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    vfprintf(stderr, format, ap);
    va_end(ap);
    exit(1);
}
