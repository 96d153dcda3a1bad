// The log object: the log folder, the record formats and their limits, the long-message
// split, the session change and the closing, in direct-file and in log-client mode.
#include "LogTestSupport.h"

#include <chrono>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>
#include <vector>

#include <unistd.h>

namespace fs = std::filesystem;
using namespace velmora_log_test;
using velmora_test::FileExists;
using velmora_test::ReadFile;
using velmora_test::SplitLines;
using velmora_test::TempDir;

namespace {

// Direct-file logs (QuorelLogDirect) in "<temp>/log/PFX.SFX/", the folder that the directory
// service gives, or log-client logs (QuorelLogClient), whose files the client writes into
// PELTRIX_LOG_FOLDER.
template <bool kDirect>
class QuorelLogFixture : public LogFolderTest {
protected:
    std::string Folder() const {
        return kDirect ? tmp.path() + "/log/PFX.SFX/" : ClientFolder() + "/";
    }
    std::string FileOf(const std::string& name) const { return Folder() + "App_" + name + ".log"; }
    // A private log of the fixture's mode; a text log starts with its "START" banner.
    CQuorelLog* Open(const char* szName, bool bTextMode) {
        return velmora.GetLogClient(szName, bTextMode, kDirect, false);
    }
    // The file of a text log after its opening banner, which must be there.
    std::string Body(const std::string& name) { return AfterBanner(ReadFile(FileOf(name))); }
};
using QuorelLogDirect = QuorelLogFixture<true>;
using QuorelLogClient = QuorelLogFixture<false>;

// The folder of the test program, with its closing '/'.
std::string ExecutableFolder() {
    char path[PATH_MAX] = {};
    ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
    std::string exe(path, n > 0 ? size_t(n) : 0);
    return exe.substr(0, exe.rfind('/') + 1);
}

}  // namespace

// ---- The log folder --------------------------------------------------------------------

TEST_F(QuorelLogDirect, FolderIsTheSameWithOrWithoutClosingSlash) {
    for (auto [szName, szEnd] : {std::pair{"first", ""}, std::pair{"second", "/"}}) {
        directory.localLogsFolder = tmp.path() + szEnd;
        MustOpen(Open(szName, false))->Close();
        EXPECT_STREQ(_G_LogFileFolder, Folder().c_str()) << szName;
        EXPECT_TRUE(FileExists(FileOf(szName)));
    }
}

TEST_F(QuorelLogDirect, FolderLevelComesFromPrefixAndSuffixAndNeedsTheLogFolder) {
    directory.prefix = "pre";
    directory.suffix = "suf";
    fs::remove_all(tmp.path() + "/log");

    // One level is made: without "log/" the level "pre.suf/" can't be, and nothing opens.
    EXPECT_EQ(Open("x", false), nullptr);
    EXPECT_STREQ(_G_LogFileFolder, (tmp.path() + "/log/pre.suf/").c_str());
    EXPECT_FALSE(fs::exists(tmp.path() + "/log"));

    fs::create_directories(tmp.path() + "/log");
    CQuorelLog* pLog = MustOpen(Open("x", false));
    EXPECT_TRUE(FileExists(tmp.path() + "/log/pre.suf/App_x.log"));
    pLog->Close();
}

TEST(QuorelLogFolder, WithoutDirectoryServiceIsLogBesideTheExecutable) {
    _G_Directory = nullptr;
    std::string app = velmora_test::UniqueName("NoDir");
    SetAppName(app);
    CQuorelLog* pLog = velmora.GetLogClient("plain", false, true, false);
    std::string expected = ExecutableFolder() + "log/";
    EXPECT_STREQ(_G_LogFileFolder, expected.c_str());
    ASSERT_NE(pLog, nullptr);
    pLog->Log(nullptr, "beside the program");
    pLog->Close();
    std::string file = expected + app + "_plain.log";
    EXPECT_EQ(ReadFile(file), "beside the program");
    fs::remove(file);
}

