// Object usage counters and tags from many threads: every count adds up, walks that run
// meanwhile see each counter only grow, and every tag event that succeeded left one record.
#include "tests/stress/StressSupport.h"

#include <atomic>
#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

using velmora_stress::RunThreads;
using velmora_stress::Scaled;

constexpr int kThreads = 8;

struct UsageAccess : CVelmora {
    using CVelmora::GetNextObjectUsages;
};

// One whole walk, as the counters' keys with their counts; false if the walk didn't come in
// key order.
bool Walk(std::map<std::string, int>& counts) {
    _tagObjTracker* (CVelmora::*pNext)(_tagObjTracker*) = &UsageAccess::GetNextObjectUsages;
    std::string last;
    bool bInOrder = true;
    for (_tagObjTracker* p = (velmora.*pNext)(nullptr); p != nullptr;) {
        std::string key = std::to_string(p->nObjectID) + (p->bAllocate ? "-1" : "-0") +
                          (p->szName[0] ? std::string("-") + p->szName : "");
        bInOrder = bInOrder && (last.empty() || last < key);
        counts[key] = p->nCount;
        last = key;
        _tagObjTracker* pNextCopy = (velmora.*pNext)(p);
        delete p;
        p = pNextCopy;
    }
    return bInOrder;
}

TEST(StressDiagnostics, UsageCountsAddUpWhileWalksRun) {
    velmora_stress::Watchdog watchdog("StressDiagnostics");
    // The counters live as long as the process; the test gives them back for the leak checker.
    struct FreeCounters {
        ~FreeCounters() {
            for (auto& entry : velmora.mapObjectUsages) delete entry.second;
            velmora.mapObjectUsages.clear();
        }
    } freeCounters;
    const int nRounds = Scaled(10000);
    const char* const kinds[] = {"Quote", "Fill", "Route"};
    std::atomic<int> nCountersLeft{kThreads};
    int nOutOfOrder = 0, nShrunk = 0;
    RunThreads(kThreads + 1, [&](int t) {
        if (t < kThreads) {
            for (int i = 0; i < nRounds; ++i) {
                velmora.AllocateObject("Order", 1);
                velmora.ReleaseObject("Order", 1);
                velmora.AllocateObject(kinds[i % 3], 10 + i % 5);
                velmora.ReleaseObject(nullptr, 1000 * (t + 1) + i / 100);  // appears while others count
            }
            --nCountersLeft;
            return;
        }
        std::map<std::string, int> before;
        do {
            std::map<std::string, int> now;
            nOutOfOrder += !Walk(now);
            for (const auto& [key, n] : before)
                if (now[key] < n) ++nShrunk;
            before = now;
        } while (nCountersLeft > 0);
    });

    std::map<std::string, int> expected, counts;
    for (int t = 0; t < kThreads; ++t)
        for (int i = 0; i < nRounds; ++i) {
            ++expected["1-1-Order"], ++expected["1-0-Order"];
            ++expected[std::to_string(10 + i % 5) + "-1-" + kinds[i % 3]];
            ++expected[std::to_string(1000 * (t + 1) + i / 100) + "-0"];
        }
    EXPECT_TRUE(Walk(counts));
    EXPECT_EQ(counts, expected);
    EXPECT_EQ(nOutOfOrder, 0);
    EXPECT_EQ(nShrunk, 0) << "a walk saw a counter go down";
}

// The records of tags in the default log: tag number to the texts of its records, in order.
std::map<int, std::vector<std::string>> TagRecords(const std::string& log) {
    std::map<int, std::vector<std::string>> records;
    for (size_t at = log.find(";TAG "); at != std::string::npos; at = log.find(";TAG ", at + 1)) {
        int nTag = 0, nElapsed = 0;
        char szText[16] = "";
        if (std::sscanf(log.c_str() + at, ";TAG %d +%d;%*d;%15[^;]", &nTag, &nElapsed, szText) == 3)
            records[nTag].push_back(szText);
    }
    return records;
}

// Eight threads keep two tags open at a time each, in a table of 16 entries: a new tag can
// find its entry held (and is refused), or take it over from a tag that it then silences.
TEST(StressDiagnostics, EveryTagNumberIsGivenOnceAndEveryEventThatSucceedsLeavesOneRecord) {
    velmora_stress::Watchdog watchdog("StressDiagnostics");
    const int nPairs = Scaled(1500);
    velmora.EnableTaggingSystems(16);
    const int nCounterBefore = std::atomic_ref<int>(velmora.nTagCounter).load();
    struct Tally {
        std::vector<int> opened;
        int nRefused = 0;
        std::map<int, std::vector<std::string>> events;  // the events that succeeded
    };
    std::vector<Tally> tallies(kThreads);
    RunThreads(kThreads, [&](int t) {
        Tally& tally = tallies[t];
        for (int i = 0; i < nPairs; ++i) {
            int tags[2];
            for (int k = 0; k < 2; ++k) {
                tags[k] = velmora.BeginTagging(nullptr);
                if (tags[k] == -1) {
                    ++tally.nRefused;
                    continue;
                }
                tally.opened.push_back(tags[k]);
            }
            for (const char* szText : {"ev", "fin"})
                for (int k = 0; k < 2; ++k) {
                    if (tags[k] == -1) continue;
                    if (velmora.TaggingEvent(tags[k], szText, szText[0] == 'f'))
                        tally.events[tags[k]].push_back(szText);
                }
        }
    });

    std::set<int> numbers;
    int nOpened = 0, nRefused = 0;
    std::map<int, std::vector<std::string>> events;
    for (const Tally& tally : tallies) {
        numbers.insert(tally.opened.begin(), tally.opened.end());
        nOpened += int(tally.opened.size());
        nRefused += tally.nRefused;
        events.insert(tally.events.begin(), tally.events.end());
    }
    EXPECT_EQ(int(numbers.size()), nOpened) << "a number was given out twice";
    EXPECT_EQ(nOpened + nRefused, kThreads * nPairs * 2);
    EXPECT_EQ(std::atomic_ref<int>(velmora.nTagCounter).load() - nCounterBefore, kThreads * nPairs * 2);
    EXPECT_EQ(TagRecords(velmora_stress::LogText()), events);
    // A tag that finished is gone.
    for (const auto& [nTag, texts] : events) {
        if (texts.back() == "fin") {
            EXPECT_EQ(velmora.GetTaggingMoment(nTag), 0u) << "tag " << nTag;
        }
    }
}

}  // namespace
