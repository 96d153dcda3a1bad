// Stop requests to the process (SIGINT, SIGHUP, SIGTERM) delivered as console control
// events. The signal handler only writes the signal's number into a pipe; a dispatcher
// thread reads it and calls the registered routines outside signal context.
#include "VelmoraPlatform.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <mutex>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

struct Dispatcher {
    std::mutex mutex;
    std::vector<PHANDLER_ROUTINE> routines;  // called from the back
    int pipeFds[2] = {-1, -1};
    bool started = false;
};

Dispatcher& TheDispatcher() {
    static Dispatcher* dispatcher = new Dispatcher;  // outlives static destruction
    return *dispatcher;
}

int g_writeFd = -1;

void OnSignal(int signo) {
    int saved = errno;
    unsigned char byte = static_cast<unsigned char>(signo);
    if (g_writeFd >= 0) (void)!write(g_writeFd, &byte, 1);
    errno = saved;
}

DWORD CtrlTypeOf(int signo) {
    switch (signo) {
    case SIGINT: return CTRL_C_EVENT;
    case SIGHUP: return CTRL_CLOSE_EVENT;
    default: return CTRL_SHUTDOWN_EVENT;
    }
}

void DispatchLoop(int readFd) {
    for (;;) {
        unsigned char byte;
        ssize_t n = read(readFd, &byte, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n != 1) return;
        std::vector<PHANDLER_ROUTINE> routines;
        {
            Dispatcher& d = TheDispatcher();
            std::lock_guard<std::mutex> lock(d.mutex);
            routines = d.routines;
        }
        bool handled = false;
        for (auto it = routines.rbegin(); it != routines.rend() && !handled; ++it)
            handled = (*it)(CtrlTypeOf(byte)) != FALSE;
        if (!handled) _exit(128 + byte);
    }
}

bool StartLocked(Dispatcher& d) {
    if (d.started) return true;
    if (pipe2(d.pipeFds, O_CLOEXEC) != 0) return false;
    g_writeFd = d.pipeFds[1];
    std::thread(DispatchLoop, d.pipeFds[0]).detach();
    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signo : {SIGINT, SIGHUP, SIGTERM}) sigaction(signo, &action, nullptr);
    d.started = true;
    return true;
}

}  // namespace

extern "C" BOOL SetConsoleCtrlHandler(PHANDLER_ROUTINE HandlerRoutine, BOOL Add) {
    if (!HandlerRoutine) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    Dispatcher& d = TheDispatcher();
    std::lock_guard<std::mutex> lock(d.mutex);
    if (Add) {
        if (!StartLocked(d)) {
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return FALSE;
        }
        d.routines.push_back(HandlerRoutine);
        return TRUE;
    }
    auto it = std::find(d.routines.rbegin(), d.routines.rend(), HandlerRoutine);
    if (it == d.routines.rend()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    d.routines.erase(std::next(it).base());
    return TRUE;
}
