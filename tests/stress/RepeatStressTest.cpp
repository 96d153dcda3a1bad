// Repeats started and stopped from the shell, from two sources, while their passes run on the
// repeat threads: every repeat that started is stopped exactly once, no pass comes after its
// repeat's stop, and every pass sees the gates of its own run.
#include "tests/stress/StressSupport.h"

#include <atomic>
#include <map>
#include <string>
#include <vector>

namespace {

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

// The repeatable words that a remote source may use: word, short word, id. The second and
// fourth repeat as background runs.
struct Command {
    const char* szWord;
    const char* szShort;
    int nId;
};
constexpr Command kCommands[] = {{"snapshot", "sp", 1}, {"counter", "ct", 3}, {"depth", "dp", 5}, {"clientstatus", "cs", 11}};

std::string Key(const std::string& source, int nId) { return source + "$$" + std::to_string(nId); }
bool Running(const std::string& source, int nId) { return velmora.mapCommandRepeats.count(Key(source, nId)) == 1; }

TEST(StressRepeats, EveryRepeatStopsOnceAndNoPassOutlivesItsStop) {
    velmora_stress::Watchdog watchdog("StressRepeats");
    Module module;
    velmora_stress::Subscription subscription(&module);
    const int nRounds = velmora_stress::Scaled(60);
    const DWORD dwShell = GetCurrentThreadId();
    auto sourceOf = [](int round) { return std::string(round % 2 ? "HostA" : "localhost"); };
    std::map<std::string, int> started;

    // Each round starts the four repeats with the round's number as their argument, lets
    // their passes run now and then, and stops them, all but the last round's.
    for (int round = 0; round < nRounds; ++round) {
        const char* szSource = round % 2 ? "HostA" : nullptr;
        const std::string tag = "-n=" + std::to_string(round);
        for (int k = 0; k < 4; ++k) {
            const Command& c = kCommands[k];
            const std::string options = "-i=" + std::to_string(1 + (round + k) % 3) + (k % 2 ? " -b" : "");
            if (k == 0) {  // the word "repeat" after the command
                velmora.ShellCommand(szSource, c.szWord, tag.c_str());
                velmora.ShellCommand(szSource, "repeat", options.c_str());
            } else {  // a repeat tail
                velmora.ShellCommand(szSource, c.szWord, (tag + " repeat " + options).c_str());
            }
            ASSERT_TRUE(Running(sourceOf(round), c.nId)) << c.szWord << " of round " << round;
            ++started[Key(sourceOf(round), c.nId)];
        }
        if (round % 4 == 0) {
            ASSERT_TRUE(velmora_stress::WaitUntil([&] {
                for (const Call& call : module.Calls())
                    if (!call.bStop && call.dwThread != dwShell && call.arguments == tag) return true;
                return false;
            }));
        }
        velmora.ShellCommand("Other", "repeat", "-stop=snapshot");  // another source's: stops nothing
        ASSERT_TRUE(Running(sourceOf(round), 1));
        if (round == nRounds - 1) break;  // the shutdown stops these
        for (int k = 0; k < 4; ++k) {
            const std::string stop = std::string("-stop=") + (k % 2 ? kCommands[k].szShort : kCommands[k].szWord);
            velmora.ShellCommand(szSource, "repeat", stop.c_str());
            ASSERT_FALSE(Running(sourceOf(round), kCommands[k].nId));
        }
    }
    velmora.PrepareSystemsShutdown();  // returns once every repeat thread has ended

    std::map<std::string, int> stopped;
    std::map<DWORD, std::string> lastArguments, stoppedWith;  // by thread
    int nFirstRuns = 0, nPasses = 0;
    for (const Call& call : module.Calls()) {
        if (call.bStop) {
            ++stopped[Key(call.source, call.nCommand)];
            stoppedWith[call.dwThread] = lastArguments[call.dwThread];
            continue;
        }
        SCOPED_TRACE(call.source + " " + std::to_string(call.nCommand) + " " + call.arguments);
        EXPECT_TRUE(call.bOwnGates);
        int round = -1;
        ASSERT_EQ(std::sscanf(call.arguments.c_str(), "-n=%d", &round), 1);
        EXPECT_EQ(call.source, sourceOf(round));
        const bool bPass = call.dwThread != dwShell;
        nFirstRuns += !bPass, nPasses += bPass;
        EXPECT_EQ(call.bBackground, bPass && (call.nCommand == 3 || call.nCommand == 11));
        // A thread id may come back for a new thread, but not with the same arguments.
        auto ended = stoppedWith.find(call.dwThread);
        EXPECT_FALSE(bPass && ended != stoppedWith.end() && ended->second == call.arguments) << "a pass after its stop";
        lastArguments[call.dwThread] = call.arguments;
    }
    EXPECT_EQ(nFirstRuns, 4 * nRounds);
    EXPECT_GE(nPasses, nRounds / 4);
    EXPECT_EQ(stopped, started) << "a stop was lost or came twice";
}

}  // namespace
