// The report pipeline: the default log, the console block and its stamp, the limits of the
// texts, the console gate of each twin, the ownership of blocks, raw messages, the report
// level and the logger timer.
#include "ReportTestSupport.h"

#include <dlfcn.h>

#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <thread>

using namespace velmora_report_test;
using velmora_log_test::Letters;
using velmora_log_test::MatchesPattern;

// ---- Interposed platform and logger functions --------------------------------------------
// Defined in the test program, these take the calls of the library (the program's symbols
// come first in the dynamic lookup) and pass them on to the next definition, the real one.

namespace {

std::atomic<long> g_nAllocs{0};
std::atomic<long> g_nFrees{0};
std::atomic<size_t> g_nLastSize{0};
std::atomic<unsigned> g_nLastFlags{0};
std::atomic<bool> g_bFailAllocations{false};
std::atomic<int> g_nLoggerSysTimeResult{0};

template <typename Function>
Function NextDefinition(const char* szSymbol) {
    void* pFunction = dlsym(RTLD_NEXT, szSymbol);
    if (pFunction == nullptr) {
        // The library that defines it isn't loaded: the counts would be meaningless.
        std::fprintf(stderr, "no definition of %s behind the test program\n", szSymbol);
        std::abort();
    }
    return reinterpret_cast<Function>(pFunction);
}

}  // namespace

extern "C" HGLOBAL GlobalAlloc(UINT uFlags, SIZE_T dwBytes) {
    static auto pNext = NextDefinition<HGLOBAL (*)(UINT, SIZE_T)>("GlobalAlloc");
    g_nLastSize = dwBytes;
    g_nLastFlags = uFlags;
    if (g_bFailAllocations) return nullptr;
    HGLOBAL hBlock = pNext(uFlags, dwBytes);
    if (hBlock != nullptr) ++g_nAllocs;
    return hBlock;
}

extern "C" HGLOBAL GlobalFree(HGLOBAL hMem) {
    static auto pNext = NextDefinition<HGLOBAL (*)(HGLOBAL)>("GlobalFree");
    if (hMem != nullptr) ++g_nFrees;
    return pNext(hMem);
}

int EnableLoggerSysTime() {
    static auto pNext = NextDefinition<int (*)()>("_Z19EnableLoggerSysTimev");
    int nResult = g_nLoggerSysTimeResult;
    return nResult != 0 ? nResult : pNext();
}

namespace velmora_report_test {
BlockTraffic CurrentBlockTraffic() { return {g_nAllocs.load(), g_nFrees.load()}; }
size_t LastAllocationSize() { return g_nLastSize; }
unsigned LastAllocationFlags() { return g_nLastFlags; }
void FailBlockAllocations(bool bFail) { g_bFailAllocations = bFail; }
void SetLoggerSysTimeResult(int nResult) { g_nLoggerSysTimeResult = nResult; }
}  // namespace velmora_report_test

namespace {

using ReportPipeline = ReportFixture;

// Whether the month, day, hour and minute of a stamp "[MM/DD HH:MM:..." lie between two
// local times taken around the report, however long it took (a year's end wraps).
bool StampIsBetween(const std::string& stamp, const SYSTEMTIME& before, const SYSTEMTIME& after) {
    auto key = [](int month, int day, int hour, int minute) {
        return ((month * 32 + day) * 24 + hour) * 60 + minute;
    };
    if (stamp.size() < 13) return false;
    auto field = [&](size_t at) { return std::atoi(stamp.substr(at, 2).c_str()); };
    int nStamp = key(field(1), field(4), field(7), field(10));
    int nBefore = key(before.wMonth, before.wDay, before.wHour, before.wMinute);
    int nAfter = key(after.wMonth, after.wDay, after.wHour, after.wMinute);
    if (nBefore <= nAfter) return nBefore <= nStamp && nStamp <= nAfter;
    return nStamp >= nBefore || nStamp <= nAfter;
}

}  // namespace

