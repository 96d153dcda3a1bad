// The object usage tracker: the keys of the two twins, the name limit, the walk over fresh
// copies in key order, counts from many threads, and the trace line and host failures under
// the object usage lock.
#include "ReportTestSupport.h"

#include <future>
#include <latch>
#include <map>
#include <thread>
#include <tuple>

using namespace velmora_report_test;
using velmora_log_test::Letters;

namespace {

// The protected walk of the service object.
struct UsageAccess : CVelmora {
    using CVelmora::GetNextObjectUsages;
};
_tagObjTracker* Next(_tagObjTracker* pLast) {
    _tagObjTracker* (CVelmora::*pNext)(_tagObjTracker*) = &UsageAccess::GetNextObjectUsages;
    return (velmora.*pNext)(pLast);
}

// A record as the tests compare it.
struct Usage {
    int nObjectID;
    std::string name;
    bool bAllocate;
    int nCount;
    bool operator==(const Usage& other) const {
        return std::tie(nObjectID, name, bAllocate, nCount) ==
               std::tie(other.nObjectID, other.name, other.bAllocate, other.nCount);
    }
};
void PrintTo(const Usage& usage, std::ostream* os) {
    *os << "{" << usage.nObjectID << ", \"" << usage.name << "\", "
        << (usage.bAllocate ? "alloc" : "release") << ", " << usage.nCount << "}";
}
Usage Of(const _tagObjTracker& record) {
    return {record.nObjectID, record.szName, record.bAllocate, record.nCount};
}

// The map as it stands, key by key.
std::map<std::string, Usage> Records() {
    std::map<std::string, Usage> records;
    for (const auto& [key, pRecord] : velmora.mapObjectUsages) records.emplace(key, Of(*pRecord));
    return records;
}
bool IsMapRecord(const _tagObjTracker* p) {
    for (const auto& entry : velmora.mapObjectUsages)
        if (entry.second == p) return true;
    return false;
}

// A whole walk as a caller makes it: each copy is passed on, then deleted at once. Every
// copy must be new: not a record of the map, not the copy it was asked about.
std::vector<Usage> Walk() {
    std::vector<Usage> seen;
    _tagObjTracker* pCopy = Next(nullptr);
    while (pCopy != nullptr) {
        EXPECT_FALSE(IsMapRecord(pCopy));
        seen.push_back(Of(*pCopy));
        _tagObjTracker* pNext = Next(pCopy);
        EXPECT_NE(pNext, pCopy);
        delete pCopy;
        pCopy = pNext;
    }
    return seen;
}

// The records are never freed by the library (they live as long as the process); a test
// frees them so that a leak checker sees only real leaks.
class ObjectUsage : public ReportFixture {
protected:
    void TearDown() override {
        for (auto& entry : velmora.mapObjectUsages) delete entry.second;
        velmora.mapObjectUsages.clear();
        ReportFixture::TearDown();
    }
};

// Tells from another thread whether csObjectUsages is held at the moment.
bool UsageLockHeldElsewhere() {
    bool bHeld = false;
    std::thread probe([&] {
        if (TryEnterCriticalSection(&velmora.csObjectUsages)) {
            LeaveCriticalSection(&velmora.csObjectUsages);
        } else {
            bHeld = true;
        }
    });
    probe.join();
    return bHeld;
}

// An engine that notes, each time the trace line asks for the transaction, whether the
// object usage lock is held.
class LockProbingEngine : public FakeTransactionEngine {
public:
    DWORD GetTransactionDescr(char* szBuffer) override {
        lockHeld.push_back(UsageLockHeldElsewhere());
        return FakeTransactionEngine::GetTransactionDescr(szBuffer);
    }
    std::vector<bool> lockHeld;
};

}  // namespace

TEST_F(ObjectUsage, TheTwinsCountOnRecordsOfTheirOwnUnderTheirKeys) {
    velmora.AllocateObject("Order", 7);
    velmora.AllocateObject("Order", 7);
    velmora.ReleaseObject("Order", 7);
    // A null name is a key of its own, and so is the same name under another number.
    velmora.AllocateObject(nullptr, 5);
    velmora.AllocateObject("Order", 5);
    velmora.ReleaseObject(nullptr, 5);
    velmora.ReleaseObject(nullptr, 5);
    velmora.AllocateObject("", 5);
    velmora.AllocateObject("Fill", -3);

    std::map<std::string, Usage> expected = {
        {"7-1-Order", {7, "Order", true, 2}},
        {"7-0-Order", {7, "Order", false, 1}},
        {"5-1", {5, "", true, 1}},
        {"5-1-Order", {5, "Order", true, 1}},
        {"5-0", {5, "", false, 2}},
        {"5-1-", {5, "", true, 1}},
        {"-3-1-Fill", {-3, "Fill", true, 1}},
    };
    EXPECT_EQ(Records(), expected);
}

