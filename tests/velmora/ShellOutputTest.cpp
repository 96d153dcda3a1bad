// Shell output: the road of each twin (remote console, log, local console), the content of
// its block, the level as the only gate, bLogOnly, the limits of the texts, the ownership of
// blocks on every path, and the bounded formatter _G_SafePrintf.
#include "ShellTestSupport.h"

#include <cstring>
#include <thread>

using namespace velmora_report_test;
using namespace velmora_shell_test;
using velmora_log_test::CountOf;
using velmora_log_test::Letters;
using velmora_log_test::MatchesPattern;

namespace {

constexpr char kDesk[] = "desk-7";  // the source of a remote operator

class ShellOutput : public ReportFixture {
protected:
    void SetUp() override {
        ReportFixture::SetUp();
        remotes.consoles[kDesk] = &remote;
    }
    void TearDown() override {
        velmora.EnableRemoteConsole(nullptr);
        velmora.SetReportLevel(22);
        velmora.szGrepText[0] = '\0';
        velmora.dwShellThreadId = 0;
        velmora.bRuntimeStatusToIni = false;
        ReportFixture::TearDown();
    }

    // Both consoles plugged in, the default log made.
    void PlugInEverything() {
        MakeDefaultLog();
        velmora.SetReportConsole(&local);
        velmora.EnableRemoteConsole(&remotes);
    }

    // The messages of the "[FS Output]" records of the calling thread, in order.
    std::vector<std::string> OutputMessages() {
        return velmora_report_test::MessagesOf(LogText(), "[FS Output]");
    }

    ProbedConsole local;
    ViewingConsole remote;
    RemoteConsoles remotes;
};

}  // namespace

// ---- The road of a report ---------------------------------------------------------------

TEST_F(ShellOutput, EachTwinServesTheRemoteConsoleThenTheLogThenTheLocalConsole) {
    PlugInEverything();
    for (FSTwin twin : kAllFSTwins) {
        SCOPED_TRACE(FSTwinName(twin));
        const std::string text = std::string("answer of ") + FSTwinName(twin);
        remote.calls.clear();
        local.calls.clear();
        // While the remote console looks, the log doesn't hold the text yet; while the local
        // console is called, it does.
        int nInLogForRemote = -1, nInLogForLocal = -1;
        remote.onCall = [&](const char*) { nInLogForRemote = CountOf(LogText(), text + ";"); };
        local.onCall = [&](const char*) { nInLogForLocal = CountOf(LogText(), text + ";"); };

        // One block, seen by the remote console and then taken by the local one, which freed
        // it: the remote console didn't take it.
        EXPECT_EQ(TrafficOf([&] { Say(twin, kDesk, text, false, 0x00112233); }), (BlockTraffic{1, 1}));
        EXPECT_EQ(std::pair(LastAllocationSize(), LastAllocationFlags()), std::pair(size_t(768), 0u));
        EXPECT_EQ(std::pair(nInLogForRemote, nInLogForLocal), std::pair(0, 1));
        std::vector<ConsoleCall> shown = local.Calls();
        ASSERT_EQ(shown.size(), 1u);
        EXPECT_EQ(remote.calls, shown);
        EXPECT_EQ(KindOf(shown[0]), std::tuple(Report_Types::REPORT_FS_OUTPUT, IsColourTwin(twin),
                                               IsColourTwin(twin) ? 0x00112233u : 0u));
    }
    EXPECT_EQ(remotes.asks, std::vector<std::string>(4, kDesk));
}

TEST_F(ShellOutput, OnlyFSLogFortmatedReportStampsItsBlockAndItsLogLine) {
    PlugInEverything();
    for (FSTwin twin : kAllFSTwins) Say(twin, kDesk, FSTwinName(twin));
    std::vector<ConsoleCall> shown = local.Calls();
    std::vector<std::string> logged = OutputMessages();
    ASSERT_EQ(shown.size(), 4u);
    ASSERT_EQ(logged.size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        FSTwin twin = kAllFSTwins[i];
        SCOPED_TRACE(FSTwinName(twin));
        std::string expected = (twin == FSTwin::kFormatted ? StampPattern() : "") + FSTwinName(twin);
        for (const std::string& text : {shown[i].text, remote.calls[i].text, logged[i]})
            EXPECT_TRUE(MatchesPattern(text, expected));
    }

    // Without a local console, or with bLogOnly, the log line has no stamp.
    velmora.SetReportConsole(nullptr);
    velmora.FSLogFortmatedReport(kDesk, false, "no console %d", 1);
    velmora.SetReportConsole(&local);
    velmora.FSLogFortmatedReport(kDesk, true, "log only %d", 2);
    logged = OutputMessages();
    ASSERT_EQ(logged.size(), 6u);
    EXPECT_EQ(logged[4], "no console 1");
    EXPECT_EQ(logged[5], "log only 2");
}

