// The logger process. Host processes look for it by its machine-wide mutex and start it
// from beside their executable when it isn't running. It holds that mutex while it runs,
// writes its process id to "logger.pid" in the log folder (PELTRIX_LOG_FOLDER, else
// "<executable folder>/log/") so that an operator can stop it, and ends cleanly on SIGTERM,
// SIGINT or SIGHUP.
#include "include/VelmoraPlatform.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

HANDLE g_hStop = nullptr;

BOOL OnStopRequest(DWORD) {
    SetEvent(g_hStop);
    return TRUE;
}

std::string LogFolder() {
    const char* env = std::getenv("PELTRIX_LOG_FOLDER");
    if (env && *env) {
        std::string folder(env);
        if (folder.back() != '/') folder += '/';
        return folder;
    }
    char path[MAX_PATH];
    GetModuleFileNameA(nullptr, path, sizeof(path));
    std::string folder(path);
    folder.erase(folder.rfind('/') + 1);
    folder += "log/";
    CreateDirectoryA(folder.c_str(), nullptr);
    return folder;
}

}  // namespace

int main() {
    HANDLE hMutex = CreateMutexA(nullptr, TRUE, "Global\\QUOREL_LOGGER_DAEMON_MUTEX");
    if (!hMutex) {
        fprintf(stderr, "logger: the logger's mutex can't be made (error %u)\n", GetLastError());
        return 2;
    }
    if (GetLastError() == ERROR_ALREADY_EXISTS) {
        fprintf(stderr, "logger: another logger runs on this machine\n");
        CloseHandle(hMutex);
        return 1;
    }
    g_hStop = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    SetConsoleCtrlHandler(OnStopRequest, TRUE);

    std::string pidFile = LogFolder() + "logger.pid";
    if (FILE* file = fopen(pidFile.c_str(), "w")) {
        fprintf(file, "%u\n", GetCurrentProcessId());
        fclose(file);
    }

    WaitForSingleObject(g_hStop, INFINITE);
    remove(pidFile.c_str());
    CloseHandle(hMutex);
    CloseHandle(g_hStop);
    return 0;
}
