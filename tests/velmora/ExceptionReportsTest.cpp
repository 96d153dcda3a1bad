// Trace lines and exception reports: the trace gate, the form and place of the trace line,
// the engine's transaction description, the texts of ReportException and where they go, and
// the host's win32_exception caught in the traced operations.
#include "ReportTestSupport.h"

using namespace velmora_report_test;
using velmora_log_test::CountOf;
using velmora_log_test::Letters;
using velmora_test::SplitLines;

namespace {

using TraceLines = ReportFixture;
using ExceptionReports = ReportFixture;

}  // namespace

TEST_F(TraceLines, TraceLinesNeedTraceAllAndADebugLevelOfFour) {
    MakeDefaultLog();
    ASSERT_FALSE(_G_TraceAll);  // the load state
    ASSERT_EQ(debugLevel, 4);
    velmora.LogReport(Report_Types::REPORT_ALERT, "trace all off");
    _G_TraceAll = true;
    debugLevel = 3;
    velmora.LogReport(Report_Types::REPORT_ALERT, "debug level 3");
    EXPECT_TRUE(TraceMessages(LogText()).empty());

    debugLevel = 4;
    velmora.LogReport(Report_Types::REPORT_ALERT, "debug level 4");
    debugLevel = 9;
    velmora.LogReport(Report_Types::REPORT_ALERT, "debug level 9");
    std::vector<std::string> traces = TraceMessages(LogText());
    ASSERT_EQ(traces.size(), 2u);
    EXPECT_TRUE(IsTraceOf(traces[0], "CVelmora::LogReport")) << traces[0];
    EXPECT_TRUE(IsTraceOf(traces[1], "CVelmora::LogReport")) << traces[1];
}

TEST_F(TraceLines, TheTraceComesFirstAndEndsInTheBlankWithoutAnEngine) {
    MakeDefaultLog();
    _G_TraceAll = true;
    velmora.LogReport(Report_Types::REPORT_RUNTIME_STATE, "the work");
    std::string log = LogText();
    std::string trace = ";TRACE;" + velmora_log_test::ThreadText() + ";Velmora Line:";
    size_t nTrace = log.find(trace);
    size_t nReport = log.find(Record("[Runtime State]", "the work"));
    ASSERT_NE(nTrace, std::string::npos) << log;
    ASSERT_NE(nReport, std::string::npos) << log;
    EXPECT_LT(nTrace, nReport);
    // "Velmora Line:<n> CVelmora::LogReport " and the end of the record.
    std::vector<std::string> traces = TraceMessages(log);
    ASSERT_EQ(traces.size(), 1u);
    EXPECT_TRUE(IsTraceOf(traces[0], "CVelmora::LogReport")) << traces[0];
    EXPECT_NE(log.find("CVelmora::LogReport ;\r\n"), std::string::npos);

    // Without an engine there is no description: 0xFFFFFFFF and nothing written.
    char szBuffer[16] = "untouched";
    EXPECT_EQ(velmora.GetTransactionDescr(szBuffer), 0xFFFFFFFFu);
    EXPECT_STREQ(szBuffer, "untouched");
}

TEST_F(TraceLines, TheEnginesDescriptionStandsDirectlyBehindTheBlank) {
    MakeDefaultLog();
    FakeTransactionEngine engine;
    velmora.pFTSEngine = &engine;
    char szBuffer[32] = {};
    EXPECT_EQ(velmora.GetTransactionDescr(szBuffer), 7u);
    EXPECT_STREQ(szBuffer, "TX#42 Orders");
    EXPECT_EQ(engine.nCalls, 1);

    _G_TraceAll = true;
    velmora.LogReport(Report_Types::REPORT_ALERT, "in a transaction");
    std::vector<std::string> traces = TraceMessages(LogText());
    ASSERT_EQ(traces.size(), 1u);
    EXPECT_TRUE(IsTraceOf(traces[0], "CVelmora::LogReport", "TX#42 Orders")) << traces[0];
    EXPECT_EQ(engine.nCalls, 2);
}

