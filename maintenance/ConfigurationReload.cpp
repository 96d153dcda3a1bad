// The "config" and "runtime" shell commands: reloading settings of the running server and
// asking every module for its status.
//
// "config" carries an option word that says what to reload. The library's own share is
// small (REPORT_LEVEL and LOG_LEVEL on "-RELOAD"); every kind, with the rest of the text,
// goes on to the subscribers, which own the other settings. "runtime" only fans out, and
// remembers whether the status goes to the INI status file, which keeps formatted reports
// off the console meanwhile.
//
// Everything runs on the caller's thread (the shell command's) without a lock; the report
// level and the debug level are relaxed atomic stores that the reporting threads pick up when
// they next read them.
#include "core/AsciiText.h"
#include "core/RelaxedAccess.h"
#include "maintenance/SubscriberWalk.h"

#include <cstring>

using velmora_core::WalkSubscribers;

namespace {

// The argument text of a command is at most 511 characters (the shell refuses longer ones);
// a longer one that arrives here anyway is cut to that.
constexpr size_t kArgumentSize = 512;
// GetCMDOption's buffers while a tail is looked through for a list request.
constexpr size_t kOptionSize = 256;

// The section of the directory that holds the reloadable settings.
constexpr int kReloadableSection = 2;
constexpr int kHighestReportLevel = Report_Types::REPORT_DEBUG;

// What "config" can be asked to do. The kinds are what the subscribers receive.
constexpr int kReload = 1;

struct OptionWord {
    const char* szWord;
    int nKind;
    // Where the tail starts, counted from the start of the whole text and not from the
    // place where the word was found: the subscribers have always been given the text from
    // these positions, so a word further in the text hands on a piece of itself. For
    // "-RELOADACCT" and "-DOMAINLOGIN" the character behind the word is passed over; for
    // the others it belongs to the tail.
    size_t nTailPosition;
};

// Looked for in this order, the first found counts: "-RELOADACCT" contains "-RELOAD", so
// it must come first, and a text with several words is the first word of this list.
constexpr OptionWord kOptionWords[] = {
    {"-FIXHOST", 2, 8},
    {"-DOMAINLOGIN", 4, 13},
    {"-LINKEDACCOUNT", 5, 14},
    {"-RELOADACCT", 3, 12},
    {"-RELOAD", kReload, 7},
};

// ASCII only, whatever locale the host has set: the words to find are ASCII, and the tail
// that reaches the subscribers shouldn't depend on the host's locale.
char AsciiUpper(char c) { return (c >= 'a' && c <= 'z') ? char(c - 'a' + 'A') : c; }

constexpr char kListReportLevel[] =
    "REPORT_LEVEL-Set the level to control what kinds of messages can be displayed in the "
    "console\n";
constexpr char kListLogLevel[] =
    "LOG_LEVEL-Set the level to control what kinds of log information will be saved into the "
    "default log\n";
constexpr char kReloaded[] = "The reloadable configuration settings were reloaded\n";

// Whether a reload's tail asks for the list of reloadable settings instead: an option whose
// name begins with 'l' or 'L' ("-L", "-LIST", "-LOG", ...), wherever it stands.
bool AsksForTheList(CVelmora& service, const char* szTail) {
    char szOption[kOptionSize] = "";
    char szValue[kOptionSize] = "";
    const char* szNext = szTail;
    do {
        szNext = service.GetCMDOption(szNext, szOption, sizeof(szOption), szValue,
                                      sizeof(szValue));
        if (szOption[0] == 'l' || szOption[0] == 'L') return true;
    } while (szOption[0] != '\0' && szNext != nullptr);
    return false;
}

}  // namespace

// A text without an option word (a null one included) does nothing and says nothing.
void CVelmora::UpdateConfigure(const char* szArguments) {
    char szCopy[kArgumentSize];
    velmora_core::CopyText(szCopy, sizeof(szCopy), szArguments != nullptr ? szArguments : "");
    for (char* p = szCopy; *p != '\0'; ++p) *p = AsciiUpper(*p);

    const OptionWord* pWord = nullptr;
    for (const OptionWord& word : kOptionWords) {
        if (strstr(szCopy, word.szWord) != nullptr) {
            pWord = &word;
            break;
        }
    }
    if (pWord == nullptr) return;
    // A copy that ends before the tail's position gives the empty tail.
    const char* szTail =
        pWord->nTailPosition <= strlen(szCopy) ? szCopy + pWord->nTailPosition : "";

    UpdateConfiguration(pWord->nKind, szTail);
    WalkSubscribers(*this, [&](CMaintenanceInf* p) {
        p->UpdateConfiguration(pWord->nKind, szTail);
        return true;
    });
    if (pWord->nKind == kReload) {
        if (CLoginInitializationInf* pLogin = _G_pLoginInitialization)
            pLogin->OnLoginConfigurationReloaded();
    }
}

// The library's own settings; the other kinds exist for the subscribers alone. A request
// for the list prints the names and reloads nothing.
void CVelmora::UpdateConfiguration(int nKind, const char* szTail) {
    if (nKind != kReload) return;
    if (AsksForTheList(*this, szTail)) {
        FSLogReport(nullptr, false, kListReportLevel);
        FSLogReport(nullptr, false, kListLogLevel);
        WalkSubscribers(*this, [](CMaintenanceInf* p) {
            p->PrintReloadableSettings();
            return true;
        });
        return;
    }

    // The host sets _G_Directory before it runs shell commands. Should it be missing all
    // the same, the presets stand: the report level goes back to 22 and the debug level
    // stays, as with a directory that knows neither key.
    CDirectoryServiceInf* pDirectory = _G_Directory;
    // A level above the highest report type shows the same as that type and is stored as
    // it; a negative level is kept, and keeps every report off the console.
    int nLevel = kHighestReportLevel;
    if (pDirectory != nullptr)
        pDirectory->GetIntSetting(kReloadableSection, "REPORT_LEVEL", &nLevel);
    velmora_core::RelaxedStore(nReportLevel,
                               nLevel > kHighestReportLevel ? kHighestReportLevel : nLevel);
    // A missing key leaves the debug level as it is, and no limit applies. The directory
    // reads into a copy, stored at once: every thread that traces reads the level, and
    // never sees a half-done write of the host's.
    if (pDirectory != nullptr) {
        int nDebugLevel = velmora_core::RelaxedLoad(debugLevel);
        pDirectory->GetIntSetting(kReloadableSection, "LOG_LEVEL", &nDebugLevel);
        velmora_core::RelaxedStore(debugLevel, nDebugLevel);
    }

    WalkSubscribers(*this, [](CMaintenanceInf* p) {
        p->ReloadSettings();
        return true;
    });
    FSLogReport(nullptr, false, kReloaded);
}

// "runtime INI" (letters in any case) sends the status to the status file and keeps
// formatted reports off the console until the next status print; anything else, or no
// argument, clears that. The subscribers get the argument as it came, null included.
void CVelmora::PrintRuntimeStatus(const char* szWhat) {
    velmora_core::RelaxedStore(bRuntimeStatusToIni,
                               szWhat != nullptr && velmora_core::AsciiEqualNoCase(szWhat, "INI"));
    WalkSubscribers(*this, [&](CMaintenanceInf* p) {
        p->PrintRuntimeStatus(szWhat);
        return true;
    });
}
