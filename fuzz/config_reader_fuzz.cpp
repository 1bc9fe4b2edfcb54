// Fuzz target for the configuration reader: the input is read as a
// configuration file by ReadConfigLine, each logical line is cut by
// SplitConfigLine, and every known setting is applied by RootLine to a
// scratch root. A mistake ends the process, which libFuzzer takes for a
// failure (and forking would lose the coverage that steers it), so only the
// pieces below those exits run here; the unit and end-to-end tests cover them.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "config/configfile.h"
#include "config/roots.h"
#include "config/templates.h"
#include "fuzz/memoryfile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;  // fmemopen needs a buffer
    std::vector<char> content(data, data + size);
    FILE* stream = fmemopen(content.data(), content.size(), "r");
    if (!stream) return 0;

    configEOF = 0;
    AuditRoot* root = NewRoot();
    char line[CONFIG_LINE_MAX + 1];
    int length;
    while ((length = ReadConfigLine(stream, line)) > 0) {
        Check(length <= CONFIG_LINE_MAX && static_cast<size_t>(length) == strlen(line));
        for (int i = 0; i < length; i++) {
            auto c = static_cast<unsigned char>(line[i]);
            Check(c >= ' ' && c < 0x80 && c != '#' && c != '\n');
        }

        char* key = nullptr;
        char* value = nullptr;
        bool bracket = line[0] == '[';
        ConfigLineKind kind = SplitConfigLine(line, &key, &value);
        Check((kind == CONFIG_HEADER || kind == CONFIG_UNKNOWN_HEADER) == bracket);
        if (kind != CONFIG_SETTING) continue;
        Check(!strchr(key, '=') && key[0] != ' ' && (!*key || key[strlen(key) - 1] != ' '));
        Check(value[0] != ' ');

        int index = ConfigKeyIndex(key);
        if (index < 0) continue;  // RootLine would end the run here
        RootLine(key, value, root);
        if (index == 0) {
            Check(strcmp(root->path, value) == 0);
            continue;
        }
        TemplateRec* added = index == 1 ? root->includeDirs
                             : index == 2 ? root->excludeDirs
                             : index == 3 ? root->includeFiles
                                          : root->excludeFiles;
        Check(strcmp(added->origText, value) == 0 && added->matchLength <= added->origLength);
        // A value without wildcards, escapes or code bytes is a plain text that must match itself.
        if (!strpbrk(value, "*?~'\x01\x02\x03")) Check(TemplateMatch(value, added->matchText, 0) == 1);
    }
    Check(length == 0 || length == CONFIG_LINE_TOO_LONG);
    for (TemplateRec* list : {root->includeDirs, root->excludeDirs, root->includeFiles, root->excludeFiles})
        for (TemplateRec* next; list; list = next) next = list->next, free(list);
    free(root->path);
    free(root);
    fclose(stream);
    return 0;
}