TEST_F(TraceLines, EachTracedOperationTracesUnderItsOwnName) {
    MakeDefaultLog();
    velmora.SetReportConsole(&console);
    _G_TraceAll = true;
    for (Twin twin : kAllTwins) Report(twin, Report_Types::REPORT_ALERT, "x");
    velmora.LogRawMsgReport(Report_Types::REPORT_SENT, RawBlock("raw message"));
    velmora.ReportException("Here", "failed");
    velmora.ReportException("Here", 12, "failed");
    std::vector<std::string> traces = TraceMessages(LogText());
    const char* const names[] = {
        "CVelmora::LogReport",       "CVelmora::LogReportInColor",
        "CVelmora::LogFortmatedReport", "CVelmora::LogFortmatedReportInColor",
        "CVelmora::LogRawMsgReport",
        // each exception report traces, then its report does
        "CVelmora::ReportException", "CVelmora::LogReport",
        "CVelmora::ReportException", "CVelmora::LogReport",
    };
    ASSERT_EQ(traces.size(), std::size(names));
    for (size_t i = 0; i < traces.size(); ++i)
        EXPECT_TRUE(IsTraceOf(traces[i], names[i])) << i << ": " << traces[i];
    // ToEnableLoggerSysTime, SetReportLevel and the rest don't trace.
    velmora.ToEnableLoggerSysTime();
    velmora.SetReportLevel(5);
    EXPECT_EQ(velmora.AdjustReportLevel(1), 6);
    EXPECT_FALSE(velmora.IsRawMsgFiltered(Report_Types::REPORT_SENT, nullptr));
    EXPECT_EQ(TraceMessages(LogText()).size(), std::size(names));
}

TEST_F(ExceptionReports, TheTextsReachTheMonitorTheLogAndTheConsole) {
    MakeDefaultLog();
    ConnectMonitor();
    velmora.SetReportConsole(&console);
    velmora.ReportException("Place", "boom");
    velmora.ReportException("Quiet", nullptr);
    velmora.ReportException("Quiet", "");
    velmora.ReportException("Where", 77, "bad");
    velmora.ReportException("Where", -3, nullptr);
    velmora.ReportException("Where", -3, "");
    const std::vector<std::string> texts = {"Place boom\n", "Quiet\n",          "Quiet\n",
                                            "Where line:77 bad\n", "Where line:-3\n",
                                            "Where line:-3\n"};

    EXPECT_EQ(console.Texts(), texts);
    for (const ConsoleCall& call : console.Calls()) {
        EXPECT_EQ(call.nType, Report_Types::REPORT_EXCEPTION);
        EXPECT_FALSE(call.bInColor);
    }
    std::string log = LogText();
    EXPECT_EQ(CountOf(log, Record("[Exception]", "Place boom\n")), 1);
    EXPECT_EQ(CountOf(log, Record("[Exception]", "Quiet\n")), 2);
    EXPECT_EQ(CountOf(log, Record("[Exception]", "Where line:77 bad\n")), 1);
    EXPECT_EQ(CountOf(log, Record("[Exception]", "Where line:-3\n")), 2);
    std::string monitor = MonitorText();
    EXPECT_EQ(CountOf(monitor, ";Place boom\n\r\n"), 1) << monitor;
    EXPECT_EQ(CountOf(monitor, ";Quiet\n\r\n"), 2) << monitor;
    EXPECT_EQ(CountOf(monitor, ";Where line:77 bad\n\r\n"), 1) << monitor;
    EXPECT_EQ(CountOf(monitor, ";Where line:-3\n\r\n"), 2) << monitor;
}

TEST_F(ExceptionReports, AtANegativeLevelTypeZeroStaysOffTheConsoleOnly) {
    MakeDefaultLog();
    ConnectMonitor();
    velmora.SetReportConsole(&console);
    velmora.SetReportLevel(-1);
    velmora.ReportException("Feed", "lost");
    EXPECT_EQ(console.Count(), 0u);
    EXPECT_EQ(CountRecords("[Exception]", "Feed lost\n"), 1);
    EXPECT_EQ(CountOf(MonitorText(), ";Feed lost\n\r\n"), 1);

    // Without a default log the monitor still hears of it, and nothing else does.
    velmora.SetReportLevel(22);
    globalDefaultLog = nullptr;
    velmora.ReportException("Feed", 5, "lost again");
    EXPECT_EQ(console.Count(), 0u);
    EXPECT_EQ(CountOf(MonitorText(), ";Feed line:5 lost again\n\r\n"), 1);
    EXPECT_EQ(CountOf(LogText(), "lost again"), 0);
}

