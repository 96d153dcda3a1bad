// The stress tests: one case per concurrent subsystem, each checking that everything adds up. VELMORA_STRESS_SCALE (a
// positive integer, 1 when unset) multiplies the work of every case, e.g. `VELMORA_STRESS_SCALE=50 build/bin/stress_tests`.
#include "tests/velmora/AlertTestSupport.h"
#include "tests/velmora/NameLockTestSupport.h"
#include "tests/velmora/ShellTestSupport.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <latch>
#include <random>
#include <set>

// GlobalAlloc and GlobalFree of the whole process, interposed and counted: a block lost or freed twice shows in the balance.
static std::atomic<long> g_nAllocs{0}, g_nFrees{0};
extern "C" HGLOBAL GlobalAlloc(UINT uFlags, SIZE_T dwBytes) {
    static auto pNext = reinterpret_cast<HGLOBAL (*)(UINT, SIZE_T)>(dlsym(RTLD_NEXT, "GlobalAlloc"));
    HGLOBAL hBlock = pNext(uFlags, dwBytes);
    return g_nAllocs += hBlock != nullptr, hBlock;
}
extern "C" HGLOBAL GlobalFree(HGLOBAL hMem) {
    static auto pNext = reinterpret_cast<HGLOBAL (*)(HGLOBAL)>(dlsym(RTLD_NEXT, "GlobalFree"));
    return g_nFrees += hMem != nullptr, pNext(hMem);
}

