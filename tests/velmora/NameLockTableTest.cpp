// The table of the name lock manager: the pool, its two lists, the map of names in use, how
// a reference on a name is taken and given back, and what happens when the pool runs out.
#include "NameLockTestSupport.h"

#include <algorithm>
#include <cstring>
#include <memory>

using namespace velmora_namelock_test;

namespace {

struct Mode {
    bool bUseMutex;
    bool bReadWrite;
};
const Mode kModes[] = {{true, true}, {true, false}, {false, true}, {false, false}};

std::string ModeText(const Mode& m) {
    return std::string(m.bUseMutex ? "mutex" : "semaphore") +
           (m.bReadWrite ? ", read-write" : ", exclusive");
}

}  // namespace

TEST(NameLockTable, BuildsEveryRecordFreeWithTheObjectsOfItsMode) {
    for (const Mode& mode : kModes) {
        SCOPED_TRACE(ModeText(mode));
        NameLockProbe lock(3, mode.bUseMutex, mode.bReadWrite);
        EXPECT_EQ(lock.bUseMutex, mode.bUseMutex);
        EXPECT_EQ(lock.bReadWrite, mode.bReadWrite);
        EXPECT_TRUE(TableIsConsistent(lock, 3));
        TableSnapshot s = Snapshot(lock);
        ASSERT_EQ(s.freeList.size(), 3u);
        EXPECT_TRUE(s.usedList.empty());
        EXPECT_TRUE(s.names.empty());
        EXPECT_TRUE(IsSignalled(lock.hFreeEvent));

        std::set<HANDLE> handles{lock.hTableMutex, lock.hFreeEvent};
        for (_tagNameLock* p : s.freeList) {
            EXPECT_EQ(p->nUsers, 0);
            EXPECT_EQ(p->bWriter, 0);
            EXPECT_EQ(p->nReaders, 0);
            EXPECT_STREQ(p->szName, "");
            // hLock is free, and of the kind asked for: only the matching release works.
            ASSERT_EQ(WaitForSingleObject(p->hLock, 0), WAIT_OBJECT_0);
            if (mode.bUseMutex) {
                EXPECT_FALSE(ReleaseSemaphore(p->hLock, 1, nullptr));
                EXPECT_TRUE(ReleaseMutex(p->hLock));
            } else {
                EXPECT_FALSE(ReleaseMutex(p->hLock));
                EXPECT_TRUE(ReleaseSemaphore(p->hLock, 1, nullptr));
                // One permit at most.
                EXPECT_FALSE(ReleaseSemaphore(p->hLock, 1, nullptr));
            }
            handles.insert(p->hLock);
            if (mode.bReadWrite) {
                ASSERT_EQ(WaitForSingleObject(p->hStateMutex, 0), WAIT_OBJECT_0);
                EXPECT_TRUE(ReleaseMutex(p->hStateMutex));
                // Both events start signalled and stay so when waited on: manual reset.
                EXPECT_TRUE(IsSignalled(p->hNoWriterEvent));
                EXPECT_TRUE(IsSignalled(p->hNoWriterEvent));
                EXPECT_TRUE(IsSignalled(p->hNoReadersEvent));
                EXPECT_TRUE(IsSignalled(p->hNoReadersEvent));
                handles.insert({p->hStateMutex, p->hNoWriterEvent, p->hNoReadersEvent});
            } else {
                EXPECT_EQ(p->hStateMutex, nullptr);
                EXPECT_EQ(p->hNoWriterEvent, nullptr);
                EXPECT_EQ(p->hNoReadersEvent, nullptr);
            }
        }
        // Every object is an object of its own.
        EXPECT_EQ(handles.size(), 2u + 3u * (mode.bReadWrite ? 4u : 1u));
        EXPECT_EQ(handles.count(nullptr), 0u);
    }
}

TEST(NameLockTable, AnEmptyPoolRefusesNewNamesInsteadOfWaiting) {
    for (int nCount : {0, -5}) {
        SCOPED_TRACE(nCount);
        NameLockProbe lock(nCount, true, true);
        EXPECT_TRUE(TableIsConsistent(lock, 0));
        Worker<_tagNameLock*> w([&] { return lock.AcquireName("a"); });
        ASSERT_TRUE(w.Done(kLong)) << "a new name waits for a record that can never come";
        EXPECT_EQ(w.Get(), nullptr);
        EXPECT_EQ(lock.ReleaseName("a"), nullptr);
        EXPECT_TRUE(TableIsConsistent(lock, 0));
    }
}

