// Events, mutexes, semaphores and the handles they live behind.
#include "VelmoraPlatform.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr DWORD kLongWait = 10000;
constexpr DWORD kShortWait = 100;

void Pause(DWORD milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

// Waits (up to ten seconds) until the counter reaches the value.
bool ReachesWithin10s(const std::atomic<int>& counter, int value) {
    auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (counter.load() < value && std::chrono::steady_clock::now() < limit) Pause(1);
    return counter.load() >= value;
}

// What a wait from another thread gets; a mutex it acquires is released again before the
// thread ends, so that it isn't abandoned.
DWORD WaitFromOtherThread(HANDLE handle, DWORD milliseconds) {
    DWORD result = WAIT_FAILED;
    std::thread([&] {
        result = WaitForSingleObject(handle, milliseconds);
        if (result == WAIT_OBJECT_0 || result == WAIT_ABANDONED) ReleaseMutex(handle);
    }).join();
    return result;
}

// A thread that waits on a handle; the constructor returns once the thread sleeps in the wait
// (its state in /proc is 'S'), so that the handle can be closed under it.
class BlockedWaiter {
public:
    BlockedWaiter(HANDLE handle, DWORD milliseconds)
        : m_thread([this, handle, milliseconds] {
              m_tid = pid_t(syscall(SYS_gettid));
              m_result = WaitForSingleObject(handle, milliseconds);
          }) {
        auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!Sleeping() && std::chrono::steady_clock::now() < limit) Pause(1);
    }

    DWORD Result() {
        m_thread.join();
        return m_result;
    }

private:
    bool Sleeping() const {
        if (m_tid == 0) return false;
        std::ifstream in("/proc/self/task/" + std::to_string(m_tid.load()) + "/stat");
        std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        size_t name = stat.rfind(')');  // the state follows the parenthesised name
        return name != std::string::npos && name + 2 < stat.size() && stat[name + 2] == 'S';
    }

    std::atomic<pid_t> m_tid{0};
    std::atomic<DWORD> m_result{WAIT_FAILED};
    std::thread m_thread;
};

// ---- Events --------------------------------------------------------------------------

TEST(EventTest, ManualResetLetsEveryWaiterThroughAndStaysSet) {
    HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    ASSERT_NE(event, nullptr);
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.emplace_back([&] {
            if (WaitForSingleObject(event, kLongWait) == WAIT_OBJECT_0) ++released;
        });
    Pause(kShortWait);
    EXPECT_EQ(released.load(), 0);
    EXPECT_TRUE(SetEvent(event));
    for (auto& waiter : waiters) waiter.join();
    EXPECT_EQ(released.load(), 4);

    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(ResetEvent(event));
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(event, kShortWait), WAIT_TIMEOUT);
    CloseHandle(event);
}

TEST(EventTest, AutomaticResetLetsOneWaiterThroughPerSet) {
    HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    ASSERT_NE(event, nullptr);
    constexpr int kWaiters = 3;
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < kWaiters; ++i)
        waiters.emplace_back([&] {
            if (WaitForSingleObject(event, kLongWait) == WAIT_OBJECT_0) ++released;
        });
    for (int round = 1; round <= kWaiters; ++round) {
        EXPECT_TRUE(SetEvent(event));
        ASSERT_TRUE(ReachesWithin10s(released, round));
        Pause(kShortWait / 2);
        EXPECT_EQ(released.load(), round) << "one SetEvent released more than one waiter";
    }
    for (auto& waiter : waiters) waiter.join();
    // Every set was used up by its waiter.
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    CloseHandle(event);

    // Set at creation: passes once.
    event = CreateEventA(nullptr, FALSE, TRUE, nullptr);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event, kShortWait), WAIT_TIMEOUT);
    CloseHandle(event);
}