TEST_F(ObjectUsage, ANameOf64CharactersOrMoreIsNotCounted) {
    std::string n63 = Letters(63), n64 = Letters(64, 1), n500 = Letters(500, 2);
    velmora.AllocateObject(n63.c_str(), 1);
    velmora.ReleaseObject(n63.c_str(), 1);
    velmora.AllocateObject(n64.c_str(), 1);
    velmora.ReleaseObject(n64.c_str(), 1);
    velmora.AllocateObject(n500.c_str(), 1);
    std::map<std::string, Usage> expected = {
        {"1-1-" + n63, {1, n63, true, 1}},
        {"1-0-" + n63, {1, n63, false, 1}},
    };
    EXPECT_EQ(Records(), expected);
}

TEST_F(ObjectUsage, ATooLongNameIsRefusedBeforeTheLockAndWithoutATrace) {
    MakeDefaultLog();
    _G_TraceAll = true;
    std::string n64 = Letters(64);

    // Another thread holds the lock: a refused name must not wait for it.
    std::promise<void> held, release;
    std::thread holder([&] {
        EnterCriticalSection(&velmora.csObjectUsages);
        held.set_value();
        release.get_future().wait();
        LeaveCriticalSection(&velmora.csObjectUsages);
    });
    held.get_future().wait();
    auto refused = std::async(std::launch::async, [&] {
        velmora.AllocateObject(n64.c_str(), 9);
        velmora.ReleaseObject(n64.c_str(), 9);
    });
    // Generous: the calls take microseconds unless they wait for the lock.
    bool bReturned = refused.wait_for(std::chrono::seconds(60)) == std::future_status::ready;
    release.set_value();
    holder.join();
    refused.wait();
    EXPECT_TRUE(bReturned) << "a refused name waited for the object usage lock";

    EXPECT_TRUE(velmora.mapObjectUsages.empty());
    EXPECT_EQ(velmora_log_test::CountOf(LogText(), ";TRACE;"), 0);
}

TEST_F(ObjectUsage, AWalkHandsOutFreshCopiesInKeyOrder) {
    EXPECT_EQ(Next(nullptr), nullptr);  // an empty map ends at once

    // Keys sort as texts: the records of 10 come before those of 2, and for one number the
    // release record before the allocation records.
    velmora.AllocateObject("Order", 2);
    velmora.AllocateObject("Order", 2);
    velmora.AllocateObject("Order", 10);
    velmora.ReleaseObject("Order", 2);
    velmora.AllocateObject(nullptr, 2);
    std::vector<Usage> expected = {
        {10, "Order", true, 1},
        {2, "Order", false, 1},
        {2, "", true, 1},
        {2, "Order", true, 2},
    };
    EXPECT_EQ(Walk(), expected);

    // A copy is the caller's: changing it leaves the map as it was.
    _tagObjTracker* pFirst = Next(nullptr);
    ASSERT_NE(pFirst, nullptr);
    pFirst->nCount = 1000;
    std::strcpy(pFirst->szName, "Changed");
    _tagObjTracker* pAgain = Next(nullptr);
    ASSERT_NE(pAgain, nullptr);
    EXPECT_NE(pAgain, pFirst);
    EXPECT_EQ(Of(*pAgain), (Usage{10, "Order", true, 1}));
    delete pFirst;
    delete pAgain;
    EXPECT_EQ(velmora.mapObjectUsages.at("10-1-Order")->nCount, 1);
}

