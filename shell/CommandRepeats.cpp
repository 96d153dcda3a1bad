// Repeating shell commands: each repeat runs on a thread of its own, delivers its command
// again after every interval, and ends when its stop event is set.
#include "core/AsciiText.h"
#include "core/RelaxedAccess.h"
#include "maintenance/SubscriberWalk.h"
#include "shell/CommandTable.h"
#include "shell/ShellState.h"

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

using namespace velmora_core;

// One running repeat, owned by its thread from the moment the thread starts.
struct CommandRepeatRecord {
    char szSource[128];
    int nCommandID;
    char szArguments[512];
    int nInterval;
    bool bBackground;
    HANDLE hRepeatEvent;
};

namespace {

const char kLocalSource[] = "localhost";
constexpr size_t kOptionRoom = 256;

CRITICAL_SECTION* MakeLock() {
    auto* cs = new CRITICAL_SECTION;  // lives as long as the process: threads may outlive statics
    InitializeCriticalSection(cs);
    return cs;
}

// Guards mapCommandRepeats, so that starting and stopping repeats and the shutdown's walk
// may meet safely.
CRITICAL_SECTION* RepeatMapLock() {
    static CRITICAL_SECTION* cs = MakeLock();
    return cs;
}

bool g_bShuttingDown = false;  // under RepeatMapLock: no new repeat after the shutdown began

// Repeat threads still running, stopped or not, so that the shutdown can wait for them.
struct LiveThreads {
    std::mutex mutex;
    std::condition_variable ended;
    int count = 0;
};

LiveThreads& Live() {
    static LiveThreads* live = new LiveThreads;
    return *live;
}

// The key of a repeat: a source's text (significant up to its room) and the command id.
std::string RepeatKey(const char* szSource, int nCommandID) {
    char szCut[kSourceRoom];
    CopyText(szCut, sizeof(szCut), szSource);
    char szId[16];
    snprintf(szId, sizeof(szId), "$$%d", nCommandID);
    return std::string(szCut) + szId;
}

const ShellCommandEntry* RowOfId(int nCommandID) {
    const ShellCommandEntry* row = _G_ShellCommands;
    while (row->szName && row->nCommandID != nCommandID) ++row;
    return row;
}

}  // namespace

namespace velmora_core {

CRITICAL_SECTION* ShellLock() {
    static CRITICAL_SECTION* cs = MakeLock();
    return cs;
}

void StopAllRepeats(CVelmora& service) {
    CSmartLock lock(RepeatMapLock());
    g_bShuttingDown = true;
    for (auto& repeat : service.mapCommandRepeats) SetEvent(repeat.second);
}

// Waits as long as a pass takes: a pass still running would call a subscriber or touch
// the service object after the shutdown went on.
void WaitForRepeatThreads() {
    LiveThreads& live = Live();
    std::unique_lock<std::mutex> lock(live.mutex);
    live.ended.wait(lock, [&] { return live.count == 0; });
}

}  // namespace velmora_core