TEST(NameLockTable, UsersOfANameShareOneRecordUntilTheLastGoes) {
    NameLockProbe lock(4, true, false);
    _tagNameLock* head = Snapshot(lock).freeList.front();

    // The first user takes the head of the free list.
    _tagNameLock* alpha = lock.AcquireName("alpha");
    ASSERT_EQ(alpha, head);
    EXPECT_STREQ(alpha->szName, "alpha");
    EXPECT_TRUE(TableIsConsistent(lock, 4));
    TableSnapshot s = Snapshot(lock);
    EXPECT_EQ(s.usedList, std::vector<_tagNameLock*>{alpha});
    EXPECT_EQ(s.names, (std::map<std::string, NameEntry>{{"alpha", {alpha, 1}}}));

    // A later user joins the record and takes none.
    EXPECT_EQ(lock.AcquireName("alpha"), alpha);
    s = Snapshot(lock);
    EXPECT_EQ(s.names, (std::map<std::string, NameEntry>{{"alpha", {alpha, 2}}}));
    EXPECT_EQ(s.freeList.size(), 3u);

    // Names are exact: another case is another name; the empty string is a name.
    _tagNameLock* upper = lock.AcquireName("Alpha");
    _tagNameLock* empty = lock.AcquireName("");
    ASSERT_NE(upper, nullptr);
    ASSERT_NE(empty, nullptr);
    EXPECT_NE(upper, alpha);
    EXPECT_NE(empty, alpha);
    EXPECT_NE(empty, upper);
    EXPECT_STREQ(empty->szName, "");
    EXPECT_TRUE(TableIsConsistent(lock, 4));
    EXPECT_EQ(Snapshot(lock).names.size(), 3u);

    // Giving back: a reference that isn't the last leaves the name; an unknown name changes
    // nothing.
    EXPECT_EQ(lock.ReleaseName("alpha"), alpha);
    EXPECT_EQ(UsersOf(lock, "alpha"), 1);
    TableSnapshot before = Snapshot(lock);
    EXPECT_EQ(lock.ReleaseName("ALPHA"), nullptr);
    EXPECT_EQ(lock.ReleaseName("alph"), nullptr);
    EXPECT_EQ(Snapshot(lock), before);

    // The last reference: the record is still returned, and is the new head of the pool.
    EXPECT_EQ(lock.ReleaseName("alpha"), alpha);
    s = Snapshot(lock);
    EXPECT_EQ(s.names.count("alpha"), 0u);
    EXPECT_EQ(s.freeList.front(), alpha);
    EXPECT_STREQ(alpha->szName, "");
    EXPECT_TRUE(TableIsConsistent(lock, 4));
    EXPECT_EQ(lock.ReleaseName("alpha"), nullptr);

    // The record given back last serves the next new name; the old name, coming back while
    // that one is in use, gets another.
    EXPECT_EQ(lock.AcquireName("beta"), alpha);
    _tagNameLock* again = lock.AcquireName("alpha");
    ASSERT_NE(again, nullptr);
    EXPECT_NE(again, alpha);
    EXPECT_TRUE(TableIsConsistent(lock, 4));
}

TEST(NameLockTable, ListsStayLinkedWhateverLeavesAndTheFreeListIsAStack) {
    NameLockProbe lock(5, false, true);
    _tagNameLock* a = lock.AcquireName("a");
    _tagNameLock* b = lock.AcquireName("b");
    _tagNameLock* c = lock.AcquireName("c");
    _tagNameLock* d = lock.AcquireName("d");
    _tagNameLock* e = Snapshot(lock).freeList.front();
    using List = std::vector<_tagNameLock*>;
    EXPECT_EQ(Snapshot(lock).usedList, (List{d, c, b, a}));

    lock.ReleaseName("b");  // from the middle
    EXPECT_TRUE(TableIsConsistent(lock, 5));
    EXPECT_EQ(Snapshot(lock).usedList, (List{d, c, a}));
    EXPECT_EQ(Snapshot(lock).freeList, (List{b, e}));

    lock.ReleaseName("d");  // the head
    EXPECT_TRUE(TableIsConsistent(lock, 5));
    EXPECT_EQ(Snapshot(lock).usedList, (List{c, a}));

    lock.ReleaseName("a");  // the tail
    EXPECT_TRUE(TableIsConsistent(lock, 5));
    EXPECT_EQ(Snapshot(lock).usedList, (List{c}));
    EXPECT_EQ(Snapshot(lock).freeList, (List{a, d, b, e}));

    lock.ReleaseName("c");  // the only one
    EXPECT_TRUE(TableIsConsistent(lock, 5));
    EXPECT_TRUE(Snapshot(lock).usedList.empty());
    EXPECT_EQ(Snapshot(lock).freeList, (List{c, a, d, b, e}));

    // Taken again last in, first out.
    EXPECT_EQ(lock.AcquireName("x"), c);
    EXPECT_EQ(lock.AcquireName("y"), a);
    EXPECT_EQ(lock.AcquireName("z"), d);
    EXPECT_TRUE(TableIsConsistent(lock, 5));
}