TEST_F(ReportPipeline, WithoutAConsoleEveryTwinWritesOnlyTheLogAndAllocatesNothing) {
    MakeDefaultLog();
    BlockTraffic before = CurrentBlockTraffic();
    velmora.LogReport(Report_Types::REPORT_RUNTIME_STATE, "plain text");
    velmora.LogReportInColor(Report_Types::REPORT_FS_COMMAND, 7, "colour text");
    velmora.LogFortmatedReport(Report_Types::REPORT_FS_OUTPUT, "n=%d %s", 42, "formatted");
    velmora.LogFortmatedReportInColor(Report_Types::REPORT_DEBUG, 9, "%05.1f|%x", 3.14159, 255u);
    velmora.LogReport(Report_Types::REPORT_ALGO_LOADED, nullptr);
    const char* volatile szNoFormat = nullptr;
    velmora.LogFortmatedReport(Report_Types::REPORT_ALGO_UNLOADED, szNoFormat);
    EXPECT_EQ(Since(before), BlockTraffic());

    EXPECT_EQ(CountRecords("[Runtime State]", "plain text"), 1);
    EXPECT_EQ(CountRecords("[FS Command]", "colour text"), 1);
    EXPECT_EQ(CountRecords("[FS Output]", "n=42 formatted"), 1);
    EXPECT_EQ(CountRecords("[Debug]", "003.1|ff"), 1);
    // A null text or format is shown as the platform's formatter shows a null string.
    EXPECT_EQ(CountRecords("[Algo Loaded]", "(null)"), 1);
    EXPECT_EQ(CountRecords("[Algo Unloaded]", "(null)"), 1);
}

TEST_F(ReportPipeline, TheConsoleGetsAStampedBlockAndTheLogTheTextWithoutIt) {
    MakeDefaultLog();
    velmora.SetReportConsole(&console);
    SYSTEMTIME before, after;
    GetPeltrixLocalTime(&before, 0);
    const std::pair<size_t, unsigned> kBlock(768, 0);  // size and flags of a console block
    BlockTraffic traffic = CurrentBlockTraffic();
    velmora.LogReport(Report_Types::REPORT_MAINTENANCE, "hello");
    EXPECT_EQ(std::pair(LastAllocationSize(), LastAllocationFlags()), kBlock);
    velmora.LogReportInColor(Report_Types::REPORT_DB_ENGINE, 0xDEADBEEF, "red");
    velmora.LogFortmatedReport(Report_Types::REPORT_ALERT, "v=%d", 5);
    EXPECT_EQ(std::pair(LastAllocationSize(), LastAllocationFlags()), kBlock);
    velmora.LogFortmatedReportInColor(Report_Types::REPORT_SENT, 0x00FF00, "%s|%3d", "g", 7);
    GetPeltrixLocalTime(&after, 0);

    // One block for each report, freed once by the console that received it.
    EXPECT_EQ(Since(traffic), (BlockTraffic{4, 4}));

    // The colour twins call the colour operation with the colour unchanged.
    struct Expected {
        const char* szText;
        std::tuple<Report_Types::DEF, bool, DWORD> kind;
        const char* szPrefix;
    };
    const Expected expected[] = {
        {"hello", {Report_Types::REPORT_MAINTENANCE, false, 0}, "[Maintenance]"},
        {"red", {Report_Types::REPORT_DB_ENGINE, true, 0xDEADBEEF}, "[DB Engine]"},
        {"v=5", {Report_Types::REPORT_ALERT, false, 0}, "[Alert]"},
        {"g|  7", {Report_Types::REPORT_SENT, true, 0x00FF00}, "[Sent]"}};
    std::vector<ConsoleCall> calls = console.Calls();
    ASSERT_EQ(calls.size(), 4u);
    for (size_t i = 0; i < calls.size(); ++i) {
        SCOPED_TRACE(calls[i].text);
        EXPECT_TRUE(MatchesPattern(calls[i].text, "[##/## ##:##:##.###] " + std::string(expected[i].szText)));
        EXPECT_TRUE(StampIsBetween(calls[i].text, before, after));
        EXPECT_EQ(KindOf(calls[i]), expected[i].kind);
        EXPECT_EQ(CountRecords(expected[i].szPrefix, expected[i].szText), 1);
    }

    // The default log is a log client, which cuts a record at 512 characters; the console
    // shows the whole text.
    console.calls.clear();
    std::string text = Letters(700);
    velmora.LogReport(Report_Types::REPORT_RUNTIME_STATE, text.c_str());
    ASSERT_EQ(console.Texts(), std::vector<std::string>{text});
    EXPECT_EQ(CountRecords("[Runtime State]", text.substr(0, 512)), 1);
}