void CVelmora::RepeatShellCommand(const char* szSource, const char* szOptions) {
    int nInterval = 0;
    bool bBackground = false;
    char szOption[kOptionRoom] = "";
    char szValue[kOptionRoom] = "";
    const char* pNext = szOptions;
    for (;;) {
        pNext = GetCMDOption(pNext, szOption, sizeof(szOption), szValue, sizeof(szValue));
        if (AsciiEqualNoCase(szOption, "i") || AsciiEqualNoCase(szOption, "interval")) {
            nInterval = atoi(szValue);
        } else if ((AsciiEqualNoCase(szOption, "stop") || AsciiEqualNoCase(szOption, "s")) &&
                   szValue[0] != '\0') {
            // Stop that command's repeat of this source; the rest of the text isn't read.
            const ShellCommandEntry* row = FindShellCommand(szValue);
            if (!row->szName) return;
            std::string key = RepeatKey(szSource ? szSource : kLocalSource, row->nCommandID);
            if (szSource)
                LogFortmatedReport(Report_Types::REPORT_FS_COMMAND, "%s >>[Stop Repeat] %s\n", szSource, row->szName);
            else
                LogFortmatedReport(Report_Types::REPORT_FS_COMMAND, "localhost >>[Stop Repeat] %s\n", row->szName);
            CSmartLock lock(RepeatMapLock());
            auto it = mapCommandRepeats.find(key);
            if (it != mapCommandRepeats.end()) {
                SetEvent(it->second);  // the thread closes the event
                mapCommandRepeats.erase(it);
            }
            return;
        } else if (AsciiEqualNoCase(szOption, "b") || AsciiEqualNoCase(szOption, "bg") ||
                   AsciiEqualNoCase(szOption, "background")) {
            bBackground = true;
        }
        if (szOption[0] == '\0' || !pNext) break;
    }

    if (nInterval <= 0) return;
    // Only the source of the last repeatable command may repeat it.
    CSmartLock shell(ShellLock());
    if (nLastCommand == -1) return;
    char szCaller[kSourceRoom];
    CopyText(szCaller, sizeof(szCaller), szSource ? szSource : kLocalSource);
    if (!AsciiEqualNoCase(szLastSource, szCaller)) return;
    const ShellCommandEntry& row = _G_ShellCommands[nLastCommand];
    std::string key = RepeatKey(szLastSource, row.nCommandID);

    CSmartLock lock(RepeatMapLock());
    if (g_bShuttingDown) return;
    if (mapCommandRepeats.count(key)) return;  // it runs already, unchanged
    HANDLE hEvent = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    if (!hEvent) return;
    auto* record = new CommandRepeatRecord;
    record->nCommandID = row.nCommandID;
    CopyText(record->szArguments, sizeof(record->szArguments), szLastArguments);
    record->hRepeatEvent = hEvent;
    record->bBackground = bBackground;
    record->nInterval = nInterval;
    CopyText(record->szSource, sizeof(record->szSource), szLastSource);
    LogFortmatedReport(Report_Types::REPORT_FS_COMMAND, "%s >>[Repeat] %s %s\n", szLastSource, row.szName,
                       szOptions ? szOptions : "");

    {
        std::lock_guard<std::mutex> live(Live().mutex);
        ++Live().count;
    }
    HANDLE hThread = CreateThread(nullptr, 0, &CVelmora::RepeatFSCMDFunction, record, 0, nullptr);
    if (!hThread) {
        {
            std::lock_guard<std::mutex> live(Live().mutex);
            --Live().count;
        }
        Live().ended.notify_all();
        CloseHandle(hEvent);
        delete record;
        return;
    }
    CloseHandle(hThread);  // never joined: the stop event ends it
    mapCommandRepeats[key] = hEvent;
}

DWORD CVelmora::RepeatFSCMDFunction(void* pParam) {
    auto* record = static_cast<CommandRepeatRecord*>(pParam);
    CVelmora& service = velmora;
    const ShellCommandEntry* row = RowOfId(record->nCommandID);
    for (;;) {
        DWORD dwResult = WaitForSingleObject(record->hRepeatEvent, DWORD(record->nInterval));
        if (dwResult == WAIT_OBJECT_0) break;
        if (dwResult != WAIT_TIMEOUT) continue;

        // One pass, under the shell lock like a command.
        CSmartLock lock(ShellLock());
        ShellGates gates(service);
        service.LogFortmatedReport(Report_Types::REPORT_FS_COMMAND, "%s >> %s %s\n", record->szSource, row->szName,
                                   record->szArguments);
        RelaxedStoreText(service.szGrepText, sizeof(service.szGrepText), service.szGrepPending);
        if (record->nCommandID == 6) {
            RelaxedStore(service.bRuntimeStatusToIni, false);
            WalkSubscribers(service, [](CMaintenanceInf* p) {
                p->PrintRuntimeStatus(nullptr);
                return true;
            });
        } else {
            WalkSubscribers(service, [&](CMaintenanceInf* p) {
                p->ShellCommand(record->szSource, record->nCommandID, record->bBackground,
                                record->szArguments);
                return true;
            });
        }
    }

    WalkSubscribers(service, [&](CMaintenanceInf* p) {
        p->StopCMDRepeat(record->szSource, record->nCommandID);
        return true;
    });
    CloseHandle(record->hRepeatEvent);
    delete record;
    {
        std::lock_guard<std::mutex> lock(Live().mutex);
        --Live().count;
    }
    Live().ended.notify_all();
    return 0;
}