// Regression: a waiter woken by SetEvent that ran only after an immediate ResetEvent went
// back to waiting, stranded.
TEST(EventTest, ManualResetReleasesEveryWaiterEvenWhenResetAtOnce) {
    HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    ASSERT_NE(event, nullptr);
    for (int round = 0; round < 10; ++round) {
        SCOPED_TRACE(round);
        std::vector<std::unique_ptr<BlockedWaiter>> waiters;
        for (int i = 0; i < 3; ++i)
            waiters.push_back(std::make_unique<BlockedWaiter>(event, kLongWait));
        EXPECT_TRUE(SetEvent(event));
        EXPECT_TRUE(ResetEvent(event));
        for (auto& waiter : waiters) EXPECT_EQ(waiter->Result(), WAIT_OBJECT_0);
    }
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    CloseHandle(event);
}

TEST(EventTest, NamedEventIsSharedWhileAHandleIsOpen) {
    const std::string name = velmora_test::UniqueName("event");
    HANDLE first = CreateEventA(nullptr, TRUE, FALSE, name.c_str());
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    HANDLE second = CreateEventA(nullptr, FALSE, TRUE, name.c_str());
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_NE(first, second);

    // One object: the second creation's arguments were ignored, and setting through one
    // handle is seen through the other.
    EXPECT_EQ(WaitForSingleObject(second, 0), WAIT_TIMEOUT);
    SetEvent(first);
    EXPECT_EQ(WaitForSingleObject(second, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(second, 0), WAIT_OBJECT_0);  // manual reset, as created

    // The name belongs to an event: a semaphore can't take it.
    EXPECT_EQ(CreateSemaphoreA(nullptr, 1, 1, name.c_str()), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);

    CloseHandle(first);
    HANDLE third = CreateEventA(nullptr, TRUE, FALSE, name.c_str());
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    CloseHandle(second);
    CloseHandle(third);

    // All handles closed: the name makes a new, unset event.
    HANDLE fresh = CreateEventA(nullptr, TRUE, FALSE, name.c_str());
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(WaitForSingleObject(fresh, 0), WAIT_TIMEOUT);
    CloseHandle(fresh);
}

// ---- Mutexes -------------------------------------------------------------------------

TEST(MutexTest, OwnerReentersAndReleasesAsOftenAsItWaited) {
    HANDLE mutex = CreateMutexA(nullptr, FALSE, nullptr);
    ASSERT_NE(mutex, nullptr);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitFromOtherThread(mutex, 0), WAIT_TIMEOUT);

    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_EQ(WaitFromOtherThread(mutex, kShortWait), WAIT_TIMEOUT);
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_EQ(WaitFromOtherThread(mutex, kLongWait), WAIT_OBJECT_0);

    EXPECT_FALSE(ReleaseMutex(mutex));
    EXPECT_EQ(GetLastError(), ERROR_NOT_OWNER);
    CloseHandle(mutex);
}

TEST(MutexTest, ReleaseByAnotherThreadChangesNothingAndTheOwnersReleaseWakesAWaiter) {
    HANDLE mutex = CreateMutexA(nullptr, TRUE, nullptr);  // owned from the start
    ASSERT_NE(mutex, nullptr);
    std::thread([&] {
        EXPECT_FALSE(ReleaseMutex(mutex));
        EXPECT_EQ(GetLastError(), ERROR_NOT_OWNER);
        EXPECT_EQ(WaitForSingleObject(mutex, kShortWait), WAIT_TIMEOUT);
    }).join();
    BlockedWaiter waiter(mutex, kLongWait);
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_FALSE(ReleaseMutex(mutex));  // owned once, released once
    EXPECT_EQ(waiter.Result(), WAIT_OBJECT_0);
    CloseHandle(mutex);
}

void ExpectAbandonedOnceThenNormal(HANDLE mutex, DWORD firstWait) {
    EXPECT_EQ(WaitForSingleObject(mutex, firstWait), WAIT_ABANDONED);
    // The wait took ownership, once, however deep the dead owner was in.
    EXPECT_EQ(WaitFromOtherThread(mutex, kShortWait), WAIT_TIMEOUT);
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_FALSE(ReleaseMutex(mutex));
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(ReleaseMutex(mutex));
}

