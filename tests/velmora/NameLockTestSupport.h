// Helpers of the name lock tests: a way into the protected table operations, a consistent
// picture of the table taken under its own mutex, the invariants of the table, and threads
// that can be waited for with a bound so that no test hangs.
//
// No helper asserts that something happened within a short time. kLong bounds what has to
// happen; kShort is only the time a thread is given before we check that it is still
// blocked, which a slow machine can make pass vacuously but never fail.
#pragma once

#include "include/Velmora.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace velmora_namelock_test {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kLong = 20s;
constexpr std::chrono::milliseconds kShort = 150ms;

// The manager with its table operations reachable.
class NameLockProbe : public CNameLock {
public:
    using CNameLock::CNameLock;
    using CNameLock::AcquireName;
    using CNameLock::ReleaseName;
};

struct NameEntry {
    _tagNameLock* pRecord;
    int nUsers;
    bool operator==(const NameEntry&) const = default;
};

// What the table holds at one moment.
struct TableSnapshot {
    std::vector<_tagNameLock*> freeList;  // from the head
    std::vector<_tagNameLock*> usedList;  // from the head
    std::map<std::string, NameEntry> names;
    bool operator==(const TableSnapshot&) const = default;
};

// Runs fn while holding the table mutex, so that the table is read as its operations leave
// it and with a happens-before edge to them.
template <class Fn>
auto UnderTableMutex(CNameLock& lock, Fn fn) {
    EXPECT_EQ(WaitForSingleObject(lock.hTableMutex, INFINITE), WAIT_OBJECT_0);
    struct Release {
        HANDLE h;
        ~Release() { ReleaseMutex(h); }
    } release{lock.hTableMutex};
    return fn();
}

inline TableSnapshot Snapshot(CNameLock& lock) {
    return UnderTableMutex(lock, [&] {
        TableSnapshot s;
        // Bounded walks: a cycle in a broken list must not hang the test.
        for (_tagNameLock* p = lock.pFreeList; p && s.freeList.size() < 10000; p = p->pNext)
            s.freeList.push_back(p);
        for (_tagNameLock* p = lock.pUsedList; p && s.usedList.size() < 10000; p = p->pNext)
            s.usedList.push_back(p);
        for (const auto& [name, p] : lock.mapNames) s.names[name] = NameEntry{p, p->nUsers};
        return s;
    });
}

// Users of a name, 0 when it isn't in the table.
inline int UsersOf(CNameLock& lock, const std::string& name) {
    TableSnapshot s = Snapshot(lock);
    auto it = s.names.find(name);
    return it == s.names.end() ? 0 : it->second.nUsers;
}

inline _tagNameLock* RecordOf(CNameLock& lock, const std::string& name) {
    TableSnapshot s = Snapshot(lock);
    auto it = s.names.find(name);
    return it == s.names.end() ? nullptr : it->second.pRecord;
}

// Every invariant of the table, for a pool built with nCount records.
inline ::testing::AssertionResult TableIsConsistent(CNameLock& lock, int nCount) {
    return UnderTableMutex(lock, [&]() -> ::testing::AssertionResult {
        std::set<_tagNameLock*> seen;
        size_t nFree = 0, nUsed = 0;
        auto walk = [&](_tagNameLock* pHead, bool bFree,
                        size_t* pSize) -> ::testing::AssertionResult {
            const char* list = bFree ? "free list" : "used list";
            _tagNameLock* pPrev = nullptr;
            for (_tagNameLock* p = pHead; p; pPrev = p, p = p->pNext) {
                if (!seen.insert(p).second)
                    return ::testing::AssertionFailure() << "record met twice, on the " << list;
                if (p->pPrev != pPrev)
                    return ::testing::AssertionFailure() << "broken back link on the " << list;
                ++*pSize;
                if (bFree) {
                    if (p->nUsers != 0 || p->szName[0] != '\0')
                        return ::testing::AssertionFailure()
                               << "free record with users " << p->nUsers << " and name '"
                               << p->szName << "'";
                } else {
                    if (p->nUsers < 1)
                        return ::testing::AssertionFailure() << "used record without users";
                    bool bMapped = false;
                    for (const auto& [name, pMapped] : lock.mapNames)
                        if (pMapped == p) {
                            bMapped = true;
                            if (name.substr(0, 63) != p->szName)
                                return ::testing::AssertionFailure()
                                       << "record named '" << p->szName << "' mapped as '"
                                       << name << "'";
                        }
                    if (!bMapped)
                        return ::testing::AssertionFailure() << "used record not in the map";
                }
            }
            return ::testing::AssertionSuccess();
        };
        if (auto r = walk(lock.pFreeList, true, &nFree); !r) return r;
        if (auto r = walk(lock.pUsedList, false, &nUsed); !r) return r;
        if (nUsed != lock.mapNames.size())
            return ::testing::AssertionFailure()
                   << nUsed << " used records for " << lock.mapNames.size() << " names";
        for (const auto& [name, p] : lock.mapNames)
            if (!seen.count(p))
                return ::testing::AssertionFailure() << "'" << name << "' maps off the lists";
        if (int(nFree + lock.mapNames.size()) != nCount)
            return ::testing::AssertionFailure() << nFree << " free records and "
                                                 << lock.mapNames.size() << " names, pool of "
                                                 << nCount;
        return ::testing::AssertionSuccess();
    });
}

