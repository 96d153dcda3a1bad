// The service object as a host finds it at load, the scope guard on null, default bodies of the interfaces, the failure class.
#include "LogTestSupport.h"

#include <tuple>

TEST(ServiceObject, LoadStateAndNameTables) {
    EXPECT_EQ(std::make_tuple(std::string(velmora.GetAppName()), velmora.nLastCommand, velmora.nReportLevel, velmora.nAlertRepeatMS),
              std::make_tuple(std::string(), -1, 22, 60000));
    std::string names;
    for (const char* szName : Report_Types::STR) names += std::string(szName) + "|";
    for (const char* szTag : OrderTag_Types::STR) names += std::string(szTag) + "|";
    EXPECT_EQ(names,
              "[Exception]|[Alert]|[Runtime State]|[Maintenance]|[DB Engine]|[FS Command]|[FS Output]|[Client Login]|"
              "[Client Logout]|[Account Update]|[Route Message]|[Execution Sent]|[Order Received]|[Received]|[Sent]|"
              "[Order Routing Started]|[Order Routing Ended]|[Order Routed]|[Order Responded]|[Algo Loaded]|[Algo Unloaded]|"
              "[Algo Loading Failed]|[Debug]|QUOREL|STP|INTX|ACCUMULATE|XREF_|RISK_OCO|RISK_MARGINCALL|RISK_LIQUIDATION|"
              "RISK_MGR_CANCEL|OMS_PEG|");
}

// A guard over null enters nothing; a failure keeps a copy of its description, cut to 511 characters.
TEST(ServiceObject, NullGuardAndTheFailureClass) {
    CSmartLock none(nullptr);
    EXPECT_EQ((none = CSmartLock(nullptr)).pCriticalSection, nullptr);
    char szText[16] = "disk full";
    win32_exception failure(szText);
    std::strcpy(szText, "overwritten");
    EXPECT_STREQ(win32_exception(failure).what(), "disk full");
    EXPECT_EQ(std::string(win32_exception(std::string(2000, 'x').c_str()).what()), std::string(511, 'x'));
}

// What a host's objects answer where they keep the library's bodies.
TEST(ServiceObject, DefaultBodiesOfTheInterfaces) {
    struct : CIMDBRawDataAccessorInf {
        void Reserved1() override {} void Reserved2() override {} void Reserved3() override {} void Reserved4() override {}
        void Reserved5() override {} void Reserved6() override {} void Reserved7() override {} void Reserved8() override {}
        void Reserved9() override {} void Reserved10() override {} void Reserved11() override {}
    } accessor;
    EXPECT_EQ(std::make_tuple(accessor.StartQuery(), accessor.EndQuery(), accessor.GetTotalSegments(), accessor.GetAllAccountsOfSegment(1),
                              accessor.GetAllNetPositionsOfSegment(1), accessor.GetTotalOpenOrderOfSegment(1), accessor.GetTotalTradeDataOfSegment(1)),
              std::make_tuple(false, -1, 0, nullptr, nullptr, nullptr, nullptr));
    velmora_log_test::TestDirectory directory;
    struct : CReportConsoleInf { void LogReport(Report_Types::DEF, char*) override {} } console;
    struct : CMaintenanceInf { int GetSubscribeOrder() override { return 7; } } module;
    EXPECT_TRUE(directory.PrepareNewSection() && directory.GetDomainAliasNames() == nullptr && !console.LogFiltered(Report_Types::REPORT_DEBUG, nullptr));
    EXPECT_TRUE(module.PrepareDailyMaintenance("a", "b", "c") && module.DoDailyMaintenance("a", "b", "c"));
}
