// The table of shared logs, and the one door through which logs come into being.
//
// A persistent log lives in one of 36 slots under its name and is shared by everyone who
// asks for that name; a private log belongs to its caller alone and is never in the table.
#include "include/Velmora.h"

#include <cstdio>
#include <new>

namespace {

constexpr int kSlots = int(sizeof(CVelmora::pLogClients) / sizeof(CVelmora::pLogClients[0]));
static_assert(kSlots == 36);

// A log keeps at most this many characters of its name.
constexpr size_t kNameLength = sizeof(CQuorelLog::szLogName) - 1;

// The opening banner, written under the prefix "START" on every call that asks for text
// mode: day of the month, hour, minute, second, then 78 stars.
constexpr char kStartBanner[] =
    "--%02d--  %02d:%02d:%02d "
    "******************************************************************************"
    "\r\n";
static_assert(sizeof(kStartBanner) == 25 + 78 + 2 + 1, "78 stars");

// ASCII letters only: the comparison of names must not depend on a locale.
char FoldAscii(char c) { return (c >= 'A' && c <= 'Z') ? char(c - 'A' + 'a') : c; }

// Whether the name of a log in the table is szName, with ASCII letters folded. A log holds
// only the first 63 characters of the name it was made with, and a longer name is compared
// as the log would hold it, so that it finds its log again.
bool IsLogNamed(const CQuorelLog* pLog, const char* szName) {
    const char* szHeld = pLog->szLogName;
    for (size_t i = 0; i < kNameLength; ++i) {
        char a = FoldAscii(szHeld[i]);
        char b = FoldAscii(szName[i]);
        if (a != b) return false;
        if (a == '\0') return true;
    }
    return true;
}

}  // namespace

CQuorelLog* CVelmora::GetLogClient(const char* szLogName, bool bTextMode, bool bDirectFile,
                                   bool bPersistent) {
    if (szLogName == nullptr) szLogName = "";
    CQuorelLog* pResult = nullptr;
    {
        // The walk, the construction (which rebuilds _G_LogFileFolder) and Open are done
        // under the lock; the banner is not.
        CSmartLock lock(&csLogClients);
        int nFree = -1;
        bool bSearchDone = false;
        if (bPersistent) {
            // The highest free slot is noted, so the table fills from slot 35 downward.
            for (int i = 0; i < kSlots; ++i) {
                if (pLogClients[i] == nullptr) {
                    nFree = i;
                } else if (IsLogNamed(pLogClients[i], szLogName)) {
                    pResult = pLogClients[i];
                    bSearchDone = true;
                    break;
                }
            }
            // A full table: no log for a new name.
            if (!bSearchDone && nFree < 0) bSearchDone = true;
        }
        if (!bSearchDone) {
            CQuorelLog* pLog = new (std::nothrow)
                CQuorelLog(szAppName, szLogName, bTextMode, bDirectFile, bPersistent);
            if (pLog != nullptr) {
                if (pLog->Open()) {
                    pResult = pLog;
                    if (bPersistent) pLogClients[nFree] = pLog;
                } else {
                    // Nothing was opened: the object is simply freed and the slot stays
                    // free for the next try.
                    delete pLog;
                }
            }
        }
    }

    // Every call that asks for text mode marks its start in the log, also when the log
    // already existed, whatever mode that log was made with.
    if (pResult != nullptr && bTextMode) {
        SYSTEMTIME st;
        GetPeltrixLocalTime(&st, 0);
        char szBanner[sizeof(kStartBanner) + 16];
        snprintf(szBanner, sizeof(szBanner), kStartBanner, int(st.wDay), int(st.wHour),
                 int(st.wMinute), int(st.wSecond));
        pResult->Log("START", szBanner);
    }
    return pResult;
}

CQuorelLog* CVelmora::GetDefaultLog() { return GetLogClient("default", true, false, true); }
