// Helpers of the name lock tests: the table operations, a picture of the table, its invariants, and
// threads waited for with a bound. kLong bounds what has to happen; kShort is the time a thread is
// given before we check that it is still blocked (a slow machine can make that pass, never fail).
#pragma once

#include "include/Velmora.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace velmora_namelock_test {

using namespace std::chrono_literals;
constexpr std::chrono::milliseconds kLong = 20s, kShort = 150ms;

struct NameLockProbe : CNameLock { using CNameLock::CNameLock, CNameLock::AcquireName, CNameLock::ReleaseName; };

// Runs fn holding the table mutex, so that the table is read as its operations leave it.
template <class Fn>
auto UnderTableMutex(CNameLock& lock, Fn fn) {
    EXPECT_EQ(WaitForSingleObject(lock.hTableMutex, INFINITE), WAIT_OBJECT_0);
    std::unique_ptr<void, BOOL (*)(HANDLE)> release(lock.hTableMutex, ReleaseMutex);
    return fn();
}

struct TableSnapshot {
    std::vector<_tagNameLock*> freeList;                         // from the head
    std::map<std::string, std::pair<_tagNameLock*, int>> names;  // record and users
    bool operator==(const TableSnapshot&) const = default;
};
inline TableSnapshot Snapshot(CNameLock& lock) {
    return UnderTableMutex(lock, [&] {
        TableSnapshot s;  // bounded walks: a cycle in a broken list must not hang the test
        for (_tagNameLock* p = lock.pFreeList; p && s.freeList.size() < 999; p = p->pNext) s.freeList.push_back(p);
        for (const auto& [name, p] : lock.mapNames) s.names[name] = {p, p->nUsers};
        return s;
    });
}
inline int UsersOf(CNameLock& lock, const std::string& name) { return Snapshot(lock).names[name].second; }

// The table's invariants for a pool of nCount: each record once on one list, back links right; free
// records without users and name; each used one with users, of one name, named its first 63 characters.
inline ::testing::AssertionResult TableIsConsistent(CNameLock& lock, int nCount) {
    return UnderTableMutex(lock, [&]() -> ::testing::AssertionResult {
        std::map<_tagNameLock*, std::string> mapped;
        for (const auto& [name, p] : lock.mapNames) mapped[p] = name.substr(0, 63);
        std::set<_tagNameLock*> seen;
        size_t nUsed = 0;
        for (bool bFree : {true, false}) {
            for (_tagNameLock *p = bFree ? lock.pFreeList : lock.pUsedList, *pPrev = nullptr; p; pPrev = p, p = p->pNext) {
                nUsed += !bFree;
                const bool bRight = bFree ? p->nUsers == 0 && !p->szName[0] && !mapped.count(p)
                                          : p->nUsers > 0 && mapped.count(p) && mapped[p] == p->szName;
                if (!seen.insert(p).second || p->pPrev != pPrev || !bRight)
                    return ::testing::AssertionFailure() << "record '" << p->szName << "', " << p->nUsers << " users, free " << bFree;
            }
        }
        if (seen.size() != size_t(nCount) || nUsed != lock.mapNames.size() || mapped.size() != nUsed)
            return ::testing::AssertionFailure() << seen.size() << " records, " << nUsed << " used, " << lock.mapNames.size() << " names";
        return ::testing::AssertionSuccess();
    });
}

// Whether a manual-reset event is signalled; looking doesn't change it.
inline bool IsSignalled(HANDLE hEvent) { return WaitForSingleObject(hEvent, 0) == WAIT_OBJECT_0; }
// Whether another thread holds a record's hLock; taking it in passing gives it straight back.
inline bool HeldByAnother(HANDLE hLock, bool bUseMutex) {
    return WaitForSingleObject(hLock, 0) != WAIT_OBJECT_0 || !(bUseMutex ? ReleaseMutex(hLock) : ReleaseSemaphore(hLock, 1, nullptr));
}

// Polls until pred holds; false if it still doesn't after the bound.
template <class Pred>
bool WaitUntil(Pred pred, std::chrono::milliseconds bound = kLong) {
    for (auto end = std::chrono::steady_clock::now() + bound; !pred(); std::this_thread::sleep_for(1ms))
        if (std::chrono::steady_clock::now() >= end) return false;
    return true;
}

// A call on a thread of its own; one still running when the Worker goes (a failed test) is left behind.
class Worker {
public:
    explicit Worker(std::function<bool()> fn) : m_task(std::move(fn)), m_result(m_task.get_future().share()) {
        m_thread = std::thread(std::move(m_task));
    }
    ~Worker() { Done(0ms) ? m_thread.join() : m_thread.detach(); }
    bool Done(std::chrono::milliseconds within) { return m_result.wait_for(within) == std::future_status::ready; }
    ::testing::AssertionResult Returns(bool bExpected) {  // whether the call came back within kLong with bExpected
        if (!Done(kLong)) return ::testing::AssertionFailure() << "the call didn't come back";
        return m_result.get() == bExpected ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << "it returned " << !bExpected;
    }

private:
    std::packaged_task<bool()> m_task;
    std::shared_future<bool> m_result;
    std::thread m_thread;
};

// A write lock (TryLockName, -1: no limit) held on a thread of its own until Release, and given back there.
struct Holder {
    Holder(CNameLock& lock, std::string name, int nTimeout = -1)
        : worker([&lock, name, nTimeout, this] {
              bLocked = lock.TryLockName(name.c_str(), nTimeout), bReturned = true;
              if (bLocked) WaitUntil([&] { return bRelease.load(); }), lock.UnlockName(name.c_str());
              return bLocked.load();
          }) {}
    ~Holder() { Release(); }
    bool Returned(std::chrono::milliseconds within) { return WaitUntil([&] { return bReturned.load(); }, within); }
    bool Locked() { return Returned(kLong) && bLocked; }
    bool Release() { return bRelease = true, worker.Done(kLong); }  // true once it has unlocked
    std::atomic<bool> bLocked{false}, bReturned{false}, bRelease{false};
    Worker worker;  // last: its thread uses everything above
};

}  // namespace velmora_namelock_test
