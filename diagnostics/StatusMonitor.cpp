// The status file's path and the connection to the status monitor.
#include "include/Velmora.h"

#include <cstring>

namespace {
const char kStatusFileName[] = "ServerRuntimeStatus.ini";
const char kMonitorTimeoutKey[] = "MONITOR_TIMEOUT";
}  // namespace

// The status file lies beside the host's executable, whatever the working folder. A path
// that doesn't fit szStatusFile (or an executable path that didn't fit its buffer) leaves
// the status file off rather than writing a file somewhere else.
void CVelmora::EnableStatusMonitor() {
    char szPath[MAX_PATH];
    DWORD nLength = GetModuleFileNameA(nullptr, szPath, sizeof(szPath));
    if (nLength == 0 || nLength >= sizeof(szPath) - 1) return;
    char* pSlash = strrchr(szPath, '/');
    if (!pSlash) return;
    size_t nFolder = size_t(pSlash - szPath) + 1;
    if (nFolder + sizeof(kStatusFileName) > sizeof(szStatusFile)) return;
    memcpy(szStatusFile, szPath, nFolder);
    memcpy(szStatusFile + nFolder, kStatusFileName, sizeof(kStatusFileName));
}

// A client that exists already counts as connected, even if its start failed: a host that
// wants a new attempt disconnects first. The client is stored before it is started. A host
// without a directory service gets the default time-out instead of a crash.
bool CVelmora::ConnectMonitor(bool bStart, const char* szStart) {
    if (pMonitor) return true;
    int nTimeout = 120;
    if (CDirectoryServiceInf* pDirectory = _G_Directory)
        pDirectory->GetIntSetting(1, kMonitorTimeoutKey, &nTimeout);
    pMonitor = new CHarvell(szAppName, 1, 1, nullptr);
    return pMonitor->Start(bStart, szStart, nTimeout, nullptr, 10101, 10102) != 0;
}

void CVelmora::DisconnectMonitor(bool) {
    if (!pMonitor) return;
    pMonitor->Stop(1);
    delete pMonitor;
    pMonitor = nullptr;
}
