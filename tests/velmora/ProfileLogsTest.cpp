// Profile logs: the slots, the bottleneck marks and their unit, the event lines, detaching,
// and the end of profiles with their carrier.
//
// Time is driven through the public dwProfileLastTick of a slot: a pause is made by setting
// it to the current tick less the pause. The tick can move on before the profile step
// reads it, so every check of a count of marks knows the range of counts that the clock
// allows and insists on an exact count only when that range holds one value.
#include "ProfileTestSupport.h"

#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <mutex>
#include <thread>
#include <tuple>
#include <utility>

namespace fs = std::filesystem;
using namespace velmora_log_test;
using namespace velmora_profile_test;
using velmora_test::FileExists;
using velmora_test::ReadFile;
using velmora_test::TempDir;

namespace {

// A second thread of the test, with an id of its own, that runs what it is given while
// the test waits.
class OtherThread {
public:
    OtherThread() : m_thread([this] { Loop(); }) {
        Run([this] { m_id = GetCurrentThreadId(); });
    }
    ~OtherThread() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
        }
        m_cv.notify_all();
        m_thread.join();
    }
    OtherThread(const OtherThread&) = delete;
    OtherThread& operator=(const OtherThread&) = delete;

    DWORD id() const { return m_id; }
    void Run(std::function<void()> task) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_task = std::move(task);
        m_pending = true;
        m_cv.notify_all();
        m_cv.wait(lock, [this] { return !m_pending; });
    }

private:
    void Loop() {
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            m_cv.wait(lock, [this] { return m_stop || m_pending; });
            if (m_stop) return;
            m_task();
            m_pending = false;
            m_cv.notify_all();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::function<void()> m_task;
    bool m_pending = false;
    bool m_stop = false;
    DWORD m_id = 0;
    std::thread m_thread;  // last: it starts when the members above exist
};

// Marks in front of a record after a pause of n units.
int MarksFor(DWORD nUnits) { return nUnits >= 2 ? int(nUnits) : 0; }

// Makes a pause of dwGap milliseconds in slot nSlot of pCarrier, runs `between`, writes the
// record "P;<message>" of the calling thread, and expects in the profile file: the records
// of `lead` (what `between` writes there), nExpected marks, the record. The step reads the
// tick between t0 (before the pause is set) and t1 (after the record), so its count lies
// in a range that these two give; the try is repeated while the clock makes the range hold
// more than one count, and every try must lie in its range.
void ExpectMarksAfterPause(CQuorelLog* pCarrier, int nSlot, DWORD dwGap, DWORD dwUnit,
                           const std::string& profileFile, int nExpected,
                           const std::function<void()>& between = nullptr,
                           const std::string& lead = std::string()) {
    SCOPED_TRACE("pause of " + std::to_string(dwGap) + " ms, unit " + std::to_string(dwUnit));
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::string before = ReadFile(profileFile);
        std::string message = "after " + std::to_string(dwGap) + " try " + std::to_string(attempt);
        DWORD t0 = GetTickInMilliSeconds();
        pCarrier->dwProfileLastTick[nSlot] = t0 - dwGap;
        if (between) between();
        pCarrier->Log("P", message.c_str());
        DWORD t1 = GetTickInMilliSeconds();

        std::string added = ReadFile(profileFile).substr(before.size());
        int marks = CountMarks(added);
        std::string expected = lead;
        for (int i = 0; i < marks; ++i) expected += MarkRecord();
        expected += TextRecord("P", message);
        ASSERT_TRUE(MatchesPattern(added, expected)) << "lead, marks and record in this order";

        int lowest = MarksFor(dwGap / dwUnit);
        int highest = MarksFor((dwGap + (t1 - t0)) / dwUnit);
        ASSERT_GE(marks, lowest);
        ASSERT_LE(marks, highest);
        if (lowest == highest) {
            EXPECT_EQ(marks, nExpected);
            return;
        }
    }
    // The clock crossed a unit in every try: the ranges checked above are all there is.
}

