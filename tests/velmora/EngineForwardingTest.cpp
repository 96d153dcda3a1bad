// The engine forwarders: the fixed answers without an engine, arguments and answers passed
// unchanged with one, the reports of plugging in, and the replacement of an engine.
#include "ReportTestSupport.h"

#include <cmath>
#include <cstdio>
#include <sstream>

using namespace velmora_report_test;
using velmora_log_test::CountOf;

namespace {

// Notes every call with its arguments, answers what it is set to answer (none of it the
// fixed answer of a missing engine), and writes through the references and buffers.
class RecordingEngine : public CFTSInf {
public:
    std::vector<std::string> calls;
    double dWatermark = 0;  // kept apart: printed, a double could lose its last bits
    bool bFailWin32 = false;

    bool BeginTrasaction(void* p) override { return Note("BeginTrasaction", p), true; }
    void EnableDomainTurbo(const char* sz, bool b) override { Note("EnableDomainTurbo", sz, b); }
    void AssignTransactionDomain(const char* sz1, const char* sz2, int n) override {
        Note("AssignTransactionDomain", sz1, sz2, n);
    }
    bool GetTransactionDomain(char* szDomain, int nDomainSize, char* szSuper, int nSuperSize,
                              int& nKind) override {
        Note("GetTransactionDomain", nDomainSize, nSuperSize, nKind);
        std::snprintf(szDomain, size_t(nDomainSize), "%s", "domain");
        std::snprintf(szSuper, size_t(nSuperSize), "%s", "super");
        nKind = 5;
        return true;
    }
    void AssignSuperDomain() override { Note("AssignSuperDomain"); }
    void FlushTransaction(bool b) override { Note("FlushTransaction", b); }
    void RunFiber(int n) override { Note("RunFiber", n); }
    DWORD DefineTransaction(DWORD dw, const char* sz) override {
        return Note("DefineTransaction", dw, sz), 0xDEADBEEF;
    }
    DWORD GetTotalTransactions() override { return Note("GetTotalTransactions"), 12345; }
    DWORD GetTransactionDescr(char* sz) override {
        Note("GetTransactionDescr");
        *sz = '\0';
        return 0;
    }
    int GetTransactionID() override { return Note("GetTransactionID"), -7; }
    bool CheckDBWatermark(double d) override {
        dWatermark = d;
        return Note("CheckDBWatermark"), true;
    }
    bool IsDBEngineUnderStress() override { return Note("IsDBEngineUnderStress"), true; }
    void SetBarrierTransaction(int n) override { Note("SetBarrierTransaction", n); }
    void SetBarrierHint(int n) override { Note("SetBarrierHint", n); }
    int GetBarrierTransaction() override { return Note("GetBarrierTransaction"), 99; }
    void AlignTransaction() override { Note("AlignTransaction"); }
    bool EnableFIXTransaction(bool b) override { return Note("EnableFIXTransaction", b), true; }
    bool DoFIXTransaction(const char* sz) override { return Note("DoFIXTransaction", sz), true; }
    void CommitFIXTransaction(DWORD dw) override { Note("CommitFIXTransaction", dw); }
    void EnforceCommitTransaction() override { Note("EnforceCommitTransaction"); }
    void Reserved22() override { Note("Reserved22"); }
    int CommitTrasaction(int& n1, int& n2, DWORD& dw3, char* sz, int nSize, bool b1,
                         bool b2) override {
        Note("CommitTrasaction", n1, n2, dw3, nSize, b1, b2);
        n1 = 11;
        n2 = 22;
        dw3 = 33;
        std::snprintf(sz, size_t(nSize), "%s", "committed");
        return 42;
    }
    int CommitBackLog(int n) override { return Note("CommitBackLog", n), -3; }
    void AbortTrasaction() override { Note("AbortTrasaction"); }
    bool IsTransactionEmpty() override { return Note("IsTransactionEmpty"), false; }
    bool IsTransactionCommitted(int n) override {
        return Note("IsTransactionCommitted", n), true;
    }
    void AttachTransactionIO(void* p) override { Note("AttachTransactionIO", p); }

private:
    template <class... Args>
    void Note(const char* szName, const Args&... args) {
        if (bFailWin32) throw HostFailure("engine down");
        std::ostringstream call;
        call << std::boolalpha << szName;
        ((call << ' ' << args), ...);
        calls.push_back(call.str());
    }
};

class RecordingBroadcast : public CBCTEngineInf {
public:
    std::vector<std::string> calls;
    bool PrepareBroadcast() override { return calls.push_back("PrepareBroadcast"), true; }
    bool CanBroadcastMessage() override { return calls.push_back("CanBroadcastMessage"), true; }
    int BroadcastMsg(bool b) override {
        calls.push_back(b ? "BroadcastMsg true" : "BroadcastMsg false");
        return b ? 8 : -8;
    }
    void AbortBroadcast() override { calls.push_back("AbortBroadcast"); }
};

std::string Address(const void* p) {
    std::ostringstream text;
    text << p;
    return text.str();
}

using EngineForwarding = ReportFixture;

}  // namespace

