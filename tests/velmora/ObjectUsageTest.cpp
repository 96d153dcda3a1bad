// The object usage tracker: keys, the name limit, walks in key order, the lock, host failures.
#include "ReportTestSupport.h"

#include <thread>

using Texts = std::vector<std::string>;

namespace {

struct UsageAccess : CVelmora { using CVelmora::GetNextObjectUsages; };
_tagObjTracker* Next(_tagObjTracker* pLast) { return (velmora.*&UsageAccess::GetNextObjectUsages)(pLast); }
std::string Of(const _tagObjTracker* p) {  // "<number> <name> <+ or -><count>"
    return std::to_string(p->nObjectID) + " " + p->szName + (p->bAllocate ? " +" : " -") + std::to_string(p->nCount);
}
Texts Records() {  // "<key>=<record>", in key order
    Texts records;
    for (const auto& [key, p] : velmora.mapObjectUsages) records.push_back(key + "=" + Of(p));
    return records;
}

// The library never frees the records; the test does, so that a leak checker sees real leaks.
struct ObjectUsage : velmora_report_test::ReportFixture {
    void TearDown() override {
        for (auto& entry : velmora.mapObjectUsages) delete entry.second;
        ReportFixture::TearDown();
    }
};

// Notes for each trace line whether another thread could take the object usage lock then.
struct LockProbingEngine : velmora_report_test::FakeTransactionEngine {
    std::vector<bool> lockHeld;
    DWORD GetTransactionDescr(char* szBuffer) override {
        std::thread([this] {
            lockHeld.push_back(!TryEnterCriticalSection(&velmora.csObjectUsages));
            if (!lockHeld.back()) LeaveCriticalSection(&velmora.csObjectUsages);
        }).join();
        return FakeTransactionEngine::GetTransactionDescr(szBuffer);
    }
};

}  // namespace

// A null name is a key of its own, 64 characters aren't counted; keys sort as texts; walks copy.
TEST_F(ObjectUsage, TheTwinsCountUnderTheirKeysAndAWalkCopiesThemInKeyOrder) {
    const std::string n63 = velmora_log_test::Letters(63), n64 = velmora_log_test::Letters(64, 1);
    for (const char* szName : {"Order", "Order", (const char*)nullptr, n63.c_str(), n64.c_str()})
        velmora.AllocateObject(szName, 10), velmora.ReleaseObject(szName, 2);
    velmora.AllocateObject("Order", 2), velmora.AllocateObject("", -3);
    Texts records = Records(), walk;
    EXPECT_EQ(records, (Texts{"-3-1-=-3  +1", "10-1=10  +1", "10-1-Order=10 Order +2",
                              "10-1-" + n63 + "=10 " + n63 + " +1", "2-0=2  -1", "2-0-Order=2 Order -2",
                              "2-0-" + n63 + "=2 " + n63 + " -1", "2-1-Order=2 Order +1"}));
    for (_tagObjTracker *pCopy = Next(nullptr), *pNext; pCopy != nullptr && walk.size() < 20; pCopy = pNext) {
        for (const auto& entry : velmora.mapObjectUsages) EXPECT_NE(entry.second, pCopy);
        walk.push_back(Of(pCopy)), pNext = Next(pCopy);
        delete pCopy;
    }
    for (std::string& record : records) record.erase(0, record.find('=') + 1);
    EXPECT_EQ(walk, records);
}

// Traces under the lock, none for a refused name; a host's failure is reported under the name.
TEST_F(ObjectUsage, TracesAndHostFailuresUnderTheLock) {
    MakeDefaultLog();
    LockProbingEngine engine;
    velmora.pFTSEngine = &engine;
    _G_TraceAll = true;
    velmora.AllocateObject("Order", 1), velmora.ReleaseObject(nullptr, 1);
    velmora.AllocateObject(velmora_log_test::Letters(64).c_str(), 1);
    delete Next(nullptr);
    const Texts names = {"CVelmora::AllocateObject", "CVelmora::ReleaseObject", "CVelmora::GetNextObjectUsages"};
    EXPECT_EQ(velmora_report_test::TracedNames(LogText()), names);
    EXPECT_EQ(engine.lockHeld, (std::vector<bool>{true, true, true}));
    engine.nWin32FailuresLeft = 1, velmora.AllocateObject("Order", 1);
    engine.nWin32FailuresLeft = 1, velmora.ReleaseObject(nullptr, 1);
    engine.nWin32FailuresLeft = 1;
    EXPECT_EQ(Next(nullptr), nullptr);
    for (const std::string& name : names) EXPECT_EQ(CountRecords("[Exception]", name + " engine down\n"), 1) << name;
}