TEST_F(QuorelLogDirect, PathOfMaxPathLessOneOpensAndALongerOneIsRefused) {
    // "<temp>/<pad>/log/PFX.SFX/App_<name>.log": 259 characters with a name of one letter.
    size_t fixed = tmp.path().size() + 1 + std::string("/log/PFX.SFX/App_n.log").size();
    ASSERT_LT(fixed + 1, size_t(MAX_PATH) - 1) << "temporary folder too deep for this test";
    std::string base = tmp.path() + "/" + std::string(MAX_PATH - 1 - fixed, 'd');
    fs::create_directories(base + "/log");
    directory.localLogsFolder = base;

    CQuorelLog* pFits = MustOpen(Open("n", false));
    std::string path = base + "/log/PFX.SFX/App_n.log";
    ASSERT_EQ(path.size(), size_t(MAX_PATH) - 1);
    EXPECT_TRUE(FileExists(path));
    char szPath[MAX_PATH];
    pFits->GetFullLogPath(szPath, sizeof(szPath));
    EXPECT_EQ(std::string(szPath), path);
    pFits->Close();

    // One character more can't be held: the log doesn't open, not even a shortened file.
    EXPECT_EQ(Open("nn", false), nullptr);
    EXPECT_FALSE(FileExists(base + "/log/PFX.SFX/App_nn.log"));
    EXPECT_EQ(std::distance(fs::directory_iterator(base + "/log/PFX.SFX"), fs::directory_iterator()),
              1);
}

TEST_F(QuorelLogDirect, FolderTooLongIsCutAndItsLogRefused) {
    directory.localLogsFolder = tmp.path() + "/" + std::string(1100, 'f');
    EXPECT_EQ(Open("x", false), nullptr);
    // The setting arrives in 1024 bytes; the folder is cut to 1023 characters behind it.
    EXPECT_EQ(std::strlen(_G_LogFileFolder), sizeof(_G_LogFileFolder) - 1);
    EXPECT_EQ(std::string(_G_LogFileFolder), directory.localLogsFolder.substr(0, 1023));
}

// ---- Direct records ----------------------------------------------------------------------

TEST_F(QuorelLogDirect, TextAndRawRecordForms) {
    CQuorelLog* pText = MustOpen(Open("text", true));
    EXPECT_TRUE(pText->bTextMode);
    EXPECT_TRUE(pText->bDirectFile);
    EXPECT_EQ(pText->pClient, nullptr);
    EXPECT_EQ(pText->nBottleNeckUnit, 25);
    pText->Log("[Alert]", "link down");
    pText->Log(nullptr, "no prefix");
    pText->Log(nullptr, "own line end\n");  // kept, before the closing semicolon
    pText->Log("P", nullptr);               // no record
    EXPECT_TRUE(MatchesPattern(Body("text"), TextRecord("[Alert]", "link down") +
                                                 TextRecord(nullptr, "no prefix") +
                                                 TextRecord(nullptr, "own line end\n")));

    CQuorelLog* pRaw = MustOpen(Open("raw", false));
    pRaw->Log("P", "with prefix");
    pRaw->Log(nullptr, "bytes as given");
    pRaw->Log(nullptr, nullptr);
    EXPECT_EQ(ReadFile(FileOf("raw")), "P;with prefix\r\nbytes as given");

    pText->Close();
    pRaw->Close();
}

TEST_F(QuorelLogDirect, FormattedRecordIsCutAt1023Bytes) {
    CQuorelLog* pText = MustOpen(Open("text", true));
    // The head "HH:MM:SS[mmm];P;<thread>;" and the tail ";\r\n" around the message.
    size_t room = 1023 - (14 + 2 + ThreadText().size() + 1) - 3;
    std::string exact = Letters(room);
    std::string oneMore = Letters(room + 1, 1);
    std::string longer = Letters(3000, 2);
    pText->Log("P", exact.c_str());
    pText->Log("P", oneMore.c_str());
    pText->Log("P", longer.c_str());
    std::string whole = TextRecord("P", exact);
    ASSERT_EQ(whole.size(), 1023u);
    std::string cut = TextRecord("P", oneMore).substr(0, 1023);
    EXPECT_EQ(cut.substr(1021), ";\r");  // the line feed is the byte that didn't fit
    EXPECT_TRUE(MatchesPattern(Body("text"), whole + cut + TextRecord("P", longer).substr(0, 1023)));

    CQuorelLog* pRaw = MustOpen(Open("raw", false));
    std::string rawPrefixed = Letters(1021);  // "P;" + 1021 fits; the "\r\n" doesn't
    std::string rawBare = Letters(3000, 3);
    pRaw->Log("P", rawPrefixed.c_str());
    pRaw->Log(nullptr, rawBare.c_str());
    EXPECT_EQ(ReadFile(FileOf("raw")), "P;" + rawPrefixed + rawBare);

    pText->Close();
    pRaw->Close();
}