TEST(NameLockTable, NamesAreWholeKeysOrderedBytewise) {
    NameLockProbe lock(12, true, false);
    // Bytes compare as unsigned; a name that begins another sorts first.
    const std::vector<std::string> sorted = {"",   "B",       "a",       "ab",
                                             "a\x7F", "a\x80", "b", "\xC3\xA9"};
    for (auto it = sorted.rbegin(); it != sorted.rend(); ++it)
        ASSERT_NE(lock.AcquireName(it->c_str()), nullptr);
    std::vector<std::string> inMap;
    UnderTableMutex(lock, [&] {
        for (const auto& entry : lock.mapNames) inMap.push_back(entry.first);
        return 0;
    });
    EXPECT_EQ(inMap, sorted);

    // A name longer than the record's field: the record keeps the first 63 characters, the
    // table keeps the whole name. Two long names that differ only after that are two names.
    const std::string longA = std::string(63, 'n') + "-first-of-two-long-names";
    const std::string longB = std::string(63, 'n') + "-second-of-two-long-names";
    _tagNameLock* pA = lock.AcquireName(longA.c_str());
    _tagNameLock* pB = lock.AcquireName(longB.c_str());
    ASSERT_NE(pA, nullptr);
    ASSERT_NE(pB, nullptr);
    EXPECT_NE(pA, pB);
    EXPECT_EQ(std::string(pA->szName), std::string(63, 'n'));
    EXPECT_EQ(pA->szName[63], '\0');
    EXPECT_TRUE(TableIsConsistent(lock, 12));
    // The cut copy is not the name.
    EXPECT_EQ(lock.ReleaseName(std::string(63, 'n').c_str()), nullptr);
    EXPECT_EQ(lock.ReleaseName(longA.c_str()), pA);
    EXPECT_EQ(UsersOf(lock, longA), 0);
    EXPECT_EQ(UsersOf(lock, longB), 1);

    // A name of exactly 63 characters fits whole.
    const std::string fits(63, 'f');
    _tagNameLock* pFits = lock.AcquireName(fits.c_str());
    ASSERT_NE(pFits, nullptr);
    EXPECT_EQ(std::string(pFits->szName), fits);
    EXPECT_TRUE(TableIsConsistent(lock, 12));
}

TEST(NameLockTable, AnExhaustedPoolBlocksOnlyNewNames) {
    NameLockProbe lock(1, true, false);
    _tagNameLock* only = lock.AcquireName("held");
    ASSERT_NE(only, nullptr);
    // Taking the last record resets the event.
    EXPECT_FALSE(IsSignalled(lock.hFreeEvent));
    EXPECT_TRUE(Snapshot(lock).freeList.empty());

    // A name already in the table doesn't need the pool.
    Worker<_tagNameLock*> later([&] { return lock.AcquireName("held"); });
    ASSERT_TRUE(later.Done(kLong)) << "a later user of a name in use waited for the pool";
    EXPECT_EQ(later.Get(), only);
    EXPECT_EQ(UsersOf(lock, "held"), 2);

    // A new name waits until the record comes back, not merely until a reference goes.
    Worker<_tagNameLock*> fresh([&] { return lock.AcquireName("fresh"); });
    EXPECT_FALSE(fresh.Done(kShort));
    EXPECT_EQ(lock.ReleaseName("held"), only);
    EXPECT_FALSE(fresh.Done(kShort));
    EXPECT_EQ(Snapshot(lock).names.count("fresh"), 0u);

    EXPECT_EQ(lock.ReleaseName("held"), only);
    ASSERT_TRUE(fresh.Done(kLong));
    EXPECT_EQ(fresh.Get(), only);
    TableSnapshot s = Snapshot(lock);
    EXPECT_EQ(s.names, (std::map<std::string, NameEntry>{{"fresh", {only, 1}}}));
    EXPECT_TRUE(s.freeList.empty());
    // The waiter took the record that came back, so the event is reset again.
    EXPECT_FALSE(IsSignalled(lock.hFreeEvent));
    EXPECT_TRUE(TableIsConsistent(lock, 1));

    // A record coming back to the empty pool signals it.
    EXPECT_EQ(lock.ReleaseName("fresh"), only);
    EXPECT_TRUE(IsSignalled(lock.hFreeEvent));
    EXPECT_TRUE(TableIsConsistent(lock, 1));
}