TEST(MutexTest, StdThreadEndingWhileOwningAbandonsTheMutex) {
    HANDLE mutex = CreateMutexA(nullptr, FALSE, nullptr);
    std::thread([&] {
        EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
        EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
    }).join();
    ExpectAbandonedOnceThenNormal(mutex, 0);
    CloseHandle(mutex);
}

// Keeps a thread from ending for a while after its routine has returned.
struct SlowThreadExit {
    ~SlowThreadExit() { Pause(2 * kShortWait); }
};

TEST(MutexTest, PlatformThreadEndingWhileOwningAbandonsTheMutexBeforeItsHandleIsSignalled) {
    HANDLE mutex = CreateMutexA(nullptr, FALSE, nullptr);
    HANDLE thread = CreateThread(
        nullptr, 0,
        [](LPVOID mutex) -> DWORD {
            DWORD result = WaitForSingleObject(mutex, 0);
            // Destroyed at thread exit before anything the wait made: the mutex must be
            // abandoned by the time the handle is signalled, not at some later point.
            static thread_local SlowThreadExit slowExit;
            (void)slowExit;
            return result;
        },
        mutex, 0, nullptr);
    ASSERT_EQ(WaitForSingleObject(thread, kLongWait), WAIT_OBJECT_0);
    DWORD code = WAIT_FAILED;
    GetExitCodeThread(thread, &code);
    ASSERT_EQ(code, WAIT_OBJECT_0);
    ExpectAbandonedOnceThenNormal(mutex, 0);
    CloseHandle(thread);
    CloseHandle(mutex);
}

TEST(MutexTest, WaiterIsWokenByAbandonment) {
    HANDLE mutex = CreateMutexA(nullptr, FALSE, nullptr);
    HANDLE taken = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    struct Args {
        HANDLE mutex, taken;
    } args{mutex, taken};
    uintptr_t thread = _beginthreadex(
        nullptr, 0,
        [](void* argument) -> unsigned {
            auto* args = static_cast<Args*>(argument);
            WaitForSingleObject(args->mutex, 0);
            SetEvent(args->taken);
            std::this_thread::sleep_for(std::chrono::milliseconds(kShortWait));
            return 0;
        },
        &args, 0, nullptr);
    ASSERT_NE(thread, 0u);
    ASSERT_EQ(WaitForSingleObject(taken, kLongWait), WAIT_OBJECT_0);
    ExpectAbandonedOnceThenNormal(mutex, kLongWait);
    CloseHandle(reinterpret_cast<HANDLE>(thread));
    CloseHandle(taken);
    CloseHandle(mutex);
}

// ---- Semaphores ----------------------------------------------------------------------

