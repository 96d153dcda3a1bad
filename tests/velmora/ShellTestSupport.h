// Helpers of the shell output and configuration tests: consoles that can look at the state of
// the world in the middle of a call, the remote consoles of a host, and the four shell
// output twins behind one call.
#pragma once

#include "ReportTestSupport.h"

#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace velmora_shell_test {

using velmora_report_test::ConsoleCall;

// A local console that first runs a hook (to look at the log or to note an event while the
// call is on), then records and frees the block as RecordingConsole does.
class ProbedConsole : public velmora_report_test::RecordingConsole {
public:
    void LogReport(Report_Types::DEF nType, char* szBlock) override {
        if (onCall) onCall(szBlock);
        RecordingConsole::LogReport(nType, szBlock);
    }
    void LogReportInColor(Report_Types::DEF nType, DWORD dwColour, char* szBlock) override {
        if (onCall) onCall(szBlock);
        RecordingConsole::LogReportInColor(nType, dwColour, szBlock);
    }
    std::function<void(const char*)> onCall;
};

// The console of a remote operator. It only looks at the block while it is called and never
// frees it: the block isn't its own. It can be told to fail.
class ViewingConsole : public CReportConsoleInf {
public:
    void LogReport(Report_Types::DEF nType, char* szBlock) override {
        Look(nType, false, 0, szBlock);
    }
    void LogReportInColor(Report_Types::DEF nType, DWORD dwColour, char* szBlock) override {
        Look(nType, true, dwColour, szBlock);
    }

    std::vector<ConsoleCall> calls;
    std::function<void(const char*)> onCall;
    bool bFailWin32 = false;
    bool bFailWithRuntimeError = false;

private:
    void Look(Report_Types::DEF nType, bool bInColor, DWORD dwColour, char* szBlock) {
        if (onCall) onCall(szBlock);
        calls.push_back({nType, bInColor, dwColour, szBlock ? std::string(szBlock) : "",
                         reinterpret_cast<uintptr_t>(szBlock)});
        if (bFailWin32) throw win32_exception("remote down");
        if (bFailWithRuntimeError) throw std::runtime_error("not a win32_exception");
    }
};

// The host's remote consoles: the console of each known source, null for any other. Every
// question is noted.
class RemoteConsoles : public CRemoteConsoleInf {
public:
    CReportConsoleInf* GetConsole(const char* szSource) override {
        std::string source = szSource != nullptr ? szSource : "(null)";
        asks.push_back(source);
        auto found = consoles.find(source);
        return found != consoles.end() ? found->second : nullptr;
    }
    std::map<std::string, CReportConsoleInf*> consoles;
    std::vector<std::string> asks;
};

// The four shell output twins, to run one case through each.
enum class FSTwin { kPlain, kPlainInColor, kFormatted, kFormattedInColor };
constexpr FSTwin kAllFSTwins[] = {FSTwin::kPlain, FSTwin::kPlainInColor, FSTwin::kFormatted,
                                  FSTwin::kFormattedInColor};

inline const char* FSTwinName(FSTwin twin) {
    switch (twin) {
        case FSTwin::kPlain: return "CVelmora::FSLogReport";
        case FSTwin::kPlainInColor: return "CVelmora::FSLogReportInColor";
        case FSTwin::kFormatted: return "CVelmora::FSLogFortmatedReport";
        case FSTwin::kFormattedInColor: return "CVelmora::FSLogFortmatedReportInColor";
    }
    return "";
}

inline bool IsColourTwin(FSTwin twin) {
    return twin == FSTwin::kPlainInColor || twin == FSTwin::kFormattedInColor;
}

// Reports the text through a twin; the formatted twins get it through "%s". bLogOnly goes to
// the twins that have it.
inline void Say(FSTwin twin, const char* szSource, const std::string& text,
                bool bLogOnly = false, DWORD dwColour = 0x00ABCDEF) {
    switch (twin) {
        case FSTwin::kPlain: velmora.FSLogReport(szSource, bLogOnly, text.c_str()); break;
        case FSTwin::kPlainInColor:
            velmora.FSLogReportInColor(szSource, dwColour, text.c_str());
            break;
        case FSTwin::kFormatted:
            velmora.FSLogFortmatedReport(szSource, bLogOnly, "%s", text.c_str());
            break;
        case FSTwin::kFormattedInColor:
            velmora.FSLogFortmatedReportInColor(szSource, dwColour, "%s", text.c_str());
            break;
    }
}

// The stamp of a console block, as a pattern for velmora_log_test::MatchesPattern.
inline std::string StampPattern() { return "[##/## ##:##:##.###] "; }

}  // namespace velmora_shell_test
