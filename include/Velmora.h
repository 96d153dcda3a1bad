// Velmora: the service layer of a trading server process.
//
// A server loads libvelmora.so and works with one object, `velmora`: logs, operator reports,
// alerts with repeat suppression, a remote shell, the fan-out of maintenance to the server's
// modules, named locks, usage counters, tagging, performance reports, a status file and the
// monitor connection, and forwarders to the engines a server plugs in.
//
// The names, member orders and virtual operation orders below are a contract with hosts
// compiled against them: they don't change.
#pragma once

#include "Peltrix.h"
#include "VelmoraPlatform.h"

#include <cstdarg>
#include <map>
#include <string>

#define VELMORA_API __attribute__((visibility("default")))

class CQuorelLog;
class CQuorelQueue;   // a host's queue, known here by name only
class CFIXMessage;    // a host's message, known here by name only
class CServiceControl;
class CVelmora;
struct AlertRecord;

// ---- Enumerations and name tables ----------------------------------------------------

namespace Report_Types {
enum DEF : int {
    REPORT_EXCEPTION = 0,
    REPORT_ALERT,
    REPORT_RUNTIME_STATE,
    REPORT_MAINTENANCE,
    REPORT_DB_ENGINE,
    REPORT_FS_COMMAND,
    REPORT_FS_OUTPUT,
    REPORT_CLIENT_LOGIN,
    REPORT_CLIENT_LOGOUT,
    REPORT_ACCOUNT_UPDATE,
    REPORT_ROUTE_MESSAGE,
    REPORT_EXECUTION_SENT,
    REPORT_ORDER_RECEIVED,
    REPORT_RECEIVED,
    REPORT_SENT,
    REPORT_ORDER_ROUTING_STARTED,
    REPORT_ORDER_ROUTING_ENDED,
    REPORT_ORDER_ROUTED,
    REPORT_ORDER_RESPONDED,
    REPORT_ALGO_LOADED,
    REPORT_ALGO_UNLOADED,
    REPORT_ALGO_LOADING_FAILED,
    REPORT_DEBUG = 22,
};
// The bracketed names of the report types, the prefixes of reports in the log. Filled by
// the constructor of CVelmora; all null before it has run.
extern VELMORA_API const char* STR[23];
}  // namespace Report_Types

namespace OrderTag_Types {
// Order tag texts for hosts, filled by the constructor of CVelmora.
extern VELMORA_API const char* STR[10];
}  // namespace OrderTag_Types

namespace Performance_Types {
enum DEF : int { PING_ROUND_TRIP = 0, TRADING_LATENCY = 1 };
}

namespace Login_Types {
enum DEF : int { LOGIN_DEFAULT = 0 };
}

namespace QUOREL_ALERT_SYSTEM {
enum ALERT_EVENT : int {
    EXCEPTION = 1,
    SCHEDULER_TURNED_ON,
    SCHEDULER_TURNED_OFF,
    TRADING_ENABLED,
    TRADING_DISABLED,
    ALGO_SCHEDULER_TURNED_ON,
    ALGO_SCHEDULER_TURNED_OFF,
    ALGO_ENGINE_ENABLED,
    ALGO_ENGINE_DISABLED,
    DAILY_MAINTENANCE_BEGAN,
    DAILY_MAINTENANCE_ENDED,
    DAILY_MAINTENANCE_FAILED,
    QUOTESERVICE_CONNECTED,
    QUOTESERVICE_DISCONNECTED,
    QUOTESERVICE_STALED,
    STP_ACCOUNT_POSITION_ALERT,
    QUOTE_SERVICE_EXCEPTIONS,
    DAILY_REPORT_BEGINS,
    DAILY_REPORT_ENDS,
    DAILY_REPORT_FAILED,
    DATABASE_DOWN,
    DATABASE_UP,
    COMPLIANCE_ENABLED,
    COMPLIANCE_DISABLED,  // 24

