// The log client (record texts, file names, sessions, dates, flushing, closing, each thread's order) and the monitor client.
#include "Peltrix.h"
#include "TestSupport.h"
#include "peltrix/LogWriter.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

using namespace velmora_test;

namespace {

class PeltrixTest : public ::testing::Test {
protected:
    void SetUp() override { setenv("PELTRIX_LOG_FOLDER", dir.path().c_str(), 1); }
    std::unique_ptr<CPeltrix> Open(bool bText, const char* szLog = "Log") {
        auto client = std::make_unique<CPeltrix>(bText, 384, 64);
        EXPECT_NE(client->Open("App", szLog), 0) << szLog;
        return client;
    }
    std::string Text(const std::string& name) { return ReadFile(dir.file(name)); }
    std::vector<std::string> Lines(const std::string& name) { return SplitLines(Text(name)); }
    static std::string PathOf(CPeltrix& client) {
        char buffer[1024];
        client.GetFullLogPath(buffer, sizeof(buffer));
        return buffer;
    }
    TempDir dir;
};

const std::string kThread = std::to_string(int(GetCurrentThreadId()));

// Checks the stamp "HH:MM:SS[mmm]" that starts a line against clock readings around it; the rest of the line.
std::string AfterStamp(const std::string& line, const SYSTEMTIME& before, const SYSTEMTIME& after) {
    auto ms = [](unsigned h, unsigned m, unsigned s, unsigned n) { return int(((h * 60 + m) * 60 + s) * 1000 + n); };
    unsigned h = 0, m = 0, s = 0, n = 0;
    int at = 0;
    EXPECT_TRUE(std::sscanf(line.c_str(), "%2u:%2u:%2u[%3u]%n", &h, &m, &s, &n, &at) == 4 && at == 13) << line;
    const int a = ms(before.wHour, before.wMinute, before.wSecond, before.wMilliseconds), b = ms(after.wHour, after.wMinute, after.wSecond, after.wMilliseconds);
    EXPECT_TRUE(a > b || (ms(h, m, s, n) >= a && ms(h, m, s, n) <= b)) << line;  // unless midnight passed
    return line.substr(13);
}

TEST_F(PeltrixTest, TextAndRawRecordsHaveTheirExactTexts) {
    auto text = Open(true), raw = Open(false, "Raw");
    const char* const calls[][2] = {{"[Alert]", "link down"}, {nullptr, "no prefix"}, {"", "empty prefix"},
                                    {"P", "own line end\n"}, {"P", nullptr}, {nullptr, nullptr}, {"P", ""}};
    SYSTEMTIME before, after;  // clock readings around the calls
    GetPeltrixLocalTime(&before, 0);
    for (auto& call : calls) text->Log(call[0], call[1]), raw->LogLongMsg(call[0], const_cast<char*>(call[1]));
    GetPeltrixLocalTime(&after, 0);
    text->FlushLog();
    EXPECT_EQ(Text("App_Raw.log"), "[Alert];link down\r\nno prefix;empty prefix\r\nP;own line end\n\r\nP;\r\n");
    const std::string all = Text("App_Log.log") + "+";
    std::string records;  // without their stamps, each behind a '|'; then what follows the last line end, and the '+'
    for (size_t at = 0, end; (end = all.find("\r\n", at)) != std::string::npos; at = end + 2) records += "|" + AfterStamp(all.substr(at, end - at), before, after);
    EXPECT_EQ(records + all.substr(all.rfind("\r\n") + 2), "|;[Alert];" + kThread + ";link down;|;" + kThread + ";no prefix;|;;" + kThread +
                                                           ";empty prefix;|;P;" + kThread + ";own line end\n;|;P;" + kThread + ";;+");
}

TEST_F(PeltrixTest, OpenMakesOneFolderLevelAppendsAndReportsThePathCutToTheBuffer) {
    std::filesystem::create_directory(dir.file("App_Dir.log"));
    for (auto [folder, log] : {std::pair("/one/two", "Log"), std::pair("", "Dir")}) {  // two levels down, a folder by the name
        setenv("PELTRIX_LOG_FOLDER", (dir.path() + folder).c_str(), 1);
        EXPECT_EQ(CPeltrix(false, 384, 64).Open("App", log), 0) << folder << " " << log;
    }
    EXPECT_FALSE(FileExists(dir.file("one")));
    setenv("PELTRIX_LOG_FOLDER", (dir.file("fresh") + "/").c_str(), 1);
    CPeltrix first(false, 384, 64), second(false, 384, 64);
    EXPECT_EQ(PathOf(first), "") << "a client that isn't open has no file";
    ASSERT_NE(first.Open("App", "Log"), 0);
    first.Log(nullptr, "old\n"), first.Close();
    ASSERT_NE(second.Open("App", "Log"), 0);
    second.Log(nullptr, "new\n"), second.FlushLog();
    const std::string path = dir.file("fresh/App_Log.log");
    EXPECT_EQ(ReadFile(path), "old\nnew\n");
    EXPECT_EQ(PathOf(second), path);
    char buffer[16];  // cut to the buffer with a terminator; nothing written without room or buffer
    std::memset(buffer, '#', sizeof(buffer));
    second.GetFullLogPath(buffer + 3, 10), second.GetFullLogPath(buffer, 1), second.GetFullLogPath(buffer + 1, 0);
    second.GetFullLogPath(buffer + 1, -5), second.GetFullLogPath(nullptr, 100);
    EXPECT_EQ(std::string(buffer, 14), std::string("\0##", 3) + path.substr(0, 9) + '\0' + '#');
    setenv("PELTRIX_LOG_FOLDER", "", 1);  // empty: "log/" beside the executable
    char exe[4096];
    const std::string exePath(exe, GetModuleFileNameA(nullptr, exe, sizeof(exe))), app = UniqueName("PeltrixDefault");
    CPeltrix client(false, 384, 64);
    ASSERT_NE(client.Open(app.c_str(), "Log"), 0);
    EXPECT_EQ(PathOf(client), exePath.substr(0, exePath.rfind('/') + 1) + "log/" + app + "_Log.log");
    EXPECT_TRUE(std::filesystem::remove(PathOf(client)));
}

// Records bigger than the queue wait for it to empty and pass whole. Closing and destruction write what is pending.
TEST_F(PeltrixTest, CloseLoggerSessionFlushLogAndCloseWaitForEveryThreadAndClient) {
    CloseLoggerSession(), StartLoggerSession();  // a close before any client is harmless
    auto busy = Open(false, "Busy"), other = Open(false, "Other");
    std::string huge(peltrix::kQueueBytes + 12345, 'h'), lines;
    for (size_t i = 0; i < huge.size(); i += 4096) huge[i] = char('a' + (i / 4096) % 26);
    for (int i = 0; i < 20000; ++i) lines += std::to_string(i % 10) + "\n";
    for (int i = 0; i < 3000; ++i) busy->Log(nullptr, lines.substr(2 * i, 2).c_str()), other->Log(nullptr, lines.substr(2 * i, 2).c_str());
    CloseLoggerSession();
    EXPECT_EQ(Text("App_Busy.log") + "|" + Text("App_Other.log"), lines.substr(0, 6000) + "|" + lines.substr(0, 6000));
    std::thread([&] {
        for (int i = 0; i < 20000; ++i) busy->Log(nullptr, lines.substr(2 * i, 2).c_str());
        busy->Log("P", huge.c_str());
    }).join();
    std::string copy = huge;
    other->LogLongMsg(nullptr, copy.data());
    std::fill(copy.begin(), copy.end(), 'z');  // reused by the caller at once
    other->FlushLog();  // waits for another client's records from another thread too
    EXPECT_TRUE(Text("App_Busy.log") == lines.substr(0, 6000) + lines + "P;" + huge + "\r\n");
    EXPECT_TRUE(Text("App_Other.log") == lines.substr(0, 6000) + huge);
    for (int i = 0; i < 1000; ++i) busy->Log(nullptr, "b\n"), other->Log(nullptr, "a\n");
    busy.reset(), other->Close();  // no FlushLog
    const size_t nBytes = 2 * (6000 + huge.size() + 2000) + 40000 + 4;
    EXPECT_EQ(Text("App_Busy.log").size() + Text("App_Other.log").size(), nBytes);
    for (const char* szMsg : {"after close\n", PELTRIX_SESSION_MARKER "S"}) other->Log(nullptr, szMsg), other->LogLongMsg(nullptr, const_cast<char*>(szMsg));
    other->FlushLog();
    EXPECT_EQ(Text("App_Busy.log").size() + Text("App_Other.log").size(), nBytes) << "records after Close";
    EXPECT_FALSE(FileExists(dir.file("App_Other_S.log")));
    EXPECT_EQ(other->Open("App", "Other"), 0) << "a closed client stays closed";
}

TEST_F(PeltrixTest, ManyThreadsLoseNothingAndKeepTheirOrder) {
    constexpr int kThreads = 8, kRecords = 20000;
    auto client = Open(true, "Load");
    std::vector<int> ids(kThreads), next(kThreads, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            char message[32];  // reused at once: Log copies it
            for (int i = 0; i < kRecords; ++i)
                std::snprintf(message, sizeof(message), "T%d:%d", t, i), i % 16 ? client->Log(nullptr, message) : client->LogLongMsg(nullptr, message);
            ids[t] = int(GetCurrentThreadId());
        });
    for (std::thread& thread : threads) thread.join();
    client->FlushLog();
    std::vector<std::string> lines = Lines("App_Load.log");
    ASSERT_EQ(lines.size(), size_t(kThreads * kRecords));
    for (const std::string& line : lines) {
        int id = 0, t = -1, i = -1, n = 0;
        ASSERT_TRUE(std::sscanf(line.c_str() + 13, ";%d;T%d:%d;%n", &id, &t, &i, &n) == 3 && n == int(line.size()) - 13 && t >= 0 && t < kThreads) << line;
        ASSERT_TRUE(id == ids[t] && i == next[t]++) << "lost, out of order or of another thread: " << line;
    }
}

