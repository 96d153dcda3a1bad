// The alert intake: the composed texts and their limits, the records and their keys, the two
// maps, the reports and their places around the lock, the 60000 ms test of a repetition, and
// a host's failure under the lock.
#include "AlertTestSupport.h"

#include <algorithm>
#include <cstdlib>
#include <thread>

using namespace velmora_alert_test;
using velmora_log_test::CountOf;
using velmora_log_test::Letters;

namespace {

using AlertIntake = AlertFixture;
namespace QAS = QUOREL_ALERT_SYSTEM;

TEST_F(AlertIntake, EventAlertIsCountedInTheSystemMapAndReportedAfterwards) {
    velmora.AlertMsg(3, QAS::DATABASE_DOWN, "DbHost", "REF-7", "primary lost");
    const std::string line = EventLine("Database Down", "DbHost", "REF-7", "primary lost");

    ASSERT_EQ(velmora.mapSystemAlerts.size(), 1u);
    EXPECT_TRUE(velmora.mapMonitorAlerts.empty());
    AlertRecord* pRecord = SystemRecord(line);
    ASSERT_NE(pRecord, nullptr);
    EXPECT_EQ(pRecord->dwLastSent, 0u);
    EXPECT_EQ(pRecord->nTotal, 0);
    EXPECT_EQ(pRecord->nPending, 1);
    EXPECT_EQ(pRecord->nLevel, 3);
    EXPECT_EQ(pRecord->nEvent, 21);
    EXPECT_EQ(pRecord->strSource, "DbHost");
    EXPECT_EQ(pRecord->strRef, "REF-7");
    EXPECT_EQ(pRecord->strDescription, line);
    EXPECT_TRUE(AlertsPending());

    // The same alert at another level counts on the first record; the first level stays.
    SetAlertsPending(false);
    velmora.AlertMsg(9, QAS::DATABASE_DOWN, "DbHost", "REF-7", "primary lost");
    ASSERT_EQ(velmora.mapSystemAlerts.size(), 1u);
    EXPECT_EQ(pRecord->nPending, 2);
    EXPECT_EQ(pRecord->nLevel, 3);
    // A repetition of a record never delivered compares the machine's count with 60000.
    EXPECT_TRUE(AlertsPending());

    // Another reference is written into the line, so it is another alert.
    velmora.AlertMsg(3, QAS::DATABASE_DOWN, "DbHost", "REF-8", "primary lost");
    EXPECT_EQ(velmora.mapSystemAlerts.size(), 2u);

    // Every occurrence is reported with type 22, none with type 1.
    std::string log = LogText();
    EXPECT_EQ(CountOf(log, Record("[Debug]", line)), 2) << log;
    EXPECT_EQ(CountOf(log, ";[Alert];"), 0) << log;
}

TEST_F(AlertIntake, WithoutAlertSystemAnEventAlertIsATextAlertForTheMonitor) {
    velmora.AlertMsg(2, QAS::ROUTE_LOGOUT, "FeedA", "R1", "session closed");
    AlertRecord* pSystem = SystemRecord(EventLine("Route Logout", "FeedA", "R1", "session closed"));
    ASSERT_NE(pSystem, nullptr);

    velmora.SetAlertSystem(nullptr);
    EXPECT_EQ(velmora.pAlertSystem, nullptr);
    velmora.AlertMsg(2, QAS::ROUTE_LOGOUT, "FeedA", "R1", "session closed");
    velmora.AlertMsg("session closed", "FeedA");

    // Level, event and reference are dropped: one record with the text alert's identity.
    const std::string line = "From:FeedA session closed\n";
    ASSERT_EQ(velmora.mapMonitorAlerts.size(), 1u);
    AlertRecord* pRecord = MonitorRecord(line);
    ASSERT_NE(pRecord, nullptr);
    EXPECT_EQ(pRecord->nPending, 2);
    EXPECT_EQ(pRecord->nLevel, -1);
    EXPECT_EQ(pRecord->nEvent, -1);
    EXPECT_EQ(pRecord->strSource, "FeedA");
    EXPECT_EQ(pRecord->strRef, "");
    EXPECT_EQ(pRecord->strDescription, line);
    // The record made while the alert system was plugged in stays as it was.
    ASSERT_EQ(velmora.mapSystemAlerts.size(), 1u);
    EXPECT_EQ(pSystem->nPending, 1);

    std::string log = LogText();
    EXPECT_EQ(CountOf(log, Record("[Alert]", line)), 2) << log;
    EXPECT_EQ(CountOf(log, ";[Debug];"), 1) << log;
}

TEST_F(AlertIntake, TextAlertsAreComposedWithTheirSourceInFront) {
    velmora.AlertMsg("Down", "HostA");
    velmora.AlertMsg("Down", nullptr);

    ASSERT_EQ(velmora.mapMonitorAlerts.size(), 2u);
    AlertRecord* pFrom = MonitorRecord("From:HostA Down\n");
    ASSERT_NE(pFrom, nullptr);
    EXPECT_EQ(pFrom->strDescription, "From:HostA Down\n");
    EXPECT_EQ(pFrom->strSource, "HostA");
    EXPECT_EQ(pFrom->nLevel, -1);
    EXPECT_EQ(pFrom->nEvent, -1);
    // Without a source the text is its own composed text: no "From:", no line end.
    AlertRecord* pBare = MonitorRecord("Down");
    ASSERT_NE(pBare, nullptr);
    EXPECT_EQ(pBare->strDescription, "Down");
    EXPECT_EQ(pBare->strSource, "");
    EXPECT_TRUE(velmora.mapSystemAlerts.empty());

    std::string log = LogText();
    EXPECT_EQ(CountOf(log, Record("[Alert]", "From:HostA Down\n")), 1) << log;
    EXPECT_EQ(CountOf(log, Record("[Alert]", "Down")), 1) << log;
}

TEST_F(AlertIntake, ComposedTextsAreCutAt511Characters) {
    // The console shows what the report got; its block holds more than 600 characters.
    velmora_report_test::RecordingConsole console;
    velmora.SetReportConsole(&console);

    // Without a source the report gets the whole text, the record its first 511 characters.
    const std::string long600 = Letters(600);
    velmora.AlertMsg(long600.c_str(), nullptr);
    ASSERT_EQ(console.Texts().size(), 1u);
    EXPECT_EQ(console.Texts()[0], long600);
    AlertRecord* pLong = MonitorRecord(long600.substr(0, 255));
    ASSERT_NE(pLong, nullptr);
    EXPECT_EQ(pLong->strDescription, long600.substr(0, 511));

    // With a source: 511 characters stay whole, line end included...
    const std::string text499 = Letters(499, 1);
    velmora.AlertMsg(text499.c_str(), "HostA");
    const std::string whole = "From:HostA " + text499 + "\n";
    ASSERT_EQ(whole.size(), 511u);
    AlertRecord* pWhole = MonitorRecord(whole.substr(0, 255));
    ASSERT_NE(pWhole, nullptr);
    EXPECT_EQ(pWhole->strDescription, whole);
    EXPECT_EQ(console.Texts().back(), whole);

    // ...and one more character pushes the line end off; the report is cut the same way.
    const std::string text500 = Letters(500, 2);
    velmora.AlertMsg(text500.c_str(), "HostA");
    const std::string cut = "From:HostA " + text500;
    AlertRecord* pCut = MonitorRecord(cut.substr(0, 255));
    ASSERT_NE(pCut, nullptr);
    EXPECT_EQ(pCut->strDescription, cut);
    EXPECT_EQ(console.Texts().back(), cut);

    // An event line is cut at 511 too.
    const std::string description = Letters(600, 3);
    velmora.AlertMsg(1, QAS::ALGO_ALERT, "Algo", "A1", description.c_str());
    const std::string event = EventLine("Algo Alert", "Algo", "A1", description).substr(0, 511);
    AlertRecord* pEvent = SystemRecord(event.substr(0, 255));
    ASSERT_NE(pEvent, nullptr);
    EXPECT_EQ(pEvent->strDescription, event);
    EXPECT_EQ(console.Texts().back(), event);
}

TEST_F(AlertIntake, TextsThatAgreeInTheirFirst255CharactersAreOneAlert) {
    const std::string text255 = Letters(255);
    velmora.AlertMsg(text255.c_str(), nullptr);
    velmora.AlertMsg((text255 + "x").c_str(), nullptr);
    velmora.AlertMsg((text255 + "yz").c_str(), nullptr);

    // A text of 255 characters is its own key, and only the first text is kept.
    ASSERT_EQ(velmora.mapMonitorAlerts.size(), 1u);
    AlertRecord* pRecord = MonitorRecord(text255);
    ASSERT_NE(pRecord, nullptr);
    EXPECT_EQ(pRecord->nPending, 3);
    EXPECT_EQ(pRecord->strDescription, text255);

    // A difference within the first 255 characters makes another alert.
    std::string other = text255;
    other[254] = '#';
    velmora.AlertMsg(other.c_str(), nullptr);
    EXPECT_EQ(velmora.mapMonitorAlerts.size(), 2u);
    // Of two long texts with one key the first is kept, be it the shorter.
    velmora.AlertMsg((other + "1").c_str(), nullptr);
    velmora.AlertMsg((other + Letters(100)).c_str(), nullptr);
    ASSERT_EQ(velmora.mapMonitorAlerts.size(), 2u);
    AlertRecord* pOther = MonitorRecord(other);
    ASSERT_NE(pOther, nullptr);
    EXPECT_EQ(pOther->nPending, 3);
    EXPECT_EQ(pOther->strDescription, other);

    // The same text in both maps makes a record in each.
    velmora.AlertMsg(1, QAS::EXCEPTION, "S", "R", "d");
    velmora.SetAlertSystem(nullptr);
    velmora.AlertMsg(EventLine("Exception", "S", "R", "d").c_str(), nullptr);
    EXPECT_NE(SystemRecord(EventLine("Exception", "S", "R", "d")), nullptr);
    EXPECT_NE(MonitorRecord(EventLine("Exception", "S", "R", "d")), nullptr);
}

TEST_F(AlertIntake, NullTextsPrintAsTheFormatterPrintsThem) {
    velmora.AlertMsg(1, QAS::EXCEPTION, nullptr, nullptr, nullptr);
    const std::string line = EventLine("Exception", "(null)", "(null)", "(null)");
    AlertRecord* pRecord = SystemRecord(line);
    ASSERT_NE(pRecord, nullptr);
    // The record keeps empty texts where the alert had none.
    EXPECT_EQ(pRecord->strSource, "");
    EXPECT_EQ(pRecord->strRef, "");
    EXPECT_EQ(pRecord->strDescription, line);

    // A number outside the catalogue composes as "Unknown".
    velmora.AlertMsg(1, 77, "S", "R", "d");
    EXPECT_NE(SystemRecord(EventLine("Unknown", "S", "R", "d")), nullptr);

    // A text alert without text, and an event alert without description when no alert system
    // is plugged in, are the same text alert.
    velmora.AlertMsg(nullptr, nullptr);
    velmora.SetAlertSystem(nullptr);
    velmora.AlertMsg(1, QAS::EXCEPTION, nullptr, "R", nullptr);
    AlertRecord* pText = MonitorRecord("(null)");
    ASSERT_NE(pText, nullptr);
    EXPECT_EQ(pText->nPending, 2);

    std::string log = LogText();
    EXPECT_EQ(CountOf(log, Record("[Debug]", line)), 1) << log;
    EXPECT_EQ(CountOf(log, Record("[Alert]", "(null)")), 2) << log;
}

// Exactly 60000 ms after the last delivery a repetition leaves the flag alone; 60001 ms sets
// it. Measured in unsigned 32 bits, also across the wrap of the count, and whatever the
// repeat interval of the flush is.
TEST_F(AlertIntake, RepetitionAsksForAFlushOnlyMoreThan60000msAfterTheLastDelivery) {
    velmora.nAlertRepeatMS = 300000;
    velmora.AlertMsg(1, QAS::STALE_TRADE, "S", "R", "d");
    velmora.AlertMsg("feed stale", "Feed");
    AlertRecord* pSystem = SystemRecord(EventLine("Stale Trade", "S", "R", "d"));
    AlertRecord* pMonitor = MonitorRecord("From:Feed feed stale\n");
    ASSERT_NE(pSystem, nullptr);
    ASSERT_NE(pMonitor, nullptr);

    struct Case {
        std::optional<DWORD> tick;
        DWORD dwElapsed;
        bool bFlag;
    };
    const Case cases[] = {
        {std::nullopt, 60000, false}, {std::nullopt, 60001, true},
        {DWORD(25), 60000, false},    {DWORD(25), 60001, true},  // the last delivery before the wrap
        {DWORD(25), 10, false},  // a delivery just behind: counted, no flush asked
    };
    for (const Case& c : cases) {
        for (bool bEvent : {true, false}) {
            AlertRecord* pRecord = bEvent ? pSystem : pMonitor;
            DWORD dwNow = WithinOneTick(
                c.tick,
                [&](DWORD dwTick) {
                    pRecord->dwLastSent = DWORD(dwTick - c.dwElapsed);
                    pRecord->nPending = 0;
                    SetAlertsPending(false);
                },
                [&] {
                    if (bEvent)
                        velmora.AlertMsg(1, QAS::STALE_TRADE, "S", "R", "d");
                    else
                        velmora.AlertMsg("feed stale", "Feed");
                });
            SCOPED_TRACE(::testing::Message() << "now " << dwNow << ", elapsed " << c.dwElapsed
                                              << (bEvent ? ", event alert" : ", text alert"));
            EXPECT_EQ(pRecord->nPending, 1);
            EXPECT_EQ(AlertsPending(), c.bFlag);
        }
    }
    EXPECT_EQ(velmora.mapSystemAlerts.size(), 1u);
    EXPECT_EQ(velmora.mapMonitorAlerts.size(), 1u);
}

// Where a piece stands in a text, each time.
std::vector<size_t> Positions(const std::string& text, const std::string& piece) {
    std::vector<size_t> positions;
    for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1))
        positions.push_back(at);
    return positions;
}