    ROUTE_LOGIN = 50,
    ROUTE_LOGOUT,
    ROUTE_ENABLED,
    ROUTE_DISABLED,
    STALE_TRADE,
    TRADE_LATENCY,
    MAX_STALE_TRADES_REACHED,
    ROUTE_EXCEPTIONS,
    ROUTE_CREDIT_CHECK_FAILED,  // 58

    MARGIN_CALL = 100,
    MARGIN_LIQUIDATION,
    USER_ENABLED,
    USER_DISABLED,
    USER_LOGIN_SUCCEEDED,
    USER_LOGIN_FAILED,
    USER_ACCOUNT_LOCKED,
    ADMIN_TRADE_ON_BEHALF_OF,
    USER_ACCOUNT_UNLOCKED,
    ADMIN_RESET_PASSWORD,
    USER_LOGOUT,
    MAX_DEPOSIT_LIMIT_REACHED,
    MAX_WITHDRAWAL_LIMIT_REACHED,
    SWAP_RATE_CHANGED,
    LARGE_ACCOUNT_MARGIN_CALL,
    LARGE_ACCOUNT_MARGIN_LIQUIDATION,
    LARGE_TICKET_EXECUTION,
    LARGE_TICKET_ORDER_ENTRY,
    ACCOUNT_MAX_DRAWDOWN_REACHED,
    ALGO_ALERT,
    USER_SCRIPTING_ENABLED,
    USER_SCRIPTING_DISABLED,  // 121
};
}  // namespace QUOREL_ALERT_SYSTEM

// ---- The failure that hosts throw ----------------------------------------------------

// The library catches this class (by constant reference) in the operations that trace,
// reports it, and returns normally. Hosts throw it or a class derived from it.
class VELMORA_API win32_exception {
public:
    explicit win32_exception(const char* szDescription);
    win32_exception(const win32_exception& other);
    win32_exception& operator=(const win32_exception& other);
    // The description of the failure.
    virtual const char* what() const;
    virtual ~win32_exception();

private:
    char m_szDescription[512];
};

// ---- Scope guard over a critical section ---------------------------------------------

class VELMORA_API CSmartLock {
public:
    // Enters the critical section; a null pointer makes the guard do nothing.
    explicit CSmartLock(CRITICAL_SECTION* pCS);
    ~CSmartLock();
    // Copies the pointer and nothing else: a guard is not meant to be copied.
    CSmartLock& operator=(const CSmartLock& other);

    CRITICAL_SECTION* pCriticalSection;
};

// ---- Interfaces a host implements and plugs in ---------------------------------------
// No data, no virtual destructor; the library never deletes an object behind one. The
// copy operations only set up the object.

#define VELMORA_INTERFACE_BOILERPLATE(Name) \
    Name();                                 \
    Name(const Name&);                      \
    Name& operator=(const Name&)

// The directory and configuration service, stored by the host in _G_Directory. The two
// reading operations write the value only when the key is found.
class VELMORA_API CDirectoryServiceInf {
public:
    VELMORA_INTERFACE_BOILERPLATE(CDirectoryServiceInf);
    virtual bool PrepareNewSection();
    virtual const char* GetLogFolderSuffix() = 0;
    virtual const char* GetDomainAliasNames();
    virtual const char* GetLogFolderPrefix() = 0;
    virtual void Reserved5() = 0;
    virtual void Reserved6() = 0;
    virtual void Reserved7() = 0;
    virtual void GetIntSetting(int nSectionKind, const char* szKey, int* pnValue) = 0;
    virtual void Reserved9() = 0;
    virtual void GetStringSetting(int nSectionKind, const char* szKey, char* szValue,
                                  int nSize) = 0;
};

