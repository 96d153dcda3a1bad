// The report pipeline: operator reports to the default log and to the report console.
//
// Every report reaches the default log. It reaches the console the host plugged in only if
// the console gate lets it through: the report level, the thread of a running shell command,
// its grep text and, for LogFortmatedReport alone, a status print to the INI file.
//
// The console block. A report for a console is built once, in a block of 768 bytes from
// GlobalAlloc: a stamp of 21 characters, the text from byte 21, byte 767 always 0. The log is
// given a pointer to byte 21, so the text is formatted only once. From the moment the block
// is handed to the console it is the console's, which frees it with GlobalFree; until then it
// is the report's, which frees it on every path that doesn't reach the console (ConsoleBlock,
// reporting/ConsoleBlock.h), also when a host's exception unwinds the report.
//
// Texts longer than their room: the formatter used here (snprintf/vsnprintf) never writes
// past its bound, so an over-long text is cut, at 746 characters in a console block and at 767
// without a console. A log client cuts further, at 512 characters.
//
// No lock is taken. The members read here (console, level, shell thread, grep text, the INI
// flag) may change at any time on other threads; each is read once per report where it
// matters, and a report that races with a change may go either way.
#include "include/Velmora.h"
#include "core/RelaxedAccess.h"
#include "reporting/ConsoleBlock.h"
#include "reporting/StatusFileLines.h"
#include "reporting/Trace.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

using velmora_core::ConsoleBlock;
using velmora_core::RelaxedLoad;
using velmora_core::RelaxedStore;
using velmora_core::kBlockSize;
using velmora_core::kBlockTextRoom;
using velmora_core::kStampLength;
// The stamp of velmora_core::kStampFormat and the text, in one format.
constexpr char kStampedTextFormat[] = "[%02d/%02d %02d:%02d:%02d.%03d] %s";

// The highest report type; SetReportLevel stores no level above it.
constexpr int kHighestReportType = Report_Types::REPORT_DEBUG;

// A null text or format is shown as glibc's printf shows a null string argument, without
// handing the null to the formatter.
constexpr char kNullText[] = "(null)";

// The differences of the four twins at the console gate and at the console.
struct TwinRules {
    bool bStatusToIniGate;  // LogFortmatedReport alone stays quiet during a status print to INI
    bool bShellThreadGate;  // the colour twins reach the console from any thread
    bool bInColor;          // the console operation: LogReportInColor, else LogReport
};
constexpr TwinRules kLogReportRules{false, true, false};
constexpr TwinRules kLogReportInColorRules{false, false, true};
constexpr TwinRules kLogFortmatedReportRules{true, true, false};
constexpr TwinRules kLogFortmatedReportInColorRules{false, false, true};

// The console gate, tests in their order; the first failure refuses.
bool PassesConsoleGate(const CVelmora& service, Report_Types::DEF nType, const char* szBlock,
                       const TwinRules& rules) {
    if (rules.bStatusToIniGate && RelaxedLoad(service.bRuntimeStatusToIni)) return false;
    if (int(nType) > RelaxedLoad(service.nReportLevel)) return false;
    if (rules.bShellThreadGate) {
        DWORD dwShellThread = RelaxedLoad(service.dwShellThreadId);
        if (dwShellThread != 0 && dwShellThread != GetCurrentThreadId()) return false;
    }
    // The grep text is looked for in the whole block, the stamp included. The shell may
    // change it meanwhile, so the test works on a snapshot; with no grep text (the usual
    // case) that costs one load.
    if (RelaxedLoad(service.szGrepText[0]) != '\0') {
        char szGrep[sizeof(service.szGrepText)];
        velmora_core::RelaxedLoadText(service.szGrepText, szGrep, sizeof(szGrep));
        if (szGrep[0] != '\0' && strstr(szBlock, szGrep) == nullptr) return false;
    }
    return true;
}