namespace {

int Scaled(int nCount) {
    static const int nScale = std::max(1, std::atoi(std::getenv("VELMORA_STRESS_SCALE") ? std::getenv("VELMORA_STRESS_SCALE") : "1"));
    return nCount * nScale;
}

// Turns a hang into a failure: SIGALRM ends the process when a case still runs after 120 seconds a unit of scale.
struct Watchdog {
    Watchdog() { alarm(unsigned(Scaled(120))); }
    ~Watchdog() { alarm(0); }
};

// Runs fn(0) to fn(nThreads - 1), each on a thread of its own, released together.
void RunThreads(int nThreads, const std::function<void(int)>& fn) {
    std::latch start(nThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < nThreads; ++t) threads.emplace_back([&, t] { start.arrive_and_wait(), fn(t); });
    for (std::thread& thread : threads) thread.join();
}

// Polls a condition for up to a minute: a bound for a broken case only.
bool WaitUntil(const std::function<bool()>& condition) {
    for (int i = 0; i < 12000 && !condition(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return condition();
}

// A module subscribed for its lifetime that notes every call with its thread: "<source> <command> <arguments>[ -b]"
// (" outside its gates" when the shell's gates didn't name the thread) or "<source> <command> stop".
class Module : public CMaintenanceInf {
public:
    Module() { velmora.SubscribeMaitenance(this); }
    ~Module() {
        if (!velmora.mapCommandRepeats.empty()) velmora.PrepareSystemsShutdown();  // no repeat calls it once it is gone
        velmora.UnsubscribeMaitenance(this);
    }
    int GetSubscribeOrder() override { return 1; }
    void ShellCommand(const char* szSource, int nCommand, bool bBackground, const char* szArguments) override {
        Add(std::string(szSource) + " " + std::to_string(nCommand) + " " + szArguments + (bBackground ? " -b" : "") +
            (std::atomic_ref<DWORD>(velmora.dwShellThreadId).load() == GetCurrentThreadId() && std::atomic_ref<bool>(velmora.bInShellCommand).load() ? "" : " outside its gates"));
        std::this_thread::yield();  // holds the gates a little longer
    }
    void StopCMDRepeat(const char* szSource, int nCommand) override { Add(std::string(szSource) + " " + std::to_string(nCommand) + " stop"); }
    void Add(const std::string& call) {
        std::lock_guard<std::mutex> lock(mutex);
        calls.emplace_back(GetCurrentThreadId(), call);
    }
    std::mutex mutex;
    std::vector<std::pair<DWORD, std::string>> calls;
};

// Init before the first case and Shutdown after the last (Init succeeds once a process, Shutdown is final), with names
// and log files (direct ones in <folder>/log/PFX.SFX/) in a folder of the process's own.
class ServiceEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        static velmora_test::TempDir tmp;  // removed at exit
        folder = tmp.path();
        ASSERT_EQ(setenv("VELMORA_OBJECT_FOLDER", folder.c_str(), 1) + setenv("PELTRIX_LOG_FOLDER", folder.c_str(), 1) + mkdir((folder + "/log").c_str(), 0755), 0);
        directory.localLogsFolder = folder;
        _G_Directory = &directory;
        ASSERT_TRUE(velmora.Init(velmora_test::UniqueName("Stress").c_str(), 1));
    }
    void TearDown() override { velmora.Shutdown(), _G_Directory = nullptr; }
    std::string folder;
    velmora_log_test::TestDirectory directory;
};
ServiceEnvironment* const g_pService = static_cast<ServiceEnvironment*>(::testing::AddGlobalTestEnvironment(new ServiceEnvironment));

std::string LogText() {  // the whole default log, once everything handed to it is in the file
    char szPath[MAX_PATH] = "";
    globalDefaultLog->FlushLog();
    globalDefaultLog->GetFullLogPath(szPath, sizeof(szPath));
    return velmora_test::ReadFile(szPath);
}

// Report i of thread t, "~R<t>.<i>~", through twin (t + i) % 9 (4 report, 4 shell output, 1 raw) while a thread runs
// commands (grep "~", which every report holds; status prints to INI): every block is passed on or freed once, every
// report logged once and shown at most once with its type and colour (the gate may hold back twins 0 and 2).
TEST(StressReports, EveryBlockIsPassedOnOrFreedOnceAndEveryReportIsLoggedOnce) {
    Watchdog watchdog;
    constexpr int kThreads = 8;
    const int nReports = Scaled(4000);
    velmora_report_test::RecordingConsole console;
    Module module;
    velmora.SetReportConsole(&console), velmora.SetReportLevel(Report_Types::REPORT_DEBUG);  // above every type reported
    const long nAllocsBefore = g_nAllocs, nBalanceBefore = g_nAllocs - g_nFrees;
    std::atomic<int> nReportersLeft{kThreads};
    RunThreads(kThreads + 1, [&](int t) {
        const char* const commands[][2] = {{"snapshot", "-x grep ~"}, {"runtime", "INI"}, {"counter", "-y grep ~"}, {"runtime", ""}};
        for (int n = 0; t == kThreads && (n < 4 || nReportersLeft > 0); ++n) velmora.ShellCommand(nullptr, commands[n % 4][0], commands[n % 4][1]);
        for (int i = 0; t < kThreads && i < nReports; ++i) {
            const std::string text = "~R" + std::to_string(t) + "." + std::to_string(i) + "~";
            const int nTwin = (t + i) % 9;
            if (nTwin < 4) velmora_report_test::Report(velmora_report_test::kAllTwins[nTwin], Report_Types::DEF(7 + i % 4), text, 0x100u + t);
            else if (nTwin < 8) velmora_shell_test::Say(velmora_shell_test::kAllFSTwins[nTwin - 4], nullptr, text, false, 0x100u + t);
            else velmora.LogRawMsgReport(Report_Types::DEF(7 + i % 4), velmora_report_test::RawBlock(text.c_str()));
        }
        nReportersLeft -= t < kThreads;
    });
    velmora.SetReportConsole(nullptr);
    EXPECT_GT(g_nAllocs - nAllocsBefore, long(kThreads) * nReports / 2);
    EXPECT_EQ(g_nAllocs - g_nFrees, nBalanceBefore) << "blocks were lost or freed twice";
    std::map<std::string, int> inLog, shown;  // by "~R<t>.<i>~", and on the console by "~R<t>.<i>~ <type>[ <colour>]"
    auto count = [](std::map<std::string, int>& counts, const std::string& text, const std::string& suffix) {
        for (size_t at = text.find("~R"), end; at != std::string::npos && (end = text.find('~', at + 1)) != std::string::npos; at = text.find("~R", end))
            ++counts[text.substr(at, end + 1 - at) + suffix];
    };
    count(inLog, LogText(), "");
    for (const velmora_report_test::ConsoleCall& call : console.Calls())
        count(shown, call.text, " " + std::to_string(call.nType) + (call.bInColor ? " " + std::to_string(call.dwColour) : ""));
    for (int t = 0; t < kThreads; ++t)
        for (int i = 0; i < nReports; ++i) {
            const std::string token = "~R" + std::to_string(t) + "." + std::to_string(i) + "~";
            const int nTwin = (t + i) % 9, nExpected = nTwin == 8 ? 0 : 1;
            const int nShown = shown[token + " " + std::to_string(nTwin / 4 == 1 ? 6 : 7 + i % 4) + (nTwin % 2 && nTwin < 8 ? " " + std::to_string(0x100 + t) : "")];
            EXPECT_EQ(inLog[token], nExpected) << token;
            EXPECT_TRUE(nShown == nExpected || (nShown == 0 && nTwin % 2 == 0 && nTwin < 4)) << token << " of twin " << nTwin << " shown " << nShown;
        }
}

// Alerts of both forms from eight threads while the alert timer thread flushes: each text reaches its receiver when new
// and once an interval after, with the total of the alerts before the first of the interval, and in the end of all.
TEST(StressAlerts, TotalsOfBothFormsAddUpToEveryAlertRaised) {
    namespace QAS = QUOREL_ALERT_SYSTEM;
    Watchdog watchdog;
    velmora_test::TempDir tmp;
    velmora_alert_test::RecordingAlertSystem alertSystem;
    struct Unplug { ~Unplug() { velmora.SetAlertSystem(nullptr), velmora.DisconnectMonitor(true); } } unplug;
    velmora_alert_test::MoveTickCountTo(0x40000000), velmora.SetAlertSystem(&alertSystem);
    ASSERT_TRUE(velmora.ConnectMonitor(true, tmp.file("monitor.txt").c_str()));
    auto received = [&] {  // per text, what both receivers got: -1 for a first delivery, then the totals
        std::map<std::string, std::vector<int>> totals;
        std::vector<std::string> texts = alertSystem.Texts();
        const std::string monitor = velmora_test::ReadFile(tmp.file("monitor.txt"));
        for (size_t at = 0, end; (end = monitor.find("\r\n", at)) != std::string::npos; at = end + 2)
            texts.push_back(monitor.substr(at + 14, end - at - 14));  // behind "HH:MM:SS[mmm];"
        for (const std::string& text : texts)
            totals[text.substr(0, text.rfind("[Total:"))].push_back(text.rfind("[Total:") == std::string::npos ? -1 : std::atoi(text.c_str() + text.rfind("[Total:") + 7));
        return totals;
    };
    const int nRounds = Scaled(600);
    for (size_t nDeliveries : {1, 2, 3}) {  // many rounds in each of two intervals (flushes meet them), then one more
        RunThreads(8, [&](int t) {  // three shared alerts and one of its own, of both forms
            for (int i = 0; i < (nDeliveries < 3 ? nRounds : 1); ++i) {
                for (int s = 0; s < 3; ++s)
                    velmora.AlertMsg(t, QAS::ROUTE_DISABLED, "Gateway", ("G" + std::to_string(s)).c_str(), "route off"),
                        velmora.AlertMsg("feed down", ("Host" + std::to_string(s)).c_str());
                velmora.AlertMsg(1, QAS::DATABASE_DOWN, ("Thread" + std::to_string(t)).c_str(), "", "db down"), velmora.AlertMsg(("stall " + std::to_string(t)).c_str(), nullptr);
            }
        });
        ASSERT_TRUE(WaitUntil([&] {
            auto totals = received();
            return totals.size() == 2 * (3 + 8) && std::all_of(totals.begin(), totals.end(), [&](auto& entry) { return entry.second.size() >= nDeliveries; });
        }));
        velmora_platform::AdvanceTickCount(61000);
    }
    for (const auto& [text, got] : received()) {  // m of a round, m = 1 for a thread's own ("Thread<t>", "stall <t>")
        const int m = text.find("Thread") != std::string::npos || text.starts_with("stall ") ? 1 : 8;
        EXPECT_TRUE(got.size() == 3 && got[0] == -1 && got[1] > m * nRounds && got[1] <= 2 * m * nRounds && got[2] == m * (2 * nRounds + 1))
            << text << ": " << ::testing::PrintToString(got);
    }
}

// Name locks of every kind from eight threads, in every mode, with more names than records: no two writers at once, no
// writer beside a reader, every lock counted, and a clean table at the end.
TEST(StressNameLocks, WritersExcludeEveryoneInEveryModeAndTheTableEndsClean) {
    Watchdog watchdog;
    constexpr int kNames = 5, kPool = 3;  // new names wait for a record now and then
    for (auto [bUseMutex, bReadWrite] : {std::pair(true, false), std::pair(false, false), std::pair(true, true), std::pair(false, true)}) {
        SCOPED_TRACE(std::string(bUseMutex ? "mutexes" : "semaphores") + (bReadWrite ? ", readers and writers" : ""));
        CNameLock manager(kPool, bUseMutex, bReadWrite);
        _G_pNameLock = &manager;
        std::atomic<int> nWriters[kNames] = {}, nReaders[kNames] = {}, nWrong{0};
        std::atomic<long> nWriteLocks{0};
        long nWrites[kNames] = {};  // plain: two writers at once would lose counts
        RunThreads(8, [&](int t) {
            std::minstd_rand random(unsigned(t + 1));
            for (int i = 0; i < Scaled(8000); ++i) {
                const int n = int(random() % kNames), op = int(random() % 4);
                const std::string name = "name" + std::to_string(n);
                if (op == 3) {  // a reader
                    nWrong += manager.ReadLockName(name.c_str()) != bReadWrite;
                    if (bReadWrite) ++nReaders[n], nWrong += nWriters[n] != 0, std::this_thread::yield(), --nReaders[n], manager.ReadUnlockName(name.c_str());
                    continue;
                }
                std::optional<CSmartNameLock> scope;  // op 2: the scope guard
                if (op == 1 && !manager.TryLockName(name.c_str(), int(random() % 2))) continue;  // timed out: holds nothing
                if (op == 0) nWrong += !manager.LockName(name.c_str());
                if (op == 2) scope.emplace(name.c_str());
                ++nWriteLocks, nWrong += nWriters[n]++ != 0 || nReaders[n] != 0;
                ++nWrites[n], std::this_thread::yield(), --nWriters[n];
                if (op != 2) manager.UnlockName(name.c_str());
            }
        });
        _G_pNameLock = nullptr;
        EXPECT_EQ(nWrong.load(), 0) << "an overlap or a wrong result";
        EXPECT_EQ(nWrites[0] + nWrites[1] + nWrites[2] + nWrites[3] + nWrites[4], nWriteLocks.load());
        EXPECT_TRUE(manager.mapNames.empty());
        EXPECT_TRUE(velmora_namelock_test::TableIsConsistent(manager, kPool));
    }
}

// Repeats started and stopped from the shell by two sources while their passes run: every repeat that started is
// stopped exactly once, no pass comes after its repeat's stop, and every call runs within its own thread's gates.
TEST(StressRepeats, EveryRepeatStopsOnceAndNoPassOutlivesItsStop) {
    Watchdog watchdog;
    Module module;
    const char* const words[][2] = {{"snapshot", "sp"}, {"counter", "ct"}, {"depth", "dp"}, {"clientstatus", "cs"}};
    const int ids[] = {1, 3, 5, 11};
    auto sourceOf = [](int round) { return std::string(round % 2 ? "HostA" : "localhost"); };
    const int nRounds = Scaled(60);
    const DWORD dwShell = GetCurrentThreadId();
    std::map<std::string, int> started, stopped;
    for (int round = 0; round < nRounds; ++round) {  // starts four repeats, lets them pass now and then, stops them
        const char* szSource = round % 2 ? "HostA" : nullptr;
        const std::string tag = "-n=" + std::to_string(round);
        for (int k = 0; k < 4; ++k) {  // "repeat" after the command, or a repeat tail; the second and fourth in the background
            const std::string options = "-i=" + std::to_string(1 + (round + k) % 3) + (k % 2 ? " -b" : "");
            if (k == 0) velmora.ShellCommand(szSource, words[k][0], tag.c_str()), velmora.ShellCommand(szSource, "repeat", options.c_str());
            else velmora.ShellCommand(szSource, words[k][0], (tag + " repeat " + options).c_str());
            ++started[sourceOf(round) + " " + std::to_string(ids[k]) + " stop"];
        }
        ASSERT_TRUE(round % 4 != 0 || WaitUntil([&] {  // a pass of this round
            std::lock_guard<std::mutex> lock(module.mutex);
            return std::any_of(module.calls.begin(), module.calls.end(), [&](auto& call) { return call.first != dwShell && call.second.find(" " + tag) != std::string::npos; });
        }));
        velmora.ShellCommand("Other", "repeat", "-stop=snapshot");  // another source's: stops nothing
        ASSERT_EQ(velmora.mapCommandRepeats.size(), 4u) << "round " << round;
        for (int k = 0; k < 4 && round < nRounds - 1; ++k)  // the shutdown stops the last round's
            velmora.ShellCommand(szSource, "repeat", (std::string("-stop=") + words[k][k % 2]).c_str());
        ASSERT_EQ(velmora.mapCommandRepeats.size(), round < nRounds - 1 ? 0u : 4u) << "round " << round;
    }
    velmora.PrepareSystemsShutdown();  // returns once every repeat thread has ended
    std::map<DWORD, std::string> lastTag, stoppedWith;  // by thread: an id may come back for a new thread, not its tag
    for (const auto& [dwThread, call] : module.calls) {  // no thread adds any more
        int nCommand = 0, round = -1;
        if (call.ends_with(" stop")) {
            ++stopped[call], stoppedWith[dwThread] = lastTag[dwThread];
            continue;
        }
        ASSERT_EQ(std::sscanf(call.c_str(), "%*s %d -n=%d", &nCommand, &round), 2) << call;
        const std::string tag = "-n=" + std::to_string(round);
        const bool bPass = dwThread != dwShell;
        EXPECT_EQ(call, sourceOf(round) + " " + std::to_string(nCommand) + " " + tag + (bPass && (nCommand == 3 || nCommand == 11) ? " -b" : ""));
        EXPECT_FALSE(bPass && stoppedWith.count(dwThread) && stoppedWith[dwThread] == tag) << call << ": a pass after its stop";
        lastTag[dwThread] = tag;
    }
    EXPECT_EQ(stopped, started) << "a stop was lost or came twice";
}

// Object usage counters and tags from eight threads: the counts add up while walks run that see them in key order and
// only growing, every tag number is given once, and a finished tag frees its entry.
struct UsageAccess : CVelmora {
    using CVelmora::GetNextObjectUsages;
};
std::map<std::string, int> Walk() {  // "<id>-<allocate>[-<name>]" to count
    std::map<std::string, int> counts;
    for (_tagObjTracker *p = (velmora.*&UsageAccess::GetNextObjectUsages)(nullptr), *pNext; p != nullptr; delete p, p = pNext) {
        const std::string key = std::to_string(p->nObjectID) + (p->bAllocate ? "-1" : "-0") + (p->szName[0] ? std::string("-") + p->szName : "");
        EXPECT_TRUE(counts.empty() || counts.rbegin()->first < key) << key << " out of order";
        counts[key] = p->nCount, pNext = (velmora.*&UsageAccess::GetNextObjectUsages)(p);
    }
    return counts;
}

TEST(StressDiagnostics, UsageCountsAndTagsAddUpWhileWalksRun) {
    Watchdog watchdog;
    constexpr int kThreads = 8;
    const int nRounds = Scaled(1500);
    const char* const kinds[] = {"Quote", "Fill", "Route"};
    velmora.EnableTaggingSystems(16);  // two tags open a thread: a new tag may find its entry held
    const int nTagsBefore = std::atomic_ref<int>(velmora.nTagCounter).load();
    std::vector<std::vector<int>> opened(kThreads);
    std::atomic<int> nThreadsLeft{kThreads}, nRefused{0}, nShrunk{0};
    RunThreads(kThreads + 1, [&](int t) {
        for (std::map<std::string, int> before, now; t == kThreads && nThreadsLeft > 0; before = std::move(now)) {  // the walker
            now = Walk();
            for (const auto& [key, n] : before) nShrunk += now[key] < n;
        }
        for (int i = 0; i < nRounds && t < kThreads; ++i) {
            for (int k = 0; k < 5; ++k)  // the nameless ones appear while others count
                velmora.AllocateObject("Order", 1), velmora.ReleaseObject("Order", 1), velmora.AllocateObject(kinds[k % 3], 10 + k),
                    velmora.ReleaseObject(nullptr, 1000 * (t + 1) + i % 50);
            int tags[2];
            for (int& nTag : tags) (nTag = velmora.BeginTagging(nullptr)) == -1 ? void(++nRefused) : opened[t].push_back(nTag);
            for (bool bFinish : {false, true})  // then the tags are gone
                for (int nTag : tags)
                    if (nTag != -1) velmora.TaggingEvent(nTag, bFinish ? "fin" : "ev", bFinish);
        }
        nThreadsLeft -= t < kThreads;
    });
    std::map<std::string, int> expected = {{"1-1-Order", 5 * kThreads * nRounds}, {"1-0-Order", 5 * kThreads * nRounds}};
    for (int k = 0; k < 5; ++k) expected[std::to_string(10 + k) + "-1-" + kinds[k % 3]] = kThreads * nRounds;
    for (int n = 0; n < kThreads * 50; ++n) expected[std::to_string(1000 * (n / 50 + 1) + n % 50) + "-0"] = 5 * nRounds / 50;
    EXPECT_EQ(Walk(), expected);
    for (auto& entry : velmora.mapObjectUsages) delete entry.second;  // they live as long as the process: given back
    velmora.mapObjectUsages.clear();
    EXPECT_EQ(nShrunk.load(), 0) << "a walk saw a counter go down";
    std::set<int> numbers;  // none given out twice
    size_t nOpened = 0;
    for (const std::vector<int>& some : opened) numbers.insert(some.begin(), some.end()), nOpened += some.size();
    EXPECT_LT(nRefused.load(), kThreads * nRounds) << "most tags refused: finished ones hold their entries";
    EXPECT_EQ(std::tuple(numbers.size(), int(nOpened) + nRefused, std::atomic_ref<int>(velmora.nTagCounter).load() - nTagsBefore),
              std::tuple(nOpened, kThreads * nRounds * 2, kThreads * nRounds * 2));
}

// Logs made and ended on many threads: private logs from GetLogClient (made under the log client lock) and profile logs
// (without it). Each rebuilds the process's log folder; every log must still open in that one folder, with its records.
TEST(StressLogs, LogsMadeOnManyThreadsOpenInTheOneFolderAndKeepTheirRecords) {
    Watchdog watchdog;
    constexpr int kPrivateThreads = 4, kProfileThreads = 2;  // two profile slots
    const int nRounds = Scaled(40);
    const std::string folder = g_pService->folder + "/log/PFX.SFX/" + velmora.GetAppName() + "_";
    std::atomic<int> nRefusedProfiles{0};
    auto name = [](int t, int i) { return (t < kPrivateThreads ? "T" : "ProfileT") + std::to_string(t) + "_" + std::to_string(i); };
    RunThreads(kPrivateThreads + kProfileThreads, [&](int t) {
        const DWORD dwThread = GetCurrentThreadId();
        for (int i = 0; i < nRounds && t >= kPrivateThreads; ++i)
            velmora.ProfilePerformance(name(t, i).c_str(), dwThread) == -1 ? void(++nRefusedProfiles) : velmora.StopProfiling(int(dwThread));
        for (int i = 0; i < nRounds && t < kPrivateThreads; ++i) {
            CQuorelLog* pLog = velmora.GetLogClient(name(t, i).c_str(), true, true, false);
            ASSERT_NE(pLog, nullptr) << name(t, i);
            pLog->Log("REC", name(t, i).c_str()), pLog->Close();
        }
    });
    EXPECT_EQ(nRefusedProfiles.load(), 0);
    for (int t = 0; t < kPrivateThreads + kProfileThreads; ++t)
        for (int i = 0; i < nRounds; ++i)  // a profile log's file is there; a private log holds its record
            EXPECT_TRUE(t >= kPrivateThreads ? velmora_test::FileExists(folder + name(t, i) + ".log")
                                             : std::regex_search(velmora_test::ReadFile(folder + name(t, i) + ".log"), std::regex(";REC;[0-9]+;" + name(t, i) + ";\r\n")))
                << name(t, i);
}

}  // namespace
