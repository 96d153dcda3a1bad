// Shell output: what a shell command prints, as reports of type 6 ("[FS Output]").
//
// The reader of shell output is the operator who typed the command, who may sit at a remote
// console. A report goes, in this order, to the remote console of its source (if the host
// has one for that source), to the default log, and to the local console. Only the report
// level holds it back, and only from the local console (level 6 or more lets it through): a
// grep text, the thread of a running shell command and a status print to INI never hold
// shell output back, because shell output is the answer to that very command. bLogOnly, or
// no local console at all, keeps a report in the log alone, with no allocation and no
// console of either kind.
//
// The console block (reporting/ConsoleBlock.h) is built once and seen by everyone:
//   FSLogReport, FSLogReportInColor, FSLogFortmatedReportInColor: the text from byte 0;
//   FSLogFortmatedReport: the stamp in bytes 0 to 20 and the text from byte 21, and the
//   log line holds the stamp as well.
// The remote console only looks at the block for the time of its call; the local console
// takes it; on every other path the block is freed here, exactly once, also when a host's
// exception unwinds the report.
//
// Texts longer than their room are cut, never written past their buffer: 767 characters in
// general, 746 behind the stamp of FSLogFortmatedReport. A null text or format isn't a valid
// input; it is taken as the empty text, so that a careless caller costs an empty line and
// not the process.
//
// No lock is taken: the consoles and the level are read as they stand when the report
// needs them, as in the report pipeline.
#include "include/Velmora.h"
#include "core/RelaxedAccess.h"
#include "reporting/ConsoleBlock.h"
#include "reporting/Trace.h"

#include "core/AsciiText.h"

#include <cxxabi.h>

#include <cstdarg>
#include <cstdio>

namespace {

using velmora_core::ConsoleBlock;
using velmora_core::kBlockSize;
using velmora_core::kBlockTextRoom;
using velmora_core::kStampLength;

constexpr Report_Types::DEF kShellOutput = Report_Types::REPORT_FS_OUTPUT;

// How the four twins differ once the block is allocated.
struct TwinRules {
    bool bStamped;  // FSLogFortmatedReport alone: stamp first, text at byte 21
    bool bInColor;  // the console operation: LogReportInColor, else LogReport
};
constexpr TwinRules kFSLogReportRules{false, false};
constexpr TwinRules kFSLogReportInColorRules{false, true};
constexpr TwinRules kFSLogFortmatedReportRules{true, false};
constexpr TwinRules kFSLogFortmatedReportInColorRules{false, true};

// Formats into a buffer of nSize bytes (nSize > 0), cut to fit and terminated. The formatter
// reports an encoding failure with a negative count and leaves the buffer undefined; the
// report then goes on with the empty text. Nothing here throws, so a caller's va_start and
// va_end stay paired on every path.
void FormatInto(char* szBuffer, size_t nSize, const char* szFormat, va_list args) noexcept {
    if (szFormat == nullptr || vsnprintf(szBuffer, nSize, szFormat, args) < 0)
        szBuffer[0] = '\0';
    szBuffer[nSize - 1] = '\0';
}

void CallConsole(CReportConsoleInf* pConsole, const TwinRules& rules, DWORD dwColour,
                 char* szBlock) {
    if (rules.bInColor)
        pConsole->LogReportInColor(kShellOutput, dwColour, szBlock);
    else
        pConsole->LogReport(kShellOutput, szBlock);
}

// One report of a twin. The twins call, in this order: the constructor, one of the two
// text builders, then Deliver.
class PendingShellOutput {
public:
    PendingShellOutput(CVelmora& service, bool bLogOnly, const TwinRules& rules)
        : m_service(service), m_rules(rules) {
        m_pLog = globalDefaultLog;
        if (m_pLog == nullptr) return;  // nothing is reported anywhere
        m_pConsole = bLogOnly ? nullptr : service.pReportConsole;
        // With a local console the log depends on the block too: no block, no report.
        if (m_pConsole != nullptr && !m_block.Allocate()) m_pLog = nullptr;
    }

    bool Dropped() const { return m_pLog == nullptr; }

    // FSLogReport and FSLogReportInColor: the text itself, cut to 767 characters.
    void CopyText(const char* szText) {
        if (szText == nullptr) szText = "";
        velmora_core::CopyText(Target(), kBlockSize, szText);
    }

    // The formatted twins: into the stack buffer, into the block from byte 0, or behind the
    // stamp of FSLogFortmatedReport with the room of bytes 21 to 767.
    void FormatText(const char* szFormat, va_list args) noexcept {
        if (OnBlockPath() && m_rules.bStamped) {
            char* szBlock = m_block.Get();
            velmora_core::WriteConsoleStamp(szBlock);
            FormatInto(szBlock + kStampLength, kBlockTextRoom, szFormat, args);
            return;
        }
        FormatInto(Target(), kBlockSize, szFormat, args);
    }

    // Remote console, log, local console. Without a local console (or with bLogOnly) the
    // report ends in the log.
    void Deliver(const char* szSource, DWORD dwColour) {
        if (!OnBlockPath()) {
            m_pLog->Log(Report_Types::STR[kShellOutput], m_szLocal);
            return;
        }
        ShowOnRemoteConsole(szSource, dwColour);
        // The whole block: for FSLogFortmatedReport that is the stamp and the text.
        m_pLog->Log(Report_Types::STR[kShellOutput], m_block.Get());
        if (velmora_core::RelaxedLoad(m_service.nReportLevel) >= int(kShellOutput))
            CallConsole(m_pConsole, m_rules, dwColour, m_block.Release());
        else
            m_block.Free();
    }

private:
    bool OnBlockPath() const { return m_block.Get() != nullptr; }
    char* Target() { return OnBlockPath() ? m_block.Get() : m_szLocal; }