TEST(NameLockTable, EachRecordThatComesBackLetsExactlyOneNewNameThrough) {
    NameLockProbe lock(1, false, false);
    ASSERT_NE(lock.AcquireName("first"), nullptr);
    const std::vector<std::string> names = {"second", "third", "fourth"};
    std::vector<std::unique_ptr<Worker<_tagNameLock*>>> waiters;
    for (const std::string& name : names)
        waiters.push_back(std::make_unique<Worker<_tagNameLock*>>(
            [&lock, name] { return lock.AcquireName(name.c_str()); }));
    auto done = [&] {
        size_t n = 0;
        for (auto& w : waiters) n += w->Done(0ms);
        return n;
    };
    EXPECT_FALSE(WaitUntil([&] { return done() > 0; }, kShort));

    std::string giveBack = "first";
    for (size_t round = 1; round <= names.size(); ++round) {
        SCOPED_TRACE(round);
        lock.ReleaseName(giveBack.c_str());
        ASSERT_TRUE(WaitUntil([&] { return done() >= round; }));
        // The others woke too, found the pool empty again and went back to sleep.
        EXPECT_FALSE(WaitUntil([&] { return done() > round; }, kShort));
        TableSnapshot s = Snapshot(lock);
        ASSERT_EQ(s.names.size(), 1u);
        giveBack = s.names.begin()->first;
        EXPECT_NE(std::find(names.begin(), names.end(), giveBack), names.end());
        EXPECT_TRUE(s.freeList.empty());
        EXPECT_TRUE(TableIsConsistent(lock, 1));
    }
    lock.ReleaseName(giveBack.c_str());
    EXPECT_TRUE(TableIsConsistent(lock, 1));
    EXPECT_TRUE(Snapshot(lock).names.empty());
}

// Needs the platform's manual-reset event to release every thread waiting when SetEvent
// runs, also one that hasn't run yet when the taker of the record resets the event.
TEST(NameLockTable, WaitersForTheSameNameShareTheRecordThatComesBack) {
    NameLockProbe lock(1, true, true);
    _tagNameLock* only = lock.AcquireName("first");
    Worker<_tagNameLock*> w1([&] { return lock.AcquireName("shared"); });
    Worker<_tagNameLock*> w2([&] { return lock.AcquireName("shared"); });
    EXPECT_FALSE(w1.Done(kShort));
    lock.ReleaseName("first");
    ASSERT_TRUE(w1.Done(kLong));
    ASSERT_TRUE(w2.Done(kLong));
    EXPECT_EQ(w1.Get(), only);
    EXPECT_EQ(w2.Get(), only);
    EXPECT_EQ(Snapshot(lock).names, (std::map<std::string, NameEntry>{{"shared", {only, 2}}}));
    EXPECT_TRUE(TableIsConsistent(lock, 1));
}

// Needs the platform's manual-reset event to release every thread waiting when SetEvent
// runs, also one that hasn't run yet when the taker of the record resets the event.
TEST(NameLockTable, AWaiterJoinsANameThatCameInWhileItSlept) {
    NameLockProbe lock(2, true, false);
    ASSERT_NE(lock.AcquireName("a"), nullptr);
    ASSERT_NE(lock.AcquireName("c"), nullptr);
    Worker<_tagNameLock*> waiter([&] { return lock.AcquireName("b"); });
    EXPECT_FALSE(waiter.Done(kShort));  // asleep on the empty pool

    // Holding the table mutex (it is re-entrant for us), give a record back, which wakes the
    // waiter, and bring its name in before it can look.
    _tagNameLock* b = nullptr;
    UnderTableMutex(lock, [&] {
        lock.ReleaseName("c");
        b = lock.AcquireName("b");
        return 0;
    });
    ASSERT_NE(b, nullptr);
    ASSERT_TRUE(waiter.Done(kLong));
    EXPECT_EQ(waiter.Get(), b);
    TableSnapshot s = Snapshot(lock);
    EXPECT_EQ(s.names.at("b"), (NameEntry{b, 2}));
    EXPECT_TRUE(s.freeList.empty());
    EXPECT_TRUE(TableIsConsistent(lock, 2));
}