// A direct log keeps records of more than 512 characters, so the cuts of the pipeline show.
TEST_F(ReportPipeline, TextsAreCutAt746CharactersInABlockAndAt767Without) {
    MakeDefaultLog(true);
    size_t shift = 0;
    for (bool bConsole : {true, false}) {
        velmora.SetReportConsole(bConsole ? &console : nullptr);
        const size_t nRoom = bConsole ? 746 : 767;
        for (Twin twin : kAllTwins) {
            SCOPED_TRACE(::testing::Message() << TwinName(twin) << (bConsole ? ", console" : ""));
            const std::vector<std::string> texts = {
                Letters(nRoom, ++shift), Letters(nRoom + 1, ++shift), Letters(2000, ++shift)};
            std::vector<std::string> cut;
            for (const std::string& text : texts) {
                Report(twin, Report_Types::REPORT_ALERT, text);
                cut.push_back(text.substr(0, nRoom));
                EXPECT_EQ(CountRecords("[Alert]", cut.back()), 1);
            }
            EXPECT_EQ(console.Texts(), bConsole ? cut : std::vector<std::string>());
            console.calls.clear();
        }
    }
}

TEST_F(ReportPipeline, TheReportLevelHoldsBackTheConsoleButNeverTheLog) {
    MakeDefaultLog();
    velmora.SetReportConsole(&console);
    velmora.SetReportLevel(6);
    for (Twin twin : kAllTwins) {
        console.calls.clear();
        Report(twin, Report_Types::REPORT_FS_OUTPUT, std::string("six ") + TwinName(twin));
        Report(twin, Report_Types::REPORT_CLIENT_LOGIN, std::string("seven ") + TwinName(twin));
        EXPECT_EQ(console.Texts(), std::vector<std::string>{std::string("six ") + TwinName(twin)});
        EXPECT_EQ(CountRecords("[Client Login]", std::string("seven ") + TwinName(twin)), 1);
    }

    velmora.SetReportLevel(-1);
    console.calls.clear();
    for (Twin twin : kAllTwins)
        Report(twin, Report_Types::REPORT_EXCEPTION, std::string("zero ") + TwinName(twin));
    EXPECT_EQ(console.Count(), 0u);
    for (Twin twin : kAllTwins)
        EXPECT_EQ(CountRecords("[Exception]", std::string("zero ") + TwinName(twin)), 1);
}

