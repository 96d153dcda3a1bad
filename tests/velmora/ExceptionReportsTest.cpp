// Trace lines and exception reports: the gate, the line and its place, the texts and where they go, host failures.
#include "ShellTestSupport.h"

using namespace velmora_report_test;
using velmora_log_test::CountOf;
using velmora_log_test::Letters;

using ExceptionReports = ReportFixture;

// "Velmora Line:<n> <operation> <description>" ahead of the work, with _G_TraceAll and debug level 4 or more.
TEST_F(ExceptionReports, EachTracedOperationTracesFirstUnderItsOwnName) {
    MakeDefaultLog();
    velmora.SetReportConsole(&console);
    velmora.LogReport(Report_Types::REPORT_ALERT, "trace all off");
    _G_TraceAll = true, debugLevel = 3;
    velmora.LogReport(Report_Types::REPORT_ALERT, "debug level 3");
    debugLevel = 4;
    char szBuffer[16] = "untouched";
    EXPECT_EQ(velmora.GetTransactionDescr(szBuffer), 0xFFFFFFFFu);
    velmora.LogReport(Report_Types::REPORT_RUNTIME_STATE, szBuffer);
    EXPECT_LT(LogText().find(";TRACE;"), LogText().find(Record("[Runtime State]", "untouched")));
    FakeTransactionEngine engine;
    velmora.pFTSEngine = &engine;
    EXPECT_EQ(velmora.GetTransactionDescr(szBuffer), 7u);
    for (Twin twin : kAllTwins) Report(twin, Report_Types::REPORT_ALERT, "x");
    for (auto twin : velmora_shell_test::kAllFSTwins) velmora_shell_test::Say(twin, nullptr, "x");
    velmora.LogRawMsgReport(Report_Types::REPORT_SENT, RawBlock("raw message"));
    velmora.ReportException("Here", "failed");  // it traces, then its report does
    _G_SafePrintf(szBuffer, sizeof(szBuffer), "%d", 7);
    velmora.SetReportLevel(5), velmora.AdjustReportLevel(1);  // these don't trace
    std::vector<std::string> expected = {"Velmora Line:# CVelmora::LogReport "};
    for (const char* szName : {"CVelmora::LogReport", "CVelmora::LogReportInColor", "CVelmora::LogFortmatedReport",
                               "CVelmora::LogFortmatedReportInColor", "CVelmora::FSLogReport", "CVelmora::FSLogReportInColor",
                               "CVelmora::FSLogFortmatedReport", "CVelmora::FSLogFortmatedReportInColor",
                               "CVelmora::LogRawMsgReport", "CVelmora::ReportException", "CVelmora::LogReport", "_G_SafePrintf"})
        expected.push_back("Velmora Line:# " + std::string(szName) + " TX#42 Orders");
    EXPECT_EQ(TraceMessages(LogText()), expected);
}

// Monitor, log and console get type 0; 512 characters or more are cut at 511, the line feed with them.
TEST_F(ExceptionReports, TheTextsReachTheMonitorTheLogAndTheConsole) {
    MakeDefaultLog();
    ConnectMonitor();
    velmora.SetReportConsole(&console);
    const std::string place = Letters(200), fits = Letters(309, 1), over = Letters(310, 2);
    const std::string lineFits = Letters(299, 3), lineOver = Letters(300, 4);  // "<place> line:1234 " is 211
    velmora.ReportException("Place", "boom"), velmora.ReportException("Quiet", "");
    velmora.ReportException("Where", 77, "bad"), velmora.ReportException("Where", -3, nullptr);
    velmora.ReportException(place.c_str(), fits.c_str()), velmora.ReportException(place.c_str(), over.c_str());
    velmora.ReportException(place.c_str(), 1234, lineFits.c_str()), velmora.ReportException(place.c_str(), 1234, lineOver.c_str());
    const std::vector<std::string> texts = {"Place boom\n", "Quiet\n", "Where line:77 bad\n", "Where line:-3\n",
                                            place + " " + fits + "\n", place + " " + over,
                                            place + " line:1234 " + lineFits + "\n", place + " line:1234 " + lineOver};
    EXPECT_EQ(console.Texts(), texts);
    EXPECT_EQ(console.calls[0], (ConsoleCall{Report_Types::REPORT_EXCEPTION, false, 0, console.calls[0].text}));
    velmora.SetReportLevel(-1), velmora.ReportException("Feed", "lost"), velmora.SetReportLevel(22);
    globalDefaultLog = nullptr, velmora.ReportException("Feed", 5, "lost again");
    EXPECT_EQ(console.Count(), texts.size());
    const std::string log = LogText(), monitor = MonitorText();
    for (const std::string& text : texts)
        EXPECT_EQ(CountOf(log, Record("[Exception]", text)) + CountOf(monitor, ";" + text + "\r\n"), 2) << text;
    EXPECT_EQ(CountOf(log, Record("[Exception]", "Feed lost\n")) + CountOf(monitor, ";Feed lost\n\r\n"), 2);
    EXPECT_EQ(CountOf(log, "lost again") + CountOf(monitor, ";Feed line:5 lost again\n\r\n"), 1);
}

// Reported under the operation's name, which it ends; a recurring failure stops after two nested reports.
TEST_F(ExceptionReports, AHostFailureIsReportedUnderTheOperationsName) {
    MakeDefaultLog();
    velmora.SetReportConsole(&console);
    std::vector<std::string> expected;
    for (Twin twin : kAllTwins) {  // the console fails after it took the block
        console.nWin32FailuresLeft = 1, Report(twin, Report_Types::REPORT_MAINTENANCE, "work");
        expected.insert(expected.end(), {"work", std::string(TwinName(twin)) + " console down\n"});
    }
    EXPECT_EQ(console.Texts(), expected);
    FakeTransactionEngine engine;  // the engine fails in the trace, before the work
    velmora.pFTSEngine = &engine, _G_TraceAll = true, engine.nWin32FailuresLeft = 1;
    EXPECT_EQ(TrafficOf([] { velmora.LogRawMsgReport(Report_Types::REPORT_SENT, RawBlock("raw")); }), (BlockTraffic{2, 2}));
    engine.nWin32FailuresLeft = 1, velmora.ReportException("Place", "original failure");  // reported by itself
    EXPECT_EQ(CountRecords("[Exception]", "CVelmora::LogRawMsgReport engine down\n") +
              CountRecords("[Exception]", "CVelmora::ReportException engine down\n") + CountOf(LogText(), "original failure"), 2);
    _G_TraceAll = false, console.bAlwaysFailWin32 = true;
    const int nBefore = CountRecords("[Exception]", "CVelmora::LogReport console down\n");
    EXPECT_EQ(TrafficOf([] { velmora.LogReport(Report_Types::REPORT_ALERT, "console always fails"); }), (BlockTraffic{3, 3}));
    EXPECT_EQ(CountRecords("[Exception]", "CVelmora::LogReport console down\n") - nBefore, 2);
}
