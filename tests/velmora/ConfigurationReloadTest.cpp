// The "config" command: option words and tails, the reload of the two levels, the list request.
#include "ReportTestSupport.h"

#include <algorithm>

using Events = std::vector<std::string>;

namespace {

struct ReloadAccess : CVelmora { using CVelmora::UpdateConfiguration, CVelmora::UpdateConfigure; };

const std::string kListed[] = {
    "console:REPORT_LEVEL-Set the level to control what kinds of messages can be displayed in the console\n",
    "console:LOG_LEVEL-Set the level to control what kinds of log information will be saved into the default log\n"};
const std::string kReloaded = "console:The reloadable configuration settings were reloaded\n";

// The test is the subscriber (entered twice: a walk ending early shows) and the login module.
struct ConfigurationReload : velmora_report_test::ReportFixture, CMaintenanceInf, CLoginInitializationInf {
    void SetUp() override {
        ReportFixture::SetUp(), MakeDefaultLog(), settings.localLogsFolder = tmp.path();
        console.onCall = [this](const char* szBlock) { events.push_back(std::string("console:") + szBlock); };
        velmora.SetReportConsole(&console), velmora.SubscribeMaitenance(this), velmora.SubscribeMaitenance(this);
        _G_Directory = &settings, _G_pLoginInitialization = this;
    }
    void TearDown() override { _G_pLoginInitialization = nullptr, ReportFixture::TearDown(); }
    Events EventsOf(const char* szArguments) {  // of one command alone
        events.clear(), (velmora.*&ReloadAccess::UpdateConfigure)(szArguments);
        return events;
    }
    int GetSubscribeOrder() override { return 1; }
    void UpdateConfiguration(int n, const char* szTail) override { events.push_back(std::to_string(n) + ":" + szTail); }
    void PrintReloadableSettings() override { events.push_back("list"); }
    void ReloadSettings() override { events.push_back("reload"); }
    bool OnLoginInitializationRequest(const char*, Login_Types::DEF, int, bool) override { return true; }
    bool OnLoginInitalizationRequestAdminRights(const char*) override { return true; }
    bool OnLoginInitalizationRequestLinkAccount(const char*) override { return true; }
    void OnLoginConfigurationReloaded() override { events.push_back("login"); }

    Events events;
    velmora_log_test::SettingsDirectory settings;
};

}  // namespace

// The first word of the list counts; its tail starts at a fixed position of the upper-cased text.
TEST_F(ConfigurationReload, OptionWordsGiveTheKindAndTheTailAndAskForTheList) {
    const struct { const char* szArguments; int nKind; const char* szTail; } cases[] = {
        {"-Reload z=a", 1, " Z=A"}, {"X -RELOAD", 1, "AD"}, {"-RELOADACCT abc", 3, "ABC"}, {"RELOAD", 0, ""},
        {"-DOMAINLOGIN ABC", 4, "ABC"}, {"-RELOADACCT -RELOAD", 3, "-RELOAD"}, {"-RELOAD -FIXHOST", 2, "-FIXHOST"},
        {"-LINKEDACCOUNT -DOMAINLOGIN", 4, "T -DOMAINLOGIN"}, {"-DOMAINLOGIN -FIXHOST", 2, "OGIN -FIXHOST"},
        {"-LINKEDACCOUNT -RELOADACCT", 5, " -RELOADACCT"}, {"-RELOA", 0, ""}, {nullptr, 0, ""}};
    for (const auto& c : cases) {
        const std::string update = std::to_string(c.nKind) + ":" + c.szTail;
        Events expected = c.nKind == 1 ? Events{"reload", "reload", kReloaded, update, update, "login"}
                          : c.nKind    ? Events{update, update} : Events{};
        EXPECT_EQ(EventsOf(c.szArguments), expected) << c.szArguments;
    }
    // An argument past the shell's limit is cut at 511: a word behind the cut isn't seen.
    EXPECT_EQ(EventsOf(("-FIXHOST " + std::string(600, 'x')).c_str()).at(0), "2: " + std::string(502, 'X'));
    EXPECT_TRUE(EventsOf((std::string(505, 'x') + "-FIXHOST").c_str()).empty());
    EXPECT_EQ(EventsOf((std::string(503, 'x') + "-FIXHOST").c_str()).size(), 2u);
    // An option whose name begins with 'L' (or 'l', called directly), wherever it stands, asks for the list.
    EXPECT_EQ(EventsOf("-RELOAD -L"), (Events{kListed[0], kListed[1], "list", "list", "1: -L", "1: -L", "login"}));
    EXPECT_EQ(EventsOf("-RELOAD -X 1 -LIST").at(2), "list");
    EXPECT_EQ(EventsOf(("-RELOAD -" + std::string(300, 'X') + " -L").c_str()).at(2), "list");  // a long name is cut
    events.clear(), (velmora.*&ReloadAccess::UpdateConfiguration)(1, " -list");
    EXPECT_EQ(events, (Events{kListed[0], kListed[1], "list", "list"}));
}

// A report level above 22 is stored as 22; without a key or a directory the presets stand.
TEST_F(ConfigurationReload, AReloadReadsTheLevelsFromSection2) {
    for (auto [nSetting, nStored] : {std::pair{40, 22}, {23, 22}, {22, 22}, {6, 6}, {-3, -3}}) {
        settings.ints = {{"2:REPORT_LEVEL", nSetting}, {"2:LOG_LEVEL", nSetting * 3}};
        EventsOf("-reload");
        EXPECT_EQ(std::pair(velmora.nReportLevel, debugLevel), std::pair(nStored, nSetting * 3)) << nSetting;
    }
    settings.ints.clear(), EventsOf("-RELOAD");
    EXPECT_EQ(std::pair(velmora.nReportLevel, debugLevel), std::pair(22, -9));
    velmora.UnsubscribeMaitenance(this), velmora.UnsubscribeMaitenance(this), velmora.SetReportLevel(5);
    _G_pLoginInitialization = nullptr, _G_Directory = nullptr;
    EXPECT_EQ(EventsOf("-RELOAD"), Events{kReloaded});
    EXPECT_EQ(std::pair(velmora.nReportLevel, debugLevel), std::pair(22, -9));
}
