// Helpers of the report tests: a console that records what reaches it, a transaction engine
// with a description, a fixture with a default log in a folder of its own, and a count of
// the console blocks that the process allocates and frees.
//
// Every test runs in a process of its own (gtest_discover_tests): `velmora` starts in its
// load state in each.
#pragma once

#include "LogTestSupport.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <ostream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

namespace velmora_report_test {

// ---- Block traffic ----------------------------------------------------------------------
// The test program interposes GlobalAlloc and GlobalFree (ReportPipelineTest.cpp): each call
// of the process is counted and passed on to the platform's own, unless allocations are
// told to fail. The counts prove that every console block is freed exactly once whether or
// not the build has a leak checker.

struct BlockTraffic {
    long nAllocs = 0;  // successful GlobalAlloc calls
    long nFrees = 0;   // GlobalFree calls with a block
    bool operator==(const BlockTraffic&) const = default;
};
inline void PrintTo(const BlockTraffic& traffic, std::ostream* os) {
    *os << "{" << traffic.nAllocs << " allocated, " << traffic.nFrees << " freed}";
}
BlockTraffic CurrentBlockTraffic();
// The size and flags of the last GlobalAlloc call.
size_t LastAllocationSize();
unsigned LastAllocationFlags();
// While true, GlobalAlloc fails (returns null) without allocating.
void FailBlockAllocations(bool bFail);

// The traffic since an earlier count.
inline BlockTraffic Since(const BlockTraffic& before) {
    BlockTraffic now = CurrentBlockTraffic();
    return {now.nAllocs - before.nAllocs, now.nFrees - before.nFrees};
}
// The traffic of what fn does.
template <typename Fn>
BlockTraffic TrafficOf(Fn fn) {
    BlockTraffic before = CurrentBlockTraffic();
    fn();
    return Since(before);
}

// The result of EnableLoggerSysTime, also interposed: 0 passes the call to the closed
// library's own function, anything else is returned instead.
void SetLoggerSysTimeResult(int nResult);

// ---- Trace lines ------------------------------------------------------------------------

// The messages of the records with this prefix of the calling thread, in order, without
// their closing ';'.
inline std::vector<std::string> MessagesOf(const std::string& log, const std::string& prefix) {
    std::vector<std::string> messages;
    const std::string head = ";" + prefix + ";" + velmora_log_test::ThreadText() + ";";
    for (const std::string& line : velmora_test::SplitLines(log)) {
        size_t at = line.find(head);
        if (at == std::string::npos) continue;
        std::string message = line.substr(at + head.size());
        if (!message.empty() && message.back() == ';') message.pop_back();
        messages.push_back(message);
    }
    return messages;
}

// The messages of the TRACE records of the calling thread.
inline std::vector<std::string> TraceMessages(const std::string& log) {
    return MessagesOf(log, "TRACE");
}

// Whether a trace message is "Velmora Line:<n> <name> <description>".
inline bool IsTraceOf(const std::string& message, const std::string& name,
                      const std::string& description = "") {
    const std::string head = "Velmora Line:";
    if (message.compare(0, head.size(), head) != 0) return false;
    size_t at = head.size();
    size_t digits = 0;
    while (at < message.size() && message[at] >= '0' && message[at] <= '9') ++at, ++digits;
    if (digits == 0 || at >= message.size() || message[at] != ' ') return false;
    return message.substr(at + 1) == name + " " + description;
}

// The operation names of the trace messages of a log, in order.
inline std::vector<std::string> TracedNames(const std::string& log) {
    std::vector<std::string> names;
    for (const std::string& message : TraceMessages(log)) {
        const std::string head = "Velmora Line:";
        size_t at = message.find(' ', head.size());
        if (message.rfind(head, 0) != 0 || at == std::string::npos) continue;
        names.push_back(message.substr(at + 1, message.find(' ', at + 1) - at - 1));
    }
    return names;
}

// ---- A console that records ------------------------------------------------------------

struct ConsoleCall {
    Report_Types::DEF nType;
    bool bInColor;
    DWORD dwColour;
    std::string text;     // the whole block as a string, stamp included
    uintptr_t nAddress;   // where the block was, compared only
    bool operator==(const ConsoleCall&) const = default;
};
inline void PrintTo(const ConsoleCall& call, std::ostream* os) {
    *os << "{type " << int(call.nType) << (call.bInColor ? ", in colour " : ", plain ")
        << std::hex << call.dwColour << std::dec << ", " << ::testing::PrintToString(call.text)
        << ", at " << std::hex << call.nAddress << std::dec << "}";
}
// What a call shows besides its text and address: type, whether in colour, colour.
inline std::tuple<Report_Types::DEF, bool, DWORD> KindOf(const ConsoleCall& call) {
    return {call.nType, call.bInColor, call.dwColour};
}

// Keeps a copy of every block it is given and frees the block, as a console owns it. It can
// be told to throw a host's win32_exception (after freeing the block: the block was its
// own) for a number of calls or for every call, or another exception.
class RecordingConsole : public CReportConsoleInf {
public:
    void LogReport(Report_Types::DEF nType, char* szBlock) override {
        Take(nType, false, 0, szBlock);
    }
    void LogReportInColor(Report_Types::DEF nType, DWORD dwColour, char* szBlock) override {
        Take(nType, true, dwColour, szBlock);
    }
    bool LogFiltered(Report_Types::DEF nType, void* pMsg) override {
        std::lock_guard<std::mutex> lock(mutex);
        filterAsks.push_back({nType, pMsg});
        return bFilterAnswer;
    }

