// What the two halves of the name lock manager share: the rule for reading a wait's result.
#pragma once

#include "include/Velmora.h"

namespace velmora_namelock {

// Only WAIT_OBJECT_0 counts as success. A wait that reports WAIT_ABANDONED has handed the
// mutex to the caller all the same; it is given straight back, so that one thread that died
// holding it fails one caller instead of wedging the mutex for everybody after it.
inline bool WaitSucceeded(HANDLE hObject, DWORD dwMilliseconds) {
    DWORD dwResult = WaitForSingleObject(hObject, dwMilliseconds);
    if (dwResult == WAIT_OBJECT_0) return true;
    if (dwResult == WAIT_ABANDONED) ReleaseMutex(hObject);
    return false;
}

}  // namespace velmora_namelock