TEST_F(ShellOutput, NoSourceOrNoConsoleForItLeavesTheRemoteSideOut) {
    PlugInEverything();
    for (FSTwin twin : kAllFSTwins)
        Say(twin, nullptr, std::string("null source ") + FSTwinName(twin));
    EXPECT_TRUE(remotes.asks.empty());
    for (FSTwin twin : kAllFSTwins)
        Say(twin, "nobody", std::string("unknown ") + FSTwinName(twin));
    EXPECT_EQ(remotes.asks, std::vector<std::string>(4, "nobody"));
    // Without a remote console plugged in a source is simply not served.
    velmora.EnableRemoteConsole(nullptr);
    for (FSTwin twin : kAllFSTwins)
        Say(twin, kDesk, std::string("no remote ") + FSTwinName(twin));

    EXPECT_TRUE(remote.calls.empty());
    EXPECT_EQ(local.Count(), 12u);
    for (FSTwin twin : kAllFSTwins) {
        for (const char* head : {"null source ", "unknown ", "no remote "})
            EXPECT_EQ(CountOf(LogText(), std::string(head) + FSTwinName(twin) + ";"), 1)
                << head << FSTwinName(twin);
    }
}

TEST_F(ShellOutput, LogOnlyOrNoLocalConsoleWritesTheLogAloneWithoutABlock) {
    PlugInEverything();
    BlockTraffic before = CurrentBlockTraffic();
    velmora.FSLogReport(kDesk, true, "plain, log only");
    velmora.FSLogFortmatedReport(kDesk, true, "formatted, log only %s", "x");
    EXPECT_EQ(Since(before).nAllocs, 0);
    EXPECT_TRUE(remotes.asks.empty());
    EXPECT_EQ(local.Count(), 0u);

    // No local console: no twin asks for the remote console or allocates; the log needs no
    // block, so a failing allocator doesn't matter.
    velmora.SetReportConsole(nullptr);
    FailBlockAllocations(true);
    for (FSTwin twin : kAllFSTwins) Say(twin, kDesk, std::string("alone ") + FSTwinName(twin));
    FailBlockAllocations(false);
    EXPECT_EQ(Since(before).nAllocs, 0);
    EXPECT_TRUE(remotes.asks.empty());
    EXPECT_TRUE(remote.calls.empty());
    std::vector<std::string> expected = {"plain, log only", "formatted, log only x"};
    for (FSTwin twin : kAllFSTwins) expected.push_back(std::string("alone ") + FSTwinName(twin));
    EXPECT_EQ(OutputMessages(), expected);
}

// ---- The gate of the local console ------------------------------------------------------

// The remote console and the log get a text whatever the level; the block is taken by the
// local console or freed here, once either way.
TEST_F(ShellOutput, OnlyTheReportLevelHoldsBackTheLocalConsole) {
    PlugInEverything();
    for (int nLevel : {6, 22, 5, -1}) {
        velmora.SetReportLevel(nLevel);
        for (FSTwin twin : kAllFSTwins) {
            const std::string text = "level " + std::to_string(nLevel) + " " + FSTwinName(twin);
            SCOPED_TRACE(text);
            remote.calls.clear();
            local.calls.clear();
            EXPECT_EQ(TrafficOf([&] { Say(twin, kDesk, text); }), (BlockTraffic{1, 1}));
            EXPECT_EQ(remote.calls.size(), 1u);
            EXPECT_EQ(CountOf(LogText(), text + ";"), 1);
            EXPECT_EQ(local.Count(), nLevel >= 6 ? 1u : 0u);
        }
    }
}