TEST_F(QuorelLogDirect, NewLogAppendsBehindExistingContent) {
    fs::create_directories(Folder());
    std::ofstream(FileOf("old"), std::ios::binary) << "written before\r\n";
    CQuorelLog* pRaw = MustOpen(Open("old", false));
    pRaw->Log(nullptr, "first");
    pRaw->Close();
    CQuorelLog* pAgain = MustOpen(Open("old", false));
    pAgain->Log("P", "second");
    pAgain->Close();
    EXPECT_EQ(ReadFile(FileOf("old")), "written before\r\nfirstP;second\r\n");
}

TEST_F(QuorelLogDirect, ThreadsWriteWholeRecordsWithTheirIds) {
    CQuorelLog* pLog = MustOpen(Open("threads", true));
    constexpr int kThreads = 4;
    constexpr int kRecords = 250;
    std::vector<std::string> ids(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ids[t] = ThreadText();
            for (int i = 0; i < kRecords; ++i)
                pLog->Log("T", (std::to_string(t) + "-" + std::to_string(i)).c_str());
        });
    }
    for (std::thread& thread : threads) thread.join();

    std::vector<std::string> lines = SplitLines(Body("threads"));
    ASSERT_EQ(lines.size(), size_t(kThreads * kRecords));
    std::set<std::string> seen;
    for (const std::string& line : lines) {
        // "HH:MM:SS[mmm];T;<thread>;<t>-<i>;": the message tells which thread wrote it.
        size_t idEnd = line.find(';', 16);
        ASSERT_NE(idEnd, std::string::npos) << line;
        std::string message = line.substr(idEnd + 1, line.size() - idEnd - 2);
        int t = std::atoi(message.c_str());
        ASSERT_TRUE(t >= 0 && t < kThreads) << line;
        EXPECT_TRUE(MatchesPattern(line, "##:##:##[###];T;" + ids[t] + ";" + message + ";"));
        seen.insert(message);
    }
    pLog->Close();
    EXPECT_EQ(seen.size(), size_t(kThreads * kRecords));
}

// ---- Long messages -------------------------------------------------------------------------

TEST_F(QuorelLogDirect, OneArgumentLogAndPrintSendLongTextsThroughPieces) {
    CQuorelLog* pLog = MustOpen(Open("one", true));
    std::string below = Letters(449);
    std::string limit = Letters(450, 1);
    std::string three = Letters(925, 2);
    std::string buffer = below;
    pLog->Log(buffer.data());
    buffer = limit;
    pLog->Log(buffer.data());
    buffer = three;
    pLog->Log(buffer.data());
    EXPECT_EQ(buffer, three);
    EXPECT_TRUE(MatchesPattern(Body("one"), TextRecord(nullptr, below) +
                                                TextRecord(nullptr, limit) +
                                                TextRecord(nullptr, three.substr(0, 462)) +
                                                TextRecord(nullptr, three.substr(462, 462)) +
                                                TextRecord(nullptr, three.substr(924))));
    pLog->Close();

    // Print: formatted into 4096 bytes, so 4095 characters reach the pieces at most.
    CQuorelLog* pPrint = MustOpen(Open("print", true));
    std::string huge = Letters(5000);
    pPrint->Print("%s-%d", "abc", 5);
    pPrint->Print("%s", limit.c_str());
    pPrint->Print("%s", huge.c_str());
    std::string expected = TextRecord(nullptr, "abc-5") + TextRecord(nullptr, limit);
    for (size_t at = 0; at < 4095; at += 462)
        expected += TextRecord(nullptr, huge.substr(at, at + 462 <= 4095 ? 462 : 4095 - at));
    EXPECT_TRUE(MatchesPattern(Body("print"), expected));
    pPrint->Close();
}

// Pieces of 462 characters less the prefix, at each limit; the caller's buffer is whole
// again afterwards.
TEST_F(QuorelLogDirect, LogLongMsgCutsPiecesOf462LessThePrefix) {
    CQuorelLog* pLog = MustOpen(Open("long", true));
    const std::string prefix461(461, 'p');  // leaves pieces of one character
    struct Case {
        const char* szPrefix;
        size_t nPiece;
        std::vector<size_t> lengths;
    };
    std::string expected;
    for (const Case& c : {Case{nullptr, 462, {462, 463, 924, 925}}, Case{"ABC", 459, {459, 460, 918}},
                          Case{prefix461.c_str(), 1, {3}}}) {
        for (size_t length : c.lengths) {
            SCOPED_TRACE(::testing::Message() << (c.szPrefix ? c.szPrefix : "(none)") << ", " << length);
            std::string message = Letters(length, length);
            std::string buffer = message;
            pLog->LogLongMsg(c.szPrefix, buffer.data());
            EXPECT_EQ(buffer, message);
            for (size_t at = 0; at < length; at += c.nPiece)
                expected += TextRecord(c.szPrefix, message.substr(at, c.nPiece));
        }
    }
    // An empty message is one empty record.
    char empty[1] = "";
    pLog->LogLongMsg(nullptr, empty);
    expected += TextRecord(nullptr, "");
    // From a prefix of 462 on there are no pieces: the message goes out in one record, cut at
    // 1023.
    std::string prefix462(462, 'q');
    std::string message = Letters(1000);
    std::string buffer = message;
    pLog->LogLongMsg(prefix462.c_str(), buffer.data());
    EXPECT_EQ(buffer, message);
    expected += TextRecord(prefix462.c_str(), message).substr(0, 1023);
    EXPECT_TRUE(MatchesPattern(Body("long"), expected));
    pLog->Close();
}

