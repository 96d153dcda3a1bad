// Switches of file: the session marker and the session date. Each switch takes effect
// between the records handed in before it and those after it.
//
// The session date is state of the whole process, and it can't be taken back: these tests
// rely on every test running in a process of its own.
#include "Peltrix.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

using velmora_test::FileExists;
using velmora_test::ReadFile;
using velmora_test::SplitLines;
using velmora_test::TempDir;

namespace {

class LogSessionTest : public ::testing::Test {
protected:
    void SetUp() override { setenv("PELTRIX_LOG_FOLDER", m_dir.path().c_str(), 1); }

    std::unique_ptr<CPeltrix> OpenClient(bool textMode, const char* log = "Log") {
        auto client = std::make_unique<CPeltrix>(textMode, 384, 64);
        EXPECT_NE(client->Open("App", log), 0);
        return client;
    }

    std::vector<std::string> Lines(const std::string& name) const {
        return SplitLines(ReadFile(m_dir.file(name)));
    }

    static std::string PathOf(CPeltrix& client) {
        char buffer[1024];
        client.GetFullLogPath(buffer, sizeof(buffer));
        return buffer;
    }

    TempDir m_dir;
};

// ---- Session marker -----------------------------------------------------------------

TEST_F(LogSessionTest, MarkerSwitchesFilesBetweenEarlierAndLaterRecords) {
    auto client = OpenClient(false);
    auto other = OpenClient(false, "Other");
    for (int i = 0; i < 500; ++i)
        client->Log(nullptr, ("before " + std::to_string(i) + "\n").c_str());
    client->Log(nullptr, PELTRIX_SESSION_MARKER "Night");
    EXPECT_EQ(PathOf(*client), m_dir.file("App_Log_Night.log"));
    for (int i = 0; i < 500; ++i)
        client->Log(nullptr, ("after " + std::to_string(i) + "\n").c_str());
    other->Log(nullptr, "other");  // the marker switches its own client only
    client->FlushLog();
    EXPECT_EQ(ReadFile(m_dir.file("App_Other.log")), "other");
    EXPECT_FALSE(FileExists(m_dir.file("App_Other_Night.log")));

    std::vector<std::string> before = Lines("App_Log.log");
    std::vector<std::string> after = Lines("App_Log_Night.log");
    ASSERT_EQ(before.size(), 500u);
    ASSERT_EQ(after.size(), 500u);
    EXPECT_EQ(before.back(), "before 499");
    EXPECT_EQ(after.front(), "after 0");
    EXPECT_EQ(ReadFile(m_dir.file("App_Log.log")).find("$$$$"), std::string::npos);
    EXPECT_EQ(ReadFile(m_dir.file("App_Log_Night.log")).find("$$$$"), std::string::npos);

    // An empty session goes back to the plain file, behind its old content.
    client->LogLongMsg(nullptr, const_cast<char*>(PELTRIX_SESSION_MARKER));
    EXPECT_EQ(PathOf(*client), m_dir.file("App_Log.log"));
    client->Log(nullptr, "back\n");
    client->FlushLog();
    before = Lines("App_Log.log");
    ASSERT_EQ(before.size(), 501u);
    EXPECT_EQ(before.back(), "back");
    EXPECT_EQ(Lines("App_Log_Night.log").size(), 500u);
}

TEST_F(LogSessionTest, MarkerInTextModeAndWithAPrefixOrInsideTheMessage) {
    auto client = OpenClient(true);
    client->Log("P", PELTRIX_SESSION_MARKER "NotASwitch");  // with a prefix: a record
    client->Log(nullptr, "x" PELTRIX_SESSION_MARKER "Neither");
    client->Log(nullptr, "$$$$*****@@@@@");                  // one character short
    client->Log(nullptr, PELTRIX_SESSION_MARKER "S1");
    client->Log(nullptr, "in S1");
    client->FlushLog();
    std::vector<std::string> plain = Lines("App_Log.log");
    ASSERT_EQ(plain.size(), 3u);
    EXPECT_NE(plain[0].find(";P;"), std::string::npos);
    EXPECT_NE(plain[0].find("NotASwitch"), std::string::npos);
    EXPECT_NE(plain[1].find("Neither"), std::string::npos);
    std::vector<std::string> session = Lines("App_Log_S1.log");
    ASSERT_EQ(session.size(), 1u);
    EXPECT_NE(session[0].find(";in S1;"), std::string::npos);
    EXPECT_FALSE(FileExists(m_dir.file("App_Log_NotASwitch.log")));
    EXPECT_FALSE(FileExists(m_dir.file("App_Log_Neither.log")));
}

TEST_F(LogSessionTest, SessionTextIsMadeASafeFileNamePart) {
    auto client = OpenClient(false);
    client->Log(nullptr, PELTRIX_SESSION_MARKER "../a b/c:d\\e*.v-1_2\r\n");
    const std::string sanitized = "App_Log_.._a_b_c_d_e_.v-1_2__.log";
    EXPECT_EQ(PathOf(*client), m_dir.file(sanitized));
    client->Log(nullptr, "one");
    client->FlushLog();
    EXPECT_EQ(ReadFile(m_dir.file(sanitized)), "one");

    const std::string longSession(100, 's');
    client->Log(nullptr, (PELTRIX_SESSION_MARKER + longSession).c_str());
    const std::string cut = "App_Log_" + std::string(64, 's') + ".log";
    EXPECT_EQ(PathOf(*client), m_dir.file(cut));
    client->Log(nullptr, "two");
    client->FlushLog();
    EXPECT_EQ(ReadFile(m_dir.file(cut)), "two");
}

// ---- Session date ---------------------------------------------------------------------

TEST_F(LogSessionTest, DateSwitchesEveryClientAfterWhatItQueued) {
    auto first = OpenClient(false, "One");
    auto second = OpenClient(false, "Two");
    for (int i = 0; i < 300; ++i) {
        first->Log(nullptr, "old\n");
        second->Log(nullptr, "old\n");
    }
    UpdateLoggerSessionDate(0, 0, 0);
    UpdateLoggerSessionDate(2023, 2, 29);  // not a day of the calendar
    UpdateLoggerSessionDate(2024, 13, 1);
    UpdateLoggerSessionDate(2024, 4, 31);
    first->Log(nullptr, "still old\n");
    EXPECT_EQ(PathOf(*first), m_dir.file("App_One.log"));

    UpdateLoggerSessionDate(2024, 2, 29);
    EXPECT_EQ(PathOf(*first), m_dir.file("App_One_20240229.log"));
    EXPECT_EQ(PathOf(*second), m_dir.file("App_Two_20240229.log"));
    first->Log(nullptr, "new\n");
    second->Log(nullptr, "new\n");
    UpdateLoggerSessionDate(0, 0, 0);
    EXPECT_EQ(PathOf(*first), m_dir.file("App_One_20240229.log"));
    first->FlushLog();

    std::vector<std::string> oldFirst = Lines("App_One.log");
    ASSERT_EQ(oldFirst.size(), 301u);
    EXPECT_EQ(oldFirst.back(), "still old");
    EXPECT_EQ(Lines("App_Two.log").size(), 300u);
    EXPECT_EQ(ReadFile(m_dir.file("App_One_20240229.log")), "new\n");
    EXPECT_EQ(ReadFile(m_dir.file("App_Two_20240229.log")), "new\n");

    // A client opened later starts on the file of the date.
    auto third = OpenClient(false, "Three");
    EXPECT_EQ(PathOf(*third), m_dir.file("App_Three_20240229.log"));
    third->Log(nullptr, "3");
    third->FlushLog();
    EXPECT_EQ(ReadFile(m_dir.file("App_Three_20240229.log")), "3");
    EXPECT_FALSE(FileExists(m_dir.file("App_Three.log")));

    UpdateLoggerSessionDate(2025, 1, 2);
    third->Log(nullptr, "4");
    third->FlushLog();
    EXPECT_EQ(ReadFile(m_dir.file("App_Three_20250102.log")), "4");
}

TEST_F(LogSessionTest, SessionTextWinsOverTheDate) {
    auto client = OpenClient(false);
    client->Log(nullptr, PELTRIX_SESSION_MARKER "S");
    UpdateLoggerSessionDate(2030, 12, 31);
    client->Log(nullptr, "session");
    EXPECT_EQ(PathOf(*client), m_dir.file("App_Log_S.log"));
    // Without its session text the client follows the date again.
    client->Log(nullptr, PELTRIX_SESSION_MARKER);
    client->Log(nullptr, "dated");
    EXPECT_EQ(PathOf(*client), m_dir.file("App_Log_20301231.log"));
    client->FlushLog();
    EXPECT_EQ(ReadFile(m_dir.file("App_Log_S.log")), "session");
    EXPECT_EQ(ReadFile(m_dir.file("App_Log_20301231.log")), "dated");
    EXPECT_EQ(ReadFile(m_dir.file("App_Log.log")), "");
}

TEST_F(LogSessionTest, DateGivenBeforeAnyClientIsUsedByTheFirstOne) {
    UpdateLoggerSessionDate(2024, 1, 31);
    auto client = OpenClient(true);
    EXPECT_EQ(PathOf(*client), m_dir.file("App_Log_20240131.log"));
    client->Log("P", "m");
    client->Close();
    EXPECT_EQ(SplitLines(ReadFile(m_dir.file("App_Log_20240131.log"))).size(), 1u);
    EXPECT_FALSE(FileExists(m_dir.file("App_Log.log")));
}

}  // namespace
