// Reports from many threads through every twin, while other threads change the report level,
// run shell commands (shell thread, grep text) and switch status prints to INI on and off:
// every console block reaches the console or is freed, exactly once, and every report
// reaches the log.
#include "tests/stress/StressSupport.h"
#include "tests/velmora/DispatchTestSupport.h"
#include "tests/velmora/ShellTestSupport.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <mutex>
#include <unordered_set>

// ---- The block ledger ----------------------------------------------------------------------
// GlobalAlloc and GlobalFree of the whole process, interposed (the test program's symbols come
// first in the dynamic lookup). Every live block is known, so that a block freed twice, or a
// free of something never allocated, shows at once instead of corrupting the heap.

namespace {
struct Ledger {
    std::mutex mutex;
    std::unordered_set<void*> live;
    long nAllocs = 0, nUnknownFrees = 0;
};
Ledger& TheLedger() {
    static Ledger* ledger = new Ledger;  // in use until the process ends
    return *ledger;
}
template <typename Function>
Function Next(const char* szSymbol) {
    void* pFunction = dlsym(RTLD_NEXT, szSymbol);
    if (pFunction == nullptr) std::abort();  // the counts would mean nothing
    return reinterpret_cast<Function>(pFunction);
}
}  // namespace

extern "C" HGLOBAL GlobalAlloc(UINT uFlags, SIZE_T dwBytes) {
    static auto pNext = Next<HGLOBAL (*)(UINT, SIZE_T)>("GlobalAlloc");
    HGLOBAL hBlock = pNext(uFlags, dwBytes);
    std::lock_guard<std::mutex> lock(TheLedger().mutex);
    if (hBlock != nullptr && TheLedger().live.insert(hBlock).second) ++TheLedger().nAllocs;
    return hBlock;
}

extern "C" HGLOBAL GlobalFree(HGLOBAL hMem) {
    static auto pNext = Next<HGLOBAL (*)(HGLOBAL)>("GlobalFree");
    if (hMem != nullptr) {
        // Out of the ledger before the memory goes: a block allocated at the same address
        // right after is a new entry.
        std::lock_guard<std::mutex> lock(TheLedger().mutex);
        if (TheLedger().live.erase(hMem) == 0) {
            ++TheLedger().nUnknownFrees;
            return nullptr;
        }
    }
    return pNext(hMem);
}

