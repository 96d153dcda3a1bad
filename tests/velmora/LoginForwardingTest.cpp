// The login forwarders: the module's answers and arguments pass unchanged, no module gives
// false in silence, and a host's failure (from the module or from the trace) becomes an
// exception report under the operation's name and the answer false.
#include "ReportTestSupport.h"

#include <iterator>
#include <stdexcept>

using namespace velmora_report_test;
using velmora_log_test::CountOf;
using velmora_test::SplitLines;

namespace {

// Records each request with its arguments; answers bAnswer, or throws as told.
class FakeLogin : public CLoginInitializationInf {
public:
    struct Call {
        std::string operation;
        const char* szUser;
        int nType;
        int nSession;
        bool bAdmin;
        bool operator==(const Call&) const = default;
    };

    bool OnLoginInitializationRequest(const char* szUser, Login_Types::DEF nType, int nSession,
                                      bool bAdmin) override {
        return Take({"Request", szUser, nType, nSession, bAdmin});
    }
    bool OnLoginInitalizationRequestAdminRights(const char* szUser) override {
        return Take({"AdminRights", szUser, 0, 0, false});
    }
    bool OnLoginInitalizationRequestLinkAccount(const char* szUser) override {
        return Take({"LinkAccount", szUser, 0, 0, false});
    }
    void OnLoginConfigurationReloaded() override {
        calls.push_back({"Reloaded", nullptr, 0, 0, false});
    }

    std::vector<Call> calls;
    bool bAnswer = true;
    bool bFailWin32 = false;
    bool bFailWithRuntimeError = false;

private:
    bool Take(const Call& call) {
        calls.push_back(call);
        if (bFailWin32) throw HostFailure("login module down");
        if (bFailWithRuntimeError) throw std::runtime_error("not a win32_exception");
        return bAnswer;
    }
};

const char* const kRequestNames[] = {
    "CVelmora::OnLoginInitializationRequest",
    "CVelmora::OnLoginInitalizationRequestAdminRights",
    "CVelmora::OnLoginInitalizationRequestLinkAccount",
};

// One of the three requests, numbered as in kRequestNames.
bool Ask(size_t nRequest, const char* szUser) {
    switch (nRequest) {
        case 0:
            return velmora.OnLoginInitializationRequest(szUser, Login_Types::LOGIN_DEFAULT, 1,
                                                        false);
        case 1: return velmora.OnLoginInitalizationRequestAdminRights(szUser);
        default: return velmora.OnLoginInitalizationRequestLinkAccount(szUser);
    }
}

std::vector<bool> AskAll(const char* szUser) {
    return {Ask(0, szUser), Ask(1, szUser), Ask(2, szUser)};
}

const std::vector<bool> kAllFalse = {false, false, false};

using LoginForwarding = ReportFixture;

}  // namespace

TEST_F(LoginForwarding, WithoutALoginModuleEveryRequestIsFalseInSilence) {
    MakeDefaultLog();
    ConnectMonitor();
    velmora.SetReportConsole(&console);
    ASSERT_EQ(_G_pLoginInitialization, nullptr);  // the state after load
    EXPECT_EQ(AskAll("alice"), kAllFalse);

    // Plugged in and unplugged again.
    FakeLogin login;
    velmora.SetLoginInitializationInf(&login);
    velmora.SetLoginInitializationInf(nullptr);
    EXPECT_EQ(_G_pLoginInitialization, nullptr);
    EXPECT_EQ(AskAll("alice"), kAllFalse);
    EXPECT_TRUE(login.calls.empty());

    EXPECT_EQ(console.Count(), 0u);
    EXPECT_EQ(CountOf(LogText(), "[Exception]"), 0);
    EXPECT_EQ(MonitorText(), "");
}

