// The alert flush: deliveries, totals, the interval and quiet-time limits, removals, receivers, the
// interval's reload. Many raising threads and the alert timer thread are the stress tests' part.
#include "AlertTestSupport.h"

#include <tuple>

using namespace velmora_alert_test;
using Texts = std::vector<std::string>;
using AlertFlush = AlertFixture;

static void Advance(DWORD dwMilliseconds) { velmora_platform::AdvanceTickCount(dwMilliseconds); }
// An event alert of level 1, "Exception", source "S" and reference "R"; and its composed line.
static void Raise(const std::string& description) { velmora.AlertMsg(1, QUOREL_ALERT_SYSTEM::EXCEPTION, "S", "R", description.c_str()); }
static std::string Line(const std::string& description) { return EventLine("Exception", "S", "R", description); }

TEST_F(AlertFlush, NewTextsGoAtOnceAndRepeatsWaitForTheIntervalWithTheirTotal) {
    _G_TraceAll = true;
    velmora.nAlertRepeatMS = 3600000;
    auto login = [](int n) { while (n-- > 0) velmora.AlertMsg(7, QUOREL_ALERT_SYSTEM::USER_LOGIN_FAILED, "Auth", nullptr, "bad password"); };
    login(5), velmora.AlertMsg("Down", "HostA"), velmora.AlertMsg("Down", nullptr), velmora.AlertMsg("Down", nullptr);
    SetAlertsPending(false), Flush(), SetAlertsPending(true), Flush();  // only a flush an alert asked for runs, and traces once
    EXPECT_EQ(velmora_log_test::CountOf(LogText(), " CVelmora::FlushAlerts ;\r\n"), 1);
    const std::string line = EventLine("User Login Failed", "Auth", "(null)", "bad password");
    EXPECT_EQ(std::tuple(alertSystem.deliveries, MonitorAlerts(), AlertsPending()),
              std::tuple(std::vector<Delivery>({{7, 105, "Auth", "", line}}), Texts({"Down", "From:HostA Down\n"}), false));

    // Repeats within the interval wait without asking for a flush, also when another alert asks.
    login(6), velmora.AlertMsg("Down", "HostA"), velmora.AlertMsg("Down", nullptr);
    EXPECT_FALSE(AlertsPending());
    Raise("other");
    Advance(1800000), Flush(), Advance(1800001), Flush();
    EXPECT_EQ(alertSystem.Texts(), Texts({line, Line("other")}));
    velmora.AlertMsg("Down", nullptr);  // a late repetition asks, and every due record goes, its total straight behind it
    EXPECT_TRUE(AlertsPending());
    Flush();
    EXPECT_EQ(std::pair(alertSystem.Texts(), MonitorAlerts()),
              std::pair(Texts({line, Line("other"), line + "[Total:11]"}),
                        Texts({"Down", "From:HostA Down\n", "Down[Total:4]", "From:HostA Down\n[Total:2]"})));
}

// A record is held up to the interval after its last delivery (also across the wrap), a quiet one kept up to twice it.
TEST_F(AlertFlush, TheIntervalAndTheQuietTimeHoldUpToTheirLastMillisecond) {
    using Case = std::tuple<int, DWORD, int, std::optional<DWORD>, bool>;  // interval, since, pending, tick, due
    for (auto [nInterval, dwElapsed, nPending, tick, bDue] :
         {Case{60000, 60000, 2, {}, false}, {60000, 60001, 2, {}, true}, {300000, 300000, 2, {}, false}, {300000, 300001, 2, {}, true},
          {90000, 180000, 0, {}, false}, {90000, 180001, 0, {}, true}, {60000, 60000, 2, 25, false}, {60000, 60001, 2, 25, true}}) {
        velmora.nAlertRepeatMS = nInterval;
        const DWORD dwNow = WithinOneTick(
            tick,
            [&](DWORD dwTick) {
                if (SystemRecord(Line("edge")) == nullptr) Raise("edge");
                *SystemRecord(Line("edge")) = {DWORD(dwTick - dwElapsed), 1, nPending, 1, 1, "S", "R", Line("edge")};
                alertSystem.deliveries.clear(), SetAlertsPending(true);
            },
            [] { Flush(); });
        SCOPED_TRACE(::testing::Message() << nInterval << " ms interval, " << dwElapsed << " ms since, " << dwNow);
        const bool bSent = bDue && nPending > 0;
        EXPECT_EQ(alertSystem.Texts(), bSent ? Texts({Line("edge") + "[Total:3]"}) : Texts());
        AlertRecord* p = SystemRecord(Line("edge"));
        ASSERT_EQ(p == nullptr, bDue && !bSent);  // a quiet record that is due goes
        if (p == nullptr) continue;
        EXPECT_EQ(std::tuple(p->dwLastSent, p->nTotal, p->nPending),
                  bSent ? std::tuple(dwNow, 3, 0) : std::tuple(DWORD(dwNow - dwElapsed), 1, nPending));
    }
}

