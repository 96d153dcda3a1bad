// The engine forwarders: the fixed answer without an engine, arguments and answers unchanged with one, the report of plugging in.
#include "ReportTestSupport.h"

#include <cmath>
#include <cstdio>
#include <functional>
#include <iomanip>
#include <sstream>

using namespace velmora_report_test;

namespace {
// Its parts as text, each followed by a blank; a double with all its digits.
template <class... Parts>
std::string Text(const Parts&... parts) {
    std::ostringstream text;
    ((text << std::boolalpha << std::setprecision(17) << parts << ' '), ...);
    return text.str();
}

// Notes every call with its arguments, answers what no missing engine answers, writes through references, throws when told.
struct RecordingEngine : CFTSInf, CBCTEngineInf {
    std::vector<std::string> calls;
    bool bFail = false;
    template <class... Args>
    void Note(const char* szName, const Args&... args) { bFail ? throw HostFailure("engine down") : calls.push_back(Text(szName, args...)); }

    bool BeginTrasaction(void* p) override { return Note(__func__, p), true; }
    void EnableDomainTurbo(const char* sz, bool b) override { Note(__func__, sz, b); }
    void AssignTransactionDomain(const char* sz1, const char* sz2, int n) override { Note(__func__, sz1, sz2, n); }
    bool GetTransactionDomain(char* szDomain, int nDomain, char* szSuper, int nSuper, int& nKind) override {
        Note(__func__, nDomain, nSuper, nKind);
        return std::snprintf(szDomain, size_t(nDomain), "domain"), std::snprintf(szSuper, size_t(nSuper), "super"), nKind = 5, true;
    }
    void AssignSuperDomain() override { Note(__func__); } void FlushTransaction(bool b) override { Note(__func__, b); }
    void RunFiber(int n) override { Note(__func__, n); } int GetTransactionID() override { return Note(__func__), -7; }
    DWORD DefineTransaction(DWORD dw, const char* sz) override { return Note(__func__, dw, sz), 0xDEADBEEF; }
    DWORD GetTotalTransactions() override { return Note(__func__), 12345; } DWORD GetTransactionDescr(char* sz) override { return *sz = '\0', 0; }
    bool CheckDBWatermark(double d) override { return Note(__func__, d), true; } bool IsDBEngineUnderStress() override { return Note(__func__), true; }
    void SetBarrierTransaction(int n) override { Note(__func__, n); } void SetBarrierHint(int n) override { Note(__func__, n); }
    int GetBarrierTransaction() override { return Note(__func__), 99; } void AlignTransaction() override { Note(__func__); }
    bool EnableFIXTransaction(bool b) override { return Note(__func__, b), true; } bool DoFIXTransaction(const char* sz) override { return Note(__func__, sz), true; }
    void CommitFIXTransaction(DWORD dw) override { Note(__func__, dw); } void EnforceCommitTransaction() override { Note(__func__); }
    int CommitTrasaction(int& n1, int& n2, DWORD& dw3, char* sz, int nSize, bool b1, bool b2) override {
        Note(__func__, n1, n2, dw3, nSize, b1, b2);
        return std::snprintf(sz, size_t(nSize), "committed"), n1 = 11, n2 = 22, dw3 = 33, 42;
    }
    int CommitBackLog(int n) override { return Note(__func__, n), -3; } void AbortTrasaction() override { Note(__func__); }
    bool IsTransactionEmpty() override { return Note(__func__), false; } bool IsTransactionCommitted(int n) override { return Note(__func__, n), true; }
    void AttachTransactionIO(void* p) override { Note(__func__, p); } void Reserved22() override { Note(__func__); }
    bool PrepareBroadcast() override { return Note(__func__), true; } bool CanBroadcastMessage() override { return Note(__func__), true; }
    int BroadcastMsg(bool b) override { return Note(__func__, b), b ? 8 : -8; } void AbortBroadcast() override { Note(__func__); }
};

// A forwarder's call, its text without an engine and with one, and the engine's note of it.
struct Row {
    std::function<std::string()> call;
    std::string noEngine, answer, note;
};
#define ROW(call, noEngine, answer, note) Row{[&] { return Text(call); }, noEngine, answer, note}
#define VOID_ROW(call, note) Row{[&] { return call, std::string(); }, "", "", note}
using EngineForwarding = ReportFixture;
}  // namespace

