// A seam of the service control manager: this platform has no service manager that the
// library uses, so by default no service exists. A program (typically a test) may install
// a stand-in for a named service; OpenServiceA then finds it, and StartServiceA and
// QueryServiceStatus call into it.
#pragma once

#include "VelmoraPlatform.h"

namespace velmora_platform {

class ServiceStandIn {
public:
    virtual ~ServiceStandIn() = default;
    // QueryServiceStatus: write the current state (SERVICE_STOPPED, SERVICE_RUNNING, ...)
    // and return true, or return false for a query that fails.
    virtual bool QueryState(DWORD* pdwState) = 0;
    // StartServiceA: true when the start request was accepted.
    virtual bool Start() = 0;
};

// Installs pService under szName (names compare without regard to ASCII case); null removes
// it. The caller keeps ownership and keeps the object alive while it is installed.
VELMORA_PLATFORM_API void InstallServiceStandIn(const char* szName, ServiceStandIn* pService);
// Makes OpenSCManagerA fail (false) or work (true, the default).
VELMORA_PLATFORM_API void SetServiceManagerAvailable(bool bAvailable);

}  // namespace velmora_platform