TEST_F(QuorelLogDirect, RawLogLongMsgIsSplitOnlyWithAPrefix) {
    CQuorelLog* pLog = MustOpen(Open("raw", false));
    std::string message = Letters(925);
    std::string buffer = message;
    pLog->LogLongMsg("P", buffer.data());  // pieces of 461
    EXPECT_EQ(buffer, message);
    std::string bare = Letters(1500, 7);
    buffer = bare;
    pLog->LogLongMsg(nullptr, buffer.data());
    EXPECT_EQ(buffer, bare);
    EXPECT_EQ(ReadFile(FileOf("raw")), RawRecord("P", message.substr(0, 461)) +
                                           RawRecord("P", message.substr(461, 461)) +
                                           RawRecord("P", message.substr(922)) + bare);
    pLog->Close();
}

// ---- State, path, session and closing in direct-file mode ------------------------------------

TEST_F(QuorelLogDirect, ClosingWritesTheShutdownBannerInTextModeOnly) {
    CQuorelLog* pText = MustOpen(Open("text", true));
    EXPECT_EQ(pText->GetLongRawMsgThreshHold(), 482);
    pText->Log("P", "last");
    pText->Close();
    EXPECT_TRUE(MatchesPattern(Body("text"), TextRecord("P", "last") +
                                                 TextRecord("SHUTDOWN", ShutdownBanner())));

    CQuorelLog* pRaw = MustOpen(Open("raw", false));
    pRaw->Log(nullptr, "raw");
    pRaw->Close();
    EXPECT_EQ(ReadFile(FileOf("raw")), "raw");

    // A shared log closed as Shutdown closes it drops what comes after.
    CQuorelLog* pShared = MustOpen(velmora.GetLogClient("shared", true, true, true));
    CallPersistenceClose(pShared);
    EXPECT_EQ(pShared->hFile, INVALID_HANDLE_VALUE);
    EXPECT_EQ(pShared->GetLongRawMsgThreshHold(), 482);
    pShared->Log("P", "dropped");
    char szAfter[] = "dropped too";
    pShared->LogLongMsg("P", szAfter);
    EXPECT_TRUE(MatchesPattern(Body("shared"), TextRecord("SHUTDOWN", ShutdownBanner())));
}

TEST_F(QuorelLogDirect, FullLogPathAndSessionChange) {
    CQuorelLog* pLog = MustOpen(Open("path", false));
    std::string path = FileOf("path");

    char szBuffer[MAX_PATH];
    pLog->GetFullLogPath(szBuffer, sizeof(szBuffer));
    EXPECT_EQ(std::string(szBuffer), path);
    // A size of 0 stands for MAX_PATH.
    std::memset(szBuffer, 'Z', sizeof(szBuffer));
    pLog->GetFullLogPath(szBuffer, 0);
    EXPECT_EQ(std::string(szBuffer), path);
    // A small buffer gets what fits, with its terminator, and nothing behind it.
    char szSmall[32];
    std::memset(szSmall, 'Z', sizeof(szSmall));
    pLog->GetFullLogPath(szSmall, 10);
    EXPECT_EQ(std::string(szSmall), path.substr(0, 9));
    for (size_t i = 10; i < sizeof(szSmall); ++i) EXPECT_EQ(szSmall[i], 'Z') << i;

    // A direct log has no session to change: no record.
    pLog->Log(nullptr, "before");
    EXPECT_FALSE(pLog->ChangeLogSession("S1"));
    pLog->FlushLog();
    EXPECT_EQ(ReadFile(path), "before");
    pLog->Close();
}

// ---- Log-client mode -------------------------------------------------------------------------

