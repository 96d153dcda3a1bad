// The "config" and "runtime" commands: the option words and the tails they hand on, the
// library's own reload of REPORT_LEVEL and LOG_LEVEL, the list request, the order of the
// calls, and the INI flag of a status print.
#include "ShellTestSupport.h"

#include <algorithm>

using namespace velmora_report_test;
using namespace velmora_shell_test;
using velmora_log_test::CountOf;
using velmora_log_test::Letters;

namespace {

// Everything that happens, in order: subscribers, the login module and the local console.
std::vector<std::string> g_events;

// The protected operations of the service object.
struct ReloadAccess : CVelmora {
    using CVelmora::UpdateConfiguration;
    using CVelmora::UpdateConfigure;
};
void UpdateConfigure(const char* szArguments) {
    void (CVelmora::*pCall)(const char*) = &ReloadAccess::UpdateConfigure;
    (velmora.*pCall)(szArguments);
}
void UpdateConfiguration(int nKind, const char* szTail) {
    void (CVelmora::*pCall)(int, const char*) = &ReloadAccess::UpdateConfiguration;
    (velmora.*pCall)(nKind, szTail);
}

struct Module : CMaintenanceInf {
    std::string name;
    int key;
    std::vector<const char*> statusArguments;  // as they arrived, pointers compared
    Module(std::string n, int k) : name(std::move(n)), key(k) {}
    int GetSubscribeOrder() override { return key; }
    void UpdateConfiguration(int nKind, const char* szTail) override {
        g_events.push_back(name + ".update:" + std::to_string(nKind) + ":" + szTail);
    }
    void PrintReloadableSettings() override { g_events.push_back(name + ".list"); }
    void ReloadSettings() override { g_events.push_back(name + ".reload"); }
    void PrintRuntimeStatus(const char* szWhat) override {
        statusArguments.push_back(szWhat);
        g_events.push_back(name + ".status");
    }
};

struct LoginModule : CLoginInitializationInf {
    bool OnLoginInitializationRequest(const char*, Login_Types::DEF, int, bool) override {
        return true;
    }
    bool OnLoginInitalizationRequestAdminRights(const char*) override { return true; }
    bool OnLoginInitalizationRequestLinkAccount(const char*) override { return true; }
    void OnLoginConfigurationReloaded() override { g_events.push_back("login.reloaded"); }
};

constexpr char kListReportLevel[] =
    "REPORT_LEVEL-Set the level to control what kinds of messages can be displayed in the "
    "console\n";
constexpr char kListLogLevel[] =
    "LOG_LEVEL-Set the level to control what kinds of log information will be saved into the "
    "default log\n";
constexpr char kReloaded[] = "The reloadable configuration settings were reloaded\n";

class ConfigurationReload : public ReportFixture {
protected:
    void SetUp() override {
        ReportFixture::SetUp();
        settings.localLogsFolder = tmp.path();
        _G_Directory = &settings;
        MakeDefaultLog();
        settings.asks.clear();
        local.onCall = [](const char* szBlock) {
            g_events.push_back(std::string("console:") + szBlock);
        };
        velmora.SetReportConsole(&local);
        velmora.SubscribeMaitenance(&b);
        velmora.SubscribeMaitenance(&a);
        _G_pLoginInitialization = &login;
        g_events.clear();
    }
    void TearDown() override {
        _G_pLoginInitialization = nullptr;
        velmora.UnsubscribeMaitenance(&a);
        velmora.UnsubscribeMaitenance(&b);
        velmora.SetReportLevel(22);
        velmora.bRuntimeStatusToIni = false;
        ReportFixture::TearDown();
    }

    // The events of one command alone.
    std::vector<std::string> EventsOf(const char* szArguments) {
        g_events.clear();
        UpdateConfigure(szArguments);
        return g_events;
    }

    velmora_log_test::SettingsDirectory settings;
    ProbedConsole local;
    Module a{"A", 1}, b{"B", 2};
    LoginModule login;
};

std::vector<std::string> Updates(const std::string& tail, int nKind) {
    const std::string what = ".update:" + std::to_string(nKind) + ":" + tail;
    return {"A" + what, "B" + what};
}

}  // namespace

