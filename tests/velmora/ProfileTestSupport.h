// Helpers of the profile log tests: the lines a profile log holds besides the thread's own
// records, and the ways into the protected profile operations of a log.
#pragma once

#include "LogTestSupport.h"

#include <sstream>
#include <string>

namespace velmora_profile_test {

using velmora_log_test::TextRecord;

// One line for each unit of a pause: 18 stars, the words, 19 stars.
inline std::string MarkText() {
    return std::string(18, '*') + "  Bottle Neck  " + std::string(19, '*');
}
// The start of a measured event, as the event code prints in it.
inline std::string EventStartText(int nEvent) {
    return "\r\n\r\n" + std::string(25, '-') + "    Profiling Event Code[" +
           std::to_string(nEvent) + "]   " + std::string(23, '-') + "\r\n";
}
inline std::string EventEndText() {
    return "\r\n" + std::string(31, '+') + "  End   " + std::string(36, '+');
}

// The mark record of the calling thread.
inline std::string MarkRecord() { return TextRecord(nullptr, MarkText()); }

// How many mark records a profile text holds.
inline int CountMarks(const std::string& text) {
    return velmora_log_test::CountOf(text, ";" + MarkText() + ";\r\n");
}

// A profile text without its mark records. Tests that aren't about marks compare this, so
// that a machine that stalls between two records can't make them fail.
inline std::string WithoutMarks(const std::string& text) {
    std::string mark = ";" + MarkText() + ";\r\n";
    std::string result;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find("\r\n", at);
        end = end == std::string::npos ? text.size() : end + 2;
        std::string line = text.substr(at, end - at);
        // A mark record is "HH:MM:SS[mmm];<thread>" and the mark; nothing else ends so.
        bool bMark = line.size() >= mark.size() &&
                     line.compare(line.size() - mark.size(), mark.size(), mark) == 0;
        if (!bMark) result += line;
        at = end;
    }
    return result;
}

// The protected profile operations of a log, as the service object calls them.
struct ProfileAccess : CQuorelLog {
    using CQuorelLog::AttachProfile;
    using CQuorelLog::DetachProfile;
    using CQuorelLog::EndEventProfiling;
    using CQuorelLog::StartEventProfiling;
};
inline bool Attach(CQuorelLog* pLog, const char* szProfile, DWORD dwThread, int nGap) {
    bool (CQuorelLog::*pAttach)(const char*, DWORD, int) = &ProfileAccess::AttachProfile;
    return (pLog->*pAttach)(szProfile, dwThread, nGap);
}
inline void Detach(CQuorelLog* pLog, DWORD dwThread) {
    void (CQuorelLog::*pDetach)(DWORD) = &ProfileAccess::DetachProfile;
    (pLog->*pDetach)(dwThread);
}
inline void StartEvent(CQuorelLog* pLog, int nEvent, int dwThread) {
    void (CQuorelLog::*pStart)(int, int) = &ProfileAccess::StartEventProfiling;
    (pLog->*pStart)(nEvent, dwThread);
}
inline void EndEvent(CQuorelLog* pLog, int dwThread) {
    void (CQuorelLog::*pEnd)(int) = &ProfileAccess::EndEventProfiling;
    (pLog->*pEnd)(dwThread);
}

}  // namespace velmora_profile_test
