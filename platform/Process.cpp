#include "VelmoraPlatform.h"

#include <cerrno>
#include <cstring>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {
// The kernel thread id never changes for a thread, so it is read once per thread; the child
// of a fork is a new thread with the same thread-local storage, so the fork clears it.
thread_local DWORD t_threadId = 0;

void ForgetThreadIdInChild() { t_threadId = 0; }

[[maybe_unused]] const int g_atforkRegistered = pthread_atfork(nullptr, nullptr, ForgetThreadIdInChild);
}  // namespace

extern "C" DWORD GetCurrentThreadId(void) {
    if (t_threadId == 0) t_threadId = DWORD(syscall(SYS_gettid));
    return t_threadId;
}

extern "C" DWORD GetCurrentProcessId(void) { return DWORD(getpid()); }

// The path of the running executable. Only the main module (null) is known here: the
// library has no use for the path of any other module.
extern "C" DWORD GetModuleFileNameA(HMODULE hModule, LPSTR lpFilename, DWORD nSize) {
    if (hModule != nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    if (lpFilename == nullptr || nSize == 0) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    char path[4096];
    ssize_t length = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (length < 0) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return 0;
    }
    // As on Win32: a path that doesn't fit is cut to nSize - 1 characters, terminated, and
    // reported with ERROR_INSUFFICIENT_BUFFER.
    DWORD copied = DWORD(length) < nSize ? DWORD(length) : nSize - 1;
    memcpy(lpFilename, path, copied);
    lpFilename[copied] = '\0';
    SetLastError(DWORD(length) < nSize ? ERROR_SUCCESS : ERROR_INSUFFICIENT_BUFFER);
    return copied;
}
