// The log object: its folder, record forms and limits, long messages in pieces, closing, the log-client mode.
#include "LogTestSupport.h"

#include <chrono>
#include <fstream>
#include <thread>
#include <tuple>

namespace fs = std::filesystem;
using namespace velmora_log_test;
using velmora_test::ReadFile;

namespace {
template <bool kDirect>
struct QuorelLogFixture : LogFolderTest {
    std::string FileOf(const std::string& name) const { return kDirect ? DirectFile(name) : ClientFile(name); }
    CQuorelLog* Open(const char* szName, bool bText) { return MustOpen(velmora.GetLogClient(szName, bText, kDirect, false)); }
    std::string Body(const std::string& name) { return AfterBanner(ReadFile(FileOf(name))); }
};
using QuorelLogDirect = QuorelLogFixture<true>;
using QuorelLogClient = QuorelLogFixture<false>;
}  // namespace

// The folder with or without a closing '/', "<prefix>.<suffix>/", paths of MAX_PATH - 1 and one more, 1023, beside the program.
TEST_F(QuorelLogDirect, LogFolder) {
    for (const char* szEnd : {"", "/"}) {
        directory.localLogsFolder = tmp.path() + szEnd;
        Open("first", false)->Close();
        EXPECT_STREQ(_G_LogFileFolder, (tmp.path() + "/log/PFX.SFX/").c_str()) << szEnd;
    }
    directory.prefix = "pre", directory.suffix = "suf";
    Open("x", false)->Close();
    EXPECT_TRUE(fs::exists(tmp.path() + "/log/pre.suf/App_x.log"));

    directory.prefix = "PFX", directory.suffix = "SFX";
    directory.localLogsFolder = tmp.path() + "/" + std::string(MAX_PATH - 24 - tmp.path().size(), 'd');
    fs::create_directories(directory.localLogsFolder + "/log");
    char szPath[MAX_PATH];
    CQuorelLog* pFits = Open("n", false);
    pFits->GetFullLogPath(szPath, sizeof(szPath)), pFits->Close();
    EXPECT_TRUE(szPath == directory.localLogsFolder + "/log/PFX.SFX/App_n.log" && std::strlen(szPath) == MAX_PATH - 1) << szPath;
    EXPECT_EQ(velmora.GetLogClient("nn", false, true, false), nullptr);  // not even under a cut name
    EXPECT_EQ(std::distance(fs::directory_iterator(directory.localLogsFolder + "/log/PFX.SFX"), fs::directory_iterator()), 1);

    directory.localLogsFolder = tmp.path() + "/" + std::string(1100, 'f');
    EXPECT_EQ(velmora.GetLogClient("x", false, true, false), nullptr);
    EXPECT_EQ(std::string(_G_LogFileFolder), directory.localLogsFolder.substr(0, 1023));

    _G_Directory = nullptr;
    SetAppName(velmora_test::UniqueName("NoDir"));
    Open("plain", false)->Close();
    std::string exe = fs::read_symlink("/proc/self/exe").string();
    EXPECT_EQ(std::string(_G_LogFileFolder), exe.substr(0, exe.rfind('/') + 1) + "log/");
    EXPECT_TRUE(fs::remove(std::string(_G_LogFileFolder) + velmora.szAppName + "_plain.log"));
}

// Text and raw records, cut at 1023 bytes, behind what the file held; a raw message without prefix as given.
TEST_F(QuorelLogDirect, RecordForms) {
    fs::create_directories(tmp.path() + "/log/PFX.SFX");
    std::ofstream(FileOf("raw"), std::ios::binary) << "before\r\n";
    CQuorelLog *pText = Open("text", true), *pRaw = Open("raw", false);
    size_t room = 1023 - (14 + 2 + ThreadText().size() + 1) - 3;  // less the head and ";\r\n"
    std::string exact = Letters(room), over = Letters(room + 1, 1), raw = Letters(1021, 2), bare = Letters(3000, 3), other;
    for (CQuorelLog* pLog : {pText, pRaw}) pLog->Log("[Alert]", "link down"), pLog->Log(nullptr, "own end\n"), pLog->Log("P", nullptr);
    pText->Log("P", exact.c_str()), pText->Log("P", over.c_str());
    std::thread([&] { pText->Log("T", "other"), other = TextRecord("T", "other"); }).join();
    pRaw->Log("P", raw.c_str()), pRaw->Log(nullptr, bare.c_str());
    pText->Close(), pRaw->Close();
    ASSERT_EQ(TextRecord("P", exact).size(), 1023u);
    EXPECT_TRUE(MatchesPattern(Body("text"), TextRecord("[Alert]", "link down") + TextRecord(nullptr, "own end\n") + TextRecord("P", exact) +
                                                 TextRecord("P", over).substr(0, 1023) + other + TextRecord("SHUTDOWN", ShutdownBanner())));
    EXPECT_EQ(ReadFile(FileOf("raw")), "before\r\n[Alert];link down\r\nown end\nP;" + raw + bare);
}