// Plugging in, null too, is reported once there is a default log; the engine before isn't told; failures go on unreported.
TEST_F(EngineForwarding, EachForwarderPassesItsCallOrGivesItsFixedAnswer) {
    RecordingEngine engine, early;
    velmora.SetReportConsole(&console);
    velmora.EnableTransaction(&early);
    EXPECT_TRUE(velmora.IsTransactionEnabled() && console.Count() == 0);
    MakeDefaultLog();
    int nContext = 0, nKind = 0, n1 = 0, n2 = 0;
    DWORD dw3 = 0;
    char szDomain[16], szSuper[8], szBuffer[12];
    const double dMark = std::nextafter(0.1, 1.0);  // a trip through float or any rounding shows
    const Row rows[] = {
        ROW(velmora.BeginTrasaction(&nContext), "false ", "true ", Text("BeginTrasaction", &nContext)),
        VOID_ROW(velmora.EnableDomainTurbo("EQ", true), "EnableDomainTurbo EQ true "),
        VOID_ROW(velmora.AssignTransactionDomain("EQ", "ALL", -2), "AssignTransactionDomain EQ ALL -2 "),
        Row{[&] { bool b = velmora.GetTransactionDomain(szDomain, 16, szSuper, 8, nKind); return Text(b, szDomain, szSuper, nKind); },
            "false old old -4 ", "true domain super 5 ", "GetTransactionDomain 16 8 -4 "},
        VOID_ROW(velmora.AssignSuperDomain(), "AssignSuperDomain "), VOID_ROW(velmora.FlushTransaction(false), "FlushTransaction false "),
        VOID_ROW(velmora.RunFiber(-1), "RunFiber -1 "), ROW(velmora.GetTransactionID(), "0 ", "-7 ", "GetTransactionID "),
        ROW(velmora.DefineTransaction(0xFFFFFFFE, "orders"), "0 ", "3735928559 ", "DefineTransaction 4294967294 orders "),
        ROW(velmora.GetTotalTransactions(), "0 ", "12345 ", "GetTotalTransactions "),
        ROW(velmora.CheckDBWatermark(dMark), "false ", "true ", Text("CheckDBWatermark", dMark)),
        ROW(velmora.IsDBEngineUnderStress(), "false ", "true ", "IsDBEngineUnderStress "),
        VOID_ROW(velmora.SetBarrierTransaction(17), "SetBarrierTransaction 17 "), VOID_ROW(velmora.SetBarrierHint(-18), "SetBarrierHint -18 "),
        ROW(velmora.GetBarrierTransaction(), "0 ", "99 ", "GetBarrierTransaction "), VOID_ROW(velmora.AlignTransaction(), "AlignTransaction "),
        ROW(velmora.EnableFIXTransaction(false), "false ", "true ", "EnableFIXTransaction false "),
        ROW(velmora.DoFIXTransaction("35=D"), "false ", "true ", "DoFIXTransaction 35=D "),
        VOID_ROW(velmora.CommitFIXTransaction(0x80000000), "CommitFIXTransaction 2147483648 "),
        VOID_ROW(velmora.EnforceCommitTransaction(), "EnforceCommitTransaction "), VOID_ROW(velmora.AbortTrasaction(), "AbortTrasaction "),
        Row{[&] { int n = velmora.CommitTrasaction(n1, n2, dw3, szBuffer, 8, false, true); return Text(n, n1, n2, dw3, szBuffer); },
            "0 -1 1000000 4294967295 old ", "42 11 22 33 committ ", "CommitTrasaction -1 1000000 4294967295 8 false true "},
        ROW(velmora.CommitBackLog(2147483647), "0 ", "-3 ", "CommitBackLog 2147483647 "),
        ROW(velmora.IsTransactionEmpty(), "true ", "false ", "IsTransactionEmpty "),
        ROW(velmora.IsTransactionCommitted(-2147483647 - 1), "false ", "true ", "IsTransactionCommitted -2147483648 "),
        VOID_ROW(velmora.AttachTransactionIO(&nContext), Text("AttachTransactionIO", &nContext)),
        ROW(velmora.PrepareBroadcast(), "false ", "true ", "PrepareBroadcast "), ROW(velmora.CanBroadcastMessage(), "false ", "true ", "CanBroadcastMessage "),
        ROW(velmora.BroadcastMsg(true), "0 ", "8 ", "BroadcastMsg true "), ROW(velmora.BroadcastMsg(false), "0 ", "-8 ", "BroadcastMsg false "),
        VOID_ROW(velmora.AbortBroadcast(), "AbortBroadcast "),
    };
    for (RecordingEngine* pEngine : {(RecordingEngine*)nullptr, &engine}) {
        velmora.EnableTransaction(pEngine), velmora.EnableMsgBroadcast(pEngine);
        EXPECT_EQ(velmora.IsTransactionEnabled() && velmora.IsMsgBroadcastEnabled(), pEngine != nullptr);
        for (const Row& row : rows) {
            std::strcpy(szDomain, "old"), std::strcpy(szSuper, "old"), std::strcpy(szBuffer, "old");
            nKind = -4, n1 = -1, n2 = 1000000, dw3 = 0xFFFFFFFF, engine.calls.clear();
            EXPECT_EQ(row.call(), pEngine != nullptr ? row.answer : row.noEngine) << row.note;
            EXPECT_EQ(engine.calls, std::vector<std::string>(pEngine != nullptr ? 1 : 0, row.note));
        }
    }
    EXPECT_TRUE(early.calls.empty());
    const std::string txn = "TXN Engine was turned on\n", bct = "BCT Engine was turned on\n";
    EXPECT_EQ(console.Texts(), (std::vector<std::string>{txn, bct, txn, bct}));
    for (const ConsoleCall& call : console.Calls()) EXPECT_EQ(call.nType, Report_Types::REPORT_RUNTIME_STATE);
    EXPECT_EQ(std::make_pair(CountRecords("[Runtime State]", txn), CountRecords("[Runtime State]", bct)), std::make_pair(2, 2));
    _G_TraceAll = true, engine.bFail = true;
    EXPECT_THROW(velmora.IsTransactionEmpty(), win32_exception);
    EXPECT_THROW(velmora.BroadcastMsg(true), win32_exception);
    EXPECT_EQ(console.Count(), 4u);
    velmora.pBCTEngine = nullptr;
}
