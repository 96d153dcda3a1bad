// What a lock on a name means in each mode and with each kind of hLock: who waits for whom, what a
// time-out covers, a dead holder, the scope guard. Many threads at once are the stress tests' part.
#include "NameLockTestSupport.h"

#include <atomic>
#include <tuple>

using namespace velmora_namelock_test;

// Whether another thread gets the name at once; it gives it back at once if so.
static bool FreeForOthers(CNameLock& lock, const std::string& name) {
    return Worker([&] { return lock.TryLockName(name.c_str(), 0) && (lock.UnlockName(name.c_str()), true); }).Returns(true);
}
// Readers and writer mark (under the state mutex), and whether the no-writer and no-readers events are set.
static std::tuple<int, int, bool, bool> StateOf(_tagNameLock* p) {
    EXPECT_EQ(WaitForSingleObject(p->hStateMutex, INFINITE), WAIT_OBJECT_0);
    std::tuple state(p->nReaders, std::atomic_ref<int>(p->bWriter).load(), IsSignalled(p->hNoWriterEvent), IsSignalled(p->hNoReadersEvent));
    ReleaseMutex(p->hStateMutex);
    return state;
}

// A holder keeps lockers out until it unlocks; timed-out lockers, unknown and null names, and read
// locks in exclusive mode leave the table as it was.
TEST(NameLockOperations, AHolderKeepsOthersOutUntilItUnlocks) {
    for (auto [bUseMutex, bReadWrite] : {std::pair(true, true), {true, false}, {false, true}, {false, false}}) {
        SCOPED_TRACE(::testing::Message() << "mutex " << bUseMutex << ", read-write " << bReadWrite);
        CNameLock lock(2, bUseMutex, bReadWrite);
        ASSERT_TRUE(lock.LockName("acct"));
        Holder waiter(lock, "acct");
        ASSERT_TRUE(WaitUntil([&] { return UsersOf(lock, "acct") == 2; }));
        EXPECT_TRUE(Worker([&] { return lock.TryLockName("acct", 0) || lock.TryLockName("acct", 30); }).Returns(false));
        const TableSnapshot before = Snapshot(lock);
        lock.UnlockName("unknown"), lock.ReadUnlockName("unknown"), lock.UnlockName(nullptr), lock.ReadUnlockName(nullptr);
        EXPECT_FALSE(lock.LockName(nullptr) || lock.TryLockName(nullptr, 0) || lock.ReadLockName(nullptr));
        if (!bReadWrite) {
            EXPECT_FALSE(lock.ReadLockName("free") || lock.ReadLockName("acct"));
            lock.ReadUnlockName("acct");
        }
        EXPECT_EQ(Snapshot(lock), before);
        EXPECT_FALSE(waiter.Returned(kShort));
        lock.UnlockName("acct");
        ASSERT_TRUE(waiter.Locked());
        EXPECT_FALSE(FreeForOthers(lock, "acct"));
        ASSERT_TRUE(waiter.Release());
        EXPECT_TRUE(Snapshot(lock).names.empty() && TableIsConsistent(lock, 2));
    }
}

// A writer takes hLock and waits out the readers (new ones still come in, a second writer times out); then readers wait.
TEST(NameLockOperations, AWriterDrainsTheReadersAndThenKeepsReadersOut) {
    for (bool bUseMutex : {true, false}) {
        SCOPED_TRACE(bUseMutex);
        CNameLock lock(1, bUseMutex, true);
        _tagNameLock* p = lock.pFreeList;
        ASSERT_TRUE(lock.ReadLockName("n") && lock.ReadLockName("n"));
        EXPECT_EQ(StateOf(p), std::tuple(2, 0, true, false));
        Holder writer(lock, "n", 10);
        ASSERT_TRUE(WaitUntil([&] { return HeldByAnother(p->hLock, bUseMutex); }));
        EXPECT_TRUE(Worker([&] { return lock.ReadLockName("n"); }).Returns(true)) << "a waiting writer kept a reader out";
        EXPECT_TRUE(Worker([&] { return lock.TryLockName("n", 30); }).Returns(false));
        EXPECT_EQ(std::tuple_cat(StateOf(p), std::tuple(UsersOf(lock, "n"))), std::tuple(3, 0, true, false, 4));
        ASSERT_EQ(WaitForSingleObject(p->hStateMutex, INFINITE), WAIT_OBJECT_0);  // a read unlock counts under the state mutex
        Worker unlock([&] { return lock.ReadUnlockName("n"), true; });  // read locks belong to nobody
        EXPECT_FALSE(unlock.Done(kShort));
        ReleaseMutex(p->hStateMutex), lock.ReadUnlockName("n");
        ASSERT_TRUE(unlock.Returns(true));
        EXPECT_FALSE(writer.Returned(kShort));
        lock.ReadUnlockName("n");
        ASSERT_TRUE(writer.Locked());
        EXPECT_EQ(StateOf(p), std::tuple(0, 1, false, true));
        Worker reader([&] { return lock.ReadLockName("n"); });
        EXPECT_FALSE(reader.Done(kShort));
        ASSERT_TRUE(writer.Release() && reader.Returns(true));
        EXPECT_EQ(StateOf(p), std::tuple(1, 0, true, false));
        lock.ReadUnlockName("n");
        EXPECT_EQ(StateOf(p), std::tuple(0, 0, true, true));
        EXPECT_TRUE(TableIsConsistent(lock, 1));
    }
}

