// The alert event catalogue: the text of every code, literally, and "Unknown" for every
// other number.
#include "include/Velmora.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <set>
#include <string>

namespace {

namespace QAS = QUOREL_ALERT_SYSTEM;

struct CatalogueRow {
    QAS::ALERT_EVENT nCode;
    int nNumber;  // the number hosts pass, spelled out against the enumerator
    const char* szText;
};

// Receivers match these texts literally, the odd spellings included.
const CatalogueRow kCatalogue[] = {
    {QAS::EXCEPTION, 1, "Exception"},
    {QAS::SCHEDULER_TURNED_ON, 2, "Scheduler Turned On"},
    {QAS::SCHEDULER_TURNED_OFF, 3, "Scheduler Turned Off"},
    {QAS::TRADING_ENABLED, 4, "Trading Enabled"},
    {QAS::TRADING_DISABLED, 5, "Trading Disabled"},
    {QAS::ALGO_SCHEDULER_TURNED_ON, 6, "Algo Scheduler Turned On"},
    {QAS::ALGO_SCHEDULER_TURNED_OFF, 7, "Algo Scheduler Turned Off"},
    {QAS::ALGO_ENGINE_ENABLED, 8, "Algo Engine Enabled"},
    {QAS::ALGO_ENGINE_DISABLED, 9, "Algo Engine Disabled"},
    {QAS::DAILY_MAINTENANCE_BEGAN, 10, "Daily Maintenance Began"},
    {QAS::DAILY_MAINTENANCE_ENDED, 11, "Daily Maintenance Ended"},
    {QAS::DAILY_MAINTENANCE_FAILED, 12, "Daily Maintenance Failed"},
    {QAS::QUOTESERVICE_CONNECTED, 13, "QuoteService Connnected"},
    {QAS::QUOTESERVICE_DISCONNECTED, 14, "QuoteService Disconnected"},
    {QAS::QUOTESERVICE_STALED, 15, "QuoteService Staled"},
    {QAS::STP_ACCOUNT_POSITION_ALERT, 16, "STP Account Position Alert"},
    {QAS::QUOTE_SERVICE_EXCEPTIONS, 17, "Quote Service Exceptions"},
    {QAS::DAILY_REPORT_BEGINS, 18, "Daily Report Begins"},
    {QAS::DAILY_REPORT_ENDS, 19, "Daily Report Ends"},
    {QAS::DAILY_REPORT_FAILED, 20, "Daily Report Failed"},
    {QAS::DATABASE_DOWN, 21, "Database Down"},
    {QAS::DATABASE_UP, 22, "Database Up"},
    {QAS::COMPLIANCE_ENABLED, 23, "Compliance Enabled"},
    {QAS::COMPLIANCE_DISABLED, 24, "Compliance Disabled"},
    {QAS::ROUTE_LOGIN, 50, "Route Login"},
    {QAS::ROUTE_LOGOUT, 51, "Route Logout"},
    {QAS::ROUTE_ENABLED, 52, "Route Enabled"},
    {QAS::ROUTE_DISABLED, 53, "Route Disabled"},
    {QAS::STALE_TRADE, 54, "Stale Trade"},
    {QAS::TRADE_LATENCY, 55, "Trade Latency"},
    {QAS::MAX_STALE_TRADES_REACHED, 56, "Maximum Number Of Stale TradesReached"},
    {QAS::ROUTE_EXCEPTIONS, 57, "Route Exceptions"},
    {QAS::ROUTE_CREDIT_CHECK_FAILED, 58, "Route Credit Check Failed Alert"},
    {QAS::MARGIN_CALL, 100, "Margin Call"},
    {QAS::MARGIN_LIQUIDATION, 101, "Margin Liquidation"},
    {QAS::USER_ENABLED, 102, "User Enabled"},
    {QAS::USER_DISABLED, 103, "User Disabled"},
    {QAS::USER_LOGIN_SUCCEEDED, 104, "User Login Succeeded"},
    {QAS::USER_LOGIN_FAILED, 105, "User Login Failed"},
    {QAS::USER_ACCOUNT_LOCKED, 106, "User Account Locked"},
    {QAS::ADMIN_TRADE_ON_BEHALF_OF, 107, "Admin Trade On Behalf Of"},
    {QAS::USER_ACCOUNT_UNLOCKED, 108, "User Account Unlocked"},
    {QAS::ADMIN_RESET_PASSWORD, 109, "Admin Reset Password"},
    {QAS::USER_LOGOUT, 110, "User Logout"},
    {QAS::MAX_DEPOSIT_LIMIT_REACHED, 111, "Maximum Deposit Limit Reached"},
    {QAS::MAX_WITHDRAWAL_LIMIT_REACHED, 112, "Maximum Withdrawal Limit Reached"},
    {QAS::SWAP_RATE_CHANGED, 113, "Swap Rate Changed"},
    {QAS::LARGE_ACCOUNT_MARGIN_CALL, 114, "Large Account Margin Call"},
    {QAS::LARGE_ACCOUNT_MARGIN_LIQUIDATION, 115, "Large Account Margin Liquidation"},
    {QAS::LARGE_TICKET_EXECUTION, 116, "Large Ticket Execution"},
    {QAS::LARGE_TICKET_ORDER_ENTRY, 117, "Large Ticket Order Entry"},
    {QAS::ACCOUNT_MAX_DRAWDOWN_REACHED, 118, "Account Reaches Maximum Drawdown"},
    {QAS::ALGO_ALERT, 119, "Algo Alert"},
    {QAS::USER_SCRIPTING_ENABLED, 120, "User Scripting Enabled"},
    {QAS::USER_SCRIPTING_DISABLED, 121, "User Scripting Disabled"},
};
static_assert(sizeof(kCatalogue) / sizeof(kCatalogue[0]) == 55);

const char* Describe(int nNumber) {
    return QAS::GetAlertEventDescription(QAS::ALERT_EVENT(nNumber));
}

TEST(AlertCatalogue, EveryCodeHasItsOwnText) {
    std::set<std::string> seen;
    for (const CatalogueRow& row : kCatalogue) {
        SCOPED_TRACE(row.nNumber);
        EXPECT_EQ(int(row.nCode), row.nNumber);
        const char* szText = QAS::GetAlertEventDescription(row.nCode);
        ASSERT_NE(szText, nullptr);
        EXPECT_STREQ(szText, row.szText);
        seen.insert(szText);
        // The text stays where it is for the life of the process.
        EXPECT_EQ(QAS::GetAlertEventDescription(row.nCode), szText);
    }
    EXPECT_EQ(seen.size(), 55u);
    EXPECT_EQ(seen.count("Unknown"), 0u);
}

TEST(AlertCatalogue, EveryOtherNumberIsUnknown) {
    std::set<int> codes;
    for (const CatalogueRow& row : kCatalogue) codes.insert(row.nNumber);
    // Around and between the blocks, and far outside them.
    for (int nNumber = -300; nNumber <= 300; ++nNumber) {
        if (codes.count(nNumber) != 0) continue;
        SCOPED_TRACE(nNumber);
        const char* szText = Describe(nNumber);
        ASSERT_NE(szText, nullptr);
        EXPECT_STREQ(szText, "Unknown");
    }
    for (int nNumber : {INT_MIN, INT_MIN + 1, -122, 1000, 65536 + 1, 65536 + 100, INT_MAX}) {
        SCOPED_TRACE(nNumber);
        EXPECT_STREQ(Describe(nNumber), "Unknown");
    }
}

}  // namespace
