// The table of shared logs: slots, names, banners, the full table, failed opens, private
// logs and the default log.
#include "LogTestSupport.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

namespace fs = std::filesystem;
using namespace velmora_log_test;
using velmora_test::ReadFile;
using velmora_test::TempDir;

namespace {

class LogClients : public LogFolderTest {
protected:
    // The indexes of the slots in use.
    static std::vector<int> UsedSlots() {
        std::vector<int> used;
        for (int i = 0; i < 36; ++i)
            if (velmora.pLogClients[i] != nullptr) used.push_back(i);
        return used;
    }
};

}  // namespace

TEST_F(LogClients, SlotsFillFromTheTopAndNamesCompareWithAsciiCaseFolded) {
    CQuorelLog* pOrders = velmora.GetLogClient("Orders", false, true, true);
    ASSERT_NE(pOrders, nullptr);
    EXPECT_EQ(velmora.pLogClients[35], pOrders);
    CQuorelLog* pTrades = velmora.GetLogClient("Trades", false, true, true);
    ASSERT_NE(pTrades, nullptr);
    EXPECT_EQ(velmora.pLogClients[34], pTrades);
    EXPECT_STREQ(pOrders->szAppName, "App");
    EXPECT_STREQ(pOrders->szLogName, "Orders");
    EXPECT_TRUE(pOrders->bPersistent);

    EXPECT_EQ(velmora.GetLogClient("ORDERS", false, true, true), pOrders);
    EXPECT_EQ(velmora.GetLogClient("orders", false, true, true), pOrders);
    EXPECT_EQ(velmora.GetLogClient("tRADES", false, true, true), pTrades);

    // Only ASCII letters fold: '[' and '{' differ by the case bit but aren't letters, and
    // bytes above 127 are never folded.
    CQuorelLog* pBracket = velmora.GetLogClient("log[1]", false, true, true);
    CQuorelLog* pBrace = velmora.GetLogClient("LOG{1}", false, true, true);
    CQuorelLog* pUpper = velmora.GetLogClient("\xC4x", false, true, true);
    CQuorelLog* pLower = velmora.GetLogClient("\xE4x", false, true, true);
    ASSERT_NE(pBracket, nullptr);
    ASSERT_NE(pBrace, nullptr);
    ASSERT_NE(pUpper, nullptr);
    ASSERT_NE(pLower, nullptr);
    EXPECT_NE(pBracket, pBrace);
    EXPECT_NE(pUpper, pLower);
    EXPECT_EQ(UsedSlots(), (std::vector<int>{30, 31, 32, 33, 34, 35}));
}

TEST_F(LogClients, EveryTextCallWritesABannerAndOtherFlagsGetTheLogAsMade) {
    CQuorelLog* pText = velmora.GetLogClient("text", true, true, true);
    ASSERT_NE(pText, nullptr);
    EXPECT_EQ(velmora.GetLogClient("TEXT", true, true, true), pText);
    EXPECT_EQ(velmora.GetLogClient("text", false, false, true), pText);  // no banner
    EXPECT_TRUE(pText->bTextMode);
    EXPECT_TRUE(pText->bDirectFile);
    EXPECT_EQ(pText->pClient, nullptr);
    std::string banner = TextRecord("START", StartBanner());
    EXPECT_TRUE(MatchesPattern(ReadFile(DirectFile("text")), banner + banner));

    // A raw log asked for in text mode stays raw, and the banner comes in its raw form.
    CQuorelLog* pRaw = velmora.GetLogClient("raw", false, true, true);
    ASSERT_NE(pRaw, nullptr);
    EXPECT_EQ(ReadFile(DirectFile("raw")), "");
    EXPECT_EQ(velmora.GetLogClient("raw", true, false, true), pRaw);
    EXPECT_FALSE(pRaw->bTextMode);
    EXPECT_TRUE(pRaw->bDirectFile);
    EXPECT_TRUE(MatchesPattern(ReadFile(DirectFile("raw")), RawRecord("START", StartBanner())));
    EXPECT_EQ(UsedSlots(), (std::vector<int>{34, 35}));
}

TEST_F(LogClients, FullTableRefusesNewNamesButFindsOldOnesAndMakesPrivateLogs) {
    std::vector<CQuorelLog*> logs;
    for (int i = 0; i < 36; ++i) {
        std::string name = "n" + std::to_string(i);
        CQuorelLog* pLog = velmora.GetLogClient(name.c_str(), false, true, true);
        ASSERT_NE(pLog, nullptr) << name;
        EXPECT_EQ(velmora.pLogClients[35 - i], pLog) << name;
        logs.push_back(pLog);
    }
    EXPECT_EQ(velmora.GetLogClient("n36", false, true, true), nullptr);
    EXPECT_FALSE(fs::exists(DirectFile("n36")));
    EXPECT_EQ(velmora.GetLogClient("N0", false, true, true), logs[0]);
    EXPECT_EQ(velmora.GetLogClient("n35", false, true, true), logs[35]);

    CQuorelLog* pPrivate = velmora.GetLogClient("n36", true, true, false);
    ASSERT_NE(pPrivate, nullptr);
    EXPECT_FALSE(pPrivate->bPersistent);
    for (CQuorelLog* pLog : logs) EXPECT_NE(pLog, pPrivate);
    pPrivate->Log("P", "private");
    pPrivate->Close();
    std::string content = ReadFile(DirectFile("n36"));
    EXPECT_TRUE(MatchesPattern(content, TextRecord("START", StartBanner()) +
                                            TextRecord("P", "private") +
                                            TextRecord("SHUTDOWN", ShutdownBanner())));
    for (int i = 0; i < 36; ++i) EXPECT_EQ(velmora.pLogClients[35 - i], logs[size_t(i)]);
}