// A reader and a writer past their events meet at the state mutex (held here while this thread takes the other side):
// whoever comes second goes back to wait.
TEST(NameLockOperations, WhoeverComesSecondToTheStateMutexWaits) {
    CNameLock lock(1, true, true);
    _tagNameLock* p = lock.pFreeList;
    ASSERT_EQ(WaitForSingleObject(p->hStateMutex, INFINITE), WAIT_OBJECT_0);
    Worker reader([&] { return lock.ReadLockName("m"); });
    ASSERT_TRUE(WaitUntil([&] { return UsersOf(lock, "m") == 1; }));
    std::this_thread::sleep_for(kShort);  // the reader reaches the state mutex
    ASSERT_TRUE(lock.LockName("m"));
    ReleaseMutex(p->hStateMutex);
    EXPECT_FALSE(reader.Done(kShort)) << "a reader came in past a writer's claim";
    lock.UnlockName("m");
    ASSERT_TRUE(reader.Returns(true));
    lock.ReadUnlockName("m");  // read locks belong to nobody

    ASSERT_EQ(WaitForSingleObject(p->hStateMutex, INFINITE), WAIT_OBJECT_0);
    Holder writer(lock, "m");
    ASSERT_TRUE(WaitUntil([&] { return HeldByAnother(p->hLock, true); }));
    std::this_thread::sleep_for(kShort);  // the writer reaches the state mutex
    ASSERT_TRUE(lock.ReadLockName("m"));
    ReleaseMutex(p->hStateMutex);
    EXPECT_FALSE(writer.Returned(kShort)) << "a writer claimed a name with a reader";
    lock.ReadUnlockName("m");
    EXPECT_TRUE(writer.Locked() && writer.Release() && TableIsConsistent(lock, 1));
}

// A mutex holder that ends holding fails the next locker once; then the name works again and keeps the dead reference.
TEST(NameLockOperations, AHolderThatDiesFailsTheNextLockerAndTheNameWorksAgain) {
    for (bool bReadWrite : {true, false}) {
        CNameLock lock(2, true, bReadWrite);
        std::thread([&] { EXPECT_TRUE(lock.LockName("z")); }).join();
        EXPECT_TRUE(Worker([&] { return lock.LockName("z"); }).Returns(false));
        EXPECT_TRUE(Worker([&] { return lock.ReadLockName("z") && (lock.ReadUnlockName("z"), true); }).Returns(bReadWrite));
        EXPECT_TRUE(FreeForOthers(lock, "z"));
        EXPECT_TRUE(UsersOf(lock, "z") == 1 && TableIsConsistent(lock, 2));
    }
}

// The guard write-locks its copy of the name (cut to 63, null as empty) for its scope; assignment copies the name
// only; without a manager it does nothing.
TEST(NameLockOperations, SmartNameLockHoldsItsNameForItsScope) {
    CNameLock lock(4, true, true);
    _G_pNameLock = &lock;
    const std::string cut(63, 'L');
    std::unique_ptr<Worker> reader;
    {
        CSmartNameLock guard("order-17"), longer((cut + "-and-more").c_str()), empty(nullptr);
        reader = std::make_unique<Worker>([&] { return lock.ReadLockName("order-17"); });
        ASSERT_TRUE(WaitUntil([&] { return UsersOf(lock, "order-17") == 2; }));
        EXPECT_FALSE(reader->Done(kShort));
        EXPECT_EQ(std::tuple(std::string(longer.szName), std::string(empty.szName), UsersOf(lock, cut), UsersOf(lock, "")),
                  std::tuple(cut, std::string(), 1, 1));
    }
    ASSERT_TRUE(reader->Returns(true));
    lock.ReadUnlockName("order-17");
    {
        CSmartNameLock a("first"), b("second");
        b = a;
        EXPECT_EQ(std::tuple(std::string(b.szName), UsersOf(lock, "first"), UsersOf(lock, "second")), std::tuple("first", 1, 1));
    }
    EXPECT_EQ(Snapshot(lock).names, (std::map<std::string, std::pair<_tagNameLock*, int>>{{"second", {lock.pUsedList, 1}}}));
    _G_pNameLock = nullptr;
    CSmartNameLock nobody("nobody");
    EXPECT_TRUE(std::string(nobody.szName) == "nobody" && TableIsConsistent(lock, 4));
}
