// The lines of the status file: the section, keys and values read from a status text, the
// blank that wins over the bracket, the length limits, and which reports write the file at
// all. The status file is one of the test's own folder, set directly: the file that
// EnableStatusMonitor names lies beside the test program and is shared by other tests.
#include "ReportTestSupport.h"

#include <filesystem>

using namespace velmora_report_test;
using velmora_log_test::Letters;
using velmora_test::FileExists;
using velmora_test::ReadFile;

namespace {

class StatusFileLines : public ReportFixture {
protected:
    void SetUp() override {
        ReportFixture::SetUp();
        MakeDefaultLog();
        velmora.SetReportConsole(&console);
        statusFile = tmp.file("ServerRuntimeStatus.ini");
        UseStatusFile(statusFile);
    }
    void TearDown() override {
        velmora.szStatusFile[0] = '\0';
        velmora.bRuntimeStatusToIni = false;
        velmora.szGrepText[0] = '\0';
        velmora.dwShellThreadId = 0;
        velmora.SetReportLevel(22);
        ReportFixture::TearDown();
    }

    static void UseStatusFile(const std::string& path) {
        ASSERT_LT(path.size(), sizeof(velmora.szStatusFile));
        std::memcpy(velmora.szStatusFile, path.c_str(), path.size() + 1);
    }

    static void Status(const char* szText) {
        velmora.LogFortmatedReport(Report_Types::REPORT_RUNTIME_STATE, "%s", szText);
    }

    // The lines of the file, as the platform writes them.
    static std::string Lines(std::initializer_list<std::string> lines) {
        std::string text;
        for (const std::string& line : lines) text += line + "\r\n";
        return text;
    }

    std::string StatusText() const { return ReadFile(statusFile); }

    std::string Value(const std::string& section, const std::string& key) const {
        char szValue[1024];
        GetPrivateProfileStringA(section.c_str(), key.c_str(), "<none>", szValue,
                                 sizeof(szValue), statusFile.c_str());
        return szValue;
    }

    std::string statusFile;
};

}  // namespace

TEST_F(StatusFileLines, EachPairOfAStatusTextBecomesALineOfItsSection) {
    velmora.LogFortmatedReport(Report_Types::REPORT_RUNTIME_STATE,
                               "Order Engine Status[Orders:%d Fills:%d]\n", 120, 30);
    EXPECT_EQ(StatusText(), Lines({"[Order_Engine_Status]", "Order_Engine_Status[Orders]=120",
                                   "Order_Engine_Status[Fills]=30"}));
    // The report itself goes on as usual: to the log and to the console.
    EXPECT_EQ(CountRecords("[Runtime State]", "Order Engine Status[Orders:120 Fills:30]\n"), 1);
    EXPECT_EQ(console.Texts(),
              std::vector<std::string>{"Order Engine Status[Orders:120 Fills:30]\n"});

    // A later status of the same section updates its lines in place.
    Status("Order Engine Status[Orders:121 Fills:30]");
    EXPECT_EQ(Value("Order_Engine_Status", "Order_Engine_Status[Orders]"), "121");
    EXPECT_EQ(velmora_log_test::CountOf(StatusText(), "[Orders]="), 1);
}

TEST_F(StatusFileLines, ABlankEndsAValueBeforeABracketDoes) {
    // Nothing behind the bracket: the last value ends at the bracket.
    Status("Status[a:1 b:2]");
    EXPECT_EQ(StatusText(), Lines({"[Status]", "Status[a]=1", "Status[b]=2"}));

    // A word behind the bracket: the blank in front of it ends the value, which keeps its
    // bracket, and the word has no colon, so it is dropped.
    std::filesystem::remove(statusFile);
    Status("Status[a:1 b:2] done");
    EXPECT_EQ(StatusText(), Lines({"[Status]", "Status[a]=1", "Status[b]=2]"}));

    // The bracket ends nothing: a colon behind it starts a further pair. Blanks of the
    // section become "_", those of a key's own text stay, and a value may be empty.
    std::filesystem::remove(statusFile);
    Status("Feed  Handler Status[open orders:1] late:5 empty: last:6]");
    EXPECT_EQ(StatusText(),
              Lines({"[Feed__Handler_Status]", "Feed__Handler_Status[open orders]=1]",
                     "Feed__Handler_Status[late]=5", "Feed__Handler_Status[empty]=",
                     "Feed__Handler_Status[last]=6"}));

    // A pair without a colon, or a value without an end, ends the text: what came before
    // it is written, nothing after it.
    std::filesystem::remove(statusFile);
    Status("Risk Status[ok:1 broken] x");
    EXPECT_EQ(StatusText(), Lines({"[Risk_Status]", "Risk_Status[ok]=1"}));
    std::filesystem::remove(statusFile);
    Status("Risk Status[ok:1 tail:9");
    EXPECT_EQ(StatusText(), Lines({"[Risk_Status]", "Risk_Status[ok]=1"}));
}

TEST_F(StatusFileLines, ASectionOf255CharactersIsWrittenAndOneOf256IsNot) {
    // The section is the text up to and including the word Status.
    std::string words249 = Letters(249);
    Status((words249 + "Status[k:v]").c_str());
    std::string section255 = words249 + "Status";
    ASSERT_EQ(section255.size(), 255u);
    // The key has no room left behind the section: it is cut to 255 characters.
    EXPECT_EQ(StatusText(), Lines({"[" + section255 + "]", section255 + "=v"}));

    std::filesystem::remove(statusFile);
    std::string words250 = Letters(250);
    Status((words250 + "Status[k:v]").c_str());
    EXPECT_FALSE(FileExists(statusFile));
    // Only the first "Status[" counts: a later one doesn't make a shorter section.
    Status((words250 + "Status[k:v] Status[k:v]").c_str());
    EXPECT_FALSE(FileExists(statusFile));
}

