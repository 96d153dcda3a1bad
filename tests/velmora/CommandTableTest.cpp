// The shell's words and its option grammar.
#include "include/Velmora.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

TEST(CommandTable, RowsAndWords) {
    std::string rows;  // name/short name/id, R repeatable, L local only
    for (const ShellCommandEntry* e = _G_ShellCommands; e->szName; ++e)
        rows += std::string(e->szName) + "/" + e->szShortName + "/" + std::to_string(e->nCommandID) + (e->bRepeatable ? "R" : "") +
                (e->bLocalOnly ? "L" : "") + " ";
    EXPECT_EQ(rows, "snapshot/sp/1R feed/fd/2 counter/ct/3R ping/p/4RL depth/dp/5R runtime/rt/6RL config/cf/7L mdstorage/ms/8 "
                    "ChangeTradeSession/ChangeTradeSession/9 quotemaker/qm/10 clientstatus/cs/11R ");
    const std::pair<const char*, int> words[] = {{"repeat", 0}, {"REPEAT", 0}, {"SNAPSHOT", 1}, {"Sp", 1}, {"P", 4},
        {"changetradesession", 9}, {"cs", 11}, {"snap", -1}, {"repeat ", -1}, {"", -1}, {"snapshots", -1}};
    for (const auto& [word, id] : words) EXPECT_EQ(velmora.GetShellCommand(word), id) << '"' << word << '"';
}

// Per text: name and value buffers ("<old>": kept) and where the next call goes on ("<none>": null).
TEST(GetCMDOption, EveryFormOfAnOption) {
    struct Case { const char *text, *name, *value, *result; } const cases[] = {
        {nullptr, "", "", "<none>"}, {"", "<old>", "<old>", "<none>"}, {"abc def", "<old>", "<old>", "<none>"}, {"-name", "name", "", "<none>"},
        {"-", "", "", "<none>"}, {"-name=value", "name", "value", ""}, {"-name value", "name", "value", ""}, {"-name=", "name", "<old>", "<none>"},
        {"-name=value rest", "name", "value", " rest"}, {"abc-name=value", "name", "value", ""}, {"-name ", "name", "<old>", "<none>"},
        {"-name=   ", "name", "<old>", "<none>"}, {"-name    value", "name", "value", ""}, {"-name=  value", "name", "value", ""},
        {"-name=\"a b\" -x", "name", "a b", " -x"}, {"-name \"a b\"", "name", "a b", ""}, {"-name=\"\" -x", "name", "<old>", "<none>"},
        {"-name=\"ab", "", "<old>", "<none>"}, {"-name\"ab\"", "<old>", "<old>", "<none>"}, {"\"ab\" -name=1", "<old>", "<old>", "<none>"},
        {"-=1", "<old>", "<old>", "<none>"}, {"- x", "<old>", "<old>", "<none>"}, {"-a -b", "a", "<old>", "-b"}, {"-a=-5", "a", "<old>", "-5"},
        {"--a=1", "-a", "1", ""}, {"-a=b=c", "a", "b=c", ""}, {"-a=x-y", "a", "x-y", ""}, {"-a=b\"c", "a", "b\"c", ""},
        {"-a\tb", "a\tb", "", "<none>"}, {"-x=\"p -q=r\"", "x", "p -q=r", ""}};
    for (const Case& c : cases) {
        char name[256] = "<old>", value[256] = "<old>";
        const char* result = velmora.GetCMDOption(c.text, name, value);
        const bool bInText = c.text && result >= c.text && result <= c.text + std::strlen(c.text);  // not a copy
        EXPECT_EQ(std::string(name) + "|" + value + "|" + (result ? (bInText ? result : "<elsewhere>") : "<none>"),
                  std::string(c.name) + "|" + c.value + "|" + c.result) << (c.text ? c.text : "(null)");
    }
    // The bounded form cuts a long name or value, and goes on behind it.
    const std::string text = "-" + std::string(300, 'n') + "=" + std::string(400, 'v') + " -next";
    char name[8], value[6];
    EXPECT_STREQ(velmora.GetCMDOption(text.c_str(), name, sizeof(name), value, sizeof(value)), " -next");
    EXPECT_EQ(std::string(name) + "|" + value, "nnnnnnn|vvvvv");
    EXPECT_EQ(velmora.GetCMDOption(nullptr, name, sizeof(name), value, sizeof(value)), nullptr);
    EXPECT_EQ(std::string(name) + "|" + value, "|");
}
