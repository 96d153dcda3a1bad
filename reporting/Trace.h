// The trace line at the head of an operation, and the clause that turns a host's
// win32_exception into an exception report.
//
//     VELMORA_TRACE_TRY("CVelmora::LogReport") {
//         ...the operation's work...
//     } VELMORA_TRACE_CATCH("CVelmora::LogReport")
//
// With tracing off the operation spends only the tests of the gate, debugLevel first.
#pragma once

#include "include/Velmora.h"
#include "core/RelaxedAccess.h"

namespace velmora_core {

// Writes "Velmora Line:<nLine> <szName> " plus the current transaction's description to the
// default log with the prefix "TRACE". Callers test TraceGateOpen() first.
void WriteTraceLine(int nLine, const char* szName);

// The two switches may change on any thread while others trace: relaxed loads.
inline bool TraceGateOpen() {
    return RelaxedLoad(debugLevel) >= 4 && RelaxedLoad(_G_TraceAll) && globalDefaultLog;
}

}  // namespace velmora_core

#define VELMORA_TRACE(szName)                                                 \
    do {                                                                      \
        if (velmora_core::TraceGateOpen()) velmora_core::WriteTraceLine(__LINE__, szName); \
    } while (0)

#define VELMORA_TRACE_TRY(szName) \
    try {                         \
        VELMORA_TRACE(szName);

#define VELMORA_TRACE_CATCH(szName)                      \
    }                                                    \
    catch (const win32_exception& failure) {             \
        velmora.ReportException(szName, failure.what()); \
    }
