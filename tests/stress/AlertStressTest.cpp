// Alerts of both forms raised by many threads while the alert timer thread flushes: each text
// reaches its receiver once a repeat interval, and the running totals add up to every alert
// raised.
#include "tests/stress/StressSupport.h"
#include "tests/velmora/AlertTestSupport.h"

#include <map>
#include <string>
#include <vector>

namespace {

namespace QAS = QUOREL_ALERT_SYSTEM;
using velmora_alert_test::EventLine;

constexpr int kThreads = 8;
constexpr int kShared = 3;  // texts that every thread raises; each thread has one more of its own
constexpr int kPhases = 3;  // of many alerts, one repeat interval each, then one of a single round

// What a receiver got for one text: -1 for the first delivery (no total), then the totals.
struct Received {
    std::vector<int> totals;
    std::vector<int> levels;
};

class StressAlerts : public ::testing::Test {
protected:
    void SetUp() override {
        velmora_alert_test::MoveTickCountTo(0x40000000);
        velmora.SetAlertSystem(&alertSystem);
        ASSERT_TRUE(velmora.ConnectMonitor(true, tmp.file("monitor.txt").c_str()));
    }
    void TearDown() override {
        velmora.SetAlertSystem(nullptr);
        velmora.DisconnectMonitor(true);
    }

    // Both receivers, text by text.
    std::map<std::string, Received> Deliveries() {
        std::map<std::string, Received> received;
        auto note = [&](const std::string& delivered, int nLevel) {
            const size_t at = delivered.rfind("[Total:");
            Received& r = received[delivered.substr(0, at)];
            r.totals.push_back(at == std::string::npos ? -1 : std::atoi(delivered.c_str() + at + 7));
            r.levels.push_back(nLevel);
        };
        for (const velmora_alert_test::Delivery& d : alertSystem.Deliveries()) note(d.text, d.nLevel);
        const std::string monitor = velmora_test::ReadFile(tmp.file("monitor.txt"));
        for (size_t at = 0, end; (end = monitor.find("\r\n", at)) != std::string::npos; at = end + 2)
            note(monitor.substr(at + 14, end - at - 14), -1);  // behind "HH:MM:SS[mmm];"
        return received;
    }

    velmora_test::TempDir tmp;
    velmora_alert_test::RecordingAlertSystem alertSystem;
};

// One round of a thread: every shared alert of both forms, and its own of both forms, each
// counted under the text its receiver gets.
void RaiseRound(int t, std::map<std::string, int>& raised) {
    for (int s = 0; s < kShared; ++s) {
        const std::string ref = "G" + std::to_string(s), host = "Host" + std::to_string(s);
        velmora.AlertMsg(t, QAS::ROUTE_DISABLED, "Gateway", ref.c_str(), "route off");
        velmora.AlertMsg("feed down", host.c_str());
        ++raised[EventLine(QAS::GetAlertEventDescription(QAS::ROUTE_DISABLED), "Gateway", ref, "route off")];
        ++raised["From:" + host + " feed down\n"];
    }
    const std::string source = "Thread" + std::to_string(t), text = "stall " + std::to_string(t);
    velmora.AlertMsg(1, QAS::DATABASE_DOWN, source.c_str(), "", "db down");
    velmora.AlertMsg(text.c_str(), nullptr);
    ++raised[EventLine(QAS::GetAlertEventDescription(QAS::DATABASE_DOWN), source, "", "db down")];
    ++raised[text];
}

TEST_F(StressAlerts, TotalsOfBothFormsAddUpToEveryAlertRaised) {
    velmora_stress::Watchdog watchdog("StressAlerts");
    const int nRounds = velmora_stress::Scaled(600);
    std::map<std::string, int> raised;
    std::vector<std::map<std::string, int>> raisedBy(kPhases + 1);  // by the end of each phase
    for (int phase = 0; phase <= kPhases; ++phase) {
        std::vector<std::map<std::string, int>> byThread(kThreads);
        velmora_stress::RunThreads(kThreads, [&](int t) {
            for (int i = 0; i < (phase < kPhases ? nRounds : 1); ++i) RaiseRound(t, byThread[t]);
        });
        for (const auto& counts : byThread)
            for (const auto& [text, n] : counts) raised[text] += n;
        raisedBy[phase] = raised;
        // Within the interval each text is delivered once: new, or with its total so far.
        ASSERT_TRUE(velmora_stress::WaitUntil([&] {
            std::map<std::string, Received> received = Deliveries();
            for (const auto& entry : raised)
                if (received[entry.first].totals.size() < size_t(phase + 1)) return false;
            return true;
        })) << "phase " << phase;
        velmora_platform::AdvanceTickCount(61000);
    }

    std::map<std::string, Received> received = Deliveries();
    ASSERT_EQ(raised.size(), size_t(2 * (kShared + kThreads)));
    for (const auto& [text, nRaised] : raised) {
        SCOPED_TRACE(text);
        const Received& r = received[text];
        ASSERT_EQ(r.totals.size(), size_t(kPhases + 1));
        EXPECT_EQ(r.totals[0], -1) << "the first delivery carries no total";
        // A later delivery follows the first alert of its phase and counts all before it.
        for (int phase = 1; phase <= kPhases; ++phase) {
            EXPECT_GT(r.totals[phase], raisedBy[phase - 1][text]) << "phase " << phase;
            EXPECT_LE(r.totals[phase], raisedBy[phase][text]) << "phase " << phase;
        }
        EXPECT_EQ(r.totals.back(), nRaised) << "alerts were lost";
        // The record keeps the level of its first alert for every delivery.
        for (int nLevel : r.levels) EXPECT_EQ(nLevel, r.levels[0]);
    }
    EXPECT_EQ(alertSystem.nNullArguments, 0);
}

}  // namespace