TEST_F(ExceptionReports, ATextOfMoreThan511CharactersIsCutAndLosesItsLineFeed) {
    MakeDefaultLog();
    ConnectMonitor();
    velmora.SetReportConsole(&console);
    const std::string place = Letters(200);
    const std::string fits = Letters(309, 1);  // 200 + 1 + 309 + line feed = 511
    const std::string over = Letters(310, 2);  // one more: the line feed is cut
    velmora.ReportException(place.c_str(), fits.c_str());
    velmora.ReportException(place.c_str(), over.c_str());
    // "<place> line:1234 " is 211 characters.
    const std::string lineFits = Letters(299, 3);
    const std::string lineOver = Letters(301, 4);
    velmora.ReportException(place.c_str(), 1234, lineFits.c_str());
    velmora.ReportException(place.c_str(), 1234, lineOver.c_str());

    const std::vector<std::string> expected = {
        place + " " + fits + "\n",
        place + " " + over,
        place + " line:1234 " + lineFits + "\n",
        (place + " line:1234 " + lineOver).substr(0, 511),
    };
    EXPECT_EQ(console.Texts(), expected);
    std::string log = LogText();
    std::string monitor = MonitorText();
    for (const std::string& text : expected) {
        EXPECT_EQ(CountOf(log, Record("[Exception]", text)), 1) << text;
        EXPECT_EQ(CountOf(monitor, ";" + text + "\r\n"), 1) << text;
    }
}

TEST_F(ExceptionReports, AConsoleFailureIsReportedUnderTheOperationsName) {
    MakeDefaultLog();
    ConnectMonitor();
    velmora.SetReportConsole(&console);
    BlockTraffic before = CurrentBlockTraffic();
    for (Twin twin : kAllTwins) {
        console.calls.clear();
        console.nWin32FailuresLeft = 1;
        Report(twin, Report_Types::REPORT_MAINTENANCE, std::string("work of ") + TwinName(twin));
        const std::string report = std::string(TwinName(twin)) + " console down\n";
        // The failing call, then the exception report that went through LogReport.
        EXPECT_EQ(console.Texts(),
                  (std::vector<std::string>{std::string("work of ") + TwinName(twin), report}));
        EXPECT_EQ(CountRecords("[Maintenance]", std::string("work of ") + TwinName(twin)), 1);
        EXPECT_EQ(CountRecords("[Exception]", report), 1) << report;
        EXPECT_EQ(CountOf(MonitorText(), ";" + report + "\r\n"), 1) << report;
    }

    velmora.bMsgReporting = true;
    console.calls.clear();
    console.nWin32FailuresLeft = 1;
    velmora.LogRawMsgReport(Report_Types::REPORT_SENT, RawBlock("raw message"));
    EXPECT_EQ(CountRecords("[Exception]", "CVelmora::LogRawMsgReport console down\n"), 1);

    // The console freed the blocks it was given, failing or not: none lost, none twice.
    BlockTraffic now = CurrentBlockTraffic();
    EXPECT_EQ(now.nAllocs - before.nAllocs, now.nFrees - before.nFrees);
}

