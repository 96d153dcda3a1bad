// The alert timer thread: once a second it looks whether alerts wait for delivery.
#include "include/Velmora.h"

// Ends on any wait result other than a time-out: the stop event, or a failed wait when
// no stop event could be made.
unsigned CVelmora::AlertTimerFunction(void* pParam) {
    CVelmora* pService = static_cast<CVelmora*>(pParam);
    HANDLE hStop = pService->hStopEvent;
    while (WaitForSingleObject(hStop, 1000) == WAIT_TIMEOUT) {
        if (pService->bAlertsPending) {
            // Delivery of pending alerts is added with the alert flush.
        }
    }
    return 0;
}