// The threads of both slots of a carrier and its count of profiles.
std::tuple<DWORD, DWORD, int> Slots(const CQuorelLog* pLog) {
    return {pLog->dwProfileThread[0], pLog->dwProfileThread[1], pLog->nProfileCount};
}

// A direct-file carrier (ProfileDirect) or a log-client carrier (ProfileClient), whose
// records the client writes into PELTRIX_LOG_FOLDER. The profile logs are direct files in
// "<temp>/log/PFX.SFX/", as direct carriers are.
template <bool kDirect>
class ProfileFixture : public LogFolderTest {
protected:
    void SetUp() override {
        LogFolderTest::SetUp();
        if (HasFatalFailure()) return;
        pCarrier = velmora.GetLogClient("carrier", true, kDirect, false);
        ASSERT_NE(pCarrier, nullptr);
        ASSERT_EQ(pCarrier->pClient == nullptr, kDirect);
    }
    void TearDown() override {
        if (pCarrier != nullptr) pCarrier->Close();
        LogFolderTest::TearDown();
    }

    std::string FileOf(const std::string& name) const { return DirectFile(name); }
    std::string ClientCarrierFile() const { return ClientFile("carrier"); }
    // The carrier's file after its opening banner.
    std::string CarrierBody() const { return AfterBanner(ReadFile(FileOf("carrier"))); }
    // A record of the calling thread with no pause worth a mark in front of it.
    void LogNow(int nSlot, const char* szMsg) {
        pCarrier->dwProfileLastTick[nSlot] = GetTickInMilliSeconds();
        pCarrier->Log("P", szMsg);
    }

    CQuorelLog* pCarrier = nullptr;
    const DWORD me = GetCurrentThreadId();
};
using ProfileDirect = ProfileFixture<true>;
using ProfileClient = ProfileFixture<false>;

}  // namespace

// ---- Order and marks -------------------------------------------------------------------

TEST_F(ProfileDirect, MarksComeFirstThenTheProfileRecordThenTheCarriers) {
    ASSERT_TRUE(Attach(pCarrier, "prof", me, 0));
    CQuorelLog* pProfile = MustOpen(pCarrier->pProfileLog[0]);
    // AttachProfile writes no banner.
    EXPECT_TRUE(FileExists(FileOf("prof")));
    EXPECT_EQ(ReadFile(FileOf("prof")), "");

    // The profile writes through the carrier's own handle for one record, so that the order
    // of all the writes shows in one file.
    HANDLE hProfileFile = pProfile->hFile;
    pProfile->hFile = pCarrier->hFile;
    DWORD t0 = GetTickInMilliSeconds();
    pCarrier->dwProfileLastTick[0] = t0 - 110;
    pCarrier->Log("P", "m");
    DWORD t1 = GetTickInMilliSeconds();
    pProfile->hFile = hProfileFile;

    std::string body = CarrierBody();
    int marks = CountMarks(body);
    EXPECT_GE(marks, 4);
    EXPECT_LE(marks, int((110 + (t1 - t0)) / 25));
    std::string expected;
    for (int i = 0; i < marks; ++i) expected += MarkRecord();
    EXPECT_TRUE(MatchesPattern(body, expected + TextRecord("P", "m") + TextRecord("P", "m")));
}

TEST_F(ProfileDirect, PausesCountInTheFixedUnitOf25FromTwoUnitsOn) {
    // A direct carrier stores the unit it is given but doesn't use it.
    ASSERT_TRUE(Attach(pCarrier, "prof", me, 249));
    EXPECT_EQ(pCarrier->nBottleNeckUnit, 249);
    // Pause in milliseconds, marks; ten seconds are 400 lines.
    for (auto [dwGap, nMarks] : {std::pair<DWORD, int>{0, 0}, {49, 0}, {50, 2}, {99, 3}, {100, 4},
                                 {10000, 400}})
        ExpectMarksAfterPause(pCarrier, 0, dwGap, 25, FileOf("prof"), nMarks);

    // The pause is measured from the end of the thread's last record.
    DWORD before = GetTickInMilliSeconds();
    pCarrier->Log("P", "tick");
    DWORD after = GetTickInMilliSeconds();
    EXPECT_LE(pCarrier->dwProfileLastTick[0] - before, after - before);

    // The carrier itself holds only the records.
    EXPECT_EQ(CountMarks(ReadFile(FileOf("carrier"))), 0);
}

