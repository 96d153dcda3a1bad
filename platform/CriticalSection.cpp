// Critical sections: re-entrant locks of one process, built on a futex.
//
// The lock word is 0 (free), 1 (held) or 2 (held, and a thread may sleep on it). Taking a
// free section is one compare-and-swap, leaving it without sleepers one exchange; only a
// contended section costs system calls. The owner is the pthread_t of the holder, which a
// thread reads without a system call, and the recursion count is touched only by the owner.
// As on Win32, a section left held by a thread that ends stays held.
#include "VelmoraPlatform.h"

#include <atomic>
#include <cstdint>
#include <linux/futex.h>
#include <new>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

struct CriticalSectionState {
    std::atomic<uint32_t> word{0};
    std::atomic<uintptr_t> owner{0};  // pthread_t of the owner, 0 when free
    uint32_t recursion = 0;
    uint32_t spinCount = 0;
};

static_assert(sizeof(CriticalSectionState) <= sizeof(CRITICAL_SECTION),
              "the state must fit in CRITICAL_SECTION");
static_assert(alignof(CriticalSectionState) <= alignof(CRITICAL_SECTION),
              "CRITICAL_SECTION must be aligned enough for the state");
static_assert(std::atomic<uint32_t>::is_always_lock_free, "the futex word must be a plain word");
static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t), "the futex word is 32 bits");

constexpr uint32_t kFree = 0;
constexpr uint32_t kHeld = 1;
constexpr uint32_t kContended = 2;

// The high byte of a spin count carries flags on Win32; only the count matters here.
constexpr DWORD kSpinCountMask = 0x00FFFFFF;

CriticalSectionState* StateOf(LPCRITICAL_SECTION section) {
    return std::launder(reinterpret_cast<CriticalSectionState*>(section->Opaque));
}

uintptr_t Self() { return uintptr_t(pthread_self()); }

void FutexWait(std::atomic<uint32_t>& word, uint32_t expected) {
    syscall(SYS_futex, reinterpret_cast<uint32_t*>(&word), FUTEX_WAIT_PRIVATE, expected, nullptr,
            nullptr, 0);
}

void FutexWakeOne(std::atomic<uint32_t>& word) {
    syscall(SYS_futex, reinterpret_cast<uint32_t*>(&word), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr,
            0);
}

inline void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

bool TryLock(CriticalSectionState* state) {
    uint32_t expected = kFree;
    return state->word.compare_exchange_strong(expected, kHeld, std::memory_order_acquire,
                                               std::memory_order_relaxed);
}

void LockSlow(CriticalSectionState* state) {
    for (uint32_t spin = 0; spin < state->spinCount; ++spin) {
        if (state->word.load(std::memory_order_relaxed) == kFree && TryLock(state)) return;
        CpuRelax();
    }
    // Marked contended before sleeping, so that the holder's Leave wakes a sleeper. A
    // thread woken here takes the lock as contended too: there may be more sleepers.
    while (state->word.exchange(kContended, std::memory_order_acquire) != kFree)
        FutexWait(state->word, kContended);
}

void Initialize(LPCRITICAL_SECTION section, DWORD spinCount) {
    auto* state = new (section->Opaque) CriticalSectionState;
    state->spinCount = spinCount & kSpinCountMask;
}

}  // namespace

extern "C" void InitializeCriticalSection(LPCRITICAL_SECTION lpCriticalSection) {
    Initialize(lpCriticalSection, 0);
}

extern "C" BOOL InitializeCriticalSectionAndSpinCount(LPCRITICAL_SECTION lpCriticalSection,
                                                      DWORD dwSpinCount) {
    Initialize(lpCriticalSection, dwSpinCount);
    return TRUE;
}

extern "C" void EnterCriticalSection(LPCRITICAL_SECTION lpCriticalSection) {
    CriticalSectionState* state = StateOf(lpCriticalSection);
    const uintptr_t self = Self();
    // Only this thread stores its own id, so seeing it means this thread holds the section.
    if (state->owner.load(std::memory_order_relaxed) == self) {
        ++state->recursion;
        return;
    }
    if (!TryLock(state)) LockSlow(state);
    state->owner.store(self, std::memory_order_relaxed);
    state->recursion = 1;
}

extern "C" BOOL TryEnterCriticalSection(LPCRITICAL_SECTION lpCriticalSection) {
    CriticalSectionState* state = StateOf(lpCriticalSection);
    const uintptr_t self = Self();
    if (state->owner.load(std::memory_order_relaxed) == self) {
        ++state->recursion;
        return TRUE;
    }
    if (!TryLock(state)) return FALSE;
    state->owner.store(self, std::memory_order_relaxed);
    state->recursion = 1;
    return TRUE;
}

extern "C" void LeaveCriticalSection(LPCRITICAL_SECTION lpCriticalSection) {
    CriticalSectionState* state = StateOf(lpCriticalSection);
    // Leaving a section the thread doesn't hold would break it for its owner: ignored.
    if (state->owner.load(std::memory_order_relaxed) != Self()) return;
    if (--state->recursion > 0) return;
    state->owner.store(0, std::memory_order_relaxed);
    if (state->word.exchange(kFree, std::memory_order_release) == kContended)
        FutexWakeOne(state->word);
}

extern "C" void DeleteCriticalSection(LPCRITICAL_SECTION lpCriticalSection) {
    StateOf(lpCriticalSection)->~CriticalSectionState();
}
