// What a lock on a name means: an exclusive lock, or in read-write mode many readers or one
// writer; and the scope guard over _G_pNameLock.
//
// A writer (or, in exclusive mode, the holder) owns hLock from its wait to its unlock and
// keeps it while it waits for the readers to leave. Readers never touch hLock: they count
// themselves in nReaders under hStateMutex, and a writer claims the name by seeing nReaders
// at 0 under the same mutex. The two manual-reset events tell each side when to look again.
// The table is always finished with before a record's own objects are waited for, so a held
// name delays only the users of that name.
#include "namelock/NameLockInternal.h"

#include <atomic>
#include <cstring>

using velmora_namelock::WaitSucceeded;

namespace {

// bWriter is set under hStateMutex but cleared by the unlocking writer without it, and the
// writer reads back its own claim outside it, so every access is atomic. Clearing releases
// and reading acquires: a reader that sees the name free also sees what the writer wrote
// under the lock.
static_assert(std::atomic_ref<int>::required_alignment <= alignof(int));

int LoadWriter(_tagNameLock* pRecord) {
    return std::atomic_ref<int>(pRecord->bWriter).load(std::memory_order_acquire);
}

void StoreWriter(_tagNameLock* pRecord, int bValue) {
    std::atomic_ref<int>(pRecord->bWriter).store(bValue, std::memory_order_release);
}

// Releases hLock by its kind. Any thread may release the semaphore; the mutex only by the
// thread that owns it.
void ReleaseLock(_tagNameLock* pRecord, bool bUseMutex) {
    if (bUseMutex)
        ReleaseMutex(pRecord->hLock);
    else
        ReleaseSemaphore(pRecord->hLock, 1, nullptr);
}

// The part of an unlock that comes after the reference has gone, in its fixed order: the
// writer's mark is cleared and the readers are let go before hLock is released, so that the
// next writer can't have set the mark and reset the event already when we clear them.
// In exclusive mode there is no event.
void ClearWriterAndRelease(_tagNameLock* pRecord, bool bUseMutex) {
    StoreWriter(pRecord, 0);
    if (pRecord->hNoWriterEvent) SetEvent(pRecord->hNoWriterEvent);
    ReleaseLock(pRecord, bUseMutex);
}

// Cuts a name to the 63 characters of a guard's buffer; a null name is the empty name.
void CopyGuardName(char (&szTarget)[64], const char* szSource) {
    size_t nLength = szSource ? strnlen(szSource, sizeof(szTarget) - 1) : 0;
    if (nLength) std::memcpy(szTarget, szSource, nLength);
    szTarget[nLength] = '\0';
}

}  // namespace

bool CNameLock::LockName(const char* szName) { return TryLockName(szName, -1); }

bool CNameLock::TryLockName(const char* szName, int nTimeout) {
    // A name that is new while the pool is exhausted waits here without a limit: the
    // time-out is about other writers only.
    _tagNameLock* pRecord = AcquireName(szName);
    if (!pRecord) return false;

    // -1 is INFINITE; any other value is handed over as an unsigned count of milliseconds.
    const DWORD dwResult = WaitForSingleObject(pRecord->hLock, static_cast<DWORD>(nTimeout));
    if (dwResult != WAIT_OBJECT_0) {
        ReleaseName(szName);
        // The holder of the mutex ended without unlocking. The wait has made us the owner;
        // we finish the dead holder's unlock (its mark, its event, the mutex) so that the
        // name works again for the next caller, and report this call as failed: what the
        // lock guarded may have been left half done. The dead holder's own reference can't
        // be given back, so the name keeps its record.
        if (dwResult == WAIT_ABANDONED) ClearWriterAndRelease(pRecord, bUseMutex);
        return false;
    }
    if (!bReadWrite) return true;

    // We hold hLock; now the readers have to leave. New readers may still come in until we
    // have seen nReaders at 0 under hStateMutex, so we may have to wait again.
    for (;;) {
        if (!WaitSucceeded(pRecord->hNoReadersEvent, INFINITE)) {
            // Only a broken handle gets here. Keeping hLock and the reference would lock the
            // name for good, so both are given back.
            ReleaseName(szName);
            ReleaseLock(pRecord, bUseMutex);
            return false;
        }
        WaitForSingleObject(pRecord->hStateMutex, INFINITE);
        if (pRecord->nReaders == 0) {
            ResetEvent(pRecord->hNoWriterEvent);
            StoreWriter(pRecord, 1);
        }
        ReleaseMutex(pRecord->hStateMutex);
        if (LoadWriter(pRecord) != 0) return true;
    }
}

bool CNameLock::ReadLockName(const char* szName) {
    if (!bReadWrite) return false;
    _tagNameLock* pRecord = AcquireName(szName);
    if (!pRecord) return false;

    for (;;) {
        if (!WaitSucceeded(pRecord->hNoWriterEvent, INFINITE)) {
            // Only a broken handle gets here; the reference is given back rather than kept.
            ReleaseName(szName);
            return false;
        }
        // A writer can claim the name between the event and the state mutex; we then go
        // back and wait for it to finish.
        WaitForSingleObject(pRecord->hStateMutex, INFINITE);
        bool bTaken = false;
        if (LoadWriter(pRecord) == 0) {
            if (++pRecord->nReaders == 1) ResetEvent(pRecord->hNoReadersEvent);
            bTaken = true;
        }
        ReleaseMutex(pRecord->hStateMutex);
        if (bTaken) return true;
    }
}

void CNameLock::UnlockName(const char* szName) {
    // The reference goes first, so the record may already serve another name while we
    // finish; its new users wait on these same objects until we have.
    _tagNameLock* pRecord = ReleaseName(szName);
    if (!pRecord) return;
    ClearWriterAndRelease(pRecord, bUseMutex);
}

void CNameLock::ReadUnlockName(const char* szName) {
    // In exclusive mode no read lock can exist. Going on would take away a holder's
    // reference and wait on a state mutex that isn't there, so nothing happens.
    if (!bReadWrite) return;
    _tagNameLock* pRecord = ReleaseName(szName);
    if (!pRecord) return;
    WaitForSingleObject(pRecord->hStateMutex, INFINITE);
    // Only a read unlock that no read lock matched finds the count at 0. Going below 0
    // would keep every writer of the record waiting for readers that don't exist.
    if (pRecord->nReaders > 0 && --pRecord->nReaders == 0) SetEvent(pRecord->hNoReadersEvent);
    ReleaseMutex(pRecord->hStateMutex);
}

// The guard locks and unlocks its own copy of the name, so both ends always use the same
// key. A name longer than 63 characters is cut to fit: names that agree in their first 63
// characters then share one lock through guards, which can hold out more threads than needed
// but never lets two in. A null name is taken as the empty name: the guard has no room to
// note a refusal, and an unlock of a name it never locked could take away somebody else's.
CSmartNameLock::CSmartNameLock(const char* szLockName) {
    CopyGuardName(szName, szLockName);
    // Without a manager there is nothing to lock; the destructor then does nothing either.
    if (_G_pNameLock) _G_pNameLock->LockName(szName);
}

CSmartNameLock::~CSmartNameLock() {
    // Unlocks whether or not the lock succeeded: the guard keeps no note of it.
    if (_G_pNameLock) _G_pNameLock->UnlockName(szName);
}

CSmartNameLock& CSmartNameLock::operator=(const CSmartNameLock& other) {
    if (this != &other) std::memcpy(szName, other.szName, sizeof(szName));
    return *this;
}