TEST_F(ReportPipeline, SetReportLevelCapsAt22AndAdjustReportLevelRefusesNegatives) {
    // What AdjustReportLevel returns, and the level after it.
    auto Adjust = [](int nBy) { return std::pair(velmora.AdjustReportLevel(nBy), velmora.nReportLevel); };
    EXPECT_EQ(velmora.nReportLevel, 22);
    velmora.SetReportLevel(100);
    EXPECT_EQ(velmora.nReportLevel, 22);
    EXPECT_EQ(Adjust(100), std::pair(122, 122));

    // During a shell command the level can't be adjusted, but it can be set.
    velmora.SetReportLevel(22);
    velmora.bInShellCommand = true;
    EXPECT_EQ(Adjust(-1), std::pair(-1, 22));
    velmora.SetReportLevel(10);
    EXPECT_EQ(velmora.nReportLevel, 10);
    velmora.bInShellCommand = false;

    velmora.SetReportLevel(22);
    EXPECT_EQ(Adjust(-23), std::pair(-1, 22));
    EXPECT_EQ(Adjust(-22), std::pair(0, 0));
    // A sum that wraps in 32 bits is negative and refused like any other.
    velmora.SetReportLevel(22);
    EXPECT_EQ(Adjust(INT_MAX), std::pair(-1, 22));

    // From a negative level only SetReportLevel comes back.
    velmora.SetReportLevel(-5);
    EXPECT_EQ(velmora.nReportLevel, -5);
    EXPECT_EQ(Adjust(10), std::pair(-1, -5));
    EXPECT_EQ(Adjust(0), std::pair(-1, -5));
    velmora.SetReportLevel(3);
    EXPECT_EQ(Adjust(2), std::pair(5, 5));
}

TEST_F(ReportPipeline, TheGrepTextIsSoughtInTheWholeBlockStampIncluded) {
    MakeDefaultLog();
    velmora.SetReportConsole(&console);
    std::strcpy(velmora.szGrepText, "needle");
    for (Twin twin : kAllTwins) {
        console.calls.clear();
        Report(twin, Report_Types::REPORT_ALERT, "only hay");
        Report(twin, Report_Types::REPORT_ALERT, "a NEEDLE");  // the search minds the case
        Report(twin, Report_Types::REPORT_ALERT, "a needle in hay");
        EXPECT_EQ(console.Texts(), std::vector<std::string>{"a needle in hay"}) << TwinName(twin);
    }
    EXPECT_EQ(CountRecords("[Alert]", "only hay"), 4);

    // A colon stands only in the stamp of these texts, and lets every one through.
    std::strcpy(velmora.szGrepText, ":");
    console.calls.clear();
    for (Twin twin : kAllTwins) Report(twin, Report_Types::REPORT_ALERT, "no colon here");
    EXPECT_EQ(console.Count(), 4u);
}

TEST_F(ReportPipeline, AShellCommandOfAnotherThreadHoldsBackOnlyThePlainTwins) {
    MakeDefaultLog();
    velmora.SetReportConsole(&console);
    velmora.dwShellThreadId = GetCurrentThreadId() + 1;  // not this thread, not 0
    for (Twin twin : kAllTwins) Report(twin, Report_Types::REPORT_ALERT, TwinName(twin));
    EXPECT_EQ(console.Texts(), (std::vector<std::string>{"CVelmora::LogReportInColor",
                                                         "CVelmora::LogFortmatedReportInColor"}));
    EXPECT_EQ(CountRecords("[Alert]", "CVelmora::LogReport"), 1);
    EXPECT_EQ(CountRecords("[Alert]", "CVelmora::LogFortmatedReport"), 1);

    // The thread of the command reaches the console; another thread of the host doesn't.
    velmora.dwShellThreadId = GetCurrentThreadId();
    console.calls.clear();
    std::thread other([] {
        for (Twin twin : kAllTwins) Report(twin, Report_Types::REPORT_ALERT, "other thread");
    });
    other.join();
    EXPECT_EQ(console.Count(), 2u);
    for (const ConsoleCall& call : console.Calls()) EXPECT_TRUE(call.bInColor);
    console.calls.clear();
    for (Twin twin : kAllTwins) Report(twin, Report_Types::REPORT_ALERT, "command thread");
    EXPECT_EQ(console.Count(), 4u);
}

