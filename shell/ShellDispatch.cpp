// The one door of the shell: a command word and its arguments, as an operator typed them.
#include "core/AsciiText.h"
#include "core/RelaxedAccess.h"
#include "maintenance/SubscriberWalk.h"
#include "shell/CommandTable.h"
#include "shell/ShellState.h"

#include <cstring>

using namespace velmora_core;

namespace {

const char kLocalSource[] = "localhost";
constexpr size_t kArgumentRoom = 512;  // 511 characters and the terminator

// Cuts the arguments into the text to deliver and a repeat tail or a grep pattern. The
// searches are case-sensitive and find the first occurrence anywhere, also inside a word;
// the first that hits decides, so a command has a repeat tail or a grep pattern, never both.
void SplitArguments(const char* szArguments, const ShellCommandEntry& row, char* szDeliver,
                    char* szTail, bool* pbRepeatWord, char* szGrepPending, size_t nGrepRoom) {
    const char* pRepeat = strstr(szArguments, " repeat");
    size_t nWord = 7;
    if (!pRepeat) {
        pRepeat = strstr(szArguments, "repeat");
        nWord = 6;
    }
    if (pRepeat) {
        *pbRepeatWord = true;
        CopyRange(szDeliver, kArgumentRoom, szArguments, pRepeat);
        if (row.bRepeatable) CopyText(szTail, kArgumentRoom, pRepeat + nWord);
        return;
    }
    const char* pGrep = strstr(szArguments, " grep");
    if (!pGrep) {
        CopyText(szDeliver, kArgumentRoom, szArguments);
        return;
    }
    CopyRange(szDeliver, kArgumentRoom, szArguments, pGrep);
    const char* pAfter = pGrep + 5;
    const char* pQuote = strchr(pAfter, '"');
    if (!pQuote) {
        // Exactly one character (normally the blank) is stepped over, whatever it is.
        if (*pAfter) CopyText(szGrepPending, nGrepRoom, pAfter + 1);
        return;
    }
    const char* pClosing = strchr(pQuote + 1, '"');
    if (pClosing) CopyRange(szGrepPending, nGrepRoom, pQuote + 1, pClosing);
}

}  // namespace

namespace velmora_core {

ShellGates::ShellGates(CVelmora& service) : m_service(service) {
    RelaxedStore(m_service.dwShellThreadId, GetCurrentThreadId());
    RelaxedStore(m_service.bInShellCommand, true);
}

ShellGates::~ShellGates() {
    RelaxedStore(m_service.szGrepText[0], '\0');
    RelaxedStore(m_service.dwShellThreadId, 0);
    RelaxedStore(m_service.bInShellCommand, false);
}

}  // namespace velmora_core

void CVelmora::ShellCommand(const char* szSource, const char* szCommand, const char* szArguments) {
    if (AsciiEqualNoCase(szCommand, "repeat")) {
        RepeatShellCommand(szSource, szArguments);
        return;
    }

    char szDeliver[kArgumentRoom] = "";
    char szTail[kArgumentRoom] = "";
    bool bRepeatWord = false;
    const ShellCommandEntry* row;
    {
        // The grep texts belong to the command or pass that runs: even a command that is then
        // refused waits for a pass in progress before it empties them.
        CSmartLock lock(ShellLock());
        RelaxedStore(szGrepText[0], '\0');
        szGrepPending[0] = '\0';
        row = FindShellCommand(szCommand);
        if (szSource && row->bLocalOnly) return;
        if (!row->szName) return;
        if (szArguments) {
            if (strlen(szArguments) >= kArgumentRoom) return;
            SplitArguments(szArguments, *row, szDeliver, szTail, &bRepeatWord, szGrepPending,
                           sizeof(szGrepPending));
        }

        ShellGates gates(*this);
        if (szSource) {
            if (szArguments)
                LogFortmatedReport(Report_Types::REPORT_FS_COMMAND, "%s >> %s %s\n", szSource, szCommand, szArguments);
            else
                LogFortmatedReport(Report_Types::REPORT_FS_COMMAND, "%s >> %s\n", szSource, szCommand);
        } else {
            if (szArguments)
                LogFortmatedReport(Report_Types::REPORT_FS_COMMAND, "localhost >> %s %s\n", szCommand, szArguments);
            else
                LogFortmatedReport(Report_Types::REPORT_FS_COMMAND, "localhost >> %s\n", szCommand);
        }

        if (row->bRepeatable) {
            nLastCommand = int(row - _G_ShellCommands);
            CopyText(szLastArguments, sizeof(szLastArguments), szDeliver);
            CopyText(szLastSource, sizeof(szLastSource), szSource ? szSource : kLocalSource);
        } else {
            nLastCommand = -1;
            szLastArguments[0] = '\0';
            szLastSource[0] = '\0';
        }

        RelaxedStoreText(szGrepText, sizeof(szGrepText), szGrepPending);
        switch (row->nCommandID) {
        case 6:
            PrintRuntimeStatus(szDeliver);
            break;
        case 7:
            UpdateConfigure(szDeliver);
            break;
        default: {
            const char* szDeliverSource = szSource ? szSource : kLocalSource;
            int nCommandID = row->nCommandID;
            WalkSubscribers(*this, [&](CMaintenanceInf* p) {
                p->ShellCommand(szDeliverSource, nCommandID, false, szDeliver);
                return true;
            });
        }
        }
    }

    if (nSubscribers != 0 && bRepeatWord && row->bRepeatable && strlen(szTail) >= 2)
        RepeatShellCommand(szSource, szTail);
}