TEST_F(ProfileClient, ALogClientCarrierCountsInItsOwnUnit) {
    ASSERT_TRUE(Attach(pCarrier, "prof", me, 249));
    std::string file = FileOf("prof");
    // Half a unit away from each border, so that the clock has room; 110 ms would be 4 marks
    // at a unit of 25.
    for (auto [dwGap, nMarks] : {std::pair<DWORD, int>{110, 0}, {373, 0}, {622, 2}, {871, 3}, {1120, 4}})
        ExpectMarksAfterPause(pCarrier, 0, dwGap, 249, file, nMarks);

    // The client gets the records and no marks.
    pCarrier->FlushLog();
    std::string carrier = ReadFile(ClientCarrierFile());
    EXPECT_EQ(CountMarks(carrier), 0);
    std::string record = ";P;" + ThreadText() + ";after 1120 try ";
    EXPECT_GE(CountOf(carrier, record), 1);
    EXPECT_EQ(CountOf(carrier, record), CountOf(ReadFile(file), record));
}

TEST_F(ProfileClient, WithoutAUnitOfItsOwnALogClientCarrierCountsIn25) {
    ASSERT_TRUE(Attach(pCarrier, "prof", me, 0));
    EXPECT_EQ(pCarrier->nBottleNeckUnit, 25);
    ExpectMarksAfterPause(pCarrier, 0, 60, 25, FileOf("prof"), 2);
    ExpectMarksAfterPause(pCarrier, 0, 110, 25, FileOf("prof"), 4);
}

// ---- Slots -------------------------------------------------------------------------------

TEST_F(ProfileDirect, UnitIsTakenFrom1To249AndIsOneForBothSlots) {
    OtherThread other;
    ASSERT_TRUE(Attach(pCarrier, "a", me, 100));
    EXPECT_EQ(pCarrier->nBottleNeckUnit, 100);
    // Values outside 1..249 leave the unit, also when the slot is taken.
    for (int gap : {0, 250, -1}) {
        ASSERT_TRUE(Attach(pCarrier, "b", other.id(), gap)) << gap;
        EXPECT_EQ(pCarrier->nBottleNeckUnit, 100) << gap;
        Detach(pCarrier, other.id());
    }
    for (int gap : {1, 249}) {
        ASSERT_TRUE(Attach(pCarrier, "b", other.id(), gap)) << gap;
        EXPECT_EQ(pCarrier->nBottleNeckUnit, gap);
        Detach(pCarrier, other.id());
    }
    // Detaching doesn't give the unit back.
    EXPECT_EQ(pCarrier->nBottleNeckUnit, 249);
    EXPECT_EQ(pCarrier->nProfileCount, 1);
}