TEST_F(EngineForwarding, WithNeitherEngineEachForwarderGivesItsFixedAnswer) {
    ASSERT_EQ(velmora.pFTSEngine, nullptr);
    ASSERT_EQ(velmora.pBCTEngine, nullptr);
    EXPECT_FALSE(velmora.IsTransactionEnabled());
    EXPECT_FALSE(velmora.BeginTrasaction(this));
    EXPECT_EQ(velmora.DefineTransaction(5, "name"), 0u);
    EXPECT_EQ(velmora.GetTotalTransactions(), 0u);
    EXPECT_EQ(velmora.GetTransactionID(), 0);
    EXPECT_FALSE(velmora.CheckDBWatermark(0.5));
    EXPECT_FALSE(velmora.IsDBEngineUnderStress());
    EXPECT_EQ(velmora.GetBarrierTransaction(), 0);
    EXPECT_FALSE(velmora.EnableFIXTransaction(true));
    EXPECT_FALSE(velmora.DoFIXTransaction("8=FIX.4.2"));
    EXPECT_EQ(velmora.CommitBackLog(3), 0);
    EXPECT_TRUE(velmora.IsTransactionEmpty());
    EXPECT_FALSE(velmora.IsTransactionCommitted(0));
    EXPECT_FALSE(velmora.IsTransactionCommitted(12));
    // The operations without a result do nothing, and have nothing to call.
    velmora.EnableDomainTurbo("domain", true);
    velmora.AssignTransactionDomain("domain", "super", 1);
    velmora.AssignSuperDomain();
    velmora.FlushTransaction(true);
    velmora.RunFiber(2);
    velmora.SetBarrierTransaction(3);
    velmora.SetBarrierHint(4);
    velmora.AlignTransaction();
    velmora.CommitFIXTransaction(5);
    velmora.EnforceCommitTransaction();
    velmora.AbortTrasaction();
    velmora.AttachTransactionIO(this);

    // Nothing is written through the buffers or references.
    char szDomain[16] = "old domain";
    char szSuper[16] = "old super";
    int nKind = 77;
    EXPECT_FALSE(velmora.GetTransactionDomain(szDomain, sizeof(szDomain), szSuper,
                                              sizeof(szSuper), nKind));
    EXPECT_STREQ(szDomain, "old domain");
    EXPECT_STREQ(szSuper, "old super");
    EXPECT_EQ(nKind, 77);
    int n1 = 1, n2 = 2;
    DWORD dw3 = 3;
    char szBuffer[16] = "old buffer";
    EXPECT_EQ(velmora.CommitTrasaction(n1, n2, dw3, szBuffer, sizeof(szBuffer), true, false), 0);
    EXPECT_EQ(n1, 1);
    EXPECT_EQ(n2, 2);
    EXPECT_EQ(dw3, 3u);
    EXPECT_STREQ(szBuffer, "old buffer");

    EXPECT_FALSE(velmora.IsMsgBroadcastEnabled());
    EXPECT_FALSE(velmora.PrepareBroadcast());
    EXPECT_FALSE(velmora.CanBroadcastMessage());
    EXPECT_EQ(velmora.BroadcastMsg(true), 0);
    velmora.AbortBroadcast();
}

