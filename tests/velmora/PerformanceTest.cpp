// Performance reports: the texts and their bound, debugLevel, the console, and profiling.
#include "ProfileTestSupport.h"

using namespace velmora_log_test;
using namespace velmora_profile_test;

namespace {

// The default log is a log client; profile logs are direct files. The test is the console.
struct Performance : LogFolderTest, CPerformanceConsoleInf {
    void SetUp() override { LogFolderTest::SetUp(), globalDefaultLog = CallGetDefaultLog(); }
    void ReportPerformance(Performance_Types::DEF nType, const char* szText, int nValue) override {
        calls.push_back(std::to_string(int(nType)) + ":" + szText + ":" + std::to_string(nValue));
    }
    std::vector<std::string> calls;
};
const std::string kPing = "The Round Trip to Ping Client: ", kTrading = "Trading  Latency of Client ";

}  // namespace

// The line needs debugLevel 0 and a default log, the console its plug and switch; profiling a log.
TEST_F(Performance, TheLogLineTheConsoleAndProfilingOnTheDefaultLog) {
    const DWORD me = GetCurrentThreadId();
    _G_nGapMS = 249;
    EXPECT_EQ(velmora.ProfilePerformance("prof", me), int(me));
    EXPECT_EQ(globalDefaultLog->nBottleNeckUnit, 249);
    velmora.StartEventProfiling(9, int(me)), globalDefaultLog->Log("P", "work"), velmora.EndEventProfiling(int(me));
    velmora.StopProfiling(int(me));
    EXPECT_TRUE(MatchesPattern(WithoutMarks(velmora_test::ReadFile(DirectFile("prof"))),
                               TextRecord(nullptr, EventStartText(9)) + TextRecord("P", "work") +
                                   TextRecord(nullptr, EventEndText()) + TextRecord("SHUTDOWN", ShutdownBanner())));
    const std::string fits = Letters(724), over = Letters(725, 1);  // 31 + 724 + ",5 MS" is 760
    const auto ping = Performance_Types::PING_ROUND_TRIP, trading = Performance_Types::TRADING_LATENCY;
    auto Line = [](const std::string& text) { return TextRecord(nullptr, text); };
    debugLevel = 0;
    velmora.SetPerformanceConsole(this), velmora.ReportPerformance(ping, "off", 1);
    velmora.EnableReportPerformance(true), velmora.ReportPerformance(trading, "on", -2);
    velmora.ReportPerformance(Performance_Types::DEF(2), "none", 3), velmora.ReportPerformance(ping, fits.c_str(), 5);
    debugLevel = -1, velmora.ReportPerformance(ping, "quiet", 4), debugLevel = 0;
    velmora.SetPerformanceConsole(nullptr), velmora.ReportPerformance(ping, over.c_str(), 5);
    velmora.ReportPerformance(ping, nullptr, 6);
    CQuorelLog* pDefault = std::exchange(globalDefaultLog, nullptr);
    velmora.SetPerformanceConsole(this), velmora.ReportPerformance(ping, "bare", 7);
    EXPECT_EQ(calls, (std::vector<std::string>{"1:on:-2", "2:none:3", "0:" + fits + ":5", "0:quiet:4", "0:bare:7"}));
    EXPECT_TRUE(MatchesPattern(LogTextOf(pDefault), TextRecord("START", StartBanner()) + TextRecord("P", "work") +
                                                        Line(kPing + "off,1 MS") + Line(kTrading + "on,-2 MS") +
                                                        Line(kPing + fits + ",5 MS") + Line(kPing + over + ",5 M") +
                                                        Line(kPing + "(null),6 MS")));
    EXPECT_EQ(velmora.ProfilePerformance("other", me), -1);  // without a default log, profiling does nothing
    velmora.StartEventProfiling(1, int(me)), velmora.EndEventProfiling(int(me)), velmora.StopProfiling(int(me));
}