// One quiet record goes per map and flush, the first in key order; an old held one is sent; a removed one comes back new.
TEST_F(AlertFlush, OneQuietRecordGoesPerMapAndFlushInKeyOrder) {
    auto present = [] {  // the descriptions of the event records, then '|' and each text record
        std::string keys;
        for (const auto& entry : velmora.mapSystemAlerts) keys += entry.first[entry.first.size() - 2];
        for (const auto& entry : velmora.mapMonitorAlerts) keys += "|" + entry.first;
        return keys;
    };
    for (const char* szText : {"b", "c", "e"}) Raise(szText), velmora.AlertMsg(szText, nullptr);
    Flush(), Advance(120001), Raise("e"), Flush();
    EXPECT_EQ(present(), "ce|c|e");
    SetAlertsPending(true), Flush();
    EXPECT_EQ(present(), "e|e");
    Raise("b"), Flush();
    EXPECT_EQ(alertSystem.Texts(), Texts({Line("b"), Line("c"), Line("e"), Line("e") + "[Total:2]", Line("b")}));
}

// A failing receiver ends the flush (reported, flag kept), the next goes on; without receivers records count as sent.
TEST_F(AlertFlush, MissingAndFailingReceivers) {
    directory.nRepeatMinutes = 4;
    Raise("a"), Raise("b"), Raise("c"), velmora.AlertMsg("m", nullptr);
    alertSystem.nFailOnCall = 2;
    Flush();
    const std::string report = "CVelmora::FlushAlerts receiver down\n";
    EXPECT_EQ(std::tuple(alertSystem.Texts(), MonitorAlerts(), AlertsPending(), velmora.nAlertRepeatMS),
              std::tuple(Texts({Line("a"), Line("b")}), Texts({report}), true, 240000));
    Flush();
    EXPECT_EQ(std::tuple(alertSystem.Texts(), MonitorAlerts(), AlertsPending()),
              std::tuple(Texts({Line("a"), Line("b"), Line("c")}), Texts({report, "m"}), false));

    velmora.DisconnectMonitor(true), velmora.AlertMsg("n", nullptr), velmora.AlertMsg("n", nullptr), Raise("d"), Raise("d");
    velmora.SetAlertSystem(nullptr), Flush();
    ASSERT_TRUE(velmora.ConnectMonitor(true, tmp.file("monitor.txt").c_str()));
    velmora.SetAlertSystem(&alertSystem), velmora.AlertMsg("n", nullptr), Raise("d");
    Advance(240001), SetAlertsPending(true), Flush();
    EXPECT_EQ(std::pair(MonitorAlerts(), alertSystem.Texts().back()), std::pair(Texts({report, "m", "n[Total:3]"}), Line("d") + "[Total:3]"));
}

// A delivery past the interval reads it again: minutes, 2 or more; anything else, or no or a failing directory, keeps it.
TEST_F(AlertFlush, TheIntervalIsReadAgainAfterADeliveryPastIt) {
    directory.nRepeatMinutes = 5;
    Raise("r"), Flush();  // a first delivery, long after the count began
    Raise("r"), SetAlertsPending(true), Flush();  // sends nothing, reads nothing
    EXPECT_EQ(std::pair(directory.nRepeatReads, velmora.nAlertRepeatMS), std::pair(1, 300000));
    for (auto [nMinutes, nExpected] : {std::pair(1, 300000), {0, 300000}, {-3, 300000}, {2, 120000}, {35791, 35791 * 60000}}) {
        directory.nRepeatMinutes = nMinutes;
        Advance(DWORD(velmora.nAlertRepeatMS) + 1), Raise("r"), Flush();
        EXPECT_EQ(velmora.nAlertRepeatMS, nExpected) << nMinutes;
    }
    // A first delivery while the count is still within the interval reads nothing.
    velmora.nAlertRepeatMS = 60000;
    MoveTickCountTo(1000), Raise("early"), Flush();
    EXPECT_EQ(std::pair(alertSystem.Texts().back(), directory.nRepeatReads), std::pair(Line("early"), 6));
    directory.nRepeatMinutes = 9;
    for (bool bFailing : {false, true}) {
        _G_Directory = bFailing ? &directory : nullptr, directory.bFail = bFailing;
        Advance(60001), Raise("early"), Flush();
    }
    EXPECT_EQ(std::tuple(directory.nRepeatReads, velmora.nAlertRepeatMS, AlertsPending()), std::tuple(7, 60000, false));
    EXPECT_EQ(MonitorAlerts(), Texts({"CVelmora::FlushAlerts directory down\n"}));
}
