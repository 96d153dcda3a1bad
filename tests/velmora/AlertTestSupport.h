// Helpers of the alert tests: an alert system that records what reaches it, a directory with
// the repeat interval setting, a fixture with a default log and a monitor file of its own,
// the way into the protected FlushAlerts, and control of the tick count.
//
// Every test runs in a process of its own (gtest_discover_tests): `velmora` starts with
// empty alert maps and the initial interval in each.
#pragma once

#include "ReportTestSupport.h"
#include "alerting/AlertRecord.h"
#include "include/VelmoraClockSeam.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

namespace velmora_alert_test {

// ---- An alert system that records ----------------------------------------------------------

struct Delivery {
    int nLevel;
    int nEvent;
    std::string source;
    std::string ref;
    std::string text;
    bool operator==(const Delivery&) const = default;
};
inline void PrintTo(const Delivery& d, std::ostream* os) {
    *os << "{" << d.nLevel << ", " << d.nEvent << ", " << ::testing::PrintToString(d.source)
        << ", " << ::testing::PrintToString(d.ref) << ", " << ::testing::PrintToString(d.text)
        << "}";
}

// Keeps a copy of every alert it is given. It can be told to throw a host's
// win32_exception on one call (counted from 1 over its life).
class RecordingAlertSystem : public CAlertSystemInf {
public:
    void AlertMsg(int nLevel, int nEvent, const char* szSource, const char* szRef,
                  const char* szText) override {
        std::lock_guard<std::mutex> lock(mutex);
        ++nCalls;
        // The receiver contract: three valid strings, never null.
        if (szSource == nullptr || szRef == nullptr || szText == nullptr) ++nNullArguments;
        deliveries.push_back({nLevel, nEvent, szSource ? szSource : "", szRef ? szRef : "",
                              szText ? szText : ""});
        if (nCalls == nFailOnCall) throw velmora_report_test::HostFailure("receiver down");
    }

    std::vector<Delivery> Deliveries() {
        std::lock_guard<std::mutex> lock(mutex);
        return deliveries;
    }
    std::vector<std::string> Texts() {
        std::vector<std::string> texts;
        for (const Delivery& delivery : Deliveries()) texts.push_back(delivery.text);
        return texts;
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(mutex);
        deliveries.clear();
    }

    std::mutex mutex;
    std::vector<Delivery> deliveries;
    int nCalls = 0;
    int nFailOnCall = 0;  // 0: never fails
    int nNullArguments = 0;
};

// ---- A directory with the repeat interval --------------------------------------------------

// Answers "TIMEOUT_REPEATALERTS" of section kind 2 when a value is set, and counts the
// reads of that key. Other keys (the monitor's time-out) are not found.
class AlertDirectory : public CDirectoryServiceInf {
public:
    // Set before the alert timer thread can read them; the counts may be read while it runs.
    std::optional<int> repeatMinutes;
    std::atomic<int> nRepeatReads{0};
    std::atomic<int> nWrongKindReads{0};  // the key asked under another section kind
    bool bFailWin32 = false;              // the read throws a host's win32_exception

