// The clocks of the library.
#include "Peltrix.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <thread>

namespace {

TEST(PeltrixClockTest, TickCountsAreMonotonicAndAdvanceWithTime) {
    DWORD ms = GetTickInMilliSeconds();
    DWORD us = GetTickInMicroSeconds();
    DWORD lastMs = ms;
    DWORD lastUs = us;
    for (int i = 0; i < 100000; ++i) {
        DWORD nowMs = GetTickInMilliSeconds();
        DWORD nowUs = GetTickInMicroSeconds();
        // Unsigned differences: right even across a wrap; a step back would be huge.
        ASSERT_LT(DWORD(nowMs - lastMs), 60000u);
        ASSERT_LT(DWORD(nowUs - lastUs), 60000000u);
        lastMs = nowMs;
        lastUs = nowUs;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_GE(DWORD(GetTickInMilliSeconds() - ms), 30u);
    EXPECT_GE(DWORD(GetTickInMicroSeconds() - us), 30000u);
    // Both count the same clock: the microseconds are a thousand times the milliseconds.
    DWORD spanUs = GetTickInMicroSeconds() - us;
    DWORD spanMs = GetTickInMilliSeconds() - ms;
    EXPECT_LE(spanUs / 1000, spanMs + 1);
}

TEST(PeltrixClockTest, LocalTimeIsTheLocalCalendarTime) {
    for (int attempt = 0; attempt < 5; ++attempt) {
        std::time_t before = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
        SYSTEMTIME now;
        GetPeltrixLocalTime(&now, 0);
        std::time_t after = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
        if (before != after) continue;  // a second boundary in between: read again
        std::tm local = *std::localtime(&before);
        EXPECT_EQ(now.wYear, local.tm_year + 1900);
        EXPECT_EQ(now.wMonth, local.tm_mon + 1);
        EXPECT_EQ(now.wDay, local.tm_mday);
        EXPECT_EQ(now.wHour, local.tm_hour);
        EXPECT_EQ(now.wMinute, local.tm_min);
        EXPECT_EQ(now.wSecond, local.tm_sec);
        EXPECT_LT(now.wMilliseconds, 1000);
        return;
    }
    FAIL() << "no reading within one second";
}

}  // namespace
