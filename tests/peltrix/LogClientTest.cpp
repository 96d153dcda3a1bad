// The log client as its users see it: the bytes of the records, the files they land in, the
// folder, opening, closing and the path it reports.
#include "Peltrix.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

using velmora_test::FileExists;
using velmora_test::ReadFile;
using velmora_test::SplitLines;
using velmora_test::TempDir;

namespace {

class LogClientTest : public ::testing::Test {
protected:
    void SetUp() override { setenv("PELTRIX_LOG_FOLDER", m_dir.path().c_str(), 1); }

    std::string LogPath(const std::string& name) const { return m_dir.file(name); }

    std::unique_ptr<CPeltrix> OpenClient(bool textMode, const char* app = "App",
                                         const char* log = "Log") {
        auto client = std::make_unique<CPeltrix>(textMode, 384, 64);
        EXPECT_NE(client->Open(app, log), 0);
        return client;
    }

    static std::string PathOf(CPeltrix& client) {
        char buffer[1024];
        client.GetFullLogPath(buffer, sizeof(buffer));
        return buffer;
    }

    TempDir m_dir;
};

int ToMs(const SYSTEMTIME& t) {
    return ((t.wHour * 60 + t.wMinute) * 60 + t.wSecond) * 1000 + t.wMilliseconds;
}

// Reads the stamp "HH:MM:SS[mmm]" at the start of a record into milliseconds of the day;
// -1 when the record doesn't start with one.
int StampMs(const std::string& record) {
    static const char kShape[] = "dd:dd:dd[ddd]";
    if (record.size() < 13) return -1;
    for (size_t i = 0; i < 13; ++i) {
        bool digit = record[i] >= '0' && record[i] <= '9';
        if (kShape[i] == 'd' ? !digit : record[i] != kShape[i]) return -1;
    }
    auto number = [&](size_t at, size_t count) { return std::stoi(record.substr(at, count)); };
    return ((number(0, 2) * 60 + number(3, 2)) * 60 + number(6, 2)) * 1000 + number(9, 3);
}

// Checks the stamp of a text record and that it lies between two readings of the clock
// taken around the call; gives what follows the stamp.
std::string AfterStamp(const std::string& record, const SYSTEMTIME& before,
                       const SYSTEMTIME& after) {
    int ms = StampMs(record);
    EXPECT_GE(ms, 0) << record;
    if (ms < 0) return {};
    if (ToMs(before) <= ToMs(after)) {  // no midnight between the readings
        EXPECT_GE(ms, ToMs(before)) << record;
        EXPECT_LE(ms, ToMs(after)) << record;
    }
    return record.substr(13);
}

std::string ThreadField() { return std::to_string(int(GetCurrentThreadId())); }

// ---- Record formats -----------------------------------------------------------------

TEST_F(LogClientTest, TextRecordsCarryTimePrefixThreadAndMessage) {
    auto client = OpenClient(true);
    SYSTEMTIME before, after;
    GetPeltrixLocalTime(&before, 0);
    client->Log("[Alert]", "link down");
    client->Log(nullptr, "no prefix");
    client->Log("", "empty prefix");
    client->LogLongMsg("P", const_cast<char*>("ends in its own line end\n"));
    client->Log("P", nullptr);  // a null message is dropped
    client->LogLongMsg(nullptr, nullptr);
    client->Log("P", "");
    GetPeltrixLocalTime(&after, 0);
    client->FlushLog();

    std::string text = ReadFile(LogPath("App_Log.log"));
    // Split at "\r\n" only: one message holds a bare line feed.
    std::vector<std::string> records;
    for (size_t start = 0; start < text.size();) {
        size_t end = text.find("\r\n", start);
        ASSERT_NE(end, std::string::npos) << "record without its line end";
        records.push_back(text.substr(start, end + 2 - start));
        start = end + 2;
    }
    ASSERT_EQ(records.size(), 5u) << text;
    const std::string thread = ThreadField();
    EXPECT_EQ(AfterStamp(records[0], before, after), ";[Alert];" + thread + ";link down;\r\n");
    EXPECT_EQ(AfterStamp(records[1], before, after), ";" + thread + ";no prefix;\r\n");
    EXPECT_EQ(AfterStamp(records[2], before, after), ";;" + thread + ";empty prefix;\r\n");
    EXPECT_EQ(AfterStamp(records[3], before, after),
              ";P;" + thread + ";ends in its own line end\n;\r\n");
    EXPECT_EQ(AfterStamp(records[4], before, after), ";P;" + thread + ";;\r\n");

    // Records are never cut, whatever their length.
    const std::string message(5000, 'm');
    const std::string prefix(700, 'p');
    client->Log(prefix.c_str(), message.c_str());
    std::string copy = message + "tail";
    client->LogLongMsg(nullptr, copy.data());
    client->FlushLog();
    std::vector<std::string> lines = SplitLines(ReadFile(LogPath("App_Log.log")));
    ASSERT_EQ(lines.size(), 8u);  // the bare line feed above splits a record in two
    EXPECT_EQ(lines[6].substr(13), ";" + prefix + ";" + thread + ";" + message + ";");
    EXPECT_EQ(lines[7].substr(13), ";" + thread + ";" + message + "tail;");
}

TEST_F(LogClientTest, RawRecordsAreThePrefixAndMessageOrTheMessageAlone) {
    auto client = OpenClient(false);
    client->Log("PFX", "with prefix");
    client->Log(nullptr, "abc");
    client->Log(nullptr, "def\n");
    client->LogLongMsg(nullptr, const_cast<char*>("long;"));
    client->LogLongMsg("L", const_cast<char*>("x"));
    client->Log(nullptr, "");
    client->Log("P", nullptr);
    client->Log(nullptr, nullptr);
    client->FlushLog();
    EXPECT_EQ(ReadFile(LogPath("App_Log.log")), "PFX;with prefix\r\nabcdef\nlong;L;x\r\n");
}

// ---- Copying ------------------------------------------------------------------------

TEST_F(LogClientTest, CallersMayReuseTheirBuffersAsSoonAsLogReturns) {
    auto client = OpenClient(true);
    char prefix[16];
    char message[64];
    for (int i = 0; i < 5000; ++i) {
        std::snprintf(prefix, sizeof(prefix), "P%d", i);
        std::snprintf(message, sizeof(message), "message number %d", i);
        if (i % 2 == 0)
            client->Log(prefix, message);
        else
            client->LogLongMsg(prefix, message);
        std::memset(prefix, 'X', sizeof(prefix) - 1);
        std::memset(message, 'Y', sizeof(message) - 1);
    }
    client->FlushLog();
    std::vector<std::string> lines = SplitLines(ReadFile(LogPath("App_Log.log")));
    ASSERT_EQ(lines.size(), 5000u);
    const std::string thread = ThreadField();
    for (int i = 0; i < 5000; ++i) {
        ASSERT_EQ(lines[i].substr(13), ";P" + std::to_string(i) + ";" + thread +
                                           ";message number " + std::to_string(i) + ";");
    }
}

// ---- Opening, folder, path ----------------------------------------------------------

TEST_F(LogClientTest, OpenCreatesTheFolderAndAppendsToAnExistingFile) {
    const std::string folder = m_dir.file("fresh");
    setenv("PELTRIX_LOG_FOLDER", (folder + "/").c_str(), 1);
    {
        auto first = OpenClient(false);
        EXPECT_TRUE(std::filesystem::is_directory(folder));
        first->Log(nullptr, "old\n");
        first->Close();
    }
    auto second = OpenClient(false);
    second->Log(nullptr, "new\n");
    second->FlushLog();
    EXPECT_EQ(ReadFile(folder + "/App_Log.log"), "old\nnew\n");
}

TEST_F(LogClientTest, OpenFailsWhenTheFileCanNotBeOpened) {
    // A folder below a regular file can't be made.
    std::ofstream(m_dir.file("plain")) << "x";
    setenv("PELTRIX_LOG_FOLDER", m_dir.file("plain/log").c_str(), 1);
    CPeltrix belowFile(true, 384, 64);
    EXPECT_EQ(belowFile.Open("App", "Log"), 0);
    belowFile.Log("P", "dropped");
    belowFile.FlushLog();
    belowFile.Close();

    // Only one level is made.
    setenv("PELTRIX_LOG_FOLDER", m_dir.file("one/two").c_str(), 1);
    CPeltrix twoLevels(false, 384, 64);
    EXPECT_EQ(twoLevels.Open("App", "Log"), 0);
    EXPECT_FALSE(FileExists(m_dir.file("one")));

    // A file name that is a folder.
    setenv("PELTRIX_LOG_FOLDER", m_dir.path().c_str(), 1);
    std::filesystem::create_directory(m_dir.file("App_Dir.log"));
    CPeltrix onFolder(false, 384, 64);
    EXPECT_EQ(onFolder.Open("App", "Dir"), 0);
    // The destructors run after failed opens.
}

TEST_F(LogClientTest, EmptyFolderVariableMeansTheLogFolderBesideTheExecutable) {
    setenv("PELTRIX_LOG_FOLDER", "", 1);
    char exe[4096];
    DWORD n = GetModuleFileNameA(nullptr, exe, sizeof(exe));
    ASSERT_GT(n, 0u);
    std::string exeFolder(exe, n);
    exeFolder.resize(exeFolder.rfind('/') + 1);
    const std::string app = velmora_test::UniqueName("PeltrixDefaultFolder");
    const std::string expected = exeFolder + "log/" + app + "_Log.log";
    {
        CPeltrix client(false, 384, 64);
        ASSERT_NE(client.Open(app.c_str(), "Log"), 0);
        EXPECT_EQ(PathOf(client), expected);
        client.Log(nullptr, "here");
        client.Close();
    }
    EXPECT_EQ(ReadFile(expected), "here");
    std::filesystem::remove(expected);
}

TEST_F(LogClientTest, GetFullLogPathCutsToTheBufferAndNeverWritesPastIt) {
    CPeltrix client(true, 384, 64);
    char buffer[64];
    std::memset(buffer, '#', sizeof(buffer));
    client.GetFullLogPath(buffer, sizeof(buffer));
    EXPECT_STREQ(buffer, "") << "a client that isn't open has no file";

    ASSERT_NE(client.Open("App", "Log"), 0);
    const std::string full = LogPath("App_Log.log");
    EXPECT_EQ(PathOf(client), full);

    std::memset(buffer, '#', sizeof(buffer));
    client.GetFullLogPath(buffer, 10);
    EXPECT_EQ(std::string(buffer), full.substr(0, 9));
    EXPECT_EQ(buffer[10], '#');

    std::memset(buffer, '#', sizeof(buffer));
    client.GetFullLogPath(buffer, 1);
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(buffer[1], '#');
    client.GetFullLogPath(buffer + 2, 0);
    client.GetFullLogPath(buffer + 2, -5);
    client.GetFullLogPath(nullptr, 100);
    EXPECT_EQ(buffer[2], '#');
}

// ---- Closing ------------------------------------------------------------------------

TEST_F(LogClientTest, CloseOrDestructionWritesWhatIsPendingAndCloseDropsLaterRecords) {
    auto client = OpenClient(false);
    for (int i = 0; i < 1000; ++i) client->Log(nullptr, "a\n");
    client->Close();
    // Close alone, without FlushLog, has put everything into the file.
    EXPECT_EQ(SplitLines(ReadFile(LogPath("App_Log.log"))).size(), 1000u);
    client->Log(nullptr, "after close\n");
    client->LogLongMsg(nullptr, const_cast<char*>("after close\n"));
    client->Log(nullptr, PELTRIX_SESSION_MARKER "S");
    client->Close();
    client->FlushLog();
    EXPECT_EQ(SplitLines(ReadFile(LogPath("App_Log.log"))).size(), 1000u);
    EXPECT_FALSE(FileExists(LogPath("App_Log_S.log")));
    EXPECT_EQ(client->Open("App", "Log"), 0) << "a closed client stays closed";

    // Destroying a client that is still open writes what it queued.
    {
        CPeltrix open(false, 384, 64);
        ASSERT_NE(open.Open("App", "Destroyed"), 0);
        for (int i = 0; i < 1000; ++i) open.Log(nullptr, "b\n");
    }
    EXPECT_EQ(SplitLines(ReadFile(LogPath("App_Destroyed.log"))).size(), 1000u);
}

// A client still open when the process exits: what it queued still reaches the file, and a
// record handed in after the writer thread has ended (by a later exit handler) too.
CPeltrix* g_exitClient = nullptr;
void LogFromLateExitHandler() { g_exitClient->Log(nullptr, "late\n"); }

TEST_F(LogClientTest, ExitWithClientsOpenWritesEverything) {
    GTEST_FLAG_SET(death_test_style, "fast");
    EXPECT_EXIT(
        {
            // Registered before the writer starts, so it runs after the writer's handler.
            std::atexit(LogFromLateExitHandler);
            g_exitClient = new CPeltrix(false, 384, 64);
            if (g_exitClient->Open("App", "Exit") == 0) std::_Exit(3);
            for (int i = 0; i < 10000; ++i) g_exitClient->Log(nullptr, "x\n");
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
    std::vector<std::string> lines = SplitLines(ReadFile(LogPath("App_Exit.log")));
    ASSERT_EQ(lines.size(), 10001u);
    EXPECT_EQ(lines.back(), "late");
}

// ---- Logger session functions ---------------------------------------------------------

TEST_F(LogClientTest, CloseLoggerSessionFlushesEveryOpenClient) {
    CloseLoggerSession();  // before any session: harmless
    StartLoggerSession();
    EXPECT_EQ(EnableLoggerSysTime(), 0);
    auto first = OpenClient(false, "App", "One");
    auto second = OpenClient(false, "App", "Two");
    for (int i = 0; i < 3000; ++i) {
        first->Log(nullptr, "1\n");
        second->Log(nullptr, "2\n");
    }
    CloseLoggerSession();
    EXPECT_EQ(SplitLines(ReadFile(LogPath("App_One.log"))).size(), 3000u);
    EXPECT_EQ(SplitLines(ReadFile(LogPath("App_Two.log"))).size(), 3000u);
    CloseLoggerSession();
    first->Log(nullptr, "1\n");
    CloseLoggerSession();
    EXPECT_EQ(SplitLines(ReadFile(LogPath("App_One.log"))).size(), 3001u);
}

}  // namespace
