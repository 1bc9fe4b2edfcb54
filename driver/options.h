// The table-driven command-line parser: it marks the table records of the
// options it meets, stores their arguments, and erases every element it
// consumed from argv so that only non-option words remain.
#pragma once

#include <cstddef>
#include <cstdint>

/// One option of a table; the table ends with a record whose name is null.
struct OptionRec {
    const char* optName;   ///< name without the prefix character
    uint32_t optFlags;     ///< static OPT_ bits from the table plus the parser's result bits
    uint32_t optArgIndex;  ///< argv index where the option stood; for an alias: index of the real record
    char* optArg;          ///< argument text (null: none); for OPT_MULTIPLE: head of the occurrence list
    uint32_t optNumber;    ///< numeric value of the argument; for OPT_MULTIPLE: number of occurrences
};
static_assert(sizeof(OptionRec) == 32);
static_assert(offsetof(OptionRec, optName) == 0);
static_assert(offsetof(OptionRec, optFlags) == 8);
static_assert(offsetof(OptionRec, optArgIndex) == 12);
static_assert(offsetof(OptionRec, optArg) == 16);
static_assert(offsetof(OptionRec, optNumber) == 24);

/// One occurrence of a repeatable option, appended to its record's list.
struct OptionOccurrence {
    OptionOccurrence* next;  ///< next occurrence; null at the tail
    uint32_t flags;          ///< flags of this occurrence
    uint32_t argIndex;       ///< argv index of the element
    char* arg;               ///< argument text or null
    uint32_t number;         ///< numeric value of the argument
};
static_assert(sizeof(OptionOccurrence) == 32);
static_assert(offsetof(OptionOccurrence, flags) == 8);
static_assert(offsetof(OptionOccurrence, argIndex) == 12);
static_assert(offsetof(OptionOccurrence, arg) == 16);
static_assert(offsetof(OptionOccurrence, number) == 24);

// Static bits of optFlags, set in the table.
constexpr uint32_t OPT_ARG = 0x1;              ///< takes an argument
constexpr uint32_t OPT_ARG_REQUIRED = 0x2;     ///< the argument must be present
constexpr uint32_t OPT_NUMERIC = 0x4;          ///< the argument must be a number
constexpr uint32_t OPT_PLUS = 0x8;             ///< may be written with '+'
constexpr uint32_t OPT_MULTIPLE = 0x10;        ///< may occur more than once
constexpr uint32_t OPT_ATTACHED = 0x20;        ///< the argument may follow the name in its element
constexpr uint32_t OPT_ATTACHED_ONLY = 0x40;   ///< the argument is only taken from behind the name
constexpr uint32_t OPT_LONG_JOINED = 0x80;     ///< a long name may have text behind it
constexpr uint32_t OPT_SHORT_ALONE = 0x100;    ///< a one-character name may not have text behind it
constexpr uint32_t OPT_ALIAS = 0x200;          ///< as the whole flags value: an alias record
// Result bits, set by the parser.
constexpr uint32_t OPT_FOUND = 0x10000;        ///< the option occurred
constexpr uint32_t OPT_HAS_ARG = 0x20000;      ///< an argument was taken
constexpr uint32_t OPT_ARG_NUMERIC = 0x40000;  ///< the argument converted completely to a number
constexpr uint32_t OPT_ARG_SIGNED = 0x80000;   ///< it began with '+' or '-' and was converted as signed
constexpr uint32_t OPT_PLUS_FORM = 0x100000;   ///< written with '+'

// Mode bits of ParseCommandLineEx, ProcessCommandLineElement and CheckOptionTable.
constexpr int OPT_MODE_NO_EXIT = 0x1;    ///< report errors through the out-parameters instead of exiting
constexpr int OPT_MODE_FOLD_CASE = 0x2;  ///< compare option names with strncmpci

/// CheckOptionTable's answer when no record matches.
constexpr uint32_t OPT_NOT_FOUND = 0xFFFFFFFF;

// Error codes of the no-exit mode.
constexpr int OPT_ERR_UNKNOWN = 1;
constexpr int OPT_ERR_CONFLICT = 2;
constexpr int OPT_ERR_NO_ARG = 3;
constexpr int OPT_ERR_NOT_NUMERIC = 4;

/// Indexes of the program's options in cmdOpts.
enum CmdOptIndex { CMD_CFG, CMD_LOG, CMD_ERR, CMD_DTL, CMD_TAG, CMD_P, CMD_TOUCH, CMD_F, CMD_TMOD, CMD_ZIP };

extern OptionRec cmdOpts[];  ///< the program's option table
extern int gArgc;            ///< argc as given to ParseCommandLine
extern char** gArgv;         ///< argv as given to ParseCommandLine

/// Parses argv[1..] against table in mode 0; every error is reported on
/// standard error and exits 1, so it returns only on success. Consumed
/// elements are set to null in argv. The table's result bits must be clear.
void ParseCommandLine(int argc, char** argv, OptionRec* table);
/// Parses with the caller's mode (0x1: return errors, 0x2: ignore case);
/// returns 0 or the first error code, with *errTextOut naming the element.
int ParseCommandLineEx(int mode, int argc, char** argv, OptionRec* table, char** errTextOut);
/// Handles gArgv[index] and returns the index of the next element to look at;
/// after an error in the no-exit mode it returns index itself.
int ProcessCommandLineElement(int mode, int index, OptionRec* table, int* errCodeOut, char** errTextOut);
/// Index of the table record that best matches the start of text (following
/// an alias), or OPT_NOT_FOUND; *matchLenOut receives the matched length
/// (0 when none). Records with an empty name never match; an alias whose
/// chain leaves the table or loops matches nothing.
uint32_t CheckOptionTable(int mode, const char* text, OptionRec* table, uint32_t* matchLenOut);
/// Case-insensitive comparison of at most n characters; 0 when n < 1.
int strncmpci(const char* a, const char* b, int n);
/// Prints the message on standard error and exits 1.
[[noreturn]] void CommandErr(const char* format, ...) __attribute__((format(printf, 1, 2)));
/// Prints the usage text on standard output and exits 0.
[[noreturn]] void ShowUsage();
/// Prints the version text on standard output and exits 0.
[[noreturn]] void ShowVersion();
