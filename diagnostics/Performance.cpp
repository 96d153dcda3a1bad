// Performance reports: one place where a server hands in the latencies it measured, and
// the switches of per-thread profile logging on the default log.
//
// These are services for hosts; nothing inside the library calls them. They take no lock:
// a host plugs the console in before the threads that report run, and the switch may be
// turned at any time (a relaxed atomic flag).
#include "include/Velmora.h"
#include "core/RelaxedAccess.h"

#include <cstdio>

namespace {

// A report's log line holds at most this many characters.
constexpr size_t kReportLength = 760;

constexpr char kPingRoundTripFormat[] = "The Round Trip to Ping Client: %s,%d MS";
constexpr char kTradingLatencyFormat[] = "Trading  Latency of Client %s,%d MS";

// A report without a client name still makes its line, as the formatter of the original
// platform prints a null string.
constexpr char kNullClient[] = "(null)";

}  // namespace

// The log line and the console are independent of each other: debugLevel and the default
// log decide the line, the switch and the plugged-in console decide the console, which
// also hears of types that have no line.
void CVelmora::ReportPerformance(Performance_Types::DEF nType, const char* szClient, int nMS) {
    const char* szFormat = nullptr;
    switch (nType) {
    case Performance_Types::PING_ROUND_TRIP:
        szFormat = kPingRoundTripFormat;
        break;
    case Performance_Types::TRADING_LATENCY:
        szFormat = kTradingLatencyFormat;
        break;
    }
    if (szFormat != nullptr && velmora_core::RelaxedLoad(debugLevel) >= 0 &&
        globalDefaultLog != nullptr) {
        char szText[kReportLength + 1];
        snprintf(szText, sizeof(szText), szFormat, szClient != nullptr ? szClient : kNullClient,
                 nMS);
        szText[sizeof(szText) - 1] = '\0';
        globalDefaultLog->Log(nullptr, szText);
    }
    // What the console throws goes to the caller.
    if (velmora_core::RelaxedLoad(bReportPerformance) && pPerformanceConsole != nullptr)
        pPerformanceConsole->ReportPerformance(nType, szClient, nMS);
}

void CVelmora::SetPerformanceConsole(CPerformanceConsoleInf* pConsole) {
    pPerformanceConsole = pConsole;
}

void CVelmora::EnableReportPerformance(bool bEnable) {
    velmora_core::RelaxedStore(bReportPerformance, bEnable);
}

bool CVelmora::IsReportPerformanceEnabled() {
    return velmora_core::RelaxedLoad(bReportPerformance);
}

// The four profiling switches pass straight to the default log: no lock, no trace line.
// Hosts are to use them only while the default log is open; if they don't, nothing
// happens rather than a crash: ProfilePerformance answers -1 and the others do nothing.

int CVelmora::ProfilePerformance(const char* szProfile, DWORD dwThread) {
    if (globalDefaultLog == nullptr) return -1;
    return globalDefaultLog->AttachProfile(szProfile, dwThread, _G_nGapMS) ? int(dwThread) : -1;
}

void CVelmora::StopProfiling(int dwThread) {
    if (globalDefaultLog != nullptr) globalDefaultLog->DetachProfile(DWORD(dwThread));
}

void CVelmora::StartEventProfiling(int nEvent, int dwThread) {
    if (globalDefaultLog != nullptr) globalDefaultLog->StartEventProfiling(nEvent, dwThread);
}

void CVelmora::EndEventProfiling(int dwThread) {
    if (globalDefaultLog != nullptr) globalDefaultLog->EndEventProfiling(dwThread);
}
