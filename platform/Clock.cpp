#include "VelmoraClockSeam.h"
#include "VelmoraPlatform.h"

#include <atomic>
#include <cerrno>
#include <ctime>

namespace {

std::atomic<uint64_t> g_tickBias{0};

uint64_t MonotonicMilliseconds() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return uint64_t(now.tv_sec) * 1000u + uint64_t(now.tv_nsec) / 1000000u;
}

void FillSystemTime(const tm& broken, long nanoseconds, LPSYSTEMTIME out) {
    out->wYear = WORD(broken.tm_year + 1900);
    out->wMonth = WORD(broken.tm_mon + 1);
    out->wDayOfWeek = WORD(broken.tm_wday);
    out->wDay = WORD(broken.tm_mday);
    out->wHour = WORD(broken.tm_hour);
    out->wMinute = WORD(broken.tm_min);
    out->wSecond = WORD(broken.tm_sec);
    out->wMilliseconds = WORD(nanoseconds / 1000000);
}

}  // namespace

namespace velmora_platform {

void SetTickCountBias(uint64_t nBias) { g_tickBias.store(nBias, std::memory_order_relaxed); }
uint64_t GetTickCountBias() { return g_tickBias.load(std::memory_order_relaxed); }
void AdvanceTickCount(uint64_t nMilliseconds) {
    g_tickBias.fetch_add(nMilliseconds, std::memory_order_relaxed);
}

}  // namespace velmora_platform

extern "C" uint64_t GetTickCount64(void) {
    return MonotonicMilliseconds() + g_tickBias.load(std::memory_order_relaxed);
}

// The low 32 bits: the count wraps to 0 after 2^32 - 1 ms, and differences taken in
// unsigned 32-bit arithmetic stay right across the wrap.
extern "C" DWORD GetTickCount(void) { return DWORD(GetTickCount64()); }

// Local time is asked for on every log record. Converting seconds to a broken-down local
// time takes the C library's time zone lock, so each thread keeps the conversion of the
// current second and only adds the milliseconds.
extern "C" void GetLocalTime(LPSYSTEMTIME lpSystemTime) {
    thread_local time_t t_second = -1;
    thread_local tm t_broken{};
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_sec != t_second) {
        localtime_r(&now.tv_sec, &t_broken);
        t_second = now.tv_sec;
    }
    FillSystemTime(t_broken, now.tv_nsec, lpSystemTime);
}

extern "C" void GetSystemTime(LPSYSTEMTIME lpSystemTime) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    tm broken{};
    gmtime_r(&now.tv_sec, &broken);
    FillSystemTime(broken, now.tv_nsec, lpSystemTime);
}

extern "C" void Sleep(DWORD dwMilliseconds) {
    if (dwMilliseconds == INFINITE) {
        for (;;) {
            timespec hour{3600, 0};
            nanosleep(&hour, nullptr);
        }
    }
    timespec remaining{time_t(dwMilliseconds / 1000), long(dwMilliseconds % 1000) * 1000000L};
    // Sleep(0) gives up the rest of the time slice, as on Win32.
    while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
    }
}