TEST_F(QuorelLogClient, PrefixedMessagesAreCutTo512) {
    CQuorelLog* pLog = MustOpen(Open("cut", true));
    ASSERT_NE(pLog->pClient, nullptr);
    EXPECT_EQ(pLog->hFile, INVALID_HANDLE_VALUE);
    EXPECT_EQ(pLog->GetLongRawMsgThreshHold(), 738);

    std::string exact = Letters(512);
    std::string over = Letters(513, 1);
    std::string long925 = Letters(925, 2);
    pLog->Log("P", exact.c_str());
    pLog->Log("P", over.c_str());
    pLog->Log(nullptr, over.c_str());
    // LogLongMsg and the one-argument Log of a long text hand the message to the client
    // whole, whatever the prefix.
    std::string buffer = over;
    pLog->LogLongMsg("P", buffer.data());
    EXPECT_EQ(buffer, over);
    buffer = long925;
    pLog->LogLongMsg(nullptr, buffer.data());
    buffer = long925;
    pLog->Log(buffer.data());
    pLog->Log(std::string(449, 'w').data());
    pLog->FlushLog();

    std::string content = ReadFile(FileOf("cut"));
    std::string expected = TextRecord("START", StartBanner()) + TextRecord("P", exact) +
                           TextRecord("P", over.substr(0, 512)) + TextRecord(nullptr, over) +
                           TextRecord("P", over) + TextRecord(nullptr, long925) +
                           TextRecord(nullptr, long925) +
                           TextRecord(nullptr, std::string(449, 'w'));
    EXPECT_TRUE(MatchesPattern(content, expected));

    char szPath[MAX_PATH] = "";
    pLog->GetFullLogPath(szPath, sizeof(szPath));
    EXPECT_EQ(std::string(szPath), FileOf("cut"));

    pLog->Close();
    EXPECT_TRUE(MatchesPattern(ReadFile(FileOf("cut")),
                               expected + TextRecord("SHUTDOWN", ShutdownBanner())));
}

TEST_F(QuorelLogClient, RawClientRecords) {
    CQuorelLog* pLog = MustOpen(Open("raw", false));
    std::string over = Letters(600);
    pLog->Log("P", over.c_str());
    pLog->Log(nullptr, "bare");
    pLog->Close();  // raw: no banner
    EXPECT_EQ(ReadFile(FileOf("raw")), RawRecord("P", over.substr(0, 512)) + "bare");
}

TEST_F(QuorelLogClient, ClosedClientLogDropsRecordsAndKeepsTheCallersBuffer) {
    CQuorelLog* pLog = MustOpen(velmora.GetLogClient("shared", false, false, true));
    pLog->Log(nullptr, "kept");
    CallPersistenceClose(pLog);
    EXPECT_EQ(pLog->pClient, nullptr);
    EXPECT_EQ(pLog->GetLongRawMsgThreshHold(), 482);
    pLog->Log(nullptr, "dropped");
    char szLong[] = "dropped too";
    pLog->LogLongMsg(nullptr, szLong);
    pLog->FlushLog();
    EXPECT_FALSE(pLog->ChangeLogSession("S1"));
    char szPath[16] = "unchanged";
    pLog->GetFullLogPath(szPath, sizeof(szPath));
    EXPECT_STREQ(szPath, "unchanged");
    EXPECT_EQ(ReadFile(FileOf("shared")), "kept");
}

TEST_F(QuorelLogClient, SessionMarkerFollowsEarlierRecords) {
    CQuorelLog* pLog = MustOpen(Open("sess", true));
    pLog->Log("P", "one");
    pLog->Log(nullptr, "two");
    auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(pLog->ChangeLogSession("S1"));
    auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count(), 250);
    pLog->Log("P", "three");
    pLog->FlushLog();

    // The records before the marker are in the old file; the marker itself isn't written.
    EXPECT_TRUE(MatchesPattern(ReadFile(FileOf("sess")), TextRecord("START", StartBanner()) +
                                                             TextRecord("P", "one") +
                                                             TextRecord(nullptr, "two")));
    EXPECT_TRUE(MatchesPattern(ReadFile(FileOf("sess_S1")), TextRecord("P", "three")));

    // A session text too long for the record is cut; the change still happens.
    EXPECT_TRUE(pLog->ChangeLogSession(std::string(300, 's').c_str()));
    pLog->Log("P", "four");
    pLog->FlushLog();
    EXPECT_EQ(CountOf(ReadFile(FileOf("sess_S1")), "four"), 0);
    int found = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator(ClientFolder()))
        found += CountOf(ReadFile(entry.path().string()), ";P;" + ThreadText() + ";four;\r\n");
    EXPECT_EQ(found, 1);
    pLog->Close();
}