TEST_F(StatusFileLines, AKeyOrAValueLongerThan255CharactersIsCut) {
    std::string longKey = Letters(300);
    std::string longValue = Letters(400, 5);
    Status(("Status[" + longKey + ":1 k:" + longValue + "]").c_str());
    // "Status[" and 248 characters of the key's own text; the closing "]" is cut off.
    std::string key = ("Status[" + longKey).substr(0, 255);
    EXPECT_EQ(StatusText(), Lines({"[Status]", key + "=1", "Status[k]=" + longValue.substr(0, 255)}));
}

TEST_F(StatusFileLines, OnlyAFormattedStatusReportOfType2WithAConsoleWritesTheFile) {
    // Other types, the other twins and texts without "Status[" write nothing.
    velmora.LogFortmatedReport(Report_Types::REPORT_FS_COMMAND, "%s", "Status[a:1]");
    velmora.LogFortmatedReport(Report_Types::REPORT_ALERT, "%s", "Status[a:1]");
    velmora.LogReport(Report_Types::REPORT_RUNTIME_STATE, "Status[a:1]");
    velmora.LogReportInColor(Report_Types::REPORT_RUNTIME_STATE, 7, "Status[a:1]");
    velmora.LogFortmatedReportInColor(Report_Types::REPORT_RUNTIME_STATE, 7, "%s", "Status[a:1]");
    Status("Status [a:1]");
    Status("status[a:1]");
    EXPECT_FALSE(FileExists(statusFile));

    // No console plugged in: the step belongs to the console's path.
    velmora.SetReportConsole(nullptr);
    Status("Status[a:1]");
    EXPECT_FALSE(FileExists(statusFile));

    // No block for the console: the report is dropped, the status with it.
    velmora.SetReportConsole(&console);
    FailBlockAllocations(true);
    Status("Status[a:1]");
    FailBlockAllocations(false);
    EXPECT_FALSE(FileExists(statusFile));

    Status("Status[a:1]");
    EXPECT_EQ(StatusText(), Lines({"[Status]", "Status[a]=1"}));
}

TEST_F(StatusFileLines, NothingIsWrittenBeforeTheStatusFileHasAPath) {
    velmora.szStatusFile[0] = '\0';  // as before EnableStatusMonitor
    Status("Status[a:1]");
    EXPECT_EQ(console.Count(), 1u);  // the report itself went on
    std::vector<std::string> created;
    for (const auto& entry : std::filesystem::directory_iterator(tmp.path()))
        if (entry.is_regular_file()) created.push_back(entry.path().filename());
    EXPECT_TRUE(created.empty()) << created.front();
    EXPECT_FALSE(FileExists(statusFile));

    UseStatusFile(statusFile);
    Status("Status[a:2]");
    EXPECT_EQ(Value("Status", "Status[a]"), "2");
}

TEST_F(StatusFileLines, TheLevelTheGrepAndTheShellThreadDontHoldTheFileBack) {
    velmora.SetReportLevel(0);
    Status("Status[level:1]");
    velmora.SetReportLevel(22);
    std::strcpy(velmora.szGrepText, "absent");
    Status("Status[grep:1]");
    velmora.szGrepText[0] = '\0';
    velmora.dwShellThreadId = GetCurrentThreadId() + 1;
    Status("Status[shell:1]");
    velmora.dwShellThreadId = 0;

    EXPECT_EQ(console.Count(), 0u);
    EXPECT_EQ(StatusText(), Lines({"[Status]", "Status[level]=1", "Status[grep]=1",
                                   "Status[shell]=1"}));
}

namespace {

// A module that reports its status when asked.
class StatusModule : public CMaintenanceInf {
public:
    void PrintRuntimeStatus(const char*) override {
        velmora.LogFortmatedReport(Report_Types::REPORT_RUNTIME_STATE,
                                   "Risk Status[Open:%d Limit:%d]\n", nOpen, 50);
    }
    int GetSubscribeOrder() override { return 1; }
    int nOpen = 3;
};

}  // namespace

TEST_F(StatusFileLines, AfterRuntimeIniTheLinesReachTheFileAndTheConsoleStaysQuiet) {
    StatusModule module;
    velmora.SubscribeMaitenance(&module);

    velmora.PrintRuntimeStatus("INI");
    EXPECT_EQ(StatusText(), Lines({"[Risk_Status]", "Risk_Status[Open]=3", "Risk_Status[Limit]=50"}));
    EXPECT_EQ(console.Count(), 0u);
    EXPECT_EQ(CountRecords("[Runtime State]", "Risk Status[Open:3 Limit:50]\n"), 1);

    // Without INI the lines go to both places.
    module.nOpen = 4;
    velmora.PrintRuntimeStatus(nullptr);
    EXPECT_EQ(Value("Risk_Status", "Risk_Status[Open]"), "4");
    EXPECT_EQ(console.Texts(), std::vector<std::string>{"Risk Status[Open:4 Limit:50]\n"});

    velmora.UnsubscribeMaitenance(&module);
}
