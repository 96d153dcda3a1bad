// The alert timer thread: once a second it looks whether alerts wait for delivery.
#include "include/Velmora.h"

#include <atomic>

// Ends on any wait result other than a time-out: the stop event, or a failed wait when
// no stop event could be made. A flush thus never comes within the first second, and the
// next wait starts when a flush has ended.
unsigned CVelmora::AlertTimerFunction(void* pParam) {
    CVelmora* pService = static_cast<CVelmora*>(pParam);
    HANDLE hStop = pService->hStopEvent;
    while (WaitForSingleObject(hStop, 1000) == WAIT_TIMEOUT) {
        // The flag is set by the intake under csAlerts and only looked at here: a missed
        // setting delays the flush by a second at most.
        if (std::atomic_ref<bool>(pService->bAlertsPending).load(std::memory_order_acquire))
            pService->FlushAlerts();
    }
    return 0;
}