// Pieces of 462 less the prefix (none from a prefix of 462 on), the buffer left whole, Print's 4095; raw only with a prefix.
TEST_F(QuorelLogDirect, LongMessagesGoInPieces) {
    CQuorelLog* pLog = Open("long", true);
    const std::string p461(461, 'p'), p462(462, 'q');
    struct Case { const char* szPrefix; size_t nLength, nPiece; };  // no piece: one record
    std::string expected, three = Letters(925, 2), huge = Letters(5000);
    for (auto [szPrefix, nLength, nPiece] : {Case{nullptr, 0, 462}, {nullptr, 462, 462}, {nullptr, 925, 462}, {"ABC", 459, 459},
                                             {"ABC", 460, 459}, {p461.c_str(), 3, 1}, {p462.c_str(), 1000, 0}}) {
        std::string msg = Letters(nLength, nLength), buffer = msg;
        pLog->LogLongMsg(szPrefix, buffer.data());
        EXPECT_EQ(buffer, msg);
        if (nPiece == 0) expected += TextRecord(szPrefix, msg).substr(0, 1023);
        for (size_t at = 0; nPiece != 0 && (at == 0 || at < nLength); at += nPiece) expected += TextRecord(szPrefix, msg.substr(at, nPiece));
    }
    pLog->Log(three.data()), pLog->Print("%s-%d", "abc", 5), pLog->Print("%s", huge.c_str());
    for (size_t at = 0; at < 925; at += 462) expected += TextRecord(nullptr, three.substr(at, 462));
    expected += TextRecord(nullptr, "abc-5");
    for (size_t at = 0; at < 4095; at += 462) expected += TextRecord(nullptr, huge.substr(at, std::min<size_t>(462, 4095 - at)));
    EXPECT_TRUE(MatchesPattern(Body("long"), expected));
    CQuorelLog* pRaw = Open("raw", false);
    pRaw->LogLongMsg("P", three.data()), pRaw->LogLongMsg(nullptr, huge.data());
    EXPECT_EQ(ReadFile(FileOf("raw")), "P;" + three.substr(0, 461) + "\r\nP;" + three.substr(461, 461) + "\r\nP;" + three.substr(922) + "\r\n" + huge);
    pLog->Close(), pRaw->Close();
}

// The path cut to its buffer (0 stands for MAX_PATH); no session; a shared log closed as Shutdown closes it drops what follows.
TEST_F(QuorelLogDirect, PathSessionAndClosedSharedLog) {
    CQuorelLog* pRaw = Open("raw", false);
    char szPath[MAX_PATH], szCut[MAX_PATH];
    std::memset(szCut, 'Z', sizeof(szCut));
    pRaw->GetFullLogPath(szPath, 0), pRaw->GetFullLogPath(szCut, 10);
    EXPECT_EQ(std::make_tuple(std::string(szPath), std::string(szCut, 11), pRaw->GetLongRawMsgThreshHold(), pRaw->ChangeLogSession("S1")),
              std::make_tuple(FileOf("raw"), FileOf("raw").substr(0, 9) + '\0' + 'Z', 482, false));
    pRaw->Close();
    EXPECT_EQ(ReadFile(FileOf("raw")), "");
    CQuorelLog* pShared = MustOpen(velmora.GetLogClient("shared", true, true, true));
    CallPersistenceClose(pShared);
    pShared->Log("P", "dropped"), pShared->LogLongMsg("P", szPath);
    EXPECT_TRUE(MatchesPattern(Body("shared"), TextRecord("SHUTDOWN", ShutdownBanner())));
}

// Through the client only a prefixed Log is cut, to 512; a closed shared client log drops records, leaves buffers alone.
TEST_F(QuorelLogClient, PrefixedMessagesAreCutTo512) {
    CQuorelLog *pLog = Open("cut", true), *pRaw = Open("raw", false);
    EXPECT_EQ(pLog->GetLongRawMsgThreshHold(), 738);
    std::string exact = Letters(512), over = Letters(513, 1), long925 = Letters(925, 2), buffer = over;
    pLog->Log("P", exact.c_str()), pLog->Log("P", over.c_str()), pLog->Log(nullptr, over.c_str());
    pLog->LogLongMsg("P", buffer.data()), pLog->Log(long925.data());
    pRaw->Log("P", over.c_str()), pRaw->Log(nullptr, "bare");
    char szPath[MAX_PATH] = "";
    pLog->GetFullLogPath(szPath, sizeof(szPath)), pLog->Close(), pRaw->Close();
    EXPECT_EQ(std::string(szPath), FileOf("cut"));
    EXPECT_TRUE(MatchesPattern(Body("cut"), TextRecord("P", exact) + TextRecord("P", over.substr(0, 512)) + TextRecord(nullptr, over) +
                                                TextRecord("P", over) + TextRecord(nullptr, long925) + TextRecord("SHUTDOWN", ShutdownBanner())));
    EXPECT_EQ(ReadFile(FileOf("raw")), "P;" + over.substr(0, 512) + "\r\nbare");

    CQuorelLog* pShared = MustOpen(velmora.GetLogClient("shared", false, false, true));
    pShared->Log(nullptr, "kept"), CallPersistenceClose(pShared), std::strcpy(szPath, "unchanged");
    pShared->Log(nullptr, "dropped"), pShared->LogLongMsg(nullptr, buffer.data()), pShared->FlushLog(), pShared->GetFullLogPath(szPath, sizeof(szPath));
    EXPECT_EQ(std::make_tuple(pShared->GetLongRawMsgThreshHold(), pShared->ChangeLogSession("S1"), std::string(szPath), ReadFile(FileOf("shared"))),
              std::make_tuple(482, false, std::string("unchanged"), std::string("kept")));
}

// A session change pushes the records out and waits 250 ms; the client goes on in "<log>_<session>".
TEST_F(QuorelLogClient, SessionChange) {
    CQuorelLog* pLog = Open("sess", true);
    pLog->Log("P", "one");
    auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(pLog->ChangeLogSession("S1"));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
    pLog->Log("P", "two"), pLog->FlushLog();
    EXPECT_TRUE(MatchesPattern(Body("sess"), TextRecord("P", "one")));
    EXPECT_TRUE(MatchesPattern(ReadFile(FileOf("sess_S1")), TextRecord("P", "two")));
    pLog->Close();
}