TEST_F(EngineForwarding, AnEngineGetsTheArgumentsAsTheyCameAndItsAnswersComeBack) {
    RecordingEngine engine;
    velmora.EnableTransaction(&engine);
    int nContext = 0;
    int nIO = 0;
    // One step above 0.1: a trip through float, or any rounding, changes it.
    const double dWatermark = std::nextafter(0.1, 1.0);

    EXPECT_TRUE(velmora.BeginTrasaction(&nContext));
    velmora.EnableDomainTurbo("EQ", true);
    velmora.AssignTransactionDomain("EQ", "ALL", -2);
    velmora.AssignSuperDomain();
    velmora.FlushTransaction(false);
    velmora.RunFiber(-1);
    EXPECT_EQ(velmora.DefineTransaction(0xFFFFFFFE, "orders"), 0xDEADBEEFu);
    EXPECT_EQ(velmora.GetTotalTransactions(), 12345u);
    EXPECT_EQ(velmora.GetTransactionID(), -7);
    EXPECT_TRUE(velmora.CheckDBWatermark(dWatermark));
    EXPECT_TRUE(velmora.IsDBEngineUnderStress());
    velmora.SetBarrierTransaction(17);
    velmora.SetBarrierHint(-18);
    EXPECT_EQ(velmora.GetBarrierTransaction(), 99);
    velmora.AlignTransaction();
    EXPECT_TRUE(velmora.EnableFIXTransaction(false));
    EXPECT_TRUE(velmora.DoFIXTransaction("35=D"));
    velmora.CommitFIXTransaction(0x80000000);
    velmora.EnforceCommitTransaction();
    EXPECT_EQ(velmora.CommitBackLog(2147483647), -3);
    velmora.AbortTrasaction();
    EXPECT_FALSE(velmora.IsTransactionEmpty());
    EXPECT_TRUE(velmora.IsTransactionCommitted(-2147483647 - 1));
    velmora.AttachTransactionIO(&nIO);

    char szDomain[16] = {};
    char szSuper[8] = {};
    int nKind = -4;
    EXPECT_TRUE(velmora.GetTransactionDomain(szDomain, sizeof(szDomain), szSuper,
                                             sizeof(szSuper), nKind));
    EXPECT_STREQ(szDomain, "domain");
    EXPECT_STREQ(szSuper, "super");
    EXPECT_EQ(nKind, 5);
    int n1 = -1, n2 = 1000000;
    DWORD dw3 = 0xFFFFFFFF;
    char szBuffer[12] = {};
    EXPECT_EQ(velmora.CommitTrasaction(n1, n2, dw3, szBuffer, 8, false, true), 42);
    EXPECT_EQ(n1, 11);
    EXPECT_EQ(n2, 22);
    EXPECT_EQ(dw3, 33u);
    EXPECT_STREQ(szBuffer, "committ");  // the engine was given the size 8, not 12

    const std::vector<std::string> expected = {
        "BeginTrasaction " + Address(&nContext),
        "EnableDomainTurbo EQ true",
        "AssignTransactionDomain EQ ALL -2",
        "AssignSuperDomain",
        "FlushTransaction false",
        "RunFiber -1",
        "DefineTransaction 4294967294 orders",
        "GetTotalTransactions",
        "GetTransactionID",
        "CheckDBWatermark",
        "IsDBEngineUnderStress",
        "SetBarrierTransaction 17",
        "SetBarrierHint -18",
        "GetBarrierTransaction",
        "AlignTransaction",
        "EnableFIXTransaction false",
        "DoFIXTransaction 35=D",
        "CommitFIXTransaction 2147483648",
        "EnforceCommitTransaction",
        "CommitBackLog 2147483647",
        "AbortTrasaction",
        "IsTransactionEmpty",
        "IsTransactionCommitted -2147483648",
        "AttachTransactionIO " + Address(&nIO),
        "GetTransactionDomain 16 8 -4",
        "CommitTrasaction -1 1000000 4294967295 8 false true",
    };
    EXPECT_EQ(engine.calls, expected);
    EXPECT_EQ(engine.dWatermark, dWatermark);

    RecordingBroadcast broadcast;
    velmora.EnableMsgBroadcast(&broadcast);
    EXPECT_TRUE(velmora.PrepareBroadcast());
    EXPECT_TRUE(velmora.CanBroadcastMessage());
    EXPECT_EQ(velmora.BroadcastMsg(true), 8);
    EXPECT_EQ(velmora.BroadcastMsg(false), -8);
    velmora.AbortBroadcast();
    EXPECT_EQ(broadcast.calls,
              (std::vector<std::string>{"PrepareBroadcast", "CanBroadcastMessage",
                                        "BroadcastMsg true", "BroadcastMsg false",
                                        "AbortBroadcast"}));
}