    const char* GetLogFolderSuffix() override { return "SFX"; }
    const char* GetLogFolderPrefix() override { return "PFX"; }
    void Reserved5() override {}
    void Reserved6() override {}
    void Reserved7() override {}
    void GetIntSetting(int nKind, const char* szKey, int* pnValue) override {
        if (std::string(szKey) != "TIMEOUT_REPEATALERTS") return;
        if (nKind != 2) {
            ++nWrongKindReads;
            return;
        }
        ++nRepeatReads;
        if (bFailWin32) throw velmora_report_test::HostFailure("directory down");
        if (repeatMinutes) *pnValue = *repeatMinutes;
    }
    void Reserved9() override {}
    void GetStringSetting(int, const char*, char*, int) override {}
};

// ---- Ways into the service object -----------------------------------------------------------

struct AlertAccess : CVelmora {
    using CVelmora::FlushAlerts;
};
inline void Flush() {
    void (CVelmora::*pFlush)() = &AlertAccess::FlushAlerts;
    (velmora.*pFlush)();
}

// The flag is shared with the alert timer thread, when one runs.
inline bool AlertsPending() {
    return std::atomic_ref<bool>(velmora.bAlertsPending).load(std::memory_order_acquire);
}
inline void SetAlertsPending(bool bPending) {
    std::atomic_ref<bool>(velmora.bAlertsPending).store(bPending, std::memory_order_release);
}

inline AlertRecord* Find(std::map<std::string, AlertRecord*>& alerts, const std::string& key) {
    auto found = alerts.find(key);
    return found != alerts.end() ? found->second : nullptr;
}
inline AlertRecord* SystemRecord(const std::string& key) {
    return Find(velmora.mapSystemAlerts, key);
}
inline AlertRecord* MonitorRecord(const std::string& key) {
    return Find(velmora.mapMonitorAlerts, key);
}

// The composed line of a five-argument alert.
inline std::string EventLine(const std::string& event, const std::string& source,
                             const std::string& ref, const std::string& description) {
    return "Event=" + event + " Source=" + source + " Ref=" + ref + " Desc=" + description +
           "\n";
}

// ---- The tick count ------------------------------------------------------------------------

// Moves the tick count forward so that its next reading is dwTick (or a millisecond or so
// later). The 64-bit count only ever jumps forward.
inline void MoveTickCountTo(DWORD dwTick) {
    velmora_platform::AdvanceTickCount(DWORD(dwTick - GetTickCount()));
}

// Runs arrange(now) and then act() within one value of the tick count, and returns that value:
// whatever act() read from GetTickCount was `now`. The count moves on by itself, so a round
// that crosses into the next millisecond is arranged and acted again; each round starts at
// the beginning of a millisecond, and there are many rounds, so that a slow machine only
// takes more of them. With a target, each round first moves the count to it.
template <typename Arrange, typename Act>
DWORD WithinOneTick(std::optional<DWORD> target, Arrange arrange, Act act) {
    for (int nRound = 0; nRound < 2000; ++nRound) {
        DWORD dwStart = GetTickCount();
        while (GetTickCount() == dwStart) std::this_thread::yield();
        if (target) MoveTickCountTo(*target);
        DWORD dwNow = GetTickCount();
        if (target && dwNow != *target) continue;
        arrange(dwNow);
        act();
        if (GetTickCount() == dwNow) return dwNow;
    }
    ADD_FAILURE() << "no round of the test fitted into one millisecond of the tick count";
    return 0;
}

// ---- The fixture ---------------------------------------------------------------------------

// A default log client in a folder of its own (as Init makes it), the recording alert system
// plugged in, a monitor file, and the tick count far from 0 and from its wrap.
class AlertFixture : public ::testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories(tmp.path() + "/clients");
        ASSERT_EQ(setenv("PELTRIX_LOG_FOLDER", (tmp.path() + "/clients").c_str(), 1), 0);
        _G_Directory = &directory;
        velmora_log_test::SetAppName("Alerts");
        pLog = velmora.GetLogClient("default", true, false, true);
        ASSERT_NE(pLog, nullptr);
        globalDefaultLog = pLog;
        velmora.SetAlertSystem(&alertSystem);
        ConnectMonitor();
        MoveTickCountTo(0x40000000);
    }

    // Shutdown frees the records and closes the logs, as a host ends.
    void TearDown() override {
        velmora.SetReportConsole(nullptr);
        velmora.SetAlertSystem(nullptr);
        velmora.pFTSEngine = nullptr;
        _G_TraceAll = false;
        velmora.Shutdown();
        _G_Directory = nullptr;
    }

    void ConnectMonitor() { ASSERT_TRUE(velmora.ConnectMonitor(true, MonitorPath().c_str())); }
    std::string MonitorPath() const { return tmp.file("monitor.txt"); }

    // The alerts that reached the monitor, without their stamps, in order.
    std::vector<std::string> MonitorAlerts() const {
        std::string text = velmora_test::ReadFile(MonitorPath());
        std::vector<std::string> alerts;
        const size_t nStamp = std::string("HH:MM:SS[mmm];").size();
        for (size_t at = 0; at < text.size();) {
            size_t end = text.find("\r\n", at);
            if (end == std::string::npos) end = text.size();
            alerts.push_back(end - at >= nStamp ? text.substr(at + nStamp, end - at - nStamp)
                                                : text.substr(at, end - at));
            at = end + 2;
        }
        return alerts;
    }

    // The whole default log, once everything handed to it is in the file.
    std::string LogText() { return velmora_log_test::LogTextOf(pLog); }
    // The end of a text record of the calling thread, from the prefix on.
    static std::string Record(const char* szPrefix, const std::string& msg) {
        return velmora_log_test::RecordEnd(szPrefix, msg);
    }

    velmora_test::TempDir tmp;
    AlertDirectory directory;
    RecordingAlertSystem alertSystem;
    CQuorelLog* pLog = nullptr;
};

}  // namespace velmora_alert_test