// The transaction engine.
class VELMORA_API CFTSInf {
public:
    VELMORA_INTERFACE_BOILERPLATE(CFTSInf);
    virtual bool BeginTrasaction(void*) = 0;
    virtual void EnableDomainTurbo(const char*, bool) = 0;
    virtual void AssignTransactionDomain(const char*, const char*, int) = 0;
    virtual bool GetTransactionDomain(char*, int, char*, int, int&) = 0;
    virtual void AssignSuperDomain() = 0;
    virtual void FlushTransaction(bool) = 0;
    virtual void RunFiber(int) = 0;
    virtual DWORD DefineTransaction(DWORD, const char*) = 0;
    virtual DWORD GetTotalTransactions() = 0;
    // Writes the description of the current transaction at the given position, terminated.
    virtual DWORD GetTransactionDescr(char*) = 0;
    virtual int GetTransactionID() = 0;
    virtual bool CheckDBWatermark(double) = 0;
    virtual bool IsDBEngineUnderStress() = 0;
    virtual void SetBarrierTransaction(int) = 0;
    virtual void SetBarrierHint(int) = 0;
    virtual int GetBarrierTransaction() = 0;
    virtual void AlignTransaction() = 0;
    virtual bool EnableFIXTransaction(bool) = 0;
    virtual bool DoFIXTransaction(const char*) = 0;
    virtual void CommitFIXTransaction(DWORD) = 0;
    virtual void EnforceCommitTransaction() = 0;
    virtual void Reserved22() = 0;
    virtual int CommitTrasaction(int&, int&, DWORD&, char*, int, bool, bool) = 0;
    virtual int CommitBackLog(int) = 0;
    virtual void AbortTrasaction() = 0;
    virtual bool IsTransactionEmpty() = 0;
    virtual bool IsTransactionCommitted(int) = 0;
    virtual void AttachTransactionIO(void*) = 0;
};

// The broadcast engine.
class VELMORA_API CBCTEngineInf {
public:
    VELMORA_INTERFACE_BOILERPLATE(CBCTEngineInf);
    virtual bool PrepareBroadcast() = 0;
    virtual bool CanBroadcastMessage() = 0;
    virtual int BroadcastMsg(bool) = 0;
    virtual void AbortBroadcast() = 0;
};

// Raw access to the in-memory database; the library only stores and hands out the pointer.
class VELMORA_API CIMDBRawDataAccessorInf {
public:
    VELMORA_INTERFACE_BOILERPLATE(CIMDBRawDataAccessorInf);
    virtual void Reserved1() = 0;
    virtual void Reserved2() = 0;
    virtual void Reserved3() = 0;
    virtual void Reserved4() = 0;
    virtual void Reserved5() = 0;
    virtual void Reserved6() = 0;
    virtual void Reserved7() = 0;
    virtual void Reserved8() = 0;
    virtual void Reserved9() = 0;
    virtual void Reserved10() = 0;
    virtual void Reserved11() = 0;
    virtual bool StartQuery();
    virtual int EndQuery();
    virtual int GetTotalSegments();
    virtual CFIXMessage* GetAllAccountsOfSegment(int nSegment);
    virtual CFIXMessage* GetAllNetPositionsOfSegment(int nSegment);
    virtual CFIXMessage* GetTotalOpenOrderOfSegment(int nSegment);
    virtual CFIXMessage* GetTotalTradeDataOfSegment(int nSegment);
};

// The login module.
class VELMORA_API CLoginInitializationInf {
public:
    VELMORA_INTERFACE_BOILERPLATE(CLoginInitializationInf);
    virtual bool OnLoginInitializationRequest(const char*, Login_Types::DEF, int, bool) = 0;
    virtual bool OnLoginInitalizationRequestAdminRights(const char*) = 0;
    virtual bool OnLoginInitalizationRequestLinkAccount(const char*) = 0;
    virtual void OnLoginConfigurationReloaded() = 0;
};

// The local console. The block given to LogReport and LogReportInColor comes from
// GlobalAlloc and passes to the console, which frees it with GlobalFree once shown.
class VELMORA_API CReportConsoleInf {
public:
    VELMORA_INTERFACE_BOILERPLATE(CReportConsoleInf);
    virtual void LogReport(Report_Types::DEF nType, char* szBlock) = 0;
    // The default does nothing, and so loses the block.
    virtual void LogReportInColor(Report_Types::DEF nType, DWORD dwColour, char* szBlock);
    virtual bool LogFiltered(Report_Types::DEF nType, void* pMsg);
};