// Plugging in reports whatever the pointer is; null unplugs. Before Init there is no
// default log: the engine is plugged in, the report goes nowhere.
TEST_F(EngineForwarding, PluggingInIsReportedEvenWithNullOnceThereIsADefaultLog) {
    velmora.SetReportConsole(&console);
    RecordingEngine early;
    velmora.EnableTransaction(&early);
    EXPECT_TRUE(velmora.IsTransactionEnabled());
    EXPECT_EQ(console.Count(), 0u);
    MakeDefaultLog();
    EXPECT_EQ(CountOf(LogText(), "TXN Engine"), 0);

    velmora.EnableTransaction(nullptr);
    velmora.EnableMsgBroadcast(nullptr);
    EXPECT_FALSE(velmora.IsTransactionEnabled());
    EXPECT_FALSE(velmora.IsMsgBroadcastEnabled());
    EXPECT_EQ(CountRecords("[Runtime State]", "TXN Engine was turned on\n"), 1);
    EXPECT_EQ(CountRecords("[Runtime State]", "BCT Engine was turned on\n"), 1);

    RecordingEngine engine;
    RecordingBroadcast broadcast;
    velmora.EnableTransaction(&engine);
    velmora.EnableMsgBroadcast(&broadcast);
    EXPECT_TRUE(velmora.IsTransactionEnabled());
    EXPECT_TRUE(velmora.IsMsgBroadcastEnabled());
    velmora.EnableTransaction(nullptr);
    EXPECT_FALSE(velmora.IsTransactionEnabled());
    EXPECT_EQ(velmora.GetTransactionID(), 0);

    EXPECT_EQ(CountRecords("[Runtime State]", "TXN Engine was turned on\n"), 3);
    EXPECT_EQ(CountRecords("[Runtime State]", "BCT Engine was turned on\n"), 2);
    EXPECT_EQ(console.Texts(),
              (std::vector<std::string>{"TXN Engine was turned on\n", "BCT Engine was turned on\n",
                                        "TXN Engine was turned on\n", "BCT Engine was turned on\n",
                                        "TXN Engine was turned on\n"}));
    for (const ConsoleCall& call : console.Calls())
        EXPECT_EQ(call.nType, Report_Types::REPORT_RUNTIME_STATE);
}

TEST_F(EngineForwarding, ASecondEngineReplacesTheFirstWithoutTellingIt) {
    RecordingEngine first, second;
    RecordingBroadcast firstBroadcast, secondBroadcast;
    velmora.EnableTransaction(&first);
    velmora.EnableMsgBroadcast(&firstBroadcast);
    // Whether an engine is enabled isn't asked of the engine.
    EXPECT_TRUE(velmora.IsTransactionEnabled());
    EXPECT_TRUE(velmora.IsMsgBroadcastEnabled());
    velmora.EnableTransaction(&second);
    velmora.EnableMsgBroadcast(&secondBroadcast);
    EXPECT_EQ(velmora.CommitBackLog(6), -3);
    EXPECT_EQ(velmora.BroadcastMsg(true), 8);
    EXPECT_TRUE(first.calls.empty());
    EXPECT_TRUE(firstBroadcast.calls.empty());
    EXPECT_EQ(second.calls, std::vector<std::string>{"CommitBackLog 6"});
    EXPECT_EQ(secondBroadcast.calls, std::vector<std::string>{"BroadcastMsg true"});
}

// Nothing here traces or catches: an engine's failure goes on to the caller unreported.
TEST_F(EngineForwarding, AnEnginesFailureGoesOnToTheCaller) {
    MakeDefaultLog();
    velmora.SetReportConsole(&console);
    RecordingEngine engine;
    velmora.EnableTransaction(&engine);
    console.calls.clear();
    const size_t nRecordsBefore = velmora_test::SplitLines(LogText()).size();
    _G_TraceAll = true;
    engine.bFailWin32 = true;
    EXPECT_THROW(velmora.GetTransactionID(), win32_exception);
    EXPECT_THROW(velmora.RunFiber(1), win32_exception);
    EXPECT_THROW(velmora.IsTransactionEmpty(), win32_exception);
    // Not a record more: no trace line, no exception report.
    EXPECT_EQ(velmora_test::SplitLines(LogText()).size(), nRecordsBefore);
    EXPECT_EQ(console.Count(), 0u);
}
