// The status file's path and the monitor client's connection.
#include "LogTestSupport.h"

#include <unistd.h>

// A client counts as connected, failed or not, until disconnected; time-out from section 1, else 120.
TEST(StatusMonitor, StatusFileBesideTheExecutableAndOneClientUntilDisconnected) {
    velmora_test::TempDir logs;
    ASSERT_EQ(chdir(logs.path().c_str()), 0);  // the status file lies beside the executable all the same
    velmora.EnableStatusMonitor();
    const std::string exe = std::filesystem::canonical("/proc/self/exe");
    EXPECT_EQ(velmora.szStatusFile, exe.substr(0, exe.rfind('/') + 1) + "ServerRuntimeStatus.ini");
    velmora_log_test::SettingsDirectory directory;
    _G_Directory = &directory;
    const std::string path = logs.file("monitor.log");  // the stand-in's monitor is a file
    EXPECT_FALSE(velmora.ConnectMonitor(true, (logs.path() + "/missing/monitor.log").c_str()));
    CHarvell* failed = velmora.pMonitor;
    EXPECT_TRUE(velmora.ConnectMonitor(true, path.c_str()));
    EXPECT_TRUE(failed != nullptr && velmora.pMonitor == failed && failed->GetStartTimeout() == 120);
    velmora.DisconnectMonitor(true), velmora.DisconnectMonitor(false);  // the second without a client
    directory.ints = {{"1:MONITOR_TIMEOUT", 30}, {"2:MONITOR_TIMEOUT", 99}};
    EXPECT_TRUE(velmora.ConnectMonitor(true, path.c_str()));
    EXPECT_EQ(velmora.pMonitor->GetStartTimeout(), 30);
    velmora.pMonitor->AlertMsg("feed lost");
    EXPECT_NE(velmora_test::ReadFile(path).find(";feed lost\r\n"), std::string::npos);
    velmora.DisconnectMonitor(true), _G_Directory = nullptr;
}
