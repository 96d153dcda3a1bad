// What a lock on a name means, in exclusive and in read-write mode, with either kind of
// hLock: who waits for whom, what a time-out covers, the hand-over of a record between
// names, and the scope guard over _G_pNameLock.
#include "NameLockTestSupport.h"

#include <cstring>
#include <memory>
#include <tuple>

using namespace velmora_namelock_test;

namespace {

struct Mode {
    bool bUseMutex;
    bool bReadWrite;
};
const Mode kAllModes[] = {{true, true}, {true, false}, {false, true}, {false, false}};

std::string ModeText(const Mode& m) {
    return std::string(m.bUseMutex ? "mutex" : "semaphore") +
           (m.bReadWrite ? ", read-write" : ", exclusive");
}

// A write (or exclusive) lock on a thread of its own, held until released.
std::unique_ptr<Holder> HoldWrite(CNameLock& lock, std::string name, int nTimeout = -2) {
    return std::make_unique<Holder>(
        [&lock, name, nTimeout] {
            return nTimeout == -2 ? lock.LockName(name.c_str())
                                  : lock.TryLockName(name.c_str(), nTimeout);
        },
        [&lock, name] { lock.UnlockName(name.c_str()); });
}

// One call on a thread of its own.
template <class Fn>
std::unique_ptr<Worker<bool>> Async(Fn fn) {
    return std::make_unique<Worker<bool>>(std::function<bool()>(fn));
}

// Whether a call on another thread came back within kLong with bExpected.
::testing::AssertionResult Returned(Worker<bool>& worker, bool bExpected) {
    if (!worker.Done(kLong)) return ::testing::AssertionFailure() << "the call didn't come back";
    if (worker.Get() != bExpected) return ::testing::AssertionFailure() << "it returned " << !bExpected;
    return ::testing::AssertionSuccess();
}
// The same for one call started here.
template <class Fn>
::testing::AssertionResult ReturnsOnAnotherThread(bool bExpected, Fn fn) {
    return Returned(*Async(fn), bExpected);
}
// Whether a holder's lock call came back within kLong with the lock.
::testing::AssertionResult GotTheLock(Holder& holder) {
    if (!holder.Returned(kLong)) return ::testing::AssertionFailure() << "the lock call didn't come back";
    if (!holder.Locked()) return ::testing::AssertionFailure() << "the lock call failed";
    return ::testing::AssertionSuccess();
}

// Whether another thread gets the name at once; it gives it back at once if so.
bool FreeForOthers(CNameLock& lock, const std::string& name) {
    Worker<bool> w([&] {
        if (!lock.TryLockName(name.c_str(), 0)) return false;
        lock.UnlockName(name.c_str());
        return true;
    });
    if (!w.Done(kLong)) {
        ADD_FAILURE() << "a single look at '" << name << "' didn't come back";
        return false;
    }
    return w.Get();
}

// No name in the table, and the table whole, for a pool of nCount records.
::testing::AssertionResult EmptyAndConsistent(CNameLock& lock, int nCount) {
    if (!Snapshot(lock).names.empty()) return ::testing::AssertionFailure() << "names left";
    return TableIsConsistent(lock, nCount);
}

// A record's readers, writer mark and the two events, read under its state mutex.
struct Picture {
    int nReaders;
    int bWriter;
    bool bNoWriterSignalled;
    bool bNoReadersSignalled;
    bool operator==(const Picture&) const = default;
};
void PrintTo(const Picture& p, std::ostream* os) {
    *os << "{readers " << p.nReaders << ", writer " << p.bWriter << ", no-writer event "
        << p.bNoWriterSignalled << ", no-readers event " << p.bNoReadersSignalled << "}";
}
Picture PictureOf(_tagNameLock* pRecord) {
    ReaderState state = StateOf(pRecord);
    return {state.nReaders, state.bWriter, IsSignalled(pRecord->hNoWriterEvent),
            IsSignalled(pRecord->hNoReadersEvent)};
}

}  // namespace

