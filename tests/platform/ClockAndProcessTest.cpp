// The tick count and its wrap, local time, thread ids and the executable's path.
#include "VelmoraClockSeam.h"
#include "VelmoraPlatform.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <set>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

TEST(TickCount, DifferencesStayRightAcrossTheWrap) {
    // Put the 32-bit count 30 ms before its wrap, then let time pass.
    uint64_t now = GetTickCount64();
    velmora_platform::SetTickCountBias(0x100000000ull - (now % 0x100000000ull) - 30);
    DWORD before = GetTickCount();
    EXPECT_GE(before, 0xFFFFFFFFu - 60);
    Sleep(80);
    DWORD after = GetTickCount();
    EXPECT_LT(after, before) << "the count should have wrapped";
    DWORD elapsed = after - before;
    EXPECT_GE(elapsed, 80u);
    EXPECT_LT(elapsed, 60000u);
    // The 64-bit count doesn't wrap.
    EXPECT_GT(GetTickCount64(), 0xFFFFFFFFull);
}

TEST(TickCount, AdvanceMovesTheClockWithoutSleeping) {
    DWORD before = GetTickCount();
    velmora_platform::AdvanceTickCount(60001);
    DWORD after = GetTickCount();
    EXPECT_GE(DWORD(after - before), 60001u);
    EXPECT_LT(DWORD(after - before), 60001u + 60000u);
}

TEST(LocalTime, AgreesWithTheCLibraryAndCarriesMilliseconds) {
    SYSTEMTIME st;
    GetLocalTime(&st);
    time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    EXPECT_EQ(st.wYear, local.tm_year + 1900);
    EXPECT_EQ(st.wMonth, local.tm_mon + 1);
    EXPECT_EQ(st.wDay, local.tm_mday);
    EXPECT_EQ(st.wDayOfWeek, local.tm_wday);
    EXPECT_LT(st.wMilliseconds, 1000);
    // The per-second cache must follow the clock: across 1.2 s the second changes.
    SYSTEMTIME later;
    Sleep(1200);
    GetLocalTime(&later);
    int before = st.wHour * 3600 + st.wMinute * 60 + st.wSecond;
    int after = later.wHour * 3600 + later.wMinute * 60 + later.wSecond;
    EXPECT_NE(before, after);
}

TEST(ThreadIds, DistinctPerThreadNonZeroAndFreshInAForkedChild) {
    DWORD mine = GetCurrentThreadId();
    EXPECT_NE(mine, 0u);
    EXPECT_EQ(GetCurrentThreadId(), mine);
    EXPECT_EQ(mine, GetCurrentProcessId());  // the main thread's id is the process id

    std::vector<DWORD> ids(4);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) threads.emplace_back([&ids, i] { ids[i] = GetCurrentThreadId(); });
    for (auto& t : threads) t.join();
    std::set<DWORD> distinct(ids.begin(), ids.end());
    distinct.insert(mine);
    EXPECT_EQ(distinct.size(), 5u);

    int pipefd[2];
    ASSERT_EQ(pipe(pipefd), 0);
    pid_t child = fork();
    if (child == 0) {
        DWORD id = GetCurrentThreadId();
        (void)!write(pipefd[1], &id, sizeof(id));
        _exit(0);
    }
    DWORD childId = 0;
    ASSERT_EQ(read(pipefd[0], &childId, sizeof(childId)), ssize_t(sizeof(childId)));
    waitpid(child, nullptr, 0);
    EXPECT_EQ(childId, DWORD(child));
}

TEST(ModuleFileName, FullPathAndCutToTheBuffer) {
    char path[MAX_PATH];
    DWORD length = GetModuleFileNameA(nullptr, path, sizeof(path));
    ASSERT_GT(length, 0u);
    EXPECT_EQ(length, strlen(path));
    EXPECT_EQ(path[0], '/');
    EXPECT_NE(std::string(path).find("platform_tests"), std::string::npos) << path;

    char small[8];
    memset(small, 'x', sizeof(small));
    EXPECT_EQ(GetModuleFileNameA(nullptr, small, sizeof(small)), 7u);
    EXPECT_EQ(small[7], '\0');
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(std::string(small), std::string(path).substr(0, 7));
}

TEST(GlobalMemory, ZeroInitAndFree) {
    auto* block = static_cast<unsigned char*>(GlobalAlloc(GPTR, 768));
    ASSERT_NE(block, nullptr);
    for (int i = 0; i < 768; ++i) ASSERT_EQ(block[i], 0) << i;
    EXPECT_EQ(GlobalFree(block), nullptr);
}
