// Tagging: the table and its one-time creation, the entry of a tag number, the take-over of
// an entry held for more than three seconds, the "TAG <n> +<us>" records, closing a tag, and
// the numbers that are no tags.
//
// The microsecond clock can't be moved, so a test ages a tag by setting its entry's
// dwMoment, and checks elapsed times against clock readings taken around the call.
#include "ReportTestSupport.h"

#include <climits>
#include <latch>
#include <set>
#include <thread>

using namespace velmora_report_test;
using velmora_test::SplitLines;

namespace {

using Tagging = ReportFixture;

constexpr DWORD kTakeOver = 3000000;  // microseconds

DWORD Now() { return GetTickInMicroSeconds(); }

// One TAG record of the log.
struct TagRecord {
    int nTag;
    long long nElapsed;
    std::string thread;
    std::string text;
};

// The TAG records of a log, in order: "...;TAG <n> +<elapsed>;<thread>;<text>;".
std::vector<TagRecord> TagRecords(const std::string& log) {
    std::vector<TagRecord> records;
    for (const std::string& line : SplitLines(log)) {
        size_t at = line.find(";TAG ");
        if (at == std::string::npos) continue;
        int nTag = 0;
        long long nElapsed = 0;
        int nUsed = 0;
        if (std::sscanf(line.c_str() + at, ";TAG %d +%lld;%n", &nTag, &nElapsed, &nUsed) != 2 ||
            nUsed == 0) {
            ADD_FAILURE() << "not a TAG record: " << line;
            continue;
        }
        std::string rest = line.substr(at + size_t(nUsed));
        size_t semicolon = rest.find(';');
        std::string text = rest.substr(semicolon + 1);
        if (!text.empty() && text.back() == ';') text.pop_back();
        records.push_back({nTag, nElapsed, rest.substr(0, semicolon), text});
    }
    return records;
}

_tagTagEntry& Entry(int nIndex) { return velmora.pTagTable[nIndex]; }

bool IsEmpty(const _tagTagEntry& entry) { return entry.nTag == -1 && entry.dwMoment == 0; }

// Whether a moment was read from the clock between two readings, wrap included.
bool ReadBetween(DWORD dwMoment, DWORD dwBefore, DWORD dwAfter) {
    return DWORD(dwMoment - dwBefore) <= DWORD(dwAfter - dwBefore);
}

}  // namespace

TEST_F(Tagging, TaggingIsOffUntilATableOfAtLeastOneEntryIsMade) {
    EXPECT_FALSE(velmora.IsTaggingSystemEnabled());
    EXPECT_EQ(velmora.BeginTagging("x"), -1);
    EXPECT_EQ(velmora.GetTaggingMoment(1), 0u);
    EXPECT_FALSE(velmora.TaggingEvent(1, "x", true));

    velmora.EnableTaggingSystems(0);
    velmora.EnableTaggingSystems(-4);
    EXPECT_FALSE(velmora.IsTaggingSystemEnabled());
    EXPECT_EQ(velmora.pTagTable, nullptr);
    EXPECT_EQ(velmora.BeginTagging("x"), -1);
    // No number was used up while tagging was off.
    EXPECT_EQ(velmora.nTagCounter, 0);

    velmora.EnableTaggingSystems(4);
    ASSERT_TRUE(velmora.IsTaggingSystemEnabled());
    EXPECT_EQ(velmora.nTagTableSize, 4);
    for (int i = 0; i < 4; ++i) EXPECT_TRUE(IsEmpty(Entry(i))) << i;
    EXPECT_EQ(velmora.BeginTagging(nullptr), 1);
    EXPECT_EQ(velmora.BeginTagging("not read"), 2);

    // A second call keeps the first table, its size and its open tags.
    _tagTagEntry* pFirst = velmora.pTagTable;
    velmora.EnableTaggingSystems(16);
    EXPECT_EQ(velmora.pTagTable, pFirst);
    EXPECT_EQ(velmora.nTagTableSize, 4);
    EXPECT_EQ(Entry(1).nTag, 1);
    EXPECT_EQ(Entry(2).nTag, 2);
}