TEST(NameLockOperations, AHolderKeepsOthersOutUntilItUnlocks) {
    for (const Mode& mode : kAllModes) {
        SCOPED_TRACE(ModeText(mode));
        CNameLock lock(2, mode.bUseMutex, mode.bReadWrite);
        ASSERT_TRUE(lock.LockName("acct"));
        EXPECT_EQ(UsersOf(lock, "acct"), 1);
        EXPECT_FALSE(FreeForOthers(lock, "acct"));
        EXPECT_TRUE(FreeForOthers(lock, "other"));

        // A second locker waits, counted as a user while it waits.
        std::unique_ptr<Holder> waiter = HoldWrite(lock, "acct");
        ASSERT_TRUE(WaitUntil([&] { return UsersOf(lock, "acct") == 2; }));
        EXPECT_FALSE(waiter->Returned(kShort));

        lock.UnlockName("acct");
        ASSERT_TRUE(GotTheLock(*waiter));
        EXPECT_EQ(UsersOf(lock, "acct"), 1);
        EXPECT_FALSE(FreeForOthers(lock, "acct"));
        ASSERT_TRUE(waiter->Release());
        // The last unlock takes the name out of the table.
        EXPECT_TRUE(EmptyAndConsistent(lock, 2));
        EXPECT_TRUE(FreeForOthers(lock, "acct"));
    }
}

TEST(NameLockOperations, TryLockNameTimesOutAgainstAHolderAndLeavesItsLock) {
    for (const Mode& mode : kAllModes) {
        SCOPED_TRACE(ModeText(mode));
        CNameLock lock(2, mode.bUseMutex, mode.bReadWrite);

        // Against a holder: a single look and a short limit both fail and give their
        // reference back; the holder keeps the name.
        ASSERT_TRUE(lock.LockName("w"));
        auto once = Async([&] { return lock.TryLockName("w", 0); });
        auto briefly = Async([&] { return lock.TryLockName("w", 30); });
        ASSERT_TRUE(Returned(*once, false));
        ASSERT_TRUE(Returned(*briefly, false));
        EXPECT_EQ(UsersOf(lock, "w"), 1);
        EXPECT_FALSE(FreeForOthers(lock, "w"));

        lock.UnlockName("w");
        EXPECT_TRUE(EmptyAndConsistent(lock, 2));
    }
}

TEST(NameLockOperations, TryLockNameDoesNotTimeOutOnAnExhaustedPool) {
    for (const Mode& mode : kAllModes) {
        SCOPED_TRACE(ModeText(mode));
        NameLockProbe lock(1, mode.bUseMutex, mode.bReadWrite);
        // The only record is taken by a bare reference, as a thread waiting for a name holds
        // one; its lock objects stay free. (A record whose last holder is still unlocking
        // could make a single look at hLock fail for a moment.)
        ASSERT_NE(lock.AcquireName("a"), nullptr);
        std::unique_ptr<Holder> fresh = HoldWrite(lock, "b", 0);
        EXPECT_FALSE(fresh->Returned(kShort));
        lock.ReleaseName("a");
        ASSERT_TRUE(GotTheLock(*fresh));
        ASSERT_TRUE(fresh->Release());
        EXPECT_TRUE(TableIsConsistent(lock, 1));
    }
}

// Exclusive mode has no read locks: a read lock fails, free name or held, and a read unlock
// has nothing to give back and must not take the holder's reference.
TEST(NameLockOperations, UnknownAndNullNamesAndExclusiveReadLocksChangeNothing) {
    for (const Mode& mode : kAllModes) {
        SCOPED_TRACE(ModeText(mode));
        CNameLock lock(2, mode.bUseMutex, mode.bReadWrite);
        ASSERT_TRUE(lock.LockName("k"));
        TableSnapshot before = Snapshot(lock);
        lock.UnlockName("unknown");
        lock.ReadUnlockName("unknown");
        lock.UnlockName(nullptr);
        lock.ReadUnlockName(nullptr);
        EXPECT_FALSE(lock.LockName(nullptr));
        EXPECT_FALSE(lock.TryLockName(nullptr, 0));
        EXPECT_FALSE(lock.ReadLockName(nullptr));
        if (!mode.bReadWrite) {
            EXPECT_FALSE(lock.ReadLockName("free"));
            EXPECT_FALSE(lock.ReadLockName("k"));
            lock.ReadUnlockName("k");
        }
        EXPECT_EQ(Snapshot(lock), before);
        EXPECT_FALSE(FreeForOthers(lock, "k"));
        if (mode.bReadWrite) {
            ReaderState state = StateOf(before.names.at("k").pRecord);
            EXPECT_EQ(state.bWriter, 1);
            EXPECT_EQ(state.nReaders, 0);
        }
        lock.UnlockName("k");
        EXPECT_TRUE(FreeForOthers(lock, "k"));
    }
}

