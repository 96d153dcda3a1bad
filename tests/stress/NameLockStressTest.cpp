// Name locks of every kind hammered from many threads, with more names than records in the
// pool: no two writers at once, no writer beside a reader, and a clean table at the end.
#include "tests/stress/StressSupport.h"
#include "tests/velmora/NameLockTestSupport.h"

#include <atomic>
#include <random>
#include <string>

namespace {

constexpr int kNames = 5;
constexpr int kPool = 3;  // fewer than the names: new names wait for records now and then

// What the holders of one name do inside it, as seen from outside the manager.
struct Guarded {
    std::atomic<int> nWriters{0}, nReaders{0};
    std::atomic<long> nWriteLocks{0};
    long nWrites = 0;  // plain: only writers change it, so two at once would lose counts
};

// Eight threads lock names at random: as writers (LockName, TryLockName with no or a short
// wait, CSmartNameLock) and as readers.
void Hammer(bool bUseMutex, bool bReadWrite) {
    velmora_stress::Watchdog watchdog("StressNameLocks");
    CNameLock manager(kPool, bUseMutex, bReadWrite);
    _G_pNameLock = &manager;
    Guarded guarded[kNames];
    std::atomic<int> nOverlaps{0}, nWrongResults{0};
    auto write = [&](Guarded& g) {
        ++g.nWriteLocks;
        if (g.nWriters.fetch_add(1) != 0 || g.nReaders.load() != 0) ++nOverlaps;
        ++g.nWrites;
        std::this_thread::yield();
        --g.nWriters;
    };
    auto read = [&](Guarded& g) {
        ++g.nReaders;
        if (g.nWriters.load() != 0) ++nOverlaps;
        [[maybe_unused]] volatile long nSeen = g.nWrites;
        std::this_thread::yield();
        --g.nReaders;
    };

    const int nOperations = velmora_stress::Scaled(8000);
    velmora_stress::RunThreads(8, [&](int t) {
        std::minstd_rand random(unsigned(t + 1));
        for (int i = 0; i < nOperations; ++i) {
            const int n = int(random() % kNames);
            const std::string name = "name" + std::to_string(n);
            const char* szName = name.c_str();
            switch (random() % 4) {
                case 0:
                    if (!manager.LockName(szName)) {
                        ++nWrongResults;
                        break;
                    }
                    write(guarded[n]);
                    manager.UnlockName(szName);
                    break;
                case 1:  // may time out, and then holds nothing
                    if (manager.TryLockName(szName, int(random() % 2))) {
                        write(guarded[n]);
                        manager.UnlockName(szName);
                    }
                    break;
                case 2: {
                    CSmartNameLock scope(szName);
                    write(guarded[n]);
                    break;
                }
                default:
                    if (manager.ReadLockName(szName) != bReadWrite) ++nWrongResults;
                    if (!bReadWrite) break;
                    read(guarded[n]);
                    manager.ReadUnlockName(szName);
            }
        }
    });
    _G_pNameLock = nullptr;

    EXPECT_EQ(nOverlaps.load(), 0);
    EXPECT_EQ(nWrongResults.load(), 0);
    for (Guarded& g : guarded) EXPECT_EQ(g.nWrites, g.nWriteLocks.load());
    // Every name has left the table, and every record's objects are as they were built.
    EXPECT_TRUE(manager.mapNames.empty());
    EXPECT_TRUE(velmora_namelock_test::TableIsConsistent(manager, kPool));
    for (_tagNameLock* p = manager.pFreeList; p != nullptr; p = p->pNext) {
        EXPECT_FALSE(velmora_namelock_test::HeldByAnother(p->hLock, bUseMutex));
        if (!bReadWrite) continue;
        EXPECT_EQ(p->nReaders, 0);
        EXPECT_EQ(p->bWriter, 0);
        EXPECT_TRUE(velmora_namelock_test::IsSignalled(p->hNoWriterEvent));
        EXPECT_TRUE(velmora_namelock_test::IsSignalled(p->hNoReadersEvent));
    }
}

TEST(StressNameLocks, ExclusiveWithMutexes) { Hammer(true, false); }
TEST(StressNameLocks, ExclusiveWithSemaphores) { Hammer(false, false); }
TEST(StressNameLocks, ReadersAndWritersWithMutexes) { Hammer(true, true); }
TEST(StressNameLocks, ReadersAndWritersWithSemaphores) { Hammer(false, true); }

}  // namespace
