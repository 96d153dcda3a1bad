// Threads of the platform layer: start, suspension, exit codes, priorities and handles.
#include "VelmoraPlatform.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr DWORD kStillActive = 259;
// Bounds for what must happen (a broken build ends instead of hanging) and for waits that
// show something does not happen.
constexpr DWORD kLongWait = 10000;
constexpr DWORD kShortWait = 100;

DWORD KernelThreadId() { return DWORD(syscall(SYS_gettid)); }

int NiceOfThread(DWORD tid) { return getpriority(PRIO_PROCESS, id_t(tid)); }

bool ThreadExists(DWORD tid) {
    return std::filesystem::exists("/proc/self/task/" + std::to_string(tid));
}

struct BlockedRoutine {
    HANDLE release = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    std::atomic<DWORD> tid{0};
    std::atomic<void*> argument{nullptr};
    ~BlockedRoutine() { CloseHandle(release); }

    static unsigned Run(void* argument) {
        auto* self = static_cast<BlockedRoutine*>(argument);
        self->argument = argument;
        self->tid = KernelThreadId();
        WaitForSingleObject(self->release, kLongWait);
        return 42;
    }
};

TEST(ThreadsTest, BeginThreadExRunsTheRoutineAndSignalsItsEnd) {
    BlockedRoutine routine;
    unsigned id = 0;
    uintptr_t value = _beginthreadex(nullptr, 0, &BlockedRoutine::Run, &routine, 0, &id);
    ASSERT_NE(value, 0u);
    HANDLE thread = reinterpret_cast<HANDLE>(value);

    // The id is known at once, and it is the kernel id of the new thread.
    EXPECT_NE(id, 0u);
    EXPECT_NE(id, KernelThreadId());

    EXPECT_EQ(WaitForSingleObject(thread, kShortWait), WAIT_TIMEOUT);
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(thread, &code));
    EXPECT_EQ(code, kStillActive);

    SetEvent(routine.release);
    ASSERT_EQ(WaitForSingleObject(thread, kLongWait), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(thread, 0), WAIT_OBJECT_0);  // stays signalled
    EXPECT_TRUE(GetExitCodeThread(thread, &code));
    EXPECT_EQ(code, 42u);
    EXPECT_EQ(routine.argument.load(), &routine);
    EXPECT_EQ(routine.tid.load(), id);
    EXPECT_TRUE(CloseHandle(thread));
}

TEST(ThreadsTest, SuspendedThreadRunsOnlyAfterResume) {
    static std::atomic<bool> ran;
    ran = false;
    DWORD id = 0;
    HANDLE thread = CreateThread(
        nullptr, 0,
        [](LPVOID) -> DWORD {
            ran = true;
            return 7;
        },
        nullptr, CREATE_SUSPENDED, &id);
    ASSERT_NE(thread, nullptr);
    EXPECT_NE(id, 0u);

    EXPECT_EQ(WaitForSingleObject(thread, kShortWait), WAIT_TIMEOUT);
    EXPECT_FALSE(ran.load());
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(thread, &code));
    EXPECT_EQ(code, kStillActive);

    EXPECT_EQ(ResumeThread(thread), 1u);
    ASSERT_EQ(WaitForSingleObject(thread, kLongWait), WAIT_OBJECT_0);
    EXPECT_TRUE(ran.load());
    EXPECT_TRUE(GetExitCodeThread(thread, &code));
    EXPECT_EQ(code, 7u);
    EXPECT_EQ(ResumeThread(thread), 0u);  // not suspended any more
    CloseHandle(thread);
}

TEST(ThreadsTest, ThreadOutlivesItsClosedHandleAndEndsOnItsOwn) {
    struct Events {
        HANDLE go = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        HANDLE done = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    } events;
    DWORD id = 0;
    HANDLE thread = CreateThread(
        nullptr, 0,
        [](LPVOID argument) -> DWORD {
            auto* events = static_cast<Events*>(argument);
            WaitForSingleObject(events->go, kLongWait);
            SetEvent(events->done);
            return 0;
        },
        &events, 0, &id);
    ASSERT_NE(thread, nullptr);
    EXPECT_TRUE(CloseHandle(thread));
    EXPECT_EQ(WaitForSingleObject(thread, 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);

    // The thread still runs, and finishes with its object (a freed object would show
    // under the address sanitizer); nobody joins it, yet it leaves the process.
    EXPECT_TRUE(ThreadExists(id));
    SetEvent(events.go);
    ASSERT_EQ(WaitForSingleObject(events.done, kLongWait), WAIT_OBJECT_0);
    auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (ThreadExists(id) && std::chrono::steady_clock::now() < limit)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_FALSE(ThreadExists(id));
    CloseHandle(events.go);
    CloseHandle(events.done);
}

TEST(ThreadsTest, LargeStackSizeIsHonoured) {
    // 32 MB of stack is more than any default; the thread would crash on a smaller one.
    HANDLE thread = CreateThread(
        nullptr, 64u << 20,
        [](LPVOID) -> DWORD {
            volatile char buffer[32u << 20];
            for (size_t i = 0; i < sizeof(buffer); i += 4096) buffer[i] = 1;
            return DWORD(buffer[0] + buffer[sizeof(buffer) - 4096]);
        },
        nullptr, 0, nullptr);
    ASSERT_NE(thread, nullptr);
    ASSERT_EQ(WaitForSingleObject(thread, kLongWait), WAIT_OBJECT_0);
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(thread, &code));
    EXPECT_EQ(code, 2u);
    CloseHandle(thread);
}

