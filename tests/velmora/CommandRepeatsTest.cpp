// Repeating commands: options, start and stop, the key, the passes and the end of every
// repeat thread at shutdown. Intervals are short and waits generous.
#include "DispatchTestSupport.h"

using velmora_shell_test::ShellFixture;
using velmora_shell_test::WaitFor;

using CommandRepeats = ShellFixture;

namespace {
bool HasKey(const char* key) { return velmora.mapCommandRepeats.count(key) != 0; }
}  // namespace

TEST_F(CommandRepeats, OptionsThatStartNothing) {
    Subscribe();
    velmora.ShellCommand(nullptr, "sp", nullptr);
    size_t echoes = Echoes().size();
    for (const char* options : {"", "abc", "-i=0", "-i=-5", "-interval=abc", "-stop",
                                "-i=1000 -stop -b", "-stop=nosuch"}) {
        velmora.ShellCommand(nullptr, "repeat", options);
        EXPECT_TRUE(velmora.mapCommandRepeats.empty()) << options;
    }
    velmora.ShellCommand(nullptr, "repeat", nullptr);
    EXPECT_TRUE(velmora.mapCommandRepeats.empty());
    EXPECT_EQ(Echoes().size(), echoes);  // none of them printed a line
}

TEST_F(CommandRepeats, ARepeatDeliversItsCommandUntilStopped) {
    Subscribe();
    velmora.ShellCommand(nullptr, "snapshot", nullptr);
    velmora.ShellCommand(nullptr, "REPEAT", "-i=100");
    EXPECT_TRUE(HasKey("localhost$$1"));
    EXPECT_EQ(Echoes().back(), "localhost >>[Repeat] snapshot -i=100\n");
    ASSERT_TRUE(WaitFor([&] { return module.Deliveries().size() >= 3; }));
    auto d = module.Deliveries();
    for (size_t i = 1; i < d.size(); ++i) {
        EXPECT_EQ(d[i].source, "localhost");
        EXPECT_EQ(d[i].nCommand, 1);
        EXPECT_FALSE(d[i].bBackground);
        EXPECT_EQ(d[i].arguments, "");
        EXPECT_NE(d[i].dwThread, GetCurrentThreadId());  // a thread of its own
        EXPECT_EQ(d[i].dwShellThreadId, d[i].dwThread);  // the pass sets the gates for itself
        EXPECT_TRUE(d[i].bInShellCommand);
    }
    EXPECT_NE(std::find(Echoes().begin(), Echoes().end(), "localhost >> snapshot \n"), Echoes().end());

    // Asking again changes nothing and prints nothing.
    size_t echoes = Echoes().size();
    velmora.ShellCommand(nullptr, "repeat", "-i=5000");
    EXPECT_TRUE(HasKey("localhost$$1"));

    velmora.ShellCommand(nullptr, "repeat", "-s=sp");
    EXPECT_FALSE(HasKey("localhost$$1"));
    ASSERT_TRUE(WaitFor([&] { return module.Stops().size() == 1; }));
    EXPECT_EQ(module.Stops()[0], "localhost#1");
    auto echoesNow = Echoes();
    EXPECT_NE(std::find(echoesNow.begin() + long(echoes), echoesNow.end(), "localhost >>[Stop Repeat] snapshot\n"),
              echoesNow.end());
    // The pass lines and the gates are gone with the thread.
    size_t count = module.Deliveries().size();
    Sleep(300);
    EXPECT_EQ(module.Deliveries().size(), count);
    EXPECT_EQ(velmora.dwShellThreadId, 0u);
}

TEST_F(CommandRepeats, TailsBackgroundAndTheOptionsLine) {
    Subscribe();
    velmora.ShellCommand(nullptr, "snapshot", "-a repeat -i=100 -bg");
    EXPECT_TRUE(HasKey("localhost$$1"));
    // The tail keeps its blank: two blanks before the options.
    EXPECT_EQ(Echoes().back(), "localhost >>[Repeat] snapshot  -i=100 -bg\n");
    ASSERT_TRUE(WaitFor([&] { return module.Deliveries().size() >= 2; }));
    EXPECT_TRUE(module.Deliveries()[1].bBackground);
    EXPECT_EQ(module.Deliveries()[1].arguments, "-a");
    velmora.ShellCommand(nullptr, "repeat", "-stop=snapshot -i=100");  // stops, starts nothing
    EXPECT_TRUE(velmora.mapCommandRepeats.empty());
    ASSERT_TRUE(WaitFor([&] { return module.Stops().size() == 1; }));
}

