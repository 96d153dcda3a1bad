// Helpers of the profile log tests: the lines of a profile log besides records, the protected profile operations.
#pragma once

#include "LogTestSupport.h"

#include <string>

namespace velmora_profile_test {

// One line for each unit of a pause, and the lines around a measured event.
inline std::string MarkText() { return std::string(18, '*') + "  Bottle Neck  " + std::string(19, '*'); }
inline std::string EventStartText(int nEvent) {
    return "\r\n\r\n" + std::string(25, '-') + "    Profiling Event Code[" + std::to_string(nEvent) + "]   " + std::string(23, '-') + "\r\n";
}
inline std::string EventEndText() { return "\r\n" + std::string(31, '+') + "  End   " + std::string(36, '+'); }

// A profile text without its mark records, so that a stall can't fail a test that isn't about marks.
inline std::string WithoutMarks(std::string text) {
    for (size_t at = text.find(MarkText()); at != std::string::npos; at = text.find(MarkText())) {
        size_t start = text.rfind("\r\n", at), end = text.find("\r\n", at) + 2;
        start = start == std::string::npos ? 0 : start + 2;
        text.erase(start, end - start);
    }
    return text;
}

// The protected profile operations, as the service object calls them.
struct ProfileAccess : CQuorelLog {
    using CQuorelLog::AttachProfile, CQuorelLog::DetachProfile, CQuorelLog::EndEventProfiling, CQuorelLog::StartEventProfiling;
};
inline bool Attach(CQuorelLog* p, const char* szName, DWORD dwThread, int nGap) { return (p->*(&ProfileAccess::AttachProfile))(szName, dwThread, nGap); }
inline void Detach(CQuorelLog* p, DWORD dwThread) { (p->*(&ProfileAccess::DetachProfile))(dwThread); }
inline void StartEvent(CQuorelLog* p, int nEvent, int nThread) { (p->*(&ProfileAccess::StartEventProfiling))(nEvent, nThread); }
inline void EndEvent(CQuorelLog* p, int nThread) { (p->*(&ProfileAccess::EndEventProfiling))(nThread); }

}  // namespace velmora_profile_test