TEST_F(ShellOutput, GrepShellThreadAndStatusToIniNeverHoldShellOutputBack) {
    PlugInEverything();
    std::strcpy(velmora.szGrepText, "absent");
    velmora.dwShellThreadId = GetCurrentThreadId() + 1;  // another thread's command
    velmora.bRuntimeStatusToIni = true;
    for (FSTwin twin : kAllFSTwins) Say(twin, kDesk, FSTwinName(twin));
    EXPECT_EQ(local.Count(), 4u);
    EXPECT_EQ(remote.calls.size(), 4u);

    // Output of a thread other than the command's reaches the console too.
    velmora.dwShellThreadId = GetCurrentThreadId();
    std::thread other([] {
        for (FSTwin twin : kAllFSTwins) Say(twin, kDesk, "from another thread");
    });
    other.join();
    EXPECT_EQ(local.Count(), 8u);
    EXPECT_EQ(remote.calls.size(), 8u);
}

// ---- Limits and invalid input -------------------------------------------------------------

// A direct log keeps records of more than 512 characters, so the cuts show in the log too.
// With a local console: 746 characters behind the stamp of FSLogFortmatedReport, 767
// everywhere else; without one, 767 for every twin.
TEST_F(ShellOutput, TextsPastTheirRoomAreCutInsideTheBlock) {
    MakeDefaultLog(true);
    velmora.EnableRemoteConsole(&remotes);
    size_t shift = 0;
    for (bool bLocal : {true, false}) {
        velmora.SetReportConsole(bLocal ? &local : nullptr);
        for (FSTwin twin : kAllFSTwins) {
            SCOPED_TRACE(::testing::Message() << FSTwinName(twin) << (bLocal ? ", console" : ""));
            const size_t nRoom = bLocal && twin == FSTwin::kFormatted ? 746 : 767;
            const std::string whole = Letters(nRoom, ++shift);
            const std::string longer = Letters(nRoom + 1, ++shift);
            const std::string far = Letters(3000, ++shift);
            local.calls.clear();
            remote.calls.clear();
            for (const std::string* text : {&whole, &longer, &far}) Say(twin, kDesk, *text);
            // The stamped log line of FSLogFortmatedReport is sought by its end.
            for (const std::string* text : {&whole, &longer, &far})
                EXPECT_EQ(bLocal ? CountOf(LogText(), text->substr(0, nRoom) + ";\r\n")
                                 : CountRecords("[FS Output]", text->substr(0, nRoom)),
                          1);
            if (!bLocal) continue;
            std::vector<ConsoleCall> shown = local.Calls();
            ASSERT_EQ(shown.size(), 3u);
            const size_t nStamp = twin == FSTwin::kFormatted ? 21 : 0;
            EXPECT_EQ(shown[0].text.substr(nStamp), whole);
            EXPECT_EQ(shown[1].text.substr(nStamp), longer.substr(0, nRoom));
            EXPECT_EQ(shown[2].text.substr(nStamp), far.substr(0, nRoom));
            EXPECT_EQ(remote.calls, shown);
        }
    }
}

// A null text or format isn't valid; it is taken as the empty text.
TEST_F(ShellOutput, ANullTextOrFormatIsTakenAsEmpty) {
    PlugInEverything();
    const char* volatile szNoFormat = nullptr;
    velmora.FSLogReport(kDesk, false, nullptr);
    velmora.FSLogReportInColor(kDesk, 1, nullptr);
    velmora.FSLogFortmatedReport(kDesk, false, szNoFormat);
    velmora.FSLogFortmatedReportInColor(kDesk, 1, szNoFormat);
    std::vector<ConsoleCall> shown = local.Calls();
    ASSERT_EQ(shown.size(), 4u);
    for (size_t i : {0, 1, 3}) EXPECT_EQ(shown[i].text, "") << i;
    EXPECT_TRUE(MatchesPattern(shown[2].text, StampPattern()));
    EXPECT_EQ(remote.calls.size(), 4u);

    velmora.SetReportConsole(nullptr);
    velmora.FSLogReport(kDesk, false, nullptr);
    velmora.FSLogFortmatedReport(kDesk, true, szNoFormat);
    std::vector<std::string> logged = OutputMessages();
    ASSERT_EQ(logged.size(), 6u);
    for (size_t i : {0, 1, 3, 4, 5}) EXPECT_EQ(logged[i], "") << i;
    EXPECT_TRUE(MatchesPattern(logged[2], StampPattern()));
}

// ---- Ownership of the block ------------------------------------------------------------

