// The report pipeline: block and log, cuts, the console gate of each twin, block owners, raw messages, levels.
#include "ReportTestSupport.h"

#include <dlfcn.h>

#include <atomic>
#include <climits>

using namespace velmora_report_test;
using velmora_log_test::CountOf;

// The library's GlobalAlloc, GlobalFree and EnableLoggerSysTime land here first (the program comes first in the
// dynamic lookup); the calls are counted and passed on.
namespace {
std::atomic<long> g_nAllocs{0}, g_nFrees{0};
std::atomic<size_t> g_nLastSize{0};
std::atomic<unsigned> g_nLastFlags{0};
std::atomic<int> g_nFailAllocations{0}, g_nSysTimeResult{0};
template <typename F> F Next(const char* szSymbol) {
    void* p = dlsym(RTLD_NEXT, szSymbol);
    if (p == nullptr) std::abort();  // without the real one the counts mean nothing
    return reinterpret_cast<F>(p);
}
}  // namespace
extern "C" HGLOBAL GlobalAlloc(UINT uFlags, SIZE_T dwBytes) {
    static auto pNext = Next<HGLOBAL (*)(UINT, SIZE_T)>("GlobalAlloc");
    g_nLastSize = dwBytes, g_nLastFlags = uFlags;
    HGLOBAL hBlock = g_nFailAllocations ? nullptr : pNext(uFlags, dwBytes);
    g_nAllocs += hBlock != nullptr;
    return hBlock;
}
extern "C" HGLOBAL GlobalFree(HGLOBAL hMem) {
    static auto pNext = Next<HGLOBAL (*)(HGLOBAL)>("GlobalFree");
    g_nFrees += hMem != nullptr;
    return pNext(hMem);
}
int EnableLoggerSysTime() {  // or the result the test asks for
    static auto pNext = Next<int (*)()>("_Z19EnableLoggerSysTimev");
    return g_nSysTimeResult != 0 ? g_nSysTimeResult.load() : pNext();
}
namespace velmora_report_test {
BlockTraffic CurrentBlockTraffic() { return {g_nAllocs, g_nFrees}; }
std::pair<size_t, unsigned> LastAllocation() { return {g_nLastSize, g_nLastFlags}; }
void FailBlockAllocations(bool bFail) { g_nFailAllocations = bFail; }
void SetLoggerSysTimeResult(int nResult) { g_nSysTimeResult = nResult; }
}  // namespace velmora_report_test

using ReportPipeline = ReportFixture;

// Block of 768 (flags 0): stamp of the time, text cut at 746; the log gets the text alone, cut at 767 without console.
TEST_F(ReportPipeline, TheBlockTheLogAndTheirCuts) {
    MakeDefaultLog(true);
    auto stampOf = [](const SYSTEMTIME& t) {  // "[MM/DD HH:MM:SS.mmm] "
        char sz[48];
        snprintf(sz, sizeof(sz), "[%02d/%02d %02d:%02d:%02d.%03d] ", t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond, t.wMilliseconds);
        return std::string(sz);
    };
    for (size_t i = 0; i < 8; ++i) {  // the twins with a console, then without
        const Twin twin = kAllTwins[i % 4];
        const bool bConsole = i < 4, bColour = twin == Twin::kLogReportInColor || twin == Twin::kFormattedInColor;
        const size_t nRoom = bConsole ? 746 : 767;
        const std::string whole = velmora_log_test::Letters(nRoom, 2 * i), longer = velmora_log_test::Letters(nRoom + 1, 2 * i + 1);
        velmora.SetReportConsole(bConsole ? &console : nullptr);
        console.calls.clear();
        SYSTEMTIME before, after;  // around the reports, to bound their stamp
        GetPeltrixLocalTime(&before, 0);
        BlockTraffic traffic = TrafficOf([&] { for (const std::string& text : {whole, longer}) Report(twin, Report_Types::REPORT_SENT, text, 0xFF00); });
        GetPeltrixLocalTime(&after, 0);
        EXPECT_EQ(CountRecords("[Sent]", whole) + CountRecords("[Sent]", longer.substr(0, nRoom)), 2) << i;
        EXPECT_EQ(traffic, (bConsole ? BlockTraffic{2, 2} : BlockTraffic{})) << i;
        if (!bConsole) continue;
        ASSERT_EQ(console.Count(), 2u);
        const std::string stamp = console.calls[0].text.substr(0, 21);
        EXPECT_TRUE(stampOf(before) <= stamp && stamp <= stampOf(after)) << stamp;
        EXPECT_EQ(console.calls[0], (ConsoleCall{Report_Types::REPORT_SENT, bColour, bColour ? 0xFF00u : 0, stamp + whole})) << i;
        EXPECT_EQ(console.Texts()[1], longer.substr(0, nRoom)) << i;
        EXPECT_EQ(LastAllocation(), std::pair(size_t(768), 0u));
    }
    const char* volatile szNoFormat = nullptr;
    velmora.LogReport(Report_Types::REPORT_ALGO_LOADED, nullptr), velmora.LogFortmatedReport(Report_Types::REPORT_ALGO_UNLOADED, szNoFormat);
    EXPECT_EQ(CountRecords("[Algo Loaded]", "(null)") + CountRecords("[Algo Unloaded]", "(null)"), 2);
}