// The remote console: the console of a shell command's source, or null.
class VELMORA_API CRemoteConsoleInf {
public:
    VELMORA_INTERFACE_BOILERPLATE(CRemoteConsoleInf);
    virtual CReportConsoleInf* GetConsole(const char* szSource) = 0;
};

// The performance console.
class VELMORA_API CPerformanceConsoleInf {
public:
    VELMORA_INTERFACE_BOILERPLATE(CPerformanceConsoleInf);
    virtual void ReportPerformance(Performance_Types::DEF nType, const char* szText,
                                   int nValue) = 0;
};

// The alert system, called on the alert timer thread.
class VELMORA_API CAlertSystemInf {
public:
    VELMORA_INTERFACE_BOILERPLATE(CAlertSystemInf);
    virtual void AlertMsg(int nLevel, int nEvent, const char* szSource, const char* szRef,
                          const char* szText) = 0;
};

// A trade date listener.
class VELMORA_API CTradeDateChangeListenerInf {
public:
    VELMORA_INTERFACE_BOILERPLATE(CTradeDateChangeListenerInf);
    virtual void OnTradeDateChange() = 0;
};

// A module that takes part in the life of the process. Every operation but the last has an
// empty default; those with a bool result return true.
class VELMORA_API CMaintenanceInf {
public:
    VELMORA_INTERFACE_BOILERPLATE(CMaintenanceInf);
    virtual void ShellCommand(const char* szSource, int nCommand, bool bBackground,
                              const char* szArguments);
    virtual void StopCMDRepeat(const char* szSource, int nCommand);
    virtual void UpdateConfiguration(int nKind, const char* szTail);
    virtual void NotifyConfigurationReloaded(const char* szWhat);
    virtual void PrintReloadableSettings();
    virtual void ReloadSettings();
    virtual void PrepareSystemsShutdown();
    virtual bool PrepareDailyMaintenance(const char* sz1, const char* sz2, const char* sz3);
    virtual bool DoDailyMaintenance(const char* sz1, const char* sz2, const char* sz3);
    virtual void PostDailyMaintenance(bool bSucceeded, const char* sz1, const char* sz2,
                                      const char* sz3);
    virtual void PrintRuntimeStatus(const char* szWhat);
    virtual void DumpRuntimeStates(CQuorelLog* pLog);
    virtual void DailyMaintenanceDone();
    virtual void Suspend();
    virtual void Resume();
    virtual void SuspendAndRefresh();
    virtual int GetSubscribeOrder() = 0;
};

#undef VELMORA_INTERFACE_BOILERPLATE

// ---- The log object ------------------------------------------------------------------

// A log in one of two modes, fixed at creation: a file of the log folder written directly,
// or a Peltrix log client. Text records carry time and thread; raw records don't. Logs are
// made by CVelmora::GetLogClient and ended by Close (or, for shared logs, by Shutdown).
class VELMORA_API CQuorelLog {
public:
    // Log(null, szMsg) below 450 characters, else LogLongMsg(null, szMsg).
    void Log(char* szMsg);
    // Writes one record. A null message writes nothing.
    void Log(const char* szPrefix, const char* szMsg);
    // Writes a message of any length. szMsg is changed during the call and whole again after.
    void LogLongMsg(const char* szPrefix, char* szMsg);
    // Formats into 4096 bytes (what doesn't fit is cut), then writes like Log(char*).
    void Print(const char* szFormat, ...) __attribute__((format(printf, 2, 3)));
    void FlushLog();
    // Writes the full path of the log into szBuffer. A direct log writes at most nSize bytes
    // with a terminator (MAX_PATH when nSize isn't positive); a client log's client writes
    // its path within nSize; a closed client log leaves the buffer as it is.
    void GetFullLogPath(char* szBuffer, int nSize);
    int GetLongRawMsgThreshHold();
    bool ChangeLogSession(const char* szSession);
    // Ends the profile logs, then closes and frees a log that isn't persistent.
    void Close();

protected:
    friend class CVelmora;

    CQuorelLog(const char* szAppName, const char* szLogName, bool bTextMode, bool bDirectFile,
               bool bPersistent);
    ~CQuorelLog();