TEST(NameLockOperations, AWriterDrainsReadersWhileNewReadersComeIn) {
    // A pool of one record: every lock here is on the one name.
    for (bool bUseMutex : {true, false}) {
        SCOPED_TRACE(bUseMutex);
        CNameLock lock(1, bUseMutex, true);

        // Many readers at once; the first resets hNoReadersEvent. A thread may read-lock a
        // name several times.
        ASSERT_TRUE(lock.ReadLockName("n"));
        _tagNameLock* p = RecordOf(lock, "n");
        ASSERT_NE(p, nullptr);
        EXPECT_FALSE(IsSignalled(p->hNoReadersEvent));
        ASSERT_TRUE(lock.ReadLockName("n"));
        EXPECT_EQ(StateOf(p).nReaders, 2);
        EXPECT_EQ(UsersOf(lock, "n"), 2);

        // The writer gets hLock at once and waits with it for the readers.
        std::unique_ptr<Holder> writer = HoldWrite(lock, "n");
        ASSERT_TRUE(WaitUntil([&] { return HeldByAnother(p->hLock, bUseMutex); }));
        EXPECT_FALSE(writer->Returned(kShort));
        EXPECT_EQ(StateOf(p).bWriter, 0);

        // A new reader still comes in while the writer waits.
        ASSERT_TRUE(ReturnsOnAnotherThread(true, [&] { return lock.ReadLockName("n"); }))
            << "a waiting writer kept a new reader out";
        EXPECT_EQ(StateOf(p).nReaders, 3);
        EXPECT_EQ(UsersOf(lock, "n"), 4);

        // Readers leave; the writer goes on waiting until the last of them has gone. Read
        // locks belong to nobody, so this thread may give back the newcomer's.
        lock.ReadUnlockName("n");
        lock.ReadUnlockName("n");
        EXPECT_FALSE(writer->Returned(kShort));
        EXPECT_FALSE(IsSignalled(p->hNoReadersEvent));
        lock.ReadUnlockName("n");
        ASSERT_TRUE(GotTheLock(*writer));
        EXPECT_EQ(PictureOf(p), (Picture{0, 1, false, true}));

        // Now readers wait for the writer.
        auto reader = Async([&] { return lock.ReadLockName("n"); });
        EXPECT_FALSE(reader->Done(kShort));
        ASSERT_TRUE(writer->Release());
        ASSERT_TRUE(Returned(*reader, true));
        EXPECT_EQ(PictureOf(p), (Picture{1, 0, true, false}));
        lock.ReadUnlockName("n");
        EXPECT_TRUE(IsSignalled(p->hNoReadersEvent));
        EXPECT_TRUE(EmptyAndConsistent(lock, 1));
    }
}

