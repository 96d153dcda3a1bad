#include "core/ServiceControl.h"

#include "core/AsciiText.h"

CServiceControl::CServiceControl(const char* szName) : bOpen(0), hService(nullptr), hSCManager(nullptr) {
    // A longer name is cut to what the member holds; the logger's name fits.
    velmora_core::CopyText(szServiceName, sizeof(szServiceName), szName);
    hSCManager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
}

CServiceControl::~CServiceControl() { CloseServiceHandle(hSCManager); }

int CServiceControl::Open() {
    if (!hSCManager) return 0;
    hService = OpenServiceA(hSCManager, szServiceName, SERVICE_ALL_ACCESS);
    if (!hService) return 0;
    bOpen = 1;
    return 1;
}

int CServiceControl::Close() {
    if (!hSCManager) return 0;
    CloseServiceHandle(hService);
    bOpen = 0;
    return 1;
}

int CServiceControl::Start() {
    if (!hSCManager || !hService) return 0;
    return StartServiceA(hService, 0, nullptr) ? 1 : 0;
}

int CServiceControl::GetState(DWORD* pdwState) {
    if (!hSCManager || !hService) return 0;
    SERVICE_STATUS status;
    if (!QueryServiceStatus(hService, &status)) return 0;
    *pdwState = status.dwCurrentState;
    return 1;
}
