// Helpers of the shell tests: a module that records what the shell delivers to it, with the
// gates it saw meanwhile, and a fixture with a default log and a console.
#pragma once

#include "ReportTestSupport.h"

#include <atomic>
#include <chrono>
#include <thread>

namespace velmora_shell_test {

// A delivery, with its thread and the gates (shell thread, bInShellCommand, grep text) as the module saw them.
struct Delivery {
    std::string source; int nCommand; bool bBackground; std::string arguments;
    DWORD dwThread, dwShellThreadId; bool bInShellCommand; std::string grepText;
};

class RecordingModule : public CMaintenanceInf {
public:
    int GetSubscribeOrder() override { return 1; }
    void ShellCommand(const char* szSource, int nCommand, bool bBackground, const char* szArguments) override {
        Delivery d{szSource, nCommand, bBackground, szArguments, GetCurrentThreadId(), velmora.dwShellThreadId,
                   velmora.bInShellCommand, velmora.szGrepText};
        if (++m_nInside > 1) bOverlapped = true;
        if (onCommand) onCommand(d);
        std::this_thread::sleep_for(std::chrono::milliseconds(nPauseMS.load()));
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
    std::vector<Delivery> Deliveries() { std::lock_guard<std::mutex> lock(m_mutex); return m_deliveries; }
    std::vector<std::string> Stops() { std::lock_guard<std::mutex> lock(m_mutex); return m_stops; }
    std::vector<std::string> StatusPrints() { std::lock_guard<std::mutex> lock(m_mutex); return m_statusPrints; }

    std::function<void(const Delivery&)> onCommand;  // runs inside the delivery (set it before any thread delivers)
    std::atomic<int> nPauseMS{0};                    // and then this long
    std::atomic<bool> bOverlapped{false};            // two deliveries ran at once

private:
    std::mutex m_mutex;
    std::vector<Delivery> m_deliveries;
    std::vector<std::string> m_stops, m_statusPrints;
    std::atomic<int> m_nInside{0};
};

// Polls a condition for up to 10 seconds.
inline bool WaitFor(const std::function<bool()>& condition) {
    for (int i = 0; i < 1000 && !condition(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
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
        velmora.PrepareSystemsShutdown();  // no repeat thread outlives the module
        for (int i = 0; i < 64; ++i) velmora.pSubscribers[i] = nullptr;
        velmora.nSubscribers = 0;
        ReportFixture::TearDown();
    }
    void Subscribe() { velmora.SubscribeMaitenance(&module); }
    std::vector<std::string> Echoes() {  // the console texts of the echo type, without the stamp
        std::vector<std::string> out;
        for (const auto& call : console.Calls())
            if (call.nType == Report_Types::REPORT_FS_COMMAND) out.push_back(call.text.substr(21));
        return out;
    }

    RecordingModule module;
};

}  // namespace velmora_shell_test
