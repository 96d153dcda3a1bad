// The monitor client: alerts become lines of the monitor's file, readable at once.
#include "Peltrix.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

using velmora_test::FileExists;
using velmora_test::ReadFile;
using velmora_test::SplitLines;
using velmora_test::TempDir;

namespace {

class MonitorClientTest : public ::testing::Test {
protected:
    void SetUp() override { setenv("PELTRIX_LOG_FOLDER", m_dir.path().c_str(), 1); }
    TempDir m_dir;
};

bool IsAlertLine(const std::string& line, const std::string& text) {
    static const char kShape[] = "dd:dd:dd[ddd];";
    if (line.size() < 14) return false;
    for (size_t i = 0; i < 14; ++i) {
        bool digit = line[i] >= '0' && line[i] <= '9';
        if (kShape[i] == 'd' ? !digit : line[i] != kShape[i]) return false;
    }
    return line.substr(14) == text;
}

TEST_F(MonitorClientTest, StartedMonitorWritesEachAlertAsALineAtOnceUntilStopped) {
    CHarvell monitor("App", 1, 1, nullptr);
    ASSERT_EQ(monitor.Start(true, nullptr, 120, nullptr, 10101, 10102), 1);
    const std::string file = m_dir.file("App_monitor.log");
    EXPECT_TRUE(FileExists(file)) << "a started monitor is connected now";

    monitor.AlertMsg("link down");
    std::string text = ReadFile(file);  // no flush, no wait
    EXPECT_EQ(text.size(), 14u + 9u + 2u);
    EXPECT_EQ(text.substr(text.size() - 2), "\r\n");
    monitor.AlertMsg("");
    monitor.AlertMsg(nullptr);
    monitor.AlertMsg("with;semicolons");
    std::vector<std::string> lines = SplitLines(ReadFile(file));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(IsAlertLine(lines[0], "link down")) << lines[0];
    EXPECT_TRUE(IsAlertLine(lines[1], "")) << lines[1];
    EXPECT_TRUE(IsAlertLine(lines[2], "with;semicolons")) << lines[2];
    EXPECT_EQ(monitor.Start(true, nullptr, 120, nullptr, 10101, 10102), 1);

    // Stop ends the connection: later alerts are dropped, and a second Stop is harmless.
    monitor.Stop(1);
    monitor.AlertMsg("after stop");
    monitor.Stop(1);
    EXPECT_EQ(SplitLines(ReadFile(file)).size(), 3u);
}

TEST_F(MonitorClientTest, DeferredStartConnectsWithTheFirstAlertOnly) {
    const std::string file = m_dir.file("elsewhere.txt");
    std::ofstream(file) << "old\r\n";
    CHarvell monitor("App", 1, 1, nullptr);
    monitor.AlertMsg("before start");
    ASSERT_EQ(monitor.Start(false, file.c_str(), 120, nullptr, 10101, 10102), 1);
    monitor.AlertMsg("first");
    std::vector<std::string> lines = SplitLines(ReadFile(file));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "old");
    EXPECT_TRUE(IsAlertLine(lines[1], "first")) << lines[1];
    EXPECT_FALSE(FileExists(m_dir.file("App_monitor.log")));

    // In the default place nothing is opened, nor the folder made, until an alert.
    const std::string folder = m_dir.file("made");
    setenv("PELTRIX_LOG_FOLDER", folder.c_str(), 1);
    CHarvell inDefault("App", 1, 1, nullptr);
    ASSERT_EQ(inDefault.Start(false, "", 120, nullptr, 10101, 10102), 1);
    EXPECT_FALSE(FileExists(folder));
    inDefault.AlertMsg("now");
    lines = SplitLines(ReadFile(folder + "/App_monitor.log"));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(IsAlertLine(lines[0], "now"));
}

TEST_F(MonitorClientTest, StartFailsWhenTheMonitorFileCanNotBeOpened) {
    std::ofstream(m_dir.file("plain")) << "x";
    CHarvell named("App", 1, 1, nullptr);
    EXPECT_EQ(named.Start(true, m_dir.file("plain/monitor.log").c_str(), 120, nullptr, 10101,
                          10102),
              0);
    named.AlertMsg("dropped");

    setenv("PELTRIX_LOG_FOLDER", m_dir.file("plain/log").c_str(), 1);
    CHarvell inLogFolder("App", 1, 1, nullptr);
    EXPECT_EQ(inLogFolder.Start(true, nullptr, 120, nullptr, 10101, 10102), 0);
    inLogFolder.AlertMsg("dropped");
    EXPECT_EQ(ReadFile(m_dir.file("plain")), "x");

    // A deferred start can't know yet: the alert that finds no monitor is dropped.
    CHarvell deferred("App", 1, 1, nullptr);
    EXPECT_EQ(deferred.Start(false, m_dir.file("plain/monitor.log").c_str(), 120, nullptr,
                             10101, 10102),
              1);
    deferred.AlertMsg("dropped");
    deferred.Stop(1);
}

TEST_F(MonitorClientTest, AlertsFromManyThreadsStayWholeLines) {
    CHarvell monitor("App", 1, 1, nullptr);
    ASSERT_EQ(monitor.Start(true, nullptr, 120, nullptr, 10101, 10102), 1);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&monitor, t] {
            for (int i = 0; i < 500; ++i)
                monitor.AlertMsg(("alert " + std::to_string(t) + " " + std::to_string(i)).c_str());
        });
    }
    for (std::thread& thread : threads) thread.join();
    std::vector<std::string> lines = SplitLines(ReadFile(m_dir.file("App_monitor.log")));
    ASSERT_EQ(lines.size(), 2000u);
    std::vector<int> next(4, 0);
    for (const std::string& line : lines) {
        int t = -1, i = -1;
        ASSERT_EQ(std::sscanf(line.c_str() + 14, "alert %d %d", &t, &i), 2) << line;
        ASSERT_TRUE(t >= 0 && t < 4) << line;
        EXPECT_TRUE(IsAlertLine(line, "alert " + std::to_string(t) + " " + std::to_string(i)));
        EXPECT_EQ(i, next[t]++);
    }
}

}  // namespace
