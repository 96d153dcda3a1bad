// The service object as a host finds it at load, the scope guard, and the defaults of the
// plug-in interfaces.
#include "include/Velmora.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>

TEST(ServiceObject, LoadStateExportedVariablesAndNameTables) {
    EXPECT_STREQ(velmora.GetAppName(), "");
    EXPECT_EQ(velmora.GetAppName(), velmora.szAppName);  // the member itself, not a copy
    EXPECT_EQ(velmora.nLastCommand, -1);
    EXPECT_EQ(velmora.nReportLevel, 22);
    EXPECT_EQ(velmora.nAlertRepeatMS, 60000);
    EXPECT_EQ(velmora.nSubscribers, 0);
    EXPECT_EQ(velmora.pMonitor, nullptr);
    EXPECT_EQ(velmora.hInstanceMutex, nullptr);
    EXPECT_FALSE(velmora.IsMsgReportingEnabled());
    EXPECT_FALSE(velmora.bSuspended);
    for (CQuorelLog* pLog : velmora.pLogClients) EXPECT_EQ(pLog, nullptr);

    EXPECT_EQ(debugLevel, 4);
    EXPECT_EQ(globalDefaultLog, nullptr);
    EXPECT_FALSE(_G_TraceAll);
    EXPECT_STREQ(_G_SessionID, "");
    // Exactly these three flags start true.
    EXPECT_TRUE(_G_ISPrimary);
    EXPECT_TRUE(_G_bPureAsychTradingBC);
    EXPECT_TRUE(_G_bDirectDBUpdateForPositions);
    EXPECT_FALSE(_G_bAlgoMode);
    EXPECT_FALSE(_G_underMaintenance);
    EXPECT_FALSE(_G_bSuspendOnThreadPoolShort);
    EXPECT_FALSE(_G_bProgressiveLoginEnabled);

    const char* const reports[23] = {
        "[Exception]", "[Alert]", "[Runtime State]", "[Maintenance]", "[DB Engine]",
        "[FS Command]", "[FS Output]", "[Client Login]", "[Client Logout]",
        "[Account Update]", "[Route Message]", "[Execution Sent]", "[Order Received]",
        "[Received]", "[Sent]", "[Order Routing Started]", "[Order Routing Ended]",
        "[Order Routed]", "[Order Responded]", "[Algo Loaded]", "[Algo Unloaded]",
        "[Algo Loading Failed]", "[Debug]"};
    for (int i = 0; i < 23; ++i) EXPECT_STREQ(Report_Types::STR[i], reports[i]) << i;
    const char* const tags[10] = {"QUOREL", "STP", "INTX", "ACCUMULATE", "XREF_",
                                  "RISK_OCO", "RISK_MARGINCALL", "RISK_LIQUIDATION",
                                  "RISK_MGR_CANCEL", "OMS_PEG"};
    for (int i = 0; i < 10; ++i) EXPECT_STREQ(OrderTag_Types::STR[i], tags[i]) << i;
}

TEST(SmartLock, GuardsItsScopeAndNullDoesNothing) {
    CRITICAL_SECTION cs;
    InitializeCriticalSection(&cs);
    auto enteredByOther = [&cs] {
        bool bEntered = false;
        std::thread([&] {
            bEntered = TryEnterCriticalSection(&cs) != FALSE;
            if (bEntered) LeaveCriticalSection(&cs);
        }).join();
        return bEntered;
    };
    {
        CSmartLock guard(&cs);
        EXPECT_FALSE(enteredByOther());
    }
    EXPECT_TRUE(enteredByOther());
    {
        CSmartLock a(nullptr);
        CSmartLock b(nullptr);
        b = a;  // copies the pointer only; enters nothing
        EXPECT_EQ(b.pCriticalSection, nullptr);
    }
    DeleteCriticalSection(&cs);
}

TEST(Interfaces, DefaultBodies) {
    struct Directory : CDirectoryServiceInf {
        const char* GetLogFolderSuffix() override { return "s"; }
        const char* GetLogFolderPrefix() override { return "p"; }
        void Reserved5() override {}
        void Reserved6() override {}
        void Reserved7() override {}
        void GetIntSetting(int, const char*, int*) override {}
        void Reserved9() override {}
        void GetStringSetting(int, const char*, char*, int) override {}
    } directory;
    EXPECT_TRUE(directory.PrepareNewSection());
    EXPECT_EQ(directory.GetDomainAliasNames(), nullptr);

    struct Accessor : CIMDBRawDataAccessorInf {
        void Reserved1() override {}
        void Reserved2() override {}
        void Reserved3() override {}
        void Reserved4() override {}
        void Reserved5() override {}
        void Reserved6() override {}
        void Reserved7() override {}
        void Reserved8() override {}
        void Reserved9() override {}
        void Reserved10() override {}
        void Reserved11() override {}
    } accessor;
    EXPECT_FALSE(accessor.StartQuery());
    EXPECT_EQ(accessor.EndQuery(), -1);
    EXPECT_EQ(accessor.GetTotalSegments(), 0);
    EXPECT_EQ(accessor.GetAllAccountsOfSegment(1), nullptr);
    EXPECT_EQ(accessor.GetAllNetPositionsOfSegment(1), nullptr);
    EXPECT_EQ(accessor.GetTotalOpenOrderOfSegment(1), nullptr);
    EXPECT_EQ(accessor.GetTotalTradeDataOfSegment(1), nullptr);

    // A console that overrides only LogReport: not filtered, and colour reports go nowhere.
    struct NullConsole : CReportConsoleInf {
        int nReports = 0;
        void LogReport(Report_Types::DEF, char* szBlock) override {
            ++nReports;
            GlobalFree(szBlock);
        }
    } console;
    EXPECT_FALSE(console.LogFiltered(Report_Types::REPORT_DEBUG, nullptr));
    char* block = static_cast<char*>(GlobalAlloc(0, 16));
    console.LogReportInColor(Report_Types::REPORT_DEBUG, 0xFF, block);
    EXPECT_EQ(console.nReports, 0);
    GlobalFree(block);

    struct Module : CMaintenanceInf {
        int GetSubscribeOrder() override { return 7; }
    } module;
    EXPECT_TRUE(module.PrepareDailyMaintenance("a", "b", "c"));
    EXPECT_TRUE(module.DoDailyMaintenance("a", "b", "c"));
}

TEST(Win32Exception, CopiesItsDescriptionCutTo511) {
    char text[32];
    strcpy(text, "disk full");
    win32_exception failure(text);
    strcpy(text, "overwritten");
    EXPECT_STREQ(failure.what(), "disk full");
    win32_exception copy(failure);
    EXPECT_STREQ(copy.what(), "disk full");
    std::string longText(2000, 'x');
    win32_exception cut(longText.c_str());
    EXPECT_EQ(strlen(cut.what()), 511u);
}
