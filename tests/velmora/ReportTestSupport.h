// Helpers of the report tests: a console that records what reaches it, a transaction engine with
// a description, a fixture with a default log of its own, and the count of console blocks
// (GlobalAlloc and GlobalFree are interposed in ReportPipelineTest.cpp).
#pragma once

#include "LogTestSupport.h"

#include <functional>
#include <mutex>
#include <regex>

namespace velmora_report_test {

// Successful GlobalAlloc calls and GlobalFree calls with a block, in the whole process.
struct BlockTraffic {
    long nAllocs = 0, nFrees = 0;
    bool operator==(const BlockTraffic&) const = default;
};
BlockTraffic CurrentBlockTraffic();
std::pair<size_t, unsigned> LastAllocation();  // size and flags of the last GlobalAlloc
void FailBlockAllocations(bool bFail);         // while true, GlobalAlloc returns null
void SetLoggerSysTimeResult(int nResult);      // not 0: what EnableLoggerSysTime returns
template <typename Fn>
BlockTraffic TrafficOf(Fn fn) {  // the traffic of what fn does
    BlockTraffic before = CurrentBlockTraffic();
    fn();
    return {CurrentBlockTraffic().nAllocs - before.nAllocs, CurrentBlockTraffic().nFrees - before.nFrees};
}

// The messages of the calling thread's records with this prefix, in order.
inline std::vector<std::string> MessagesOf(const std::string& log, const std::string& prefix) {
    std::vector<std::string> messages;
    const std::string head = ";" + prefix + ";" + velmora_log_test::ThreadText() + ";";
    for (const std::string& line : velmora_test::SplitLines(log))
        if (size_t at = line.find(head); at != std::string::npos) messages.push_back(line.substr(at + head.size(), line.size() - at - head.size() - 1));
    return messages;
}
// The TRACE messages of the calling thread with the line number shown as '#', and their operations.
inline std::vector<std::string> TraceMessages(const std::string& log) {
    std::vector<std::string> messages = MessagesOf(log, "TRACE");
    for (std::string& m : messages) m = std::regex_replace(m, std::regex("^Velmora Line:[0-9]+ "), "Velmora Line:# ");
    return messages;
}
inline std::vector<std::string> TracedNames(const std::string& log) {
    std::vector<std::string> names;
    for (const std::string& m : TraceMessages(log)) names.push_back(m.substr(15, m.find(' ', 15) - 15));
    return names;
}

struct ConsoleCall {
    Report_Types::DEF nType;
    bool bInColor;
    DWORD dwColour;
    std::string text;  // the whole block, stamp included
    bool operator==(const ConsoleCall&) const = default;
};

// Runs onCall, keeps a copy of the block and frees it, as a console owns it (a remote console,
// bFrees false, only looks at it). Told so, it throws a host's win32_exception after that, for a
// number of calls or always.
class RecordingConsole : public CReportConsoleInf {
public:
    void LogReport(Report_Types::DEF nType, char* szBlock) override { Take(nType, false, 0, szBlock); }
    void LogReportInColor(Report_Types::DEF nType, DWORD dwColour, char* szBlock) override { Take(nType, true, dwColour, szBlock); }
    std::vector<ConsoleCall> Calls() { std::lock_guard<std::mutex> lock(mutex); return calls; }
    size_t Count() { return Calls().size(); }
    std::vector<std::string> Texts() {  // without the stamp of 21 characters
        std::vector<std::string> texts;
        for (const ConsoleCall& call : Calls()) texts.push_back(call.text.substr(std::min<size_t>(21, call.text.size())));
        return texts;
    }

