// The status file's path and the monitor client's connection.
#include "include/Velmora.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <unistd.h>

namespace {

// A directory service with a fixed set of integer settings that counts its reads.
struct SettingsDirectory : CDirectoryServiceInf {
    std::map<std::string, int> ints;
    int nIntReads = 0;
    const char* GetLogFolderSuffix() override { return "suffix"; }
    const char* GetLogFolderPrefix() override { return "prefix"; }
    void Reserved5() override {}
    void Reserved6() override {}
    void Reserved7() override {}
    void GetIntSetting(int nKind, const char* szKey, int* pnValue) override {
        ++nIntReads;
        auto it = ints.find(std::to_string(nKind) + ":" + szKey);
        if (it != ints.end()) *pnValue = it->second;
    }
    void Reserved9() override {}
    void GetStringSetting(int, const char*, char*, int) override {}
};

std::string ExecutableFolder() {
    char path[4096];
    ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
    path[n > 0 ? n : 0] = '\0';
    std::string text(path);
    return text.substr(0, text.rfind('/') + 1);
}

}  // namespace

TEST(StatusMonitor, StatusFileLiesBesideTheExecutableWhateverTheWorkingFolder) {
    velmora_test::TempDir elsewhere;
    ASSERT_EQ(chdir(elsewhere.path().c_str()), 0);
    EXPECT_STREQ(velmora.szStatusFile, "");
    velmora.EnableStatusMonitor();
    EXPECT_EQ(std::string(velmora.szStatusFile), ExecutableFolder() + "ServerRuntimeStatus.ini");
    // Nothing is created by fixing the path, and a second call writes the same path.
    EXPECT_FALSE(velmora_test::FileExists(velmora.szStatusFile));
    velmora.EnableStatusMonitor();
    EXPECT_EQ(std::string(velmora.szStatusFile), ExecutableFolder() + "ServerRuntimeStatus.ini");
}

TEST(StatusMonitor, ConnectTwiceMakesOneClientAndReadsTheSettingOnce) {
    velmora_test::TempDir logs;
    setenv("PELTRIX_LOG_FOLDER", logs.path().c_str(), 1);
    SettingsDirectory directory;
    _G_Directory = &directory;
    strcpy(velmora.szAppName, "MonitorApp");

    EXPECT_TRUE(velmora.ConnectMonitor(true, nullptr));
    CHarvell* first = velmora.pMonitor;
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(directory.nIntReads, 1);
    EXPECT_TRUE(velmora.ConnectMonitor(true, nullptr));
    EXPECT_EQ(velmora.pMonitor, first);
    EXPECT_EQ(directory.nIntReads, 1);

    // Alerts handed to the client reach the monitor.
    velmora.pMonitor->AlertMsg("feed lost");
    std::string monitor = velmora_test::ReadFile(logs.file("MonitorApp_monitor.log"));
    EXPECT_NE(monitor.find(";feed lost\r\n"), std::string::npos) << monitor;

    velmora.DisconnectMonitor(true);
    EXPECT_EQ(velmora.pMonitor, nullptr);
    velmora.DisconnectMonitor(false);  // harmless without a client
    EXPECT_EQ(velmora.pMonitor, nullptr);
    _G_Directory = nullptr;
}

TEST(StatusMonitor, FailedStartKeepsTheClientUntilDisconnected) {
    velmora_test::TempDir logs;
    SettingsDirectory directory;
    _G_Directory = &directory;
    strcpy(velmora.szAppName, "MonitorApp");

    // The stand-in's monitor is a file; one in a folder that doesn't exist can't be reached.
    std::string unreachable = logs.path() + "/missing/monitor.log";
    EXPECT_FALSE(velmora.ConnectMonitor(true, unreachable.c_str()));
    CHarvell* failed = velmora.pMonitor;
    ASSERT_NE(failed, nullptr);
    // The next call counts the existing client as connected and starts nothing.
    EXPECT_TRUE(velmora.ConnectMonitor(true, logs.file("monitor.log").c_str()));
    EXPECT_EQ(velmora.pMonitor, failed);
    EXPECT_EQ(directory.nIntReads, 1);

    velmora.DisconnectMonitor(true);
    EXPECT_TRUE(velmora.ConnectMonitor(true, logs.file("monitor.log").c_str()));
    EXPECT_NE(velmora.pMonitor, nullptr);
    EXPECT_EQ(directory.nIntReads, 2);
    velmora.pMonitor->AlertMsg("second try");
    EXPECT_NE(velmora_test::ReadFile(logs.file("monitor.log")).find(";second try\r\n"),
              std::string::npos);
    velmora.DisconnectMonitor(true);
    _G_Directory = nullptr;
}

TEST(StatusMonitor, TheConfiguredTimeOutReachesStart) {
    velmora_test::TempDir logs;
    SettingsDirectory directory;
    _G_Directory = &directory;
    EXPECT_TRUE(velmora.ConnectMonitor(false, logs.file("m.log").c_str()));
    EXPECT_EQ(velmora.pMonitor->GetStartTimeout(), 120);  // nothing configured
    velmora.DisconnectMonitor(true);
    directory.ints["1:MONITOR_TIMEOUT"] = 30;
    directory.ints["2:MONITOR_TIMEOUT"] = 99;  // another section kind isn't read
    EXPECT_TRUE(velmora.ConnectMonitor(false, logs.file("m.log").c_str()));
    EXPECT_EQ(velmora.pMonitor->GetStartTimeout(), 30);
    velmora.DisconnectMonitor(true);
    _G_Directory = nullptr;
}