TEST_F(PeltrixTest, SessionMarkerSwitchesItsClientBetweenRecords) {
    auto client = Open(false), other = Open(false, "Other");
    for (int i = 0; i < 500; ++i) client->Log(nullptr, ("before " + std::to_string(i) + "\n").c_str());
    client->Log(nullptr, PELTRIX_SESSION_MARKER "Night");
    EXPECT_EQ(PathOf(*client), dir.file("App_Log_Night.log"));
    client->Log("P", PELTRIX_SESSION_MARKER "A");  // not switches: with a prefix, inside, one character short
    other->Log(nullptr, "other");
    // No session text goes back to the plain file; one is cut to 64 characters of [A-Za-z0-9._-], '_' for others.
    const std::string longSession = PELTRIX_SESSION_MARKER + std::string(100, 's'), cut = "App_Log_" + std::string(64, 's') + ".log";
    for (const char* szMsg : {"x" PELTRIX_SESSION_MARKER "B", "$$$$*****@@@@@C\n", PELTRIX_SESSION_MARKER, "back\n",
                              PELTRIX_SESSION_MARKER "../a b/c:d\\e*.v-1_2\r\n", "odd\n", longSession.c_str()})
        client->Log(nullptr, szMsg);
    EXPECT_EQ(PathOf(*client), dir.file(cut));
    client->Log(nullptr, "long\n");
    client->FlushLog();
    std::vector<std::string> plain = Lines("App_Log.log");
    ASSERT_EQ(plain.size(), 501u);
    EXPECT_EQ(plain[499] + "|" + plain[500], "before 499|back");
    EXPECT_EQ(Text("App_Log_Night.log"), "P;" PELTRIX_SESSION_MARKER "A\r\nx" PELTRIX_SESSION_MARKER "B$$$$*****@@@@@C\n");
    EXPECT_EQ(Text("App_Other.log") + "|" + Text("App_Log_.._a_b_c_d_e_.v-1_2__.log") + "|" + Text(cut), "other|odd\n|long\n");
}

