// Profile logs: marks for a bound thread's pauses (set by moving dwProfileLastTick back), slots, units, events, ends.
#include "ProfileTestSupport.h"

#include <thread>

using namespace velmora_log_test;
using namespace velmora_profile_test;
using velmora_test::ReadFile;

namespace {
template <bool kDirect>
struct ProfileFixture : LogFolderTest {
    void SetUp() override { LogFolderTest::SetUp(), pCarrier = MustOpen(velmora.GetLogClient("carrier", true, kDirect, false)); }
    void TearDown() override { pCarrier != nullptr ? pCarrier->Close() : void(), LogFolderTest::TearDown(); }
    std::string Profile(const std::string& name) { return WithoutMarks(ReadFile(DirectFile(name))); }
    // Whether a record after a pause adds nMarks marks and itself to `name` (with hFile the profile writes there too);
    // a try in which the clock crosses a unit is made again.
    ::testing::AssertionResult AfterPause(DWORD dwGap, DWORD dwUnit, int nMarks, const std::string& name = "prof", HANDLE hFile = nullptr) {
        std::string added, expected;
        for (int attempt = 0, bClear = 0; attempt < 50 && !bClear; ++attempt) {
            size_t before = ReadFile(DirectFile(name)).size();
            if (hFile != nullptr) std::swap(pCarrier->pProfileLog[0]->hFile, hFile);
            DWORD t0 = GetTickInMilliSeconds();
            pCarrier->dwProfileLastTick[0] = t0 - dwGap;
            pCarrier->Log("P", "m");
            bClear = dwGap / dwUnit == (dwGap + GetTickInMilliSeconds() - t0) / dwUnit;
            if (hFile != nullptr) std::swap(pCarrier->pProfileLog[0]->hFile, hFile);
            added = ReadFile(DirectFile(name)).substr(before);
        }
        for (int i = 0; i < nMarks; ++i) expected += TextRecord(nullptr, MarkText());
        return MatchesPattern(added, expected + TextRecord("P", "m") + (hFile != nullptr ? TextRecord("P", "m") : ""));
    }
    CQuorelLog* pCarrier = nullptr;
    const DWORD me = GetCurrentThreadId();
};
using ProfileDirect = ProfileFixture<true>;
using ProfileClient = ProfileFixture<false>;
}  // namespace

// Marks from two units of 25 ms (a direct carrier's unit whatever given), from the last record's end, before both records.
TEST_F(ProfileDirect, MarksPrecedeTheRecordInUnitsOf25) {
    ASSERT_TRUE(Attach(pCarrier, "prof", me, 249));
    pCarrier->Log("P", "first");
    EXPECT_TRUE(MatchesPattern(ReadFile(DirectFile("prof")), TextRecord("P", "first")));
    for (auto [dwGap, nMarks] : {std::pair<DWORD, int>{37, 0}, {62, 2}, {112, 4}, {10012, 400}}) EXPECT_TRUE(AfterPause(dwGap, 25, nMarks)) << dwGap;
    DWORD before = GetTickInMilliSeconds();
    pCarrier->Log("P", "tick");
    EXPECT_LE(pCarrier->dwProfileLastTick[0] - before, GetTickInMilliSeconds() - before);
    EXPECT_EQ(CountOf(ReadFile(DirectFile("carrier")), MarkText()), 0);
    EXPECT_TRUE(AfterPause(112, 25, 4, "carrier", pCarrier->hFile));
}

// A client carrier's unit: 25 until an attach gives one from 1 to 249, one for both slots; the client gets no marks.
TEST_F(ProfileClient, CountsInItsOwnUnitFrom1To249) {
    ASSERT_TRUE(Attach(pCarrier, "prof", me, 0));
    EXPECT_TRUE(AfterPause(62, 25, 2));
    for (int nGap : {250, -1, 1, 249}) {
        ASSERT_TRUE(Attach(pCarrier, "other", 42, nGap));
        EXPECT_EQ(pCarrier->nBottleNeckUnit, nGap < 1 || nGap > 249 ? 25 : nGap) << nGap;
        Detach(pCarrier, 42);
    }
    EXPECT_EQ(pCarrier->nProfileCount, 1);
    for (auto [dwGap, nMarks] : {std::pair<DWORD, int>{373, 0}, {622, 2}, {1120, 4}}) EXPECT_TRUE(AfterPause(dwGap, 249, nMarks)) << dwGap;
    std::string carrier = LogTextOf(pCarrier);
    EXPECT_EQ(CountOf(carrier, MarkText()), 0);
    EXPECT_EQ(CountOf(carrier, ";P;" + ThreadText() + ";m;"), CountOf(ReadFile(DirectFile("prof")), ";m;"));
}