    std::vector<ConsoleCall> Calls() {
        std::lock_guard<std::mutex> lock(mutex);
        return calls;
    }
    size_t Count() { return Calls().size(); }
    // The texts of the calls, without the stamp of 21 characters.
    std::vector<std::string> Texts() {
        std::vector<std::string> texts;
        for (const ConsoleCall& call : Calls())
            texts.push_back(call.text.size() >= 21 ? call.text.substr(21) : call.text);
        return texts;
    }

    std::mutex mutex;
    std::vector<ConsoleCall> calls;
    std::vector<std::pair<Report_Types::DEF, void*>> filterAsks;
    bool bFilterAnswer = false;
    int nWin32FailuresLeft = 0;        // calls that throw win32_exception, then it works
    bool bAlwaysFailWin32 = false;     // every call throws win32_exception
    bool bFailWithRuntimeError = false;  // every call throws std::runtime_error
    std::string failureText = "console down";

private:
    void Take(Report_Types::DEF nType, bool bInColor, DWORD dwColour, char* szBlock) {
        bool bWin32 = false;
        {
            std::lock_guard<std::mutex> lock(mutex);
            calls.push_back({nType, bInColor, dwColour, szBlock ? std::string(szBlock) : "",
                             reinterpret_cast<uintptr_t>(szBlock)});
            if (bAlwaysFailWin32 || nWin32FailuresLeft > 0) {
                bWin32 = true;
                if (nWin32FailuresLeft > 0) --nWin32FailuresLeft;
            }
        }
        GlobalFree(szBlock);
        if (bWin32) throw win32_exception(failureText.c_str());
        if (bFailWithRuntimeError) throw std::runtime_error("not a win32_exception");
    }
};

// A host's failure class derived from win32_exception: the library catches it as the base.
class HostFailure : public win32_exception {
public:
    explicit HostFailure(const char* szText) : win32_exception(szText) {}
};

// ---- A transaction engine with a description ------------------------------------------

// Only GetTransactionDescr does anything: it writes `description` at the given position and
// returns `nResult`, or throws as told.
class FakeTransactionEngine : public CFTSInf {
public:
    std::string description = "TX#42 Orders";
    DWORD nResult = 7;
    int nCalls = 0;
    int nWin32FailuresLeft = 0;
    bool bAlwaysFailWin32 = false;
    bool bFailWithRuntimeError = false;

    DWORD GetTransactionDescr(char* szBuffer) override {
        ++nCalls;
        if (bAlwaysFailWin32 || nWin32FailuresLeft > 0) {
            if (nWin32FailuresLeft > 0) --nWin32FailuresLeft;
            throw HostFailure("engine down");
        }
        if (bFailWithRuntimeError) throw std::runtime_error("not a win32_exception");
        std::memcpy(szBuffer, description.c_str(), description.size() + 1);
        return nResult;
    }