TEST_F(ProfileDirect, AThirdAttachIsRefusedAndTheTwoProfilesGoOn) {
    OtherThread second, third;
    EXPECT_FALSE(Attach(pCarrier, nullptr, me, 0));
    EXPECT_FALSE(Attach(pCarrier, "zero", 0, 0));
    EXPECT_EQ(Slots(pCarrier), std::tuple(0u, 0u, 0));
    EXPECT_EQ(pCarrier->pProfileLog[0], nullptr);
    EXPECT_FALSE(FileExists(FileOf("zero")));

    ASSERT_TRUE(Attach(pCarrier, "one", me, 0));
    ASSERT_TRUE(Attach(pCarrier, "two", second.id(), 0));
    EXPECT_EQ(Slots(pCarrier), std::tuple(me, second.id(), 2));
    CQuorelLog* pOne = pCarrier->pProfileLog[0];
    CQuorelLog* pTwo = pCarrier->pProfileLog[1];

    EXPECT_FALSE(Attach(pCarrier, "three", third.id(), 100));
    EXPECT_FALSE(FileExists(FileOf("three")));
    EXPECT_EQ(pCarrier->nBottleNeckUnit, 25);
    EXPECT_EQ(Slots(pCarrier), std::tuple(me, second.id(), 2));
    EXPECT_EQ(pCarrier->pProfileLog[0], pOne);
    EXPECT_EQ(pCarrier->pProfileLog[1], pTwo);

    LogNow(0, "mine");
    std::string secondText;
    second.Run([&] {
        pCarrier->dwProfileLastTick[1] = GetTickInMilliSeconds();
        pCarrier->Log("P", "second's");
        secondText = TextRecord("P", "second's");
    });
    third.Run([&] { pCarrier->Log("P", "third's"); });
    EXPECT_TRUE(MatchesPattern(WithoutMarks(ReadFile(FileOf("one"))), TextRecord("P", "mine")));
    EXPECT_TRUE(MatchesPattern(WithoutMarks(ReadFile(FileOf("two"))), secondText));
    EXPECT_EQ(CountOf(CarrierBody(), "third's"), 1);
}

TEST_F(ProfileDirect, TheSameThreadTwiceFillsTwoSlotsAndWritesToTheFirst) {
    ASSERT_TRUE(Attach(pCarrier, "first", me, 0));
    ASSERT_TRUE(Attach(pCarrier, "second", me, 0));
    EXPECT_EQ(Slots(pCarrier), std::tuple(me, me, 2));
    pCarrier->dwProfileLastTick[1] = 4242;  // slot 1 isn't looked at while slot 0 is bound
    LogNow(0, "one");
    EXPECT_TRUE(MatchesPattern(WithoutMarks(ReadFile(FileOf("first"))), TextRecord("P", "one")));
    EXPECT_EQ(ReadFile(FileOf("second")), "");
    EXPECT_EQ(pCarrier->dwProfileLastTick[1], 4242u);

    // Detaching takes the first slot first; then the second gets the records.
    Detach(pCarrier, me);
    EXPECT_EQ(pCarrier->pProfileLog[0], nullptr);
    EXPECT_EQ(Slots(pCarrier), std::tuple(0u, me, 1));
    LogNow(1, "two");
    EXPECT_TRUE(MatchesPattern(WithoutMarks(ReadFile(FileOf("first"))),
                               TextRecord("P", "one") + TextRecord("SHUTDOWN", ShutdownBanner())));
    EXPECT_TRUE(MatchesPattern(WithoutMarks(ReadFile(FileOf("second"))), TextRecord("P", "two")));
    Detach(pCarrier, me);
    EXPECT_EQ(Slots(pCarrier), std::tuple(0u, 0u, 0));
    EXPECT_EQ(pCarrier->pProfileLog[1], nullptr);
}

TEST_F(ProfileDirect, AThreadWithoutASlotReachesTheCarrierOnly) {
    OtherThread profiled;
    ASSERT_TRUE(Attach(pCarrier, "prof", profiled.id(), 0));
    pCarrier->dwProfileLastTick[0] = 777;
    pCarrier->Log("P", "not profiled");
    EXPECT_EQ(ReadFile(FileOf("prof")), "");
    EXPECT_EQ(pCarrier->dwProfileLastTick[0], 777u);
    EXPECT_TRUE(MatchesPattern(CarrierBody(), TextRecord("P", "not profiled")));

    // A direct carrier's long messages go through the step piece by piece.
    std::string profiledText;
    std::string message = Letters(925);
    profiled.Run([&] {
        std::string buffer = message;
        pCarrier->dwProfileLastTick[0] = GetTickInMilliSeconds();
        pCarrier->LogLongMsg(nullptr, buffer.data());
        for (size_t at = 0; at < message.size(); at += 462)
            profiledText += TextRecord(nullptr, message.substr(at, 462));
    });
    EXPECT_TRUE(MatchesPattern(WithoutMarks(ReadFile(FileOf("prof"))), profiledText));
}

