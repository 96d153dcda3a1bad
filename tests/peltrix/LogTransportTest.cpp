// The transport behind the log clients: many threads at once, a full queue, records bigger
// than the queue, and flushing across clients and threads.
#include "Peltrix.h"
#include "TestSupport.h"
#include "peltrix/LogWriter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using velmora_test::ReadFile;
using velmora_test::SplitLines;
using velmora_test::TempDir;

namespace {

class LogTransportTest : public ::testing::Test {
protected:
    void SetUp() override { setenv("PELTRIX_LOG_FOLDER", m_dir.path().c_str(), 1); }
    TempDir m_dir;
};

// Parses "HH:MM:SS[mmm];thread;T<t>:<i>;" into its thread field, t and i.
bool ParseRecord(const std::string& line, int& thread, int& writer, long& index) {
    if (line.size() < 14 || line[13] != ';') return false;
    size_t threadEnd = line.find(';', 14);
    if (threadEnd == std::string::npos || line.compare(threadEnd + 1, 1, "T") != 0) return false;
    size_t colon = line.find(':', threadEnd);
    if (colon == std::string::npos || line.back() != ';') return false;
    thread = std::stoi(line.substr(14, threadEnd - 14));
    writer = std::stoi(line.substr(threadEnd + 2, colon - threadEnd - 2));
    index = std::stol(line.substr(colon + 1, line.size() - colon - 2));
    return true;
}

TEST_F(LogTransportTest, ManyThreadsLoseNothingAndKeepTheirOrder) {
    constexpr int kThreads = 8;
    constexpr long kRecords = 100000;
    CPeltrix client(true, 384, 64);
    ASSERT_NE(client.Open("App", "Load"), 0);

    std::vector<int> threadIds(kThreads);
    std::vector<std::thread> threads;
    std::atomic<int> ready{0};
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            threadIds[t] = int(GetCurrentThreadId());
            ready.fetch_add(1);
            while (ready.load() < kThreads) std::this_thread::yield();
            char message[32];
            for (long i = 0; i < kRecords; ++i) {
                std::snprintf(message, sizeof(message), "T%d:%ld", t, i);
                if (i % 16 == 0)
                    client.LogLongMsg(nullptr, message);
                else
                    client.Log(nullptr, message);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    client.FlushLog();

    std::vector<std::string> lines = SplitLines(ReadFile(m_dir.file("App_Load.log")));
    ASSERT_EQ(lines.size(), size_t(kThreads * kRecords));
    std::vector<long> next(kThreads, 0);
    for (const std::string& line : lines) {
        int thread = 0, writer = -1;
        long index = -1;
        ASSERT_TRUE(ParseRecord(line, thread, writer, index)) << line;
        ASSERT_GE(writer, 0);
        ASSERT_LT(writer, kThreads);
        ASSERT_EQ(thread, threadIds[writer]) << line;
        ASSERT_EQ(index, next[writer]) << "out of order or lost: " << line;
        ++next[writer];
    }
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(next[t], kRecords);
}

TEST_F(LogTransportTest, FlushLogWaitsForRecordsOfEveryThreadAndClient) {
    CPeltrix busy(false, 384, 64);
    CPeltrix other(false, 384, 64);
    ASSERT_NE(busy.Open("App", "Busy"), 0);
    ASSERT_NE(other.Open("App", "Other"), 0);
    std::string line(200, 'r');
    line += "\n";
    std::thread writer([&] {
        for (int i = 0; i < 20000; ++i) busy.Log(nullptr, line.c_str());
    });
    writer.join();
    // Another client, on this thread: it waits for the records of the busy one too.
    other.FlushLog();
    EXPECT_EQ(ReadFile(m_dir.file("App_Busy.log")).size(), 20000u * line.size());
}

TEST_F(LogTransportTest, RecordsBiggerThanTheQueuePassWhole) {
    CPeltrix big(false, 384, 64);
    CPeltrix text(true, 384, 64);
    CPeltrix small(false, 384, 64);
    ASSERT_NE(big.Open("App", "Big"), 0);
    ASSERT_NE(text.Open("App", "Text"), 0);
    ASSERT_NE(small.Open("App", "Small"), 0);

    // Small records keep the queue busy while the big ones wait for room.
    std::atomic<bool> done{false};
    std::atomic<long> smallCount{0};
    std::thread noise([&] {
        while (!done.load()) {
            small.Log(nullptr, "s\n");
            smallCount.fetch_add(1);
        }
    });

    std::string huge(peltrix::kQueueBytes + 12345, 'h');
    for (size_t i = 0; i < huge.size(); i += 4096) huge[i] = char('a' + (i / 4096) % 26);
    big.Log(nullptr, huge.c_str());
    big.Log("P", huge.c_str());
    std::string copy = huge;
    text.LogLongMsg(nullptr, copy.data());
    std::fill(copy.begin(), copy.end(), 'z');  // reused by the caller right away
    done.store(true);
    noise.join();
    small.FlushLog();

    EXPECT_EQ(ReadFile(m_dir.file("App_Big.log")), huge + "P;" + huge + "\r\n");
    std::vector<std::string> lines = SplitLines(ReadFile(m_dir.file("App_Text.log")));
    ASSERT_EQ(lines.size(), 1u);
    const std::string thread = std::to_string(int(GetCurrentThreadId()));
    EXPECT_EQ(lines[0].substr(13), ";" + thread + ";" + huge + ";");
    EXPECT_EQ(long(SplitLines(ReadFile(m_dir.file("App_Small.log"))).size()), smallCount.load());
}

TEST_F(LogTransportTest, ClientsOpenAndCloseWhileOthersWrite) {
    CPeltrix steady(false, 384, 64);
    ASSERT_NE(steady.Open("App", "Steady"), 0);
    std::atomic<bool> done{false};
    long steadyCount = 0;
    std::thread writer([&] {
        while (!done.load()) {
            steady.Log(nullptr, "w\n");
            ++steadyCount;
        }
    });
    for (int round = 0; round < 50; ++round) {
        std::string log = "Short" + std::to_string(round);
        {
            CPeltrix shortLived(round % 2 == 0, 384, 64);
            ASSERT_NE(shortLived.Open("App", log.c_str()), 0);
            for (int i = 0; i < 100; ++i) shortLived.Log("p", "m");
            if (round % 3 == 0) shortLived.Close();
        }
        EXPECT_EQ(SplitLines(ReadFile(m_dir.file("App_" + log + ".log"))).size(), 100u);
    }
    done.store(true);
    writer.join();
    steady.Close();
    EXPECT_EQ(long(SplitLines(ReadFile(m_dir.file("App_Steady.log"))).size()), steadyCount);
}

}  // namespace
