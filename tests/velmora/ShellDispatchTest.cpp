// The shell's door: lookup, refusals, the repeat and grep tails, the echo, the bookkeeping
// of the last repeatable command and the gates a running command sets.
#include "DispatchTestSupport.h"

using velmora_shell_test::ShellFixture;

namespace {
std::string Text(size_t n) { return std::string(n, 'x'); }
}  // namespace

using ShellDispatch = ShellFixture;

TEST_F(ShellDispatch, ALocalCommandIsEchoedAndDeliveredWithItsGates) {
    Subscribe();
    velmora.ShellCommand(nullptr, "sp", nullptr);
    EXPECT_EQ(Echoes(), (std::vector<std::string>{"localhost >> sp\n"}));
    auto d = module.Deliveries();
    ASSERT_EQ(d.size(), 1u);
    EXPECT_EQ(d[0].source, "localhost");
    EXPECT_EQ(d[0].nCommand, 1);
    EXPECT_FALSE(d[0].bBackground);
    EXPECT_EQ(d[0].arguments, "");
    // While the command ran, it was this thread's.
    EXPECT_EQ(d[0].dwShellThreadId, GetCurrentThreadId());
    EXPECT_TRUE(d[0].bInShellCommand);
    // ...and the gates are open again afterwards.
    EXPECT_EQ(velmora.dwShellThreadId, 0u);
    EXPECT_FALSE(velmora.bInShellCommand);
    EXPECT_EQ(velmora.nLastCommand, 0);
    EXPECT_STREQ(velmora.szLastSource, "localhost");

    // An empty argument text takes the two-value form of the echo.
    velmora.ShellCommand(nullptr, "sp", "");
    velmora.ShellCommand("desk7", "fd", "EURUSD");
    velmora.ShellCommand("desk7", "counter", nullptr);
    EXPECT_EQ(Echoes(), (std::vector<std::string>{"localhost >> sp\n", "localhost >> sp \n",
                                                  "desk7 >> fd EURUSD\n", "desk7 >> counter\n"}));
    EXPECT_EQ(module.Deliveries().back().source, "desk7");
}

TEST_F(ShellDispatch, RefusedCommandsLeaveNoTrace) {
    Subscribe();
    velmora.ShellCommand(nullptr, "nosuch", "-a");
    velmora.ShellCommand(nullptr, "", nullptr);
    for (const char* word : {"ping", "runtime", "config"}) velmora.ShellCommand("remote", word, nullptr);
    velmora.ShellCommand("", "ping", nullptr);  // an empty source is a source
    velmora.ShellCommand(nullptr, "snapshot", Text(512).c_str());
    EXPECT_TRUE(Echoes().empty());
    EXPECT_TRUE(module.Deliveries().empty());
    EXPECT_TRUE(module.StatusPrints().empty());

    velmora.ShellCommand(nullptr, "snapshot", Text(511).c_str());
    velmora.ShellCommand(nullptr, "ping", nullptr);
    ASSERT_EQ(module.Deliveries().size(), 2u);
    EXPECT_EQ(module.Deliveries()[0].arguments, Text(511));
    EXPECT_EQ(module.Deliveries()[1].nCommand, 4);
}

TEST_F(ShellDispatch, TheRepeatWordSplitsTheArguments) {
    Subscribe();
    struct Case {
        const char* word;
        const char* arguments;
        const char* delivered;
    } const cases[] = {
        {"snapshot", "-a repeat -i=5000 -b", "-a"},
        {"snapshot", "repeat -i=5000", ""},
        {"snapshot", "-a repeat", "-a"},
        {"feed", "-a repeat -i=5000", "-a"},
        {"snapshot", "-file=repeat.txt", "-file="},
        {"snapshot", "-a REPEAT -i=5", "-a REPEAT -i=5"},
        {"snapshot", "-a repeat -i=5000 grep abc", "-a"},
        {"snapshot", "-a grep \"repeat\"", "-a grep \""},
    };
    for (const Case& c : cases) velmora.ShellCommand(nullptr, c.word, c.arguments);
    auto d = module.Deliveries();
    ASSERT_EQ(d.size(), std::size(cases));
    for (size_t i = 0; i < d.size(); ++i) {
        EXPECT_EQ(d[i].arguments, cases[i].delivered) << cases[i].arguments;
        EXPECT_EQ(d[i].grepText, "") << cases[i].arguments;  // a repeat word means no grep
    }
    // The echo shows the arguments whole, tails included.
    EXPECT_EQ(Echoes()[0], "localhost >> snapshot -a repeat -i=5000 -b\n");
    EXPECT_STREQ(velmora.szLastArguments, "-a grep \"");
    EXPECT_STREQ(velmora.szGrepPending, "");
}

