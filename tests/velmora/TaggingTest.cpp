// Tagging: the table, a tag's entry, the take-over after 3 s (aged by dwMoment), the TAG records.
#include "ReportTestSupport.h"

#include <climits>
#include <latch>
#include <thread>

using Tagging = velmora_report_test::ReportFixture;
using velmora_log_test::TextRecord;

namespace {
DWORD Now() { return GetTickInMicroSeconds(); }
_tagTagEntry& Entry(int nIndex) { return velmora.pTagTable[nIndex]; }
}  // namespace

// A table of at least one entry, made once; a tag's entry is its number modulo the size.
TEST_F(Tagging, ATagTakesTheEntryOfItsNumberUnlessAYoungerTagHoldsIt) {
    velmora.EnableTaggingSystems(0);
    EXPECT_EQ(velmora.BeginTagging("x"), -1);
    EXPECT_FALSE(velmora.TaggingEvent(1, "x", true));
    velmora.EnableTaggingSystems(4);  // no number was used up while off
    for (int nTag = 1; nTag <= 4; ++nTag) EXPECT_EQ(velmora.BeginTagging(nullptr), nTag);
    velmora.EnableTaggingSystems(16);  // a second call keeps the first table and its tags
    for (int nTag = 1; nTag <= 4; ++nTag)
        EXPECT_TRUE(Entry(nTag % 4).nTag == nTag && velmora.GetTaggingMoment(nTag) == Entry(nTag % 4).dwMoment);
    EXPECT_EQ(velmora.BeginTagging(""), -1);  // 5 falls on the young tag 1; its number is used up
    EXPECT_EQ(velmora.GetTaggingMoment(5), 0u);
    EXPECT_TRUE(velmora.TaggingEvent(2, "done", true));
    EXPECT_EQ(velmora.BeginTagging(""), 6);
    EXPECT_EQ(std::pair(Entry(1).nTag, Entry(2).nTag), std::pair(1, 6));
    // Held for two seconds, an entry is kept; for four, taken over, and the old tag is gone.
    Entry(1) = {1, Now() - 2000000}, velmora.nTagCounter = 4;  // 5 falls on entry 1
    EXPECT_EQ(velmora.BeginTagging(""), -1);
    EXPECT_EQ(velmora.GetTaggingMoment(1), Entry(1).dwMoment);
    Entry(1) = {1, Now() - 4000000}, velmora.nTagCounter = 8;
    EXPECT_EQ(velmora.BeginTagging(""), 9);
    EXPECT_LT(DWORD(Now() - Entry(1).dwMoment), 3000000u);
    EXPECT_FALSE(velmora.TaggingEvent(1, "lost", false));
    Entry(1) = {9, Now() + 1000000}, velmora.nTagCounter = 12;  // just ahead: almost a cycle (71 min) back
    EXPECT_EQ(velmora.BeginTagging(""), 13);
    velmora.nTagCounter = INT_MAX;  // a counter past the largest int gives no tag
    for (int i = 0; i < 2; ++i) EXPECT_EQ(velmora.BeginTagging(""), -1);
}

// Records count from the opening (10 s back: "+1#######"); no text or no log, no record.
TEST_F(Tagging, EveryRecordCountsFromTheOpeningAndFinishingClosesTheTag) {
    MakeDefaultLog();
    velmora.EnableTaggingSystems(8);
    for (int nTag = 1; nTag <= 2; ++nTag) ASSERT_EQ(velmora.BeginTagging(""), nTag);
    Entry(1).dwMoment = Entry(2).dwMoment = Now() - 10000000;
    for (const char* szText : {"received", (const char*)nullptr}) EXPECT_TRUE(velmora.TaggingEvent(2, szText, false));
    EXPECT_TRUE(velmora.TaggingEvent(2, "filled", true));
    EXPECT_TRUE(velmora.TaggingEvent(1, "other", false));
    globalDefaultLog = nullptr;
    EXPECT_TRUE(velmora.TaggingEvent(1, "no log", true));
    EXPECT_EQ(velmora.GetTaggingMoment(1), 0u);
    EXPECT_TRUE(velmora_log_test::MatchesPattern(
        LogText(), TextRecord("START", velmora_log_test::StartBanner()) + TextRecord("TAG 2 +1#######", "received") +
                       TextRecord("TAG 2 +1#######", "filled") + TextRecord("TAG 1 +1#######", "other")));
}

// Eight threads open 160000 tags at once: each number is given once, none is lost.
TEST_F(Tagging, TagsOpenedOnEightThreadsAtOnceGetDistinctNumbers) {
    velmora.EnableTaggingSystems(160001);  // no number falls on a held entry
    std::latch start(8);
    std::vector<std::jthread> threads(8);
    for (std::jthread& t : threads)
        t = std::jthread([&] { start.arrive_and_wait(); for (int i = 0; i < 20000; ++i) velmora.BeginTagging(""); });
    threads.clear();  // joins them
    for (int nTag = 0; nTag <= 160000; ++nTag) ASSERT_EQ(Entry(nTag).nTag, nTag ? nTag : -1);
}
