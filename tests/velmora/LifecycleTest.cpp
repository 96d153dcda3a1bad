// Start and stop: the instance guard, every route to the logger, the default log, and the
// order of Shutdown.
#include "include/Velmora.h"
#include "include/VelmoraServiceStandIn.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const char kLoggerMutex[] = "Global\\QUOREL_LOGGER_DAEMON_MUTEX";
const char kLoggerService[] = "Quorel LoggerServer";

// A stand-in for the logger's service with a scripted state.
struct LoggerService : velmora_platform::ServiceStandIn {
    DWORD state = SERVICE_RUNNING;
    DWORD stateAfterStart = SERVICE_RUNNING;
    bool startWorks = true;
    std::atomic<int> queries{0}, starts{0};
    bool QueryState(DWORD* p) override {
        ++queries;
        *p = state;
        return true;
    }
    bool Start() override {
        ++starts;
        if (startWorks) state = stateAfterStart;
        return startWorks;
    }
};

bool LoggerMutexExists() {
    HANDLE h = OpenMutexA(MUTEX_ALL_ACCESS, FALSE, kLoggerMutex);
    if (!h) return false;
    CloseHandle(h);
    return true;
}

// Each test has machine-wide names and log files of its own.
class Lifecycle : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("VELMORA_OBJECT_FOLDER", objects.path().c_str(), 1);
        setenv("PELTRIX_LOG_FOLDER", logs.path().c_str(), 1);
        appName = velmora_test::UniqueName("App");
    }
    void TearDown() override { velmora_platform::InstallServiceStandIn(kLoggerService, nullptr); }

    std::string DefaultLogText() {
        char path[MAX_PATH] = "";
        if (globalDefaultLog) {
            globalDefaultLog->FlushLog();
            globalDefaultLog->GetFullLogPath(path, sizeof(path));
        }
        return velmora_test::ReadFile(path);
    }

    // Stops a logger that Init launched, by the process id it wrote, and waits for its end.
    void StopLaunchedLogger() {
        std::string pidText;
        for (int i = 0; i < 100 && pidText.empty(); ++i) {
            pidText = velmora_test::ReadFile(logs.file("logger.pid"));
            if (pidText.empty()) Sleep(100);
        }
        ASSERT_FALSE(pidText.empty()) << "the logger wrote no pid file";
        pid_t pid = pid_t(std::stoi(pidText));
        ASSERT_EQ(kill(pid, SIGTERM), 0);
        for (int i = 0; i < 100 && LoggerMutexExists(); ++i) Sleep(100);
        EXPECT_FALSE(LoggerMutexExists()) << "the logger still holds its mutex after SIGTERM";
    }

    velmora_test::TempDir objects, logs;
    std::string appName;
};

}  // namespace

TEST_F(Lifecycle, InitWithoutLoggerOpensTheDefaultLogInTheLastSlot) {
    LoggerService service;
    velmora_platform::InstallServiceStandIn(kLoggerService, &service);
    ASSERT_TRUE(velmora.Init(appName.c_str(), 1));
    EXPECT_STREQ(velmora.GetAppName(), appName.c_str());
    ASSERT_NE(globalDefaultLog, nullptr);
    EXPECT_EQ(velmora.pLogClients[35], globalDefaultLog);
    EXPECT_NE(velmora.hStopEvent, nullptr);
    EXPECT_EQ(WaitForSingleObject(velmora.hStopEvent, 0), WAIT_TIMEOUT);
    EXPECT_NE(velmora.hInstanceMutex, nullptr);
    // A non-zero option neither asks the service nor starts a logger.
    EXPECT_EQ(service.queries, 0);
    EXPECT_EQ(velmora.pServiceControl, nullptr);
    EXPECT_FALSE(LoggerMutexExists());
    // The default log opens with its banner.
    std::string text = DefaultLogText();
    EXPECT_NE(text.find(";START;"), std::string::npos) << text;
    EXPECT_NE(text.find(" ******************************************************************************\r\n;\r\n"),
              std::string::npos)
        << text;
}

TEST_F(Lifecycle, TheNameRunsOnlyOnceOnTheMachine) {
    ASSERT_TRUE(velmora.Init(appName.c_str(), 1));
    // Another process with the same name is refused...
    pid_t child = fork();
    if (child == 0) _exit(velmora.Init(appName.c_str(), 1) ? 0 : 7);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 7);
    // ...and so is a second Init of this process.
    CQuorelLog* pDefault = globalDefaultLog;
    EXPECT_FALSE(velmora.Init(appName.c_str(), 1));
    EXPECT_EQ(globalDefaultLog, pDefault);
}

TEST_F(Lifecycle, ADefaultLogThatCantOpenFailsInit) {
    std::string blocker = logs.file("a-file");
    FILE* f = fopen(blocker.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fclose(f);
    setenv("PELTRIX_LOG_FOLDER", (blocker + "/below").c_str(), 1);
    EXPECT_FALSE(velmora.Init(appName.c_str(), 1));
    EXPECT_EQ(globalDefaultLog, nullptr);
    // The instance mutex is held all the same.
    pid_t child = fork();
    if (child == 0) _exit(velmora.Init(appName.c_str(), 1) ? 0 : 7);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 7);
}