TEST_F(CommandRepeats, SourcesOwnTheirRepeats) {
    Subscribe();
    velmora.ShellCommand("HostA", "depth", "-book");
    // Another source can't start the repeat of HostA's command; a source folded in case can.
    velmora.ShellCommand("HostB", "repeat", "-i=100");
    EXPECT_TRUE(velmora.mapCommandRepeats.empty());
    velmora.ShellCommand("HOSTA", "repeat", "-i=100");
    EXPECT_TRUE(HasKey("HostA$$5"));
    // The key doesn't fold case: HOSTA's stop prints its line and stops nothing.
    velmora.ShellCommand("HOSTA", "repeat", "-s=dp");
    EXPECT_EQ(Echoes().back(), "HOSTA >>[Stop Repeat] depth\n");
    EXPECT_TRUE(HasKey("HostA$$5"));
    // A stop of a command that doesn't run prints its line all the same.
    velmora.ShellCommand("HostA", "repeat", "-stop=feed");
    EXPECT_EQ(Echoes().back(), "HostA >>[Stop Repeat] feed\n");
    velmora.ShellCommand("HostA", "repeat", "-stop=depth");
    EXPECT_TRUE(velmora.mapCommandRepeats.empty());
}

TEST_F(CommandRepeats, RuntimeRepeatsPrintStatusWithNull) {
    Subscribe();
    velmora.ShellCommand(nullptr, "runtime", "INI");
    EXPECT_TRUE(velmora.bRuntimeStatusToIni);
    velmora.ShellCommand(nullptr, "repeat", "-i=100");
    ASSERT_TRUE(WaitFor([&] { return module.StatusPrints().size() >= 2; }));
    EXPECT_EQ(module.StatusPrints()[0], "INI");
    EXPECT_EQ(module.StatusPrints()[1], "(null)");
    EXPECT_FALSE(velmora.bRuntimeStatusToIni);
}

TEST_F(CommandRepeats, RunningRepeatsKeepTheirCommandAndFollowTheLatestGrep) {
    Subscribe();
    velmora.ShellCommand(nullptr, "counter", "-x grep EUR");
    velmora.ShellCommand(nullptr, "repeat", "-i=100");
    ASSERT_TRUE(WaitFor([&] { return module.Deliveries().size() >= 2; }));
    EXPECT_EQ(module.Deliveries()[1].grepText, "EUR");
    EXPECT_EQ(module.Deliveries()[1].arguments, "-x");
    // A later non-repeatable command: no new repeat, but the running one goes on, and the
    // pending grep is gone for its next passes.
    velmora.ShellCommand(nullptr, "config", "-FIXHOST a");
    velmora.ShellCommand(nullptr, "repeat", "-i=100");
    EXPECT_EQ(velmora.mapCommandRepeats.size(), 1u);
    size_t before = module.Deliveries().size();
    ASSERT_TRUE(WaitFor([&] { return module.Deliveries().size() >= before + 2; }));
    auto last = module.Deliveries().back();
    EXPECT_EQ(last.nCommand, 3);
    EXPECT_EQ(last.grepText, "");
}

TEST_F(CommandRepeats, PassesAndCommandsTakeTurns) {
    Subscribe();
    module.nPauseMS = 30;
    velmora.ShellCommand(nullptr, "snapshot", nullptr);
    velmora.ShellCommand(nullptr, "repeat", "-i=10");
    velmora.ShellCommand(nullptr, "counter", nullptr);
    velmora.ShellCommand(nullptr, "repeat", "-i=10");
    EXPECT_EQ(velmora.mapCommandRepeats.size(), 2u);
    for (int i = 0; i < 10; ++i) velmora.ShellCommand(nullptr, "depth", nullptr);
    ASSERT_TRUE(WaitFor([&] { return module.Deliveries().size() >= 30; }));
    EXPECT_EQ(module.MaxInside(), 1);  // never two at once
    // Every delivery saw its own thread in the gate.
    for (const auto& d : module.Deliveries()) EXPECT_EQ(d.dwShellThreadId, d.dwThread);
}

TEST_F(CommandRepeats, ShutdownEndsEveryRepeatThreadBeforeTellingTheModules) {
    Subscribe();
    module.nPauseMS = 700;  // a pass still running when the 500 ms are over
    velmora.ShellCommand(nullptr, "snapshot", nullptr);
    velmora.ShellCommand(nullptr, "repeat", "-i=10");
    velmora.ShellCommand("remote", "counter", nullptr);
    velmora.ShellCommand("remote", "repeat", "-i=10 -b");
    ASSERT_TRUE(WaitFor([&] { return module.Deliveries().size() >= 3; }));
    velmora.PrepareSystemsShutdown();
    // Both threads told the module they stopped, and none delivers anything any more.
    EXPECT_EQ(module.Stops().size(), 2u);
    size_t count = module.Deliveries().size();
    Sleep(300);
    EXPECT_EQ(module.Deliveries().size(), count);
    // No new repeat starts after the shutdown began.
    velmora.ShellCommand(nullptr, "repeat", "-i=10");
    Sleep(100);
    EXPECT_EQ(module.Deliveries().size(), count);
}

TEST_F(CommandRepeats, WithoutSubscribersPassesStillPrintTheirLines) {
    velmora.ShellCommand(nullptr, "sp", nullptr);
    // No subscriber: the tail is ignored, but the word "repeat" still starts a repeat.
    velmora.ShellCommand(nullptr, "repeat", "-i=50");
    EXPECT_TRUE(HasKey("localhost$$1"));
    ASSERT_TRUE(WaitFor([&] {
        auto e = Echoes();
        return std::count(e.begin(), e.end(), std::string("localhost >> snapshot \n")) >= 2;
    }));
}
