// The alert flush: the states of a record and every move between them, the boundaries of
// the repeat interval and of the quiet time, the wrap of the tick count, the receivers (the
// alert system, the monitor, none, one that fails), the reload of the interval, many
// raising threads at once, and the alert timer thread behind Init.
#include "AlertTestSupport.h"
#include "DispatchTestSupport.h"

#include <algorithm>
#include <map>
#include <thread>
#include <vector>

using namespace velmora_alert_test;
using velmora_log_test::CountOf;
using velmora_shell_test::WaitFor;

namespace {

using AlertFlush = AlertFixture;
namespace QAS = QUOREL_ALERT_SYSTEM;
using Texts = std::vector<std::string>;
using Deliveries = std::vector<Delivery>;

void Advance(DWORD dwMilliseconds) { velmora_platform::AdvanceTickCount(dwMilliseconds); }
// A flush as an alert asks for it.
void FlushAsked() {
    SetAlertsPending(true);
    Flush();
}

// An event alert of level 1, event "Exception", source "S", reference "R".
void Raise(const std::string& description, int nTimes = 1) {
    for (int i = 0; i < nTimes; ++i) velmora.AlertMsg(1, QAS::EXCEPTION, "S", "R", description.c_str());
}
std::string Line(const std::string& description) {
    return EventLine("Exception", "S", "R", description);
}
AlertRecord* SysRecord(const std::string& description) { return SystemRecord(Line(description)); }

// The record's state as the flush tells it.
enum class State { kNew, kQuiet, kHeld, kRemoved };
using enum State;
void PrintTo(State state, std::ostream* os) {
    static const char* const names[] = {"new", "quiet", "held", "removed"};
    *os << names[int(state)];
}
State StateOf(std::map<std::string, AlertRecord*>& alerts, const std::string& key) {
    AlertRecord* pRecord = Find(alerts, key);
    if (pRecord == nullptr) return State::kRemoved;
    if (pRecord->dwLastSent == 0) return State::kNew;
    return pRecord->nPending > 0 ? State::kHeld : State::kQuiet;
}
State StateOf(const std::string& description) {
    return StateOf(velmora.mapSystemAlerts, Line(description));
}
// The states of event records by description, then of text records by text.
std::vector<State> StatesOf(std::initializer_list<const char*> descriptions,
                            std::initializer_list<const char*> texts = {}) {
    std::vector<State> states;
    for (const char* szDescription : descriptions) states.push_back(StateOf(szDescription));
    for (const char* szText : texts) states.push_back(StateOf(velmora.mapMonitorAlerts, szText));
    return states;
}

// A record's total and pending count.
std::pair<int, int> Counts(const AlertRecord* pRecord) {
    return {pRecord->nTotal, pRecord->nPending};
}
void SetRecord(AlertRecord* pRecord, DWORD dwLastSent, int nTotal, int nPending) {
    pRecord->dwLastSent = dwLastSent;
    pRecord->nTotal = nTotal;
    pRecord->nPending = nPending;
}

// New -> New -> Quiet -> Held -> Held -> Quiet: the first delivery has no total, occurrences
// within the interval wait, and with no further alert they wait without limit.
TEST_F(AlertFlush, RecordGoesFromNewToQuietToHeldAndBack) {
    Raise("feed down", 5);
    EXPECT_EQ(StateOf("feed down"), kNew);
    AlertRecord* pRecord = SysRecord("feed down");
    ASSERT_NE(pRecord, nullptr);
    EXPECT_EQ(pRecord->nPending, 5);

    const DWORD dwBefore = GetTickCount();
    Flush();
    EXPECT_EQ(StateOf("feed down"), kQuiet);
    EXPECT_EQ(Counts(pRecord), std::pair(5, 0));
    EXPECT_LE(DWORD(pRecord->dwLastSent - dwBefore), 1000u);
    EXPECT_FALSE(AlertsPending());
    EXPECT_EQ(alertSystem.Deliveries(), Deliveries({{1, 1, "S", "R", Line("feed down")}}));

    // Six more just behind the delivery: held, and no flush is asked for.
    Raise("feed down", 6);
    EXPECT_EQ(StateOf("feed down"), kHeld);
    EXPECT_EQ(pRecord->nPending, 6);
    EXPECT_FALSE(AlertsPending());
    // A flush within the interval (asked for by someone) keeps it held.
    velmora.AlertMsg(1, QAS::EXCEPTION, "S", "R", "other");
    Advance(30000);
    Flush();
    EXPECT_EQ(StateOf("feed down"), kHeld);
    EXPECT_EQ(alertSystem.Texts(), Texts({Line("feed down"), Line("other")}));

    // Time alone delivers nothing: no alert, no flush.
    Advance(10 * 60000);
    Flush();
    EXPECT_EQ(StateOf("feed down"), kHeld);
    EXPECT_EQ(pRecord->nPending, 6);
    EXPECT_EQ(alertSystem.Deliveries().size(), 2u);

    // Any alert asks for a flush, and the flush delivers every record that is due, in key
    // order, the held one with its running total.
    alertSystem.Clear();
    velmora.AlertMsg("a text alert", nullptr);
    EXPECT_TRUE(AlertsPending());
    Flush();
    EXPECT_EQ(alertSystem.Texts(), Texts({Line("feed down") + "[Total:11]"}));
    EXPECT_EQ(MonitorAlerts(), Texts({"a text alert"}));
    // "other" had nothing new, and has been quiet for more than twice the interval.
    EXPECT_EQ(StatesOf({"feed down", "other"}), std::vector<State>({kQuiet, kRemoved}));
    EXPECT_EQ(pRecord->nTotal, 11);
    // The stored text doesn't take the total.
    EXPECT_EQ(pRecord->strDescription, Line("feed down"));
}

// The text a receiver gets: never null, the composed line, and the total straight behind it.
TEST_F(AlertFlush, ReceiversGetTheComposedTextWithTheTotalStraightBehindIt) {
    velmora.AlertMsg(7, QAS::USER_LOGIN_FAILED, nullptr, nullptr, "bad password");
    velmora.AlertMsg("Down", "HostA");
    velmora.AlertMsg("Down", "HostA");
    velmora.AlertMsg("Down", nullptr);
    // A new record is delivered at the first flush, whatever the interval.
    velmora.nAlertRepeatMS = 3600000;
    Flush();

    const std::string login = EventLine("User Login Failed", "(null)", "(null)", "bad password");
    EXPECT_EQ(alertSystem.nNullArguments, 0);
    EXPECT_EQ(alertSystem.Deliveries(), Deliveries({{7, 105, "", "", login}}));
    EXPECT_EQ(MonitorAlerts(), Texts({"Down", "From:HostA Down\n"}));

    velmora.AlertMsg(7, QAS::USER_LOGIN_FAILED, nullptr, nullptr, "bad password");
    velmora.AlertMsg("Down", "HostA");
    velmora.AlertMsg("Down", nullptr);
    Advance(3600001);
    FlushAsked();
    EXPECT_EQ(alertSystem.Texts().back(), login + "[Total:2]");
    EXPECT_EQ(MonitorAlerts(), Texts({"Down", "From:HostA Down\n", "Down[Total:2]",
                                      "From:HostA Down\n[Total:3]"}));

    // The longest stored text with a total: 511 characters and the total behind them.
    const std::string description = velmora_log_test::Letters(600);
    for (int i = 0; i < 3; ++i) {
        velmora.AlertMsg(1, QAS::ALGO_ALERT, "A", "B", description.c_str());
        if (i > 0) Flush();
        if (i == 1) Advance(3600001);
    }
    const std::string line = EventLine("Algo Alert", "A", "B", description).substr(0, 511);
    EXPECT_EQ(alertSystem.Texts().back(), line + "[Total:3]");

    // Without an alert system an event alert reaches the monitor as a text alert.
    velmora.SetAlertSystem(nullptr);
    velmora.AlertMsg(1, QAS::ROUTE_DISABLED, "Gateway", "G1", "route off");
    Flush();
    EXPECT_EQ(MonitorAlerts().back(), "From:Gateway route off\n");
}

// A flush runs only when an alert asked for it, and traces once, under the lock.
TEST_F(AlertFlush, AFlushRunsAndTracesOnlyWhenAsked) {
    _G_TraceAll = true;
    Raise("x");
    SetAlertsPending(false);
    Flush();
    EXPECT_TRUE(alertSystem.Deliveries().empty());
    EXPECT_EQ(CountOf(LogText(), " CVelmora::FlushAlerts ;\r\n"), 0);

    FlushAsked();
    EXPECT_EQ(alertSystem.Texts(), Texts({Line("x")}));
    EXPECT_EQ(CountOf(LogText(), " CVelmora::FlushAlerts ;\r\n"), 1);
}

// Exactly the interval after the last delivery the record is held; one millisecond more
// delivers it. Both for the initial interval and for a longer one.
TEST_F(AlertFlush, TheRepeatIntervalHoldsUpToItsLastMillisecond) {
    Raise("edge");
    Flush();
    AlertRecord* pRecord = SysRecord("edge");
    ASSERT_NE(pRecord, nullptr);

    for (int nInterval : {60000, 300000}) {
        velmora.nAlertRepeatMS = nInterval;
        for (DWORD dwElapsed : {DWORD(nInterval), DWORD(nInterval) + 1}) {
            DWORD dwLast = 0;
            DWORD dwNow = WithinOneTick(
                std::nullopt,
                [&](DWORD dwTick) {
                    dwLast = DWORD(dwTick - dwElapsed);
                    SetRecord(pRecord, dwLast, 1, 2);
                    alertSystem.Clear();
                    SetAlertsPending(true);
                },
                [] { Flush(); });
            SCOPED_TRACE(::testing::Message() << "interval " << nInterval << ", elapsed " << dwElapsed);
            const bool bDue = dwElapsed > DWORD(nInterval);
            EXPECT_FALSE(AlertsPending());
            EXPECT_EQ(StateOf("edge"), bDue ? kQuiet : kHeld);
            EXPECT_EQ(pRecord->dwLastSent, bDue ? dwNow : dwLast);
            EXPECT_EQ(Counts(pRecord), bDue ? std::pair(3, 0) : std::pair(1, 2));
            EXPECT_EQ(alertSystem.Texts(), bDue ? Texts({Line("edge") + "[Total:3]"}) : Texts());
        }
    }
}

// A quiet record goes only in a flush more than twice the interval after its last delivery.
TEST_F(AlertFlush, AQuietRecordStaysUpToTwiceTheIntervalAndGoesOneMillisecondLater) {
    Raise("quiet");
    Raise("keeps");  // asks for the flushes below; held all along
    Flush();
    velmora.nAlertRepeatMS = 90000;

    for (DWORD dwElapsed : {DWORD(180000), DWORD(180001)}) {
        WithinOneTick(
            std::nullopt,
            [&](DWORD dwTick) {
                if (SysRecord("quiet") == nullptr) Raise("quiet");  // a round that removed it
                AlertRecord* pRecord = SysRecord("quiet");
                ASSERT_NE(pRecord, nullptr);
                pRecord->dwLastSent = DWORD(dwTick - dwElapsed);
                pRecord->nPending = 0;
                SysRecord("keeps")->dwLastSent = dwTick;
                SysRecord("keeps")->nPending = 1;
                SetAlertsPending(true);
            },
            [] { Flush(); });
        SCOPED_TRACE(dwElapsed);
        EXPECT_EQ(StatesOf({"quiet", "keeps"}),
                  std::vector<State>({dwElapsed == 180000 ? kQuiet : kRemoved, kHeld}));
    }
    EXPECT_EQ(velmora.mapSystemAlerts.size(), 1u);
    EXPECT_EQ(alertSystem.Deliveries().size(), 2u);  // the two first deliveries only
}

// At most one removal per map and flush, the first due record in key order; a held record
// however old is delivered, not removed; a removed text comes back as new.
TEST_F(AlertFlush, OneRemovalPerMapAndFlushInKeyOrder) {
    for (const char* szText : {"a-young", "b-old", "c-old", "d-old", "e-held"}) Raise(szText);
    velmora.AlertMsg("m-old", nullptr);
    velmora.AlertMsg("n-old", nullptr);
    Flush();
    ASSERT_EQ(alertSystem.Deliveries().size(), 5u);
    ASSERT_EQ(MonitorAlerts().size(), 2u);

    // Everything was delivered together; "a-young" is delivered once more a little later,
    // and "e-held" has occurrences waiting.
    Advance(60001);
    Raise("a-young");
    Flush();
    Raise("e-held", 2);
    Advance(60002);
    // Now "a-young" is quiet for 60002 ms, the others for 120003 ms. The held record, older
    // than twice the interval, is delivered and starts anew.
    alertSystem.Clear();
    const std::initializer_list<const char*> events = {"a-young", "b-old", "c-old", "d-old",
                                                       "e-held"};
    FlushAsked();
    EXPECT_EQ(StatesOf(events, {"m-old", "n-old"}),
              std::vector<State>({kQuiet, kRemoved, kQuiet, kQuiet, kQuiet, kRemoved, kQuiet}));
    EXPECT_EQ(alertSystem.Texts(), Texts({Line("e-held") + "[Total:3]"}));
    FlushAsked();
    EXPECT_EQ(StatesOf(events, {"n-old"}),
              std::vector<State>({kQuiet, kRemoved, kRemoved, kQuiet, kQuiet, kRemoved}));
    FlushAsked();
    EXPECT_EQ(StatesOf(events),
              std::vector<State>({kQuiet, kRemoved, kRemoved, kRemoved, kQuiet}));
    EXPECT_EQ(velmora.mapSystemAlerts.size(), 2u);
    EXPECT_TRUE(velmora.mapMonitorAlerts.empty());

    // After its removal a text is new again: delivered without a total, counted from 1.
    Raise("b-old");
    EXPECT_EQ(StateOf("b-old"), kNew);
    Flush();
    EXPECT_EQ(alertSystem.Texts().back(), Line("b-old"));
    EXPECT_EQ(SysRecord("b-old")->nTotal, 1);
    Raise("b-old");
    Advance(60001);
    Raise("b-old");
    Flush();
    EXPECT_EQ(alertSystem.Texts().back(), Line("b-old") + "[Total:3]");
}

// Differences are unsigned 32-bit: across the wrap of the count nothing changes.
TEST_F(AlertFlush, TheWrapOfTheTickCountDoesNoHarm) {
    MoveTickCountTo(0xFFFFFFFFu - 300);
    Raise("wrap", 2);
    Flush();
    AlertRecord* pRecord = SysRecord("wrap");
    ASSERT_NE(pRecord, nullptr);
    EXPECT_GT(pRecord->dwLastSent, 0xFFFFFFFFu - 1000);
    Raise("wrap", 2);

    // Past the wrap, within the interval: held.
    Advance(1000);
    ASSERT_LT(GetTickCount(), 60000u);
    FlushAsked();
    EXPECT_EQ(StateOf("wrap"), kHeld);
    // More than 60000 ms after the delivery, measured across the wrap, a repetition asks for
    // a flush and the flush delivers.
    Advance(60000);
    Raise("wrap");
    EXPECT_TRUE(AlertsPending());
    Flush();
    EXPECT_EQ(alertSystem.Texts().back(), Line("wrap") + "[Total:5]");
    EXPECT_LT(pRecord->dwLastSent, 70000u);

    // A delivery at the count 0 leaves dwLastSent 0: the record counts as never delivered.
    WithinOneTick(
        DWORD(0),
        [&](DWORD) {
            SetRecord(pRecord, 0xFFFFFFFFu - 70000, 5, 1);
            SetAlertsPending(true);
        },
        [] { Flush(); });
    EXPECT_EQ(pRecord->dwLastSent, 0u);
    EXPECT_EQ(StateOf("wrap"), kNew);
    Raise("wrap");
    FlushAsked();
    EXPECT_EQ(alertSystem.Texts().back(), Line("wrap"));
    EXPECT_EQ(pRecord->nTotal, 7);
}

// A receiver's failure ends the flush: reported, the lock left, the flag kept; the next
// flush delivers the rest and nothing twice.
TEST_F(AlertFlush, AFailingReceiverEndsTheFlushAndTheNextFlushGoesOn) {
    directory.repeatMinutes = 4;
    for (const char* szDescription : {"a", "b", "c"}) Raise(szDescription);
    velmora.AlertMsg("m", nullptr);
    alertSystem.nFailOnCall = 2;
    Flush();

    EXPECT_EQ(alertSystem.Texts(), Texts({Line("a"), Line("b")}));
    EXPECT_TRUE(AlertsPending());
    EXPECT_EQ(StateOf("a"), kQuiet);
    EXPECT_EQ(SysRecord("b")->nPending, 0);
    EXPECT_EQ(SysRecord("c")->nPending, 1);
    EXPECT_EQ(MonitorRecord("m")->nPending, 1);
    // The delivery of "a" asked for the reload, and it ran after the failure.
    EXPECT_EQ(directory.nRepeatReads, 1);
    EXPECT_EQ(velmora.nAlertRepeatMS, 240000);
    BOOL bFree = FALSE;
    std::thread([&bFree] {
        bFree = TryEnterCriticalSection(&velmora.csAlerts);
        if (bFree) LeaveCriticalSection(&velmora.csAlerts);
    }).join();
    EXPECT_TRUE(bFree) << "the alert lock is still held after the failure";
    const std::string report = "CVelmora::FlushAlerts receiver down\n";
    EXPECT_EQ(MonitorAlerts(), Texts({report}));
    EXPECT_EQ(CountOf(LogText(), Record("[Exception]", report)), 1);

    Flush();
    EXPECT_EQ(alertSystem.Texts(), Texts({Line("a"), Line("b"), Line("c")}));
    EXPECT_EQ(MonitorAlerts(), Texts({report, "m"}));
    EXPECT_FALSE(AlertsPending());
}

// Without a receiver a record goes through the same states: counted, timed, not sent.
TEST_F(AlertFlush, WithoutReceiversRecordsAreCountedAndOnlyWhatIsPendingLaterIsSent) {
    velmora.DisconnectMonitor(true);
    velmora.AlertMsg("Down", "HostA");
    velmora.AlertMsg("Down", "HostA");
    Raise("unplugged", 2);
    velmora.SetAlertSystem(nullptr);
    Flush();

    EXPECT_EQ(StatesOf({"unplugged"}, {"From:HostA Down\n"}), std::vector<State>({kQuiet, kQuiet}));
    EXPECT_EQ(MonitorRecord("From:HostA Down\n")->nTotal, 2);
    EXPECT_EQ(SysRecord("unplugged")->nTotal, 2);
    EXPECT_TRUE(alertSystem.Deliveries().empty());
    EXPECT_TRUE(MonitorAlerts().empty());

    // Both come back; only what is pending then reaches them.
    velmora.AlertMsg("Down", "HostA");
    velmora.SetAlertSystem(&alertSystem);
    Raise("unplugged");
    ConnectMonitor();
    Advance(60001);
    FlushAsked();
    EXPECT_EQ(MonitorAlerts(), Texts({"From:HostA Down\n[Total:3]"}));
    EXPECT_EQ(alertSystem.Texts(), Texts({Line("unplugged") + "[Total:3]"}));
}

// After a flush that delivered more than the interval after the last delivery, the interval
// is read again: minutes, 2 or more; anything else keeps the interval as it is.
TEST_F(AlertFlush, TheIntervalIsReadAgainAfterADeliveringFlush) {
    directory.repeatMinutes = 5;
    Raise("r");
    Flush();
    EXPECT_EQ(directory.nRepeatReads, 1);
    EXPECT_EQ(directory.nWrongKindReads, 0);
    EXPECT_EQ(velmora.nAlertRepeatMS, 300000);

    // A flush that delivers nothing reads nothing.
    Raise("r");
    FlushAsked();
    EXPECT_EQ(directory.nRepeatReads, 1);

    struct Step {
        std::optional<int> minutes;
        int nExpected;
    };
    const Step steps[] = {{1, 300000}, {0, 300000}, {-3, 300000}, {std::nullopt, 300000},
                          {2, 120000}, {35791, 35791 * 60000}};
    int nReads = 1;
    for (const Step& step : steps) {
        directory.repeatMinutes = step.minutes;
        Advance(DWORD(velmora.nAlertRepeatMS) + 1);
        Raise("r");
        Flush();
        SCOPED_TRACE(step.minutes ? *step.minutes : -999);
        EXPECT_EQ(directory.nRepeatReads, ++nReads);
        EXPECT_EQ(velmora.nAlertRepeatMS, step.nExpected);
    }

    // A first delivery while the machine's count is still within the interval reads nothing.
    velmora.nAlertRepeatMS = 60000;
    MoveTickCountTo(1000);
    Raise("early");
    Flush();
    EXPECT_EQ(alertSystem.Texts().back(), Line("early"));
    EXPECT_EQ(directory.nRepeatReads, nReads);

    // Without a directory, or with one that fails (reported), the interval stays.
    directory.repeatMinutes = 9;
    for (bool bDirectory : {false, true}) {
        SCOPED_TRACE(bDirectory ? "failing directory" : "no directory");
        _G_Directory = bDirectory ? &directory : nullptr;
        directory.bFailWin32 = bDirectory;
        Advance(60001);
        Raise("early");
        Flush();
        EXPECT_EQ(alertSystem.Texts().back(), Line("early") + (bDirectory ? "[Total:3]" : "[Total:2]"));
        EXPECT_EQ(velmora.nAlertRepeatMS, 60000);
    }
    EXPECT_FALSE(AlertsPending());
    EXPECT_EQ(MonitorAlerts(), Texts({"CVelmora::FlushAlerts directory down\n"}));
}

// An alert system that also notes the record's total at each delivery (it is called under
// the alert lock, on the flushing thread, so it may look).
class TotalsAlertSystem : public RecordingAlertSystem {
public:
    void AlertMsg(int nLevel, int nEvent, const char* szSource, const char* szRef,
                  const char* szText) override {
        std::string text(szText);
        AlertRecord* pRecord = SystemRecord(text.substr(0, std::min<size_t>(255, text.find("[Total:"))));
        {
            std::lock_guard<std::mutex> lock(totalsMutex);
            totals[pRecord != nullptr ? pRecord->strDescription : "?"].push_back(
                pRecord != nullptr ? pRecord->nTotal : -1);
        }
        RecordingAlertSystem::AlertMsg(nLevel, nEvent, szSource, szRef, szText);
    }
    std::mutex totalsMutex;
    std::map<std::string, std::vector<int>> totals;  // per text, the total at each delivery
};

// Eight threads raise shared and own alerts of both kinds while flushes run and time passes:
// every occurrence is counted once, delivered or pending.
TEST_F(AlertFlush, ManyThreadsLoseNothing) {
    TotalsAlertSystem totalsSystem;
    velmora.SetAlertSystem(&totalsSystem);
    constexpr int kThreads = 8;
    std::atomic<bool> bStop{false};
    std::atomic<int> nStarted{0};
    std::vector<int> raised(kThreads, 0);  // rounds of each thread, read after the join
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &bStop, &nStarted, &raised] {
            const std::string own = "thread " + std::to_string(t);
            int nRounds = 0;
            do {
                velmora.AlertMsg(2, QAS::TRADE_LATENCY, "Shared", "R", "storm");
                velmora.AlertMsg(2, QAS::TRADE_LATENCY, "Own", "R", own.c_str());
                velmora.AlertMsg("feed down", "Feed");
                velmora.AlertMsg(own.c_str(), nullptr);
                if (++nRounds == 1) ++nStarted;
            } while (!bStop);
            raised[size_t(t)] = nRounds;
        });
    }
    // The flushes run while every thread raises. Time moves by a quarter of the interval
    // per flush, five times: repeats are delivered, and no record can be quiet long enough
    // to go (the test would have to take 45 seconds for that).
    while (nStarted < kThreads) Sleep(1);
    for (int nFlush = 0; nFlush < 20; ++nFlush) {
        Flush();
        if (nFlush < 5) Advance(15000);
        Sleep(2);
    }
    bStop = true;
    for (std::thread& thread : threads) thread.join();
    Flush();

    std::map<std::string, int> systemRaised, monitorRaised;
    int nAll = 0;
    for (int t = 0; t < kThreads; ++t) {
        systemRaised[EventLine("Trade Latency", "Own", "R", "thread " + std::to_string(t))] =
            raised[size_t(t)];
        monitorRaised["thread " + std::to_string(t)] = raised[size_t(t)];
        nAll += raised[size_t(t)];
    }
    systemRaised[EventLine("Trade Latency", "Shared", "R", "storm")] = nAll;
    monitorRaised["From:Feed feed down\n"] = nAll;
    // Repeats were delivered while the threads ran.
    EXPECT_GT(totalsSystem.totals[EventLine("Trade Latency", "Shared", "R", "storm")].size(), 1u);
    ASSERT_EQ(velmora.mapSystemAlerts.size(), systemRaised.size());
    ASSERT_EQ(velmora.mapMonitorAlerts.size(), monitorRaised.size());
    std::map<std::string, std::vector<int>> totals = totalsSystem.totals;
    for (const auto& [text, nRaised] : systemRaised) {
        SCOPED_TRACE(text);
        AlertRecord* pRecord = SystemRecord(text);
        ASSERT_NE(pRecord, nullptr);
        ASSERT_FALSE(totals[text].empty());
        EXPECT_TRUE(std::is_sorted(totals[text].begin(), totals[text].end()));
        EXPECT_EQ(totals[text].back(), pRecord->nTotal);
        EXPECT_EQ(pRecord->nTotal + pRecord->nPending, nRaised);
    }
    for (const auto& [text, nRaised] : monitorRaised) {
        SCOPED_TRACE(text);
        AlertRecord* pRecord = MonitorRecord(text);
        ASSERT_NE(pRecord, nullptr);
        EXPECT_EQ(pRecord->nTotal + pRecord->nPending, nRaised);
    }

    // One more interval, one more alert: everything pending is delivered, and the last
    // delivered totals are the numbers raised.
    Advance(60001);
    velmora.AlertMsg("last", nullptr);
    Flush();
    totals = totalsSystem.totals;
    for (const auto& [text, nRaised] : systemRaised) {
        SCOPED_TRACE(text);
        EXPECT_EQ(totals[text].back(), nRaised);
    }
    std::map<std::string, std::string> lastMonitorAlert;
    for (const std::string& alert : MonitorAlerts())
        lastMonitorAlert[alert.substr(0, alert.find("[Total:"))] = alert;
    for (const auto& [text, nRaised] : monitorRaised) {
        SCOPED_TRACE(text);
        // A record that was quiet all along may have gone in this flush.
        if (AlertRecord* pRecord = MonitorRecord(text)) {
            EXPECT_EQ(Counts(pRecord), std::pair(nRaised, 0));
        }
        if (lastMonitorAlert[text] != text) {  // delivered once more than at first
            EXPECT_EQ(lastMonitorAlert[text], text + "[Total:" + std::to_string(nRaised) + "]");
        }
    }
}