    bool Open();
    bool CreateLogFile();
    void PersistenceClose();

    // Profile logs: up to two threads of this log each get a direct log of their own that
    // repeats their records, with a "Bottle Neck" line for each unit of delay before a record.
    bool AttachProfile(const char* szProfile, DWORD dwThread, int nGap);
    void DetachProfile(DWORD dwThread);
    void StartEventProfiling(int nEvent, int dwThread);
    void EndEventProfiling(int dwThread);

public:
    CPeltrix* pClient;
    HANDLE hFile;
    char szAppName[64];  // longer names are cut to 63 characters
    char szLogName[64];  // the same; the key of the log client table
    bool bDirectFile;
    bool bTextMode;
    bool bPersistent;
    DWORD dwProfileThread[2];
    CQuorelLog* pProfileLog[2];
    DWORD dwProfileLastTick[2];
    int nProfileCount;
    int nBottleNeckUnit;
};

// ---- Name locks ----------------------------------------------------------------------

#include "VelmoraNameLock.h"

// ---- The shell's command table --------------------------------------------------------

// One word of the shell. A row with a null szName ends the table.
struct ShellCommandEntry {
    const char* szName;       // the full word
    const char* szShortName;  // the short word (may be the same text)
    int nCommandID;           // the id subscribers receive
    bool bRepeatable;         // may be repeated, and is remembered as the last command
    bool bLocalOnly;          // refused from a remote source
};

// The 11 words every server answers, then the end row.
extern VELMORA_API const ShellCommandEntry _G_ShellCommands[12];

// ---- The service object --------------------------------------------------------------

// One entry of the tag table.
struct _tagTagEntry {
    int nTag;
    DWORD dwMoment;
};

// One counter of the object usage tracker.
struct _tagObjTracker {
    int nObjectID;
    char szName[64];
    bool bAllocate;
    int nCount;
};

class VELMORA_API CVelmora {
public:
    // The one instance is `velmora`, constructed when the library loads.
    CVelmora();
    ~CVelmora();
    CVelmora(const CVelmora&) = delete;
    CVelmora& operator=(const CVelmora&) = delete;

    // -- Life
    // Guards the application name machine-wide, makes sure the logger runs (unless
    // nInitOption isn't 0), opens the default log and starts the alert timer thread. False
    // when the name runs already or the default log can't be opened.
    bool Init(const char* szAppName, int nInitOption);
    // Stops the alert timer thread, closes every shared log, the logger session and the
    // monitor client, and frees the alert records. Final.
    void Shutdown();

    // -- Plugging in
    const char* GetAppName();
    CIMDBRawDataAccessorInf* GetIMDBRawDataAccessor();
    void SetIMDBRawDataAccessor(CIMDBRawDataAccessorInf* pAccessor);
    void SetReportConsole(CReportConsoleInf* pConsole);
    CReportConsoleInf* GetReportConsole();
    void EnableRemoteConsole(CRemoteConsoleInf* pConsole);
    CRemoteConsoleInf* GetRemoteConsole();
    bool IsMsgReportingEnabled();

    // -- Reports: always to the default log; to the console when the level, the running
    // shell command and its grep text let them through.
    void LogReport(Report_Types::DEF nType, const char* szText);
    void LogReportInColor(Report_Types::DEF nType, DWORD dwColour, const char* szText);
    void LogFortmatedReport(Report_Types::DEF nType, const char* szFormat, ...)
        __attribute__((format(printf, 3, 4)));
    void LogFortmatedReportInColor(Report_Types::DEF nType, DWORD dwColour,
                                   const char* szFormat, ...)
        __attribute__((format(printf, 4, 5)));
    // Passes a block from GlobalAlloc to the console; the caller gives it up in every case.
    void LogRawMsgReport(Report_Types::DEF nType, char* szBlock);
    bool IsRawMsgFiltered(Report_Types::DEF nType, void* pMsg);
    // Values above 22 are stored as 22.
    void SetReportLevel(int nLevel);
    // The new level, or -1 (during a shell command, or when it would be negative).
    int AdjustReportLevel(int nChange);
    void EnableMsgReporting(bool bEnable);
    void ToEnableLoggerSysTime();

