// Helpers of the stress tests: the scale of a run, a watchdog that ends a hung case, a group
// of threads that start together, and the service started once for the process.
//
// Every case is bounded by counts, which VELMORA_STRESS_SCALE multiplies (a positive
// integer, 1 when unset), e.g. `VELMORA_STRESS_SCALE=50 build/bin/stress_tests` for a long
// run. The watchdog is only a safety net: it turns a hang into a failure with a message.
#pragma once

#include "tests/velmora/LogTestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>

namespace velmora_stress {

inline int Scale() {
    static const int nScale = [] {
        const char* szScale = std::getenv("VELMORA_STRESS_SCALE");
        int n = szScale ? std::atoi(szScale) : 1;
        return n > 0 ? n : 1;
    }();
    return nScale;
}

inline int Scaled(int nCount) { return nCount * Scale(); }

// Aborts the process when a case hasn't ended within its bound: 120 seconds a unit of scale,
// far beyond what any case takes under a sanitizer on a loaded machine.
class Watchdog {
public:
    explicit Watchdog(const char* szCase)
        : m_thread([this, szCase] {
              if (m_done.get_future().wait_for(std::chrono::seconds(120) * Scale()) == std::future_status::ready)
                  return;
              std::fprintf(stderr, "stress case %s still runs after its bound: hung\n", szCase);
              std::abort();
          }) {}
    ~Watchdog() {
        m_done.set_value();
        m_thread.join();
    }

private:
    std::promise<void> m_done;
    std::thread m_thread;  // last: it uses m_done
};

// Runs fn(0) to fn(nThreads - 1), each on a thread of its own, released together, and
// returns when all have ended.
inline void RunThreads(int nThreads, const std::function<void(int)>& fn) {
    std::latch start(nThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < nThreads; ++t)
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            fn(t);
        });
    for (std::thread& thread : threads) thread.join();
}

// Polls a condition until it holds or a minute has passed: a bound for a broken case only.
template <class Pred>
bool WaitUntil(Pred pred) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= end) return pred();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// A module subscribed for a scope. Leaving it, the shell stops the repeats that were started
// and waits for their threads, so that nothing calls the module once it is gone.
class Subscription {
public:
    explicit Subscription(CMaintenanceInf* pModule) : m_pModule(pModule) { velmora.SubscribeMaitenance(pModule); }
    ~Subscription() {
        if (!velmora.mapCommandRepeats.empty()) velmora.PrepareSystemsShutdown();
        velmora.UnsubscribeMaitenance(m_pModule);
    }
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

private:
    CMaintenanceInf* m_pModule;
};

// The service as a host runs it: Init (default log, alert timer thread) before the first
// test of the process and Shutdown after the last, since Init succeeds once a process and
// Shutdown is final. Machine-wide names and log files live in a folder of the process's own.
class ServiceEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        m_tmp = std::make_unique<velmora_test::TempDir>();
        ASSERT_EQ(setenv("VELMORA_OBJECT_FOLDER", m_tmp->path().c_str(), 1), 0);
        ASSERT_EQ(setenv("PELTRIX_LOG_FOLDER", m_tmp->path().c_str(), 1), 0);
        // Direct log files go below the process's folder too: <tmp>/log/PFX.SFX/.
        ASSERT_EQ(mkdir((m_tmp->path() + "/log").c_str(), 0755), 0);
        m_directory.localLogsFolder = m_tmp->path();
        _G_Directory = &m_directory;
        ASSERT_TRUE(velmora.Init(velmora_test::UniqueName("Stress").c_str(), 1));
    }
    void TearDown() override {
        velmora.Shutdown();
        _G_Directory = nullptr;
        m_tmp.reset();
    }

    // The folder of the direct log files, with its closing slash.
    std::string DirectLogFolder() const { return m_tmp->path() + "/log/PFX.SFX/"; }

private:
    std::unique_ptr<velmora_test::TempDir> m_tmp;
    velmora_log_test::TestDirectory m_directory;
};
inline ServiceEnvironment* const g_pServiceEnvironment = static_cast<ServiceEnvironment*>(
    ::testing::AddGlobalTestEnvironment(new ServiceEnvironment));

// The whole default log, once everything handed to it is in the file.
inline std::string LogText() {
    char szPath[MAX_PATH] = "";
    globalDefaultLog->FlushLog();
    globalDefaultLog->GetFullLogPath(szPath, sizeof(szPath));
    return velmora_test::ReadFile(szPath);
}

}  // namespace velmora_stress