// ---- Option words and tails ----------------------------------------------------------------

TEST_F(ConfigurationReload, TheFirstWordOfTheListGivesTheKindAndTheTailAFixedPosition) {
    struct Case {
        const char* szArguments;
        int nKind;
        const char* szTail;
    };
    const Case cases[] = {
        {"-reload", 1, ""},               // the copy is in upper case
        {"-Reload x=1", 1, " X=1"},       // the blank behind the word belongs to the tail
        {"-FIXHOST ABC", 2, " ABC"},
        {"-fixhost", 2, ""},
        {"-RELOADACCT abc", 3, "ABC"},    // position 12: the blank is passed over
        {"-RELOADACCT", 3, ""},           // the copy ends before position 12
        {"-DOMAINLOGIN ABC", 4, "ABC"},   // position 13: the blank is passed over
        {"-DOMAINLOGIN", 4, ""},
        {"-LinkedAccount id=7", 5, " ID=7"},
        // The position counts from the start of the text, not from the word.
        {"X -RELOAD", 1, "AD"},
        {"ab -fixhost", 2, "OST"},
        // Several words: the first of the list counts, wherever it stands.
        {"-RELOADACCT -RELOAD", 3, "-RELOAD"},
        {"-RELOAD -FIXHOST", 2, "-FIXHOST"},
        {"-LINKEDACCOUNT -DOMAINLOGIN", 4, "T -DOMAINLOGIN"},
        {"-DOMAINLOGIN -FIXHOST", 2, "OGIN -FIXHOST"},
        {"-LINKEDACCOUNT -RELOADACCT", 5, " -RELOADACCT"},
    };
    for (const Case& c : cases) {
        std::vector<std::string> events = EventsOf(c.szArguments);
        std::vector<std::string> updates;
        for (const std::string& event : events)
            if (event.find(".update:") != std::string::npos) updates.push_back(event);
        EXPECT_EQ(updates, Updates(c.szTail, c.nKind)) << c.szArguments;
        // Only a reload tells the login module.
        EXPECT_EQ(events.back() == "login.reloaded", c.nKind == 1) << c.szArguments;
    }
}

TEST_F(ConfigurationReload, ATextWithoutAnOptionWordIsIgnoredInSilence) {
    velmora.SetReportLevel(5);
    for (const char* szArguments : {"", "RELOAD", "-RELOA", "- RELOAD", "-fix host", "reload"}) {
        EXPECT_TRUE(EventsOf(szArguments).empty()) << szArguments;
    }
    EXPECT_TRUE(EventsOf(nullptr).empty());
    EXPECT_TRUE(settings.asks.empty());
    EXPECT_EQ(velmora.nReportLevel, 5);
    EXPECT_EQ(local.Count(), 0u);
    EXPECT_EQ(CountOf(LogText(), "[FS Output]"), 0);
}

// The shell refuses longer arguments; one that arrives all the same is cut at 511.
TEST_F(ConfigurationReload, AnOverlongArgumentIsCutAt511Characters) {
    const std::string letters = Letters(600);
    std::string upper = letters;
    for (char& c : upper) c = char(c - 'a' + 'A');
    EXPECT_EQ(EventsOf(("-FIXHOST " + letters).c_str()),
              Updates((" " + upper).substr(0, 511 - 8), 2));
    // A word behind the cut isn't seen.
    EXPECT_TRUE(EventsOf((Letters(505) + "-FIXHOST").c_str()).empty());
    EXPECT_EQ(EventsOf((Letters(503) + "-FIXHOST").c_str()).size(), 2u);
}

// ---- The library's reload ----------------------------------------------------------------

