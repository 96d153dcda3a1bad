// The login module of the server, reached by the other modules through velmora. Unlike
// the engine forwarders, each operation here traces on entry and turns a host's
// win32_exception from the login module (or from the trace) into an exception report; the
// requests then answer false.
#include "include/Velmora.h"
#include "reporting/Trace.h"

// Null unplugs the module. A failure in the trace leaves the old pointer in place.
void CVelmora::SetLoginInitializationInf(CLoginInitializationInf* pLogin) {
    VELMORA_TRACE_TRY("CVelmora::SetLoginInitializationInf")
        _G_pLoginInitialization = pLogin;
    VELMORA_TRACE_CATCH("CVelmora::SetLoginInitializationInf")
}

bool CVelmora::OnLoginInitializationRequest(const char* szUser, Login_Types::DEF nType,
                                            int nSession, bool bAdmin) {
    VELMORA_TRACE_TRY("CVelmora::OnLoginInitializationRequest")
        CLoginInitializationInf* pLogin = _G_pLoginInitialization;
        return pLogin != nullptr &&
               pLogin->OnLoginInitializationRequest(szUser, nType, nSession, bAdmin);
    VELMORA_TRACE_CATCH("CVelmora::OnLoginInitializationRequest")
    return false;
}

bool CVelmora::OnLoginInitalizationRequestAdminRights(const char* szUser) {
    VELMORA_TRACE_TRY("CVelmora::OnLoginInitalizationRequestAdminRights")
        CLoginInitializationInf* pLogin = _G_pLoginInitialization;
        return pLogin != nullptr && pLogin->OnLoginInitalizationRequestAdminRights(szUser);
    VELMORA_TRACE_CATCH("CVelmora::OnLoginInitalizationRequestAdminRights")
    return false;
}

bool CVelmora::OnLoginInitalizationRequestLinkAccount(const char* szUser) {
    VELMORA_TRACE_TRY("CVelmora::OnLoginInitalizationRequestLinkAccount")
        CLoginInitializationInf* pLogin = _G_pLoginInitialization;
        return pLogin != nullptr && pLogin->OnLoginInitalizationRequestLinkAccount(szUser);
    VELMORA_TRACE_CATCH("CVelmora::OnLoginInitalizationRequestLinkAccount")
    return false;
}