TEST_F(ReportPipeline, AStatusPrintToIniSilencesOnlyLogFortmatedReport) {
    MakeDefaultLog();
    velmora.SetReportConsole(&console);
    velmora.bRuntimeStatusToIni = true;
    for (Twin twin : kAllTwins) Report(twin, Report_Types::REPORT_EXCEPTION, TwinName(twin));
    EXPECT_EQ(console.Texts(),
              (std::vector<std::string>{"CVelmora::LogReport", "CVelmora::LogReportInColor",
                                        "CVelmora::LogFortmatedReportInColor"}));
    EXPECT_EQ(CountRecords("[Exception]", "CVelmora::LogFortmatedReport"), 1);
}

// Refused blocks are freed by the pipeline, passed ones by the console; none twice, none
// lost. The counts show it without a leak checker.
TEST_F(ReportPipeline, EveryBlockReachesTheConsoleOrIsFreedExactlyOnce) {
    MakeDefaultLog();
    velmora.SetReportConsole(&console);
    BlockTraffic before = CurrentBlockTraffic();
    int nReports = 0;
    for (Twin twin : kAllTwins) {
        velmora.SetReportLevel(22);
        velmora.szGrepText[0] = '\0';
        velmora.dwShellThreadId = 0;
        velmora.bRuntimeStatusToIni = false;
        Report(twin, Report_Types::REPORT_ALERT, "passes");
        velmora.SetReportLevel(0);
        Report(twin, Report_Types::REPORT_ALERT, "above the level");
        velmora.SetReportLevel(22);
        std::strcpy(velmora.szGrepText, "absent");
        Report(twin, Report_Types::REPORT_ALERT, "not grepped");
        velmora.szGrepText[0] = '\0';
        velmora.dwShellThreadId = GetCurrentThreadId() + 1;
        Report(twin, Report_Types::REPORT_ALERT, "other thread's command");
        velmora.dwShellThreadId = 0;
        velmora.bRuntimeStatusToIni = true;
        Report(twin, Report_Types::REPORT_ALERT, "status to ini");
        nReports += 5;
    }
    EXPECT_EQ(Since(before), (BlockTraffic{nReports, nReports}));
    // Passed: 4 "passes", the 2 colour twins past the shell thread, 3 twins past the INI flag.
    EXPECT_EQ(console.Count(), 9u);
}

TEST_F(ReportPipeline, AFailedAllocationReportsNothingAnywhere) {
    MakeDefaultLog();
    velmora.SetReportConsole(&console);
    FailBlockAllocations(true);
    for (Twin twin : kAllTwins) Report(twin, Report_Types::REPORT_ALERT, "lost report");
    FailBlockAllocations(false);
    EXPECT_EQ(console.Count(), 0u);
    EXPECT_EQ(velmora_log_test::CountOf(LogText(), "lost report"), 0);

    // Without a console no block is needed.
    velmora.SetReportConsole(nullptr);
    FailBlockAllocations(true);
    for (Twin twin : kAllTwins) Report(twin, Report_Types::REPORT_ALERT, "kept report");
    FailBlockAllocations(false);
    EXPECT_EQ(CountRecords("[Alert]", "kept report"), 4);
}

TEST_F(ReportPipeline, WithoutADefaultLogNothingIsReportedAnywhere) {
    MakeDefaultLog();
    velmora.SetReportConsole(&console);
    velmora.bMsgReporting = false;
    globalDefaultLog = nullptr;
    BlockTraffic before = CurrentBlockTraffic();
    for (Twin twin : kAllTwins) Report(twin, Report_Types::REPORT_ALERT, "before init");
    SetLoggerSysTimeResult(3);
    velmora.ToEnableLoggerSysTime();
    BlockTraffic spent = Since(before);
    EXPECT_EQ(spent.nAllocs, 0);
    EXPECT_EQ(console.Count(), 0u);
    globalDefaultLog = pLog;
    std::string log = LogText();
    EXPECT_EQ(velmora_log_test::CountOf(log, "before init"), 0);
    EXPECT_EQ(velmora_log_test::CountOf(log, "Logger timer"), 0);
}

