// The log object: a file of the log folder written directly, or a Peltrix log client, with
// text records (time and thread) or raw records.
//
// Log is on the path of nearly every operation of the library: it takes no lock, allocates
// nothing and keeps all its buffers on the stack. A direct record is one WriteFile.
#include "include/Velmora.h"
#include "core/RelaxedAccess.h"
#include "logging/ProfileLogs.h"

#include <cstdio>
#include <cstring>
#include <new>

namespace {

// Room for a name: 63 characters and the terminator.
constexpr size_t kNameSize = sizeof(CQuorelLog::szAppName);
static_assert(sizeof(CQuorelLog::szAppName) == sizeof(CQuorelLog::szLogName));

// A formatted direct record is built in this many bytes, the last one always 0: at most
// 1023 bytes go out, and what doesn't fit is cut off, its closing ";\r\n" with it.
constexpr size_t kRecordSize = 1024;

// Log(char*) and Print send a text of this length or more through LogLongMsg.
constexpr size_t kLongMsgLimit = 450;

// LogLongMsg cuts a direct message into pieces of this length less the prefix's length.
constexpr long long kPieceLength = 462;

// In log-client mode a message with a prefix is cut to this many characters.
constexpr size_t kClientCut = 512;

// The text of Print is formatted into this many bytes.
constexpr size_t kPrintSize = 4096;

// The session change record: the marker and the session text, in this many bytes.
constexpr size_t kSessionSize = 256;
constexpr char kSessionFormat[] = "$$$$*****@@@@@@%s";

// How long ChangeLogSession lets the client settle after the flush, in milliseconds.
constexpr DWORD kSessionWaitMS = 250;

// The arguments of every log client: text mode, then the two tuning values of the client.
constexpr long kClientQueueHint = 384;
constexpr long kClientRecordHint = 64;

// The closing banner of a text log, written under the prefix "SHUTDOWN": day of the month,
// hour, minute, second, then 89 plus signs.
constexpr char kShutdownBanner[] =
    "--%02d--  %02d:%02d:%02d "
    "+++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++++"
    "\r\n";
static_assert(sizeof(kShutdownBanner) == 25 + 89 + 2 + 1, "89 plus signs");

// Copies a name into a field of the log, cut to what the field holds. A null name is empty.
void CopyName(char* szField, const char* szName) {
    if (szName == nullptr) szName = "";
    size_t nLength = strnlen(szName, kNameSize - 1);
    memcpy(szField, szName, nLength);
    szField[nLength] = '\0';
}

// Appends szText to the text in szBuffer (nSize bytes in all), cut to what fits, with a
// terminator. The result is false if anything had to be cut.
bool AppendCut(char* szBuffer, size_t nSize, const char* szText) {
    size_t nUsed = strnlen(szBuffer, nSize - 1);
    size_t nText = strlen(szText);
    size_t nRoom = nSize - 1 - nUsed;
    size_t nCopy = nText < nRoom ? nText : nRoom;
    memcpy(szBuffer + nUsed, szText, nCopy);
    szBuffer[nUsed + nCopy] = '\0';
    return nCopy == nText;
}

// Formats the path of a direct log file into szBuffer: the log folder, then
// "<application>_<log>.log". The result is the length of the whole path, also where the
// buffer had to cut it. The folder is read as a snapshot: a log constructed on another
// thread may be rewriting it.
int FormatLogPath(char* szBuffer, size_t nSize, const char* szAppName, const char* szLogName) {
    char szFolder[sizeof(_G_LogFileFolder)];
    velmora_core::RelaxedLoadText(_G_LogFileFolder, szFolder, sizeof(szFolder));
    return snprintf(szBuffer, nSize, "%s%s_%s.log", szFolder, szAppName, szLogName);
}

}  // namespace

