// The table of shared logs: slots, names, the full table, START banners, failed opens, the default log.
#include "LogTestSupport.h"

#include <atomic>
#include <fstream>
#include <thread>

using namespace velmora_log_test;
using velmora_test::ReadFile;
using LogClients = LogFolderTest;

// A name and the earlier one whose log it finds (-1: none): only ASCII letters fold, 63 characters count; a full table.
TEST_F(LogClients, SlotsFillFromTheTopAndNamesFoldAsciiLettersOnly) {
    const std::string name70 = "L" + std::string(69, 'x');
    const std::vector<std::pair<std::string, int>> names = {{"Orders", -1}, {"Trades", -1}, {"ORDERS", 0}, {"tRADES", 1}, {"AZaz@", -1},
        {"azAZ@", 4}, {"azAZ`", -1}, {"log[1]", -1}, {"LOG{1}", -1}, {"\xC4x", -1}, {"\xE4x", -1}, {name70, -1}, {"l" + std::string(62, 'X') + "Y", 11}};
    std::vector<CQuorelLog*> logs;
    int nSlot = 35;
    for (const auto& [name, nSameAs] : names) {
        logs.push_back(MustOpen(velmora.GetLogClient(name.c_str(), false, true, true)));
        EXPECT_EQ(logs.back(), nSameAs < 0 ? velmora.pLogClients[nSlot--] : logs[size_t(nSameAs)]) << name;
    }
    logs[11]->Log("P", "m");
    EXPECT_EQ(ReadFile(DirectFile(name70.substr(0, 63))), "P;m\r\n");
    for (int i = 0; nSlot >= 0; ++i) EXPECT_EQ(MustOpen(velmora.GetLogClient(std::to_string(i).c_str(), false, true, true)), velmora.pLogClients[nSlot--]);
    EXPECT_EQ(velmora.GetLogClient("new", false, true, true), nullptr);
    EXPECT_EQ(velmora.GetLogClient("orders", false, true, true), logs[0]);
    MustOpen(velmora.GetLogClient("new", true, true, false))->Close();
    EXPECT_TRUE(MatchesPattern(ReadFile(DirectFile("new")), TextRecord("START", StartBanner()) + TextRecord("SHUTDOWN", ShutdownBanner())));
}

// A failed open leaves the slot free; a START banner for every text call, in the log's form; Close keeps a shared log.
TEST_F(LogClients, BannersAndFailedOpens) {
    std::ofstream(tmp.path() + "/blocker") << "a file";
    directory.localLogsFolder = tmp.path() + "/blocker";  // no folder can be made below it
    EXPECT_EQ(velmora.GetLogClient("text", true, true, true), nullptr);
    ASSERT_EQ(setenv("PELTRIX_LOG_FOLDER", (tmp.path() + "/blocker/c").c_str(), 1), 0);
    EXPECT_EQ(velmora.GetLogClient("client", true, false, true), nullptr);
    directory.localLogsFolder = tmp.path();
    CQuorelLog *pText = MustOpen(velmora.GetLogClient("text", true, true, true)), *pRaw = MustOpen(velmora.GetLogClient("raw", false, true, true));
    EXPECT_TRUE(velmora.GetLogClient("TEXT", true, false, true) == pText && velmora.GetLogClient("text", false, false, true) == pText);
    EXPECT_EQ(velmora.GetLogClient("raw", true, true, true), pRaw);
    EXPECT_TRUE(velmora.pLogClients[35] == pText && velmora.pLogClients[34] == pRaw);
    pText->Close(), pText->Log("P", "after close");
    std::string banner = TextRecord("START", StartBanner());
    EXPECT_TRUE(MatchesPattern(ReadFile(DirectFile("text")), banner + banner + TextRecord("P", "after close")));
    EXPECT_TRUE(MatchesPattern(ReadFile(DirectFile("raw")), "START;" + StartBanner() + "\r\n"));
}

// "default" is one shared text client log for threads asking at once, a banner each; a private one is another object.
TEST_F(LogClients, DefaultLogIsSharedByThreadsAskingAtOnce) {
    std::vector<CQuorelLog*> results(16);
    std::vector<std::thread> threads;
    std::atomic<bool> bGo = false;  // all start at once
    for (size_t t = 0; t < results.size(); ++t) threads.emplace_back([&, t] { while (!bGo) std::this_thread::yield(); results[t] = CallGetDefaultLog(); });
    bGo = true;
    for (std::thread& thread : threads) thread.join();
    CQuorelLog* pDefault = MustOpen(results[0]);
    EXPECT_EQ(results, std::vector<CQuorelLog*>(16, pDefault));
    EXPECT_TRUE(velmora.pLogClients[35] == pDefault && velmora.pLogClients[34] == nullptr && globalDefaultLog == nullptr);
    EXPECT_TRUE(pDefault->bTextMode && !pDefault->bDirectFile && pDefault->bPersistent);
    EXPECT_EQ(CountOf(LogTextOf(pDefault), ";START;"), 16);
    CQuorelLog* pPrivate = MustOpen(velmora.GetLogClient("default", true, false, false));
    EXPECT_NE(pPrivate, pDefault);
    pPrivate->Close();
    EXPECT_EQ(velmora.pLogClients[34], nullptr);
}