    // The console of the command's source sees the block for the time of the call and
    // doesn't keep it. The formatted twins serve it exactly as the plain twins do, with the
    // block that the local console gets: a module's formatted answer belongs to the
    // operator who asked, wherever that operator sits.
    //
    // A host whose remote console names the local console for a source would have that
    // console take (and free) the block here, before the log and the local console read it.
    // The local console gets the block at the end anyway, so it isn't called twice.
    void ShowOnRemoteConsole(const char* szSource, DWORD dwColour) {
        CRemoteConsoleInf* pRemote = m_service.pRemoteConsole;
        if (szSource == nullptr || pRemote == nullptr) return;
        CReportConsoleInf* pConsole = pRemote->GetConsole(szSource);
        if (pConsole == nullptr || pConsole == m_pConsole) return;
        CallConsole(pConsole, m_rules, dwColour, m_block.Get());
    }

    CVelmora& m_service;
    const TwinRules& m_rules;
    CQuorelLog* m_pLog = nullptr;
    CReportConsoleInf* m_pConsole = nullptr;
    ConsoleBlock m_block;
    char m_szLocal[kBlockSize];  // the text when it goes to the log alone: no allocation
};

}  // namespace

void CVelmora::FSLogReport(const char* szSource, bool bLogOnly, const char* szText) {
    VELMORA_TRACE_TRY("CVelmora::FSLogReport")
        PendingShellOutput output(*this, bLogOnly, kFSLogReportRules);
        if (output.Dropped()) return;
        output.CopyText(szText);
        output.Deliver(szSource, 0);
    VELMORA_TRACE_CATCH("CVelmora::FSLogReport")
}

void CVelmora::FSLogReportInColor(const char* szSource, DWORD dwColour, const char* szText) {
    VELMORA_TRACE_TRY("CVelmora::FSLogReportInColor")
        PendingShellOutput output(*this, false, kFSLogReportInColorRules);
        if (output.Dropped()) return;
        output.CopyText(szText);
        output.Deliver(szSource, dwColour);
    VELMORA_TRACE_CATCH("CVelmora::FSLogReportInColor")
}

void CVelmora::FSLogFortmatedReport(const char* szSource, bool bLogOnly, const char* szFormat,
                                    ...) {
    VELMORA_TRACE_TRY("CVelmora::FSLogFortmatedReport")
        PendingShellOutput output(*this, bLogOnly, kFSLogFortmatedReportRules);
        if (output.Dropped()) return;
        va_list args;
        va_start(args, szFormat);
        output.FormatText(szFormat, args);
        va_end(args);
        output.Deliver(szSource, 0);
    VELMORA_TRACE_CATCH("CVelmora::FSLogFortmatedReport")
}

void CVelmora::FSLogFortmatedReportInColor(const char* szSource, DWORD dwColour,
                                           const char* szFormat, ...) {
    VELMORA_TRACE_TRY("CVelmora::FSLogFortmatedReportInColor")
        PendingShellOutput output(*this, false, kFSLogFortmatedReportInColorRules);
        if (output.Dropped()) return;
        va_list args;
        va_start(args, szFormat);
        output.FormatText(szFormat, args);
        va_end(args);
        output.Deliver(szSource, dwColour);
    VELMORA_TRACE_CATCH("CVelmora::FSLogFortmatedReportInColor")
}

// A bounded formatter for hosts. The buffer is terminated whatever happens, once its size
// allows it: the result is the number of characters written, or -1 with the empty string
// when the text doesn't fit (callers take -1 and an empty buffer as "nothing written"), when
// the formatter fails, or when a failure is caught. A size of 0 gives -1 with the buffer
// untouched. A null format is taken as the empty format (0, the empty string); a null buffer
// has nothing to write to and gives -1.
//
// Unlike the reports, it catches every exception: a host's win32_exception is reported under
// "_G_SafePrintf", any other ends in -1 without a word, and a failure of that report is
// swallowed too. The unwinding of a cancelled thread isn't an exception of anyone's and
// passes on.
int _G_SafePrintf(char* szBuffer, size_t nSize, const char* szFormat, ...) {
    try {
        VELMORA_TRACE("_G_SafePrintf");
        if (nSize == 0 || szBuffer == nullptr) return -1;
        szBuffer[0] = '\0';
        szBuffer[nSize - 1] = '\0';
        if (szFormat == nullptr) return 0;
        va_list args;
        va_start(args, szFormat);
        int nWritten = vsnprintf(szBuffer, nSize, szFormat, args);
        va_end(args);
        szBuffer[nSize - 1] = '\0';
        if (nWritten < 0 || size_t(nWritten) >= nSize) {
            szBuffer[0] = '\0';
            return -1;
        }
        return nWritten;
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (const win32_exception& failure) {
        try {
            velmora.ReportException("_G_SafePrintf", failure.what());
        } catch (const abi::__forced_unwind&) {
            throw;
        } catch (...) {
        }
        return -1;
    } catch (...) {
        return -1;
    }
}