// Through Init: the alert timer thread flushes within about a second of an alert.
class AlertTimer : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(setenv("VELMORA_OBJECT_FOLDER", objects.path().c_str(), 1), 0);
        ASSERT_EQ(setenv("PELTRIX_LOG_FOLDER", logs.path().c_str(), 1), 0);
        _G_Directory = &directory;
        MoveTickCountTo(0x40000000);
    }
    void TearDown() override {
        velmora.Shutdown();
        velmora.SetAlertSystem(nullptr);
        _G_Directory = nullptr;
    }

    velmora_test::TempDir objects, logs;
    AlertDirectory directory;
    RecordingAlertSystem alertSystem;
};

TEST_F(AlertTimer, TheTimerThreadDeliversWhatIsDue) {
    directory.repeatMinutes = 3;
    ASSERT_TRUE(velmora.Init(velmora_test::UniqueName("AlertTimer").c_str(), 1));
    velmora.SetAlertSystem(&alertSystem);
    const std::string monitorFile = logs.file("monitor.txt");
    ASSERT_TRUE(velmora.ConnectMonitor(true, monitorFile.c_str()));

    const std::string line = EventLine("Route Disabled", "Gateway", "G7", "route off");
    for (int i = 0; i < 3; ++i) velmora.AlertMsg(4, QAS::ROUTE_DISABLED, "Gateway", "G7", "route off");
    velmora.AlertMsg("Down", "HostA");
    ASSERT_TRUE(WaitFor([&] { return alertSystem.Deliveries().size() == 1; }));
    EXPECT_EQ(alertSystem.Texts()[0], line);
    ASSERT_TRUE(WaitFor([&] {
        return velmora_test::ReadFile(monitorFile).find(";From:HostA Down\n\r\n") != std::string::npos;
    }));
    // The delivery read the interval again.
    EXPECT_TRUE(WaitFor([&] { return directory.nRepeatReads >= 1; }));

    // Held occurrences wait; a late one asks for a flush that delivers their total.
    for (int i = 0; i < 2; ++i) velmora.AlertMsg(4, QAS::ROUTE_DISABLED, "Gateway", "G7", "route off");
    Advance(180001);
    velmora.AlertMsg(4, QAS::ROUTE_DISABLED, "Gateway", "G7", "route off");
    ASSERT_TRUE(WaitFor([&] { return alertSystem.Deliveries().size() == 2; }));
    EXPECT_EQ(alertSystem.Texts()[1], line + "[Total:6]");

    // Shutdown stops the thread and frees the records.
    velmora.Shutdown();
    EXPECT_TRUE(velmora.mapSystemAlerts.empty());
    EXPECT_TRUE(velmora.mapMonitorAlerts.empty());
    EXPECT_EQ(alertSystem.Deliveries().size(), 2u);
}

}  // namespace