TEST(NameLockOperations, TryLockNameWaitsOutReadersButTimesOutAgainstADrainingWriter) {
    for (bool bUseMutex : {true, false}) {
        SCOPED_TRACE(bUseMutex);
        CNameLock lock(2, bUseMutex, true);
        ASSERT_TRUE(lock.ReadLockName("r"));
        _tagNameLock* p = RecordOf(lock, "r");

        // Readers alone don't make it time out: it gets hLock and waits without a limit.
        std::unique_ptr<Holder> first = HoldWrite(lock, "r", 10);
        ASSERT_TRUE(WaitUntil([&] { return HeldByAnother(p->hLock, bUseMutex); }));
        EXPECT_FALSE(first->Returned(kShort));

        // A second writer does time out: the first holds hLock, though it has no claim yet.
        ASSERT_TRUE(ReturnsOnAnotherThread(false, [&] { return lock.TryLockName("r", 30); }));
        EXPECT_EQ(UsersOf(lock, "r"), 2);

        lock.ReadUnlockName("r");
        ASSERT_TRUE(GotTheLock(*first));
        ASSERT_TRUE(first->Release());
        EXPECT_TRUE(EmptyAndConsistent(lock, 2));
    }
}

TEST(NameLockOperations, AWriterUnlockReachesEveryWaitingReaderAndWriter) {
    // Whichever side wins after the unlock, nobody is left behind.
    for (bool bUseMutex : {true, false}) {
        SCOPED_TRACE(bUseMutex);
        CNameLock lock(1, bUseMutex, true);
        for (int round = 0; round < 20; ++round) {
            SCOPED_TRACE(round);
            ASSERT_TRUE(lock.LockName("x"));
            std::vector<std::unique_ptr<Worker<bool>>> readers;
            for (int i = 0; i < 3; ++i)
                readers.push_back(Async([&] { return lock.ReadLockName("x"); }));
            std::unique_ptr<Holder> writer = HoldWrite(lock, "x");
            ASSERT_TRUE(WaitUntil([&] { return UsersOf(lock, "x") == 5; }));
            lock.UnlockName("x");

            // Either the readers are counted first and the writer drains them, or the writer
            // claims the name first and the readers wait for it. Each side lets go as soon as
            // it has the name, so both orders end with everybody through.
            bool bReadersOut = false;
            const bool bAllThrough = WaitUntil([&] {
                if (!bReadersOut) {
                    size_t nIn = 0;
                    for (auto& r : readers) nIn += r->Done(0ms);
                    if (nIn == readers.size()) {
                        for (auto& r : readers) EXPECT_TRUE(r->Get());
                        for (size_t i = 0; i < readers.size(); ++i) lock.ReadUnlockName("x");
                        bReadersOut = true;
                    }
                }
                const bool bWriterOut = writer->Returned(0ms) && writer->Release(0ms);
                return bReadersOut && bWriterOut;
            });
            ASSERT_TRUE(bAllThrough) << "a waiter missed its wake-up";
            EXPECT_TRUE(writer->Locked());
            ASSERT_TRUE(EmptyAndConsistent(lock, 1));
        }
    }
}

TEST(NameLockOperations, AReaderAndAWriterMeetingAtTheStateMutexLetOnlyOneIn) {
    // Both have passed their event (no writer, no readers) and wait for the state mutex,
    // which we hold. Whoever gets it first wins: a writer that finds no reader claims the
    // name and the reader goes back to wait; a reader counted first sends the writer back
    // to wait for it. Never both.
    for (bool bUseMutex : {true, false}) {
        SCOPED_TRACE(bUseMutex);
        CNameLock lock(1, bUseMutex, true);
        for (int round = 0; round < 10; ++round) {
            SCOPED_TRACE(round);
            ASSERT_TRUE(lock.ReadLockName("m"));  // keeps the record while we look at it
            _tagNameLock* p = RecordOf(lock, "m");
            lock.ReadUnlockName("m");
            ASSERT_EQ(WaitForSingleObject(p->hStateMutex, INFINITE), WAIT_OBJECT_0);

            std::unique_ptr<Holder> writer;
            std::unique_ptr<Worker<bool>> reader;
            auto startWriter = [&] {
                writer = HoldWrite(lock, "m");
                ASSERT_TRUE(WaitUntil([&] { return HeldByAnother(p->hLock, bUseMutex); }));
            };
            auto startReader = [&] { reader = Async([&] { return lock.ReadLockName("m"); }); };
            if (round % 2) {
                startWriter();
                startReader();
            } else {
                startReader();
                startWriter();
            }
            ASSERT_TRUE(WaitUntil([&] { return UsersOf(lock, "m") == 2; }));
            std::this_thread::sleep_for(kShort);  // both reach the state mutex
            ReleaseMutex(p->hStateMutex);

            ASSERT_TRUE(WaitUntil([&] { return writer->Returned(0ms) || reader->Done(0ms); }));
            if (writer->Returned(0ms)) {
                EXPECT_TRUE(writer->Locked());
                EXPECT_FALSE(reader->Done(kShort)) << "a reader came in past a writer's claim";
                EXPECT_EQ(StateOf(p).nReaders, 0);
                ASSERT_TRUE(writer->Release());
                ASSERT_TRUE(Returned(*reader, true));
                lock.ReadUnlockName("m");
            } else {
                EXPECT_TRUE(reader->Get());
                EXPECT_FALSE(writer->Returned(kShort)) << "a writer claimed a name with a reader";
                EXPECT_EQ(StateOf(p).bWriter, 0);
                lock.ReadUnlockName("m");
                ASSERT_TRUE(GotTheLock(*writer));
                ASSERT_TRUE(writer->Release());
            }
            ASSERT_TRUE(Snapshot(lock).names.empty());
        }
    }
}