// One report of a twin, from the test of the default log to the console. The steps are
// called by the twins in this order: the constructor, one of the two text builders,
// WriteToLog, then Deliver.
class PendingReport {
public:
    PendingReport(CVelmora& service, Report_Types::DEF nType)
        : m_service(service), m_nType(nType) {
        m_pLog = globalDefaultLog;
        if (m_pLog == nullptr) return;  // nothing is reported anywhere
        m_pConsole = service.pReportConsole;
        // With a console plugged in the log depends on the block too: no block, no report.
        if (m_pConsole != nullptr && !m_block.Allocate()) m_pLog = nullptr;
    }

    bool Dropped() const { return m_pLog == nullptr; }
    // The block path: a console is plugged in and the block exists.
    bool OnBlockPath() const { return m_block.Get() != nullptr; }

    // LogReport and LogReportInColor: "%s" into the stack buffer, or the stamp and the text
    // in one format into the block.
    void SetText(const char* szText) {
        if (szText == nullptr) szText = kNullText;
        if (!OnBlockPath()) {
            snprintf(m_szLocal, sizeof(m_szLocal), "%s", szText);
            m_szLocal[sizeof(m_szLocal) - 1] = '\0';
            return;
        }
        SYSTEMTIME st;
        GetPeltrixLocalTime(&st, 0);
        char* szBlock = m_block.Get();
        snprintf(szBlock, kBlockSize, kStampedTextFormat, int(st.wMonth), int(st.wDay),
                 int(st.wHour), int(st.wMinute), int(st.wSecond), int(st.wMilliseconds),
                 szText);
        szBlock[kBlockSize - 1] = '\0';
    }

    // The formatted twins: the format into the stack buffer, or the stamp first and then
    // the format at byte 21 of the block. Only formats: nothing here can throw, so the
    // caller's va_start and va_end stay paired on every path.
    void FormatText(const char* szFormat, va_list args) noexcept {
        if (!OnBlockPath()) {
            if (szFormat == nullptr)
                snprintf(m_szLocal, sizeof(m_szLocal), "%s", kNullText);
            else
                vsnprintf(m_szLocal, sizeof(m_szLocal), szFormat, args);
            m_szLocal[sizeof(m_szLocal) - 1] = '\0';
            return;
        }
        char* szBlock = m_block.Get();
        velmora_core::WriteConsoleStamp(szBlock);
        if (szFormat == nullptr)
            snprintf(szBlock + kStampLength, kBlockTextRoom, "%s", kNullText);
        else
            vsnprintf(szBlock + kStampLength, kBlockTextRoom, szFormat, args);
        szBlock[kBlockSize - 1] = '\0';
    }

    // The text without the stamp, as the log gets it.
    const char* Text() const {
        return OnBlockPath() ? m_block.Get() + kStampLength : m_szLocal;
    }

    void WriteToLog() { m_pLog->Log(Report_Types::STR[m_nType], Text()); }

    // The console gate, then the console or GlobalFree. Without a console nothing is left
    // to do.
    void Deliver(const TwinRules& rules, DWORD dwColour) {
        if (!OnBlockPath()) return;
        if (!PassesConsoleGate(m_service, m_nType, m_block.Get(), rules)) {
            m_block.Free();
            return;
        }
        char* szBlock = m_block.Release();
        if (rules.bInColor)
            m_pConsole->LogReportInColor(m_nType, dwColour, szBlock);
        else
            m_pConsole->LogReport(m_nType, szBlock);
    }

private:
    CVelmora& m_service;
    Report_Types::DEF m_nType;
    CQuorelLog* m_pLog = nullptr;
    CReportConsoleInf* m_pConsole = nullptr;
    ConsoleBlock m_block;
    char m_szLocal[kBlockSize];  // the text when no console is plugged in: no allocation
};

}  // namespace

void CVelmora::LogReport(Report_Types::DEF nType, const char* szText) {
    VELMORA_TRACE_TRY("CVelmora::LogReport")
        PendingReport report(*this, nType);
        if (report.Dropped()) return;
        report.SetText(szText);
        report.WriteToLog();
        report.Deliver(kLogReportRules, 0);
    VELMORA_TRACE_CATCH("CVelmora::LogReport")
}