    // -- Shell output (type 6): to the source's remote console, the log and, at a report
    // level of 6 or more, the local console. Never held back by a grep or a shell thread.
    void FSLogReport(const char* szSource, bool bLogOnly, const char* szText);
    void FSLogReportInColor(const char* szSource, DWORD dwColour, const char* szText);
    void FSLogFortmatedReport(const char* szSource, bool bLogOnly, const char* szFormat, ...)
        __attribute__((format(printf, 4, 5)));
    void FSLogFortmatedReportInColor(const char* szSource, DWORD dwColour,
                                     const char* szFormat, ...)
        __attribute__((format(printf, 4, 5)));

    // -- Exception reports: to the monitor, the log and the console.
    void ReportException(const char* szPlace, const char* szText);
    void ReportException(const char* szPlace, int nLine, const char* szText);

    // -- Engines: each forwarder passes the call to the plugged-in engine, or gives a fixed
    // answer without one.
    void EnableTransaction(CFTSInf* pEngine);
    void EnableMsgBroadcast(CBCTEngineInf* pEngine);
    bool IsTransactionEnabled();
    bool BeginTrasaction(void* pContext);
    void EnableDomainTurbo(const char* szDomain, bool bEnable);
    void AssignTransactionDomain(const char* szDomain, const char* szSuper, int nKind);
    void AssignSuperDomain();
    void FlushTransaction(bool bForce);
    void RunFiber(int nFiber);
    DWORD DefineTransaction(DWORD dwTransaction, const char* szName);
    DWORD GetTotalTransactions();
    int GetTransactionID();
    bool CheckDBWatermark(double dWatermark);
    bool IsDBEngineUnderStress();
    void SetBarrierTransaction(int nTransaction);
    void SetBarrierHint(int nHint);
    int GetBarrierTransaction();
    void AlignTransaction();
    bool EnableFIXTransaction(bool bEnable);
    bool DoFIXTransaction(const char* szMessage);
    void CommitFIXTransaction(DWORD dwTransaction);
    void EnforceCommitTransaction();
    int CommitTrasaction(int& n1, int& n2, DWORD& dw3, char* szBuffer, int nSize, bool b1, bool b2);
    int CommitBackLog(int nBackLog);
    void AbortTrasaction();
    bool IsTransactionEmpty();
    bool IsTransactionCommitted(int nTransaction);
    void AttachTransactionIO(void* pIO);
    bool IsMsgBroadcastEnabled();
    bool PrepareBroadcast();
    bool CanBroadcastMessage();
    int BroadcastMsg(bool bUrgent);
    void AbortBroadcast();

    // -- Login: forwarded to the login module, with its failures reported.
    void SetLoginInitializationInf(CLoginInitializationInf* pLogin);
    bool OnLoginInitializationRequest(const char* szUser, Login_Types::DEF nType, int nSession,
                                      bool bAdmin);
    bool OnLoginInitalizationRequestAdminRights(const char* szUser);
    bool OnLoginInitalizationRequestLinkAccount(const char* szUser);

    // -- Trade date: listeners hear of a new _G_SessionID first, the logger last.
    bool RegisterDateChangeListener(CTradeDateChangeListenerInf* pListener);
    void NotifyTradeDateChange();

    // -- Object usage: one counter per kind and direction.
    void AllocateObject(const char* szName, int nObjectID);
    void ReleaseObject(const char* szName, int nObjectID);

    // -- Tagging: microseconds from a tag's opening to later points, in the default log.
    void EnableTaggingSystems(int nEntries);
    bool IsTaggingSystemEnabled();
    int BeginTagging(const char* szUnused);
    DWORD GetTaggingMoment(int nTag);
    bool TaggingEvent(int nTag, const char* szText, bool bFinish);

