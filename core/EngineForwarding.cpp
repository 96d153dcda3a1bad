// Forwarders to the engines a host plugs in. Each tests whether the engine is there and
// passes the call on, or gives a fixed answer.
#include "include/Velmora.h"

bool CVelmora::GetTransactionDomain(char* szDomain, int nDomainSize, char* szSuper,
                                    int nSuperSize, int& nKind) {
    CFTSInf* engine = pFTSEngine;
    if (!engine) return false;
    return engine->GetTransactionDomain(szDomain, nDomainSize, szSuper, nSuperSize, nKind);
}
