// The status file's path and the monitor client's connection.
#include "LogTestSupport.h"

#include <gtest/gtest.h>

#include <string>
#include <unistd.h>

namespace {

using velmora_log_test::SettingsDirectory;

std::string ExecutableFolder() {
    char path[4096];
    ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
    path[n > 0 ? n : 0] = '\0';
    std::string text(path);
    return text.substr(0, text.rfind('/') + 1);
}

class StatusMonitor : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(setenv("PELTRIX_LOG_FOLDER", logs.path().c_str(), 1), 0);
        _G_Directory = &directory;
        velmora_log_test::SetAppName("MonitorApp");
    }
    void TearDown() override {
        velmora.DisconnectMonitor(true);
        _G_Directory = nullptr;
    }
    velmora_test::TempDir logs;
    SettingsDirectory directory;
};

}  // namespace

TEST_F(StatusMonitor, StatusFileLiesBesideTheExecutableWhateverTheWorkingFolder) {
    ASSERT_EQ(chdir(logs.path().c_str()), 0);
    EXPECT_STREQ(velmora.szStatusFile, "");
    velmora.EnableStatusMonitor();
    EXPECT_EQ(std::string(velmora.szStatusFile), ExecutableFolder() + "ServerRuntimeStatus.ini");
    // Nothing is created by fixing the path.
    EXPECT_FALSE(velmora_test::FileExists(velmora.szStatusFile));
}

TEST_F(StatusMonitor, ConnectTwiceMakesOneClientAndReadsTheSettingOnce) {
    EXPECT_TRUE(velmora.ConnectMonitor(true, nullptr));
    CHarvell* first = velmora.pMonitor;
    ASSERT_NE(first, nullptr);
    EXPECT_TRUE(velmora.ConnectMonitor(true, nullptr));
    EXPECT_EQ(velmora.pMonitor, first);
    EXPECT_EQ(directory.asks.size(), 1u);

    // Alerts handed to the client reach the monitor.
    velmora.pMonitor->AlertMsg("feed lost");
    std::string monitor = velmora_test::ReadFile(logs.file("MonitorApp_monitor.log"));
    EXPECT_NE(monitor.find(";feed lost\r\n"), std::string::npos) << monitor;

    velmora.DisconnectMonitor(true);
    EXPECT_EQ(velmora.pMonitor, nullptr);
    velmora.DisconnectMonitor(false);  // harmless without a client
}

TEST_F(StatusMonitor, FailedStartKeepsTheClientUntilDisconnected) {
    // The stand-in's monitor is a file; one in a folder that doesn't exist can't be reached.
    EXPECT_FALSE(velmora.ConnectMonitor(true, (logs.path() + "/missing/monitor.log").c_str()));
    CHarvell* failed = velmora.pMonitor;
    ASSERT_NE(failed, nullptr);
    // The next call counts the existing client as connected and starts nothing.
    EXPECT_TRUE(velmora.ConnectMonitor(true, logs.file("monitor.log").c_str()));
    EXPECT_EQ(velmora.pMonitor, failed);
    EXPECT_EQ(directory.asks.size(), 1u);

    velmora.DisconnectMonitor(true);
    EXPECT_TRUE(velmora.ConnectMonitor(true, logs.file("monitor.log").c_str()));
    EXPECT_EQ(directory.asks.size(), 2u);
    velmora.pMonitor->AlertMsg("second try");
    EXPECT_NE(velmora_test::ReadFile(logs.file("monitor.log")).find(";second try\r\n"),
              std::string::npos);
}

TEST_F(StatusMonitor, TheConfiguredTimeOutReachesStart) {
    EXPECT_TRUE(velmora.ConnectMonitor(false, logs.file("m.log").c_str()));
    EXPECT_EQ(velmora.pMonitor->GetStartTimeout(), 120);  // nothing configured
    velmora.DisconnectMonitor(true);
    directory.ints["1:MONITOR_TIMEOUT"] = 30;
    directory.ints["2:MONITOR_TIMEOUT"] = 99;  // another section kind isn't read
    EXPECT_TRUE(velmora.ConnectMonitor(false, logs.file("m.log").c_str()));
    EXPECT_EQ(velmora.pMonitor->GetStartTimeout(), 30);
}
