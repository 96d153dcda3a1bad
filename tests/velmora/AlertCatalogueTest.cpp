// The alert event catalogue: the text of every code, literally (odd spellings included), "Unknown" for any other number.
#include "include/Velmora.h"

#include <gtest/gtest.h>

#include <climits>
#include <map>
#include <string>
#include <vector>

TEST(AlertCatalogue, EveryCodeHasItsTextAndEveryOtherNumberIsUnknown) {
    // The first number of each block, and its texts.
    const std::map<int, std::vector<const char*>> blocks = {
        {1, {"Exception", "Scheduler Turned On", "Scheduler Turned Off", "Trading Enabled", "Trading Disabled", "Algo Scheduler Turned On",
             "Algo Scheduler Turned Off", "Algo Engine Enabled", "Algo Engine Disabled", "Daily Maintenance Began", "Daily Maintenance Ended",
             "Daily Maintenance Failed", "QuoteService Connnected", "QuoteService Disconnected", "QuoteService Staled",
             "STP Account Position Alert", "Quote Service Exceptions", "Daily Report Begins", "Daily Report Ends", "Daily Report Failed",
             "Database Down", "Database Up", "Compliance Enabled", "Compliance Disabled"}},
        {50, {"Route Login", "Route Logout", "Route Enabled", "Route Disabled", "Stale Trade", "Trade Latency",
              "Maximum Number Of Stale TradesReached", "Route Exceptions", "Route Credit Check Failed Alert"}},
        {100, {"Margin Call", "Margin Liquidation", "User Enabled", "User Disabled", "User Login Succeeded", "User Login Failed",
               "User Account Locked", "Admin Trade On Behalf Of", "User Account Unlocked", "Admin Reset Password", "User Logout",
               "Maximum Deposit Limit Reached", "Maximum Withdrawal Limit Reached", "Swap Rate Changed", "Large Account Margin Call",
               "Large Account Margin Liquidation", "Large Ticket Execution", "Large Ticket Order Entry", "Account Reaches Maximum Drawdown",
               "Algo Alert", "User Scripting Enabled", "User Scripting Disabled"}}};
    std::map<int, std::string> expected;
    for (const auto& [nFirst, texts] : blocks)
        for (size_t i = 0; i < texts.size(); ++i) expected[nFirst + int(i)] = texts[i];
    std::vector<int> numbers = {INT_MIN, 65537, INT_MAX};
    for (int n = -300; n <= 300; ++n) numbers.push_back(n);
    for (int n : numbers)
        EXPECT_STREQ(QUOREL_ALERT_SYSTEM::GetAlertEventDescription(QUOREL_ALERT_SYSTEM::ALERT_EVENT(n)),
                     expected.count(n) ? expected[n].c_str() : "Unknown") << n;
}
