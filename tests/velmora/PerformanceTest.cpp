// Performance reports: the two log texts and their bound, the condition on debugLevel, the
// performance console and its switch, and the profiling switches on the default log.
#include "ProfileTestSupport.h"

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using namespace velmora_log_test;
using namespace velmora_profile_test;
using velmora_test::FileExists;
using velmora_test::ReadFile;
using velmora_test::TempDir;

namespace {

// A performance console that keeps what it is given.
struct RecordingConsole : CPerformanceConsoleInf {
    struct Call {
        Performance_Types::DEF nType;
        const char* szText;
        int nValue;
    };
    std::vector<Call> calls;
    void ReportPerformance(Performance_Types::DEF nType, const char* szText, int nValue) override {
        calls.push_back({nType, szText, nValue});
    }
};

// The default log is a log client; profile logs are direct files.
class Performance : public LogFolderTest {
protected:
    void SetUp() override {
        LogFolderTest::SetUp();
        if (HasFatalFailure()) return;
        globalDefaultLog = CallGetDefaultLog();
        ASSERT_NE(globalDefaultLog, nullptr);
        savedDebugLevel = debugLevel;
    }
    void TearDown() override {
        debugLevel = savedDebugLevel;
        velmora.SetPerformanceConsole(nullptr);
        velmora.EnableReportPerformance(false);
        globalDefaultLog = nullptr;
        LogFolderTest::TearDown();
    }

    // The default log after its opening banner.
    std::string DefaultBody() {
        CQuorelLog* pDefault = velmora.pLogClients[35];
        if (pDefault != nullptr) pDefault->FlushLog();
        return AfterBanner(ReadFile(ClientFile("default")));
    }
    std::string ProfileFile(const std::string& name) const { return DirectFile(name); }

    RecordingConsole console;
    int savedDebugLevel = 0;
};

}  // namespace

// ---- Log lines -----------------------------------------------------------------------------

TEST_F(Performance, BothTypesLogTheirTextsWithoutAPrefixFromDebugLevel0OnCutAt760) {
    debugLevel = 0;
    velmora.ReportPerformance(Performance_Types::PING_ROUND_TRIP, "C1", 12);
    velmora.ReportPerformance(Performance_Types::TRADING_LATENCY, "C2", -3);
    // "The Round Trip to Ping Client: " is 31 characters and ",5 MS" 5: a client of 724
    // characters fills the line exactly, one more loses the last character.
    std::string fits = Letters(724);
    std::string over = Letters(725, 1);
    std::string huge = Letters(2000, 2);
    velmora.ReportPerformance(Performance_Types::PING_ROUND_TRIP, fits.c_str(), 5);
    velmora.ReportPerformance(Performance_Types::PING_ROUND_TRIP, over.c_str(), 5);
    velmora.ReportPerformance(Performance_Types::TRADING_LATENCY, huge.c_str(), 5);
    std::string whole = "The Round Trip to Ping Client: " + fits + ",5 MS";
    ASSERT_EQ(whole.size(), 760u);
    std::string cut = "The Round Trip to Ping Client: " + over + ",5 M";
    EXPECT_TRUE(MatchesPattern(
        DefaultBody(),
        TextRecord(nullptr, "The Round Trip to Ping Client: C1,12 MS") +
            TextRecord(nullptr, "Trading  Latency of Client C2,-3 MS") +
            TextRecord(nullptr, whole) + TextRecord(nullptr, cut) +
            TextRecord(nullptr, ("Trading  Latency of Client " + huge).substr(0, 760))));
}

// ---- The console ---------------------------------------------------------------------------

TEST_F(Performance, BelowDebugLevel0OrWithoutATextOnlyTheConsoleHears) {
    velmora.SetPerformanceConsole(&console);
    velmora.EnableReportPerformance(true);
    debugLevel = -1;
    const char* szClient = "C1";
    velmora.ReportPerformance(Performance_Types::PING_ROUND_TRIP, szClient, 12);
    velmora.ReportPerformance(Performance_Types::TRADING_LATENCY, szClient, 13);
    EXPECT_EQ(DefaultBody(), "");
    ASSERT_EQ(console.calls.size(), 2u);
    EXPECT_EQ(console.calls[0].nType, Performance_Types::PING_ROUND_TRIP);
    EXPECT_EQ(console.calls[0].szText, szClient);  // the caller's text, as it came in
    EXPECT_EQ(console.calls[0].nValue, 12);
    EXPECT_EQ(console.calls[1].nType, Performance_Types::TRADING_LATENCY);
    EXPECT_EQ(console.calls[1].nValue, 13);

    // A type without a text reaches the console only, at any level.
    debugLevel = 4;
    velmora.ReportPerformance(Performance_Types::DEF(2), "C1", 14);
    EXPECT_EQ(DefaultBody(), "");
    ASSERT_EQ(console.calls.size(), 3u);
    EXPECT_EQ(int(console.calls[2].nType), 2);
    EXPECT_EQ(console.calls[2].nValue, 14);
}