    std::function<void(const char*)> onCall;
    std::mutex mutex;
    std::vector<ConsoleCall> calls;
    int nWin32FailuresLeft = 0;
    bool bAlwaysFailWin32 = false, bFrees = true;

private:
    void Take(Report_Types::DEF nType, bool bInColor, DWORD dwColour, char* szBlock) {
        if (onCall) onCall(szBlock);
        std::unique_lock<std::mutex> lock(mutex);
        calls.push_back({nType, bInColor, dwColour, szBlock ? szBlock : ""});
        const bool bFail = bAlwaysFailWin32 || (nWin32FailuresLeft > 0 && nWin32FailuresLeft--);
        lock.unlock();
        if (bFrees) GlobalFree(szBlock);
        if (bFail) throw win32_exception("console down");
    }
};

// A host's failure class: the library catches it as its base.
class HostFailure : public win32_exception {
public:
    explicit HostFailure(const char* szText) : win32_exception(szText) {}
};

// Writes "TX#42 Orders" for GetTransactionDescr and returns 7, or throws a host's failure for a
// number of calls; the rest does nothing.
class FakeTransactionEngine : public CFTSInf {
public:
    int nWin32FailuresLeft = 0;
    DWORD GetTransactionDescr(char* szBuffer) override {
        if (nWin32FailuresLeft > 0 && nWin32FailuresLeft--) throw HostFailure("engine down");
        std::strcpy(szBuffer, "TX#42 Orders");
        return 7;
    }
    bool BeginTrasaction(void*) override { return false; } void EnableDomainTurbo(const char*, bool) override {}
    void AssignTransactionDomain(const char*, const char*, int) override {}
    bool GetTransactionDomain(char*, int, char*, int, int&) override { return false; } void AssignSuperDomain() override {}
    void FlushTransaction(bool) override {} void RunFiber(int) override {}
    DWORD DefineTransaction(DWORD, const char*) override { return 0; } DWORD GetTotalTransactions() override { return 0; }
    int GetTransactionID() override { return 0; } bool CheckDBWatermark(double) override { return false; }
    bool IsDBEngineUnderStress() override { return false; } void SetBarrierTransaction(int) override {}
    void SetBarrierHint(int) override {} void AlignTransaction() override {} int GetBarrierTransaction() override { return 0; }
    bool EnableFIXTransaction(bool) override { return false; } bool DoFIXTransaction(const char*) override { return false; }
    void CommitFIXTransaction(DWORD) override {} void EnforceCommitTransaction() override {} void Reserved22() override {}
    void AbortTrasaction() override {} int CommitTrasaction(int&, int&, DWORD&, char*, int, bool, bool) override { return 0; }
    int CommitBackLog(int) override { return 0; } bool IsTransactionEmpty() override { return true; }
    bool IsTransactionCommitted(int) override { return false; } void AttachTransactionIO(void*) override {}
};

// A raw message as a host builds it: a block of GlobalAlloc with a terminated text.
inline char* RawBlock(const char* szText) {
    char* szBlock = static_cast<char*>(GlobalAlloc(0, std::strlen(szText) + 1));
    return szBlock != nullptr ? std::strcpy(szBlock, szText) : nullptr;
}

// A default log of its own: a log client (as Init makes it) in "<temp>/clients/", or a direct
// log in "<temp>/log/PFX.SFX/", where a record isn't cut at 512 characters.
class ReportFixture : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* szFolder : {"/clients", "/log"}) std::filesystem::create_directories(tmp.path() + szFolder);
        ASSERT_EQ(setenv("PELTRIX_LOG_FOLDER", (tmp.path() + "/clients").c_str(), 1), 0);
        directory.localLogsFolder = tmp.path();
        _G_Directory = &directory;
        velmora_log_test::SetAppName("Reports");
    }
    void TearDown() override {  // nothing may point into the fixture once it is gone
        velmora.SetReportConsole(nullptr);
        velmora.pFTSEngine = nullptr;
        velmora.DisconnectMonitor(true);
        if (globalDefaultLog != nullptr) globalDefaultLog->FlushLog();
        globalDefaultLog = nullptr;
        _G_Directory = nullptr;
        FailBlockAllocations(false);
    }

    void MakeDefaultLog(bool bDirectFile = false) {
        ASSERT_NE(pLog = velmora.GetLogClient("default", true, bDirectFile, true), nullptr);
        globalDefaultLog = pLog;
    }
    std::string LogText() { return velmora_log_test::LogTextOf(pLog); }
    // The end of a text record of the calling thread, from the prefix on.
    static std::string Record(const char* szPrefix, const std::string& msg) { return velmora_log_test::RecordEnd(szPrefix, msg); }
    int CountRecords(const char* szPrefix, const std::string& msg) { return velmora_log_test::CountOf(LogText(), Record(szPrefix, msg)); }
    void ConnectMonitor() { ASSERT_TRUE(velmora.ConnectMonitor(true, tmp.file("monitor.txt").c_str())); }
    std::string MonitorText() const { return velmora_test::ReadFile(tmp.file("monitor.txt")); }

    velmora_test::TempDir tmp;
    velmora_log_test::TestDirectory directory;
    CQuorelLog* pLog = nullptr;
    RecordingConsole console;
};

// The four report twins, to run one case through each; the formatted ones get "%s".
enum class Twin { kLogReport, kLogReportInColor, kFormatted, kFormattedInColor };
constexpr Twin kAllTwins[] = {Twin::kLogReport, Twin::kLogReportInColor, Twin::kFormatted, Twin::kFormattedInColor};
inline const char* TwinName(Twin twin) {
    static const char* const names[] = {"CVelmora::LogReport", "CVelmora::LogReportInColor",
                                        "CVelmora::LogFortmatedReport", "CVelmora::LogFortmatedReportInColor"};
    return names[int(twin)];
}
inline void Report(Twin twin, Report_Types::DEF nType, const std::string& text, DWORD dwColour = 0x00C0FFEE) {
    const char* szText = text.c_str();
    if (twin == Twin::kLogReport) velmora.LogReport(nType, szText);
    if (twin == Twin::kLogReportInColor) velmora.LogReportInColor(nType, dwColour, szText);
    if (twin == Twin::kFormatted) velmora.LogFortmatedReport(nType, "%s", szText);
    if (twin == Twin::kFormattedInColor) velmora.LogFortmatedReportInColor(nType, dwColour, "%s", szText);
}

}  // namespace velmora_report_test