TEST_F(ConfigurationReload, AReloadReadsTheLibrarysSettingsBeforeTheSubscribersHearOfIt) {
    velmora.SetReportLevel(5);
    debugLevel = 7;
    // The directory knows neither key: the report level goes back to 22, the debug level
    // stays. The console, back at 22, shows the answer.
    EXPECT_EQ(EventsOf("-RELOAD"),
              (std::vector<std::string>{"A.reload", "B.reload", std::string("console:") + kReloaded,
                                        "A.update:1:", "B.update:1:", "login.reloaded"}));
    EXPECT_EQ(velmora.nReportLevel, 22);
    EXPECT_EQ(debugLevel, 7);
    EXPECT_EQ(settings.asks, (std::vector<std::pair<int, std::string>>{{2, "REPORT_LEVEL"},
                                                                       {2, "LOG_LEVEL"}}));
    // A shell output report without a source, with no stamp.
    std::vector<ConsoleCall> shown = local.Calls();
    ASSERT_EQ(shown.size(), 1u);
    EXPECT_EQ(shown[0].nType, Report_Types::REPORT_FS_OUTPUT);
    EXPECT_EQ(CountRecords("[FS Output]", kReloaded), 1);
}

TEST_F(ConfigurationReload, TheReportLevelIsCappedAt22AndTheLogLevelGoesStraightIn) {
    const std::pair<int, int> reportLevels[] = {{40, 22}, {22, 22}, {6, 6}, {0, 0}, {-3, -3}};
    for (auto [nSetting, nStored] : reportLevels) {
        settings.ints["2:REPORT_LEVEL"] = nSetting;
        UpdateConfigure("-reload");
        EXPECT_EQ(velmora.nReportLevel, nStored) << nSetting;
    }
    for (int nSetting : {9, 100, -2, 0}) {
        settings.ints["2:LOG_LEVEL"] = nSetting;
        UpdateConfigure("-reload");
        EXPECT_EQ(debugLevel, nSetting);
    }
    // A key that is gone again leaves the debug level where the last reload put it.
    settings.ints.erase("2:LOG_LEVEL");
    UpdateConfigure("-reload");
    EXPECT_EQ(debugLevel, 0);
}

TEST_F(ConfigurationReload, AListRequestPrintsTheNamesAndReloadsNothing) {
    settings.ints = {{"2:REPORT_LEVEL", 3}, {"2:LOG_LEVEL", 1}};
    velmora.SetReportLevel(10);
    debugLevel = 4;
    // The subscribers still hear of a reload with the tail, and so does the login module.
    EXPECT_EQ(EventsOf("-RELOAD -L"),
              (std::vector<std::string>{std::string("console:") + kListReportLevel,
                                        std::string("console:") + kListLogLevel, "A.list",
                                        "B.list", "A.update:1: -L", "B.update:1: -L",
                                        "login.reloaded"}));
    EXPECT_TRUE(settings.asks.empty());
    EXPECT_EQ(velmora.nReportLevel, 10);
    EXPECT_EQ(debugLevel, 4);
    EXPECT_EQ(CountRecords("[FS Output]", kListReportLevel), 1);
    EXPECT_EQ(CountRecords("[FS Output]", kListLogLevel), 1);
    EXPECT_EQ(CountOf(LogText(), kReloaded), 0);

    // Only the first letter of an option's name counts, wherever the option stands; names
    // longer than the option buffer are cut, not written past it.
    auto AsksForTheList = [&](const std::string& arguments) {
        std::vector<std::string> events = EventsOf(arguments.c_str());
        bool bList = std::count(events.begin(), events.end(), "A.list") == 1;
        bool bReload = std::count(events.begin(), events.end(), "A.reload") == 1;
        EXPECT_NE(bList, bReload) << arguments;
        return bList;
    };
    for (const std::string& arguments :
         {std::string("-reload -log"), std::string("-RELOAD -X 1 -LIST"),
          std::string("-RELOAD -A \"X Y\" -L"), "-RELOAD -" + std::string(300, 'L'),
          "-RELOAD -" + std::string(300, 'X') + " -L"})
        EXPECT_TRUE(AsksForTheList(arguments)) << arguments;
    for (const char* szArguments : {"-RELOAD -X L", "-RELOAD L", "-RELOAD -X 1 -Y", "-RELOAD -"})
        EXPECT_FALSE(AsksForTheList(szArguments)) << szArguments;

    // Called directly, a lower-case 'l' asks for the list as well. (The reloads above left
    // the level at 3, which keeps shell output off the console.)
    g_events.clear();
    UpdateConfiguration(1, " -list");
    EXPECT_EQ(g_events, (std::vector<std::string>{"A.list", "B.list"}));
    EXPECT_EQ(velmora.nReportLevel, 3);
}