TEST_F(LogClients, FailedOpenLeavesTheSlotFreeAndWritesNoBanner) {
    // Folders below a regular file can't be made, so neither a file nor a client opens.
    std::string blocker = tmp.path() + "/blocker";
    std::ofstream(blocker) << "a regular file";
    directory.localLogsFolder = blocker;
    EXPECT_EQ(velmora.GetLogClient("direct", true, true, true), nullptr);
    EXPECT_EQ(velmora.GetLogClient("direct", true, true, false), nullptr);
    ASSERT_EQ(setenv("PELTRIX_LOG_FOLDER", (blocker + "/clients").c_str(), 1), 0);
    EXPECT_EQ(velmora.GetLogClient("client", true, false, true), nullptr);
    EXPECT_TRUE(UsedSlots().empty());

    // The next call for the name tries again, and the first log takes the highest slot.
    directory.localLogsFolder = tmp.path();
    CQuorelLog* pLog = velmora.GetLogClient("direct", true, true, true);
    ASSERT_NE(pLog, nullptr);
    EXPECT_EQ(UsedSlots(), std::vector<int>{35});
    EXPECT_TRUE(MatchesPattern(ReadFile(DirectFile("direct")), TextRecord("START", StartBanner())));
}

TEST_F(LogClients, DefaultLogIsSharedAndAPrivateDefaultIsANewObject) {
    CQuorelLog* pDefault = CallGetDefaultLog();
    ASSERT_NE(pDefault, nullptr);
    EXPECT_EQ(velmora.pLogClients[35], pDefault);
    EXPECT_TRUE(pDefault->bTextMode);
    EXPECT_FALSE(pDefault->bDirectFile);
    EXPECT_TRUE(pDefault->bPersistent);
    EXPECT_NE(pDefault->pClient, nullptr);
    EXPECT_EQ(CallGetDefaultLog(), pDefault);
    EXPECT_EQ(globalDefaultLog, nullptr);  // GetDefaultLog doesn't set it
    pDefault->FlushLog();
    std::string banner = TextRecord("START", StartBanner());
    EXPECT_TRUE(MatchesPattern(ReadFile(ClientFile("default")), banner + banner));

    CQuorelLog* pPrivate = velmora.GetLogClient("default", true, false, false);
    ASSERT_NE(pPrivate, nullptr);
    EXPECT_NE(pPrivate, pDefault);
    EXPECT_NE(pPrivate->pClient, nullptr);
    EXPECT_NE(pPrivate->pClient, pDefault->pClient);
    EXPECT_EQ(UsedSlots(), std::vector<int>{35});
    pPrivate->Close();
    EXPECT_EQ(velmora.pLogClients[35], pDefault);
    EXPECT_EQ(pDefault->GetLongRawMsgThreshHold(), 738);
}

TEST_F(LogClients, CloseOnASharedLogKeepsItInTheTableAndWriting) {
    CQuorelLog* pLog = velmora.GetLogClient("kept", true, true, true);
    ASSERT_NE(pLog, nullptr);
    pLog->Close();
    EXPECT_EQ(velmora.pLogClients[35], pLog);
    EXPECT_EQ(velmora.GetLogClient("kept", false, true, true), pLog);
    pLog->Log("P", "after close");
    EXPECT_TRUE(MatchesPattern(ReadFile(DirectFile("kept")),
                               TextRecord("START", StartBanner()) + TextRecord("P", "after close")));
}

TEST_F(LogClients, NamesLongerThan63AreCutAndFindTheirLogAgain) {
    std::string app(70, 'A');
    std::string name = "L" + std::string(69, 'x');
    SetAppName(app);
    CQuorelLog* pLog = velmora.GetLogClient(name.c_str(), false, true, true);
    ASSERT_NE(pLog, nullptr);
    EXPECT_EQ(std::string(pLog->szAppName), app.substr(0, 63));
    EXPECT_EQ(std::string(pLog->szLogName), name.substr(0, 63));
    pLog->Log("P", "m");
    EXPECT_EQ(ReadFile(tmp.path() + "/log/PFX.SFX/" + app.substr(0, 63) + "_" +
                       name.substr(0, 63) + ".log"),
              "P;m\r\n");
    // The name is compared as the log holds it: the same name, in either case, finds it.
    EXPECT_EQ(velmora.GetLogClient(name.c_str(), false, true, true), pLog);
    std::string upper = name;
    for (char& c : upper) c = char(c == 'x' ? 'X' : c);
    EXPECT_EQ(velmora.GetLogClient(upper.c_str(), false, true, true), pLog);
    EXPECT_EQ(UsedSlots(), std::vector<int>{35});
}

TEST_F(LogClients, ThreadsAskingForOneNameShareOneLog) {
    constexpr int kThreads = 8;
    std::vector<CQuorelLog*> results(kThreads, nullptr);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&results, t] {
            results[size_t(t)] = velmora.GetLogClient("together", true, false, true);
        });
    for (std::thread& thread : threads) thread.join();
    ASSERT_NE(results[0], nullptr);
    for (CQuorelLog* pLog : results) EXPECT_EQ(pLog, results[0]);
    EXPECT_EQ(UsedSlots(), std::vector<int>{35});
    results[0]->FlushLog();
    // One banner for each call.
    EXPECT_EQ(CountOf(ReadFile(ClientFile("together")), std::string(78, '*')), kThreads);
}
