// Name locks of every kind hammered from many threads, with more names than records in the
// pool: no two writers at once, no writer beside a reader, and a clean table at the end.
#include "tests/stress/StressSupport.h"
#include "tests/velmora/NameLockTestSupport.h"

#include <atomic>
#include <random>
#include <string>

namespace {

using velmora_namelock_test::HeldByAnother;
using velmora_namelock_test::IsSignalled;
using velmora_namelock_test::TableIsConsistent;
using velmora_stress::RunThreads;
using velmora_stress::Scaled;

constexpr int kThreads = 8;
constexpr int kNames = 5;
constexpr int kPool = 3;  // fewer than the names: new names wait for records now and then

// What the holders of one name do inside it, seen from outside the manager.
struct Guarded {
    std::atomic<int> nWriters{0}, nReaders{0};
    std::atomic<long> nWriteLocks{0}, nReadLocks{0};
    long nWrites = 0;  // plain: only a writer touches it, readers only read it
};

struct Kind {
    bool bUseMutex;
    bool bReadWrite;
};

// Eight threads lock names at random: as writers (LockName, TryLockName with a short wait,
// CSmartNameLock) and as readers.
void Hammer(const Kind kind) {
    velmora_stress::Watchdog watchdog("StressNameLocks");
    CNameLock manager(kPool, kind.bUseMutex, kind.bReadWrite);
    _G_pNameLock = &manager;
    Guarded guarded[kNames];
    std::atomic<int> nOverlaps{0}, nWrongResults{0};
    const int nOperations = Scaled(1500);

    auto write = [&](Guarded& g) {
        ++g.nWriteLocks;
        if (g.nWriters.fetch_add(1) != 0 || g.nReaders.load() != 0) ++nOverlaps;
        ++g.nWrites;
        std::this_thread::yield();
        --g.nWriters;
    };
    auto read = [&](Guarded& g) {
        ++g.nReadLocks;
        ++g.nReaders;
        if (g.nWriters.load() != 0) ++nOverlaps;
        volatile long nSeen = g.nWrites;
        (void)nSeen;
        std::this_thread::yield();
        --g.nReaders;
    };

    RunThreads(kThreads, [&](int t) {
        std::minstd_rand random(unsigned(t + 1));
        for (int i = 0; i < nOperations; ++i) {
            const int n = int(random() % kNames);
            const std::string name = "name" + std::to_string(n);
            switch (random() % 4) {
                case 0:
                    if (manager.LockName(name.c_str())) {
                        write(guarded[n]);
                        manager.UnlockName(name.c_str());
                    } else {
                        ++nWrongResults;
                    }
                    break;
                case 1:  // one look, or a short wait: may fail, and then holds nothing
                    if (manager.TryLockName(name.c_str(), int(random() % 2))) {
                        write(guarded[n]);
                        manager.UnlockName(name.c_str());
                    }
                    break;
                case 2: {
                    CSmartNameLock scope(name.c_str());
                    write(guarded[n]);
                    break;
                }
                default:
                    if (manager.ReadLockName(name.c_str())) {
                        if (!kind.bReadWrite) ++nWrongResults;
                        read(guarded[n]);
                        manager.ReadUnlockName(name.c_str());
                    } else if (kind.bReadWrite) {
                        ++nWrongResults;
                    }
            }
        }
    });
    _G_pNameLock = nullptr;

    EXPECT_EQ(nOverlaps.load(), 0);
    EXPECT_EQ(nWrongResults.load(), 0);
    for (Guarded& g : guarded) {
        EXPECT_EQ(g.nWrites, g.nWriteLocks.load());
        if (!kind.bReadWrite) {
            EXPECT_EQ(g.nReadLocks.load(), 0);
        }
    }

    // Every name has left the table, and every record's objects are as they were built.
    EXPECT_TRUE(manager.mapNames.empty());
    EXPECT_TRUE(TableIsConsistent(manager, kPool));
    for (_tagNameLock* p = manager.pFreeList; p != nullptr; p = p->pNext) {
        EXPECT_FALSE(HeldByAnother(p->hLock, kind.bUseMutex));
        if (!kind.bReadWrite) continue;
        EXPECT_EQ(p->nReaders, 0);
        EXPECT_EQ(p->bWriter, 0);
        EXPECT_TRUE(IsSignalled(p->hNoWriterEvent));
        EXPECT_TRUE(IsSignalled(p->hNoReadersEvent));
    }
}

TEST(StressNameLocks, ExclusiveWithMutexes) { Hammer({true, false}); }
TEST(StressNameLocks, ExclusiveWithSemaphores) { Hammer({false, false}); }
TEST(StressNameLocks, ReadersAndWritersWithMutexes) { Hammer({true, true}); }
TEST(StressNameLocks, ReadersAndWritersWithSemaphores) { Hammer({false, true}); }

}  // namespace
