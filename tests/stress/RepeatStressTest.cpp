// Repeats started and stopped from the shell, from two sources, while their passes run on the
// repeat threads: every repeat that started is stopped exactly once, no pass comes after its
// repeat's stop, and every pass sees the gates of its own run.
#include "tests/stress/StressSupport.h"

#include <atomic>
#include <map>
#include <string>
#include <vector>

namespace {

using velmora_stress::Scaled;
using velmora_stress::WaitUntil;

struct Call {
    bool bStop;
    std::string source;
    int nCommand;
    std::string arguments;
    bool bBackground;
    DWORD dwThread;
    bool bOwnGates;  // the shell's gates named this thread while it ran
};

// Notes every call in the order they came, from whichever thread.
class Module : public CMaintenanceInf {
public:
    int GetSubscribeOrder() override { return 1; }
    void ShellCommand(const char* szSource, int nCommand, bool bBackground, const char* szArguments) override {
        const DWORD dwThread = GetCurrentThreadId();
        const bool bOwnGates =
            std::atomic_ref<DWORD>(velmora.dwShellThreadId).load(std::memory_order_relaxed) == dwThread &&
            std::atomic_ref<bool>(velmora.bInShellCommand).load(std::memory_order_relaxed);
        Add({false, szSource, nCommand, szArguments, bBackground, dwThread, bOwnGates});
    }
    void StopCMDRepeat(const char* szSource, int nCommand) override {
        Add({true, szSource, nCommand, "", false, GetCurrentThreadId(), false});
    }
    std::vector<Call> Calls() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }

private:
    void Add(Call call) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_calls.push_back(std::move(call));
    }
    std::mutex m_mutex;
    std::vector<Call> m_calls;
};

struct Command {
    const char* szWord;
    const char* szShort;
    int nId;
};
constexpr Command kCommands[] = {{"snapshot", "sp", 1}, {"counter", "ct", 3}, {"depth", "dp", 5},
                                 {"clientstatus", "cs", 11}};

TEST(StressRepeats, EveryRepeatStopsOnceAndNoPassOutlivesItsStop) {
    velmora_stress::Watchdog watchdog("StressRepeats");
    Module module;
    velmora_stress::Subscription subscription(&module);
    const int nRounds = Scaled(40);
    const DWORD dwShell = GetCurrentThreadId();
    auto sourceOf = [](int round) { return round % 2 ? "HostA" : "localhost"; };
    auto running = [](const char* szSource, int nId) {
        return velmora.mapCommandRepeats.count(std::string(szSource) + "$$" + std::to_string(nId)) == 1;
    };
    std::map<std::string, int> started;  // by "<source>#<id>"

    for (int round = 0; round < nRounds; ++round) {
        const char* szSource = round % 2 ? "HostA" : nullptr;
        const std::string tag = "-n=" + std::to_string(round);
        for (int k = 0; k < 4; ++k) {
            const Command& c = kCommands[k];
            const std::string interval = "-i=" + std::to_string(1 + (round + k) % 3) + (k % 2 ? " -b" : "");
            if (k == 0) {  // the word "repeat" after the command
                velmora.ShellCommand(szSource, c.szWord, tag.c_str());
                velmora.ShellCommand(szSource, "repeat", interval.c_str());
            } else {  // a repeat tail
                velmora.ShellCommand(szSource, c.szWord, (tag + " repeat " + interval).c_str());
            }
            ASSERT_TRUE(running(sourceOf(round), c.nId)) << c.szWord << " of round " << round;
            ++started[std::string(sourceOf(round)) + "#" + std::to_string(c.nId)];
        }
        // Now and then, passes are let in before the stops.
        if (round % 4 == 0) {
            ASSERT_TRUE(WaitUntil([&] {
                for (const Call& call : module.Calls())
                    if (!call.bStop && call.dwThread != dwShell && call.arguments == tag) return true;
                return false;
            }));
        }
        // A stop from another source stops nothing.
        velmora.ShellCommand("Other", "repeat", "-stop=snapshot");
        ASSERT_TRUE(running(sourceOf(round), 1));
        if (round == nRounds - 1) break;  // the last ones are left to the shutdown
        for (int k = 0; k < 4; ++k) {
            const Command& c = kCommands[k];
            velmora.ShellCommand(szSource, "repeat", (std::string("-stop=") + (k % 2 ? c.szShort : c.szWord)).c_str());
            ASSERT_FALSE(running(sourceOf(round), c.nId));
        }
    }
    // Returns once every repeat thread has ended.
    velmora.PrepareSystemsShutdown();

    std::map<std::string, int> stopped;
    std::map<DWORD, std::string> stoppedThreads;  // the arguments each ended thread had
    std::map<DWORD, std::string> lastArguments;
    int nFirstRuns = 0, nPasses = 0;
    for (const Call& call : module.Calls()) {
        if (call.bStop) {
            ++stopped[call.source + "#" + std::to_string(call.nCommand)];
            stoppedThreads[call.dwThread] = lastArguments[call.dwThread];
            continue;
        }
        SCOPED_TRACE(call.source + " " + std::to_string(call.nCommand) + " " + call.arguments);
        EXPECT_TRUE(call.bOwnGates);
        int round = -1;
        ASSERT_EQ(std::sscanf(call.arguments.c_str(), "-n=%d", &round), 1);
        EXPECT_EQ(call.source, sourceOf(round));
        if (call.dwThread == dwShell) {
            ++nFirstRuns;
            EXPECT_FALSE(call.bBackground);
            continue;
        }
        ++nPasses;
        const bool bBackground = call.nCommand == kCommands[1].nId || call.nCommand == kCommands[3].nId;
        EXPECT_EQ(call.bBackground, bBackground);
        // A thread id can come back for a new thread, but not with the same arguments.
        auto ended = stoppedThreads.find(call.dwThread);
        EXPECT_FALSE(ended != stoppedThreads.end() && ended->second == call.arguments)
            << "a pass after its repeat's stop";
        lastArguments[call.dwThread] = call.arguments;
    }
    EXPECT_EQ(nFirstRuns, 4 * nRounds);
    EXPECT_GE(nPasses, nRounds / 4);
    EXPECT_EQ(stopped, started) << "a stop was lost or came twice";
}

}  // namespace