struct PrioritySeen {
    std::atomic<int> priority{THREAD_PRIORITY_ERROR_RETURN};
    std::atomic<int> nice{0};
};

TEST(ThreadsTest, PrioritySetWhileSuspendedAppliesFromTheStart) {
    const int processNice = getpriority(PRIO_PROCESS, id_t(getpid()));
    PrioritySeen seen;
    HANDLE thread = CreateThread(
        nullptr, 0,
        [](LPVOID argument) -> DWORD {
            auto* seen = static_cast<PrioritySeen*>(argument);
            seen->priority = GetThreadPriority(GetCurrentThread());
            seen->nice = NiceOfThread(KernelThreadId());
            return 0;
        },
        &seen, CREATE_SUSPENDED, nullptr);
    ASSERT_NE(thread, nullptr);
    EXPECT_EQ(GetThreadPriority(thread), THREAD_PRIORITY_NORMAL);
    EXPECT_TRUE(SetThreadPriority(thread, THREAD_PRIORITY_LOWEST));
    EXPECT_EQ(GetThreadPriority(thread), THREAD_PRIORITY_LOWEST);
    ResumeThread(thread);
    ASSERT_EQ(WaitForSingleObject(thread, kLongWait), WAIT_OBJECT_0);

    EXPECT_EQ(seen.priority.load(), THREAD_PRIORITY_LOWEST);
    // Lowering needs no privilege, so the thread ran with a higher nice value.
    if (processNice < 19) {
        EXPECT_GT(seen.nice.load(), processNice);
    }
    EXPECT_EQ(GetThreadPriority(thread), THREAD_PRIORITY_LOWEST);  // kept after the end
    CloseHandle(thread);
}

TEST(ThreadsTest, PriorityThroughThePseudoHandleOfAnyThread) {
    // A thread the platform layer didn't start (std::thread) has a priority too.
    std::thread([] {
        EXPECT_EQ(GetThreadPriority(GetCurrentThread()), THREAD_PRIORITY_NORMAL);
        const int niceBefore = NiceOfThread(KernelThreadId());
        EXPECT_TRUE(SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_IDLE));
        EXPECT_EQ(GetThreadPriority(GetCurrentThread()), THREAD_PRIORITY_IDLE);
        if (niceBefore < 19) {
            EXPECT_GT(NiceOfThread(KernelThreadId()), niceBefore);
        }
        // Rising again may lack the privilege; the call succeeds all the same.
        EXPECT_TRUE(SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_TIME_CRITICAL));
        EXPECT_EQ(GetThreadPriority(GetCurrentThread()), THREAD_PRIORITY_TIME_CRITICAL);
    }).join();

    // The priority belongs to the thread: this one is still normal.
    EXPECT_EQ(GetThreadPriority(GetCurrentThread()), THREAD_PRIORITY_NORMAL);
    EXPECT_FALSE(SetThreadPriority(GetCurrentThread(), 3));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(GetThreadPriority(GetCurrentThread()), THREAD_PRIORITY_NORMAL);
}

TEST(ThreadsTest, ThreadFunctionsRefuseOtherHandles) {
    HANDLE event = CreateEventA(nullptr, TRUE, TRUE, nullptr);
    DWORD code = 0;
    EXPECT_FALSE(GetExitCodeThread(event, &code));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(ResumeThread(event), DWORD(-1));
    EXPECT_FALSE(SetThreadPriority(event, THREAD_PRIORITY_NORMAL));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(GetThreadPriority(event), THREAD_PRIORITY_ERROR_RETURN);
    CloseHandle(event);
    EXPECT_EQ(ResumeThread(nullptr), DWORD(-1));

    // The pseudo handle of the calling thread: running, not waitable to its end, and
    // closing it does nothing.
    EXPECT_TRUE(GetExitCodeThread(GetCurrentThread(), &code));
    EXPECT_EQ(code, kStillActive);
    EXPECT_EQ(WaitForSingleObject(GetCurrentThread(), 10), WAIT_TIMEOUT);
    EXPECT_TRUE(CloseHandle(GetCurrentThread()));
    EXPECT_EQ(GetThreadPriority(GetCurrentThread()), THREAD_PRIORITY_NORMAL);
}

}  // namespace
