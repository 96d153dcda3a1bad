// Named reader/writer locks: CNameLock and its scope guard CSmartNameLock.
// Included by Velmora.h; not meant to be included on its own.
//
// A caller names any resource by a string and locks that string; names need no
// registration. A fixed pool of records, built by the constructor, serves all names: a name
// holds a record only while some thread waits for it or holds it. The library never builds
// a CNameLock itself; the host builds one and stores it in _G_pNameLock for CSmartNameLock.
// Every object the manager creates is unnamed, so the locks work between the threads of one
// process only.
//
// Field orders, types and the class layouts below are part of the contract with hosts.
#pragma once

#include "VelmoraPlatform.h"

#include <map>
#include <string>

// One record of the pool. While free it is on the free list with an empty name and no
// users; while used it is on the used list and in mapNames under its name.
struct _tagNameLock {
    char szName[64];          // copy of the name (cut to 63 characters); empty while free
    HANDLE hLock;             // the exclusive lock: a mutex, or a semaphore of one permit
    HANDLE hStateMutex;       // guards bWriter = 1 and nReaders; null in exclusive mode
    HANDLE hNoWriterEvent;    // manual reset, signalled while no writer has the name
    HANDLE hNoReadersEvent;   // manual reset, signalled while no reader has the name
    int nUsers;               // lock operations in progress or held on the name
    int bWriter;              // 1 while a writer has the name
    int nReaders;             // read locks held on the name
    _tagNameLock* pNext;      // toward the tail of the list that holds the record
    _tagNameLock* pPrev;      // toward the head
};

class VELMORA_API CNameLock {
public:
    // Builds a pool of nCount records. bUseMutex: hLock is a mutex (only the locking thread
    // may unlock, and it may lock again) rather than a semaphore (any thread may unlock).
    // bReadWrite: names are reader/writer locks rather than plain exclusive locks.
    CNameLock(int nCount, bool bUseMutex, bool bReadWrite);
    // Closes every handle and frees every record, in use or not. No thread may be inside the
    // manager or hold a name any more.
    ~CNameLock();
    // The manager owns kernel objects and records: it is neither copied nor assigned.
    CNameLock(const CNameLock&) = delete;
    CNameLock& operator=(const CNameLock&) = delete;

    // Takes the name exclusively (as the writer in read-write mode), with no time-out.
    bool LockName(const char* szName);
    // As LockName; nTimeout (ms, -1 no limit, 0 one look) limits only the wait for another
    // writer or holder, not the wait for readers to leave nor for a free record.
    bool TryLockName(const char* szName, int nTimeout);
    // Takes the name as a reader; false at once in exclusive mode.
    bool ReadLockName(const char* szName);
    // Gives back a lock taken by LockName or TryLockName.
    void UnlockName(const char* szName);
    // Gives back a lock taken by ReadLockName.
    void ReadUnlockName(const char* szName);

protected:
    // Takes one reference on a name, blocking while the pool is exhausted. Null on failure.
    _tagNameLock* AcquireName(const char* szName);
    // Gives one reference back; the record (also when it has just gone back to the pool), or
    // null when the name isn't in the table.
    _tagNameLock* ReleaseName(const char* szName);

public:
    bool bReadWrite;
    bool bUseMutex;
    HANDLE hTableMutex;   // guards both lists, mapNames, and each record's nUsers, szName, links
    HANDLE hFreeEvent;    // manual reset; reset when the last free record is taken, set when one
                          // comes back to the empty pool
    _tagNameLock* pFreeList;  // a stack: the record given back last is taken first
    _tagNameLock* pUsedList;
    std::map<std::string, _tagNameLock*> mapNames;  // whole names, compared bytewise
};

// Holds a name of _G_pNameLock for a scope: LockName on construction, UnlockName on
// destruction, both with the guard's own copy of the name.
class VELMORA_API CSmartNameLock {
public:
    explicit CSmartNameLock(const char* szName);
    ~CSmartNameLock();
    // A copy would unlock the name twice.
    CSmartNameLock(const CSmartNameLock&) = delete;
    // Copies the name and touches no lock.
    CSmartNameLock& operator=(const CSmartNameLock& other);

    char szName[64];
};
