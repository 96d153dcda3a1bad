// Start and stop of the service layer.
#include "core/AsciiText.h"
#include "alerting/AlertRecord.h"
#include "core/ServiceControl.h"
#include "include/Velmora.h"
#include "reporting/Trace.h"

#include <cstdio>
#include <cstring>

namespace {

const char kMutexNameFormat[] = "Global\\%s_MUTEX";
const char kLoggerServiceName[] = "Quorel LoggerServer";
const char kLoggerDaemonName[] = "QUOREL_LOGGER_DAEMON";
const char kLoggerProgram[] = "logger";
// A line feed, then 89 plus signs.
const char kShutdownLine[] =
    "\r\n++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++"
    "+++++++++++++++++++++++++++++";
static_assert(sizeof(kShutdownLine) == 2 + 89 + 1);

bool LoggerProcessRuns(const char* szMutexName) {
    HANDLE hMutex = OpenMutexA(MUTEX_ALL_ACCESS, FALSE, szMutexName);
    if (!hMutex) return false;
    CloseHandle(hMutex);
    return true;
}

// The logger program lies beside the host's executable.
void LoggerProgramPath(char* szPath, size_t nSize) {
    char szExecutable[MAX_PATH];
    GetModuleFileNameA(nullptr, szExecutable, sizeof(szExecutable));
    if (char* pSlash = strrchr(szExecutable, '/'))
        pSlash[1] = '\0';
    else
        szExecutable[2] = '\0';
    snprintf(szPath, nSize, "%s%s", szExecutable, kLoggerProgram);
}

}  // namespace

// Makes sure the logger runs: the service if it is installed, else the logger process,
// found by its mutex or started from beside the executable. Nothing here reports a failure:
// no log exists yet, and the layer works on without a logger.
static void StartLogger(CVelmora& service) {
    service.pServiceControl = new CServiceControl(kLoggerServiceName);
    if (!service.pServiceControl->Open()) {
        delete service.pServiceControl;
        service.pServiceControl = nullptr;
    } else {
        DWORD dwState = 0;
        if (!service.pServiceControl->GetState(&dwState) || dwState != SERVICE_STOPPED)
            return;  // running, starting or in any other state: it counts as started
        service.pServiceControl->Start();
        Sleep(3000);
        dwState = SERVICE_STOPPED;  // a state that can't be read counts as still stopped
        service.pServiceControl->GetState(&dwState);
        if (dwState != SERVICE_STOPPED) return;
    }

    char szMutexName[128];
    snprintf(szMutexName, sizeof(szMutexName), kMutexNameFormat, kLoggerDaemonName);
    if (LoggerProcessRuns(szMutexName)) return;

    char szProgram[MAX_PATH + sizeof(kLoggerProgram)];
    LoggerProgramPath(szProgram, sizeof(szProgram));
    HINSTANCE hResult = ShellExecuteA(nullptr, "open", szProgram, nullptr, nullptr, SW_HIDE);
    if (reinterpret_cast<intptr_t>(hResult) <= 32) return;

    HANDLE hMutex = nullptr;
    for (int nPoll = 0; nPoll < 40 && !hMutex; ++nPoll) {
        Sleep(100);
        hMutex = OpenMutexA(MUTEX_ALL_ACCESS, FALSE, szMutexName);
    }
    // The logger takes a moment to settle after its mutex appears.
    Sleep(3000);
    if (hMutex) CloseHandle(hMutex);
}

bool CVelmora::Init(const char* szName, int nInitOption) {
    // An application name is at most 63 characters (the logs keep it in 64 bytes); a longer
    // one is cut here, so that the mutex, the logs and GetAppName agree on one name.
    velmora_core::CopyText(szAppName, 64, szName);

    char szMutexName[sizeof(szAppName) + sizeof(kMutexNameFormat)];
    snprintf(szMutexName, sizeof(szMutexName), kMutexNameFormat, szAppName);
    hInstanceMutex = CreateMutexA(nullptr, TRUE, szMutexName);
    if (!hInstanceMutex) return false;
    // Another process, or an earlier Init of this one, runs under this name. The handle
    // stays until the destructor closes it.
    if (GetLastError() == ERROR_ALREADY_EXISTS) return false;

    if (nInitOption == 0 && !pServiceControl) StartLogger(*this);

    hStopEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    StartLoggerSession();
    globalDefaultLog = GetLogClient("default", true, false, true);

    HANDLE hThread = reinterpret_cast<HANDLE>(
        _beginthreadex(nullptr, 0, &CVelmora::AlertTimerFunction, this, 0, nullptr));
    if (hThread) {
        SetThreadPriority(hThread, THREAD_PRIORITY_BELOW_NORMAL);
        CloseHandle(hThread);  // the thread isn't joined: the stop event ends it
    }
    return globalDefaultLog != nullptr;
}

void CVelmora::Shutdown() {
    if (hStopEvent) {
        SetEvent(hStopEvent);
        Sleep(250);
    }
    if (globalDefaultLog) globalDefaultLog->Log("SHUTDOWN", kShutdownLine);
    // The default log stands in the last slot, so it is closed last; with it, reports and
    // trace lines stop.
    for (CQuorelLog*& pLog : pLogClients) {
        if (!pLog) continue;
        if (pLog == globalDefaultLog) globalDefaultLog = nullptr;
        pLog->PersistenceClose();
        delete pLog;
        pLog = nullptr;
    }
    globalDefaultLog = nullptr;
    CloseLoggerSession();
    if (pMonitor) {
        pMonitor->Stop(1);
        delete pMonitor;
        pMonitor = nullptr;
    }
    if (pServiceControl) {
        pServiceControl->Close();
        delete pServiceControl;
        pServiceControl = nullptr;
    }
    // Alerts not yet delivered are dropped without a message. The lock comes first, then
    // the trace; a flush still running on the alert thread holds the lock until it ends.
    try {
        CSmartLock lock(&csAlerts);
        VELMORA_TRACE("CVelmora::Shutdown");
        for (auto& record : mapSystemAlerts) delete record.second;
        mapSystemAlerts.clear();
        for (auto& record : mapMonitorAlerts) delete record.second;
        mapMonitorAlerts.clear();
    } catch (const win32_exception& failure) {
        ReportException("CVelmora::Shutdown", failure.what());
    }
}
