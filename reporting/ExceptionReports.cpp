// Exception reports and the trace line.
//
// An exception report is how a caught failure reaches people: an alert to the monitor and an
// [Exception] report to the log and the console. The traced operations turn a host's
// win32_exception into one (VELMORA_TRACE_CATCH), and hosts call ReportException for their
// own failures.
//
// The trace line is one "TRACE" record of the default log at the head of an operation: the
// source, the line, the operation's name and the description of the current transaction.
#include "include/Velmora.h"
#include "reporting/Trace.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr size_t kTraceSize = 768;
constexpr char kTraceFormat[] = "%s Line:%d %s ";
constexpr char kTraceSource[] = "Velmora";
constexpr char kTracePrefix[] = "TRACE";

constexpr size_t kExceptionSize = 512;
constexpr char kNullText[] = "(null)";  // as glibc's printf shows a null string argument

// A failure that comes back every time it is reported (an engine whose description always
// throws while tracing is on, a console that always throws) would otherwise report itself
// without end, one frame deeper each time. A thread writes at most this many exception
// reports inside one another: the outermost, and the report of a failure inside it, which
// is the one the catch clause of ReportException itself makes. A deeper one is dropped.
constexpr int kMaxNestedExceptionReports = 2;
thread_local int tl_nExceptionReportDepth = 0;

class ExceptionReportDepth {
public:
    ExceptionReportDepth() { ++tl_nExceptionReportDepth; }
    ~ExceptionReportDepth() { --tl_nExceptionReportDepth; }
    ExceptionReportDepth(const ExceptionReportDepth&) = delete;
    ExceptionReportDepth& operator=(const ExceptionReportDepth&) = delete;
    bool TooDeep() const { return tl_nExceptionReportDepth > kMaxNestedExceptionReports; }
};

// The text goes to the monitor first, then, as a report of type 0, to the log and the
// console. Without a default log the monitor still gets it.
void DeliverException(CVelmora& service, char* szText) {
    if (CHarvell* pMonitor = service.pMonitor) pMonitor->AlertMsg(szText);
    service.LogReport(Report_Types::REPORT_EXCEPTION, szText);
}

}  // namespace

// The trace buffer starts zeroed, so whatever the engine is handed stands in front of zero
// bytes up to the end of the 768-byte line. The engine's write can't be bounded from here: a
// CFTSInf must write a terminated description that fits what remains of the line (its
// contract). Byte 767 is forced to 0 afterwards all the same.
void velmora_core::WriteTraceLine(int nLine, const char* szName) {
    CQuorelLog* pLog = globalDefaultLog;
    if (pLog == nullptr) return;
    char szLine[kTraceSize] = {};
    int nLength = snprintf(szLine, sizeof(szLine), kTraceFormat, kTraceSource, nLine,
                           szName != nullptr ? szName : kNullText);
    if (nLength < 0) nLength = 0;
    if (size_t(nLength) > kTraceSize - 1) nLength = int(kTraceSize - 1);
    velmora.GetTransactionDescr(szLine + nLength);
    szLine[kTraceSize - 1] = '\0';
    pLog->Log(kTracePrefix, szLine);
}

DWORD CVelmora::GetTransactionDescr(char* szBuffer) {
    CFTSInf* pEngine = pFTSEngine;
    if (pEngine == nullptr) return 0xFFFFFFFF;
    return pEngine->GetTransactionDescr(szBuffer);
}

// A text of 512 characters or more is cut at 511, and its line feed with it.
void CVelmora::ReportException(const char* szPlace, const char* szText) {
    ExceptionReportDepth depth;
    if (depth.TooDeep()) return;
    VELMORA_TRACE_TRY("CVelmora::ReportException")
        char szException[kExceptionSize];
        if (szPlace == nullptr) szPlace = kNullText;
        if (szText != nullptr && szText[0] != '\0')
            snprintf(szException, sizeof(szException), "%s %s\n", szPlace, szText);
        else
            snprintf(szException, sizeof(szException), "%s\n", szPlace);
        szException[sizeof(szException) - 1] = '\0';
        DeliverException(*this, szException);
    VELMORA_TRACE_CATCH("CVelmora::ReportException")
}

void CVelmora::ReportException(const char* szPlace, int nLine, const char* szText) {
    ExceptionReportDepth depth;
    if (depth.TooDeep()) return;
    VELMORA_TRACE_TRY("CVelmora::ReportException")
        char szException[kExceptionSize];
        if (szPlace == nullptr) szPlace = kNullText;
        if (szText != nullptr && szText[0] != '\0')
            snprintf(szException, sizeof(szException), "%s line:%d %s\n", szPlace, nLine,
                     szText);
        else
            snprintf(szException, sizeof(szException), "%s line:%d\n", szPlace, nLine);
        szException[sizeof(szException) - 1] = '\0';
        DeliverException(*this, szException);
    VELMORA_TRACE_CATCH("CVelmora::ReportException")
}