TEST_F(Lifecycle, ARunningServiceCountsAsTheLogger) {
    LoggerService service;
    service.state = SERVICE_START_PENDING;  // any state but stopped
    velmora_platform::InstallServiceStandIn(kLoggerService, &service);
    ASSERT_TRUE(velmora.Init(appName.c_str(), 0));
    EXPECT_EQ(service.queries, 1);
    EXPECT_EQ(service.starts, 0);
    EXPECT_NE(velmora.pServiceControl, nullptr);
    EXPECT_FALSE(LoggerMutexExists());  // no logger process was started
    velmora.Shutdown();
    EXPECT_EQ(velmora.pServiceControl, nullptr);
}

TEST_F(Lifecycle, AStoppedServiceIsStartedAndQueriedAgain) {
    LoggerService service;
    service.state = SERVICE_STOPPED;
    velmora_platform::InstallServiceStandIn(kLoggerService, &service);
    ASSERT_TRUE(velmora.Init(appName.c_str(), 0));
    EXPECT_EQ(service.starts, 1);
    EXPECT_EQ(service.queries, 2);
    EXPECT_NE(velmora.pServiceControl, nullptr);
    EXPECT_FALSE(LoggerMutexExists());
}

TEST_F(Lifecycle, AServiceThatStaysStoppedFallsBackToTheLoggerProcess) {
    LoggerService service;
    service.state = SERVICE_STOPPED;
    service.startWorks = false;
    velmora_platform::InstallServiceStandIn(kLoggerService, &service);
    ASSERT_TRUE(velmora.Init(appName.c_str(), 0));
    EXPECT_EQ(service.starts, 1);
    EXPECT_EQ(service.queries, 2);
    // The logger beside the executable was started, and the service handle stays.
    EXPECT_TRUE(LoggerMutexExists());
    EXPECT_NE(velmora.pServiceControl, nullptr);
    velmora.Shutdown();
    EXPECT_EQ(velmora.pServiceControl, nullptr);
    StopLaunchedLogger();
}

TEST_F(Lifecycle, WithoutServiceOrLoggerTheLoggerProgramIsStarted) {
    ASSERT_FALSE(LoggerMutexExists());
    ASSERT_TRUE(velmora.Init(appName.c_str(), 0));
    EXPECT_EQ(velmora.pServiceControl, nullptr);
    EXPECT_TRUE(LoggerMutexExists());
    StopLaunchedLogger();
}

TEST_F(Lifecycle, ARunningLoggerProcessIsNotStartedAgain) {
    // The test holds the logger's mutex, as a running logger would.
    HANDLE hLogger = CreateMutexA(nullptr, TRUE, kLoggerMutex);
    ASSERT_NE(hLogger, nullptr);
    ASSERT_TRUE(velmora.Init(appName.c_str(), 0));
    Sleep(300);
    // A launched logger would have written its pid file (and then ended, finding the mutex).
    EXPECT_FALSE(velmora_test::FileExists(logs.file("logger.pid")));
    CloseHandle(hLogger);
}

TEST_F(Lifecycle, ShutdownClosesInOrderAndTwiceIsHarmless) {
    ASSERT_TRUE(velmora.Init(appName.c_str(), 1));
    CQuorelLog* pOther = velmora.GetLogClient("other", true, false, true);
    ASSERT_NE(pOther, nullptr);
    char defaultPath[MAX_PATH], otherPath[MAX_PATH];
    globalDefaultLog->GetFullLogPath(defaultPath, sizeof(defaultPath));
    pOther->GetFullLogPath(otherPath, sizeof(otherPath));
    HANDLE hStop = velmora.hStopEvent;

    velmora.Shutdown();
    EXPECT_EQ(globalDefaultLog, nullptr);
    for (CQuorelLog* pLog : velmora.pLogClients) EXPECT_EQ(pLog, nullptr);
    // The stop event is set, not closed: the destructor closes it.
    EXPECT_EQ(velmora.hStopEvent, hStop);
    EXPECT_EQ(WaitForSingleObject(hStop, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(velmora.mapSystemAlerts.empty());
    EXPECT_TRUE(velmora.mapMonitorAlerts.empty());

    // The default log ends with the line of plus signs, then its closing banner.
    std::string text = velmora_test::ReadFile(defaultPath);
    std::vector<std::string> lines = velmora_test::SplitLines(text);
    std::string plus89(89, '+');
    size_t line = text.rfind(";SHUTDOWN;");
    ASSERT_NE(line, std::string::npos) << text;
    size_t firstShutdown = text.find(";SHUTDOWN;");
    EXPECT_NE(firstShutdown, line) << "expected two SHUTDOWN records";
    EXPECT_NE(text.find(";\r\n" + plus89 + ";\r\n", firstShutdown), std::string::npos) << text;
    EXPECT_NE(text.find(" " + plus89 + "\r\n;\r\n", line), std::string::npos) << text;
    // Every shared log got its banner.
    EXPECT_NE(velmora_test::ReadFile(otherPath).find(";SHUTDOWN;"), std::string::npos);

    velmora.Shutdown();  // nothing left to close
    EXPECT_EQ(globalDefaultLog, nullptr);
}
