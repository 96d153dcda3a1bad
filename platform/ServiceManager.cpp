// The service control manager: a manager that can be opened, and the services that a program
// installed as stand-ins (see VelmoraServiceStandIn.h). There is no other service here.
//
// SC handles are entries of the process's handle table, of kind ServiceManager or Service,
// so that CloseServiceHandle refuses anything else. A service handle keeps the name of its
// service, not the stand-in: each call looks the stand-in up again, so that removing one
// makes open handles to it report a missing service instead of reaching a freed object. The
// stand-in is called without any lock held, so that it may itself call into this module.
#include "KernelObject.h"
#include "VelmoraServiceStandIn.h"

#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

namespace velmora_platform {
namespace {

constexpr DWORD kRpcServerUnavailable = 1722;  // RPC_S_SERVER_UNAVAILABLE
constexpr DWORD kMaxServiceName = 256;
constexpr DWORD kServiceAcceptStop = 0x1;  // SERVICE_ACCEPT_STOP

std::string LowerAscii(const char* s) {
    std::string lower(s);
    for (char& c : lower)
        if (c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
    return lower;
}

struct Registry {
    std::mutex mutex;
    std::map<std::string, ServiceStandIn*> services;  // by lower-case name
    std::atomic<bool> available{true};
};

Registry& TheRegistry() {
    // Never destroyed: handles may be used by static destructors of other modules.
    static Registry* registry = new Registry;
    return *registry;
}

ServiceStandIn* FindStandIn(const std::string& lowerName) {
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    auto it = registry.services.find(lowerName);
    return it == registry.services.end() ? nullptr : it->second;
}

class ServiceManagerObject : public KernelObject {
public:
    ServiceManagerObject() : KernelObject(Kind::ServiceManager) {}
};

class ServiceObject : public KernelObject {
public:
    explicit ServiceObject(std::string lowerName)
        : KernelObject(Kind::Service), m_lowerName(std::move(lowerName)) {}
    const std::string& lowerName() const { return m_lowerName; }

private:
    std::string m_lowerName;
};

// The stand-in behind a service handle; null with the last error set when there is none.
ServiceStandIn* StandInOf(SC_HANDLE hService) {
    auto service = LookupHandleAs<ServiceObject>(hService, KernelObject::Kind::Service);
    if (!service) return nullptr;
    ServiceStandIn* standIn = FindStandIn(service->lowerName());
    if (!standIn) SetLastError(ERROR_SERVICE_DOES_NOT_EXIST);
    return standIn;
}

}  // namespace

void InstallServiceStandIn(const char* szName, ServiceStandIn* pService) {
    if (szName == nullptr) return;
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    if (pService)
        registry.services[LowerAscii(szName)] = pService;
    else
        registry.services.erase(LowerAscii(szName));
}

void SetServiceManagerAvailable(bool bAvailable) { TheRegistry().available = bAvailable; }

}  // namespace velmora_platform

using namespace velmora_platform;

extern "C" {

SC_HANDLE OpenSCManagerA(LPCSTR lpMachineName, LPCSTR lpDatabaseName, DWORD dwDesiredAccess) {
    (void)dwDesiredAccess;  // every caller gets all access
    if (lpMachineName != nullptr && *lpMachineName != '\0') {
        SetLastError(kRpcServerUnavailable);  // only the local machine is reachable
        return nullptr;
    }
    if (lpDatabaseName != nullptr && LowerAscii(lpDatabaseName) != "servicesactive") {
        SetLastError(ERROR_DATABASE_DOES_NOT_EXIST);
        return nullptr;
    }
    if (!TheRegistry().available) {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    return InsertHandle(std::make_shared<ServiceManagerObject>());
}

SC_HANDLE OpenServiceA(SC_HANDLE hSCManager, LPCSTR lpServiceName, DWORD dwDesiredAccess) {
    (void)dwDesiredAccess;
    if (!LookupHandleAs<ServiceManagerObject>(hSCManager, KernelObject::Kind::ServiceManager))
        return nullptr;
    if (lpServiceName == nullptr || *lpServiceName == '\0' ||
        std::strlen(lpServiceName) > kMaxServiceName || std::strpbrk(lpServiceName, "/\\")) {
        SetLastError(ERROR_INVALID_NAME);
        return nullptr;
    }
    std::string lowerName = LowerAscii(lpServiceName);
    if (!FindStandIn(lowerName)) {
        SetLastError(ERROR_SERVICE_DOES_NOT_EXIST);
        return nullptr;
    }
    return InsertHandle(std::make_shared<ServiceObject>(std::move(lowerName)));
}

BOOL StartServiceA(SC_HANDLE hService, DWORD dwNumServiceArgs, LPCSTR* lpServiceArgVectors) {
    (void)dwNumServiceArgs;  // a stand-in takes no arguments
    (void)lpServiceArgVectors;
    ServiceStandIn* standIn = StandInOf(hService);
    if (!standIn) return FALSE;
    if (!standIn->Start()) {
        // The service didn't accept the request.
        SetLastError(ERROR_SERVICE_REQUEST_TIMEOUT);
        return FALSE;
    }
    return TRUE;
}

BOOL QueryServiceStatus(SC_HANDLE hService, LPSERVICE_STATUS lpServiceStatus) {
    ServiceStandIn* standIn = StandInOf(hService);
    if (!standIn) return FALSE;
    if (lpServiceStatus == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    DWORD state = 0;
    if (!standIn->QueryState(&state)) {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    SERVICE_STATUS status{};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    status.dwControlsAccepted = state == SERVICE_RUNNING ? kServiceAcceptStop : 0;
    status.dwWin32ExitCode = ERROR_SUCCESS;
    status.dwServiceSpecificExitCode = 0;
    // A pending state promises progress within a while, as a real service would.
    bool pending = state == SERVICE_START_PENDING || state == SERVICE_STOP_PENDING ||
                   state == SERVICE_CONTINUE_PENDING || state == SERVICE_PAUSE_PENDING;
    status.dwCheckPoint = pending ? 1 : 0;
    status.dwWaitHint = pending ? 3000 : 0;
    *lpServiceStatus = status;
    return TRUE;
}

BOOL CloseServiceHandle(SC_HANDLE hSCObject) {
    // Only SC handles are closed here; a handle's value stands for one object only (the
    // table's generations), so the kind seen here is that of the object removed below.
    KernelObjectPtr object = LookupHandle(hSCObject);
    if (!object) return FALSE;
    if (object->kind() != KernelObject::Kind::ServiceManager &&
        object->kind() != KernelObject::Kind::Service) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    object = RemoveHandle(hSCObject);
    if (!object) return FALSE;
    object->OnHandleClosed();
    return TRUE;
}

}  // extern "C"