TEST_F(PeltrixTest, SessionDateSwitchesEveryClientAfterWhatItQueuedButNotASessionText) {
    auto one = Open(false, "One"), two = Open(false, "Two");
    two->Log(nullptr, PELTRIX_SESSION_MARKER "S");
    for (int i = 0; i < 300; ++i) one->Log(nullptr, "old\n");
    const int notDays[][3] = {{0, 0, 0}, {2023, 2, 29}, {1900, 2, 29}, {2024, 13, 1}, {2024, 4, 31}, {2024, 0, 1}, {2024, 1, 0}};
    for (const auto& day : notDays) UpdateLoggerSessionDate(day[0], day[1], day[2]);  // no switch
    one->Log(nullptr, "still old\n");
    UpdateLoggerSessionDate(2024, 2, 29);
    EXPECT_EQ(PathOf(*one), dir.file("App_One_20240229.log"));
    one->Log(nullptr, "new\n");
    for (const char* szMsg : {"session\n", PELTRIX_SESSION_MARKER, "dated\n"}) two->Log(nullptr, szMsg);  // without a session text: the date
    auto three = Open(false, "Three");
    three->Log(nullptr, "3");
    const int days[][3] = {{2000, 2, 29}, {2030, 12, 31}};
    for (const auto& day : days) UpdateLoggerSessionDate(day[0], day[1], day[2]), one->Log(nullptr, "newer\n");
    one->FlushLog();
    std::vector<std::string> old = Lines("App_One.log");
    ASSERT_EQ(old.size(), 301u);
    EXPECT_EQ(old.back(), "still old");
    EXPECT_EQ(Text("App_One_20240229.log") + "|" + Text("App_One_20000229.log") + "|" + Text("App_One_20301231.log"), "new\n|newer\n|newer\n");
    EXPECT_EQ(Text("App_Two_S.log") + "|" + Text("App_Two_20240229.log") + "|" + Text("App_Three_20240229.log"), "session\n|dated\n|3");
}