TEST(NameLockTable, ARecordChangesHandsWithItsLockObjectsAsTheyAre) {
    // The holders balance a record's lock objects; the table never resets them, neither when
    // the record goes back nor when another name takes it.
    NameLockProbe lock(1, false, true);
    _tagNameLock* p = lock.AcquireName("old");
    ASSERT_EQ(WaitForSingleObject(p->hLock, 0), WAIT_OBJECT_0);
    ResetEvent(p->hNoWriterEvent);
    ResetEvent(p->hNoReadersEvent);
    ASSERT_EQ(WaitForSingleObject(p->hStateMutex, 0), WAIT_OBJECT_0);
    p->nReaders = 2;
    p->bWriter = 1;
    ReleaseMutex(p->hStateMutex);

    auto unchanged = [&] {
        EXPECT_TRUE(HeldByAnother(p->hLock, false));
        EXPECT_FALSE(IsSignalled(p->hNoWriterEvent));
        EXPECT_FALSE(IsSignalled(p->hNoReadersEvent));
        ReaderState state = StateOf(p);
        EXPECT_EQ(state.nReaders, 2);
        EXPECT_EQ(state.bWriter, 1);
    };
    ASSERT_EQ(lock.ReleaseName("old"), p);
    EXPECT_EQ(Snapshot(lock).freeList.front(), p);
    unchanged();
    ASSERT_EQ(lock.AcquireName("new"), p);
    unchanged();
    EXPECT_TRUE(TableIsConsistent(lock, 1));
}

TEST(NameLockTable, TheDestructorClosesEveryHandleInUseOrNot) {
    auto lock = std::make_unique<NameLockProbe>(3, true, true);
    _tagNameLock* used = lock->AcquireName("in use");
    ASSERT_NE(used, nullptr);
    ASSERT_EQ(WaitForSingleObject(used->hLock, INFINITE), WAIT_OBJECT_0);
    std::vector<HANDLE> handles{lock->hTableMutex, lock->hFreeEvent};
    for (_tagNameLock* list : {lock->pFreeList, lock->pUsedList})
        for (_tagNameLock* p = list; p; p = p->pNext)
            handles.insert(handles.end(),
                           {p->hLock, p->hStateMutex, p->hNoWriterEvent, p->hNoReadersEvent});
    ASSERT_EQ(handles.size(), 2u + 12u);
    lock.reset();
    for (HANDLE h : handles) {
        EXPECT_EQ(WaitForSingleObject(h, 0), WAIT_FAILED);
        EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_HANDLE));
    }
}

TEST(NameLockTable, ManyThreadsOnASmallPoolLeaveItWhole) {
    // More threads than records: new names keep running into an exhausted pool, and every
    // record that comes back has to reach a waiter. A lost wake-up shows as a thread that
    // doesn't finish.
    constexpr int kPool = 3;
    constexpr int kThreads = 6;
    constexpr int kRounds = 400;
    NameLockProbe lock(kPool, true, false);
    std::atomic<int> mismatches{0};
    std::atomic<int> refusals{0};
    std::vector<std::unique_ptr<Worker<int>>> workers;
    for (int t = 0; t < kThreads; ++t)
        workers.push_back(std::make_unique<Worker<int>>([&, t] {
            for (int i = 0; i < kRounds; ++i) {
                const std::string name = "name" + std::to_string((i * 7 + t * 3) % 8);
                _tagNameLock* taken = lock.AcquireName(name.c_str());
                if (!taken) {
                    ++refusals;
                    continue;
                }
                // Now and then hold on a little, so that the pool really runs out.
                if (i % 4 == t % 4) std::this_thread::sleep_for(200us);
                if (lock.ReleaseName(name.c_str()) != taken) ++mismatches;
            }
            return 0;
        }));
    for (auto& w : workers) ASSERT_TRUE(w->Done(3 * kLong)) << "a thread never got a record";
    EXPECT_EQ(mismatches.load(), 0);
    EXPECT_EQ(refusals.load(), 0);
    EXPECT_TRUE(TableIsConsistent(lock, kPool));
    TableSnapshot s = Snapshot(lock);
    EXPECT_TRUE(s.names.empty());
    EXPECT_EQ(s.freeList.size(), size_t(kPool));
    EXPECT_TRUE(IsSignalled(lock.hFreeEvent));
}
