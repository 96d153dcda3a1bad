#include "VelmoraPlatform.h"

// The last error is kept per thread, as callers read it right after the failing call.
namespace {
thread_local DWORD t_lastError = ERROR_SUCCESS;
}

extern "C" DWORD GetLastError(void) { return t_lastError; }

extern "C" void SetLastError(DWORD dwErrCode) { t_lastError = dwErrCode; }
