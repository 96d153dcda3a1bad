// Reports from many threads through every twin, while other threads change the report level,
// run shell commands (shell thread, grep text) and switch status prints to INI on and off:
// every console block reaches the console or is freed, exactly once, and every report
// reaches the log.
#include "tests/stress/StressSupport.h"
#include "tests/velmora/DispatchTestSupport.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <set>
#include <unordered_set>

namespace {

// ---- The block ledger ----------------------------------------------------------------------
// GlobalAlloc and GlobalFree of the whole process, interposed: the test program's symbols
// come first in the dynamic lookup. Every live block is known, so a block freed twice, or a
// free of something never allocated, shows at once.

struct Ledger {
    std::mutex mutex;
    std::unordered_set<void*> live;
    long nAllocs = 0, nFrees = 0, nUnknownFrees = 0;
};
Ledger& TheLedger() {
    static Ledger* ledger = new Ledger;  // in use until the process ends
    return *ledger;
}

template <typename Function>
Function Next(const char* szSymbol) {
    void* pFunction = dlsym(RTLD_NEXT, szSymbol);
    if (pFunction == nullptr) {
        std::fprintf(stderr, "no definition of %s behind the test program\n", szSymbol);
        std::abort();
    }
    return reinterpret_cast<Function>(pFunction);
}

}  // namespace

extern "C" HGLOBAL GlobalAlloc(UINT uFlags, SIZE_T dwBytes) {
    static auto pNext = Next<HGLOBAL (*)(UINT, SIZE_T)>("GlobalAlloc");
    HGLOBAL hBlock = pNext(uFlags, dwBytes);
    if (hBlock != nullptr) {
        std::lock_guard<std::mutex> lock(TheLedger().mutex);
        TheLedger().live.insert(hBlock);
        ++TheLedger().nAllocs;
    }
    return hBlock;
}

extern "C" HGLOBAL GlobalFree(HGLOBAL hMem) {
    static auto pNext = Next<HGLOBAL (*)(HGLOBAL)>("GlobalFree");
    if (hMem != nullptr) {
        // Out of the ledger before the memory goes, so that a block allocated at the same
        // address right after is a new entry.
        std::lock_guard<std::mutex> lock(TheLedger().mutex);
        if (TheLedger().live.erase(hMem) == 0) {
            ++TheLedger().nUnknownFrees;
            return nullptr;  // a second free would corrupt the heap; the count tells it
        }
        ++TheLedger().nFrees;
    }
    return pNext(hMem);
}

namespace {

using velmora_stress::RunThreads;
using velmora_stress::Scaled;

// A report's text carries its thread and number: "~R<thread>.<number>~".
struct Token {
    int t = -1, i = -1;
    bool operator<(const Token& o) const { return t != o.t ? t < o.t : i < o.i; }
};
bool FindToken(const std::string& text, size_t& at, Token& token) {
    for (at = text.find("~R", at); at != std::string::npos; at = text.find("~R", at + 1)) {
        char cEnd = 0;
        if (std::sscanf(text.c_str() + at, "~R%d.%d%c", &token.t, &token.i, &cEnd) == 3 && cEnd == '~')
            return true;
    }
    return false;
}

// The twins, in the order a thread goes through them.
enum Twin { kPlain, kFormatted, kColour, kFormattedColour, kFS, kFSFormatted, kFSColour,
            kFSFormattedColour, kRaw, kTwins };
Twin TwinOf(const Token& token) { return Twin((token.t + token.i) % kTwins); }
// Types 7 to 10: at or below every level the level writer sets.
Report_Types::DEF TypeOf(const Token& token) {
    return TwinOf(token) >= kFS && TwinOf(token) < kRaw ? Report_Types::REPORT_FS_OUTPUT
                                                        : Report_Types::DEF(7 + token.i % 4);
}
DWORD ColourOf(const Token& token) { return 0x100u + unsigned(token.t); }
bool InColour(Twin twin) {
    return twin == kColour || twin == kFormattedColour || twin == kFSColour || twin == kFSFormattedColour;
}

void Report(const Token& token) {
    char szText[64];
    std::snprintf(szText, sizeof(szText), "~R%d.%d~", token.t, token.i);
    const Report_Types::DEF nType = TypeOf(token);
    const DWORD dwColour = ColourOf(token);
    switch (TwinOf(token)) {
        case kPlain: velmora.LogReport(nType, szText); break;
        case kFormatted: velmora.LogFortmatedReport(nType, "%s", szText); break;
        case kColour: velmora.LogReportInColor(nType, dwColour, szText); break;
        case kFormattedColour: velmora.LogFortmatedReportInColor(nType, dwColour, "%s", szText); break;
        case kFS: velmora.FSLogReport(nullptr, false, szText); break;
        case kFSFormatted: velmora.FSLogFortmatedReport(nullptr, false, "%s", szText); break;
        case kFSColour: velmora.FSLogReportInColor(nullptr, dwColour, szText); break;
        case kFSFormattedColour: velmora.FSLogFortmatedReportInColor(nullptr, dwColour, "%s", szText); break;
        case kRaw: velmora.LogRawMsgReport(nType, velmora_report_test::RawBlock(szText)); break;
        case kTwins: break;
    }
}

// A console that takes calls from many threads, notes what it got, and frees every block.
class TallyConsole : public CReportConsoleInf {
public:
    void LogReport(Report_Types::DEF nType, char* szBlock) override { Take(nType, false, 0, szBlock); }
    void LogReportInColor(Report_Types::DEF nType, DWORD dwColour, char* szBlock) override {
        Take(nType, true, dwColour, szBlock);
    }
    struct Call {
        Report_Types::DEF nType;
        bool bInColour;
        DWORD dwColour;
        std::string text;
    };
    std::mutex mutex;
    std::vector<Call> calls;

private:
    void Take(Report_Types::DEF nType, bool bInColour, DWORD dwColour, char* szBlock) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            calls.push_back({nType, bInColour, dwColour, szBlock});
        }
        GlobalFree(szBlock);
    }
};