// No profile without a name, for thread 0 or in a third slot; the first of two slots of a thread first; others to the carrier.
TEST_F(ProfileDirect, TwoSlotsTheFirstFirst) {
    EXPECT_FALSE(Attach(pCarrier, nullptr, me, 0) || Attach(pCarrier, "zero", 0, 0));
    ASSERT_TRUE(Attach(pCarrier, "one", me, 0) && Attach(pCarrier, "same", me, 0));
    EXPECT_FALSE(Attach(pCarrier, "three", 42, 0));
    EXPECT_EQ(pCarrier->nProfileCount, 2);
    pCarrier->dwProfileLastTick[1] = 4242;
    pCarrier->Log("P", "mine");
    EXPECT_EQ(pCarrier->dwProfileLastTick[1], 4242u);
    pCarrier->dwProfileLastTick[1] = 0;  // no pause to count once the slot is reached
    std::string other, two;
    std::thread([&] { pCarrier->Log("P", "other"), other = TextRecord("P", "other"); }).join();
    Detach(pCarrier, me);
    std::thread([&] { EXPECT_TRUE(Attach(pCarrier, "two", GetCurrentThreadId(), 0)), pCarrier->Log("P", "two"), two = TextRecord("P", "two"); }).join();
    pCarrier->Log("P", "again");
    EXPECT_TRUE(MatchesPattern(Profile("one"), TextRecord("P", "mine") + TextRecord("SHUTDOWN", ShutdownBanner())));
    EXPECT_TRUE(MatchesPattern(Profile("same"), TextRecord("P", "again")));
    EXPECT_TRUE(MatchesPattern(Profile("two"), two));
    EXPECT_TRUE(MatchesPattern(AfterBanner(Profile("carrier")), TextRecord("P", "mine") + other + two + TextRecord("P", "again")));
    EXPECT_FALSE(std::filesystem::exists(DirectFile("zero")) || std::filesystem::exists(DirectFile("three")));
}

// An event's start line restarts the pause, its end line keeps it; nothing for a thread without a slot, 0 included.
TEST_F(ProfileDirect, EventLines) {
    ASSERT_TRUE(Attach(pCarrier, "prof", me, 0));
    pCarrier->dwProfileLastTick[0] = GetTickInMilliSeconds() - 10000;
    DWORD before = GetTickInMilliSeconds();
    StartEvent(pCarrier, 7, int(me));
    EXPECT_LE(pCarrier->dwProfileLastTick[0] - before, GetTickInMilliSeconds() - before);
    StartEvent(pCarrier, -12, int(me)), pCarrier->Log("P", "work");
    pCarrier->dwProfileLastTick[0] = 123456, pCarrier->dwProfileLastTick[1] = 2222;  // the free slot holds the thread 0
    for (int nThread : {42, 0}) StartEvent(pCarrier, 5, nThread), EndEvent(pCarrier, nThread), Detach(pCarrier, DWORD(nThread));
    EndEvent(pCarrier, int(me));
    EXPECT_TRUE(pCarrier->dwProfileLastTick[0] == 123456 && pCarrier->dwProfileLastTick[1] == 2222 && pCarrier->nProfileCount == 1);
    EXPECT_TRUE(MatchesPattern(Profile("prof"), TextRecord(nullptr, EventStartText(7)) + TextRecord(nullptr, EventStartText(-12)) +
                                                    TextRecord("P", "work") + TextRecord(nullptr, EventEndText())));
}

// Detach, Close and PersistenceClose end each profile with its own banner, before the carrier's; a slot is used again.
TEST_F(ProfileDirect, ProfilesEndWithTheirOwnBanner) {
    const std::string banner = TextRecord("SHUTDOWN", ShutdownBanner());
    ASSERT_TRUE(Attach(pCarrier, "old", me, 0));
    pCarrier->Log("P", "kept"), Detach(pCarrier, me), pCarrier->Log("P", "carrier only");
    EXPECT_TRUE(MatchesPattern(Profile("old"), TextRecord("P", "kept") + banner));
    ASSERT_TRUE(Attach(pCarrier, "new", me, 0));
    pCarrier->Close(), pCarrier = nullptr;
    EXPECT_TRUE(MatchesPattern(Profile("new"), banner));
    CQuorelLog* pShared = MustOpen(velmora.GetLogClient("shared", true, true, true));
    ASSERT_TRUE(Attach(pShared, "first", me, 0) && Attach(pShared, "second", me, 0));
    pShared->Log("P", "work"), CallPersistenceClose(pShared);
    EXPECT_EQ(pShared->nProfileCount, 0);
    EXPECT_TRUE(MatchesPattern(Profile("first"), TextRecord("P", "work") + banner));
    EXPECT_TRUE(MatchesPattern(Profile("second"), banner));
    EXPECT_TRUE(MatchesPattern(AfterBanner(Profile("shared")), TextRecord("P", "work") + banner));
}