TEST_F(ObjectUsage, AWalkEndsAfterTheLastRecordAndANewWalkSeesWhatWasAdded) {
    velmora.AllocateObject("B", 5);
    _tagObjTracker* pOnly = Next(nullptr);
    ASSERT_NE(pOnly, nullptr);
    EXPECT_EQ(Next(pOnly), nullptr);  // behind the last record
    // A record that matches none of the map also ends the walk.
    _tagObjTracker stranger{5, "B", false, 1};
    EXPECT_EQ(Next(&stranger), nullptr);

    // A record added behind the walker's position shows up in the same walk; one added
    // before it only in the next walk. Each copy shows the count at the moment of its call.
    velmora.AllocateObject("A", 5);  // "5-1-A" sorts before "5-1-B"
    velmora.AllocateObject("C", 5);  // and "5-1-C" behind it
    velmora.AllocateObject("C", 5);
    _tagObjTracker* pBehind = Next(pOnly);
    ASSERT_NE(pBehind, nullptr);
    EXPECT_EQ(Of(*pBehind), (Usage{5, "C", true, 2}));
    delete pOnly;
    delete pBehind;

    velmora.AllocateObject("B", 5);
    EXPECT_EQ(Walk(), (std::vector<Usage>{{5, "A", true, 1}, {5, "B", true, 2}, {5, "C", true, 2}}));
}

TEST_F(ObjectUsage, CountsFromEightThreadsAddUp) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 2000;
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            for (int i = 0; i < kRounds; ++i) {
                velmora.AllocateObject("Shared", 1);
                velmora.ReleaseObject("Shared", 1);
                // Keys that appear while the others count: the map grows under them.
                velmora.AllocateObject(i % 2 ? "Odd" : nullptr, 100 + t);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    std::map<std::string, Usage> records = Records();
    ASSERT_EQ(records.size(), 2u + 2u * kThreads);
    EXPECT_EQ(records.at("1-1-Shared"), (Usage{1, "Shared", true, kThreads * kRounds}));
    EXPECT_EQ(records.at("1-0-Shared"), (Usage{1, "Shared", false, kThreads * kRounds}));
    for (int t = 0; t < kThreads; ++t) {
        std::string number = std::to_string(100 + t);
        EXPECT_EQ(records.at(number + "-1-Odd").nCount, kRounds / 2);
        EXPECT_EQ(records.at(number + "-1").nCount, kRounds / 2);
    }
}

TEST_F(ObjectUsage, EachOperationTracesUnderItsOwnNameWithTheLockHeld) {
    MakeDefaultLog();
    LockProbingEngine engine;
    velmora.pFTSEngine = &engine;
    _G_TraceAll = true;
    velmora.AllocateObject("Order", 1);
    velmora.ReleaseObject(nullptr, 1);
    delete Next(nullptr);

    std::string log = LogText();
    const std::string tail = " TX#42 Orders;\r\n";
    for (const char* szName : {"CVelmora::AllocateObject", "CVelmora::ReleaseObject",
                               "CVelmora::GetNextObjectUsages"})
        EXPECT_EQ(velmora_log_test::CountOf(log, std::string(" ") + szName + tail), 1)
            << szName << "\n" << log;
    // The trace line is written under the lock, which is left afterwards.
    EXPECT_EQ(engine.lockHeld, (std::vector<bool>{true, true, true}));
    EXPECT_FALSE(UsageLockHeldElsewhere());
}

TEST_F(ObjectUsage, AHostFailureInTheTraceIsReportedAndLeavesTheLock) {
    MakeDefaultLog();
    velmora.AllocateObject("Order", 1);
    FakeTransactionEngine engine;
    velmora.pFTSEngine = &engine;
    _G_TraceAll = true;

    // The failure comes before the map work: nothing is counted, the lock is left, and the
    // failure is reported under the operation's name.
    engine.nWin32FailuresLeft = 1;
    velmora.AllocateObject("Order", 1);
    EXPECT_FALSE(UsageLockHeldElsewhere());
    engine.nWin32FailuresLeft = 1;
    velmora.ReleaseObject("Order", 1);
    EXPECT_FALSE(UsageLockHeldElsewhere());
    engine.nWin32FailuresLeft = 1;
    EXPECT_EQ(Next(nullptr), nullptr);
    EXPECT_FALSE(UsageLockHeldElsewhere());

    EXPECT_EQ(CountRecords("[Exception]", "CVelmora::AllocateObject engine down\n"), 1);
    EXPECT_EQ(CountRecords("[Exception]", "CVelmora::ReleaseObject engine down\n"), 1);
    EXPECT_EQ(CountRecords("[Exception]", "CVelmora::GetNextObjectUsages engine down\n"), 1);
    EXPECT_EQ(Records(), (std::map<std::string, Usage>{{"1-1-Order", {1, "Order", true, 1}}}));

    // And the next calls work as before.
    velmora.AllocateObject("Order", 1);
    EXPECT_EQ(Walk(), (std::vector<Usage>{{1, "Order", true, 2}}));
}
