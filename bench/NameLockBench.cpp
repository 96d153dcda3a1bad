// Cost of a lock and unlock of a name: write and read locks of CNameLock, uncontended and
// from 1, 2 and 4 threads on names of their own or on one shared name, beside what a
// program would write without it (a std::mutex or std::shared_mutex per name in a std::map
// under a map mutex). The platform calls a lock is made of are measured on their own too,
// so that the share of the platform layer in a lock shows.
#include "include/Velmora.h"

#include <benchmark/benchmark.h>

#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

namespace {

// ---- Names -----------------------------------------------------------------------------

constexpr int kMaxThreads = 4;

// Thread t works on names[t], or all threads on names[0] when they share one name.
const std::vector<std::string>& Names() {
    static const std::vector<std::string> names = {"ACCT-000104", "ACCT-000217", "ACCT-000388",
                                                   "ACCT-000451"};
    return names;
}

const char* NameFor(const benchmark::State& state, bool bShared) {
    return Names()[bShared ? 0 : size_t(state.thread_index()) % kMaxThreads].c_str();
}

// ---- The manager under test ------------------------------------------------------------

CNameLock* g_lock = nullptr;

// Modes of the first argument.
enum Mode { kExclusiveSemaphore = 0, kExclusiveMutex = 1, kReadWriteMutex = 2,
            kReadWriteSemaphore = 3 };

void MakeLock(const benchmark::State& state) {
    const int mode = int(state.range(0));
    g_lock = new CNameLock(64, mode == kExclusiveMutex || mode == kReadWriteMutex,
                           mode == kReadWriteMutex || mode == kReadWriteSemaphore);
}

void FreeLock(const benchmark::State&) {
    delete g_lock;
    g_lock = nullptr;
}

void BM_NameLock_Write(benchmark::State& state) {
    const char* name = NameFor(state, state.range(1) != 0);
    for (auto _ : state) {
        if (!g_lock->LockName(name)) state.SkipWithError("LockName failed");
        g_lock->UnlockName(name);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_NameLock_Write)
    ->ArgNames({"mode", "shared"})
    ->ArgsProduct({{kExclusiveSemaphore, kExclusiveMutex, kReadWriteMutex}, {0, 1}})
    ->Threads(1)
    ->Threads(2)
    ->Threads(4)
    ->Setup(MakeLock)
    ->Teardown(FreeLock)
    ->UseRealTime();

void BM_NameLock_Read(benchmark::State& state) {
    const char* name = NameFor(state, state.range(1) != 0);
    for (auto _ : state) {
        if (!g_lock->ReadLockName(name)) state.SkipWithError("ReadLockName failed");
        g_lock->ReadUnlockName(name);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_NameLock_Read)
    ->ArgNames({"mode", "shared"})
    ->ArgsProduct({{kReadWriteMutex}, {0, 1}})
    ->Threads(1)
    ->Threads(2)
    ->Threads(4)
    ->Setup(MakeLock)
    ->Teardown(FreeLock)
    ->UseRealTime();

// ---- The baseline: standard mutexes by name ----------------------------------------------

template <class Mutex>
class MutexByName {
public:
    Mutex& Find(const char* szName) {
        std::lock_guard<std::mutex> guard(m_mapLock);
        std::unique_ptr<Mutex>& slot = m_mutexes[szName];
        if (!slot) slot = std::make_unique<Mutex>();
        return *slot;
    }

private:
    std::mutex m_mapLock;
    std::map<std::string, std::unique_ptr<Mutex>> m_mutexes;
};

MutexByName<std::mutex>* g_mutexes = nullptr;
MutexByName<std::shared_mutex>* g_sharedMutexes = nullptr;

void MakeBaseline(const benchmark::State&) {
    g_mutexes = new MutexByName<std::mutex>;
    g_sharedMutexes = new MutexByName<std::shared_mutex>;
}

void FreeBaseline(const benchmark::State&) {
    delete g_mutexes;
    delete g_sharedMutexes;
    g_mutexes = nullptr;
    g_sharedMutexes = nullptr;
}

// Both ends look the name up, as LockName and UnlockName do.
void BM_StdMutexMap_Write(benchmark::State& state) {
    const char* name = NameFor(state, state.range(0) != 0);
    for (auto _ : state) {
        g_mutexes->Find(name).lock();
        g_mutexes->Find(name).unlock();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StdMutexMap_Write)
    ->ArgName("shared")
    ->Arg(0)
    ->Arg(1)
    ->Threads(1)
    ->Threads(2)
    ->Threads(4)
    ->Setup(MakeBaseline)
    ->Teardown(FreeBaseline)
    ->UseRealTime();

void BM_StdSharedMutexMap_Read(benchmark::State& state) {
    const char* name = NameFor(state, state.range(0) != 0);
    for (auto _ : state) {
        g_sharedMutexes->Find(name).lock_shared();
        g_sharedMutexes->Find(name).unlock_shared();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StdSharedMutexMap_Read)
    ->ArgName("shared")
    ->Arg(0)
    ->Arg(1)
    ->Threads(1)
    ->Threads(2)
    ->Threads(4)
    ->Setup(MakeBaseline)
    ->Teardown(FreeBaseline)
    ->UseRealTime();

// ---- The platform calls a name lock is made of ----------------------------------------------
// An exclusive lock and unlock makes 6 such calls (the table mutex twice, hLock twice); a
// write lock in read-write mode 11, a read lock 10.

HANDLE g_mutex = nullptr;
HANDLE g_semaphore = nullptr;
HANDLE g_event = nullptr;

void MakeHandles(const benchmark::State&) {
    g_mutex = CreateMutexA(nullptr, FALSE, nullptr);
    g_semaphore = CreateSemaphoreA(nullptr, 1, 1, nullptr);
    g_event = CreateEventA(nullptr, TRUE, TRUE, nullptr);
}

void FreeHandles(const benchmark::State&) {
    CloseHandle(g_mutex);
    CloseHandle(g_semaphore);
    CloseHandle(g_event);
}

void BM_Platform_MutexWaitRelease(benchmark::State& state) {
    for (auto _ : state) {
        WaitForSingleObject(g_mutex, INFINITE);
        ReleaseMutex(g_mutex);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Platform_MutexWaitRelease)
    ->Threads(1)
    ->Threads(2)
    ->Threads(4)
    ->Setup(MakeHandles)
    ->Teardown(FreeHandles)
    ->UseRealTime();

void BM_Platform_SemaphoreWaitRelease(benchmark::State& state) {
    for (auto _ : state) {
        WaitForSingleObject(g_semaphore, INFINITE);
        ReleaseSemaphore(g_semaphore, 1, nullptr);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Platform_SemaphoreWaitRelease)
    ->Threads(1)
    ->Setup(MakeHandles)
    ->Teardown(FreeHandles)
    ->UseRealTime();

// A wait on a signalled event and a SetEvent: the event calls of a read-write lock.
void BM_Platform_EventWaitSet(benchmark::State& state) {
    for (auto _ : state) {
        WaitForSingleObject(g_event, INFINITE);
        SetEvent(g_event);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Platform_EventWaitSet)
    ->Threads(1)
    ->Threads(4)
    ->Setup(MakeHandles)
    ->Teardown(FreeHandles)
    ->UseRealTime();

void BM_Std_MutexLockUnlock(benchmark::State& state) {
    static std::mutex mutex;
    for (auto _ : state) {
        mutex.lock();
        mutex.unlock();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Std_MutexLockUnlock)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
