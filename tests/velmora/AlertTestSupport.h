// Helpers of the alert tests: a recording alert system, a directory with the repeat interval, a fixture,
// the way into FlushAlerts, and control of the tick count. Every test runs in a process of its own.
#pragma once

#include "ReportTestSupport.h"
#include "alerting/AlertRecord.h"
#include "include/VelmoraClockSeam.h"

#include <optional>
#include <thread>

namespace velmora_alert_test {

struct Delivery {  // what an alert system was given
    int nLevel, nEvent;
    std::string source, ref, text;
    bool operator==(const Delivery&) const = default;
};

// Keeps every alert it is given; throws a host's failure on call nFailOnCall (from 1).
struct RecordingAlertSystem : CAlertSystemInf {
    void AlertMsg(int nLevel, int nEvent, const char* szSource, const char* szRef, const char* szText) override {
        std::lock_guard<std::mutex> lock(mutex);
        deliveries.push_back({nLevel, nEvent, szSource, szRef, szText});  // a null throws: never given
        if (++nCalls == nFailOnCall) throw velmora_report_test::HostFailure("receiver down");
    }
    std::vector<std::string> Texts() {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<std::string> texts;
        for (const Delivery& delivery : deliveries) texts.push_back(delivery.text);
        return texts;
    }
    std::mutex mutex;
    std::vector<Delivery> deliveries;
    int nCalls = 0, nFailOnCall = 0;
};

// The repeat interval in minutes as "TIMEOUT_REPEATALERTS" of kind 2; reads counted, and failing when told.
struct AlertDirectory : velmora_log_test::TestDirectory {
    int nRepeatMinutes = 0, nRepeatReads = 0;
    bool bFail = false;
    void GetIntSetting(int nKind, const char* szKey, int* pnValue) override {
        if (nKind != 2 || std::string(szKey) != "TIMEOUT_REPEATALERTS") return;
        if (++nRepeatReads, bFail) throw velmora_report_test::HostFailure("directory down");
        *pnValue = nRepeatMinutes;
    }
};

struct AlertAccess : CVelmora { using CVelmora::FlushAlerts; };
inline void Flush() { (velmora.*static_cast<void (CVelmora::*)()>(&AlertAccess::FlushAlerts))(); }
inline bool AlertsPending() { return std::atomic_ref<bool>(velmora.bAlertsPending).load(); }
inline void SetAlertsPending(bool bPending) { std::atomic_ref<bool>(velmora.bAlertsPending).store(bPending); }
// The record of a key in the map of event alerts, or of text alerts; null if there is none.
inline AlertRecord* SystemRecord(const std::string& key) { return velmora.mapSystemAlerts.count(key) ? velmora.mapSystemAlerts[key] : nullptr; }
inline AlertRecord* MonitorRecord(const std::string& key) { return velmora.mapMonitorAlerts.count(key) ? velmora.mapMonitorAlerts[key] : nullptr; }

// The composed line of a five-argument alert.
inline std::string EventLine(const std::string& event, const std::string& source, const std::string& ref, const std::string& description) {
    return "Event=" + event + " Source=" + source + " Ref=" + ref + " Desc=" + description + "\n";
}

// Moves the tick count forward so that its next reading is about dwTick.
inline void MoveTickCountTo(DWORD dwTick) { velmora_platform::AdvanceTickCount(DWORD(dwTick - GetTickCount())); }

// Runs arrange(now) and act() within one value of the tick count (moved to target first, if any), and
// returns it; a round that crosses into the next millisecond is done again.
template <typename Arrange, typename Act>
DWORD WithinOneTick(std::optional<DWORD> target, Arrange arrange, Act act) {
    for (int nRound = 0; nRound < 2000; ++nRound) {
        for (DWORD dwStart = GetTickCount(); GetTickCount() == dwStart;) std::this_thread::yield();
        if (target) MoveTickCountTo(*target);
        const DWORD dwNow = GetTickCount();
        if ((!target || dwNow == *target) && (arrange(dwNow), act(), GetTickCount() == dwNow)) return dwNow;
    }
    ADD_FAILURE() << "no round fitted into one millisecond of the tick count";
    return 0;
}

// A default log client, the recording alert system, a monitor file, and the tick count far from 0 and its wrap.
class AlertFixture : public ::testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories(tmp.path() + "/clients");
        ASSERT_EQ(setenv("PELTRIX_LOG_FOLDER", (tmp.path() + "/clients").c_str(), 1), 0);
        _G_Directory = &directory;
        velmora_log_test::SetAppName("Alerts");
        ASSERT_NE(globalDefaultLog = pLog = velmora.GetLogClient("default", true, false, true), nullptr);
        velmora.SetAlertSystem(&alertSystem);
        ASSERT_TRUE(velmora.ConnectMonitor(true, tmp.file("monitor.txt").c_str()));
        MoveTickCountTo(0x40000000);
    }
    void TearDown() override {  // Shutdown frees the records and closes the logs, as a host ends
        velmora.SetReportConsole(nullptr), velmora.SetAlertSystem(nullptr), velmora.pFTSEngine = nullptr, _G_TraceAll = false;
        velmora.Shutdown(), _G_Directory = nullptr;
    }
    // The alerts that reached the monitor, without their stamps "HH:MM:SS[mmm];", in order.
    std::vector<std::string> MonitorAlerts() const {
        const std::string text = velmora_test::ReadFile(tmp.file("monitor.txt"));
        std::vector<std::string> alerts;
        for (size_t at = 0, end; (end = text.find("\r\n", at)) != std::string::npos; at = end + 2)
            alerts.push_back(text.substr(at + 14, end - at - 14));
        return alerts;
    }
    std::string LogText() { return velmora_log_test::LogTextOf(pLog); }
    static std::string Record(const char* szPrefix, const std::string& msg) { return velmora_log_test::RecordEnd(szPrefix, msg); }

    velmora_test::TempDir tmp;
    AlertDirectory directory;
    RecordingAlertSystem alertSystem;
    CQuorelLog* pLog = nullptr;
};

}  // namespace velmora_alert_test
