// Forwarders to the engines a host plugs in. A server may run with or without either engine,
// and its modules needn't know: each forwarder reads the engine pointer once and passes the
// call on with its arguments as they came, or gives a fixed answer without an engine.
// Nothing here traces, locks or catches: what an engine throws goes on to the caller.
#include "include/Velmora.h"

#include <utility>

namespace {

// Calls the operation on the engine, or, without one, does nothing and gives the result
// type's zero: false, 0. The one other answer, IsTransactionEmpty's true, is spelt out there.
template <class Engine, class Result, class... Params, class... Args>
Result Forward(Engine* pEngine, Result (Engine::*pOperation)(Params...), Args&&... args) {
    if (pEngine == nullptr) return Result();
    return (pEngine->*pOperation)(std::forward<Args>(args)...);
}

}  // namespace

// ---- Plugging in: the same report follows null, and before Init (no default log yet) the
// report goes nowhere. The engine that was plugged in before isn't told.

void CVelmora::EnableTransaction(CFTSInf* pEngine) {
    pFTSEngine = pEngine;
    LogReport(Report_Types::REPORT_RUNTIME_STATE, "TXN Engine was turned on\n");
}

void CVelmora::EnableMsgBroadcast(CBCTEngineInf* pEngine) {
    pBCTEngine = pEngine;
    LogReport(Report_Types::REPORT_RUNTIME_STATE, "BCT Engine was turned on\n");
}

// ---- The transaction engine

// Only whether an engine is plugged in; the engine isn't asked.
bool CVelmora::IsTransactionEnabled() { return pFTSEngine != nullptr; }

bool CVelmora::BeginTrasaction(void* pContext) {
    return Forward(pFTSEngine, &CFTSInf::BeginTrasaction, pContext);
}
void CVelmora::EnableDomainTurbo(const char* szDomain, bool bEnable) {
    Forward(pFTSEngine, &CFTSInf::EnableDomainTurbo, szDomain, bEnable);
}
void CVelmora::AssignTransactionDomain(const char* szDomain, const char* szSuper, int nKind) {
    Forward(pFTSEngine, &CFTSInf::AssignTransactionDomain, szDomain, szSuper, nKind);
}
// Without an engine nothing is written to the buffers or to nKind.
bool CVelmora::GetTransactionDomain(char* szDomain, int nDomainSize, char* szSuper,
                                    int nSuperSize, int& nKind) {
    return Forward(pFTSEngine, &CFTSInf::GetTransactionDomain, szDomain, nDomainSize, szSuper,
                   nSuperSize, nKind);
}
void CVelmora::AssignSuperDomain() { Forward(pFTSEngine, &CFTSInf::AssignSuperDomain); }
void CVelmora::FlushTransaction(bool bForce) {
    Forward(pFTSEngine, &CFTSInf::FlushTransaction, bForce);
}
void CVelmora::RunFiber(int nFiber) { Forward(pFTSEngine, &CFTSInf::RunFiber, nFiber); }
DWORD CVelmora::DefineTransaction(DWORD dwTransaction, const char* szName) {
    return Forward(pFTSEngine, &CFTSInf::DefineTransaction, dwTransaction, szName);
}
DWORD CVelmora::GetTotalTransactions() {
    return Forward(pFTSEngine, &CFTSInf::GetTotalTransactions);
}
int CVelmora::GetTransactionID() { return Forward(pFTSEngine, &CFTSInf::GetTransactionID); }
bool CVelmora::CheckDBWatermark(double dWatermark) {
    return Forward(pFTSEngine, &CFTSInf::CheckDBWatermark, dWatermark);
}
bool CVelmora::IsDBEngineUnderStress() {
    return Forward(pFTSEngine, &CFTSInf::IsDBEngineUnderStress);
}
void CVelmora::SetBarrierTransaction(int nTransaction) {
    Forward(pFTSEngine, &CFTSInf::SetBarrierTransaction, nTransaction);
}
void CVelmora::SetBarrierHint(int nHint) { Forward(pFTSEngine, &CFTSInf::SetBarrierHint, nHint); }
int CVelmora::GetBarrierTransaction() {
    return Forward(pFTSEngine, &CFTSInf::GetBarrierTransaction);
}
void CVelmora::AlignTransaction() { Forward(pFTSEngine, &CFTSInf::AlignTransaction); }
bool CVelmora::EnableFIXTransaction(bool bEnable) {
    return Forward(pFTSEngine, &CFTSInf::EnableFIXTransaction, bEnable);
}
bool CVelmora::DoFIXTransaction(const char* szMessage) {
    return Forward(pFTSEngine, &CFTSInf::DoFIXTransaction, szMessage);
}
void CVelmora::CommitFIXTransaction(DWORD dwTransaction) {
    Forward(pFTSEngine, &CFTSInf::CommitFIXTransaction, dwTransaction);
}
void CVelmora::EnforceCommitTransaction() {
    Forward(pFTSEngine, &CFTSInf::EnforceCommitTransaction);
}
// Without an engine nothing is written to the references or the buffer.
int CVelmora::CommitTrasaction(int& n1, int& n2, DWORD& dw3, char* szBuffer, int nSize, bool b1,
                               bool b2) {
    return Forward(pFTSEngine, &CFTSInf::CommitTrasaction, n1, n2, dw3, szBuffer, nSize, b1, b2);
}
int CVelmora::CommitBackLog(int nBackLog) {
    return Forward(pFTSEngine, &CFTSInf::CommitBackLog, nBackLog);
}
void CVelmora::AbortTrasaction() { Forward(pFTSEngine, &CFTSInf::AbortTrasaction); }
// Without an engine there is nothing in a transaction: true.
bool CVelmora::IsTransactionEmpty() {
    CFTSInf* pEngine = pFTSEngine;
    return pEngine == nullptr || pEngine->IsTransactionEmpty();
}
bool CVelmora::IsTransactionCommitted(int nTransaction) {
    return Forward(pFTSEngine, &CFTSInf::IsTransactionCommitted, nTransaction);
}
void CVelmora::AttachTransactionIO(void* pIO) {
    Forward(pFTSEngine, &CFTSInf::AttachTransactionIO, pIO);
}

// ---- The broadcast engine

// Only whether an engine is plugged in; the engine isn't asked.
bool CVelmora::IsMsgBroadcastEnabled() { return pBCTEngine != nullptr; }

bool CVelmora::PrepareBroadcast() { return Forward(pBCTEngine, &CBCTEngineInf::PrepareBroadcast); }
bool CVelmora::CanBroadcastMessage() {
    return Forward(pBCTEngine, &CBCTEngineInf::CanBroadcastMessage);
}
int CVelmora::BroadcastMsg(bool bUrgent) {
    return Forward(pBCTEngine, &CBCTEngineInf::BroadcastMsg, bUrgent);
}
void CVelmora::AbortBroadcast() { Forward(pBCTEngine, &CBCTEngineInf::AbortBroadcast); }
