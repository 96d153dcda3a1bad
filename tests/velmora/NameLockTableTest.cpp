// The table of the name lock manager: the pool, its lists and map, references taken and given back, an exhausted pool.
#include "NameLockTestSupport.h"

using namespace velmora_namelock_test;
using List = std::vector<_tagNameLock*>;
using Names = std::map<std::string, std::pair<_tagNameLock*, int>>;

TEST(NameLockTable, UsersOfANameShareOneRecordUntilTheLastGoes) {
    NameLockProbe lock(5, false, true);
    const List pool = Snapshot(lock).freeList;
    // The first user takes the free list's head, later ones join; names are exact and whole, a record keeps 63 characters.
    const std::string cut(63, 'n'), longer = cut + "-and-more";
    _tagNameLock *a = lock.AcquireName("a"), *again = lock.AcquireName("a"), *upper = lock.AcquireName("A");
    _tagNameLock *empty = lock.AcquireName(""), *whole = lock.AcquireName(cut.c_str()), *pLong = lock.AcquireName(longer.c_str());
    EXPECT_EQ(std::pair(a, again), std::pair(pool[0], pool[0]));
    EXPECT_EQ(Snapshot(lock).names, (Names{{"", {empty, 1}}, {"A", {upper, 1}}, {"a", {a, 2}}, {cut, {whole, 1}}, {longer, {pLong, 1}}}));
    EXPECT_TRUE(std::string(pLong->szName) == cut && TableIsConsistent(lock, 5));
    ASSERT_EQ(WaitForSingleObject(a->hLock, 0), WAIT_OBJECT_0);  // a semaphore of one permit
    EXPECT_TRUE(ReleaseSemaphore(a->hLock, 1, nullptr) && !ReleaseSemaphore(a->hLock, 1, nullptr));

    // A reference that isn't the last keeps the name; unknown and null names change nothing.
    EXPECT_EQ(std::pair(lock.ReleaseName("a"), lock.ReleaseName(longer.c_str())), std::pair(a, pLong));
    const TableSnapshot before = Snapshot(lock);
    EXPECT_TRUE(!lock.ReleaseName("aa") && !lock.ReleaseName(nullptr) && !lock.AcquireName(nullptr));
    EXPECT_EQ(Snapshot(lock), before);

    // The last reference frees the record; the lists stay linked whichever leaves; the free list is a stack.
    for (auto [szName, p] : {std::pair{"", empty}, {cut.c_str(), whole}, {"a", a}, {"A", upper}}) {
        EXPECT_EQ(lock.ReleaseName(szName), p);
        EXPECT_TRUE(TableIsConsistent(lock, 5));
    }
    EXPECT_EQ(lock.ReleaseName("a"), nullptr);
    EXPECT_EQ(Snapshot(lock).freeList, (List{upper, a, whole, empty, pLong}));
    EXPECT_EQ(lock.AcquireName("x"), upper);
}

TEST(NameLockTable, AnExhaustedPoolBlocksOnlyNewNamesUntilARecordComesBack) {
    NameLockProbe lock(1, true, false);
    _tagNameLock* only = lock.AcquireName("held");
    EXPECT_FALSE(IsSignalled(lock.hFreeEvent));  // reset by the taker of the last record
    EXPECT_TRUE(Worker([&] { return lock.AcquireName("held") == only; }).Returns(true));
    // Two waiters for a new name wait for a record to come back, not a reference, and share it.
    Worker fresh1([&] { return lock.AcquireName("fresh") == only; }), fresh2([&] { return lock.AcquireName("fresh") == only; });
    EXPECT_FALSE(fresh1.Done(kShort));
    EXPECT_EQ(lock.ReleaseName("held"), only);
    EXPECT_FALSE(fresh1.Done(kShort) || fresh2.Done(0ms));
    EXPECT_EQ(lock.ReleaseName("held"), only);
    EXPECT_TRUE(fresh1.Returns(true) && fresh2.Returns(true));
    EXPECT_EQ(Snapshot(lock).names, (Names{{"fresh", {only, 2}}}));
    EXPECT_FALSE(IsSignalled(lock.hFreeEvent));
    lock.ReleaseName("fresh"), lock.ReleaseName("fresh");
    EXPECT_TRUE(IsSignalled(lock.hFreeEvent) && TableIsConsistent(lock, 1));  // set by a record coming back to an empty pool
    // A pool built empty refuses new names instead of waiting for a record that can't come.
    for (int nCount : {0, -5}) {
        NameLockProbe none(nCount, true, true);
        EXPECT_TRUE(Worker([&] { return none.AcquireName("a") == nullptr; }).Returns(true));
        EXPECT_TRUE(TableIsConsistent(none, 0));
    }
}

TEST(NameLockTable, TheDestructorClosesEveryHandleInUseOrNot) {
    auto lock = std::make_unique<NameLockProbe>(2, true, true);
    ASSERT_EQ(WaitForSingleObject(lock->AcquireName("in use")->hLock, INFINITE), WAIT_OBJECT_0);
    std::vector<HANDLE> handles{lock->hTableMutex, lock->hFreeEvent};
    for (_tagNameLock* p : {lock->pFreeList, lock->pUsedList}) handles.insert(handles.end(), {p->hLock, p->hStateMutex, p->hNoWriterEvent, p->hNoReadersEvent});
    lock.reset();
    for (HANDLE h : handles) EXPECT_EQ(WaitForSingleObject(h, 0), WAIT_FAILED);
}
