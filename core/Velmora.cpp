// The service object: its construction at load, its destruction at unload, and the small
// accessors of what a host plugs in.
#include "include/Velmora.h"

namespace {

const char* const kReportNames[23] = {
    "[Exception]",       "[Alert]",
    "[Runtime State]",   "[Maintenance]",
    "[DB Engine]",       "[FS Command]",
    "[FS Output]",       "[Client Login]",
    "[Client Logout]",   "[Account Update]",
    "[Route Message]",   "[Execution Sent]",
    "[Order Received]",  "[Received]",
    "[Sent]",            "[Order Routing Started]",
    "[Order Routing Ended]", "[Order Routed]",
    "[Order Responded]", "[Algo Loaded]",
    "[Algo Unloaded]",   "[Algo Loading Failed]",
    "[Debug]",
};

const char* const kOrderTags[10] = {
    "QUOREL",          "STP",
    "INTX",            "ACCUMULATE",
    "XREF_",           "RISK_OCO",
    "RISK_MARGINCALL", "RISK_LIQUIDATION",
    "RISK_MGR_CANCEL", "OMS_PEG",
};

}  // namespace

// Members not set here are zero: the object has static storage. Nothing is started and
// nothing is logged at load.
CVelmora::CVelmora() {
    // The four maps are empty by their own construction.
    nLastCommand = -1;
    szLastArguments[0] = '\0';
    szLastSource[0] = '\0';
    szAppName[0] = '\0';
    pMonitor = nullptr;
    hInstanceMutex = nullptr;
    pFTSEngine = nullptr;
    pBCTEngine = nullptr;
    pIMDBRawDataAccessor = nullptr;
    pReportConsole = nullptr;
    pRemoteConsole = nullptr;
    pServiceControl = nullptr;
    bMsgReporting = false;
    bSuspended = false;
    bAlertsPending = false;
    hStopEvent = nullptr;
    nAlertRepeatMS = 60000;
    bInShellCommand = false;
    nReportLevel = 22;
    pPerformanceConsole = nullptr;
    bReportPerformance = false;
    pTagTable = nullptr;
    nTagTableSize = 0;
    pAlertSystem = nullptr;
    for (CTradeDateChangeListenerInf*& listener : pDateListeners) listener = nullptr;
    nDateListeners = 0;
    szGrepText[0] = '\0';
    szGrepPending[0] = '\0';
    dwShellThreadId = 0;
    szStatusFile[0] = '\0';
    _G_SessionID[0] = '\0';

    for (int i = 0; i < 23; ++i) Report_Types::STR[i] = kReportNames[i];
    for (int i = 0; i < 10; ++i) OrderTag_Types::STR[i] = kOrderTags[i];

    InitializeCriticalSection(&csLogClients);
    InitializeCriticalSection(&csAlerts);
    InitializeCriticalSectionAndSpinCount(&csObjectUsages, 4000);
}

// Frees only what the object itself holds. Log clients, threads and alert records are
// Shutdown's to end; a host that skips it loses the logs' closing lines.
CVelmora::~CVelmora() {
    DeleteCriticalSection(&csAlerts);
    DeleteCriticalSection(&csLogClients);
    DeleteCriticalSection(&csObjectUsages);
    // Closing the handle ends the ownership; the mutex is not released first.
    if (hInstanceMutex) {
        CloseHandle(hInstanceMutex);
        hInstanceMutex = nullptr;
    }
    delete[] pTagTable;
    pTagTable = nullptr;
    pAlertSystem = nullptr;
    if (hStopEvent) {
        CloseHandle(hStopEvent);
        hStopEvent = nullptr;
    }
    mapObjectUsages.clear();
    mapMonitorAlerts.clear();
    mapSystemAlerts.clear();
    mapCommandRepeats.clear();
}

const char* CVelmora::GetAppName() { return szAppName; }

CIMDBRawDataAccessorInf* CVelmora::GetIMDBRawDataAccessor() { return pIMDBRawDataAccessor; }

void CVelmora::SetIMDBRawDataAccessor(CIMDBRawDataAccessorInf* pAccessor) {
    pIMDBRawDataAccessor = pAccessor;
}

void CVelmora::SetReportConsole(CReportConsoleInf* pConsole) { pReportConsole = pConsole; }

CReportConsoleInf* CVelmora::GetReportConsole() { return pReportConsole; }

void CVelmora::EnableRemoteConsole(CRemoteConsoleInf* pConsole) { pRemoteConsole = pConsole; }

CRemoteConsoleInf* CVelmora::GetRemoteConsole() { return pRemoteConsole; }

bool CVelmora::IsMsgReportingEnabled() { return bMsgReporting; }
