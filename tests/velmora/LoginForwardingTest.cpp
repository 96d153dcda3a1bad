// The login forwarders: answers and arguments unchanged, false in silence without a module, failures reported.
#include "ReportTestSupport.h"

#include <stdexcept>

using namespace velmora_report_test;
using velmora_log_test::CountOf;

namespace {
// Notes each request with its arguments; answers bAnswer, or throws as told.
struct FakeLogin : CLoginInitializationInf {
    std::vector<std::string> calls;
    bool bAnswer = true, bFailWin32 = false, bFailOther = false;
    bool OnLoginInitializationRequest(const char* sz, Login_Types::DEF nType, int nSession, bool bAdmin) override {
        return Take("Request " + User(sz) + " " + std::to_string(nType) + " " + std::to_string(nSession) + (bAdmin ? " admin" : ""));
    }
    bool OnLoginInitalizationRequestAdminRights(const char* sz) override { return Take("AdminRights " + User(sz)); }
    bool OnLoginInitalizationRequestLinkAccount(const char* sz) override { return Take("LinkAccount " + User(sz)); }
    void OnLoginConfigurationReloaded() override {}
    static std::string User(const char* sz) { return sz != nullptr ? sz : "(null)"; }
    bool Take(const std::string& call) {
        calls.push_back(call);
        return bFailWin32 ? throw HostFailure("module down") : bFailOther ? throw std::runtime_error("other") : bAnswer;
    }
};

const std::vector<std::string> kNames = {"CVelmora::OnLoginInitializationRequest", "CVelmora::OnLoginInitalizationRequestAdminRights",
                                         "CVelmora::OnLoginInitalizationRequestLinkAccount"};

// Request i of kNames, and all three in that order.
bool Ask(size_t i, const char* szUser) {
    if (i == 0) return velmora.OnLoginInitializationRequest(szUser, Login_Types::LOGIN_DEFAULT, 1, false);
    return i == 1 ? velmora.OnLoginInitalizationRequestAdminRights(szUser) : velmora.OnLoginInitalizationRequestLinkAccount(szUser);
}
std::vector<bool> AskAll(const char* szUser) { return {Ask(0, szUser), Ask(1, szUser), Ask(2, szUser)}; }

struct LoginForwarding : ReportFixture {
    void SetUp() override { ReportFixture::SetUp(), MakeDefaultLog(), ConnectMonitor(), velmora.SetReportConsole(&console); }
    FakeLogin login;
};
}  // namespace

TEST_F(LoginForwarding, AnswersAndArgumentsPassAndNoModuleIsFalseInSilence) {
    EXPECT_EQ(AskAll("alice"), std::vector<bool>(3, false));
    velmora.SetLoginInitializationInf(&login);
    EXPECT_TRUE(velmora.OnLoginInitializationRequest("bob", static_cast<Login_Types::DEF>(7), -5, true));
    EXPECT_EQ(AskAll(nullptr), std::vector<bool>(3, true));
    login.bAnswer = false;
    EXPECT_EQ(AskAll("carol"), std::vector<bool>(3, false));
    velmora.SetLoginInitializationInf(nullptr);
    EXPECT_EQ(AskAll("dave"), std::vector<bool>(3, false));
    EXPECT_EQ(login.calls, (std::vector<std::string>{"Request bob 7 -5 admin", "Request (null) 0 1", "AdminRights (null)", "LinkAccount (null)",
                                                     "Request carol 0 1", "AdminRights carol", "LinkAccount carol"}));
    EXPECT_EQ(console.Count() + CountOf(LogText(), "[Exception]") + MonitorText().size(), 0u);
}

// Reported to the console, the log and the monitor; other exceptions go on; each operation traces under its name.
TEST_F(LoginForwarding, FailuresAreReportedUnderTheOperationsName) {
    velmora.SetLoginInitializationInf(&login);
    login.bFailWin32 = true;
    EXPECT_EQ(AskAll("erin"), std::vector<bool>(3, false));
    std::vector<std::string> reports;
    for (const std::string& name : kNames) reports.push_back(name + " module down\n");
    EXPECT_EQ(console.Texts(), reports);
    for (const std::string& report : reports)
        EXPECT_EQ(CountRecords("[Exception]", report) + CountOf(MonitorText(), ";" + report + "\r\n"), 2) << report;
    login.bFailWin32 = false, login.bFailOther = true;
    for (size_t i = 0; i < kNames.size(); ++i) EXPECT_THROW(Ask(i, "erin"), std::runtime_error) << kNames[i];
    login.bFailOther = false, _G_TraceAll = true;
    velmora.SetLoginInitializationInf(&login);
    EXPECT_EQ(AskAll("frank"), std::vector<bool>(3, true));
    std::vector<std::string> names = TracedNames(LogText()), expected = {"CVelmora::SetLoginInitializationInf", kNames[0], kNames[1], kNames[2]};
    EXPECT_EQ(names, expected);
}