// ---- Events ------------------------------------------------------------------------------

TEST_F(ProfileDirect, EventStartResetsTheTickAndEventEndDoesNot) {
    ASSERT_TRUE(Attach(pCarrier, "prof", me, 0));
    std::string file = FileOf("prof");

    pCarrier->dwProfileLastTick[0] = GetTickInMilliSeconds() - 10000;
    DWORD before = GetTickInMilliSeconds();
    StartEvent(pCarrier, 7, int(me));
    DWORD after = GetTickInMilliSeconds();
    EXPECT_LE(pCarrier->dwProfileLastTick[0] - before, after - before);
    EXPECT_TRUE(MatchesPattern(ReadFile(file), TextRecord(nullptr, EventStartText(7))));
    StartEvent(pCarrier, -12, int(me));
    pCarrier->Log("P", "work");

    pCarrier->dwProfileLastTick[0] = 123456;
    EndEvent(pCarrier, int(me));
    EXPECT_EQ(pCarrier->dwProfileLastTick[0], 123456u);
    EXPECT_TRUE(MatchesPattern(WithoutMarks(ReadFile(file)),
                               TextRecord(nullptr, EventStartText(7)) +
                                   TextRecord(nullptr, EventStartText(-12)) +
                                   TextRecord("P", "work") + TextRecord(nullptr, EventEndText())));

    // A pause after the end of an event shows in front of the next record.
    ExpectMarksAfterPause(pCarrier, 0, 110, 25, file, 4, [&] { EndEvent(pCarrier, int(me)); },
                          TextRecord(nullptr, EventEndText()));
}

TEST_F(ProfileDirect, EventsOfAThreadWithoutASlotWriteNothing) {
    OtherThread stranger;
    ASSERT_TRUE(Attach(pCarrier, "prof", me, 0));
    pCarrier->dwProfileLastTick[0] = 1111;
    pCarrier->dwProfileLastTick[1] = 2222;  // the free slot holds the thread 0
    for (int thread : {int(stranger.id()), 0}) {
        StartEvent(pCarrier, 5, thread);
        EndEvent(pCarrier, thread);
        Detach(pCarrier, DWORD(thread));
    }
    EXPECT_EQ(pCarrier->dwProfileLastTick[0], 1111u);
    EXPECT_EQ(pCarrier->dwProfileLastTick[1], 2222u);
    EXPECT_EQ(Slots(pCarrier), std::tuple(me, 0u, 1));
    EXPECT_EQ(ReadFile(FileOf("prof")), "");
}

// ---- Detaching and the end of the carrier ------------------------------------------------

TEST_F(ProfileDirect, DetachEndsTheProfileWithItsBannerAndTheSlotIsUsedAgain) {
    ASSERT_TRUE(Attach(pCarrier, "old", me, 0));
    LogNow(0, "kept");
    Detach(pCarrier, me);
    EXPECT_EQ(pCarrier->pProfileLog[0], nullptr);
    EXPECT_EQ(Slots(pCarrier), std::tuple(0u, 0u, 0));
    std::string ended = TextRecord("P", "kept") + TextRecord("SHUTDOWN", ShutdownBanner());
    EXPECT_TRUE(MatchesPattern(WithoutMarks(ReadFile(FileOf("old"))), ended));

    // The thread's records go to the carrier alone now.
    pCarrier->Log("P", "carrier only");
    EXPECT_TRUE(MatchesPattern(WithoutMarks(ReadFile(FileOf("old"))), ended));

    ASSERT_TRUE(Attach(pCarrier, "new", me, 0));
    EXPECT_NE(pCarrier->pProfileLog[0], nullptr);
    EXPECT_EQ(pCarrier->dwProfileThread[0], me);
    LogNow(0, "again");
    EXPECT_TRUE(MatchesPattern(WithoutMarks(ReadFile(FileOf("new"))), TextRecord("P", "again")));
    EXPECT_TRUE(MatchesPattern(WithoutMarks(CarrierBody()), TextRecord("P", "kept") +
                                                                 TextRecord("P", "carrier only") +
                                                                 TextRecord("P", "again")));

    // Close of the carrier ends the profile in the same way.
    pCarrier->Close();
    pCarrier = nullptr;
    EXPECT_TRUE(MatchesPattern(WithoutMarks(ReadFile(FileOf("new"))),
                               TextRecord("P", "again") +
                                   TextRecord("SHUTDOWN", ShutdownBanner())));
}