// Whether a manual-reset event is signalled; looking doesn't change it.
inline bool IsSignalled(HANDLE hEvent) { return WaitForSingleObject(hEvent, 0) == WAIT_OBJECT_0; }

// Whether some other thread holds a record's hLock. Taking it in passing gives it straight
// back.
inline bool HeldByAnother(HANDLE hLock, bool bUseMutex) {
    if (WaitForSingleObject(hLock, 0) != WAIT_OBJECT_0) return true;
    if (bUseMutex)
        ReleaseMutex(hLock);
    else
        ReleaseSemaphore(hLock, 1, nullptr);
    return false;
}

// nReaders and bWriter of a record, read under its state mutex.
struct ReaderState {
    int nReaders;
    int bWriter;
};
inline ReaderState StateOf(_tagNameLock* pRecord) {
    EXPECT_EQ(WaitForSingleObject(pRecord->hStateMutex, INFINITE), WAIT_OBJECT_0);
    ReaderState s{pRecord->nReaders,
                  std::atomic_ref<int>(pRecord->bWriter).load(std::memory_order_acquire)};
    ReleaseMutex(pRecord->hStateMutex);
    return s;
}

// Polls until pred holds; false if it still doesn't after the bound.
template <class Pred>
bool WaitUntil(Pred pred, std::chrono::milliseconds bound = kLong) {
    const auto end = std::chrono::steady_clock::now() + bound;
    for (;;) {
        if (pred()) return true;
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(1ms);
    }
}

// A function on a thread of its own. A thread that hasn't finished when the Worker goes (the
// test has failed by then) is left behind, so that the test ends instead of hanging.
template <class R>
class Worker {
public:
    explicit Worker(std::function<R()> fn) {
        std::packaged_task<R()> task(std::move(fn));
        m_result = task.get_future().share();
        m_thread = std::thread(std::move(task));
    }
    ~Worker() {
        if (!m_thread.joinable()) return;
        if (Done(0ms))
            m_thread.join();
        else
            m_thread.detach();
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    bool Done(std::chrono::milliseconds within) {
        return m_result.wait_for(within) == std::future_status::ready;
    }
    // The result; waits for it, so call once Done.
    R Get() { return m_result.get(); }

private:
    std::shared_future<R> m_result;
    std::thread m_thread;
};

// A thread that takes a lock, tells whether it got it, holds it until told, and then gives
// it back on the same thread (as a mutex-kind lock requires).
class Holder {
public:
    Holder(std::function<bool()> lock, std::function<void()> unlock)
        : m_go(m_release.get_future()),
          m_lockedResult(m_locked.get_future().share()),
          m_worker([this, lock = std::move(lock), unlock = std::move(unlock)] {
              bool bLocked = lock();
              m_locked.set_value(bLocked);
              if (bLocked) {
                  // Bounded, so that a failed test's holder still lets go.
                  m_go.wait_for(kLong);
                  unlock();
              }
              return bLocked;
          }) {}
    ~Holder() { Release(); m_worker.Done(kLong); }

    // True once the lock call has returned, whatever it returned.
    bool Returned(std::chrono::milliseconds within) {
        return m_lockedResult.wait_for(within) == std::future_status::ready;
    }
    // What the lock call returned; waits for it, so call after Returned.
    bool Locked() { return m_lockedResult.get(); }
    // Tells the holder to unlock; true once it has.
    bool Release(std::chrono::milliseconds within = kLong) {
        if (!m_released) {
            m_released = true;
            m_release.set_value();
        }
        return m_worker.Done(within);
    }

private:
    std::promise<void> m_release;
    std::future<void> m_go;
    std::promise<bool> m_locked;
    std::shared_future<bool> m_lockedResult;
    bool m_released = false;
    Worker<bool> m_worker;  // last: its thread uses everything above
};

}  // namespace velmora_namelock_test
