// What the thread, synchronisation and named-object parts of the platform layer share.
//
// Threads need to abandon the mutexes they own when they end; named mutexes are mutexes
// with a machine-wide part. Nothing here is visible outside the library.
#pragma once

#include "KernelObject.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

namespace velmora_platform {

// GetCurrentThread(): a value no handle of the table can take (handles are multiples of 4).
inline HANDLE CurrentThreadPseudoHandle() { return reinterpret_cast<HANDLE>(intptr_t(-2)); }

// A number that names the calling thread for mutex ownership. Unlike kernel thread ids and
// pthread_t values it is never reused, so a new thread can't inherit a dead one's mutexes.
uint64_t CurrentThreadToken();

// Abandons every mutex the calling thread still owns. Called when a thread ends: by the
// start routine of the threads we create (before their handle is signalled), and by a
// thread_local destructor for every other thread.
void AbandonOwnedMutexes();

// The end of a wait of dwMilliseconds from now; INFINITE has no end, and 0 ends at once.
// Only a timed wait reads the clock: waits without a limit and one-look waits are the
// common ones on the lock paths, and the clock read was a good part of their cost.
class Deadline {
public:
    explicit Deadline(DWORD dwMilliseconds)
        : m_kind(dwMilliseconds == INFINITE ? Kind::Infinite
                 : dwMilliseconds == 0      ? Kind::Now
                                            : Kind::Timed) {
        if (m_kind == Kind::Timed)
            m_at = std::chrono::steady_clock::now() + std::chrono::milliseconds(dwMilliseconds);
    }

    bool Infinite() const { return m_kind == Kind::Infinite; }
    bool Passed() const {
        switch (m_kind) {
        case Kind::Infinite: return false;
        case Kind::Now: return true;
        case Kind::Timed: break;
        }
        return std::chrono::steady_clock::now() >= m_at;
    }
    // The end of a timed wait; for a one-look wait, a moment already past.
    std::chrono::steady_clock::time_point At() const { return m_at; }

    // Waits until pred() holds (true) or the deadline passes first (false).
    template <class Pred>
    bool WaitFor(std::condition_variable& cv, std::unique_lock<std::mutex>& lock, Pred pred) const {
        switch (m_kind) {
        case Kind::Infinite:
            cv.wait(lock, pred);
            return true;
        case Kind::Now:
            return pred();
        case Kind::Timed: break;
        }
        return cv.wait_until(lock, m_at, pred);
    }

private:
    enum class Kind { Infinite, Now, Timed };
    Kind m_kind;
    std::chrono::steady_clock::time_point m_at{};  // the clock's epoch unless timed
};

// A mutex: owned by one thread at a time, re-entrant with a recursion count, abandoned when
// its owner thread ends while holding it (the next wait returns WAIT_ABANDONED and takes
// ownership). A named mutex adds a machine-wide lock that its owner holds as well.
class MutexObject : public KernelObject, public std::enable_shared_from_this<MutexObject> {
public:
    MutexObject() : KernelObject(Kind::Mutex) {}

    DWORD Wait(DWORD dwMilliseconds) override;
    // ReleaseMutex: FALSE with ERROR_NOT_OWNER unless the calling thread owns the mutex.
    BOOL Release();
    // Gives up ownership if the thread of the token owns the mutex, as abandoned.
    void Abandon(uint64_t ownerToken);

protected:
    // The machine-wide part of a named mutex. Tries once to take it; on success,
    // *abandoned tells whether its previous owner ended without releasing it.
    virtual bool TryAcquireMachineWide(bool* abandoned) {
        *abandoned = false;
        return true;
    }
    // Gives the machine-wide part back; abandoned: the owner thread ended holding it.
    virtual void ReleaseMachineWide(bool abandoned) { (void)abandoned; }
    // Whether the machine-wide part can be held by another process (so a wait must poll
    // for it). A process-local mutex has nothing to wait for beyond its own threads.
    virtual bool HasMachineWidePart() const { return false; }

private:
    // Takes the machine-wide part, polling until the deadline; called by the claiming
    // thread without m_lock held.
    bool AcquireMachineWide(const Deadline& deadline, bool* abandoned);

    std::mutex m_lock;
    std::condition_variable m_cv;
    uint64_t m_owner = 0;    // token of the owner thread (or of the thread taking it), 0: free
    uint32_t m_count = 0;    // recursion count; 0 while the owner is still taking it
    bool m_abandoned = false;  // process-local mutexes only; named ones keep it machine-wide
};

// CreateMutexA / OpenMutexA for a non-empty name (NamedObjects.cpp). They set the last error
// as those functions do.
HANDLE CreateNamedMutex(const char* name, bool initialOwner);
HANDLE OpenNamedMutex(const char* name);

}  // namespace velmora_platform
