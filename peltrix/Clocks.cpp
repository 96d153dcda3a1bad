// The clocks and the logger session functions of the process.
#include "Peltrix.h"

#include "LogWriter.h"
#include "PeltrixInternal.h"

#include <chrono>

void GetPeltrixLocalTime(SYSTEMTIME* pTime, int /*nReserved*/) {
    if (pTime != nullptr) GetLocalTime(pTime);
}

namespace {
template <class Unit>
DWORD SteadyCount() {
    auto count = std::chrono::duration_cast<Unit>(
                     std::chrono::steady_clock::now().time_since_epoch())
                     .count();
    // The low 32 bits: the count wraps, and unsigned 32-bit differences stay right.
    return DWORD(static_cast<uint64_t>(count));
}
}  // namespace

DWORD GetTickInMilliSeconds() { return SteadyCount<std::chrono::milliseconds>(); }

DWORD GetTickInMicroSeconds() { return SteadyCount<std::chrono::microseconds>(); }

void StartLoggerSession() { peltrix::LogWriter::Instance().Start(); }

void CloseLoggerSession() { peltrix::LogWriter::Instance().Flush(); }

// Time stamps already come from the system clock; there is nothing to switch.
int EnableLoggerSysTime() { return 0; }

void UpdateLoggerSessionDate(int nYear, int nMonth, int nDay) {
    unsigned date = peltrix::PackDate(nYear, nMonth, nDay);
    if (date != 0) peltrix::LogWriter::Instance().SetDate(date);
}
