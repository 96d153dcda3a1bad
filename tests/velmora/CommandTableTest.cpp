// The shell's words and the option grammar, against every case an operator's text can take.
#include "include/Velmora.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

TEST(CommandTable, RowsInOrder) {
    struct Row {
        const char* name;
        const char* shortName;
        int id;
        bool repeatable;
        bool localOnly;
    } const rows[] = {
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
    };
    for (int i = 0; i < 11; ++i) {
        const ShellCommandEntry& e = _G_ShellCommands[i];
        EXPECT_STREQ(e.szName, rows[i].name) << i;
        EXPECT_STREQ(e.szShortName, rows[i].shortName) << i;
        EXPECT_EQ(e.nCommandID, rows[i].id) << i;
        EXPECT_EQ(e.bRepeatable, rows[i].repeatable) << i;
        EXPECT_EQ(e.bLocalOnly, rows[i].localOnly) << i;
    }
    EXPECT_EQ(_G_ShellCommands[11].szName, nullptr);
    EXPECT_EQ(_G_ShellCommands[11].nCommandID, 0);
}

TEST(CommandTable, GetShellCommandMatchesWholeWordsWithCaseFolded) {
    for (const char* word : {"repeat", "REPEAT", "Repeat"}) EXPECT_EQ(velmora.GetShellCommand(word), 0) << word;
    for (const char* word : {"snapshot", "SNAPSHOT", "sp", "SP"}) EXPECT_EQ(velmora.GetShellCommand(word), 1) << word;
    EXPECT_EQ(velmora.GetShellCommand("changetradesession"), 9);
    EXPECT_EQ(velmora.GetShellCommand("clientstatus"), 11);
    EXPECT_EQ(velmora.GetShellCommand("cs"), 11);
    EXPECT_EQ(velmora.GetShellCommand("P"), 4);
    EXPECT_EQ(velmora.GetShellCommand("Rt"), 6);
    for (const char* word : {"snap", "repeat ", "", "snapshots", "c"}) EXPECT_EQ(velmora.GetShellCommand(word), -1) << '"' << word << '"';
}

namespace {

const char* const kOld = "<old>";
const char* const kNone = "<none>";

struct OptionCase {
    const char* text;     // null for a null pointer
    const char* name;     // kOld: unchanged
    const char* value;    // kOld: unchanged
    const char* result;   // kNone: null; else the text the result points at
};

}  // namespace

TEST(GetCMDOption, EveryFormOfAnOption) {
    const OptionCase cases[] = {
        {nullptr, "", "", kNone},
        {"", kOld, kOld, kNone},
        {"abc def", kOld, kOld, kNone},
        {"-name", "name", "", kNone},
        {"-", "", "", kNone},
        {"-name=value", "name", "value", ""},
        {"-name value", "name", "value", ""},
        {"-name=value rest", "name", "value", " rest"},
        {"abc-name=value", "name", "value", ""},
        {"-name=", "name", kOld, kNone},
        {"-name ", "name", kOld, kNone},
        {"-name=   ", "name", kOld, kNone},
        {"-name    value", "name", "value", ""},
        {"-name=  value", "name", "value", ""},
        {"-name=\"a b\" -x", "name", "a b", " -x"},
        {"-name \"a b\"", "name", "a b", ""},
        {"-name=\"\" -x", "name", kOld, kNone},
        {"-name=\"ab", "", kOld, kNone},
        {"-name\"ab\"", kOld, kOld, kNone},
        {"\"ab\" -name=1", kOld, kOld, kNone},
        {"-=1", kOld, kOld, kNone},
        {"- x", kOld, kOld, kNone},
        {"-a -b", "a", kOld, "-b"},
        {"-a=-5", "a", kOld, "-5"},
        {"--a=1", "-a", "1", ""},
        {"-a=b=c", "a", "b=c", ""},
        {"-a=x-y", "a", "x-y", ""},
        {"-a=b\"c", "a", "b\"c", ""},
        {"-a\tb", "a\tb", "", kNone},
        {"-x=\"p -q=r\"", "x", "p -q=r", ""},
    };
    for (const OptionCase& c : cases) {
        char name[256], value[256];
        strcpy(name, kOld);
        strcpy(value, kOld);
        const char* result = velmora.GetCMDOption(c.text, name, value);
        std::string label = c.text ? c.text : "(null)";
        EXPECT_STREQ(name, c.name) << label;
        EXPECT_STREQ(value, c.value) << label;
        if (c.result == kNone) {
            EXPECT_EQ(result, nullptr) << label;
        } else {
            ASSERT_NE(result, nullptr) << label;
            // The result points into the text itself, not into a copy.
            EXPECT_GE(result, c.text) << label;
            EXPECT_LE(result, c.text + strlen(c.text)) << label;
            EXPECT_STREQ(result, c.result) << label;
        }
    }
}

TEST(GetCMDOption, LoopsSeeWhatTheBuffersKeep) {
    char name[256] = "", value[256] = "";
    // Calling again on the returned terminator changes nothing: a loop that reads the
    // buffers first sees the last option twice.
    const char* text = "-name=value";
    const char* next = velmora.GetCMDOption(text, name, value);
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(velmora.GetCMDOption(next, name, value), nullptr);
    EXPECT_STREQ(name, "name");
    EXPECT_STREQ(value, "value");

    // A quote stops the scan: -b=2 is never reached.
    next = velmora.GetCMDOption("-a=1 \"x\" -b=2", name, value);
    EXPECT_STREQ(name, "a");
    EXPECT_STREQ(value, "1");
    EXPECT_EQ(velmora.GetCMDOption(next, name, value), nullptr);
    EXPECT_STREQ(name, "a");

    // An option without a value leaves the previous value beside the new name.
    next = velmora.GetCMDOption("-a=1 -b -c", name, value);
    next = velmora.GetCMDOption(next, name, value);
    EXPECT_STREQ(name, "b");
    EXPECT_STREQ(value, "1");
    ASSERT_NE(next, nullptr);
    EXPECT_STREQ(next, "-c");
    EXPECT_EQ(velmora.GetCMDOption(next, name, value), nullptr);
    EXPECT_STREQ(name, "c");
    EXPECT_STREQ(value, "");
}

TEST(GetCMDOption, BoundedFormCutsLongNamesAndValues) {
    std::string text = "-" + std::string(300, 'n') + "=" + std::string(400, 'v') + " -next";
    char name[8], value[6];
    memset(name, 'x', sizeof(name));
    memset(value, 'x', sizeof(value));
    const char* next = velmora.GetCMDOption(text.c_str(), name, sizeof(name), value, sizeof(value));
    EXPECT_STREQ(name, "nnnnnnn");
    EXPECT_STREQ(value, "vvvvv");
    ASSERT_NE(next, nullptr);
    EXPECT_STREQ(next, " -next");  // the cut doesn't change where the next call goes on
    // A null text empties both buffers here too.
    EXPECT_EQ(velmora.GetCMDOption(nullptr, name, sizeof(name), value, sizeof(value)), nullptr);
    EXPECT_STREQ(name, "");
    EXPECT_STREQ(value, "");
}