TEST_F(ConfigurationReload, OtherKindsGoToTheSubscribersAlone) {
    velmora.SetReportLevel(10);
    debugLevel = 4;
    settings.ints = {{"2:REPORT_LEVEL", 3}, {"2:LOG_LEVEL", 1}};
    EXPECT_EQ(EventsOf("-RELOADACCT X"), Updates("X", 3));
    EXPECT_EQ(EventsOf("-FIXHOST -L"), Updates(" -L", 2));
    EXPECT_EQ(EventsOf("-DOMAINLOGIN a"), Updates("A", 4));
    EXPECT_EQ(EventsOf("-LINKEDACCOUNT"), Updates("", 5));
    // The library's own share does nothing for them, list requests included.
    g_events.clear();
    for (int nKind : {0, 2, 3, 4, 5, -1}) UpdateConfiguration(nKind, " -L");
    EXPECT_TRUE(g_events.empty());
    EXPECT_TRUE(settings.asks.empty());
    EXPECT_EQ(velmora.nReportLevel, 10);
    EXPECT_EQ(debugLevel, 4);
    EXPECT_EQ(CountOf(LogText(), "[FS Output]"), 0);
}

TEST_F(ConfigurationReload, AReloadWithoutDirectorySubscribersOrLoginModuleStillWorks) {
    velmora.UnsubscribeMaitenance(&a);
    velmora.UnsubscribeMaitenance(&b);
    _G_pLoginInitialization = nullptr;
    _G_Directory = nullptr;
    velmora.SetReportLevel(5);
    debugLevel = 7;
    // The presets stand: 22 for the report level, the debug level as it is.
    EXPECT_EQ(EventsOf("-RELOAD"), std::vector<std::string>{std::string("console:") + kReloaded});
    EXPECT_EQ(velmora.nReportLevel, 22);
    EXPECT_EQ(debugLevel, 7);
    EXPECT_EQ(EventsOf("-RELOAD -L"),
              (std::vector<std::string>{std::string("console:") + kListReportLevel,
                                        std::string("console:") + kListLogLevel}));
}

// ---- The status print ------------------------------------------------------------------------

TEST_F(ConfigurationReload, PrintRuntimeStatusSetsTheIniFlagAndPassesTheArgumentAsItCame) {
    const char* const toIni[] = {"INI", "ini", "iNi"};
    const char* const notToIni[] = {nullptr, "", "INIX", "IN", " INI", "x"};
    for (const char* szWhat : toIni) {
        velmora.bRuntimeStatusToIni = false;
        velmora.PrintRuntimeStatus(szWhat);
        EXPECT_TRUE(velmora.bRuntimeStatusToIni) << szWhat;
    }
    for (const char* szWhat : notToIni) {
        velmora.bRuntimeStatusToIni = true;
        velmora.PrintRuntimeStatus(szWhat);
        EXPECT_FALSE(velmora.bRuntimeStatusToIni) << (szWhat ? szWhat : "(null)");
    }
    std::vector<const char*> all(std::begin(toIni), std::end(toIni));
    all.insert(all.end(), std::begin(notToIni), std::end(notToIni));
    EXPECT_EQ(a.statusArguments, all);
    EXPECT_EQ(b.statusArguments, all);
    // The subscribers in their order, each call in turn.
    EXPECT_EQ(g_events.size(), 2 * all.size());
    EXPECT_EQ(g_events[0], "A.status");
    EXPECT_EQ(g_events[1], "B.status");

    // Without subscribers the flag still follows the argument.
    velmora.UnsubscribeMaitenance(&a);
    velmora.UnsubscribeMaitenance(&b);
    velmora.PrintRuntimeStatus("Ini");
    EXPECT_TRUE(velmora.bRuntimeStatusToIni);
    velmora.PrintRuntimeStatus(nullptr);
    EXPECT_FALSE(velmora.bRuntimeStatusToIni);
}