// The monitor client: each alert a line "HH:MM:SS[mmm];text" of the monitor's file, there at once.
TEST_F(PeltrixTest, MonitorWritesEachAlertAsALineAtOnceBetweenStartAndStop) {
    CHarvell monitor("App", 1, 1, nullptr);
    monitor.AlertMsg("before start");
    SYSTEMTIME before, after;  // clock readings around the calls
    GetPeltrixLocalTime(&before, 0);
    ASSERT_EQ(monitor.Start(true, nullptr, 120, nullptr, 10101, 10102), 1);
    EXPECT_TRUE(FileExists(dir.file("App_monitor.log"))) << "a started monitor is connected now";
    for (const char* szText : {"link down", "", (const char*)nullptr, "a;b"}) monitor.AlertMsg(szText);
    EXPECT_EQ(monitor.Start(true, nullptr, 120, nullptr, 10101, 10102), 1);
    GetPeltrixLocalTime(&after, 0);
    std::vector<std::string> lines = Lines("App_monitor.log");  // no flush, no wait
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(AfterStamp(lines[0], before, after) + AfterStamp(lines[1], before, after) + AfterStamp(lines[2], before, after), ";link down;;a;b");
    EXPECT_EQ(Text("App_monitor.log").size(), 3 * 16u + 9 + 3);
    monitor.Stop(1), monitor.AlertMsg("after stop"), monitor.Stop(1);
    EXPECT_EQ(Lines("App_monitor.log").size(), 3u);
}

TEST_F(PeltrixTest, DeferredMonitorStartConnectsWithTheFirstAlertAndAFailedStartReturnsZero) {
    const std::string named = dir.file("elsewhere.txt"), folder = dir.file("made"), below = dir.file("plain/monitor.log");
    std::ofstream(named) << "old\r\n";
    setenv("PELTRIX_LOG_FOLDER", folder.c_str(), 1);  // in the default place, nothing is made until an alert
    CHarvell monitor("App", 1, 1, nullptr), inDefault("App", 1, 1, nullptr);
    ASSERT_EQ(monitor.Start(false, named.c_str(), 120, nullptr, 10101, 10102) + inDefault.Start(false, "", 120, nullptr, 10101, 10102), 2);
    EXPECT_FALSE(FileExists(folder));
    monitor.AlertMsg("first"), inDefault.AlertMsg("now");
    EXPECT_EQ(ReadFile(named).substr(0, 5) + ReadFile(named).substr(5 + 14) + ReadFile(folder + "/App_monitor.log").substr(14), "old\r\nfirst\r\nnow\r\n");
    // A monitor file that can't be opened: a start now fails, a deferred one drops its alerts.
    std::ofstream(dir.file("plain")) << "x";
    CHarvell named0("App", 1, 1, nullptr), inLogFolder("App", 1, 1, nullptr), deferred("App", 1, 1, nullptr);
    EXPECT_EQ(named0.Start(true, below.c_str(), 120, nullptr, 10101, 10102), 0);
    setenv("PELTRIX_LOG_FOLDER", dir.file("plain/log").c_str(), 1);
    EXPECT_EQ(inLogFolder.Start(true, nullptr, 120, nullptr, 10101, 10102), 0);
    EXPECT_EQ(deferred.Start(false, below.c_str(), 120, nullptr, 10101, 10102), 1);
    for (CHarvell* p : {&named0, &inLogFolder, &deferred}) p->AlertMsg("dropped");
    EXPECT_EQ(ReadFile(dir.file("plain")), "x");
}

}  // namespace
