// The status file: section, keys and values of a status text, the limits, and which reports write it.
#include "ReportTestSupport.h"

using velmora_log_test::Letters;

namespace {
class StatusFileLines : public velmora_report_test::ReportFixture {
protected:
    void SetUp() override {
        ReportFixture::SetUp();
        MakeDefaultLog();
        velmora.SetReportConsole(&console), std::strcpy(velmora.szStatusFile, statusFile.c_str());
    }
    static void Status(const std::string& text) { velmora.LogFortmatedReport(Report_Types::REPORT_RUNTIME_STATE, "%s", text.c_str()); }
    std::string TakeLines() {  // the lines of the file, each ending in '|'; the file is removed
        std::string text = std::regex_replace(velmora_test::ReadFile(statusFile), std::regex("\r\n"), "|");
        std::filesystem::remove(statusFile);
        return text;
    }
    const std::string statusFile = tmp.file("ServerRuntimeStatus.ini");
};
}  // namespace

TEST_F(StatusFileLines, EachPairOfAStatusTextBecomesALineOfItsSection) {
    const std::string words249 = Letters(249), section255 = words249 + "Status", key = Letters(300), value = Letters(400, 5);
    const std::pair<std::string, std::string> cases[] = {
        {"Order Engine Status[Orders:120 Fills:30]\n", "[Order_Engine_Status]|Order_Engine_Status[Orders]=120|Order_Engine_Status[Fills]=30|"},
        {"Status[a:1 b:2] done", "[Status]|Status[a]=1|Status[b]=2]|"},  // the blank ends b's value
        {"Feed  Handler Status[open orders:1] late:5 empty: last:6]", "[Feed__Handler_Status]|Feed__Handler_Status[open orders]=1]|"
         "Feed__Handler_Status[late]=5|Feed__Handler_Status[empty]=|Feed__Handler_Status[last]=6|"},
        {"Risk Status[ok:1 broken] x", "[Risk_Status]|Risk_Status[ok]=1|"},  // no colon: the end
        {"Risk Status[ok:1 tail:9", "[Risk_Status]|Risk_Status[ok]=1|"},     // no end of the value: the end
        {words249 + "Status[k:v]", "[" + section255 + "]|" + section255 + "=v|"},  // the key cut to 255
        {"x" + words249 + "Status[k:v] Status[k:v]", ""},                     // a section of 256
        {"Status[" + key + ":1 k:" + value + "]", "[Status]|" + ("Status[" + key).substr(0, 255) + "=1|Status[k]=" + value.substr(0, 255) + "|"}};
    for (const auto& [text, lines] : cases) {
        Status(text);
        EXPECT_EQ(TakeLines(), lines) << text;
    }
    EXPECT_EQ(console.Texts()[0], cases[0].first);  // the report itself goes on as usual
}

// Only LogFortmatedReport of type 2 with a console and a path writes, whatever the gates; INI keeps the console quiet.
TEST_F(StatusFileLines, WhichReportsWriteTheFile) {
    velmora.LogFortmatedReport(Report_Types::REPORT_ALERT, "%s", "Status[a:1]");
    velmora.LogReport(Report_Types::REPORT_RUNTIME_STATE, "Status[a:1]");
    velmora.LogReportInColor(Report_Types::REPORT_RUNTIME_STATE, 7, "Status[a:1]");
    velmora.LogFortmatedReportInColor(Report_Types::REPORT_RUNTIME_STATE, 7, "%s", "Status[a:1]");
    Status("status[a:1] Status [a:1]");
    velmora.SetReportConsole(nullptr), Status("Status[a:1]"), velmora.SetReportConsole(&console);
    velmora.szStatusFile[0] = '\0', Status("Status[a:1]");
    for (const auto& entry : std::filesystem::directory_iterator(tmp.path())) EXPECT_FALSE(entry.is_regular_file()) << entry.path();
    std::strcpy(velmora.szStatusFile, statusFile.c_str()), console.calls.clear();
    velmora.SetReportLevel(0), Status("Status[level:1]"), velmora.SetReportLevel(22);
    std::strcpy(velmora.szGrepText, "absent"), Status("Status[grep:1]");
    velmora.dwShellThreadId = GetCurrentThreadId() + 1, Status("Status[shell:1]");
    velmora.szGrepText[0] = '\0', velmora.dwShellThreadId = 0, velmora.bRuntimeStatusToIni = true, Status("Status[ini:1]");
    EXPECT_EQ(console.Count(), 0u);
    EXPECT_EQ(TakeLines(), "[Status]|Status[level]=1|Status[grep]=1|Status[shell]=1|Status[ini]=1|");
}
