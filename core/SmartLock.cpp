// A scope guard over a critical section. A null pointer makes it do nothing at either end.
#include "include/Velmora.h"

CSmartLock::CSmartLock(CRITICAL_SECTION* pCS) : pCriticalSection(pCS) {
    if (pCriticalSection) EnterCriticalSection(pCriticalSection);
}

CSmartLock::~CSmartLock() {
    if (pCriticalSection) LeaveCriticalSection(pCriticalSection);
}

CSmartLock& CSmartLock::operator=(const CSmartLock& other) {
    pCriticalSection = other.pCriticalSection;
    return *this;
}