TEST_F(LoginForwarding, TheModulesAnswerAndItsArgumentsPassUnchanged) {
    FakeLogin login;
    velmora.SetLoginInitializationInf(&login);
    EXPECT_EQ(_G_pLoginInitialization, &login);

    const char* const szUser = "bob";
    const auto nType = static_cast<Login_Types::DEF>(7);  // passed on without a look
    EXPECT_TRUE(velmora.OnLoginInitializationRequest(szUser, nType, -5, true));
    EXPECT_TRUE(velmora.OnLoginInitalizationRequestAdminRights(szUser));
    EXPECT_TRUE(velmora.OnLoginInitalizationRequestLinkAccount(nullptr));
    login.bAnswer = false;
    EXPECT_FALSE(velmora.OnLoginInitializationRequest(szUser, Login_Types::LOGIN_DEFAULT, 9,
                                                      false));
    EXPECT_EQ(AskAll(szUser), kAllFalse);

    ASSERT_EQ(login.calls.size(), 7u);
    EXPECT_EQ(login.calls[0], (FakeLogin::Call{"Request", szUser, 7, -5, true}));
    EXPECT_EQ(login.calls[1], (FakeLogin::Call{"AdminRights", szUser, 0, 0, false}));
    EXPECT_EQ(login.calls[2], (FakeLogin::Call{"LinkAccount", nullptr, 0, 0, false}));
    EXPECT_EQ(login.calls[3], (FakeLogin::Call{"Request", szUser, 0, 9, false}));
}

TEST_F(LoginForwarding, AFailingModuleGivesFalseAndAReportUnderTheOperationsName) {
    MakeDefaultLog();
    ConnectMonitor();
    velmora.SetReportConsole(&console);
    FakeLogin login;
    velmora.SetLoginInitializationInf(&login);
    login.bFailWin32 = true;
    EXPECT_EQ(AskAll("carol"), kAllFalse);
    EXPECT_EQ(login.calls.size(), 3u);

    std::vector<std::string> reports;
    for (const char* szName : kRequestNames)
        reports.push_back(std::string(szName) + " login module down\n");
    EXPECT_EQ(console.Texts(), reports);
    std::string monitor = MonitorText();
    for (const std::string& report : reports) {
        EXPECT_EQ(CountRecords("[Exception]", report), 1) << report;
        EXPECT_EQ(CountOf(monitor, ";" + report + "\r\n"), 1) << report;
    }

    // The module works again: the forwarders hold no memory of the failure.
    login.bFailWin32 = false;
    EXPECT_EQ(AskAll("carol"), (std::vector<bool>{true, true, true}));
}

TEST_F(LoginForwarding, OnlyWin32ExceptionIsCaught) {
    MakeDefaultLog();
    FakeLogin login;
    velmora.SetLoginInitializationInf(&login);
    login.bFailWithRuntimeError = true;
    EXPECT_THROW(velmora.OnLoginInitializationRequest("dave", Login_Types::LOGIN_DEFAULT, 1,
                                                      false),
                 std::runtime_error);
    EXPECT_THROW(velmora.OnLoginInitalizationRequestAdminRights("dave"), std::runtime_error);
    EXPECT_THROW(velmora.OnLoginInitalizationRequestLinkAccount("dave"), std::runtime_error);
    EXPECT_EQ(CountOf(LogText(), "[Exception]"), 0);
}

TEST_F(LoginForwarding, EachOperationTracesUnderItsOwnName) {
    MakeDefaultLog();
    _G_TraceAll = true;
    FakeLogin login;
    velmora.SetLoginInitializationInf(&login);
    AskAll("erin");
    EXPECT_EQ(TracedNames(LogText()),
              (std::vector<std::string>{"CVelmora::SetLoginInitializationInf", kRequestNames[0],
                                        kRequestNames[1], kRequestNames[2]}));
}

// The trace comes before the work: when it fails, the pointer isn't stored and the module
// isn't asked.
TEST_F(LoginForwarding, AFailureInTheTraceStopsTheWorkAndIsReported) {
    MakeDefaultLog();
    FakeTransactionEngine engine;
    velmora.pFTSEngine = &engine;
    _G_TraceAll = true;
    FakeLogin login;

    engine.nWin32FailuresLeft = 1;
    velmora.SetLoginInitializationInf(&login);
    EXPECT_EQ(_G_pLoginInitialization, nullptr);
    EXPECT_EQ(CountRecords("[Exception]", "CVelmora::SetLoginInitializationInf engine down\n"), 1);

    velmora.SetLoginInitializationInf(&login);
    ASSERT_EQ(_G_pLoginInitialization, &login);
    for (size_t i = 0; i < std::size(kRequestNames); ++i) {
        engine.nWin32FailuresLeft = 1;
        EXPECT_FALSE(Ask(i, "frank")) << kRequestNames[i];
        EXPECT_EQ(CountRecords("[Exception]", std::string(kRequestNames[i]) + " engine down\n"),
                  1)
            << kRequestNames[i];
    }
    EXPECT_TRUE(login.calls.empty());
    // With the trace working again the module answers.
    EXPECT_EQ(AskAll("frank"), (std::vector<bool>{true, true, true}));
}