TEST_F(ReportPipeline, RawMessagesReachTheConsoleOnlyWhileMessageReportingIsOn) {
    MakeDefaultLog();
    velmora.SetReportConsole(&console);
    // The switch has no effect: the flag stays off and every block is freed here.
    velmora.EnableMsgReporting(true);
    EXPECT_FALSE(velmora.IsMsgReportingEnabled());
    BlockTraffic before = CurrentBlockTraffic();
    velmora.LogRawMsgReport(Report_Types::REPORT_RECEIVED, RawBlock("raw while off"));
    EXPECT_EQ(console.Count(), 0u);
    EXPECT_EQ(Since(before).nFrees, 1);

    // With the flag on the block itself passes, whatever the level and the grep text say.
    velmora.bMsgReporting = true;
    velmora.SetReportLevel(-1);
    std::strcpy(velmora.szGrepText, "absent");
    char* szBlock = RawBlock("raw while on");
    uintptr_t nAddress = reinterpret_cast<uintptr_t>(szBlock);
    velmora.LogRawMsgReport(Report_Types::REPORT_SENT, szBlock);
    EXPECT_EQ(console.Calls(), std::vector<ConsoleCall>(
                                   {{Report_Types::REPORT_SENT, false, 0, "raw while on", nAddress}}));

    // No console: freed.
    velmora.SetReportConsole(nullptr);
    before = CurrentBlockTraffic();
    velmora.LogRawMsgReport(Report_Types::REPORT_SENT, RawBlock("raw, no console"));
    EXPECT_EQ(Since(before).nFrees, 1);

    // Raw messages never reach the log.
    EXPECT_EQ(velmora_log_test::CountOf(LogText(), "raw "), 0);
}

TEST_F(ReportPipeline, IsRawMsgFilteredAsksThePluggedInConsole) {
    int nMessage = 0;
    EXPECT_TRUE(velmora.IsRawMsgFiltered(Report_Types::REPORT_SENT, &nMessage));

    velmora.SetReportConsole(&console);
    console.bFilterAnswer = false;
    EXPECT_FALSE(velmora.IsRawMsgFiltered(Report_Types::REPORT_SENT, &nMessage));
    console.bFilterAnswer = true;
    EXPECT_TRUE(velmora.IsRawMsgFiltered(Report_Types::REPORT_RECEIVED, nullptr));
    EXPECT_EQ(console.filterAsks, (std::vector<std::pair<Report_Types::DEF, void*>>{
                                      {Report_Types::REPORT_SENT, &nMessage},
                                      {Report_Types::REPORT_RECEIVED, nullptr}}));

    // A console that keeps the default filters nothing.
    struct PlainConsole : CReportConsoleInf {
        void LogReport(Report_Types::DEF, char* szBlock) override { GlobalFree(szBlock); }
    } plain;
    velmora.SetReportConsole(&plain);
    EXPECT_FALSE(velmora.IsRawMsgFiltered(Report_Types::REPORT_SENT, &nMessage));
}

TEST_F(ReportPipeline, AFailureToEnableTheLoggerTimerIsReportedAsARuntimeState) {
    MakeDefaultLog();
    velmora.SetReportConsole(&console);
    velmora.ToEnableLoggerSysTime();  // the logger's own function succeeds
    EXPECT_EQ(console.Count(), 0u);

    SetLoggerSysTimeResult(1450);
    velmora.ToEnableLoggerSysTime();
    const std::string text = "The Logger timer could be enabled with error 1450\n";
    ASSERT_EQ(console.Texts(), std::vector<std::string>{text});
    EXPECT_EQ(KindOf(console.Calls()[0]), std::tuple(Report_Types::REPORT_RUNTIME_STATE, false, 0u));
    EXPECT_EQ(velmora_log_test::CountOf(LogText(), "Logger timer"), 1);
    EXPECT_EQ(CountRecords("[Runtime State]", text), 1);
}
