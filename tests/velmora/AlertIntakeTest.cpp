// The alert intake: composed texts and their limits, one record per key and map, the report types,
// the 60000 ms test of a repetition, and a host's failure under the lock.
#include "AlertTestSupport.h"

#include <tuple>

using namespace velmora_alert_test;
using velmora_log_test::CountOf;
using velmora_log_test::Letters;
using AlertIntake = AlertFixture;
namespace QAS = QUOREL_ALERT_SYSTEM;

TEST_F(AlertIntake, EachTextHasOneRecordThatKeepsItsFirstOccurrence) {
    velmora.AlertMsg(3, QAS::DATABASE_DOWN, "DbHost", "REF-7", "primary lost");
    velmora.AlertMsg(9, QAS::DATABASE_DOWN, "DbHost", "REF-7", "primary lost");  // another level: the same alert
    velmora.AlertMsg(3, QAS::DATABASE_DOWN, "DbHost", "REF-8", "primary lost");
    velmora.AlertMsg(1, 77, nullptr, nullptr, nullptr);
    velmora.AlertMsg("Down", "HostA"), velmora.AlertMsg("Down", nullptr), velmora.AlertMsg(nullptr, nullptr);
    // Without an alert system an event alert is a text alert from its source.
    velmora.SetAlertSystem(nullptr);
    velmora.AlertMsg(2, QAS::ROUTE_LOGOUT, "HostA", "R1", "Down"), velmora.AlertMsg(2, QAS::ROUTE_LOGOUT, nullptr, "R1", nullptr);

    using Fields = std::tuple<DWORD, int, int, int, int, std::string, std::string, std::string>;
    auto records = [](const std::map<std::string, AlertRecord*>& alerts) {
        std::map<std::string, Fields> fields;
        for (const auto& [key, p] : alerts)
            fields[key] = {p->dwLastSent, p->nTotal, p->nPending, p->nLevel, p->nEvent, p->strSource, p->strRef, p->strDescription};
        return fields;
    };
    const std::string db7 = EventLine("Database Down", "DbHost", "REF-7", "primary lost");
    const std::string db8 = EventLine("Database Down", "DbHost", "REF-8", "primary lost");
    const std::string nulls = EventLine("Unknown", "(null)", "(null)", "(null)"), from = "From:HostA Down\n";
    EXPECT_EQ(records(velmora.mapSystemAlerts), (std::map<std::string, Fields>{{db7, {0, 0, 2, 3, 21, "DbHost", "REF-7", db7}},
                                                                               {db8, {0, 0, 1, 3, 21, "DbHost", "REF-8", db8}},
                                                                               {nulls, {0, 0, 1, 1, 77, "", "", nulls}}}));
    EXPECT_EQ(records(velmora.mapMonitorAlerts), (std::map<std::string, Fields>{{"(null)", {0, 0, 2, -1, -1, "", "", "(null)"}},
                                                                                {"Down", {0, 0, 1, -1, -1, "", "", "Down"}},
                                                                                {from, {0, 0, 2, -1, -1, "HostA", "", from}}}));
    // Event alerts are reported with type 22, text alerts with type 1.
    const std::string log = LogText();
    EXPECT_EQ(std::tuple(CountOf(log, Record("[Debug]", db7)), CountOf(log, Record("[Debug]", nulls)), CountOf(log, ";[Debug];"),
                         CountOf(log, Record("[Alert]", from)), CountOf(log, Record("[Alert]", "(null)")), CountOf(log, ";[Alert];")),
              std::tuple(2, 1, 4, 2, 2, 5))
        << log;
}

