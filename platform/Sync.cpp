// Events, mutexes, semaphores, WaitForSingleObject and CloseHandle.
//
// Every object keeps its state under a std::mutex and wakes its waiters through a
// std::condition_variable; timed waits run on the steady clock, so changing the wall clock
// doesn't stretch or cut them. Named mutexes are machine-wide (NamedObjects.cpp). Named
// events and semaphores are only shared inside the process: the service layer creates them
// without names, and nothing it talks to expects to open them from another process. Their
// names live in a namespace of their own, apart from the names of mutexes.
#include "SyncInternal.h"

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace velmora_platform {
namespace {

// ---- Owner tokens and the mutexes each thread owns -----------------------------------

std::atomic<uint64_t> g_nextToken{1};
thread_local uint64_t t_token = 0;

// The mutexes the thread owns, so that they can be abandoned when it ends. Entries are
// weak: a mutex whose last handle is closed goes away even while owned.
struct OwnedMutexes {
    std::vector<std::weak_ptr<MutexObject>> mutexes;
    ~OwnedMutexes();
};

// Set once the thread's registry has been destroyed. The flag itself has no destructor, so
// thread_local destructors that run later may still read it; mutexes they take are not
// tracked.
thread_local bool t_ownedGone = false;
thread_local OwnedMutexes t_owned;

void AbandonAll(std::vector<std::weak_ptr<MutexObject>>& list) {
    std::vector<std::weak_ptr<MutexObject>> owned;
    owned.swap(list);
    const uint64_t me = CurrentThreadToken();
    for (auto& weak : owned)
        if (auto mutex = weak.lock()) mutex->Abandon(me);
}

OwnedMutexes::~OwnedMutexes() {
    t_ownedGone = true;
    AbandonAll(mutexes);
}

void RegisterOwned(MutexObject& mutex) {
    if (t_ownedGone) return;
    t_owned.mutexes.push_back(mutex.weak_from_this());
}

void UnregisterOwned(MutexObject& mutex) {
    if (t_ownedGone) return;
    auto& list = t_owned.mutexes;
    std::weak_ptr<MutexObject> self = mutex.weak_from_this();
    auto same = [&](const std::weak_ptr<MutexObject>& entry) {
        return !entry.owner_before(self) && !self.owner_before(entry);
    };
    auto it = std::find_if(list.rbegin(), list.rend(), same);
    if (it != list.rend()) list.erase(std::next(it).base());
}

// ---- Names of events and semaphores (process-local) ----------------------------------

// An event or a semaphore, optionally named. A named one is found by name while any handle
// to it is open.
class LocalObject : public KernelObject {
public:
    using KernelObject::KernelObject;
    void OnHandleClosed() override;

    std::string m_name;      // empty: unnamed
    size_t m_handles = 0;    // open handles of a named object, under LocalNames::lock
};

struct LocalNames {
    std::mutex lock;
    std::unordered_map<std::string, std::shared_ptr<LocalObject>> objects;
};

LocalNames& Names() {
    // Never destroyed, like the handle table: handles may be closed by static destructors.
    static LocalNames* names = new LocalNames;
    return *names;
}

void LocalObject::OnHandleClosed() {
    if (m_name.empty()) return;
    LocalNames& names = Names();
    std::lock_guard<std::mutex> lock(names.lock);
    if (--m_handles == 0) names.objects.erase(m_name);
}

// Enters a new object, or for a name that is in use a new handle to the existing object
// (ERROR_ALREADY_EXISTS; an object of another kind fails with ERROR_INVALID_HANDLE).
template <class Make>
HANDLE CreateLocalObject(const char* name, KernelObject::Kind kind, Make make) {
    if (name == nullptr || *name == '\0') {
        std::shared_ptr<LocalObject> object = make();
        HANDLE handle = InsertHandle(object);
        if (handle) SetLastError(ERROR_SUCCESS);
        return handle;
    }
    LocalNames& names = Names();
    std::lock_guard<std::mutex> lock(names.lock);
    auto it = names.objects.find(name);
    if (it != names.objects.end()) {
        if (it->second->kind() != kind) {
            SetLastError(ERROR_INVALID_HANDLE);
            return nullptr;
        }
        HANDLE handle = InsertHandle(it->second);
        if (!handle) return nullptr;
        ++it->second->m_handles;
        SetLastError(ERROR_ALREADY_EXISTS);
        return handle;
    }
    std::shared_ptr<LocalObject> object = make();
    object->m_name = name;
    HANDLE handle = InsertHandle(object);
    if (!handle) return nullptr;
    object->m_handles = 1;
    names.objects.emplace(object->m_name, std::move(object));
    SetLastError(ERROR_SUCCESS);
    return handle;
}

// ---- Events --------------------------------------------------------------------------

class EventObject : public LocalObject {
public:
    EventObject(bool manualReset, bool signalled)
        : LocalObject(Kind::Event), m_manualReset(manualReset), m_signalled(signalled) {}

    DWORD Wait(DWORD dwMilliseconds) override {
        const Deadline deadline(dwMilliseconds);
        std::unique_lock<std::mutex> lock(m_lock);
        // A SetEvent of a manual-reset event releases every thread waiting at that moment,
        // even one that doesn't get to run before a ResetEvent that follows at once: the
        // count of SetEvent calls tells such a waiter that it was released.
        const uint64_t setsAtStart = m_sets;
        auto released = [&] { return m_signalled || (m_manualReset && m_sets != setsAtStart); };
        if (!deadline.WaitFor(m_cv, lock, released)) return WAIT_TIMEOUT;
        // An automatic-reset event lets exactly one waiter through per SetEvent.
        if (!m_manualReset) m_signalled = false;
        return WAIT_OBJECT_0;
    }

    void Set() {
        std::lock_guard<std::mutex> lock(m_lock);
        m_signalled = true;
        ++m_sets;
        // A woken waiter that finds the event taken by a newcomer waits on: the SetEvent
        // still let exactly one thread through.
        if (m_manualReset)
            m_cv.notify_all();
        else
            m_cv.notify_one();
    }

    void Reset() {
        std::lock_guard<std::mutex> lock(m_lock);
        m_signalled = false;
    }

private:
    const bool m_manualReset;
    bool m_signalled;
    uint64_t m_sets = 0;  // SetEvent calls so far
    std::mutex m_lock;
    std::condition_variable m_cv;
};

// ---- Semaphores ----------------------------------------------------------------------

class SemaphoreObject : public LocalObject {
public:
    SemaphoreObject(LONG initial, LONG maximum)
        : LocalObject(Kind::Semaphore), m_count(initial), m_maximum(maximum) {}

    DWORD Wait(DWORD dwMilliseconds) override {
        const Deadline deadline(dwMilliseconds);
        std::unique_lock<std::mutex> lock(m_lock);
        if (!deadline.WaitFor(m_cv, lock, [&] { return m_count > 0; })) return WAIT_TIMEOUT;
        --m_count;
        return WAIT_OBJECT_0;
    }

    BOOL Release(LONG count, LONG* previous) {
        std::lock_guard<std::mutex> lock(m_lock);
        if (int64_t(m_count) + count > m_maximum) {
            SetLastError(ERROR_TOO_MANY_POSTS);
            return FALSE;
        }
        if (previous) *previous = m_count;
        m_count += count;
        if (count == 1)
            m_cv.notify_one();
        else
            m_cv.notify_all();
        return TRUE;
    }

private:
    LONG m_count;
    const LONG m_maximum;
    std::mutex m_lock;
    std::condition_variable m_cv;
};

}  // namespace

// ---- Shared with the thread functions ------------------------------------------------

uint64_t CurrentThreadToken() {
    if (t_token == 0) t_token = g_nextToken.fetch_add(1, std::memory_order_relaxed);
    return t_token;
}

void AbandonOwnedMutexes() {
    if (!t_ownedGone) AbandonAll(t_owned.mutexes);
}

// ---- Mutexes -------------------------------------------------------------------------

DWORD MutexObject::Wait(DWORD dwMilliseconds) {
    const uint64_t me = CurrentThreadToken();
    const Deadline deadline(dwMilliseconds);
    std::unique_lock<std::mutex> lock(m_lock);
    if (m_owner == me) {
        // Only the owner itself can get here while it owns the mutex: it re-enters.
        ++m_count;
        return WAIT_OBJECT_0;
    }
    if (!deadline.WaitFor(m_cv, lock, [&] { return m_owner == 0; })) return WAIT_TIMEOUT;
    // Claimed for this thread: other threads of the process wait on m_cv meanwhile, so
    // only one thread of the process at a time goes for the machine-wide part.
    m_owner = me;
    bool abandoned = false;
    if (HasMachineWidePart()) {
        lock.unlock();
        bool acquired = AcquireMachineWide(deadline, &abandoned);
        lock.lock();
        if (!acquired) {
            m_owner = 0;
            lock.unlock();
            m_cv.notify_one();
            return WAIT_TIMEOUT;
        }
    } else {
        abandoned = m_abandoned;
        m_abandoned = false;
    }
    m_count = 1;
    lock.unlock();
    RegisterOwned(*this);
    return abandoned ? WAIT_ABANDONED : WAIT_OBJECT_0;
}

bool MutexObject::AcquireMachineWide(const Deadline& deadline, bool* abandoned) {
    // Another process can't wake us, so the lock is polled: first quickly, for the common
    // case of a short hold, then every 10 ms.
    using namespace std::chrono;
    auto pause = milliseconds(1);
    for (;;) {
        if (TryAcquireMachineWide(abandoned)) return true;
        if (deadline.Passed()) return false;
        steady_clock::duration sleep = pause;
        if (!deadline.Infinite()) sleep = std::min(sleep, deadline.At() - steady_clock::now());
        if (sleep > steady_clock::duration::zero()) std::this_thread::sleep_for(sleep);
        pause = std::min(pause * 2, milliseconds(10));
    }
}

BOOL MutexObject::Release() {
    const uint64_t me = CurrentThreadToken();
    std::unique_lock<std::mutex> lock(m_lock);
    if (m_owner != me || m_count == 0) {
        SetLastError(ERROR_NOT_OWNER);
        return FALSE;
    }
    if (--m_count > 0) return TRUE;
    if (HasMachineWidePart()) ReleaseMachineWide(false);
    m_owner = 0;
    lock.unlock();
    m_cv.notify_one();
    UnregisterOwned(*this);
    return TRUE;
}

void MutexObject::Abandon(uint64_t ownerToken) {
    std::unique_lock<std::mutex> lock(m_lock);
    if (m_owner != ownerToken || m_count == 0) return;
    m_count = 0;
    m_owner = 0;
    if (HasMachineWidePart())
        ReleaseMachineWide(true);
    else
        m_abandoned = true;
    lock.unlock();
    m_cv.notify_one();
}

}  // namespace velmora_platform