    // -- Performance
    void ReportPerformance(Performance_Types::DEF nType, const char* szClient, int nMS);
    void SetPerformanceConsole(CPerformanceConsoleInf* pConsole);
    void EnableReportPerformance(bool bEnable);
    bool IsReportPerformanceEnabled();
    // The thread's id when its profile log was attached to the default log, else -1.
    int ProfilePerformance(const char* szProfile, DWORD dwThread);
    void StopProfiling(int dwThread);
    void StartEventProfiling(int nEvent, int dwThread);
    void EndEventProfiling(int dwThread);

    // The engine's description of the current transaction, written at szBuffer; without an
    // engine 0xFFFFFFFF and nothing written.
    DWORD GetTransactionDescr(char* szBuffer);
    virtual bool GetTransactionDomain(char* szDomain, int nDomainSize, char* szSuper,
                                      int nSuperSize, int& nKind);

    // -- Logs
    // A shared log of that name (found with ASCII case folded, else made in the highest free
    // of 36 slots) or, with bPersistent false, a private one; null on a full table or a
    // failed open. Every call with bTextMode true writes the "START" banner into the log.
    CQuorelLog* GetLogClient(const char* szLogName, bool bTextMode, bool bDirectFile,
                             bool bPersistent);

    // -- Shell
    // Runs what an operator typed: szSource null for the local console, else the remote
    // source's text; the command word; the argument text or null.
    void ShellCommand(const char* szSource, const char* szCommand, const char* szArguments);
    // Asks every subscriber for its status; "INI" keeps formatted reports off the console.
    void PrintRuntimeStatus(const char* szWhat);
    // 0 for "repeat", the command id of a word of the table (full or short, ASCII case
    // folded), -1 for anything else.
    int GetShellCommand(const char* szCommand);
    // Takes the first option ("-name value", "-name=value", "-name \"quoted value\"") of
    // szText: its name into szOption, its value into szValue, and returns where the next
    // call goes on, or null. A buffer is written only as the option grammar says; otherwise
    // it keeps what it held. The buffers must hold the longest name or value of the text.
    const char* GetCMDOption(const char* szText, char* szOption, char* szValue);
    // The same with the sizes of the two buffers: a longer name or value is cut to fit,
    // with its terminator.
    const char* GetCMDOption(const char* szText, char* szOption, size_t nOptionSize,
                             char* szValue, size_t nValueSize);

    // -- Maintenance: the subscribers, smallest GetSubscribeOrder first
    void SubscribeMaitenance(CMaintenanceInf* pSubscriber);
    void UnsubscribeMaitenance(CMaintenanceInf* pSubscriber);
    bool PrepareDailyMaintenance(const char* sz1, const char* sz2, const char* sz3);
    bool DoDailyMaintenance(const char* sz1, const char* sz2, const char* sz3);
    void PostDailyMaintenance(bool bSucceeded, const char* sz1, const char* sz2,
                              const char* sz3);
    void NotifyDailyMaintenanceDone();
    void DumpRuntimeStates(CQuorelLog* pLog);
    void NotifyConfigurationReloaded(const char* szWhat);
    void Suspend();
    void Resume();
    void SuspendAndRefresh();
    bool IsServerUnderSuspension();
    // Stops the repeating shell commands, then tells the subscribers.
    void PrepareSystemsShutdown();

    // -- Alerts: reported at once, delivered by the alert timer thread with repeat
    // suppression and running totals.
    void AlertMsg(int nLevel, int nEvent, const char* szSource, const char* szRef,
                  const char* szDescription);
    void AlertMsg(const char* szText, const char* szFrom);
    void SetAlertSystem(CAlertSystemInf* pAlertSystem);

    // -- Monitor
    void EnableStatusMonitor();
    bool ConnectMonitor(bool bStart, const char* szStart);
    void DisconnectMonitor(bool bUnused);

protected:
    CQuorelLog* GetDefaultLog();
    // The alert timer thread: flushes pending alerts once a second until hStopEvent is set.
    static unsigned AlertTimerFunction(void* pParam);
    // Delivers the alerts that are due; only the alert timer thread calls it.
    void FlushAlerts();
    // A new copy of the usage record after pLast (the first for null), or null at the end.
    _tagObjTracker* GetNextObjectUsages(_tagObjTracker* pLast);