TEST(NameLockOperations, ARecordTakenByAnotherNameWaitsForItsLastUnlockToFinish) {
    // The last reader gives the record back first and only then counts itself out; holding
    // its state mutex stops it in between. A writer of another name takes the record in that
    // moment and has to wait for the old reader all the same.
    for (bool bUseMutex : {true, false}) {
        SCOPED_TRACE(bUseMutex);
        CNameLock lock(1, bUseMutex, true);
        ASSERT_TRUE(lock.ReadLockName("old"));
        _tagNameLock* p = RecordOf(lock, "old");
        ASSERT_EQ(WaitForSingleObject(p->hStateMutex, INFINITE), WAIT_OBJECT_0);

        auto unlocker = Async([&] {
            lock.ReadUnlockName("old");
            return true;
        });
        ASSERT_TRUE(WaitUntil([&] { return Snapshot(lock).freeList.size() == 1; }));
        EXPECT_FALSE(unlocker->Done(kShort));

        std::unique_ptr<Holder> writer = HoldWrite(lock, "new");
        ASSERT_TRUE(WaitUntil([&] { return RecordOf(lock, "new") == p; }));
        ASSERT_TRUE(WaitUntil([&] { return HeldByAnother(p->hLock, bUseMutex); }));
        EXPECT_FALSE(writer->Returned(kShort));

        ReleaseMutex(p->hStateMutex);
        ASSERT_TRUE(unlocker->Done(kLong));
        ASSERT_TRUE(GotTheLock(*writer));
        EXPECT_EQ(PictureOf(p), (Picture{0, 1, false, true}));
        ASSERT_TRUE(writer->Release());
        EXPECT_TRUE(TableIsConsistent(lock, 1));
    }
}

TEST(NameLockOperations, AMutexLockBelongsToItsThreadAndCanBeTakenAgain) {
    CNameLock lock(2, true, true);
    // Locked twice by one thread: two users, two unlocks. The first unlock already lets
    // readers in while the thread still holds hLock.
    ASSERT_TRUE(lock.LockName("re"));
    ASSERT_TRUE(lock.LockName("re"));
    EXPECT_EQ(UsersOf(lock, "re"), 2);
    lock.UnlockName("re");
    ASSERT_TRUE(ReturnsOnAnotherThread(true, [&] { return lock.ReadLockName("re"); }));
    EXPECT_FALSE(FreeForOthers(lock, "re"));
    lock.ReadUnlockName("re");
    lock.UnlockName("re");
    EXPECT_TRUE(Snapshot(lock).names.empty());
    EXPECT_TRUE(FreeForOthers(lock, "re"));

    // Unlocked by another thread: the reference goes, the mutex stays with its owner.
    ASSERT_TRUE(lock.LockName("own"));
    _tagNameLock* p = RecordOf(lock, "own");
    ASSERT_TRUE(ReturnsOnAnotherThread(true, [&] {
        lock.UnlockName("own");
        return true;
    }));
    EXPECT_TRUE(Snapshot(lock).names.empty());
    EXPECT_FALSE(HeldByAnother(p->hLock, true));  // this thread still owns it and re-enters
    EXPECT_TRUE(ReturnsOnAnotherThread(
        true, [&] { return WaitForSingleObject(p->hLock, 0) == WAIT_TIMEOUT; }));
    ReleaseMutex(p->hLock);
}