TEST_F(ShellOutput, EveryBlockIsTakenOrFreedExactlyOnceWhateverFails) {
    PlugInEverything();
    for (FSTwin twin : kAllFSTwins) {
        const std::string name = FSTwinName(twin);
        SCOPED_TRACE(name);
        // The remote console fails: the report is reported under the twin's name and ends
        // there, before the log; the block is freed here.
        local.calls.clear();
        remote.bFailWin32 = true;
        BlockTraffic spent = TrafficOf([&] { Say(twin, kDesk, "lost at the remote " + name); });
        remote.bFailWin32 = false;
        EXPECT_EQ(spent.nAllocs, spent.nFrees);
        EXPECT_EQ(CountRecords("[Exception]", name + " remote down\n"), 1);
        EXPECT_EQ(CountOf(LogText(), "lost at the remote " + name), 0);
        EXPECT_EQ(local.Texts(), std::vector<std::string>{name + " remote down\n"});

        // The local console fails after it took the block: it freed it, not us.
        local.nWin32FailuresLeft = 1;
        spent = TrafficOf([&] { Say(twin, kDesk, "local failure " + name); });
        EXPECT_EQ(spent.nAllocs, spent.nFrees);
        EXPECT_EQ(CountRecords("[Exception]", name + " console down\n"), 1);
        EXPECT_EQ(CountOf(LogText(), "local failure " + name + ";"), 1);

        // Anything but a win32_exception passes through, and the block is freed on the way.
        remote.bFailWithRuntimeError = true;
        EXPECT_EQ(TrafficOf([&] {
                      EXPECT_THROW(Say(twin, kDesk, "thrown " + name), std::runtime_error);
                  }),
                  (BlockTraffic{1, 1}));
        remote.bFailWithRuntimeError = false;

        // No block, no report: neither the log nor a console.
        remote.calls.clear();
        local.calls.clear();
        FailBlockAllocations(true);
        Say(twin, kDesk, "no block " + name);
        FailBlockAllocations(false);
        EXPECT_TRUE(remote.calls.empty());
        EXPECT_EQ(local.Count(), 0u);
        EXPECT_EQ(CountOf(LogText(), "no block " + name), 0);
    }
}

// A host whose remote console hands out the local console for a source: that console takes
// the block once, at the end, and never while the log still needs it.
TEST_F(ShellOutput, ALocalConsoleNamedForASourceGetsTheBlockOnce) {
    PlugInEverything();
    remotes.consoles["localhost"] = &local;
    for (int nLevel : {22, 5}) {
        velmora.SetReportLevel(nLevel);
        for (FSTwin twin : kAllFSTwins) {
            SCOPED_TRACE(::testing::Message() << FSTwinName(twin) << ", level " << nLevel);
            local.calls.clear();
            EXPECT_EQ(TrafficOf([&] { Say(twin, "localhost", FSTwinName(twin)); }),
                      (BlockTraffic{1, 1}));
            EXPECT_EQ(local.Count(), nLevel >= 6 ? 1u : 0u);
            // The same texts at both levels: the second round finds the first one's too.
            EXPECT_EQ(CountOf(LogText(), std::string(FSTwinName(twin)) + ";"),
                      nLevel >= 6 ? 1 : 2);
        }
    }
}

TEST_F(ShellOutput, WithoutADefaultLogNothingIsReported) {
    velmora.SetReportConsole(&local);
    velmora.EnableRemoteConsole(&remotes);
    BlockTraffic before = CurrentBlockTraffic();
    for (FSTwin twin : kAllFSTwins) Say(twin, kDesk, "before init");
    EXPECT_EQ(Since(before).nAllocs, 0);
    EXPECT_TRUE(remotes.asks.empty());
    EXPECT_EQ(local.Count(), 0u);
}

TEST_F(ShellOutput, EachTwinTracesUnderItsOwnName) {
    PlugInEverything();
    _G_TraceAll = true;
    for (FSTwin twin : kAllFSTwins) Say(twin, kDesk, "traced");
    char szBuffer[8];
    EXPECT_EQ(_G_SafePrintf(szBuffer, sizeof(szBuffer), "%d", 7), 1);
    std::vector<std::string> traces = TraceMessages(LogText());
    const std::vector<std::string> names = {
        "CVelmora::FSLogReport", "CVelmora::FSLogReportInColor",
        "CVelmora::FSLogFortmatedReport", "CVelmora::FSLogFortmatedReportInColor",
        "_G_SafePrintf"};
    ASSERT_EQ(traces.size(), names.size());
    // Nothing behind the name: no engine is plugged in.
    for (size_t i = 0; i < names.size(); ++i) EXPECT_TRUE(IsTraceOf(traces[i], names[i])) << traces[i];
}