    // The "config" command: finds the option word and hands the tail on.
    void UpdateConfigure(const char* szArguments);
    // The library's own share of a reload: "REPORT_LEVEL" and "LOG_LEVEL".
    void UpdateConfiguration(int nKind, const char* szTail);
    // Starts or stops the repeat of a command (the word "repeat", or a " repeat" tail).
    void RepeatShellCommand(const char* szSource, const char* szOptions);
    // The thread of one repeat.
    static DWORD RepeatFSCMDFunction(void* pRecord);

public:
    CHarvell* pMonitor;
    CQuorelLog* pLogClients[36];
    CMaintenanceInf* pSubscribers[64];
    char szAppName[128];
    int nSubscribers;
    int nLastCommand;
    char szLastArguments[512];
    char szLastSource[128];
    std::map<std::string, HANDLE> mapCommandRepeats;
    bool bMsgReporting;
    bool bSuspended;
    HANDLE hInstanceMutex;
    CFTSInf* pFTSEngine;
    CBCTEngineInf* pBCTEngine;
    CIMDBRawDataAccessorInf* pIMDBRawDataAccessor;
    CReportConsoleInf* pReportConsole;
    CRemoteConsoleInf* pRemoteConsole;
    CServiceControl* pServiceControl;
    std::map<std::string, AlertRecord*> mapSystemAlerts;
    std::map<std::string, AlertRecord*> mapMonitorAlerts;
    CRITICAL_SECTION csAlerts;
    bool bAlertsPending;
    HANDLE hStopEvent;
    int nAlertRepeatMS;
    bool bInShellCommand;
    int nReportLevel;
    int nTagCounter;
    CPerformanceConsoleInf* pPerformanceConsole;
    bool bReportPerformance;
    _tagTagEntry* pTagTable;
    int nTagTableSize;
    CAlertSystemInf* pAlertSystem;
    CTradeDateChangeListenerInf* pDateListeners[256];
    int nDateListeners;
    char szGrepText[256];
    char szGrepPending[256];
    DWORD dwShellThreadId;
    char szStatusFile[260];
    bool bRuntimeStatusToIni;
    std::map<std::string, _tagObjTracker*> mapObjectUsages;
    CRITICAL_SECTION csObjectUsages;
    CRITICAL_SECTION csLogClients;
};

// ---- Free functions ------------------------------------------------------------------

// Formats into szBuffer with the bound nSize, always terminated; the formatter's count, or
// -1 for a size of 0 or a failure.
VELMORA_API int _G_SafePrintf(char* szBuffer, size_t nSize, const char* szFormat, ...)
    __attribute__((format(printf, 3, 4)));

namespace QUOREL_ALERT_SYSTEM {
// The text of an event code; "Unknown" for a number outside the catalogue. Never null.
VELMORA_API const char* GetAlertEventDescription(ALERT_EVENT nEvent);
}

// ---- Exported variables --------------------------------------------------------------

extern VELMORA_API CVelmora velmora;
extern VELMORA_API int debugLevel;
extern VELMORA_API CQuorelLog* globalDefaultLog;
extern VELMORA_API bool _G_TraceAll;
extern VELMORA_API char _G_LogFileFolder[1024];
extern VELMORA_API char _G_SessionID[64];
extern VELMORA_API CDirectoryServiceInf* _G_Directory;
extern VELMORA_API CNameLock* _G_pNameLock;
extern VELMORA_API CLoginInitializationInf* _G_pLoginInitialization;
extern VELMORA_API int _G_nGapMS;
extern VELMORA_API bool _G_ISPrimary;
extern VELMORA_API bool _G_bPureAsychTradingBC;
extern VELMORA_API bool _G_bDirectDBUpdateForPositions;
extern VELMORA_API bool _G_bAlgoMode;
extern VELMORA_API bool _G_underMaintenance;
extern VELMORA_API bool _G_bSuspendOnThreadPoolShort;
extern VELMORA_API bool _G_bProgressiveLoginEnabled;
extern VELMORA_API CQuorelQueue* _GLOBAL_TradingQueue;
