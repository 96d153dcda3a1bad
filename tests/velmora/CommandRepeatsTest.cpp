// Repeating commands: start and stop, the key, passes on threads of their own, shutdown. Waits are generous.
#include "DispatchTestSupport.h"

#include <algorithm>

using velmora_shell_test::WaitFor;
using CommandRepeats = velmora_shell_test::ShellFixture;

namespace {
bool Has(const std::vector<std::string>& lines, const std::string& line) { return std::count(lines.begin(), lines.end(), line) > 0; }
}  // namespace

// Passes deliver on a thread of their own, with their gates, until the stop; bad options start nothing.
TEST_F(CommandRepeats, ARepeatDeliversItsCommandOnAThreadOfItsOwnUntilStopped) {
    Subscribe();
    velmora.ShellCommand(nullptr, "sp", nullptr);
    for (const char* options : {"", "-i=0", "-i=-5", "-stop", "-i=1000 -stop -b", "-stop=nosuch"}) velmora.ShellCommand(nullptr, "repeat", options);
    EXPECT_TRUE(velmora.mapCommandRepeats.empty());
    velmora.ShellCommand(nullptr, "snapshot", "-a repeat -i=50 -bg");
    velmora.ShellCommand(nullptr, "REPEAT", "-i=5000");  // it runs already: unchanged, no line
    EXPECT_EQ(velmora.mapCommandRepeats.count("localhost$$1"), 1u);
    ASSERT_TRUE(WaitFor([&] { return module.Deliveries().size() >= 4; }));
    const std::vector<velmora_shell_test::Delivery> passes = module.Deliveries();
    for (auto d = passes.begin() + 2; d != passes.end(); ++d)  // behind the two commands
        EXPECT_EQ(std::tuple(d->source, d->nCommand, d->bBackground, d->arguments, d->dwThread != GetCurrentThreadId(),
                             d->dwShellThreadId == d->dwThread && d->bInShellCommand), std::tuple("localhost", 1, true, "-a", true, true));
    velmora.ShellCommand(nullptr, "repeat", "-s=sp -i=50");  // stops, starts nothing
    EXPECT_TRUE(velmora.mapCommandRepeats.empty());
    ASSERT_TRUE(WaitFor([&] { return module.Stops().size() == 1; }));
    EXPECT_EQ(module.Stops()[0], "localhost#1");
    const std::vector<std::string> echoes = Echoes();
    EXPECT_EQ(std::vector<std::string>(echoes.begin(), echoes.begin() + 4),
              (std::vector<std::string>{"localhost >> sp\n", "localhost >> snapshot -a repeat -i=50 -bg\n",
                                        "localhost >>[Repeat] snapshot  -i=50 -bg\n", "localhost >> snapshot -a\n"}));
    EXPECT_TRUE(Has(echoes, "localhost >>[Stop Repeat] snapshot\n"));
    const size_t nDeliveries = module.Deliveries().size();
    Sleep(300);
    EXPECT_EQ(module.Deliveries().size(), nDeliveries);
}

// Only the last command's source repeats it; passes follow the latest grep; runtime passes print with null.
TEST_F(CommandRepeats, SourcesOwnTheirRepeatsAndPassesFollowTheLatestCommand) {
    Subscribe();
    velmora.ShellCommand("HostA", "depth", "-x grep EUR");
    velmora.ShellCommand("HostB", "repeat", "-i=50");
    EXPECT_TRUE(velmora.mapCommandRepeats.empty());
    velmora.ShellCommand("HOSTA", "repeat", "-i=50");
    velmora.ShellCommand("HOSTA", "repeat", "-s=dp");
    EXPECT_EQ(velmora.mapCommandRepeats.count("HostA$$5"), 1u);
    EXPECT_TRUE(Has(Echoes(), "HOSTA >>[Stop Repeat] depth\n"));
    ASSERT_TRUE(WaitFor([&] { return module.Deliveries().size() >= 2; }));
    EXPECT_EQ(module.Deliveries()[1].grepText + module.Deliveries()[1].arguments, "EUR-x");
    velmora.ShellCommand(nullptr, "runtime", "INI");
    velmora.ShellCommand(nullptr, "repeat", "-i=50");
    const size_t nDeliveries = module.Deliveries().size();
    ASSERT_TRUE(WaitFor([&] { return module.Deliveries().size() >= nDeliveries + 2 && module.StatusPrints().size() >= 2; }));
    EXPECT_EQ(module.Deliveries().back().grepText, "");
    const std::vector<std::string> prints = module.StatusPrints();
    EXPECT_EQ(std::vector<std::string>(prints.begin(), prints.begin() + 2), (std::vector<std::string>{"INI", "(null)"}));
    EXPECT_FALSE(velmora.bRuntimeStatusToIni);
}

// One command or pass at a time; the shutdown stops every repeat, waits for a running pass, refuses new ones.
TEST_F(CommandRepeats, PassesAndCommandsTakeTurnsAndTheShutdownEndsEveryRepeat) {
    Subscribe();
    std::atomic<int> nEntered{0};
    module.onCommand = [&](const velmora_shell_test::Delivery&) { ++nEntered; };
    module.nPauseMS = 20;
    velmora.ShellCommand(nullptr, "snapshot", nullptr), velmora.ShellCommand(nullptr, "repeat", "-i=10");
    velmora.ShellCommand("remote", "counter", nullptr), velmora.ShellCommand("remote", "repeat", "-i=10 -b");
    for (int i = 0; i < 10; ++i) velmora.ShellCommand(nullptr, "depth", nullptr);
    ASSERT_TRUE(WaitFor([&] { return module.Deliveries().size() >= 30; }));
    module.nPauseMS = 700;  // a pass still runs when the shutdown begins
    const int nBefore = nEntered;
    ASSERT_TRUE(WaitFor([&] { return nEntered > nBefore; }));
    velmora.PrepareSystemsShutdown();
    EXPECT_EQ(module.Stops().size(), 2u);
    module.nPauseMS = 0;
    const size_t nDeliveries = module.Deliveries().size();
    velmora.ShellCommand(nullptr, "repeat", "-i=10");
    Sleep(300);
    EXPECT_EQ(module.Deliveries().size(), nDeliveries);
    EXPECT_FALSE(module.bOverlapped);
    for (const auto& d : module.Deliveries()) EXPECT_EQ(d.dwShellThreadId, d.dwThread);
}