TEST_F(ExceptionReports, AnEngineFailureInTheTraceIsReportedUnderTheOperationsName) {
    MakeDefaultLog();
    velmora.SetReportConsole(&console);
    FakeTransactionEngine engine;
    velmora.pFTSEngine = &engine;
    _G_TraceAll = true;

    // The trace fails before the work: the report isn't made, the failure is.
    engine.nWin32FailuresLeft = 1;
    velmora.LogFortmatedReport(Report_Types::REPORT_ALERT, "%s", "skipped work");
    EXPECT_EQ(CountRecords("[Exception]", "CVelmora::LogFortmatedReport engine down\n"), 1);
    EXPECT_EQ(CountOf(LogText(), "skipped work"), 0);
    EXPECT_EQ(console.Texts(),
              std::vector<std::string>{"CVelmora::LogFortmatedReport engine down\n"});

    // A raw block is freed all the same.
    BlockTraffic before = CurrentBlockTraffic();
    engine.nWin32FailuresLeft = 1;
    velmora.LogRawMsgReport(Report_Types::REPORT_SENT, RawBlock("raw message"));
    EXPECT_EQ(CountRecords("[Exception]", "CVelmora::LogRawMsgReport engine down\n"), 1);
    BlockTraffic now = CurrentBlockTraffic();
    EXPECT_EQ(now.nAllocs - before.nAllocs, now.nFrees - before.nFrees);

    // A failure inside ReportException is reported by ReportException under its own name.
    engine.nWin32FailuresLeft = 1;
    velmora.ReportException("Place", "original failure");
    EXPECT_EQ(CountRecords("[Exception]", "CVelmora::ReportException engine down\n"), 1);
    EXPECT_EQ(CountOf(LogText(), "original failure"), 0);

    // And the next report traces and works as before.
    velmora.LogReport(Report_Types::REPORT_ALERT, "after the failure");
    EXPECT_EQ(CountRecords("[Alert]", "after the failure"), 1);
    std::vector<std::string> traces = TraceMessages(LogText());
    ASSERT_FALSE(traces.empty());
    EXPECT_TRUE(IsTraceOf(traces.back(), "CVelmora::LogReport", "TX#42 Orders")) << traces.back();
}

// A failure that comes back on every report ends after two nested exception reports instead
// of reporting itself without end.
TEST_F(ExceptionReports, AFailureThatRecursOnEveryReportEnds) {
    MakeDefaultLog();
    velmora.SetReportConsole(&console);
    console.bAlwaysFailWin32 = true;
    BlockTraffic before = CurrentBlockTraffic();
    velmora.LogReport(Report_Types::REPORT_ALERT, "console always fails");
    EXPECT_EQ(CountRecords("[Alert]", "console always fails"), 1);
    EXPECT_EQ(CountRecords("[Exception]", "CVelmora::LogReport console down\n"), 2);
    EXPECT_EQ(console.Count(), 3u);
    BlockTraffic now = CurrentBlockTraffic();
    EXPECT_EQ(now.nAllocs - before.nAllocs, 3);
    EXPECT_EQ(now.nFrees - before.nFrees, 3);
    console.bAlwaysFailWin32 = false;

    FakeTransactionEngine engine;
    engine.bAlwaysFailWin32 = true;
    velmora.pFTSEngine = &engine;
    _G_TraceAll = true;
    velmora.LogReport(Report_Types::REPORT_ALERT, "engine always fails");
    // The report's trace, the trace of its exception report, the trace of that one's.
    EXPECT_EQ(engine.nCalls, 3);
    _G_TraceAll = false;
    velmora.LogReport(Report_Types::REPORT_ALERT, "tracing off again");
    std::string log = LogText();
    EXPECT_EQ(CountOf(log, "engine always fails"), 0);
    EXPECT_EQ(CountOf(log, "engine down"), 0);
    EXPECT_EQ(CountRecords("[Alert]", "tracing off again"), 1);
}

TEST_F(ExceptionReports, OnlyWin32ExceptionIsCaught) {
    MakeDefaultLog();
    velmora.SetReportConsole(&console);
    console.bFailWithRuntimeError = true;
    EXPECT_THROW(velmora.LogReport(Report_Types::REPORT_ALERT, "passes through"),
                 std::runtime_error);
    console.bFailWithRuntimeError = false;

    // A raw block is freed on the way out too.
    FakeTransactionEngine engine;
    engine.bFailWithRuntimeError = true;
    velmora.pFTSEngine = &engine;
    _G_TraceAll = true;
    BlockTraffic before = CurrentBlockTraffic();
    EXPECT_THROW(velmora.LogRawMsgReport(Report_Types::REPORT_SENT,
                                         RawBlock("raw message")),
                 std::runtime_error);
    BlockTraffic now = CurrentBlockTraffic();
    EXPECT_EQ(now.nAllocs - before.nAllocs, 1);
    EXPECT_EQ(now.nFrees - before.nFrees, 1);
    EXPECT_EQ(CountOf(LogText(), "[Exception]"), 0);
}
