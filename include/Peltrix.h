// Peltrix: the log client, the monitor client and the clocks that Velmora stands on.
//
// CPeltrix hands records to the log transport. The transport is behind the class: this
// version writes from one background thread of the process through a bounded queue, so
// that a caller never waits for the disk (only for room in a full queue: nothing handed in
// is dropped while the process runs).
//
// Where the files go: the folder named by the environment variable PELTRIX_LOG_FOLDER if it
// is set and not empty, else "<executable folder>/log/". A client of application A and log L
// writes "A_L.log" there; after a session change to S (see CPeltrix::Log), "A_L_S.log"; after
// UpdateLoggerSessionDate, "A_L_YYYYMMDD.log" (the session text wins over the date).
#pragma once

#include "VelmoraPlatform.h"

#define PELTRIX_API __attribute__((visibility("default")))

// The record that orders a log client to change its session: this marker, then the session.
#define PELTRIX_SESSION_MARKER "$$$$*****@@@@@@"

class PELTRIX_API CPeltrix {
public:
    // bTextMode: records carry time and thread. The two numbers are tuning hints of the
    // transport (queue depth and record size class); this version accepts any values.
    CPeltrix(bool bTextMode, long nQueueHint, long nRecordHint);
    ~CPeltrix();
    CPeltrix(const CPeltrix&) = delete;
    CPeltrix& operator=(const CPeltrix&) = delete;

    // Opens the log of szAppName/szLogName; non-zero when the client can take records.
    int Open(const char* szAppName, const char* szLogName);

    // Takes one record. In text mode: "HH:MM:SS[mmm];prefix;thread;msg;\r\n" with the time
    // of the call (without a prefix: "HH:MM:SS[mmm];thread;msg;\r\n"). In raw mode:
    // "prefix;msg\r\n", or the bytes of msg alone without a prefix. Both strings are copied
    // before the call returns; a null prefix is allowed, a null message is dropped.
    // A record with a null prefix whose message starts with PELTRIX_SESSION_MARKER is not
    // written: it switches the client to the file of the session that follows the marker.
    void Log(const char* szPrefix, const char* szMsg);
    // A message of any length, written as one record.
    void LogLongMsg(const char* szPrefix, char* szMsg);
    // Returns when every record handed in before the call is in the file.
    void FlushLog();
    // The full path of the file that records handed in from now on go to (a session or
    // date switch counts as soon as it is handed in), cut to fit nSize with a terminator.
    void GetFullLogPath(char* szBuffer, int nSize);
    // Writes what is pending and closes the file; later records are dropped.
    void Close();

private:
    struct Impl;
    Impl* m_pImpl;
};

// The monitor client. This version keeps its monitor in a file: every alert handed to
// AlertMsg becomes one line "HH:MM:SS[mmm];text\r\n" of "<log folder>/A_monitor.log" for
// application A, or of the file that szStart names when it is not null or empty.
class PELTRIX_API CHarvell {
public:
    CHarvell(const char* szAppName, int nKind, int nFlags, const char* szOptions);
    ~CHarvell();
    CHarvell(const CHarvell&) = delete;
    CHarvell& operator=(const CHarvell&) = delete;

    // Connects to the monitor. bStart false defers the connection to the first alert.
    // Non-zero on success; 0 when the monitor can't be reached (its file can't be opened).
    int Start(bool bStart, const char* szStart, int nTimeout, const char* szOptions,
              int nPort1, int nPort2);
    // Ends the connection; alerts after it are dropped.
    void Stop(int nMode);
    // Hands one alert text to the monitor.
    void AlertMsg(const char* szText);
    // The time-out the last Start was given (0 before any), for a watcher of the connection.
    int GetStartTimeout();

private:
    struct Impl;
    Impl* m_pImpl;
};

// Local time with milliseconds. The second argument is reserved (pass 0).
PELTRIX_API void GetPeltrixLocalTime(SYSTEMTIME* pTime, int nReserved);
// Running counts of a monotonic clock, in milliseconds and microseconds; both wrap at 2^32
// so that differences taken in unsigned 32-bit arithmetic are right.
PELTRIX_API DWORD GetTickInMilliSeconds();
PELTRIX_API DWORD GetTickInMicroSeconds();

// Opens and closes the process's session with the logger. Log clients work without a
// session too; CloseLoggerSession writes out what every open client has pending.
PELTRIX_API void StartLoggerSession();
PELTRIX_API void CloseLoggerSession();
// Switches the clients' time stamps to the system timer; 0 on success.
PELTRIX_API int EnableLoggerSysTime();
// Gives the logger of this process its session date: clients switch to the files of that
// date. A day that isn't a calendar date (0, 0, 0 for instance) leaves the files as they are.
PELTRIX_API void UpdateLoggerSessionDate(int nYear, int nMonth, int nDay);