using namespace velmora_platform;

// ---- The Win32 functions -------------------------------------------------------------

extern "C" HANDLE CreateEventA(LPSECURITY_ATTRIBUTES, BOOL bManualReset, BOOL bInitialState,
                               LPCSTR lpName) {
    return CreateLocalObject(lpName, KernelObject::Kind::Event, [&] {
        return std::make_shared<EventObject>(bManualReset != FALSE, bInitialState != FALSE);
    });
}

extern "C" BOOL SetEvent(HANDLE hEvent) {
    auto event = LookupHandleAs<EventObject>(hEvent, KernelObject::Kind::Event);
    if (!event) return FALSE;
    event->Set();
    return TRUE;
}

extern "C" BOOL ResetEvent(HANDLE hEvent) {
    auto event = LookupHandleAs<EventObject>(hEvent, KernelObject::Kind::Event);
    if (!event) return FALSE;
    event->Reset();
    return TRUE;
}

extern "C" HANDLE CreateMutexA(LPSECURITY_ATTRIBUTES, BOOL bInitialOwner, LPCSTR lpName) {
    if (lpName != nullptr && *lpName != '\0')
        return CreateNamedMutex(lpName, bInitialOwner != FALSE);
    auto mutex = std::make_shared<MutexObject>();
    // A fresh mutex is free, so a wait that doesn't wait takes it.
    if (bInitialOwner) mutex->Wait(0);
    HANDLE handle = InsertHandle(mutex);
    if (!handle) {
        if (bInitialOwner) mutex->Release();
        return nullptr;
    }
    SetLastError(ERROR_SUCCESS);
    return handle;
}

