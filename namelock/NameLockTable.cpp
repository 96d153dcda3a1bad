// The table of the name lock manager: a pool of records built once, a free list and a used
// list through the records' own links, and the ordered map from names in use to records.
// A name takes a record when its first user arrives and gives it back when its last user
// leaves; hTableMutex guards all of that and is held for the list work of one call only.
#include "namelock/NameLockInternal.h"

#include <cstring>
#include <new>
#include <string>

using velmora_namelock::WaitSucceeded;

namespace {

// Closes whatever a record holds; used for records that never made it into the pool and by
// the destructor.
void CloseRecordHandles(_tagNameLock* pRecord) {
    if (pRecord->hLock) CloseHandle(pRecord->hLock);
    if (pRecord->hStateMutex) CloseHandle(pRecord->hStateMutex);
    if (pRecord->hNoWriterEvent) CloseHandle(pRecord->hNoWriterEvent);
    if (pRecord->hNoReadersEvent) CloseHandle(pRecord->hNoReadersEvent);
}

void FreeList(_tagNameLock* pHead) {
    while (pHead) {
        _tagNameLock* pNext = pHead->pNext;
        CloseRecordHandles(pHead);
        delete pHead;
        pHead = pNext;
    }
}

// The table's key of a name: the whole name, whatever its length (only a record's copy is
// cut to its 63 characters). It is built before the table is locked, so that running out of
// memory leaves nothing to undo. False for a null name or without memory: the caller then
// treats the name like one it can't find.
bool MakeKey(const char* szName, std::string& key) {
    if (szName == nullptr) return false;
    try {
        key.assign(szName);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

}  // namespace

CNameLock::CNameLock(int nCount, bool bUseMutexKind, bool bReaderWriter)
    : bReadWrite(bReaderWriter),
      bUseMutex(bUseMutexKind),
      hTableMutex(CreateMutexA(nullptr, FALSE, nullptr)),
      hFreeEvent(CreateEventA(nullptr, TRUE, TRUE, nullptr)),
      pFreeList(nullptr),
      pUsedList(nullptr) {
    // An nCount below 1 leaves the pool empty; AcquireName then refuses every new name
    // rather than waiting for a record that can never come back.
    for (int i = 0; i < nCount; ++i) {
        // The library throws nothing: a record that can't be allocated, or whose objects
        // can't all be created, ends the building and the pool stays smaller. A record with
        // a missing object would only make every lock of the names it serves fail.
        _tagNameLock* pRecord = new (std::nothrow) _tagNameLock;
        if (!pRecord) break;
        pRecord->szName[0] = '\0';
        pRecord->hLock = bUseMutex ? CreateMutexA(nullptr, FALSE, nullptr)
                                   : CreateSemaphoreA(nullptr, 1, 1, nullptr);
        pRecord->hStateMutex = nullptr;
        pRecord->hNoWriterEvent = nullptr;
        pRecord->hNoReadersEvent = nullptr;
        pRecord->nUsers = 0;
        pRecord->bWriter = 0;
        pRecord->nReaders = 0;
        bool bComplete = pRecord->hLock != nullptr;
        if (bReadWrite) {
            pRecord->hStateMutex = CreateMutexA(nullptr, FALSE, nullptr);
            pRecord->hNoWriterEvent = CreateEventA(nullptr, TRUE, TRUE, nullptr);
            pRecord->hNoReadersEvent = CreateEventA(nullptr, TRUE, TRUE, nullptr);
            bComplete = bComplete && pRecord->hStateMutex && pRecord->hNoWriterEvent &&
                        pRecord->hNoReadersEvent;
        }
        if (!bComplete) {
            CloseRecordHandles(pRecord);
            delete pRecord;
            break;
        }
        pRecord->pPrev = nullptr;
        pRecord->pNext = pFreeList;
        if (pFreeList) pFreeList->pPrev = pRecord;
        pFreeList = pRecord;
    }
}

CNameLock::~CNameLock() {
    // No lock and no count is looked at: every record goes, in use or not.
    if (hTableMutex) CloseHandle(hTableMutex);
    if (hFreeEvent) CloseHandle(hFreeEvent);
    FreeList(pFreeList);
    pFreeList = nullptr;
    FreeList(pUsedList);
    pUsedList = nullptr;
}

_tagNameLock* CNameLock::AcquireName(const char* szName) {
    // A null name, or no memory for its key, is refused like any other failure.
    std::string key;
    if (!MakeKey(szName, key)) return nullptr;

    for (;;) {
        if (!WaitSucceeded(hTableMutex, INFINITE)) return nullptr;

        _tagNameLock* pRecord = nullptr;
        bool bRefused = false;
        auto it = mapNames.lower_bound(key);
        if (it != mapNames.end() && it->first == key) {
            // A later user: it shares the record and waits like everybody else.
            pRecord = it->second;
            ++pRecord->nUsers;
        } else if (pFreeList) {
            // The first user takes the head of the free list. The map entry is made first:
            // it is the one step that can fail (no memory for the node), and it fails
            // before any list has changed.
            try {
                it = mapNames.emplace_hint(it, std::move(key), pFreeList);
            } catch (const std::bad_alloc&) {
                bRefused = true;
            }
            if (!bRefused) {
                pRecord = pFreeList;
                pFreeList = pRecord->pNext;
                if (pFreeList) pFreeList->pPrev = nullptr;

                pRecord->pNext = pUsedList;
                pRecord->pPrev = nullptr;
                if (pUsedList) pUsedList->pPrev = pRecord;
                pUsedList = pRecord;

                const std::string& name = it->first;
                size_t nLength = name.size() < sizeof(pRecord->szName) - 1
                                     ? name.size()
                                     : sizeof(pRecord->szName) - 1;
                std::memcpy(pRecord->szName, name.data(), nLength);
                pRecord->szName[nLength] = '\0';
                pRecord->nUsers = 1;

                // Whoever takes the last free record resets the event, still under the table
                // mutex, so that the next new name sleeps until a record comes back.
                if (!pFreeList) ResetEvent(hFreeEvent);
            }
        } else if (!pUsedList) {
            // No record exists at all (the pool was built empty), so none can ever come
            // back: waiting would spin on the signalled event for ever.
            bRefused = true;
        }
        ReleaseMutex(hTableMutex);

        if (pRecord) return pRecord;
        if (bRefused) return nullptr;
        // The pool is exhausted. Wait for a record to come back, then look again from the
        // start: meanwhile another thread may have brought this name into the table (we
        // then join it), or taken the record that came back (we then wait again).
        if (!WaitSucceeded(hFreeEvent, INFINITE)) return nullptr;
    }
}

_tagNameLock* CNameLock::ReleaseName(const char* szName) {
    // Without a key the reference can't be found: nothing changes, as for an unknown name.
    std::string key;
    if (!MakeKey(szName, key)) return nullptr;

    if (!WaitSucceeded(hTableMutex, INFINITE)) return nullptr;

    auto it = mapNames.find(key);
    if (it == mapNames.end()) {
        ReleaseMutex(hTableMutex);
        return nullptr;
    }
    _tagNameLock* pRecord = it->second;
    if (--pRecord->nUsers != 0) {
        ReleaseMutex(hTableMutex);
        return pRecord;
    }

    // The last reference: the name leaves the table and the record goes back to the pool.
    if (pRecord->pPrev)
        pRecord->pPrev->pNext = pRecord->pNext;
    else
        pUsedList = pRecord->pNext;
    if (pRecord->pNext) pRecord->pNext->pPrev = pRecord->pPrev;

    const bool bPoolWasEmpty = pFreeList == nullptr;
    pRecord->pNext = pFreeList;
    pRecord->pPrev = nullptr;
    if (pFreeList) pFreeList->pPrev = pRecord;
    pRecord->szName[0] = '\0';
    pFreeList = pRecord;
    mapNames.erase(it);

    ReleaseMutex(hTableMutex);

    // Outside the table mutex: the waiters wake into a free table mutex. The record may be
    // taken again before this call; the waiters then go round once more and find the pool
    // empty again.
    if (bPoolWasEmpty) SetEvent(hFreeEvent);
    // The record is returned also when it is free again: the unlock operations still have to
    // balance its lock objects.
    return pRecord;
}