// A closed log. The construction also rebuilds the process's log folder from nothing,
// which is why CVelmora constructs its log clients under its log client lock.
CQuorelLog::CQuorelLog(const char* szApp, const char* szLog, bool bText, bool bDirect,
                       bool bPersist)
    : pClient(nullptr),
      hFile(INVALID_HANDLE_VALUE),
      bDirectFile(bDirect),
      bTextMode(bText),
      bPersistent(bPersist),
      dwProfileThread{0, 0},
      pProfileLog{nullptr, nullptr},
      dwProfileLastTick{0, 0},
      nProfileCount(0),
      nBottleNeckUnit(0) {
    // Names longer than their fields are cut: nothing is written past a field.
    CopyName(szAppName, szApp);
    CopyName(szLogName, szLog);

    // The base folder: the setting "LOCAL_LOGS_FOLDER", kept as it is when it is absent.
    char szValue[1024] = "";
    if (_G_Directory != nullptr) {
        _G_Directory->GetStringSetting(1, "LOCAL_LOGS_FOLDER", szValue, int(sizeof(szValue)));
        szValue[sizeof(szValue) - 1] = '\0';
    }

    // The folder is built here and copied whole into _G_LogFileFolder. A folder too long
    // for 1024 bytes is cut with a terminator; such a folder can't hold a log path of
    // MAX_PATH characters, so CreateLogFile refuses it rather than open a wrong file.
    char szFolder[sizeof(_G_LogFileFolder)] = "";
    if (szValue[0] == '\0') {
        // No setting: "log/" in the folder of the executable. The path of an executable
        // has no extension to cut on this platform; it always holds a '/' since it is
        // absolute. Without one, the first two characters stand for the root of the path,
        // as a drive would, and the folder is "log/" below them.
        char szExe[MAX_PATH] = "";
        GetModuleFileNameA(nullptr, szExe, MAX_PATH);
        szExe[MAX_PATH - 1] = '\0';
        char* pSlash = strrchr(szExe, '/');
        if (pSlash != nullptr) {
            pSlash[1] = '\0';
            AppendCut(szFolder, sizeof(szFolder), szExe);
            AppendCut(szFolder, sizeof(szFolder), "log/");
        } else {
            szExe[strnlen(szExe, 2)] = '\0';
            AppendCut(szFolder, sizeof(szFolder), szExe);
            AppendCut(szFolder, sizeof(szFolder), "/log/");
        }
    } else {
        // With or without a closing '/', the setting gives the same folder.
        AppendCut(szFolder, sizeof(szFolder), szValue);
        AppendCut(szFolder, sizeof(szFolder),
                  szValue[strlen(szValue) - 1] == '/' ? "log/" : "/log/");
    }

    // The level "<prefix>.<suffix>/" of the directory service. A name that the service
    // doesn't give counts as empty.
    if (_G_Directory != nullptr) {
        const char* szPrefix = _G_Directory->GetLogFolderPrefix();
        const char* szSuffix = _G_Directory->GetLogFolderSuffix();
        AppendCut(szFolder, sizeof(szFolder), szPrefix != nullptr ? szPrefix : "");
        AppendCut(szFolder, sizeof(szFolder), ".");
        AppendCut(szFolder, sizeof(szFolder), szSuffix != nullptr ? szSuffix : "");
        AppendCut(szFolder, sizeof(szFolder), "/");
    }
    // Profile logs are constructed without the log client lock, so two constructions may
    // meet here: the folder is stored with relaxed byte stores, and the directory made is
    // this construction's own folder.
    velmora_core::RelaxedStoreText(_G_LogFileFolder, sizeof(_G_LogFileFolder), szFolder);

    // One level only, whatever the result: the folder "log/" has to exist already for the
    // level of the directory service to be made. If the folder can't be made, the file
    // doesn't open.
    CreateDirectoryA(szFolder, nullptr);

    nBottleNeckUnit = 25;
}

// Does nothing: a log is ended by Close, or by PersistenceClose before it is freed.
CQuorelLog::~CQuorelLog() {}

bool CQuorelLog::Open() {
    if (bDirectFile) return CreateLogFile();
    pClient = new (std::nothrow) CPeltrix(bTextMode, kClientQueueHint, kClientRecordHint);
    if (pClient != nullptr && pClient->Open(szAppName, szLogName) == 0) {
        delete pClient;
        pClient = nullptr;
    }
    return pClient != nullptr;
}