// Per case and twin "y" (console) or "n", then the count in the log; each block is taken or freed, once.
TEST_F(ReportPipeline, TheConsoleGateOfEachTwin) {
    MakeDefaultLog();
    velmora.SetReportConsole(&console);
    const DWORD dwThis = GetCurrentThreadId();
    struct Case { int nLevel, nType; const char* szGrep; DWORD dwShell; bool bIni, bNoBlock; const char* szPasses; } const cases[] = {
        {6, 6, "", 0, false, false, "yyyy4"}, {6, 7, "", 0, false, false, "nnnn4"}, {-1, 0, "", 0, false, false, "nnnn4"},
        {22, 1, "se 3", 0, false, false, "yyyy4"}, {22, 1, "SE 4", 0, false, false, "nnnn4"}, {22, 1, ":", 0, false, false, "yyyy4"},
        {22, 1, "", dwThis + 1, false, false, "nyny4"}, {22, 1, "", dwThis, false, false, "yyyy4"},
        {22, 1, "", 0, true, false, "yyny4"}, {22, 1, "", 0, false, true, "nnnn0"}};
    std::vector<std::string> passes;
    BlockTraffic traffic = TrafficOf([&] {
        for (const Case& c : cases) {
            velmora.SetReportLevel(c.nLevel), FailBlockAllocations(c.bNoBlock), std::strcpy(velmora.szGrepText, c.szGrep);
            velmora.dwShellThreadId = c.dwShell, velmora.bRuntimeStatusToIni = c.bIni;
            passes.emplace_back();
            for (Twin twin : kAllTwins) {
                const size_t nBefore = console.Count();
                Report(twin, Report_Types::DEF(c.nType), "case " + std::to_string(passes.size() - 1));  // ":" is in the stamp only
                passes.back() += console.Count() > nBefore ? 'y' : 'n';
            }
        }
        FailBlockAllocations(false);
        for (bool bOn : {false, true})  // a raw message passes with message reporting alone, and not to the log
            velmora.bMsgReporting = bOn, velmora.LogRawMsgReport(Report_Types::REPORT_SENT, RawBlock(bOn ? "raw on" : "raw off"));
    });
    const std::string log = LogText();
    for (size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(passes[i] + std::to_string(CountOf(log, "case " + std::to_string(i) + ";")), cases[i].szPasses) << i;
    EXPECT_EQ(traffic, (BlockTraffic{38, 38}));
    EXPECT_EQ(console.calls.back(), (ConsoleCall{Report_Types::REPORT_SENT, false, 0, "raw on"}));
    EXPECT_EQ(console.Count(), 22u);
    EXPECT_EQ(CountOf(log, "raw o"), 0);
}

// Set caps at 22; Adjust refuses a negative result, a negative level and a running shell command. A failure
// to enable the logger timer is a runtime state report.
TEST_F(ReportPipeline, SetReportLevelCapsAt22AndAdjustReportLevelRefusesNegatives) {
    EXPECT_EQ(velmora.nReportLevel, 22);
    EXPECT_TRUE(velmora.IsRawMsgFiltered(Report_Types::REPORT_SENT, nullptr));  // no console to ask
    struct Step { int nSet; bool bInShell; int nBy, nResult, nLevel; } const steps[] = {
        {100, false, 0, 22, 22}, {22, false, 100, 122, 122}, {22, true, -1, -1, 22}, {22, false, -23, -1, 22},
        {22, false, -22, 0, 0}, {22, false, INT_MAX, -1, 22}, {-5, false, 10, -1, -5}, {3, false, 2, 5, 5}};
    for (const Step& s : steps) {
        velmora.SetReportLevel(s.nSet), velmora.bInShellCommand = s.bInShell;
        const int nResult = velmora.AdjustReportLevel(s.nBy);
        EXPECT_EQ(std::pair(nResult, velmora.nReportLevel), std::pair(s.nResult, s.nLevel)) << s.nSet << " + " << s.nBy;
    }
    MakeDefaultLog();
    SetLoggerSysTimeResult(1450), velmora.ToEnableLoggerSysTime();
    EXPECT_EQ(CountRecords("[Runtime State]", "The Logger timer could be enabled with error 1450\n"), 1);
}