TEST(NameLockOperations, ASemaphoreLockPassesBetweenThreadsAndDoesNotReenter) {
    CNameLock lock(2, false, false);
    ASSERT_TRUE(ReturnsOnAnotherThread(true, [&] { return lock.LockName("baton"); }));
    EXPECT_FALSE(FreeForOthers(lock, "baton"));
    // Given back by a thread that didn't take it.
    lock.UnlockName("baton");
    EXPECT_TRUE(Snapshot(lock).names.empty());
    EXPECT_TRUE(FreeForOthers(lock, "baton"));

    // The holder itself times out on a second try: a semaphore knows no owner.
    ASSERT_TRUE(lock.LockName("self"));
    EXPECT_FALSE(lock.TryLockName("self", 30));
    EXPECT_EQ(UsersOf(lock, "self"), 1);
    lock.UnlockName("self");
    EXPECT_TRUE(Snapshot(lock).names.empty());
}

TEST(NameLockOperations, AHolderThatDiesFailsTheNextLockerAndTheNameWorksAgain) {
    for (bool bReadWrite : {true, false}) {
        SCOPED_TRACE(bReadWrite);
        CNameLock lock(2, true, bReadWrite);
        std::thread([&] { ASSERT_TRUE(lock.LockName("z")); }).join();  // ends holding "z"

        // The first locker after it inherits the mutex and fails; the name works again for
        // the next locker, on another thread, which doesn't re-enter what the first got.
        ASSERT_TRUE(ReturnsOnAnotherThread(false, [&] { return lock.LockName("z"); }));
        if (bReadWrite) {
            // Readers aren't kept out by the dead writer's mark either.
            ASSERT_TRUE(ReturnsOnAnotherThread(true, [&] { return lock.ReadLockName("z"); }));
            lock.ReadUnlockName("z");
        }
        EXPECT_TRUE(ReturnsOnAnotherThread(true, [&] {
            if (!lock.LockName("z")) return false;
            lock.UnlockName("z");
            return true;
        }));
        // The dead holder's own reference stays: the name keeps its record.
        EXPECT_EQ(UsersOf(lock, "z"), 1);
        EXPECT_TRUE(TableIsConsistent(lock, 2));
    }
}

TEST(NameLockOperations, LocksKeepWritersApartUnderContention) {
    // Writers count themselves in and out; readers check that no writer is in. The plain
    // counter is written under write locks only, so a lock that doesn't order its holders
    // shows as a wrong total (and as a race under the thread sanitizer).
    for (const Mode& mode : kAllModes) {
        SCOPED_TRACE(ModeText(mode));
        constexpr int kThreads = 4;
        constexpr int kRounds = 2000;
        CNameLock lock(2, mode.bUseMutex, mode.bReadWrite);
        std::atomic<int> writersIn[3] = {0, 0, 0}, readersIn[3] = {0, 0, 0};
        std::atomic<int> violations{0}, failures{0}, writes{0};
        long guarded[3] = {0, 0, 0};
        const char* names[3] = {"p", "q", "r"};
        std::vector<std::unique_ptr<Worker<bool>>> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.push_back(Async([&, t] {
                for (int i = 0; i < kRounds; ++i) {
                    const int n = (i + t) % 3;
                    const bool bRead = mode.bReadWrite && (i + t) % 2 == 0;
                    if (!(bRead ? lock.ReadLockName(names[n]) : lock.LockName(names[n]))) {
                        ++failures;
                        continue;
                    }
                    if (bRead) {
                        ++readersIn[n];
                        if (writersIn[n].load() != 0) ++violations;
                        volatile long seen = guarded[n];
                        (void)seen;
                        --readersIn[n];
                        lock.ReadUnlockName(names[n]);
                    } else {
                        if (++writersIn[n] != 1 || readersIn[n].load() != 0) ++violations;
                        guarded[n] = guarded[n] + 1;
                        ++writes;
                        --writersIn[n];
                        lock.UnlockName(names[n]);
                    }
                }
                return true;
            }));
        for (auto& th : threads) ASSERT_TRUE(th->Done(3 * kLong));
        EXPECT_EQ(violations.load(), 0);
        EXPECT_EQ(failures.load(), 0);
        // Half the rounds write in read-write mode, all of them in exclusive mode; the plain
        // counter lost none of them.
        EXPECT_EQ(writes.load(), mode.bReadWrite ? kThreads * kRounds / 2 : kThreads * kRounds);
        EXPECT_EQ(guarded[0] + guarded[1] + guarded[2], writes.load());
        EXPECT_TRUE(EmptyAndConsistent(lock, 2));
    }
}