// A console that looks at the alert maps when a report reaches it.
class MapWatchingConsole : public CReportConsoleInf {
public:
    void LogReport(Report_Types::DEF nType, char* szBlock) override {
        AlertRecord* pRecord = nType == Report_Types::REPORT_ALERT ? MonitorRecord(key)
                                                                   : SystemRecord(key);
        seen.push_back({nType, pRecord != nullptr ? pRecord->nPending : 0});
        // The lock isn't held by the reporting thread, so any other thread can take it.
        BOOL bFree = FALSE;
        std::thread([&bFree] {
            bFree = TryEnterCriticalSection(&velmora.csAlerts);
            if (bFree) LeaveCriticalSection(&velmora.csAlerts);
        }).join();
        if (!bFree) ++nWhileLocked;
        GlobalFree(szBlock);
    }
    std::string key;
    std::vector<std::pair<Report_Types::DEF, int>> seen;  // type, nPending at the report
    int nWhileLocked = 0;
};

// The text alert is reported before it is counted, the event alert after it; neither while
// the alert lock is held. With tracing on, the trace of the intake follows the lock.
TEST_F(AlertIntake, ReportsComeBeforeTheTextAlertIsCountedAndAfterTheEventAlert) {
    MapWatchingConsole console;
    velmora.SetReportConsole(&console);
    _G_TraceAll = true;

    console.key = "From:HostA Down\n";
    velmora.AlertMsg("Down", "HostA");
    velmora.AlertMsg("Down", "HostA");
    console.key = EventLine("Margin Call", "Risk", "ACC9", "equity low");
    velmora.AlertMsg(5, QAS::MARGIN_CALL, "Risk", "ACC9", "equity low");
    velmora.AlertMsg(5, QAS::MARGIN_CALL, "Risk", "ACC9", "equity low");

    ASSERT_EQ(console.seen.size(), 4u);
    EXPECT_EQ(console.seen[0], std::make_pair(Report_Types::REPORT_ALERT, 0));
    EXPECT_EQ(console.seen[1], std::make_pair(Report_Types::REPORT_ALERT, 1));
    EXPECT_EQ(console.seen[2], std::make_pair(Report_Types::REPORT_DEBUG, 1));
    EXPECT_EQ(console.seen[3], std::make_pair(Report_Types::REPORT_DEBUG, 2));
    EXPECT_EQ(console.nWhileLocked, 0);

    // In the log: each text alert's report, then its trace; each event alert's trace, then
    // its report.
    std::string log = LogText();
    const std::vector<size_t> traces = Positions(log, " CVelmora::AlertMsg ;\r\n");
    const std::vector<size_t> alerts = Positions(log, Record("[Alert]", "From:HostA Down\n"));
    const std::vector<size_t> events = Positions(log, Record("[Debug]", console.key));
    ASSERT_EQ(traces.size(), 4u) << log;
    ASSERT_EQ(alerts.size(), 2u) << log;
    ASSERT_EQ(events.size(), 2u) << log;
    const std::vector<size_t> order = {alerts[0], traces[0], alerts[1], traces[1],
                                       traces[2], events[0], traces[3], events[1]};
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end())) << log;
}

