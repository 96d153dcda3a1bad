// Shell output: remote console, log, local console; the stamp, the level as only gate, bLogOnly, cuts, _G_SafePrintf.
#include "ShellTestSupport.h"

using namespace velmora_report_test;
using namespace velmora_shell_test;
using velmora_log_test::CountOf;

namespace {
class ShellOutput : public ReportFixture {
protected:
    void SetUp() override {
        ReportFixture::SetUp();
        remote.bFrees = false;  // it only looks at the block
        remotes.consoles = {{"desk", &remote}, {"localhost", &local}};  // a host may name the local console
        velmora.EnableRemoteConsole(&remotes);
        velmora.SetReportConsole(&local);
    }
    void TearDown() override { velmora.EnableRemoteConsole(nullptr); ReportFixture::TearDown(); }
    RecordingConsole local, remote;
    RemoteConsoles remotes;
};
}  // namespace

// One block: the remote console sees it before the log has it, the local console takes it; one twin stamps.
TEST_F(ShellOutput, EachTwinServesTheRemoteConsoleThenTheLogThenTheLocalConsole) {
    MakeDefaultLog();
    for (FSTwin twin : kAllFSTwins) {
        const std::string text = "answer " + std::to_string(int(twin)), stamp = twin == FSTwin::kFormatted ? "[##/## ##:##:##.###] " : "";
        const bool bColour = twin == FSTwin::kPlainInColor || twin == FSTwin::kFormattedInColor;
        std::string inLog;  // how often the log has the text while the remote console, then the local one, is called
        remote.onCall = local.onCall = [&](const char*) { inLog += std::to_string(CountOf(LogText(), text + ";")); };
        local.calls.clear(), remote.calls.clear();
        EXPECT_EQ(TrafficOf([&] { Say(twin, "desk", text, false, 0x112233); }), (BlockTraffic{1, 1})) << text;
        ASSERT_EQ(inLog + std::to_string(local.calls.size()), "011") << text;
        EXPECT_EQ(local.calls, remote.calls) << text;
        EXPECT_EQ(local.calls[0], (ConsoleCall{Report_Types::REPORT_FS_OUTPUT, bColour, bColour ? 0x112233u : 0, local.calls[0].text}));
        EXPECT_TRUE(velmora_log_test::MatchesPattern(local.calls[0].text, stamp + text));
        EXPECT_TRUE(velmora_log_test::MatchesPattern(MessagesOf(LogText(), "[FS Output]").back(), stamp + text));
    }
}

// Per case and twin: remote asks, remote calls, local calls, blocks allocated, freed; then the count in the log.
TEST_F(ShellOutput, OnlyTheLevelHoldsTheLocalConsoleBack) {
    MakeDefaultLog();
    std::strcpy(velmora.szGrepText, "absent");  // none of these hold shell output back
    velmora.dwShellThreadId = GetCurrentThreadId() + 1, velmora.bRuntimeStatusToIni = true;
    struct Case { int nLevel; bool bLogOnly, bLocal, bNoLog, bNoBlock; const char *szSource, *szRoads; } const cases[] = {
        {6, false, true, false, false, "desk", "11111 11111 11111 11111 4"}, {5, false, true, false, false, "desk", "11011 11011 11011 11011 4"},
        {6, true, true, false, false, "desk", "00000 11111 00000 11111 4"}, {6, false, false, false, false, "desk", "00000 00000 00000 00000 4"},
        {6, false, true, false, false, nullptr, "00111 00111 00111 00111 4"}, {6, false, true, false, false, "x", "10111 10111 10111 10111 4"},
        {6, false, true, false, false, "localhost", "10111 10111 10111 10111 4"},
        {6, false, true, true, false, "desk", "00000 00000 00000 00000 0"}, {6, false, true, false, true, "desk", "00000 00000 00000 00000 0"}};
    for (size_t i = 0; i < std::size(cases); ++i) {
        const Case& c = cases[i];
        const std::string text = "case " + std::to_string(i);
        std::string roads;
        velmora.SetReportLevel(c.nLevel), velmora.SetReportConsole(c.bLocal ? &local : nullptr);
        for (FSTwin twin : kAllFSTwins) {
            const size_t nAsks = remotes.nAsks, nRemote = remote.calls.size(), nLocal = local.calls.size();
            globalDefaultLog = c.bNoLog ? nullptr : pLog, FailBlockAllocations(c.bNoBlock);
            const BlockTraffic t = TrafficOf([&] { Say(twin, c.szSource, text, c.bLogOnly); });
            globalDefaultLog = pLog, FailBlockAllocations(false);
            for (size_t n : {remotes.nAsks - nAsks, remote.calls.size() - nRemote, local.calls.size() - nLocal, size_t(t.nAllocs), size_t(t.nFrees)})
                roads += std::to_string(n);
            roads += " ";
        }
        EXPECT_EQ(roads + std::to_string(CountOf(LogText(), text + ";")), c.szRoads) << text;
    }
}

// 746 behind FSLogFortmatedReport's stamp, 767 elsewhere; _G_SafePrintf by size, an exact fit and one more.
TEST_F(ShellOutput, TextsPastTheirRoomAreCut) {
    MakeDefaultLog(true);
    for (size_t i = 0; i < 8; ++i) {
        const FSTwin twin = kAllFSTwins[i % 4];
        const size_t nRoom = i < 4 && twin == FSTwin::kFormatted ? 746 : 767;
        const std::string whole = velmora_log_test::Letters(nRoom, 2 * i), longer = velmora_log_test::Letters(nRoom + 1, 2 * i + 1);
        velmora.SetReportConsole(i < 4 ? &local : nullptr), local.calls.clear();
        for (const std::string& text : {whole, longer}) Say(twin, "desk", text);
        for (const std::string& text : {whole, longer}) EXPECT_EQ(CountOf(LogText(), text.substr(0, nRoom) + ";\r\n"), 1) << i;
        EXPECT_EQ(local.calls.size() == 2 ? local.calls[1].text.substr(767 - nRoom) : "", i < 4 ? longer.substr(0, nRoom) : "") << i;
    }
    struct Case { size_t nSize; const char* szFormat; int nResult; const char* szBuffer; } const cases[] = {
        {0, "%s", -1, "################"}, {1, "", 0, ""}, {6, "%s", 5, "hello"}, {5, "%s", -1, ""}, {8, nullptr, 0, ""}};
    for (const Case& c : cases) {
        char szBuffer[17] = "################";
        EXPECT_EQ(_G_SafePrintf(szBuffer, c.nSize, c.szFormat, "hello"), c.nResult) << c.nSize;
        EXPECT_EQ(std::string(szBuffer) + std::string(szBuffer + c.nSize), c.szBuffer + std::string(16 - c.nSize, '#')) << c.nSize;
    }
    const char* volatile szNoFormat = nullptr;  // a null text or format is the empty text
    velmora.SetReportConsole(&local), velmora.FSLogReport("desk", true, nullptr), velmora.FSLogFortmatedReportInColor("desk", 1, szNoFormat);
    EXPECT_EQ(local.calls.back().text + "|" + MessagesOf(LogText(), "[FS Output]").back(), "|");
    FakeTransactionEngine engine;  // a host's failure (in the trace) gives -1 and is reported under "_G_SafePrintf"
    velmora.pFTSEngine = &engine, _G_TraceAll = true, engine.nWin32FailuresLeft = 1;
    char szBuffer[8];
    EXPECT_EQ(_G_SafePrintf(szBuffer, sizeof(szBuffer), "%d", 12), -1);
    EXPECT_EQ(CountRecords("[Exception]", "_G_SafePrintf engine down\n"), 1);
}