    bool BeginTrasaction(void*) override { return false; }
    void EnableDomainTurbo(const char*, bool) override {}
    void AssignTransactionDomain(const char*, const char*, int) override {}
    bool GetTransactionDomain(char*, int, char*, int, int&) override { return false; }
    void AssignSuperDomain() override {}
    void FlushTransaction(bool) override {}
    void RunFiber(int) override {}
    DWORD DefineTransaction(DWORD, const char*) override { return 0; }
    DWORD GetTotalTransactions() override { return 0; }
    int GetTransactionID() override { return 0; }
    bool CheckDBWatermark(double) override { return false; }
    bool IsDBEngineUnderStress() override { return false; }
    void SetBarrierTransaction(int) override {}
    void SetBarrierHint(int) override {}
    int GetBarrierTransaction() override { return 0; }
    void AlignTransaction() override {}
    bool EnableFIXTransaction(bool) override { return false; }
    bool DoFIXTransaction(const char*) override { return false; }
    void CommitFIXTransaction(DWORD) override {}
    void EnforceCommitTransaction() override {}
    void Reserved22() override {}
    int CommitTrasaction(int&, int&, DWORD&, char*, int, bool, bool) override { return 0; }
    int CommitBackLog(int) override { return 0; }
    void AbortTrasaction() override {}
    bool IsTransactionEmpty() override { return true; }
    bool IsTransactionCommitted(int) override { return false; }
    void AttachTransactionIO(void*) override {}
};

// A raw message as a host builds it: a block of GlobalAlloc with a terminated text.
inline char* RawBlock(const char* szText) {
    size_t nSize = std::strlen(szText) + 1;
    char* szBlock = static_cast<char*>(GlobalAlloc(0, nSize));
    if (szBlock != nullptr) std::memcpy(szBlock, szText, nSize);
    return szBlock;
}

// ---- The fixture -------------------------------------------------------------------------

// A default log of its own: a log client (as Init makes it) in "<temp>/clients/", or a
// direct text log in "<temp>/log/PFX.SFX/" where a record isn't cut at 512 characters.
class ReportFixture : public ::testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories(tmp.path() + "/clients");
        std::filesystem::create_directories(tmp.path() + "/log");
        ASSERT_EQ(setenv("PELTRIX_LOG_FOLDER", (tmp.path() + "/clients").c_str(), 1), 0);
        directory.localLogsFolder = tmp.path();
        _G_Directory = &directory;
        velmora_log_test::SetAppName("Reports");
    }

    void TearDown() override {
        velmora.SetReportConsole(nullptr);
        velmora.pFTSEngine = nullptr;
        velmora.DisconnectMonitor(true);
        if (globalDefaultLog != nullptr) globalDefaultLog->FlushLog();
        globalDefaultLog = nullptr;
        _G_TraceAll = false;
        debugLevel = 4;
        _G_Directory = nullptr;
        FailBlockAllocations(false);
        SetLoggerSysTimeResult(0);
    }

    void MakeDefaultLog(bool bDirectFile = false) {
        pLog = velmora.GetLogClient("default", true, bDirectFile, true);
        ASSERT_NE(pLog, nullptr);
        globalDefaultLog = pLog;
    }

    // The whole default log, once everything handed to it is in the file.
    std::string LogText() { return velmora_log_test::LogTextOf(pLog); }

    // The end of a text record of the calling thread, from the prefix on.
    static std::string Record(const char* szPrefix, const std::string& msg) {
        return velmora_log_test::RecordEnd(szPrefix, msg);
    }
    int CountRecords(const char* szPrefix, const std::string& msg) {
        return velmora_log_test::CountOf(LogText(), Record(szPrefix, msg));
    }

    // The monitor of this process, a file of the test folder.
    void ConnectMonitor() { ASSERT_TRUE(velmora.ConnectMonitor(true, MonitorPath().c_str())); }
    std::string MonitorPath() const { return tmp.file("monitor.txt"); }
    std::string MonitorText() const { return velmora_test::ReadFile(MonitorPath()); }

    velmora_test::TempDir tmp;
    velmora_log_test::TestDirectory directory;
    CQuorelLog* pLog = nullptr;
    RecordingConsole console;
};

// The four report twins, to run one case through each.
enum class Twin { kLogReport, kLogReportInColor, kFormatted, kFormattedInColor };
constexpr Twin kAllTwins[] = {Twin::kLogReport, Twin::kLogReportInColor, Twin::kFormatted,
                              Twin::kFormattedInColor};

inline const char* TwinName(Twin twin) {
    switch (twin) {
        case Twin::kLogReport: return "CVelmora::LogReport";
        case Twin::kLogReportInColor: return "CVelmora::LogReportInColor";
        case Twin::kFormatted: return "CVelmora::LogFortmatedReport";
        case Twin::kFormattedInColor: return "CVelmora::LogFortmatedReportInColor";
    }
    return "";
}

// Reports the text through a twin; the formatted twins get it through "%s".
inline void Report(Twin twin, Report_Types::DEF nType, const std::string& text,
                   DWORD dwColour = 0x00C0FFEE) {
    switch (twin) {
        case Twin::kLogReport: velmora.LogReport(nType, text.c_str()); break;
        case Twin::kLogReportInColor: velmora.LogReportInColor(nType, dwColour, text.c_str()); break;
        case Twin::kFormatted: velmora.LogFortmatedReport(nType, "%s", text.c_str()); break;
        case Twin::kFormattedInColor:
            velmora.LogFortmatedReportInColor(nType, dwColour, "%s", text.c_str());
            break;
    }
}

}  // namespace velmora_report_test
