#include "config/configfile.h"

#include <strings.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "config/roots.h"
#include "config/templates.h"
#include "log/log.h"
#include "support/memory.h"

int configEOF = 0;

// The keys of a [ScanRoot] section, in the order ConfigKeyIndex numbers them.
static constexpr const char* configKeys[] = {"path", "includedirs", "excludedirs", "includefiles", "excludefiles"};

int ReadConfigLine(FILE* stream, char* out) {
    int length = 0;
    out[0] = '\0';
    DebugLogEntry(3, "ReadConfigFile called.\n");
    if (configEOF) return 0;

    // A physical line longer than a piece is read in several pieces, and each
    // piece is taken as a line of its own.
    char piece[CONFIG_PIECE_SIZE];
    for (;;) {
        char* got = fgets(piece, sizeof piece, stream);
        if (feof(stream)) configEOF = 1;
        if (!got) {
            if (ferror(stream)) return CONFIG_READ_ERROR;
            break;
        }
        size_t n = strcspn(piece, "#\n");
        if (n == 0) continue;  // an empty line or a comment line
        // Controls, tabs and every byte from 0x80 up become blanks: the file
        // is read as plain ASCII.
        for (size_t i = n; i-- > 0;)
            if (static_cast<signed char>(piece[i]) < ' ') piece[i] = ' ';
        while (n > 0 && piece[n - 1] == ' ') n--;
        if (n == 0) continue;

        bool continued = piece[n - 1] == '_';
        if (continued) n--;
        if (length + static_cast<int>(n) > CONFIG_LINE_MAX) return CONFIG_LINE_TOO_LONG;
        memcpy(out + length, piece, n);
        length += static_cast<int>(n);
        out[length] = '\0';
        if (!continued) break;
    }
    return length;
}

ConfigLineKind SplitConfigLine(char* line, char** key, char** value) {
    // Only a line that begins with '[' is a header: "[ScanRoot]" exactly, in any case.
    if (line[0] == '[') return strcasecmp(line, "[scanroot]") == 0 ? CONFIG_HEADER : CONFIG_UNKNOWN_HEADER;
    char* equals = strchr(line, '=');
    if (!equals) return CONFIG_MISSING_EQUALS;
    char* keyEnd = equals;
    while (keyEnd > line && keyEnd[-1] == ' ') keyEnd--;
    *keyEnd = '\0';
    *key = line + strspn(line, " ");
    *value = equals + 1 + strspn(equals + 1, " ");
    return CONFIG_SETTING;
}

int ConfigKeyIndex(const char* key) {
    for (int i = 0; i < static_cast<int>(std::size(configKeys)); i++)
        if (strcasecmp(key, configKeys[i]) == 0) return i;
    return -1;
}

int SaveString(char** dest, const char* text) {
    size_t length = strlen(text);
    *dest = static_cast<char*>(GetMem(length + 1, "config string"));
    memcpy(*dest, text, length);
    return static_cast<int>(length);
}

void RootLine(const char* key, const char* value, AuditRoot* root) {
    switch (ConfigKeyIndex(key)) {
        case 0:
            // A later path line replaces an earlier one.
            free(root->path);
            SaveString(&root->path, value);
            break;
        case 1: AddIncludeDir(root, value); break;
        case 2: AddExcludeDir(root, value); break;
        case 3: AddIncludeFile(root, value); break;
        case 4: AddExcludeFile(root, value); break;
        default: ErrExit("Unknown AuditRoot keyword: %s\n", key);
    }
}

void ProcessConfigFile(const char* path) {
    FILE* file = fopen(path, "r");
    // No newline here: the system-error line follows on the same line.
    if (!file) PosixErrExit(errno, "Cannot open configuration file '%s'", path);

    configEOF = 0;
    AuditRoot* root = nullptr;  // the section being read
    char line[CONFIG_LINE_MAX + 1];
    int length;
    while ((length = ReadConfigLine(file, line)) > 0) {
        char* key = nullptr;
        char* value = nullptr;
        switch (SplitConfigLine(line, &key, &value)) {
            case CONFIG_HEADER:
                if (rootList) ErrExit("Only one scan root may be specified\n");
                root = NewRoot();
                rootList = rootLast = root;
                break;
            case CONFIG_UNKNOWN_HEADER: ErrExit("Unknown section header: %s\n", line);
            case CONFIG_MISSING_EQUALS: ErrExit("Missing '='\n");
            case CONFIG_SETTING:
                if (!root) ErrExit("Line must be inside a root section\n");
                RootLine(key, value, root);
                break;
        }
    }
    if (length == CONFIG_LINE_TOO_LONG)
        ErrExit("Configuration line longer than %d bytes in '%s'\n", CONFIG_LINE_MAX, path);
    if (length == CONFIG_READ_ERROR) PosixErrExit(0, "Cannot read configuration file '%s'\n", path);
    fclose(file);
}