namespace {

using velmora_stress::Scaled;

// Report i of thread t has the text "~R<t>.<i>~" and goes through twin (t + i) % 9: the four
// report twins, the four shell output twins, then a raw message.
constexpr int kTwins = 9;
int TwinOf(int t, int i) { return (t + i) % kTwins; }
bool InColour(int nTwin) { return nTwin % 2 == 1 && nTwin < 8; }
bool MayBeHeldBack(int nTwin) { return nTwin == 0 || nTwin == 2; }  // the shell thread gate
// Types 7 to 10, at or below every level that the level writer sets; shell output is 6.
Report_Types::DEF TypeOf(int t, int i) {
    return TwinOf(t, i) >= 4 && TwinOf(t, i) < 8 ? Report_Types::REPORT_FS_OUTPUT : Report_Types::DEF(7 + i % 4);
}
DWORD ColourOf(int t) { return 0x100u + unsigned(t); }

void Report(int t, int i) {
    const std::string text = "~R" + std::to_string(t) + "." + std::to_string(i) + "~";
    const int nTwin = TwinOf(t, i);
    if (nTwin < 4)
        velmora_report_test::Report(velmora_report_test::kAllTwins[nTwin], TypeOf(t, i), text, ColourOf(t));
    else if (nTwin < 8)
        velmora_shell_test::Say(velmora_shell_test::kAllFSTwins[nTwin - 4], nullptr, text, false, ColourOf(t));
    else
        velmora.LogRawMsgReport(TypeOf(t, i), velmora_report_test::RawBlock(text.c_str()));
}

// Counts the reports in a text by thread and number.
std::map<std::pair<int, int>, int> Tokens(const std::string& text) {
    std::map<std::pair<int, int>, int> found;
    for (size_t at = text.find("~R"); at != std::string::npos; at = text.find("~R", at + 1)) {
        int t = 0, i = 0;
        char cEnd = 0;
        if (std::sscanf(text.c_str() + at, "~R%d.%d%c", &t, &i, &cEnd) == 3 && cEnd == '~') ++found[{t, i}];
    }
    return found;
}

TEST(StressReports, EveryBlockReachesTheConsoleOrIsFreedExactlyOnceAndEveryReportIsLogged) {
    velmora_stress::Watchdog watchdog("StressReports");
    constexpr int kThreads = 8;
    const int nReports = Scaled(4000);
    velmora_report_test::RecordingConsole console;
    velmora_shell_test::RecordingModule module;
    module.onCommand = [](const velmora_shell_test::Delivery&) { std::this_thread::yield(); };
    velmora_stress::Subscription subscription(&module);
    velmora.SetReportConsole(&console);
    std::unique_lock<std::mutex> ledger(TheLedger().mutex);
    const std::unordered_set<void*> liveBefore = TheLedger().live;
    const long nAllocsBefore = TheLedger().nAllocs, nUnknownBefore = TheLedger().nUnknownFrees;
    ledger.unlock();

    std::atomic<int> nReportersLeft{kThreads};
    velmora_stress::RunThreads(kThreads + 2, [&](int t) {
        if (t == kThreads) {
            // The level: 10, 22 or 34, never below the types reported; adjustments are
            // refused while a shell command runs.
            for (int n = 0; n == 0 || nReportersLeft > 0; ++n) {
                velmora.SetReportLevel(n % 2 ? 22 : 10);
                velmora.AdjustReportLevel(n % 3 ? 12 : -12);
                std::this_thread::yield();
            }
        } else if (t == kThreads + 1) {
            // The shell thread and its grep text, and status prints to INI and back. The grep
            // text "~" occurs in every report, so it holds none back.
            const char* const commands[][2] = {
                {"snapshot", "-x grep ~"}, {"runtime", "INI"}, {"counter", "-y grep ~"}, {"runtime", ""}};
            for (int n = 0; n < 4 || nReportersLeft > 0; ++n) {
                velmora.ShellCommand(nullptr, commands[n % 4][0], commands[n % 4][1]);
                std::this_thread::yield();
            }
        } else {
            for (int i = 0; i < nReports; ++i) Report(t, i);
            --nReportersLeft;
        }
    });
    velmora.SetReportConsole(nullptr);
    ledger.lock();
    EXPECT_EQ(TheLedger().nUnknownFrees - nUnknownBefore, 0) << "a block was freed twice";
    EXPECT_GT(TheLedger().nAllocs - nAllocsBefore, long(kThreads) * nReports / 2);
    EXPECT_TRUE(TheLedger().live == liveBefore) << "blocks were lost";
    ledger.unlock();

    // Each report reached the console with its own type and colour, at most once.
    std::map<std::pair<int, int>, int> onConsole;
    for (const velmora_report_test::ConsoleCall& call : console.Calls())
        for (const auto& [report, n] : Tokens(call.text)) {
            const auto [t, i] = report;
            SCOPED_TRACE(call.text);
            ASSERT_TRUE(t >= 0 && t < kThreads && i >= 0 && i < nReports);
            onConsole[report] += n;
            EXPECT_EQ(call.nType, TypeOf(t, i));
            EXPECT_EQ(call.bInColor, InColour(TwinOf(t, i)));
            EXPECT_EQ(call.dwColour, call.bInColor ? ColourOf(t) : 0u);
        }
    // With the level and the grep text as they are here, only the shell thread can hold a
    // report back, and only one of the plain twins. Raw messages are always freed.
    std::map<std::pair<int, int>, int> inLog = Tokens(velmora_stress::LogText());
    for (int t = 0; t < kThreads; ++t)
        for (int i = 0; i < nReports; ++i) {
            const std::pair<int, int> report(t, i);
            const int nTwin = TwinOf(t, i), nExpected = nTwin == 8 ? 0 : 1;
            SCOPED_TRACE("report ~R" + std::to_string(t) + "." + std::to_string(i) + "~ of twin " +
                         std::to_string(nTwin));
            EXPECT_EQ(inLog[report], nExpected);
            if (MayBeHeldBack(nTwin)) {
                EXPECT_LE(onConsole[report], nExpected);
            } else {
                EXPECT_EQ(onConsole[report], nExpected);
            }
        }
}

}  // namespace