TEST_F(AlertIntake, TextsAreCutAt511AndKeyedByTheirFirst255Characters) {
    velmora_report_test::RecordingConsole console;
    velmora.SetReportConsole(&console);
    const std::string long600 = Letters(600), text499 = Letters(499, 1), text500 = Letters(500, 2);
    velmora.AlertMsg(long600.c_str(), nullptr), velmora.AlertMsg(text499.c_str(), "HostA"), velmora.AlertMsg(text500.c_str(), "HostA");
    velmora.AlertMsg(1, QAS::ALGO_ALERT, "Algo", "A1", long600.c_str());
    // 511 characters stay whole, line end included, one more pushes it off; only a text without source is reported whole.
    const std::string whole = "From:HostA " + text499 + "\n", cut = "From:HostA " + text500;
    const std::string event = EventLine("Algo Alert", "Algo", "A1", long600).substr(0, 511);
    ASSERT_EQ(whole.size(), 511u);
    EXPECT_EQ(console.Texts(), (std::vector<std::string>{long600, whole, cut, event}));
    for (const std::string& text : {long600.substr(0, 511), whole, cut})
        EXPECT_EQ(MonitorRecord(text.substr(0, 255))->strDescription, text);
    EXPECT_EQ(SystemRecord(event.substr(0, 255))->strDescription, event);

    // Texts that agree in 255 characters are one alert, under the first text, be it longer.
    const std::string text255 = Letters(255, 3), other = text255.substr(0, 254) + "#";
    for (const std::string& text : {text255, text255 + "x", other + "yz", other, text255 + "x"}) velmora.AlertMsg(text.c_str(), nullptr);
    EXPECT_EQ(std::tuple(velmora.mapMonitorAlerts.size(), MonitorRecord(text255)->nPending, MonitorRecord(text255)->strDescription,
                         MonitorRecord(other)->nPending, MonitorRecord(other)->strDescription), std::tuple(5u, 3, text255, 2, other + "yz"));
}

// 60000 ms after the last delivery a repetition asks for no flush, 60001 ms does: also across the wrap, whatever the interval.
TEST_F(AlertIntake, ARepetitionAsksForAFlushOnlyMoreThan60000msAfterTheLastDelivery) {
    velmora.nAlertRepeatMS = 300000;
    auto raise = [](bool bEvent) { bEvent ? velmora.AlertMsg(1, QAS::STALE_TRADE, "S", "R", "d") : velmora.AlertMsg("stale", "Feed"); };
    raise(true), raise(false);
    for (auto [tick, dwElapsed] : {std::pair<std::optional<DWORD>, DWORD>({}, 60000), {{}, 60001}, {25, 60000}, {25, 60001}}) {
        for (bool bEvent : {true, false}) {
            AlertRecord* p = bEvent ? SystemRecord(EventLine("Stale Trade", "S", "R", "d")) : MonitorRecord("From:Feed stale\n");
            const DWORD dwNow = WithinOneTick(
                tick, [&](DWORD dwTick) { p->dwLastSent = DWORD(dwTick - dwElapsed), p->nPending = 0, SetAlertsPending(false); },
                [&] { raise(bEvent); });
            EXPECT_EQ(std::pair(p->nPending, AlertsPending()), std::pair(1, dwElapsed > 60000)) << dwNow << ", " << dwElapsed << ", " << bEvent;
        }
    }
}

// A host's failure under the lock (in the trace) is reported and leaves the alert uncounted; its report still goes out.
TEST_F(AlertIntake, AHostFailureUnderTheLockIsReportedAndTheAlertNotCounted) {
    struct : velmora_report_test::FakeTransactionEngine {  // fails on call nFailOn (from 1)
        DWORD GetTransactionDescr(char* szBuffer) override {
            return ++nSeen == nFailOn ? throw velmora_report_test::HostFailure("engine down") : FakeTransactionEngine::GetTransactionDescr(szBuffer);
        }
        int nSeen = 0, nFailOn = 2;  // the text alert's report traces first
    } engine;
    velmora.pFTSEngine = &engine, _G_TraceAll = true;
    velmora.AlertMsg("Down", "HostA");
    engine.nSeen = 0, engine.nFailOn = 1;  // the event alert traces under the lock first
    velmora.AlertMsg(1, QAS::EXCEPTION, "S", "R", "d");
    EXPECT_TRUE(velmora.mapMonitorAlerts.empty() && velmora.mapSystemAlerts.empty() && !AlertsPending());
    EXPECT_EQ(MonitorAlerts(), std::vector<std::string>(2, "CVelmora::AlertMsg engine down\n"));
    const std::string log = LogText();
    EXPECT_EQ(std::pair(CountOf(log, Record("[Alert]", "From:HostA Down\n")), CountOf(log, Record("[Debug]", EventLine("Exception", "S", "R", "d")))),
              std::pair(1, 1)) << log;
}