TEST_F(Tagging, ATagFallsOnTheEntryOfItsNumberModuloTheSize) {
    velmora.EnableTaggingSystems(4);
    DWORD dwBefore = Now();
    for (int nExpected = 1; nExpected <= 4; ++nExpected)
        EXPECT_EQ(velmora.BeginTagging(""), nExpected);
    DWORD dwAfter = Now();
    EXPECT_EQ(Entry(1).nTag, 1);
    EXPECT_EQ(Entry(2).nTag, 2);
    EXPECT_EQ(Entry(3).nTag, 3);
    EXPECT_EQ(Entry(0).nTag, 4);
    for (int nTag = 1; nTag <= 4; ++nTag) {
        DWORD dwMoment = velmora.GetTaggingMoment(nTag);
        EXPECT_EQ(dwMoment, Entry(nTag % 4).dwMoment);
        EXPECT_TRUE(ReadBetween(dwMoment, dwBefore, dwAfter)) << nTag;
    }

    // Tag 5 falls on the entry of tag 1, which is young: refused, and the entry stays.
    _tagTagEntry held = Entry(1);
    EXPECT_EQ(velmora.BeginTagging(""), -1);
    EXPECT_EQ(Entry(1).nTag, held.nTag);
    EXPECT_EQ(Entry(1).dwMoment, held.dwMoment);
    EXPECT_EQ(velmora.GetTaggingMoment(1), held.dwMoment);
    EXPECT_EQ(velmora.GetTaggingMoment(5), 0u);

    // The refused number is used up: with the entry of tag 2 free, the next tag is 6.
    EXPECT_TRUE(velmora.TaggingEvent(2, "done", true));
    EXPECT_TRUE(IsEmpty(Entry(2)));
    EXPECT_EQ(velmora.BeginTagging(""), 6);
    EXPECT_EQ(Entry(2).nTag, 6);
    // The moment of an open tag stays as long as the tag is open.
    DWORD dwMoment = velmora.GetTaggingMoment(6);
    EXPECT_TRUE(velmora.TaggingEvent(6, "on the way", false));
    EXPECT_EQ(velmora.GetTaggingMoment(6), dwMoment);
}

TEST_F(Tagging, AnOldTagGivesItsEntryUpAfterThreeSecondsAndNotBefore) {
    velmora.EnableTaggingSystems(4);
    ASSERT_EQ(velmora.BeginTagging(""), 1);

    // 2.9 s old: kept. The result counts only if the clock moved less than 0.1 s around the
    // call, so that the age the call saw is known to be below three seconds.
    bool bConclusive = false;
    for (int nAttempt = 0; nAttempt < 50 && !bConclusive; ++nAttempt) {
        DWORD dwBefore = Now();
        DWORD dwOld = dwBefore - 2900000;
        Entry(1) = {1, dwOld};
        velmora.nTagCounter = 4;  // the next number, 5, falls on entry 1
        int nResult = velmora.BeginTagging("");
        if (DWORD(Now() - dwBefore) >= kTakeOver - 2900000) continue;
        bConclusive = true;
        EXPECT_EQ(nResult, -1);
        EXPECT_EQ(Entry(1).nTag, 1);
        EXPECT_EQ(Entry(1).dwMoment, dwOld);
        EXPECT_EQ(velmora.GetTaggingMoment(1), dwOld);
    }
    ASSERT_TRUE(bConclusive) << "the clock never stood still for 0.1 s";

    // A moment more than three seconds back: the new tag takes the entry over, and the old
    // tag is gone without notice.
    DWORD dwBefore = Now();
    Entry(1) = {1, dwBefore - (kTakeOver + 1)};
    velmora.nTagCounter = 8;  // the next number, 9, falls on entry 1
    EXPECT_EQ(velmora.BeginTagging(""), 9);
    DWORD dwAfter = Now();
    EXPECT_EQ(Entry(1).nTag, 9);
    EXPECT_TRUE(ReadBetween(Entry(1).dwMoment, dwBefore, dwAfter));
    EXPECT_EQ(velmora.GetTaggingMoment(1), 0u);
    EXPECT_FALSE(velmora.TaggingEvent(1, "lost", false));
    EXPECT_EQ(velmora.GetTaggingMoment(9), Entry(1).dwMoment);

    // Ages are unsigned 32-bit differences: a moment just ahead of the clock is one that
    // lies almost a whole cycle of the clock (71 minutes) back, far beyond the limit.
    Entry(1) = {9, Now() + 1000000};
    velmora.nTagCounter = 12;
    EXPECT_EQ(velmora.BeginTagging(""), 13);
    EXPECT_EQ(Entry(1).nTag, 13);
}