TEST_F(ShellDispatch, GrepPatternsFilterTheCommandsReportsButNotTheEcho) {
    Subscribe();
    struct Case {
        const char* arguments;
        const char* delivered;
        const char* pattern;
    } const cases[] = {
        {"-a grep abc def", "-a", "abc def"},
        {"-a grep \"abc def\" xyz", "-a", "abc def"},
        {"-a grep \"abc", "-a", ""},
        {"-a grep", "-a", ""},
        {"-a grepabc", "-a", "bc"},
        {"grep abc", "grep abc", ""},
    };
    for (const Case& c : cases) {
        velmora.ShellCommand(nullptr, "depth", c.arguments);
        auto d = module.Deliveries().back();
        EXPECT_EQ(d.arguments, c.delivered) << c.arguments;
        EXPECT_EQ(d.grepText, c.pattern) << c.arguments;
        EXPECT_STREQ(velmora.szGrepPending, c.pattern) << c.arguments;  // it outlives the command
        EXPECT_STREQ(velmora.szGrepText, "");
    }

    // Reports of the module pass the console only with the pattern; shell output always.
    module.onCommand = [](const velmora_shell_test::Delivery&) {
        velmora.LogReport(Report_Types::REPORT_DEBUG, "level EURUSD 1.0845");
        velmora.LogReport(Report_Types::REPORT_DEBUG, "level GBPUSD 1.2710");
        velmora.FSLogReport(nullptr, false, "answer GBPUSD 1.2710");
    };
    console.calls.clear();
    velmora.ShellCommand(nullptr, "depth", "-all grep EURUSD");
    std::vector<std::string> texts;
    for (const auto& call : console.Calls())
        texts.push_back(call.nType == Report_Types::REPORT_FS_OUTPUT ? call.text : call.text.substr(21));
    EXPECT_EQ(texts, (std::vector<std::string>{"localhost >> depth -all grep EURUSD\n",
                                               "level EURUSD 1.0845", "answer GBPUSD 1.2710"}));

    // A refused command empties the pending pattern too.
    velmora.ShellCommand(nullptr, "nosuch", nullptr);
    EXPECT_STREQ(velmora.szGrepPending, "");
}

TEST_F(ShellDispatch, OtherThreadsStayOffTheConsoleWhileACommandRuns) {
    Subscribe();
    module.onCommand = [](const velmora_shell_test::Delivery&) {
        std::thread other([] { velmora.LogReport(Report_Types::REPORT_DEBUG, "from another thread"); });
        other.join();
        velmora.LogReport(Report_Types::REPORT_DEBUG, "from the command");
    };
    velmora.ShellCommand(nullptr, "sp", nullptr);
    EXPECT_EQ(console.Texts(), (std::vector<std::string>{"localhost >> sp\n", "from the command"}));
    // Both reached the log.
    EXPECT_NE(LogText().find(";[Debug];"), std::string::npos);
    EXPECT_NE(LogText().find(";from another thread;\r\n"), std::string::npos);
}

TEST_F(ShellDispatch, LastRepeatableCommandBookkeeping) {
    Subscribe();
    velmora.ShellCommand("HostA", "depth", "-book 5");
    EXPECT_EQ(velmora.nLastCommand, 4);
    EXPECT_STREQ(velmora.szLastArguments, "-book 5");
    EXPECT_STREQ(velmora.szLastSource, "HostA");
    // A refused command leaves it; a non-repeatable one that runs clears it.
    velmora.ShellCommand("HostA", "ping", nullptr);
    EXPECT_EQ(velmora.nLastCommand, 4);
    velmora.ShellCommand(nullptr, "feed", "-x");
    EXPECT_EQ(velmora.nLastCommand, -1);
    EXPECT_STREQ(velmora.szLastArguments, "");
    EXPECT_STREQ(velmora.szLastSource, "");
    // "repeat" then finds nothing to repeat.
    velmora.ShellCommand(nullptr, "repeat", "-i=100");
    EXPECT_TRUE(velmora.mapCommandRepeats.empty());
}

TEST_F(ShellDispatch, RuntimeAndConfigRunWithoutSubscribers) {
    velmora.ShellCommand(nullptr, "runtime", "INI repeat -i=100");
    EXPECT_TRUE(velmora.bRuntimeStatusToIni);
    EXPECT_TRUE(velmora.mapCommandRepeats.empty());  // no subscribers: the tail is ignored
    velmora.ShellCommand(nullptr, "rt", nullptr);
    EXPECT_FALSE(velmora.bRuntimeStatusToIni);
    velmora.SetReportLevel(3);
    velmora.ShellCommand(nullptr, "config", "-RELOAD");
    EXPECT_EQ(velmora.nReportLevel, 22);  // reloaded to its default
    // Only the first echo reached the console: the echo of "rt" came while the status print
    // still went to the status file only, and that of "config" was above level 3.
    EXPECT_EQ(Echoes(), (std::vector<std::string>{"localhost >> runtime INI repeat -i=100\n"}));
}

TEST_F(ShellDispatch, OverLongSourcesAndPatternsAreCutToTheirMembers) {
    Subscribe();
    std::string source(300, 's');
    std::string pattern(400, 'p');
    velmora.ShellCommand(source.c_str(), "sp", ("-a grep " + pattern).c_str());
    EXPECT_EQ(std::string(velmora.szLastSource), source.substr(0, 127));
    EXPECT_EQ(std::string(velmora.szGrepPending), pattern.substr(0, 255));
    ASSERT_EQ(module.Deliveries().size(), 1u);
    EXPECT_EQ(module.Deliveries()[0].source, source);  // delivered as it came
}

TEST_F(ShellDispatch, AThrowingModuleDoesNotLeaveTheGatesSet) {
    Subscribe();
    module.onCommand = [](const velmora_shell_test::Delivery&) { throw win32_exception("module failed"); };
    EXPECT_THROW(velmora.ShellCommand(nullptr, "sp", "-a grep x"), win32_exception);
    EXPECT_EQ(velmora.dwShellThreadId, 0u);
    EXPECT_FALSE(velmora.bInShellCommand);
    EXPECT_STREQ(velmora.szGrepText, "");
    // Another thread's reports reach the console again.
    std::thread other([] { velmora.LogReport(Report_Types::REPORT_DEBUG, "after"); });
    other.join();
    EXPECT_EQ(console.Texts().back(), "after");
}
