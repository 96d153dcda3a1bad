// Critical sections: re-entrant on their thread, exclusive between threads.
#include "VelmoraPlatform.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

BOOL TryEnterFromOtherThread(CRITICAL_SECTION& section) {
    BOOL entered = FALSE;
    std::thread([&] {
        entered = TryEnterCriticalSection(&section);
        if (entered) LeaveCriticalSection(&section);
    }).join();
    return entered;
}

TEST(CriticalSectionTest, OwnerReentersAndOthersWaitUntilTheLastLeave) {
    CRITICAL_SECTION section;
    InitializeCriticalSection(&section);
    EnterCriticalSection(&section);
    EnterCriticalSection(&section);
    EXPECT_TRUE(TryEnterCriticalSection(&section));  // re-entering never fails
    EXPECT_FALSE(TryEnterFromOtherThread(section));

    LeaveCriticalSection(&section);
    LeaveCriticalSection(&section);
    EXPECT_FALSE(TryEnterFromOtherThread(section));
    LeaveCriticalSection(&section);
    EXPECT_TRUE(TryEnterFromOtherThread(section));

    // A thread that doesn't hold the section can't free it for its owner.
    EnterCriticalSection(&section);
    std::thread([&] { LeaveCriticalSection(&section); }).join();
    EXPECT_FALSE(TryEnterFromOtherThread(section));
    LeaveCriticalSection(&section);

    // Enter waits while another thread holds the section.
    EnterCriticalSection(&section);
    std::atomic<bool> entered{false};
    std::thread waiter([&] {
        EnterCriticalSection(&section);
        entered = true;
        LeaveCriticalSection(&section);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(entered.load());
    LeaveCriticalSection(&section);
    waiter.join();
    EXPECT_TRUE(entered.load());
    DeleteCriticalSection(&section);
}

// Threads add to a plain counter under the section, entering it twice per step; lost updates
// (or, under the thread sanitizer, a data race) show a section that doesn't exclude.
void CountUnderSection(CRITICAL_SECTION& section) {
    constexpr int kThreads = 4;
    constexpr int kSteps = 20000;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < kSteps; ++i) {
                EnterCriticalSection(&section);
                long value = counter;
                if (i % 16 == 0) std::this_thread::yield();  // widen the window for a broken lock
                EnterCriticalSection(&section);
                counter = value + 1;
                LeaveCriticalSection(&section);
                LeaveCriticalSection(&section);
            }
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(counter, long(kThreads) * kSteps);
}

TEST(CriticalSectionTest, ExcludesOtherThreadsWithAndWithoutSpinning) {
    for (bool bSpin : {false, true}) {
        SCOPED_TRACE(bSpin);
        CRITICAL_SECTION section;
        if (bSpin)
            EXPECT_TRUE(InitializeCriticalSectionAndSpinCount(&section, 4000));
        else
            InitializeCriticalSection(&section);
        CountUnderSection(section);
        DeleteCriticalSection(&section);
    }
}

}  // namespace
