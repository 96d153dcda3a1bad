// Helpers of the log tests: a directory service, the exact forms of records and banners, the protected operations.
#pragma once

#include "include/Velmora.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace velmora_log_test {

// Knows "LOCAL_LOGS_FOLDER" of kind 1 (empty: not found); the folder level is "<prefix>.<suffix>/".
struct TestDirectory : CDirectoryServiceInf {
    std::string localLogsFolder;
    const char *prefix = "PFX", *suffix = "SFX";
    const char* GetLogFolderSuffix() override { return suffix; }
    const char* GetLogFolderPrefix() override { return prefix; }
    void Reserved5() override {} void Reserved6() override {} void Reserved7() override {} void Reserved9() override {}
    void GetIntSetting(int, const char*, int*) override {}
    void GetStringSetting(int nKind, const char* szKey, char* szValue, int nSize) override {
        if (nKind == 1 && std::strcmp(szKey, "LOCAL_LOGS_FOLDER") == 0 && !localLogsFolder.empty() && nSize > 0)
            szValue[localLogsFolder.copy(szValue, size_t(nSize) - 1)] = '\0';
    }
};

// Also integer settings keyed "<kind>:<key>"; every question for an integer is noted.
struct SettingsDirectory : TestDirectory {
    std::map<std::string, int> ints;
    std::vector<std::pair<int, std::string>> asks;
    void GetIntSetting(int nKind, const char* szKey, int* pnValue) override {
        asks.emplace_back(nKind, szKey);
        if (auto found = ints.find(std::to_string(nKind) + ":" + szKey); found != ints.end()) *pnValue = found->second;
    }
};

inline void SetAppName(const std::string& name) {
    ASSERT_LT(name.size(), sizeof(velmora.szAppName));
    std::memcpy(velmora.szAppName, name.c_str(), name.size() + 1);
}

// The calling thread as text records print it.
inline std::string ThreadText() { return std::to_string(int(GetCurrentThreadId())); }

// n letters that change along the text, so a piece cut at a wrong place shows; never '#'.
inline std::string Letters(size_t n, size_t shift = 0) {
    std::string text(n, ' ');
    for (size_t i = 0; i < n; ++i) text[i] = char('a' + (i + shift) % 26);
    return text;
}

// '#' in a pattern stands for one decimal digit; any other character for itself.
inline ::testing::AssertionResult MatchesPattern(const std::string& text, const std::string& pattern) {
    size_t i = 0;
    while (i < std::min(text.size(), pattern.size()) && (pattern[i] == '#' ? text[i] >= '0' && text[i] <= '9' : text[i] == pattern[i])) ++i;
    if (i == text.size() && i == pattern.size()) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "differs at byte " << i << " of " << text.size() << " (" << pattern.size()
                                         << " expected)\n   text: " << text.substr(i < 40 ? 0 : i - 40, 80)
                                         << "\npattern: " << pattern.substr(i < 40 ? 0 : i - 40, 80);
}

// The pattern of a text record of the calling thread, and the banners.
inline std::string TextRecord(const char* szPrefix, const std::string& msg) {
    return "##:##:##[###];" + (szPrefix != nullptr ? std::string(szPrefix) + ";" : "") + ThreadText() + ";" + msg + ";\r\n";
}
inline std::string StartBanner() { return "--##--  ##:##:## " + std::string(78, '*') + "\r\n"; }
inline std::string ShutdownBanner() { return "--##--  ##:##:## " + std::string(89, '+') + "\r\n"; }

inline int CountOf(const std::string& text, const std::string& piece) {
    int count = 0;
    for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1)) ++count;
    return count;
}

// A log that has to open: a null log ends the test as failed.
inline CQuorelLog* MustOpen(CQuorelLog* pLog) { return pLog != nullptr ? pLog : throw std::runtime_error("the log didn't open"); }

// The protected GetDefaultLog of the service object and PersistenceClose of a log.
struct VelmoraAccess : CVelmora { using CVelmora::GetDefaultLog; };
inline CQuorelLog* CallGetDefaultLog() { return (velmora.*(&VelmoraAccess::GetDefaultLog))(); }
struct LogAccess : CQuorelLog { using CQuorelLog::PersistenceClose; };
inline void CallPersistenceClose(CQuorelLog* pLog) { (pLog->*(&LogAccess::PersistenceClose))(); }

// The whole of a log's file once everything handed to the log is in it; empty without a log.
inline std::string LogTextOf(CQuorelLog* pLog) {
    char szPath[MAX_PATH] = {};
    if (pLog != nullptr) pLog->FlushLog(), pLog->GetFullLogPath(szPath, sizeof(szPath));
    return pLog != nullptr ? velmora_test::ReadFile(szPath) : "";
}

// The end of a text record of the calling thread, from the prefix on.
inline std::string RecordEnd(const char* szPrefix, const std::string& msg) {
    return std::string(";") + szPrefix + ";" + ThreadText() + ";" + msg + ";\r\n";
}

// Direct logs go to "<temp>/log/PFX.SFX/", the log client writes into "<temp>/clients/"; the application is "App".
class LogFolderTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const std::string& folder : {tmp.path() + "/log", ClientFolder()}) std::filesystem::create_directories(folder);
        ASSERT_EQ(setenv("PELTRIX_LOG_FOLDER", ClientFolder().c_str(), 1), 0);
        directory.localLogsFolder = tmp.path(), _G_Directory = &directory;
        SetAppName("App");
    }
    void TearDown() override { _G_Directory = nullptr; }
    std::string ClientFolder() const { return tmp.path() + "/clients"; }
    std::string DirectFile(const std::string& name) const { return tmp.path() + "/log/PFX.SFX/App_" + name + ".log"; }
    std::string ClientFile(const std::string& name) const { return ClientFolder() + "/App_" + name + ".log"; }
    // A text log's content after its opening banner, which must be there.
    static std::string AfterBanner(const std::string& content) {
        std::string banner = TextRecord("START", StartBanner());
        EXPECT_TRUE(MatchesPattern(content.substr(0, banner.size()), banner));
        return content.substr(std::min(content.size(), banner.size()));
    }
    velmora_test::TempDir tmp;
    TestDirectory directory;
};

}  // namespace velmora_log_test