TEST_F(Performance, TheConsoleNeedsBothThePlugAndTheSwitch) {
    EXPECT_FALSE(velmora.IsReportPerformanceEnabled());
    velmora.SetPerformanceConsole(&console);
    velmora.ReportPerformance(Performance_Types::PING_ROUND_TRIP, "plugged", 1);
    EXPECT_TRUE(console.calls.empty());

    velmora.EnableReportPerformance(true);
    EXPECT_TRUE(velmora.IsReportPerformanceEnabled());
    velmora.ReportPerformance(Performance_Types::PING_ROUND_TRIP, "enabled", 2);
    ASSERT_EQ(console.calls.size(), 1u);
    EXPECT_STREQ(console.calls[0].szText, "enabled");

    // Switched on without a console: nothing to call.
    velmora.SetPerformanceConsole(nullptr);
    velmora.ReportPerformance(Performance_Types::PING_ROUND_TRIP, "unplugged", 3);
    velmora.SetPerformanceConsole(&console);
    velmora.EnableReportPerformance(false);
    EXPECT_FALSE(velmora.IsReportPerformanceEnabled());
    velmora.ReportPerformance(Performance_Types::PING_ROUND_TRIP, "disabled", 4);
    EXPECT_EQ(console.calls.size(), 1u);

    // The log line doesn't depend on the console.
    std::string body = DefaultBody();
    for (const char* szClient : {"plugged", "enabled", "unplugged", "disabled"})
        EXPECT_EQ(CountOf(body, "Client: " + std::string(szClient) + ","), 1) << szClient;
}

TEST_F(Performance, WithoutADefaultLogOnlyTheConsoleHearsAndProfilingDoesNothing) {
    velmora.SetPerformanceConsole(&console);
    velmora.EnableReportPerformance(true);
    globalDefaultLog = nullptr;
    velmora.ReportPerformance(Performance_Types::PING_ROUND_TRIP, "C1", 12);
    EXPECT_EQ(console.calls.size(), 1u);
    EXPECT_EQ(DefaultBody(), "");

    DWORD me = GetCurrentThreadId();
    EXPECT_EQ(velmora.ProfilePerformance("prof", me), -1);
    velmora.StartEventProfiling(1, int(me));
    velmora.EndEventProfiling(int(me));
    velmora.StopProfiling(int(me));
    EXPECT_FALSE(FileExists(ProfileFile("prof")));
    EXPECT_EQ(velmora.pLogClients[35]->nProfileCount, 0);
}

// ---- Profiling on the default log ------------------------------------------------------------

TEST_F(Performance, ProfilingSwitchesDriveTheDefaultLogsProfiles) {
    DWORD me = GetCurrentThreadId();
    _G_nGapMS = 249;
    EXPECT_EQ(velmora.ProfilePerformance("prof", me), int(me));
    EXPECT_EQ(globalDefaultLog->nBottleNeckUnit, 249);
    EXPECT_EQ(velmora.ProfilePerformance("spare", me), int(me));
    // Both slots in use.
    EXPECT_EQ(velmora.ProfilePerformance("third", me), -1);
    EXPECT_FALSE(FileExists(ProfileFile("third")));
    EXPECT_EQ(globalDefaultLog->nProfileCount, 2);

    velmora.StartEventProfiling(9, int(me));
    globalDefaultLog->Log("P", "work");
    velmora.ReportPerformance(Performance_Types::PING_ROUND_TRIP, "C1", 12);
    velmora.EndEventProfiling(int(me));
    velmora.StopProfiling(int(me));
    EXPECT_TRUE(MatchesPattern(
        WithoutMarks(ReadFile(ProfileFile("prof"))),
        TextRecord(nullptr, EventStartText(9)) + TextRecord("P", "work") +
            TextRecord(nullptr, "The Round Trip to Ping Client: C1,12 MS") +
            TextRecord(nullptr, EventEndText()) + TextRecord("SHUTDOWN", ShutdownBanner())));
    EXPECT_EQ(ReadFile(ProfileFile("spare")), "");

    // The second stop ends the second slot.
    velmora.StopProfiling(int(me));
    EXPECT_TRUE(MatchesPattern(ReadFile(ProfileFile("spare")),
                               TextRecord("SHUTDOWN", ShutdownBanner())));
    EXPECT_EQ(globalDefaultLog->nProfileCount, 0);
    EXPECT_EQ(velmora.ProfilePerformance("again", me), int(me));
}