TEST_F(Tagging, EveryRecordCountsFromTheOpeningAndFinishingClosesTheTag) {
    MakeDefaultLog();
    velmora.EnableTaggingSystems(8);
    ASSERT_EQ(velmora.BeginTagging(""), 1);
    ASSERT_EQ(velmora.BeginTagging(""), 2);
    // Opened five seconds ago, as far as the table knows.
    DWORD dwBefore = Now();
    DWORD dwOpened = dwBefore - 5000000;
    Entry(2).dwMoment = dwOpened;

    EXPECT_TRUE(velmora.TaggingEvent(2, "order received", false));
    DWORD dwFirst = Now();
    EXPECT_TRUE(velmora.TaggingEvent(2, "order routed", false));
    DWORD dwSecond = Now();
    EXPECT_EQ(velmora.GetTaggingMoment(2), dwOpened);  // events don't move the moment

    std::vector<TagRecord> records = TagRecords(LogText());
    ASSERT_EQ(records.size(), 2u);
    const std::string thread = velmora_log_test::ThreadText();
    EXPECT_EQ(records[0].nTag, 2);
    EXPECT_EQ(records[0].thread, thread);
    EXPECT_EQ(records[0].text, "order received");
    EXPECT_GE(records[0].nElapsed, 5000000);
    EXPECT_LE(records[0].nElapsed, 5000000 + (long long)DWORD(dwFirst - dwBefore));
    EXPECT_EQ(records[1].nTag, 2);
    EXPECT_EQ(records[1].text, "order routed");
    EXPECT_GE(records[1].nElapsed, records[0].nElapsed);
    EXPECT_LE(records[1].nElapsed, 5000000 + (long long)DWORD(dwSecond - dwBefore));

    // Finishing writes its record and empties the entry; the tag is gone from then on.
    EXPECT_TRUE(velmora.TaggingEvent(2, "order filled", true));
    EXPECT_TRUE(IsEmpty(Entry(2)));
    EXPECT_FALSE(velmora.TaggingEvent(2, "too late", true));
    EXPECT_EQ(velmora.GetTaggingMoment(2), 0u);
    // Tag 1 was never touched by any of it.
    EXPECT_TRUE(velmora.TaggingEvent(1, "other tag", false));
    records = TagRecords(LogText());
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(records[2].nTag, 2);
    EXPECT_EQ(records[2].text, "order filled");
    EXPECT_EQ(records[3].nTag, 1);
    EXPECT_EQ(records[3].text, "other tag");
}

TEST_F(Tagging, WithoutATextOrADefaultLogNothingIsWrittenButTheTagWorks) {
    MakeDefaultLog();
    velmora.EnableTaggingSystems(2);
    int nTag = velmora.BeginTagging("");
    ASSERT_EQ(nTag, 1);
    EXPECT_TRUE(velmora.TaggingEvent(nTag, nullptr, false));
    EXPECT_TRUE(velmora.TaggingEvent(nTag, nullptr, true));
    EXPECT_TRUE(IsEmpty(Entry(1)));

    nTag = velmora.BeginTagging("");
    ASSERT_EQ(nTag, 2);
    globalDefaultLog = nullptr;
    EXPECT_TRUE(velmora.TaggingEvent(nTag, "no log", false));
    EXPECT_TRUE(velmora.TaggingEvent(nTag, "no log", true));
    EXPECT_TRUE(IsEmpty(Entry(0)));
    EXPECT_FALSE(velmora.TaggingEvent(nTag, "no log", true));
    globalDefaultLog = pLog;

    EXPECT_TRUE(TagRecords(LogText()).empty());
}

// Numbers below 1 have no entry: a negative remainder would index before the table.
TEST_F(Tagging, NumbersBelowOneAreNoTags) {
    velmora.EnableTaggingSystems(3);
    ASSERT_EQ(velmora.BeginTagging(""), 1);
    ASSERT_EQ(velmora.BeginTagging(""), 2);
    ASSERT_EQ(velmora.BeginTagging(""), 3);
    for (int nTag : {0, -1, -2, -3, INT_MIN, INT_MIN + 1}) {
        EXPECT_EQ(velmora.GetTaggingMoment(nTag), 0u) << nTag;
        EXPECT_FALSE(velmora.TaggingEvent(nTag, "x", true)) << nTag;
    }
    EXPECT_EQ(Entry(0).nTag, 3);  // the entry of 0 (and of -3) is untouched
    EXPECT_NE(Entry(0).dwMoment, 0u);

    // A counter that runs past the largest int gives no tag and touches no entry.
    EXPECT_TRUE(velmora.TaggingEvent(1, "x", true));  // entry 1 free
    velmora.nTagCounter = INT_MAX;
    EXPECT_EQ(velmora.BeginTagging(""), -1);  // INT_MIN
    EXPECT_EQ(velmora.BeginTagging(""), -1);  // INT_MIN + 1
    EXPECT_TRUE(IsEmpty(Entry(1)));
    EXPECT_EQ(Entry(2).nTag, 2);
    EXPECT_EQ(Entry(0).nTag, 3);
}

TEST_F(Tagging, TagsOpenedOnEightThreadsAtOnceGetDistinctNumbers) {
    constexpr int kThreads = 8;
    constexpr int kTags = 1000;
    // One entry more than tags: no number falls on a held entry.
    velmora.EnableTaggingSystems(kThreads * kTags + 1);
    std::vector<std::vector<int>> numbers(kThreads);
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            for (int i = 0; i < kTags; ++i) numbers[size_t(t)].push_back(velmora.BeginTagging(""));
        });
    for (std::thread& thread : threads) thread.join();

    std::set<int> distinct;
    for (const std::vector<int>& some : numbers) distinct.insert(some.begin(), some.end());
    ASSERT_EQ(distinct.size(), size_t(kThreads * kTags));
    EXPECT_EQ(*distinct.begin(), 1);
    EXPECT_EQ(*distinct.rbegin(), kThreads * kTags);
    EXPECT_EQ(velmora.nTagCounter, kThreads * kTags);
    for (int nTag = 1; nTag <= kThreads * kTags; ++nTag) ASSERT_EQ(Entry(nTag).nTag, nTag);
}