TEST(NameLockOperations, SmartNameLockHoldsItsNameForItsScope) {
    for (const Mode& mode : kAllModes) {
        SCOPED_TRACE(ModeText(mode));
        CNameLock lock(3, mode.bUseMutex, mode.bReadWrite);
        _G_pNameLock = &lock;
        std::unique_ptr<Worker<bool>> reader;
        {
            CSmartNameLock guard("order-17");
            EXPECT_STREQ(guard.szName, "order-17");
            EXPECT_EQ(UsersOf(lock, "order-17"), 1);
            EXPECT_FALSE(FreeForOthers(lock, "order-17"));
            // As a writer: readers wait too.
            if (mode.bReadWrite) {
                reader = Async([&] { return lock.ReadLockName("order-17"); });
                EXPECT_FALSE(reader->Done(kShort));
            }
        }
        if (reader) {
            ASSERT_TRUE(Returned(*reader, true));
            lock.ReadUnlockName("order-17");
        }
        EXPECT_TRUE(Snapshot(lock).names.empty());
        EXPECT_TRUE(FreeForOthers(lock, "order-17"));

        // Assignment copies the name and touches no lock.
        {
            CSmartNameLock a("first");
            CSmartNameLock b("second");
            b = a;
            EXPECT_STREQ(b.szName, "first");
            EXPECT_EQ(UsersOf(lock, "first"), 1);
            EXPECT_EQ(UsersOf(lock, "second"), 1);
        }
        // Both guards unlocked "first"; "second" was never given back.
        EXPECT_EQ(UsersOf(lock, "first"), 0);
        EXPECT_EQ(UsersOf(lock, "second"), 1);
        EXPECT_TRUE(TableIsConsistent(lock, 3));
        _G_pNameLock = nullptr;
    }
}

TEST(NameLockOperations, SmartNameLockCutsLongNamesAndTakesNullAsEmpty) {
    CNameLock lock(2, false, true);
    _G_pNameLock = &lock;
    const std::string longName = std::string(63, 'L') + "-and-more";
    {
        CSmartNameLock guard(longName.c_str());
        EXPECT_EQ(std::string(guard.szName), std::string(63, 'L'));
        // Locked and unlocked under the same, cut name.
        EXPECT_EQ(UsersOf(lock, std::string(63, 'L')), 1);
        EXPECT_EQ(UsersOf(lock, longName), 0);
    }
    EXPECT_TRUE(Snapshot(lock).names.empty());
    {
        CSmartNameLock guard(nullptr);
        EXPECT_STREQ(guard.szName, "");
        EXPECT_EQ(UsersOf(lock, ""), 1);
    }
    EXPECT_TRUE(Snapshot(lock).names.empty());

    // Without a manager a guard does nothing at either end.
    _G_pNameLock = nullptr;
    {
        CSmartNameLock guard("nobody");
        EXPECT_STREQ(guard.szName, "nobody");
    }
    EXPECT_TRUE(EmptyAndConsistent(lock, 2));
}
