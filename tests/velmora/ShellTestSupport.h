// Helpers of the shell output tests: the host's remote consoles and the four shell output twins.
#pragma once

#include "ReportTestSupport.h"

#include <map>

namespace velmora_shell_test {

// The console of each known source, null for any other; the questions are counted.
class RemoteConsoles : public CRemoteConsoleInf {
public:
    CReportConsoleInf* GetConsole(const char* szSource) override {
        ++nAsks;
        return szSource != nullptr && consoles.count(szSource) ? consoles[szSource] : nullptr;
    }
    std::map<std::string, CReportConsoleInf*> consoles;
    size_t nAsks = 0;
};

// The four shell output twins; the formatted ones get "%s", bLogOnly goes to those that have it.
enum class FSTwin { kPlain, kPlainInColor, kFormatted, kFormattedInColor };
constexpr FSTwin kAllFSTwins[] = {FSTwin::kPlain, FSTwin::kPlainInColor, FSTwin::kFormatted, FSTwin::kFormattedInColor};
inline void Say(FSTwin twin, const char* szSource, const std::string& text, bool bLogOnly = false, DWORD dwColour = 0x00ABCDEF) {
    const char* szText = text.c_str();
    if (twin == FSTwin::kPlain) velmora.FSLogReport(szSource, bLogOnly, szText);
    if (twin == FSTwin::kPlainInColor) velmora.FSLogReportInColor(szSource, dwColour, szText);
    if (twin == FSTwin::kFormatted) velmora.FSLogFortmatedReport(szSource, bLogOnly, "%s", szText);
    if (twin == FSTwin::kFormattedInColor) velmora.FSLogFortmatedReportInColor(szSource, dwColour, "%s", szText);
}

}  // namespace velmora_shell_test
