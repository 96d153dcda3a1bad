// Helpers of the log tests: a directory service with a log folder, the exact forms of
// records and banners, and the ways into the protected operations that the tests need.
//
// Every test runs in a process of its own (gtest_discover_tests): `velmora` and its table
// of logs start empty in each.
#pragma once

#include "include/Velmora.h"
#include "tests/support/TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace velmora_log_test {

// A directory service that knows one setting, "LOCAL_LOGS_FOLDER" of section kind 1, and
// names the folder level "<prefix>.<suffix>/".
class TestDirectory : public CDirectoryServiceInf {
public:
    std::string localLogsFolder;  // empty: the key isn't found
    const char* prefix = "PFX";
    const char* suffix = "SFX";

    const char* GetLogFolderSuffix() override { return suffix; }
    const char* GetLogFolderPrefix() override { return prefix; }
    void Reserved5() override {}
    void Reserved6() override {}
    void Reserved7() override {}
    void GetIntSetting(int, const char*, int*) override {}
    void Reserved9() override {}
    void GetStringSetting(int nKind, const char* szKey, char* szValue, int nSize) override {
        if (nKind != 1 || std::strcmp(szKey, "LOCAL_LOGS_FOLDER") != 0) return;
        if (localLogsFolder.empty() || nSize <= 0) return;
        size_t n = localLogsFolder.size() < size_t(nSize) - 1 ? localLogsFolder.size()
                                                              : size_t(nSize) - 1;
        std::memcpy(szValue, localLogsFolder.data(), n);
        szValue[n] = '\0';
    }
};

// The log folder of TestDirectory, and integer settings keyed "<kind>:<key>". Every
// question for an integer is noted, found or not.
class SettingsDirectory : public TestDirectory {
public:
    std::map<std::string, int> ints;
    std::vector<std::pair<int, std::string>> asks;
    void GetIntSetting(int nKind, const char* szKey, int* pnValue) override {
        asks.emplace_back(nKind, szKey);
        auto found = ints.find(std::to_string(nKind) + ":" + szKey);
        if (found != ints.end()) *pnValue = found->second;
    }
};

inline void SetAppName(const std::string& name) {
    ASSERT_LT(name.size(), sizeof(velmora.szAppName));
    std::memcpy(velmora.szAppName, name.c_str(), name.size() + 1);
}

// The calling thread as text records print it.
inline std::string ThreadText() { return std::to_string(int(GetCurrentThreadId())); }

// A text of n letters that changes along its length, so that a piece cut at a wrong place
// shows. It never holds '#', the digit wildcard of MatchesPattern.
inline std::string Letters(size_t n, size_t shift = 0) {
    std::string text(n, ' ');
    for (size_t i = 0; i < n; ++i) text[i] = char('a' + (i + shift) % 26);
    return text;
}

// '#' in a pattern stands for one decimal digit; any other character stands for itself.
inline ::testing::AssertionResult MatchesPattern(const std::string& text,
                                                 const std::string& pattern) {
    size_t n = text.size() < pattern.size() ? text.size() : pattern.size();
    for (size_t i = 0; i < n; ++i) {
        bool ok = pattern[i] == '#' ? (text[i] >= '0' && text[i] <= '9') : text[i] == pattern[i];
        if (!ok)
            return ::testing::AssertionFailure()
                   << "differs at byte " << i << "\n   text: "
                   << ::testing::PrintToString(text.substr(i < 40 ? 0 : i - 40, 80))
                   << "\npattern: "
                   << ::testing::PrintToString(pattern.substr(i < 40 ? 0 : i - 40, 80));
    }
    if (text.size() != pattern.size())
        return ::testing::AssertionFailure() << "length " << text.size() << ", expected "
                                             << pattern.size();
    return ::testing::AssertionSuccess();
}

// The pattern of a text record of the calling thread.
inline std::string TextRecord(const char* szPrefix, const std::string& msg) {
    std::string record = "##:##:##[###];";
    if (szPrefix != nullptr) record += std::string(szPrefix) + ";";
    return record + ThreadText() + ";" + msg + ";\r\n";
}

// The pattern of a raw record.
inline std::string RawRecord(const char* szPrefix, const std::string& msg) {
    return szPrefix != nullptr ? std::string(szPrefix) + ";" + msg + "\r\n" : msg;
}

inline std::string StartBanner() { return "--##--  ##:##:## " + std::string(78, '*') + "\r\n"; }
inline std::string ShutdownBanner() {
    return "--##--  ##:##:## " + std::string(89, '+') + "\r\n";
}

// How often a text holds a piece.
inline int CountOf(const std::string& text, const std::string& piece) {
    int count = 0;
    for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1))
        ++count;
    return count;
}

// A log that has to open. A null log ends the test as failed (GoogleTest reports the
// exception), so that the caller needs no check of its own.
inline CQuorelLog* MustOpen(CQuorelLog* pLog) {
    if (pLog == nullptr) throw std::runtime_error("the log didn't open");
    return pLog;
}

// The protected GetDefaultLog of the service object.
struct VelmoraAccess : CVelmora {
    using CVelmora::GetDefaultLog;
};
inline CQuorelLog* CallGetDefaultLog() {
    CQuorelLog* (CVelmora::*pGet)() = &VelmoraAccess::GetDefaultLog;
    return (velmora.*pGet)();
}

// The protected PersistenceClose of a log, as Shutdown uses it on the shared logs.
struct LogAccess : CQuorelLog {
    using CQuorelLog::PersistenceClose;
};
inline void CallPersistenceClose(CQuorelLog* pLog) {
    void (CQuorelLog::*pClose)() = &LogAccess::PersistenceClose;
    (pLog->*pClose)();
}

// The whole of a log's file, once everything handed to the log is in it; empty without a log.
inline std::string LogTextOf(CQuorelLog* pLog) {
    if (pLog == nullptr) return "";
    pLog->FlushLog();
    char szPath[MAX_PATH] = {};
    pLog->GetFullLogPath(szPath, sizeof(szPath));
    return velmora_test::ReadFile(szPath);
}

// The end of a text record of the calling thread, from the prefix on.
inline std::string RecordEnd(const char* szPrefix, const std::string& msg) {
    return std::string(";") + szPrefix + ";" + ThreadText() + ";" + msg + ";\r\n";
}

// A test whose direct logs go to "<temp>/log/PFX.SFX/" (the folder TestDirectory gives) and
// whose log client writes into "<temp>/clients/"; the application is "App".
class LogFolderTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories(tmp.path() + "/log");
        std::filesystem::create_directories(ClientFolder());
        ASSERT_EQ(setenv("PELTRIX_LOG_FOLDER", ClientFolder().c_str(), 1), 0);
        directory.localLogsFolder = tmp.path();
        _G_Directory = &directory;
        SetAppName("App");
    }
    void TearDown() override { _G_Directory = nullptr; }

    std::string ClientFolder() const { return tmp.path() + "/clients"; }
    std::string DirectFile(const std::string& name) const {
        return tmp.path() + "/log/PFX.SFX/App_" + name + ".log";
    }
    std::string ClientFile(const std::string& name) const {
        return ClientFolder() + "/App_" + name + ".log";
    }
    // A text log's content after its opening banner, which must be there.
    static std::string AfterBanner(const std::string& content) {
        std::string banner = TextRecord("START", StartBanner());
        EXPECT_TRUE(MatchesPattern(content.substr(0, banner.size()), banner));
        return content.size() < banner.size() ? std::string() : content.substr(banner.size());
    }

    velmora_test::TempDir tmp;
    TestDirectory directory;
};

}  // namespace velmora_log_test