using StressReports = velmora_stress::ServiceFixture;

TEST_F(StressReports, EveryBlockReachesTheConsoleOrIsFreedExactlyOnceAndEveryReportIsLogged) {
    velmora_stress::Watchdog watchdog("StressReports");
    constexpr int kThreads = 8;
    const int nReports = Scaled(450);
    TallyConsole console;
    velmora_shell_test::RecordingModule module;
    module.onCommand = [](const velmora_shell_test::Delivery&) { std::this_thread::yield(); };
    velmora_stress::Subscription subscription(&module);
    velmora.SetReportConsole(&console);
    long nLiveBefore, nAllocsBefore, nFreesBefore, nUnknownBefore;
    {
        std::lock_guard<std::mutex> lock(TheLedger().mutex);
        nLiveBefore = long(TheLedger().live.size());
        nAllocsBefore = TheLedger().nAllocs;
        nFreesBefore = TheLedger().nFrees;
        nUnknownBefore = TheLedger().nUnknownFrees;
    }

    std::atomic<int> nReportersLeft{kThreads};
    std::atomic<int> nShellCommands{0};
    RunThreads(kThreads + 2, [&](int t) {
        if (t == kThreads) {
            // The level: 10 or 22 or above, never below the types reported; adjustments are
            // refused while a shell command runs.
            for (int n = 0; nReportersLeft > 0; ++n) {
                velmora.SetReportLevel(n % 2 ? 22 : 10);
                velmora.AdjustReportLevel(n % 3 ? 12 : -12);
                std::this_thread::yield();
            }
        } else if (t == kThreads + 1) {
            // The shell thread and its grep text, and status prints to INI and back. The grep
            // text "~" occurs in every report, so it holds back none.
            const char* const commands[][2] = {
                {"snapshot", "-x grep ~"}, {"runtime", "INI"}, {"counter", "-y grep ~"}, {"runtime", ""}};
            for (int n = 0; nReportersLeft > 0; ++n, ++nShellCommands) {
                velmora.ShellCommand(nullptr, commands[n % 4][0], commands[n % 4][1]);
                std::this_thread::yield();
            }
        } else {
            for (int i = 0; i < nReports; ++i) Report({t, i});
            --nReportersLeft;
        }
    });
    velmora.SetReportConsole(nullptr);
    EXPECT_GT(nShellCommands.load(), 0);

    {
        std::lock_guard<std::mutex> lock(TheLedger().mutex);
        EXPECT_EQ(TheLedger().nUnknownFrees - nUnknownBefore, 0) << "a block was freed twice";
        EXPECT_GT(TheLedger().nAllocs - nAllocsBefore, long(kThreads) * nReports / 2);
        EXPECT_EQ(TheLedger().nAllocs - nAllocsBefore, TheLedger().nFrees - nFreesBefore);
        EXPECT_EQ(long(TheLedger().live.size()), nLiveBefore) << "blocks were lost";
    }

    // What reached the console, by report. The shell output twins pass the console at any
    // level of 6 or more, and the colour twins of the other four ignore the shell thread:
    // with the level and the grep text as they are here, those must all arrive. The plain
    // twins may be held back by a running command, and raw messages are always freed.
    std::map<Token, int> onConsole;
    {
        std::lock_guard<std::mutex> lock(console.mutex);
        for (const TallyConsole::Call& call : console.calls) {
            size_t at = 0;
            Token token;
            if (!FindToken(call.text, at, token)) continue;  // a command's echo
            ++onConsole[token];
            SCOPED_TRACE(call.text);
            ASSERT_TRUE(token.t >= 0 && token.t < kThreads && token.i >= 0 && token.i < nReports);
            EXPECT_EQ(call.nType, TypeOf(token));
            EXPECT_EQ(call.bInColour, InColour(TwinOf(token)));
            if (call.bInColour) {
                EXPECT_EQ(call.dwColour, ColourOf(token));
            }
        }
    }
    std::map<Token, int> inLog;
    const std::string log = LogText();
    Token token;
    for (size_t at = 0; FindToken(log, at, token); ++at) ++inLog[token];

    for (int t = 0; t < kThreads; ++t)
        for (int i = 0; i < nReports; ++i) {
            const Token report{t, i};
            const Twin twin = TwinOf(report);
            SCOPED_TRACE("report ~R" + std::to_string(t) + "." + std::to_string(i) + "~ of twin " +
                         std::to_string(int(twin)));
            EXPECT_EQ(inLog[report], twin == kRaw ? 0 : 1);
            // Raw messages are always freed; the plain twins may be held back by a command.
            const int nExpected = twin == kRaw ? 0 : 1;
            if (twin == kPlain || twin == kFormatted) {
                EXPECT_LE(onConsole[report], nExpected);
            } else {
                EXPECT_EQ(onConsole[report], nExpected);
            }
        }
}

}  // namespace
