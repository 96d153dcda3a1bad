// The shell's door: refusals, the echo, the repeat and grep tails, the last repeatable command, the gates.
#include "DispatchTestSupport.h"

using ShellDispatch = velmora_shell_test::ShellFixture;

// Unknown words, local-only words from a source, 512-character arguments leave no trace; the rest is echoed.
TEST_F(ShellDispatch, CommandsAreEchoedAndDeliveredOrRefusedWithoutATrace) {
    Subscribe();
    const std::string x511(511, 'x');
    auto last = [] { return std::to_string(velmora.nLastCommand) + "|" + velmora.szLastArguments + "|" + velmora.szLastSource; };
    velmora.ShellCommand("HostA", "depth", "-book 5 repeat");
    velmora.ShellCommand(nullptr, "nosuch", "-a");
    for (const char* word : {"ping", "runtime", "config"}) velmora.ShellCommand("remote", word, nullptr);
    velmora.ShellCommand("", "ping", nullptr);  // an empty source is a source
    velmora.ShellCommand(nullptr, "snapshot", (x511 + "x").c_str());
    EXPECT_EQ(last(), "4|-book 5|HostA");
    velmora.ShellCommand(nullptr, "sp", nullptr), velmora.ShellCommand(nullptr, "sp", "");
    velmora.ShellCommand("desk7", "fd", "EURUSD");
    EXPECT_EQ(last(), "-1||");
    velmora.ShellCommand("desk7", "counter", nullptr), velmora.ShellCommand(nullptr, "ping", x511.c_str());
    EXPECT_EQ(last(), "3|" + x511 + "|localhost");
    EXPECT_EQ(Echoes(), (std::vector<std::string>{"HostA >> depth -book 5 repeat\n", "localhost >> sp\n", "localhost >> sp \n",
                                                  "desk7 >> fd EURUSD\n", "desk7 >> counter\n", "localhost >> ping " + x511 + "\n"}));
    std::string seen;  // source, command, arguments, and whether the gates were this thread's
    for (const auto& d : module.Deliveries())
        seen += d.source + "#" + std::to_string(d.nCommand) + (d.bBackground ? "b" : "") + ":" + d.arguments.substr(0, 6) +
                (d.dwShellThreadId == GetCurrentThreadId() && d.bInShellCommand ? " " : "! ");
    EXPECT_EQ(seen, "HostA#5:-book  localhost#1: localhost#1: desk7#2:EURUSD desk7#3: localhost#4:xxxxxx ");
    EXPECT_EQ(std::pair(velmora.dwShellThreadId, velmora.bInShellCommand), std::pair(DWORD(0), false));
    EXPECT_TRUE(velmora.mapCommandRepeats.empty());  // a tail without options starts nothing
}

// " repeat" (else "repeat") or " grep" cut the arguments; the pattern filters the command's reports only.
TEST_F(ShellDispatch, TheRepeatAndGrepTailsSplitTheArguments) {
    Subscribe();
    const std::string p400(400, 'p');
    struct Case { const char* szWord; std::string arguments, delivered, pattern; } const cases[] = {
        {"feed", "-a repeat -i=0 -b", "-a", ""}, {"snapshot", "repeat -i=0", "", ""}, {"snapshot", "-file=repeat.txt", "-file=", ""},
        {"snapshot", "-a REPEAT -i=5", "-a REPEAT -i=5", ""}, {"snapshot", "-a repeat -i=0 grep abc", "-a", ""},
        {"snapshot", "-a grep \"repeat\"", "-a grep \"", ""}, {"depth", "-a grep abc def", "-a", "abc def"},
        {"depth", "-a grep \"abc def\" xyz", "-a", "abc def"}, {"depth", "-a grep \"abc", "-a", ""}, {"depth", "-a grep", "-a", ""},
        {"depth", "-a grepabc", "-a", "bc"}, {"depth", "grep abc", "grep abc", ""}, {"depth", "-a grep " + p400, "-a", p400.substr(0, 255)}};
    for (const Case& c : cases) {
        velmora.ShellCommand(nullptr, c.szWord, c.arguments.c_str());
        const velmora_shell_test::Delivery d = module.Deliveries().back();
        EXPECT_EQ(d.arguments + "|" + d.grepText + "|" + velmora.szGrepPending + "|" + velmora.szGrepText,
                  c.delivered + "|" + c.pattern + "|" + c.pattern + "|") << c.arguments;
    }
    module.onCommand = [](const velmora_shell_test::Delivery&) {
        velmora.LogReport(Report_Types::REPORT_DEBUG, "EURUSD 1.08"), velmora.LogReport(Report_Types::REPORT_DEBUG, "GBPUSD 1.27");
        std::thread([] { velmora.LogReport(Report_Types::REPORT_DEBUG, "EURUSD from another thread"); }).join();
    };
    console.calls.clear();
    velmora.ShellCommand(nullptr, "depth", "-all grep EURUSD");
    EXPECT_EQ(console.Texts(), (std::vector<std::string>{"localhost >> depth -all grep EURUSD\n", "EURUSD 1.08"}));
    velmora.ShellCommand(nullptr, "nosuch", nullptr);  // a refused command empties the pending pattern too
    EXPECT_STREQ(velmora.szGrepPending, "");
}