TEST_F(ProfileDirect, PersistenceCloseEndsAttachedProfilesBeforeTheCarriersBanner) {
    CQuorelLog* pShared = MustOpen(velmora.GetLogClient("shared", true, true, true));
    ASSERT_TRUE(Attach(pShared, "first", me, 0));
    ASSERT_TRUE(Attach(pShared, "second", me, 0));
    pShared->dwProfileLastTick[0] = GetTickInMilliSeconds();
    pShared->Log("P", "work");

    CallPersistenceClose(pShared);
    EXPECT_EQ(pShared->pProfileLog[0], nullptr);
    EXPECT_EQ(pShared->pProfileLog[1], nullptr);
    EXPECT_EQ(Slots(pShared), std::tuple(0u, 0u, 0));
    // Each profile has its own banner, and the carrier's banner isn't repeated in them.
    std::string banner = TextRecord("SHUTDOWN", ShutdownBanner());
    EXPECT_TRUE(MatchesPattern(WithoutMarks(ReadFile(FileOf("first"))),
                               TextRecord("P", "work") + banner));
    EXPECT_TRUE(MatchesPattern(ReadFile(FileOf("second")), banner));
    EXPECT_TRUE(MatchesPattern(WithoutMarks(ReadFile(FileOf("shared"))),
                               TextRecord("START", StartBanner()) + TextRecord("P", "work") +
                                   banner));
}

TEST(ProfileShutdown, ShutdownEndsTheDefaultLogsProfiles) {
    TempDir objects, clients, tmp;
    ASSERT_EQ(setenv("VELMORA_OBJECT_FOLDER", objects.path().c_str(), 1), 0);
    ASSERT_EQ(setenv("PELTRIX_LOG_FOLDER", clients.path().c_str(), 1), 0);
    fs::create_directories(tmp.path() + "/log");
    TestDirectory directory;
    directory.localLogsFolder = tmp.path();
    _G_Directory = &directory;
    std::string app = velmora_test::UniqueName("Prof");
    ASSERT_TRUE(velmora.Init(app.c_str(), 1));
    ASSERT_NE(globalDefaultLog, nullptr);

    DWORD me = GetCurrentThreadId();
    _G_nGapMS = 249;
    ASSERT_EQ(velmora.ProfilePerformance("main", me), int(me));
    ASSERT_EQ(velmora.ProfilePerformance("spare", me), int(me));
    velmora.StartEventProfiling(1, int(me));
    globalDefaultLog->Log("P", "work");
    velmora.Shutdown();
    _G_Directory = nullptr;

    // The Shutdown line of the default log is the thread's last record; the profile's own
    // banner follows it. The default log's banner comes after the profiles have ended.
    std::string folder = tmp.path() + "/log/PFX.SFX/" + app + "_";
    std::string banner = TextRecord("SHUTDOWN", ShutdownBanner());
    EXPECT_TRUE(MatchesPattern(
        WithoutMarks(ReadFile(folder + "main.log")),
        TextRecord(nullptr, EventStartText(1)) + TextRecord("P", "work") +
            TextRecord("SHUTDOWN", "\r\n" + std::string(89, '+')) + banner));
    EXPECT_TRUE(MatchesPattern(ReadFile(folder + "spare.log"), banner));
}
