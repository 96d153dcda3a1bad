// Threads: _beginthreadex, CreateThread and what can be done with their handles.
//
// A thread runs detached: nobody joins it, and its handle may be closed while it runs. The
// thread object is shared by the handles and by the thread itself, so it lives until the
// thread has ended and the last handle is closed. WaitForSingleObject on a thread handle
// returns once the thread has ended; by then the mutexes it owned have been abandoned.
//
// Priorities are the Win32 values, kept per thread object. They are also applied as the
// nice value of the thread, relative to the nice value the process started with; raising it
// needs privileges we may not have, and the call doesn't fail for that.
#include "SyncInternal.h"

#include <algorithm>
#include <cerrno>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace velmora_platform {
namespace {

constexpr DWORD kStillActive = STILL_ACTIVE;

pid_t KernelThreadId() { return pid_t(syscall(SYS_gettid)); }

bool IsValidPriority(int priority) {
    return priority == THREAD_PRIORITY_IDLE || priority == THREAD_PRIORITY_TIME_CRITICAL ||
           (priority >= THREAD_PRIORITY_LOWEST && priority <= THREAD_PRIORITY_HIGHEST);
}

// The nice value that stands for a Win32 priority: five nice steps per priority step, the
// two saturating values at the ends of the nice range.
int NiceOf(int priority) {
    static const int base = [] {
        errno = 0;
        int nice = getpriority(PRIO_PROCESS, pid_t(getpid()));
        return errno == 0 ? nice : 0;
    }();
    if (priority == THREAD_PRIORITY_IDLE) return 19;
    if (priority == THREAD_PRIORITY_TIME_CRITICAL) return -20;
    return std::clamp(base - 5 * priority, -20, 19);
}

void ApplyPriority(pid_t tid, int priority) {
    // Best effort: without CAP_SYS_NICE a thread may lower itself but not rise again.
    int result = setpriority(PRIO_PROCESS, id_t(tid), NiceOf(priority));
    (void)result;
}

class ThreadObject : public KernelObject {
public:
    explicit ThreadObject(bool suspended)
        : KernelObject(Kind::Thread), m_suspendCount(suspended ? 1 : 0) {}

    DWORD Wait(DWORD dwMilliseconds) override {
        const Deadline deadline(dwMilliseconds);
        std::unique_lock<std::mutex> lock(m_lock);
        return deadline.WaitFor(m_cv, lock, [&] { return m_ended; }) ? WAIT_OBJECT_0
                                                                      : WAIT_TIMEOUT;
    }

    // On the new thread, before the start routine: tells the creator its id, takes the
    // priority set meanwhile and waits while suspended.
    void Started() {
        std::unique_lock<std::mutex> lock(m_lock);
        m_tid = KernelThreadId();
        // A new thread inherits the nice value of its creator, but starts at normal
        // priority (or the one set while it was suspended).
        ApplyPriority(m_tid, m_priority);
        m_cv.notify_all();
        m_cv.wait(lock, [&] { return m_suspendCount == 0; });
    }

    // On the creating thread: waits for Started(), which gives the thread id.
    DWORD WaitStarted() {
        std::unique_lock<std::mutex> lock(m_lock);
        m_cv.wait(lock, [&] { return m_tid != 0; });
        return DWORD(m_tid);
    }

    void Ended(DWORD exitCode) {
        std::lock_guard<std::mutex> lock(m_lock);
        m_exitCode = exitCode;
        m_ended = true;
        m_cv.notify_all();
    }

    DWORD Resume() {
        std::lock_guard<std::mutex> lock(m_lock);
        DWORD previous = m_suspendCount;
        if (m_suspendCount > 0 && --m_suspendCount == 0) m_cv.notify_all();
        return previous;
    }

    void SetPriority(int priority) {
        std::lock_guard<std::mutex> lock(m_lock);
        m_priority = priority;
        // While the thread hasn't ended its id can't belong to anyone else. Before it has
        // started, Started() applies the priority.
        if (m_tid != 0 && !m_ended) ApplyPriority(m_tid, priority);
    }

    int Priority() {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_priority;
    }

    DWORD ExitCode() {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_ended ? m_exitCode : kStillActive;
    }

