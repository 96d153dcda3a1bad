// The alert event catalogue: the English text of each ALERT_EVENT code. Alerts of the
// five-argument AlertMsg are composed, logged and delivered under this text.
#include "include/Velmora.h"

namespace {

// One row per code, in ascending order of the code, and "Unknown" last. Hosts and alert
// receivers match these texts literally, spelling included.
const char* const kEventTexts[56] = {
    // 1 to 24
    "Exception",
    "Scheduler Turned On",
    "Scheduler Turned Off",
    "Trading Enabled",
    "Trading Disabled",
    "Algo Scheduler Turned On",
    "Algo Scheduler Turned Off",
    "Algo Engine Enabled",
    "Algo Engine Disabled",
    "Daily Maintenance Began",
    "Daily Maintenance Ended",
    "Daily Maintenance Failed",
    "QuoteService Connnected",
    "QuoteService Disconnected",
    "QuoteService Staled",
    "STP Account Position Alert",
    "Quote Service Exceptions",
    "Daily Report Begins",
    "Daily Report Ends",
    "Daily Report Failed",
    "Database Down",
    "Database Up",
    "Compliance Enabled",
    "Compliance Disabled",
    // 50 to 58
    "Route Login",
    "Route Logout",
    "Route Enabled",
    "Route Disabled",
    "Stale Trade",
    "Trade Latency",
    "Maximum Number Of Stale TradesReached",
    "Route Exceptions",
    "Route Credit Check Failed Alert",
    // 100 to 121
    "Margin Call",
    "Margin Liquidation",
    "User Enabled",
    "User Disabled",
    "User Login Succeeded",
    "User Login Failed",
    "User Account Locked",
    "Admin Trade On Behalf Of",
    "User Account Unlocked",
    "Admin Reset Password",
    "User Logout",
    "Maximum Deposit Limit Reached",
    "Maximum Withdrawal Limit Reached",
    "Swap Rate Changed",
    "Large Account Margin Call",
    "Large Account Margin Liquidation",
    "Large Ticket Execution",
    "Large Ticket Order Entry",
    "Account Reaches Maximum Drawdown",
    "Algo Alert",
    "User Scripting Enabled",
    "User Scripting Disabled",
    // any other number
    "Unknown",
};

constexpr int kUnknownRow = 55;

// The three blocks of codes and the row of each block's first code. The codes aren't dense,
// so a code is never an index by itself.
struct EventBlock {
    int nFirstCode;
    int nLastCode;
    int nFirstRow;
};
constexpr EventBlock kEventBlocks[] = {
    {QUOREL_ALERT_SYSTEM::EXCEPTION, QUOREL_ALERT_SYSTEM::COMPLIANCE_DISABLED, 0},
    {QUOREL_ALERT_SYSTEM::ROUTE_LOGIN, QUOREL_ALERT_SYSTEM::ROUTE_CREDIT_CHECK_FAILED, 24},
    {QUOREL_ALERT_SYSTEM::MARGIN_CALL, QUOREL_ALERT_SYSTEM::USER_SCRIPTING_DISABLED, 33},
};

// The blocks must fill the rows before "Unknown" exactly, without gap or overlap.
constexpr bool BlocksFillTheTable() {
    int nRow = 0;
    for (const EventBlock& block : kEventBlocks) {
        if (block.nFirstRow != nRow) return false;
        nRow += block.nLastCode - block.nFirstCode + 1;
    }
    return nRow == kUnknownRow;
}
static_assert(BlocksFillTheTable());

}  // namespace

// Constant time and no allocation: it runs inside the alert intake for every alert.
const char* QUOREL_ALERT_SYSTEM::GetAlertEventDescription(ALERT_EVENT nEvent) {
    const int nCode = int(nEvent);
    for (const EventBlock& block : kEventBlocks) {
        if (nCode >= block.nFirstCode && nCode <= block.nLastCode)
            return kEventTexts[block.nFirstRow + (nCode - block.nFirstCode)];
    }
    return kEventTexts[kUnknownRow];
}