void CVelmora::LogReportInColor(Report_Types::DEF nType, DWORD dwColour, const char* szText) {
    VELMORA_TRACE_TRY("CVelmora::LogReportInColor")
        PendingReport report(*this, nType);
        if (report.Dropped()) return;
        report.SetText(szText);
        report.WriteToLog();
        report.Deliver(kLogReportInColorRules, dwColour);
    VELMORA_TRACE_CATCH("CVelmora::LogReportInColor")
}

void CVelmora::LogFortmatedReport(Report_Types::DEF nType, const char* szFormat, ...) {
    VELMORA_TRACE_TRY("CVelmora::LogFortmatedReport")
        PendingReport report(*this, nType);
        if (report.Dropped()) return;
        va_list args;
        va_start(args, szFormat);
        report.FormatText(szFormat, args);
        va_end(args);
        report.WriteToLog();
        // The status file step: on the block path only, behind the log and ahead of the
        // console gate, so that a status print to INI reaches the file with the console
        // quiet. The pairs of a type 2 "Status[" text go into szStatusFile.
        if (report.OnBlockPath())
            velmora_core::WriteStatusFileLines(nType, report.Text(), szStatusFile);
        report.Deliver(kLogFortmatedReportRules, 0);
    VELMORA_TRACE_CATCH("CVelmora::LogFortmatedReport")
}

void CVelmora::LogFortmatedReportInColor(Report_Types::DEF nType, DWORD dwColour,
                                         const char* szFormat, ...) {
    VELMORA_TRACE_TRY("CVelmora::LogFortmatedReportInColor")
        PendingReport report(*this, nType);
        if (report.Dropped()) return;
        va_list args;
        va_start(args, szFormat);
        report.FormatText(szFormat, args);
        va_end(args);
        report.WriteToLog();
        report.Deliver(kLogFortmatedReportInColorRules, dwColour);
    VELMORA_TRACE_CATCH("CVelmora::LogFortmatedReportInColor")
}

// The caller gives the block up in every case: it reaches the console or is freed here,
// also when the trace line fails with a host's exception. No log, no level, no grep.
void CVelmora::LogRawMsgReport(Report_Types::DEF nType, char* szBlock) {
    ConsoleBlock block(szBlock);
    VELMORA_TRACE_TRY("CVelmora::LogRawMsgReport")
        CReportConsoleInf* pConsole = pReportConsole;
        if (pConsole != nullptr && bMsgReporting)
            pConsole->LogReport(nType, block.Release());
        else
            block.Free();
    VELMORA_TRACE_CATCH("CVelmora::LogRawMsgReport")
}

// Whether a raw message is held back; offered to hosts, LogRawMsgReport doesn't ask.
bool CVelmora::IsRawMsgFiltered(Report_Types::DEF nType, void* pMsg) {
    CReportConsoleInf* pConsole = pReportConsole;
    if (pConsole == nullptr) return true;
    return pConsole->LogFiltered(nType, pMsg);
}

// A negative level is stored as it comes: it keeps every report off the console.
void CVelmora::SetReportLevel(int nLevel) {
    RelaxedStore(nReportLevel, nLevel > kHighestReportType ? kHighestReportType : nLevel);
}

// No upper limit: a level above 22 shows the same as 22. The sum is taken in 32-bit
// arithmetic as the level is stored, so a change that wraps it below zero is refused like
// any other negative result.
int CVelmora::AdjustReportLevel(int nChange) {
    if (RelaxedLoad(bInShellCommand)) return -1;
    int nLevel = RelaxedLoad(nReportLevel);
    if (nLevel < 0) return -1;
    int nSum = int(unsigned(nLevel) + unsigned(nChange));
    if (nSum < 0) return -1;
    RelaxedStore(nReportLevel, nSum);
    return nSum;
}

// Hosts may call this at any time. It changes nothing: bMsgReporting keeps its load value,
// false, so IsMsgReportingEnabled stays false and LogRawMsgReport frees every block.
void CVelmora::EnableMsgReporting(bool) {}

void CVelmora::ToEnableLoggerSysTime() {
    int nResult = EnableLoggerSysTime();
    if (nResult != 0)
        LogFortmatedReport(Report_Types::REPORT_RUNTIME_STATE,
                           "The Logger timer could be enabled with error %d\n", nResult);
}