// ---- _G_SafePrintf --------------------------------------------------------------------

TEST_F(ShellOutput, SafePrintfFormatsWithinItsBoundAndAlwaysTerminates) {
    const char* volatile szEmpty = "";
    char szBuffer[32];
    auto Fill = [&] { std::memset(szBuffer, '#', sizeof(szBuffer)); };
    auto Untouched = [&](size_t nFrom) {
        for (size_t i = nFrom; i < sizeof(szBuffer); ++i)
            if (szBuffer[i] != '#') return false;
        return true;
    };

    Fill();
    EXPECT_EQ(_G_SafePrintf(szBuffer, 0, "%s", "text"), -1);
    EXPECT_TRUE(Untouched(0));

    Fill();
    EXPECT_EQ(_G_SafePrintf(szBuffer, 1, szEmpty), 0);
    EXPECT_EQ(szBuffer[0], '\0');
    EXPECT_TRUE(Untouched(1));

    Fill();
    EXPECT_EQ(_G_SafePrintf(szBuffer, 16, "%d-%s|%3x", 42, "ab", 255u), 9);
    EXPECT_STREQ(szBuffer, "42-ab| ff");
    EXPECT_TRUE(Untouched(16));

    // An exact fit, then one character too many: -1 and the empty string, nothing written
    // past the size.
    Fill();
    EXPECT_EQ(_G_SafePrintf(szBuffer, 6, "%s", "hello"), 5);
    EXPECT_STREQ(szBuffer, "hello");
    EXPECT_TRUE(Untouched(6));
    for (size_t nSize : {1, 5}) {
        Fill();
        EXPECT_EQ(_G_SafePrintf(szBuffer, nSize, "%s", "hello"), -1) << nSize;
        EXPECT_EQ(szBuffer[0], '\0') << nSize;
        EXPECT_EQ(szBuffer[nSize - 1], '\0') << nSize;
        EXPECT_TRUE(Untouched(nSize)) << nSize;
    }

    // Invalid input doesn't crash: a null format is the empty one, a null buffer gives -1.
    const char* volatile szNoFormat = nullptr;
    Fill();
    EXPECT_EQ(_G_SafePrintf(szBuffer, 8, szNoFormat), 0);
    EXPECT_EQ(szBuffer[0], '\0');
    EXPECT_EQ(_G_SafePrintf(nullptr, 8, "%d", 1), -1);
}

TEST_F(ShellOutput, SafePrintfCatchesEveryExceptionAndGivesMinusOne) {
    MakeDefaultLog();
    velmora.SetReportConsole(&local);
    FakeTransactionEngine engine;
    velmora.pFTSEngine = &engine;
    _G_TraceAll = true;
    char szBuffer[16];

    // A host's failure in the trace line: reported under "_G_SafePrintf", and the buffer
    // stays as it was, since the failure came first.
    std::memset(szBuffer, '#', sizeof(szBuffer));
    engine.nWin32FailuresLeft = 1;
    EXPECT_EQ(_G_SafePrintf(szBuffer, sizeof(szBuffer), "%d", 12), -1);
    EXPECT_EQ(szBuffer[0], '#');
    EXPECT_EQ(CountRecords("[Exception]", "_G_SafePrintf engine down\n"), 1);
    EXPECT_EQ(local.Texts(), std::vector<std::string>{"_G_SafePrintf engine down\n"});

    // Any other exception gives -1 without a report.
    engine.bFailWithRuntimeError = true;
    EXPECT_EQ(_G_SafePrintf(szBuffer, sizeof(szBuffer), "%d", 12), -1);
    // And so does a report of the failure that fails in turn.
    engine.bFailWithRuntimeError = false;
    engine.nWin32FailuresLeft = 1;
    local.bFailWithRuntimeError = true;
    EXPECT_EQ(_G_SafePrintf(szBuffer, sizeof(szBuffer), "%d", 12), -1);
    local.bFailWithRuntimeError = false;
    EXPECT_EQ(CountOf(LogText(), "[Exception]"), 2);  // the first and the failed report

    // Working again.
    EXPECT_EQ(_G_SafePrintf(szBuffer, sizeof(szBuffer), "%d", 12), 2);
    EXPECT_STREQ(szBuffer, "12");
}
