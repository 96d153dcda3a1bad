// Start and stop: the machine-wide instance name, the routes to the logger, the default log, the order of Shutdown.
#include "LogTestSupport.h"
#include "include/VelmoraServiceStandIn.h"

#include <csignal>
#include <fstream>
#include <sys/wait.h>
#include <unistd.h>

using namespace velmora_log_test;

namespace {
struct LoggerService : velmora_platform::ServiceStandIn {
    DWORD state = SERVICE_RUNNING;
    bool bStartWorks = true;
    int nQueries = 0, nStarts = 0;
    bool QueryState(DWORD* p) override { return ++nQueries, *p = state, true; }
    bool Start() override { return ++nStarts, state = bStartWorks ? SERVICE_RUNNING : state, bStartWorks; }
};

bool LoggerRuns() {
    HANDLE h = OpenMutexA(MUTEX_ALL_ACCESS, FALSE, "Global\\QUOREL_LOGGER_DAEMON_MUTEX");
    return h != nullptr && CloseHandle(h);
}

struct Lifecycle : ::testing::Test {
    void SetUp() override { setenv("VELMORA_OBJECT_FOLDER", objects.path().c_str(), 1), setenv("PELTRIX_LOG_FOLDER", logs.path().c_str(), 1); }
    void TearDown() override { velmora_platform::InstallServiceStandIn("Quorel LoggerServer", nullptr); }
    // Whether Init of the name works in another process whose logs can open.
    bool InitInChild() {
        pid_t child = fork();
        if (child == 0) _exit(setenv("PELTRIX_LOG_FOLDER", logs.path().c_str(), 1) == 0 && velmora.Init(appName.c_str(), 1) ? 0 : 7);
        int status = 0;
        return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    // Init with option 0 and the service, if installed, in `state`; a launched logger is stopped by the id it wrote.
    void ExpectRoute(bool bInstalled, DWORD state, bool bStartWorks, int nQueries, int nStarts, bool bLaunched) {
        service.state = state, service.bStartWorks = bStartWorks;
        if (bInstalled) velmora_platform::InstallServiceStandIn("Quorel LoggerServer", &service);
        ASSERT_TRUE(velmora.Init(appName.c_str(), 0));
        EXPECT_EQ(std::make_tuple(service.nQueries, service.nStarts, velmora.pServiceControl != nullptr, LoggerRuns()),
                  std::make_tuple(nQueries, nStarts, bInstalled, bLaunched));
        velmora.Shutdown();
        EXPECT_EQ(velmora.pServiceControl, nullptr);
        std::string pid;
        for (int i = 0; bLaunched && i < 100 && (pid = velmora_test::ReadFile(logs.file("logger.pid"))).empty(); ++i) Sleep(100);
        ASSERT_TRUE(!bLaunched || kill(pid_t(std::stoi(pid)), SIGTERM) == 0);
        for (int i = 0; i < 100 && LoggerRuns(); ++i) Sleep(100);
    }
    velmora_test::TempDir objects, logs;
    std::string appName = velmora_test::UniqueName("App");
    LoggerService service;
};
}  // namespace

// Init holds the name, cut to 63 characters, machine-wide and opens the default log in the last slot; an option other
// than 0 seeks no logger.
TEST_F(Lifecycle, InitHoldsTheNameAndOpensTheDefaultLog) {
    velmora_platform::InstallServiceStandIn("Quorel LoggerServer", &service);
    appName = (appName + std::string(64, 'x')).substr(0, 64);
    const std::string cut = appName.substr(0, 63);
    ASSERT_TRUE(velmora.Init(appName.c_str(), 1));
    HANDLE hGuard = OpenMutexA(MUTEX_ALL_ACCESS, FALSE, ("Global\\" + cut + "_MUTEX").c_str());
    EXPECT_TRUE(hGuard != nullptr && CloseHandle(hGuard));
    EXPECT_EQ(std::make_pair(std::string(velmora.GetAppName()), std::string(MustOpen(globalDefaultLog)->szAppName)), std::make_pair(cut, cut));
    EXPECT_TRUE(service.nQueries == 0 && !LoggerRuns());
    EXPECT_EQ(velmora.pLogClients[35], globalDefaultLog);
    EXPECT_EQ(WaitForSingleObject(velmora.hStopEvent, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(MatchesPattern(LogTextOf(globalDefaultLog), TextRecord("START", StartBanner())));
    EXPECT_FALSE(InitInChild());
    CQuorelLog* pDefault = globalDefaultLog;
    EXPECT_FALSE(velmora.Init(appName.c_str(), 1));
    EXPECT_EQ(globalDefaultLog, pDefault);
}

TEST_F(Lifecycle, ADefaultLogThatCantOpenFailsInitAndTheNameStaysHeld) {
    std::ofstream(logs.file("a-file")) << "x";
    setenv("PELTRIX_LOG_FOLDER", logs.file("a-file/below").c_str(), 1);
    EXPECT_FALSE(velmora.Init(appName.c_str(), 1));
    EXPECT_EQ(globalDefaultLog, nullptr);
    EXPECT_FALSE(InitInChild());
}

// A service not stopped is the logger, a stopped one is started; if it stays stopped or is missing, the program starts.
TEST_F(Lifecycle, ARunningServiceIsTheLogger) { ExpectRoute(true, SERVICE_START_PENDING, true, 1, 0, false); }
TEST_F(Lifecycle, AStoppedServiceIsStarted) { ExpectRoute(true, SERVICE_STOPPED, true, 2, 1, false); }
TEST_F(Lifecycle, AServiceThatStaysStoppedFallsBackToTheLoggerProgram) { ExpectRoute(true, SERVICE_STOPPED, false, 2, 1, true); }
TEST_F(Lifecycle, WithoutAServiceTheLoggerProgramIsStarted) { ExpectRoute(false, SERVICE_STOPPED, true, 0, 0, true); }

// Shutdown sets the stop event, writes its line, then closes every shared log with its banner; a second one does nothing.
TEST_F(Lifecycle, ShutdownClosesTheLogsInOrder) {
    ASSERT_TRUE(velmora.Init(appName.c_str(), 1));
    CQuorelLog* pOther = MustOpen(velmora.GetLogClient("other", true, false, true));
    char szDefault[MAX_PATH], szOther[MAX_PATH];
    globalDefaultLog->GetFullLogPath(szDefault, sizeof(szDefault)), pOther->GetFullLogPath(szOther, sizeof(szOther));
    velmora.Shutdown();
    EXPECT_EQ(globalDefaultLog, nullptr);
    for (CQuorelLog* pLog : velmora.pLogClients) EXPECT_EQ(pLog, nullptr);
    EXPECT_EQ(WaitForSingleObject(velmora.hStopEvent, 0), WAIT_OBJECT_0);
    const std::string start = TextRecord("START", StartBanner()), banner = TextRecord("SHUTDOWN", ShutdownBanner());
    EXPECT_TRUE(MatchesPattern(velmora_test::ReadFile(szDefault), start + TextRecord("SHUTDOWN", "\r\n" + std::string(89, '+')) + banner));
    EXPECT_TRUE(MatchesPattern(velmora_test::ReadFile(szOther), start + banner));
    velmora.Shutdown();
}
