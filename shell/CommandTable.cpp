// The shell's vocabulary and its one option grammar.
#include "core/AsciiText.h"
#include "shell/CommandTable.h"

#include <cstdint>

const ShellCommandEntry _G_ShellCommands[12] = {
    {"snapshot", "sp", 1, true, false},
    {"feed", "fd", 2, false, false},
    {"counter", "ct", 3, true, false},
    {"ping", "p", 4, true, true},
    {"depth", "dp", 5, true, false},
    {"runtime", "rt", 6, true, true},
    {"config", "cf", 7, false, true},
    {"mdstorage", "ms", 8, false, false},
    {"ChangeTradeSession", "ChangeTradeSession", 9, false, false},
    {"quotemaker", "qm", 10, false, false},
    {"clientstatus", "cs", 11, true, false},
    {nullptr, nullptr, 0, false, false},
};

namespace velmora_core {

// The row of a word (full word first, then the short one), or the end row.
const ShellCommandEntry* FindShellCommand(const char* szWord) {
    const ShellCommandEntry* row = _G_ShellCommands;
    for (; row->szName; ++row) {
        if (AsciiEqualNoCase(row->szName, szWord) || AsciiEqualNoCase(row->szShortName, szWord))
            break;
    }
    return row;
}

}  // namespace velmora_core

int CVelmora::GetShellCommand(const char* szCommand) {
    if (velmora_core::AsciiEqualNoCase(szCommand, "repeat")) return 0;
    const ShellCommandEntry* row = velmora_core::FindShellCommand(szCommand);
    return row->szName ? row->nCommandID : -1;
}

const char* CVelmora::GetCMDOption(const char* szText, char* szOption, char* szValue) {
    return GetCMDOption(szText, szOption, SIZE_MAX, szValue, SIZE_MAX);
}

// One pass over the text. A blank is 0x20 alone; a tab is an ordinary character. Which
// buffer is written, and when, is part of the grammar: a caller's loop that looks at the
// buffers before the result relies on a buffer keeping its old content in the other cases.
const char* CVelmora::GetCMDOption(const char* szText, char* szOption, size_t nOptionSize,
                                   char* szValue, size_t nValueSize) {
    using velmora_core::CopyRange;
    if (!szText) {
        CopyRange(szOption, nOptionSize, "", "");
        CopyRange(szValue, nValueSize, "", "");
        return nullptr;
    }
    // An option opens with '-' anywhere, even inside a word; a quote ends the search.
    const char* p = szText;
    while (*p && *p != '-' && *p != '"') ++p;
    if (*p != '-') return nullptr;

    const char* name = p + 1;
    const char* delimiter = name;
    while (*delimiter && *delimiter != ' ' && *delimiter != '=' && *delimiter != '"') ++delimiter;
    if (*delimiter == '\0') {
        CopyRange(szOption, nOptionSize, name, delimiter);
        CopyRange(szValue, nValueSize, "", "");
        return nullptr;
    }
    if (*delimiter == '"' || delimiter == name) return nullptr;
    CopyRange(szOption, nOptionSize, name, delimiter);

    const char* value = delimiter + 1;
    if (*value == ' ')
        while (*value == ' ') ++value;
    if (*value == '\0') return nullptr;
    if (*value == '"') {
        const char* closing = value + 1;
        while (*closing && *closing != '"') ++closing;
        if (*closing == '\0') {
            CopyRange(szOption, nOptionSize, "", "");
            return nullptr;
        }
        if (closing == value + 1) return nullptr;
        CopyRange(szValue, nValueSize, value + 1, closing);
        return closing + 1;
    }
    // A '-' where the value would start opens the next option: this one has no value.
    if (*value == '-') return value;
    const char* end = value;
    while (*end && *end != ' ') ++end;
    CopyRange(szValue, nValueSize, value, end);
    return end;
}