// Opens "<folder><application>_<log>.log" for writing, shared with other openers, created
// if absent, and writes behind its content. A path that doesn't fit MAX_PATH characters
// isn't opened in a cut form: the log stays closed.
bool CQuorelLog::CreateLogFile() {
    if (bDirectFile && hFile == INVALID_HANDLE_VALUE) {
        char szPath[MAX_PATH];
        int nLength = FormatLogPath(szPath, sizeof(szPath), szAppName, szLogName);
        if (nLength > 0 && size_t(nLength) < sizeof(szPath)) {
            hFile = CreateFileA(szPath, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
            if (hFile != INVALID_HANDLE_VALUE) {
                // The write position goes to the end once; the file isn't opened for
                // appending.
                DWORD dwHigh = 0;
                DWORD dwLow = GetFileSize(hFile, &dwHigh);
                LONG lHigh = LONG(dwHigh);
                SetFilePointer(hFile, LONG(dwLow), &lHigh, FILE_BEGIN);
            }
        }
    }
    return hFile != INVALID_HANDLE_VALUE;
}

void CQuorelLog::Log(char* szMsg) {
    if (szMsg == nullptr) return;
    if (strnlen(szMsg, kLongMsgLimit) < kLongMsgLimit)
        Log(nullptr, szMsg);
    else
        LogLongMsg(nullptr, szMsg);
}

void CQuorelLog::Log(const char* szPrefix, const char* szMsg) {
    if (szMsg == nullptr) return;

    if (pClient != nullptr) {
        // A message with a prefix reaches the client with at most 512 characters; one of
        // exactly 512, or one without a prefix, goes as it is.
        char szCut[kClientCut + 1];
        if (szPrefix != nullptr && strnlen(szMsg, kClientCut + 1) > kClientCut) {
            memcpy(szCut, szMsg, kClientCut);
            szCut[kClientCut] = '\0';
            szMsg = szCut;
        }
        if (velmora_core::RelaxedLoad(nProfileCount) != 0)
            velmora_logging::ProfileStep(this, szPrefix, szMsg);
        pClient->Log(szPrefix, szMsg);
        return;
    }

    if (hFile == INVALID_HANDLE_VALUE) return;
    DWORD dwThread = GetCurrentThreadId();
    if (velmora_core::RelaxedLoad(nProfileCount) != 0)
        velmora_logging::ProfileStep(this, szPrefix, szMsg);

    char szRecord[kRecordSize];
    const char* szText = szRecord;
    if (bTextMode) {
        SYSTEMTIME st;
        GetPeltrixLocalTime(&st, 0);
        if (szPrefix != nullptr)
            snprintf(szRecord, sizeof(szRecord), "%02d:%02d:%02d[%03d];%s;%d;%s;\r\n",
                     int(st.wHour), int(st.wMinute), int(st.wSecond), int(st.wMilliseconds),
                     szPrefix, int(dwThread), szMsg);
        else
            snprintf(szRecord, sizeof(szRecord), "%02d:%02d:%02d[%03d];%d;%s;\r\n",
                     int(st.wHour), int(st.wMinute), int(st.wSecond), int(st.wMilliseconds),
                     int(dwThread), szMsg);
        szRecord[sizeof(szRecord) - 1] = '\0';
    } else if (szPrefix != nullptr) {
        snprintf(szRecord, sizeof(szRecord), "%s;%s\r\n", szPrefix, szMsg);
        szRecord[sizeof(szRecord) - 1] = '\0';
    } else {
        // A raw record without a prefix is the caller's bytes, framing and all, of any
        // length.
        szText = szMsg;
    }
    DWORD dwWritten = 0;
    WriteFile(hFile, szText, DWORD(strlen(szText)), &dwWritten, nullptr);
}

// Cuts a long direct message into pieces, each a record of its own. The pieces are ended
// in the caller's buffer in turn, and the buffer is whole again when this returns.
void CQuorelLog::LogLongMsg(const char* szPrefix, char* szMsg) {
    if (szMsg == nullptr) return;
    if (pClient != nullptr) {
        pClient->LogLongMsg(szPrefix, szMsg);
        return;
    }
    if (hFile == INVALID_HANDLE_VALUE) return;
    if (!bTextMode && szPrefix == nullptr) {
        // The caller frames a raw message without a prefix: it is never split.
        Log(nullptr, szMsg);
        return;
    }

    long long nPiece = kPieceLength - (szPrefix != nullptr ? (long long)strlen(szPrefix) : 0);
    long long nLength = (long long)strlen(szMsg);
    long long nWhole = nPiece > 0 ? nLength / nPiece : 0;
    if (nWhole == 0) {
        Log(szPrefix, szMsg);
        return;
    }
    for (long long i = 0; i < nWhole; ++i) {
        char* pPiece = szMsg + i * nPiece;
        char cSaved = pPiece[nPiece];
        pPiece[nPiece] = '\0';
        Log(szPrefix, pPiece);
        pPiece[nPiece] = cSaved;
    }
    if (nWhole * nPiece < nLength) Log(szPrefix, szMsg + nWhole * nPiece);
}

void CQuorelLog::Print(const char* szFormat, ...) {
    if (szFormat == nullptr) return;
    char szText[kPrintSize];
    va_list args;
    va_start(args, szFormat);
    int nLength = vsnprintf(szText, sizeof(szText), szFormat, args);
    va_end(args);
    // A format that can't be formatted gives no record.
    if (nLength < 0) return;
    szText[sizeof(szText) - 1] = '\0';
    Log(szText);
}

void CQuorelLog::FlushLog() {
    if (pClient != nullptr) pClient->FlushLog();
}

// In direct-file mode the path is formatted here, whether the file is open or not. At most
// nSize bytes are written; a size of 0 or less stands for a buffer of MAX_PATH, which holds
// the path of every log that can open. In log-client mode the client writes its path, and
// a closed client log leaves the buffer as it is.
void CQuorelLog::GetFullLogPath(char* szBuffer, int nSize) {
    if (szBuffer == nullptr) return;
    if (bDirectFile) {
        size_t nBound = nSize > 0 ? size_t(nSize) : size_t(MAX_PATH);
        FormatLogPath(szBuffer, nBound, szAppName, szLogName);
    } else if (pClient != nullptr) {
        pClient->GetFullLogPath(szBuffer, nSize);
    }
}

int CQuorelLog::GetLongRawMsgThreshHold() { return pClient != nullptr ? 738 : 482; }

// Orders the log client to go on in the files of a new session. The records taken so far
// are pushed out first and the client is given time to settle, so the marker follows
// them. A direct log, and a client log that is closed, has no session to change.
bool CQuorelLog::ChangeLogSession(const char* szSession) {
    if (pClient == nullptr) return false;
    pClient->FlushLog();
    Sleep(kSessionWaitMS);
    // A session text too long for the record is cut, so the marker always fits.
    char szMarker[kSessionSize];
    snprintf(szMarker, sizeof(szMarker), kSessionFormat, szSession != nullptr ? szSession : "");
    szMarker[sizeof(szMarker) - 1] = '\0';
    Log(szMarker);
    return true;
}

void CQuorelLog::PersistenceClose() {
    // Profile logs still attached end with their carrier, as DetachProfile ends them: each
    // gets its closing banner, its file is closed and the object freed. This is how the
    // default log's profiles end at Shutdown. They end before the carrier's own banner,
    // which so stays out of them. A thread in both slots is detached from slot 0 first.
    for (int i = 0; i < 2; ++i)
        if (dwProfileThread[i] != 0) DetachProfile(dwProfileThread[i]);

    if (bTextMode) {
        SYSTEMTIME st;
        GetPeltrixLocalTime(&st, 0);
        char szBanner[sizeof(kShutdownBanner) + 16];
        snprintf(szBanner, sizeof(szBanner), kShutdownBanner, int(st.wDay), int(st.wHour),
                 int(st.wMinute), int(st.wSecond));
        Log("SHUTDOWN", szBanner);
    }
    if (hFile != INVALID_HANDLE_VALUE) {
        CloseHandle(hFile);
        hFile = INVALID_HANDLE_VALUE;
        return;
    }
    if (pClient != nullptr) {
        pClient->Close();
        delete pClient;
        pClient = nullptr;
    }
}

// A persistent log is shared through the log client table: its users can only end its
// profile logs, and Shutdown closes it. Any other log is closed and freed here, and the
// caller's pointer is dead afterwards.
void CQuorelLog::Close() {
    nProfileCount = 0;
    for (int i = 0; i < 2; ++i) {
        if (dwProfileThread[i] != 0) {
            if (pProfileLog[i] != nullptr) pProfileLog[i]->Close();
            pProfileLog[i] = nullptr;
            dwProfileThread[i] = 0;
        }
    }
    if (bPersistent) return;
    PersistenceClose();
    delete this;
}