// An engine whose description fails on one call, counted from 1.
class EngineFailingOnce : public velmora_report_test::FakeTransactionEngine {
public:
    DWORD GetTransactionDescr(char* szBuffer) override {
        if (++nSeen == nFailOn) throw velmora_report_test::HostFailure("engine down");
        return FakeTransactionEngine::GetTransactionDescr(szBuffer);
    }
    int nSeen = 0;
    int nFailOn = 0;
};

// A host's failure while the lock is held (here: in the trace line) leaves the map work
// undone, is reported, and the lock is left; the event alert is still reported.
TEST_F(AlertIntake, HostFailureUnderTheLockIsReportedAndLeavesTheLock) {
    EngineFailingOnce engine;
    velmora.pFTSEngine = &engine;
    _G_TraceAll = true;

    // The text alert's report traces first (call 1); the intake's trace is call 2.
    engine.nFailOn = 2;
    velmora.AlertMsg("Down", "HostA");
    EXPECT_TRUE(velmora.mapMonitorAlerts.empty());
    EXPECT_FALSE(AlertsPending());

    // The event alert traces under the lock first.
    engine.nSeen = 0;
    engine.nFailOn = 1;
    velmora.AlertMsg(1, QAS::EXCEPTION, "S", "R", "d");
    EXPECT_TRUE(velmora.mapSystemAlerts.empty());
    EXPECT_FALSE(AlertsPending());

    BOOL bFree = FALSE;
    std::thread([&bFree] {
        bFree = TryEnterCriticalSection(&velmora.csAlerts);
        if (bFree) LeaveCriticalSection(&velmora.csAlerts);
    }).join();
    EXPECT_TRUE(bFree) << "the alert lock is still held after the failure";

    std::string log = LogText();
    EXPECT_EQ(CountOf(log, ";[Exception];" + velmora_log_test::ThreadText() +
                               ";CVelmora::AlertMsg engine down\n;\r\n"),
              2)
        << log;
    EXPECT_EQ(CountOf(log, Record("[Alert]", "From:HostA Down\n")), 1) << log;
    EXPECT_EQ(CountOf(log, Record("[Debug]", EventLine("Exception", "S", "R", "d"))), 1) << log;
    std::vector<std::string> monitor = MonitorAlerts();
    ASSERT_EQ(monitor.size(), 2u);
    EXPECT_EQ(monitor[0], "CVelmora::AlertMsg engine down\n");

    // Once the engine works, the same alerts are counted as new.
    engine.nFailOn = 0;
    velmora.AlertMsg("Down", "HostA");
    velmora.AlertMsg(1, QAS::EXCEPTION, "S", "R", "d");
    EXPECT_EQ(velmora.mapMonitorAlerts.size(), 1u);
    EXPECT_EQ(velmora.mapSystemAlerts.size(), 1u);
    EXPECT_TRUE(AlertsPending());
}

}  // namespace