    // What the thread runs: one of the two kinds of start routine.
    VELMORA_BEGINTHREADEX_PROC m_crtStart = nullptr;
    LPTHREAD_START_ROUTINE m_win32Start = nullptr;
    void* m_argument = nullptr;

private:
    std::mutex m_lock;
    std::condition_variable m_cv;
    pid_t m_tid = 0;
    DWORD m_suspendCount;
    int m_priority = THREAD_PRIORITY_NORMAL;
    bool m_ended = false;
    DWORD m_exitCode = kStillActive;
};

// The object of a thread we started, for GetCurrentThread() on that thread; the thread's own
// reference keeps it alive while this is set.
thread_local ThreadObject* t_self = nullptr;
// The priority of any other thread (the main thread, std::thread ...), set through
// GetCurrentThread().
thread_local int t_foreignPriority = THREAD_PRIORITY_NORMAL;

void* ThreadMain(void* argument) {
    // The thread's own reference, handed over by StartThread.
    auto* reference = static_cast<std::shared_ptr<ThreadObject>*>(argument);
    std::shared_ptr<ThreadObject> self = std::move(*reference);
    delete reference;
    t_self = self.get();
    self->Started();
    DWORD exitCode = self->m_crtStart ? DWORD(self->m_crtStart(self->m_argument))
                                      : self->m_win32Start(self->m_argument);
    // Whoever sees the handle signalled must also find the mutexes abandoned.
    AbandonOwnedMutexes();
    t_self = nullptr;
    self->Ended(exitCode);
    return nullptr;
}

// Starts the thread of a new object; its handle, or null with the last error set.
HANDLE StartThread(const std::shared_ptr<ThreadObject>& thread, size_t stackSize,
                   DWORD* threadId) {
    HANDLE handle = InsertHandle(thread);
    if (!handle) return nullptr;

    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    // The size asked for is a minimum: a thread never gets less than the default stack,
    // much as on Win32, where the size only adds to the executable's reservation.
    size_t defaultSize = 0;
    pthread_attr_getstacksize(&attributes, &defaultSize);
    if (stackSize > defaultSize) {
        long page = sysconf(_SC_PAGESIZE);
        if (page > 0) stackSize = (stackSize + size_t(page) - 1) / size_t(page) * size_t(page);
        if (pthread_attr_setstacksize(&attributes, stackSize) != 0) {
            pthread_attr_destroy(&attributes);
            RemoveHandle(handle);
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return nullptr;
        }
    }
    auto* reference = new std::shared_ptr<ThreadObject>(thread);
    pthread_t id;
    int error = pthread_create(&id, &attributes, ThreadMain, reference);
    pthread_attr_destroy(&attributes);
    if (error != 0) {
        delete reference;
        RemoveHandle(handle);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    DWORD tid = thread->WaitStarted();
    if (threadId) *threadId = tid;
    return handle;
}

std::shared_ptr<ThreadObject> LookupThread(HANDLE handle) {
    return LookupHandleAs<ThreadObject>(handle, KernelObject::Kind::Thread);
}

}  // namespace
}  // namespace velmora_platform

using namespace velmora_platform;

extern "C" uintptr_t _beginthreadex(void*, unsigned stack_size,
                                   VELMORA_BEGINTHREADEX_PROC start_address, void* arglist,
                                   unsigned initflag, unsigned* thrdaddr) {
    if (start_address == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        errno = EINVAL;
        return 0;
    }
    bool suspended = (initflag & CREATE_SUSPENDED) != 0;
    auto thread = std::make_shared<ThreadObject>(suspended);
    thread->m_crtStart = start_address;
    thread->m_argument = arglist;
    DWORD tid = 0;
    HANDLE handle = StartThread(thread, stack_size, &tid);
    if (!handle) {
        errno = EAGAIN;
        return 0;
    }
    if (thrdaddr) *thrdaddr = tid;
    return reinterpret_cast<uintptr_t>(handle);
}

extern "C" HANDLE CreateThread(LPSECURITY_ATTRIBUTES, SIZE_T dwStackSize,
                               LPTHREAD_START_ROUTINE lpStartAddress, LPVOID lpParameter,
                               DWORD dwCreationFlags, LPDWORD lpThreadId) {
    if (lpStartAddress == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    bool suspended = (dwCreationFlags & CREATE_SUSPENDED) != 0;
    auto thread = std::make_shared<ThreadObject>(suspended);
    thread->m_win32Start = lpStartAddress;
    thread->m_argument = lpParameter;
    return StartThread(thread, dwStackSize, lpThreadId);
}

extern "C" DWORD ResumeThread(HANDLE hThread) {
    if (hThread == CurrentThreadPseudoHandle()) return 0;  // a running thread isn't suspended
    auto thread = LookupThread(hThread);
    if (!thread) return DWORD(-1);
    return thread->Resume();
}

extern "C" BOOL SetThreadPriority(HANDLE hThread, int nPriority) {
    std::shared_ptr<ThreadObject> thread;
    if (hThread != CurrentThreadPseudoHandle()) {
        thread = LookupThread(hThread);
        if (!thread) return FALSE;
    }
    if (!IsValidPriority(nPriority)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (thread) {
        thread->SetPriority(nPriority);
    } else if (t_self) {
        t_self->SetPriority(nPriority);
    } else {
        t_foreignPriority = nPriority;
        ApplyPriority(KernelThreadId(), nPriority);
    }
    return TRUE;
}

extern "C" int GetThreadPriority(HANDLE hThread) {
    if (hThread == CurrentThreadPseudoHandle())
        return t_self ? t_self->Priority() : t_foreignPriority;
    auto thread = LookupThread(hThread);
    if (!thread) return THREAD_PRIORITY_ERROR_RETURN;
    return thread->Priority();
}

extern "C" HANDLE GetCurrentThread(void) { return CurrentThreadPseudoHandle(); }

extern "C" BOOL GetExitCodeThread(HANDLE hThread, LPDWORD lpExitCode) {
    if (lpExitCode == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (hThread == CurrentThreadPseudoHandle()) {
        *lpExitCode = kStillActive;  // the caller is running
        return TRUE;
    }
    auto thread = LookupThread(hThread);
    if (!thread) return FALSE;
    *lpExitCode = thread->ExitCode();
    return TRUE;
}
