// Helpers of the shell tests: a module that records what the shell delivers to it, with
// the gates it saw while it ran, and a fixture with a default log and a console.
#pragma once

#include "ReportTestSupport.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace velmora_shell_test {

struct Delivery {
    std::string source;
    int nCommand;
    bool bBackground;
    std::string arguments;
    DWORD dwThread;         // the thread the call came in on
    DWORD dwShellThreadId;  // the gates as the module saw them during the call
    bool bInShellCommand;
    std::string grepText;
};

class RecordingModule : public CMaintenanceInf {
public:
    explicit RecordingModule(int nOrder = 1) : m_nOrder(nOrder) {}
    int GetSubscribeOrder() override { return m_nOrder; }

    void ShellCommand(const char* szSource, int nCommand, bool bBackground,
                      const char* szArguments) override {
        Delivery d{szSource, nCommand, bBackground, szArguments, GetCurrentThreadId(),
                   velmora.dwShellThreadId, velmora.bInShellCommand, velmora.szGrepText};
        int nInside = ++m_nInside;
        if (nInside > m_nMaxInside) m_nMaxInside = nInside;
        if (onCommand) onCommand(d);
        if (nPauseMS) std::this_thread::sleep_for(std::chrono::milliseconds(nPauseMS));
        --m_nInside;
        std::lock_guard<std::mutex> lock(m_mutex);
        m_deliveries.push_back(d);
    }
    void StopCMDRepeat(const char* szSource, int nCommand) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stops.push_back(std::string(szSource) + "#" + std::to_string(nCommand));
    }
    void PrintRuntimeStatus(const char* szWhat) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_statusPrints.push_back(szWhat ? szWhat : "(null)");
    }
    void UpdateConfiguration(int nKind, const char* szTail) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_reloads.push_back(std::to_string(nKind) + ":" + szTail);
    }

    std::vector<Delivery> Deliveries() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_deliveries;
    }
    std::vector<std::string> Stops() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_stops;
    }
    std::vector<std::string> StatusPrints() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_statusPrints;
    }
    std::vector<std::string> Reloads() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_reloads;
    }
    int MaxInside() const { return m_nMaxInside; }

    std::function<void(const Delivery&)> onCommand;  // runs inside the delivery
    int nPauseMS = 0;

private:
    int m_nOrder;
    std::mutex m_mutex;
    std::vector<Delivery> m_deliveries;
    std::vector<std::string> m_stops, m_statusPrints, m_reloads;
    std::atomic<int> m_nInside{0};
    std::atomic<int> m_nMaxInside{0};
};

// Polls a condition for up to 10 seconds: long enough for any machine, short enough that a
// broken test ends.
inline bool WaitFor(const std::function<bool()>& condition) {
    for (int i = 0; i < 1000; ++i) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return condition();
}

class ShellFixture : public velmora_report_test::ReportFixture {
protected:
    void SetUp() override {
        ReportFixture::SetUp();
        MakeDefaultLog();
        velmora.SetReportConsole(&console);
    }
    void TearDown() override {
        // No repeat thread may outlive the test's module.
        velmora.PrepareSystemsShutdown();
        for (int i = 0; i < 64; ++i) velmora.pSubscribers[i] = nullptr;
        velmora.nSubscribers = 0;
        ReportFixture::TearDown();
    }
    void Subscribe() { velmora.SubscribeMaitenance(&module); }

    // Console texts without the stamp, of the echo type.
    std::vector<std::string> Echoes() {
        std::vector<std::string> out;
        for (const auto& call : console.Calls())
            if (call.nType == Report_Types::REPORT_FS_COMMAND) out.push_back(call.text.substr(21));
        return out;
    }

    RecordingModule module;
};

}  // namespace velmora_shell_test
