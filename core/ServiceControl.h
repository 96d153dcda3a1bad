// A handle on one service of the service control manager: the logger, when it is
// installed as a service.
#pragma once

#include "include/VelmoraPlatform.h"

class CServiceControl {
public:
    // Opens the local service control manager with all access; on failure every operation
    // below reports failure.
    explicit CServiceControl(const char* szName);
    // Closes the manager. The service handle is Close's to close.
    virtual ~CServiceControl();
    CServiceControl(const CServiceControl&) = delete;
    CServiceControl& operator=(const CServiceControl&) = delete;

    int Open();
    int Close();
    int Start();
    // Writes the service's current state (SERVICE_STOPPED is 1); 0 when it can't be read.
    int GetState(DWORD* pdwState);

    int bOpen;
    SC_HANDLE hService;
    SC_HANDLE hSCManager;
    char szServiceName[52];
};