TEST(SemaphoreTest, CountStaysWithinItsMaximum) {
    HANDLE semaphore = CreateSemaphoreA(nullptr, 2, 3, nullptr);
    ASSERT_NE(semaphore, nullptr);
    EXPECT_EQ(WaitForSingleObject(semaphore, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(semaphore, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(semaphore, kShortWait), WAIT_TIMEOUT);

    LONG previous = -1;
    EXPECT_TRUE(ReleaseSemaphore(semaphore, 2, &previous));
    EXPECT_EQ(previous, 0);
    EXPECT_FALSE(ReleaseSemaphore(semaphore, 2, &previous));  // 2 + 2 > 3
    EXPECT_EQ(GetLastError(), ERROR_TOO_MANY_POSTS);
    EXPECT_TRUE(ReleaseSemaphore(semaphore, 1, &previous));
    EXPECT_EQ(previous, 2);
    EXPECT_FALSE(ReleaseSemaphore(semaphore, 1, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_TOO_MANY_POSTS);

    // The refused releases added nothing: three units, no fourth.
    for (int i = 0; i < 3; ++i) EXPECT_EQ(WaitForSingleObject(semaphore, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(semaphore, 0), WAIT_TIMEOUT);

    EXPECT_FALSE(ReleaseSemaphore(semaphore, 0, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    CloseHandle(semaphore);

    EXPECT_EQ(CreateSemaphoreA(nullptr, 4, 3, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(CreateSemaphoreA(nullptr, 0, 0, nullptr), nullptr);
    EXPECT_EQ(CreateSemaphoreA(nullptr, -1, 3, nullptr), nullptr);
}

TEST(SemaphoreTest, ReleaseFromAnotherThreadWakesAWaiter) {
    HANDLE semaphore = CreateSemaphoreA(nullptr, 0, 1, nullptr);
    std::atomic<DWORD> result{WAIT_FAILED};
    std::atomic<bool> done{false};
    std::thread waiter([&] {
        result = WaitForSingleObject(semaphore, kLongWait);
        done = true;
    });
    Pause(kShortWait);
    EXPECT_FALSE(done.load());
    // A semaphore has no owner: any thread may release it.
    std::thread([&] { EXPECT_TRUE(ReleaseSemaphore(semaphore, 1, nullptr)); }).join();
    waiter.join();
    EXPECT_EQ(result.load(), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(semaphore, 0), WAIT_TIMEOUT);  // its one unit was taken
    CloseHandle(semaphore);
}

// ---- Handles -------------------------------------------------------------------------

TEST(HandleTest, ClosedStaleAndInvalidHandlesFail) {
    HANDLE event = CreateEventA(nullptr, TRUE, TRUE, nullptr);
    EXPECT_TRUE(CloseHandle(event));
    EXPECT_FALSE(CloseHandle(event));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);

    // A new object may take the closed handle's slot; the old handle still doesn't reach it.
    HANDLE other = CreateEventA(nullptr, TRUE, TRUE, nullptr);
    SetLastError(ERROR_SUCCESS);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(SetEvent(event));
    EXPECT_EQ(WaitForSingleObject(other, 0), WAIT_OBJECT_0);

    const HANDLE garbage = reinterpret_cast<HANDLE>(0x12345670);
    for (HANDLE bad : {HANDLE(nullptr), INVALID_HANDLE_VALUE, garbage}) {
        SetLastError(ERROR_SUCCESS);
        EXPECT_EQ(WaitForSingleObject(bad, kShortWait), WAIT_FAILED);
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
        EXPECT_FALSE(CloseHandle(bad));
    }

    // Each function takes only its own kind of object.
    HANDLE mutex = CreateMutexA(nullptr, FALSE, nullptr);
    EXPECT_FALSE(SetEvent(mutex));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(ReleaseSemaphore(mutex, 1, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(ReleaseMutex(other));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);  // the mutex wasn't touched
    ReleaseMutex(mutex);
    CloseHandle(mutex);
    CloseHandle(other);
}

TEST(HandleTest, ClosingTheHandleDuringAWaitIsSafe) {
    // The last handle: nothing can signal the object any more, so the wait times out.
    HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    BlockedWaiter onEvent(event, 3 * kShortWait);
    EXPECT_TRUE(CloseHandle(event));
    EXPECT_EQ(onEvent.Result(), WAIT_TIMEOUT);

    // Another handle remains: signalling through it ends the wait.
    const std::string name = velmora_test::UniqueName("closed_while_waiting");
    HANDLE first = CreateEventA(nullptr, TRUE, FALSE, name.c_str());
    HANDLE second = CreateEventA(nullptr, TRUE, FALSE, name.c_str());
    BlockedWaiter onNamedEvent(first, kLongWait);
    EXPECT_TRUE(CloseHandle(first));
    EXPECT_TRUE(SetEvent(second));
    EXPECT_EQ(onNamedEvent.Result(), WAIT_OBJECT_0);
    CloseHandle(second);

    // A mutex whose owner closes its last handle while another thread waits for it.
    HANDLE mutex = CreateMutexA(nullptr, TRUE, nullptr);
    BlockedWaiter onMutex(mutex, 3 * kShortWait);
    EXPECT_TRUE(CloseHandle(mutex));
    EXPECT_EQ(onMutex.Result(), WAIT_TIMEOUT);
}

}  // namespace