extern "C" HANDLE OpenMutexA(DWORD, BOOL, LPCSTR lpName) {
    if (lpName == nullptr || *lpName == '\0') {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return OpenNamedMutex(lpName);
}

extern "C" BOOL ReleaseMutex(HANDLE hMutex) {
    auto mutex = LookupHandleAs<MutexObject>(hMutex, KernelObject::Kind::Mutex);
    if (!mutex) return FALSE;
    return mutex->Release();
}

extern "C" HANDLE CreateSemaphoreA(LPSECURITY_ATTRIBUTES, LONG lInitialCount,
                                   LONG lMaximumCount, LPCSTR lpName) {
    if (lMaximumCount <= 0 || lInitialCount < 0 || lInitialCount > lMaximumCount) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return CreateLocalObject(lpName, KernelObject::Kind::Semaphore, [&] {
        return std::make_shared<SemaphoreObject>(lInitialCount, lMaximumCount);
    });
}

extern "C" BOOL ReleaseSemaphore(HANDLE hSemaphore, LONG lReleaseCount, LONG* lpPreviousCount) {
    auto semaphore = LookupHandleAs<SemaphoreObject>(hSemaphore, KernelObject::Kind::Semaphore);
    if (!semaphore) return FALSE;
    if (lReleaseCount <= 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    return semaphore->Release(lReleaseCount, lpPreviousCount);
}

extern "C" DWORD WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds) {
    if (hHandle == CurrentThreadPseudoHandle()) {
        // The calling thread can't see its own end: the wait lasts its whole time-out.
        if (dwMilliseconds == INFINITE)
            for (;;) std::this_thread::sleep_for(std::chrono::hours(24));
        std::this_thread::sleep_for(std::chrono::milliseconds(dwMilliseconds));
        return WAIT_TIMEOUT;
    }
    KernelObjectPtr object = LookupHandle(hHandle);
    if (!object) return WAIT_FAILED;
    // The reference held here keeps the object alive while we wait, even if its last
    // handle is closed meanwhile.
    return object->Wait(dwMilliseconds);
}

extern "C" BOOL CloseHandle(HANDLE hObject) {
    if (hObject == CurrentThreadPseudoHandle()) return TRUE;  // pseudo handles need no closing
    KernelObjectPtr object = RemoveHandle(hObject);
    if (!object) return FALSE;
    object->OnHandleClosed();
    return TRUE;
}
