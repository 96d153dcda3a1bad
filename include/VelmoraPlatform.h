// The Win32 subset that Velmora and its hosts call, implemented on POSIX.
//
// Names, types, constants and results are those of Win32, so that code written against
// the Windows API builds here unchanged. Only what the service layer and its hosts use is
// declared. Behaviour follows Win32 where it is observable: handle-based kernel objects,
// events with manual or automatic reset, owned and re-entrant mutexes that are abandoned
// when their owner thread ends, semaphores without owner, machine-wide named mutexes,
// re-entrant critical sections, a wrapping 32-bit tick count.
#pragma once

#include <cstddef>
#include <cstdint>

#define VELMORA_PLATFORM_API __attribute__((visibility("default")))

// ---- Basic types ---------------------------------------------------------------------

typedef uint32_t DWORD;
typedef int32_t LONG;
typedef int BOOL;
typedef uint16_t WORD;
typedef uint8_t BYTE;
typedef unsigned int UINT;
typedef size_t SIZE_T;
typedef void* HANDLE;
typedef void* LPVOID;
typedef const void* LPCVOID;
typedef const char* LPCSTR;
typedef char* LPSTR;
typedef void* HMODULE;
typedef void* HINSTANCE;
typedef void* HWND;
typedef void* HGLOBAL;
typedef void* SC_HANDLE;
typedef DWORD* LPDWORD;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

#define MAX_PATH 260
#define INFINITE 0xFFFFFFFFu
#define INVALID_HANDLE_VALUE ((HANDLE)(intptr_t)-1)

// ---- Results and error codes ---------------------------------------------------------

#define WAIT_OBJECT_0 0x00000000u
#define WAIT_ABANDONED 0x00000080u
#define WAIT_TIMEOUT 0x00000102u
#define WAIT_FAILED 0xFFFFFFFFu

#define ERROR_SUCCESS 0u
#define ERROR_FILE_NOT_FOUND 2u
#define ERROR_PATH_NOT_FOUND 3u
#define ERROR_TOO_MANY_OPEN_FILES 4u
#define ERROR_ACCESS_DENIED 5u
#define ERROR_INVALID_HANDLE 6u
#define ERROR_NOT_ENOUGH_MEMORY 8u
#define ERROR_BAD_FORMAT 11u
#define ERROR_WRITE_FAULT 29u
#define ERROR_SHARING_VIOLATION 32u
#define ERROR_FILE_EXISTS 80u
#define ERROR_INVALID_PARAMETER 87u
#define ERROR_INSUFFICIENT_BUFFER 122u
#define ERROR_INVALID_NAME 123u
#define ERROR_ALREADY_EXISTS 183u
#define ERROR_NOT_OWNER 288u
#define ERROR_TOO_MANY_POSTS 298u
#define ERROR_INVALID_SERVICE_CONTROL 1052u
#define ERROR_SERVICE_REQUEST_TIMEOUT 1053u
#define ERROR_SERVICE_ALREADY_RUNNING 1056u
#define ERROR_SERVICE_DOES_NOT_EXIST 1060u
#define ERROR_DATABASE_DOES_NOT_EXIST 1065u

// ---- Structures ----------------------------------------------------------------------

typedef struct _SECURITY_ATTRIBUTES {
    DWORD nLength;
    LPVOID lpSecurityDescriptor;
    BOOL bInheritHandle;
} SECURITY_ATTRIBUTES, *LPSECURITY_ATTRIBUTES;

typedef struct _SYSTEMTIME {
    WORD wYear;
    WORD wMonth;
    WORD wDayOfWeek;
    WORD wDay;
    WORD wHour;
    WORD wMinute;
    WORD wSecond;
    WORD wMilliseconds;
} SYSTEMTIME, *LPSYSTEMTIME;

// A critical section: a re-entrant lock of one process, with an optional spin count.
// The storage is opaque; only the functions below touch it.
typedef struct alignas(16) _CRITICAL_SECTION {
    unsigned char Opaque[80];
} CRITICAL_SECTION, *LPCRITICAL_SECTION;

typedef struct _SERVICE_STATUS {
    DWORD dwServiceType;
    DWORD dwCurrentState;
    DWORD dwControlsAccepted;
    DWORD dwWin32ExitCode;
    DWORD dwServiceSpecificExitCode;
    DWORD dwCheckPoint;
    DWORD dwWaitHint;
} SERVICE_STATUS, *LPSERVICE_STATUS;

// ---- Constants -----------------------------------------------------------------------

#define CREATE_SUSPENDED 0x00000004u
#define STILL_ACTIVE 259u

#define THREAD_PRIORITY_IDLE (-15)
#define THREAD_PRIORITY_LOWEST (-2)
#define THREAD_PRIORITY_BELOW_NORMAL (-1)
#define THREAD_PRIORITY_NORMAL 0
#define THREAD_PRIORITY_ABOVE_NORMAL 1
#define THREAD_PRIORITY_HIGHEST 2
#define THREAD_PRIORITY_TIME_CRITICAL 15
#define THREAD_PRIORITY_ERROR_RETURN 0x7FFFFFFF

#define SYNCHRONIZE 0x00100000u
#define MUTEX_ALL_ACCESS 0x001F0001u
#define EVENT_ALL_ACCESS 0x001F0003u

#define GENERIC_READ 0x80000000u
#define GENERIC_WRITE 0x40000000u
#define FILE_SHARE_READ 0x00000001u
#define FILE_SHARE_WRITE 0x00000002u
#define FILE_SHARE_DELETE 0x00000004u
#define CREATE_NEW 1u
#define CREATE_ALWAYS 2u
#define OPEN_EXISTING 3u
#define OPEN_ALWAYS 4u
#define TRUNCATE_EXISTING 5u
#define FILE_ATTRIBUTE_NORMAL 0x00000080u
#define FILE_BEGIN 0u
#define FILE_CURRENT 1u
#define FILE_END 2u
#define INVALID_FILE_SIZE 0xFFFFFFFFu
#define INVALID_SET_FILE_POINTER 0xFFFFFFFFu

#define GMEM_FIXED 0x0000u
#define GMEM_ZEROINIT 0x0040u
#define GPTR (GMEM_FIXED | GMEM_ZEROINIT)

#define SC_MANAGER_ALL_ACCESS 0x000F003Fu
#define SERVICE_ALL_ACCESS 0x000F01FFu
#define SERVICE_STOPPED 1u
#define SERVICE_START_PENDING 2u
#define SERVICE_STOP_PENDING 3u
#define SERVICE_RUNNING 4u
#define SERVICE_CONTINUE_PENDING 5u
#define SERVICE_PAUSE_PENDING 6u
#define SERVICE_PAUSED 7u
#define SERVICE_WIN32_OWN_PROCESS 0x10u

#define CTRL_C_EVENT 0u
#define CTRL_BREAK_EVENT 1u
#define CTRL_CLOSE_EVENT 2u
#define CTRL_LOGOFF_EVENT 5u
#define CTRL_SHUTDOWN_EVENT 6u

#define SW_HIDE 0
#define SW_SHOWNORMAL 1

typedef unsigned (*VELMORA_BEGINTHREADEX_PROC)(void*);
typedef DWORD (*LPTHREAD_START_ROUTINE)(LPVOID);
typedef BOOL (*PHANDLER_ROUTINE)(DWORD dwCtrlType);

extern "C" {

// ---- Errors --------------------------------------------------------------------------

// The last error of the calling thread.
VELMORA_PLATFORM_API DWORD GetLastError(void);
VELMORA_PLATFORM_API void SetLastError(DWORD dwErrCode);

// ---- Threads -------------------------------------------------------------------------

// Starts a thread running start(arglist). The result is a handle (as an integer) that is
// signalled when the thread ends, or 0 on failure. stack_size 0 is the default stack.
VELMORA_PLATFORM_API uintptr_t _beginthreadex(void* security, unsigned stack_size,
                                              VELMORA_BEGINTHREADEX_PROC start_address,
                                              void* arglist, unsigned initflag,
                                              unsigned* thrdaddr);
VELMORA_PLATFORM_API HANDLE CreateThread(LPSECURITY_ATTRIBUTES lpThreadAttributes,
                                         SIZE_T dwStackSize,
                                         LPTHREAD_START_ROUTINE lpStartAddress,
                                         LPVOID lpParameter, DWORD dwCreationFlags,
                                         LPDWORD lpThreadId);
// Resumes a thread created with CREATE_SUSPENDED; the previous suspend count.
VELMORA_PLATFORM_API DWORD ResumeThread(HANDLE hThread);
VELMORA_PLATFORM_API BOOL SetThreadPriority(HANDLE hThread, int nPriority);
VELMORA_PLATFORM_API int GetThreadPriority(HANDLE hThread);
// A pseudo handle standing for the calling thread; it needs no CloseHandle.
VELMORA_PLATFORM_API HANDLE GetCurrentThread(void);
// The kernel thread id of the caller; never 0.
VELMORA_PLATFORM_API DWORD GetCurrentThreadId(void);
VELMORA_PLATFORM_API DWORD GetCurrentProcessId(void);
VELMORA_PLATFORM_API BOOL GetExitCodeThread(HANDLE hThread, LPDWORD lpExitCode);
VELMORA_PLATFORM_API void Sleep(DWORD dwMilliseconds);

// ---- Synchronisation objects ---------------------------------------------------------

VELMORA_PLATFORM_API HANDLE CreateEventA(LPSECURITY_ATTRIBUTES lpEventAttributes,
                                         BOOL bManualReset, BOOL bInitialState,
                                         LPCSTR lpName);
VELMORA_PLATFORM_API BOOL SetEvent(HANDLE hEvent);
VELMORA_PLATFORM_API BOOL ResetEvent(HANDLE hEvent);

// A mutex with a name is machine-wide: it exists while any handle to it is open in any
// process, and is gone when the last holder closes it or dies.
VELMORA_PLATFORM_API HANDLE CreateMutexA(LPSECURITY_ATTRIBUTES lpMutexAttributes,
                                         BOOL bInitialOwner, LPCSTR lpName);
VELMORA_PLATFORM_API HANDLE OpenMutexA(DWORD dwDesiredAccess, BOOL bInheritHandle,
                                       LPCSTR lpName);
VELMORA_PLATFORM_API BOOL ReleaseMutex(HANDLE hMutex);

VELMORA_PLATFORM_API HANDLE CreateSemaphoreA(LPSECURITY_ATTRIBUTES lpSemaphoreAttributes,
                                             LONG lInitialCount, LONG lMaximumCount,
                                             LPCSTR lpName);
VELMORA_PLATFORM_API BOOL ReleaseSemaphore(HANDLE hSemaphore, LONG lReleaseCount,
                                           LONG* lpPreviousCount);

// WAIT_OBJECT_0, WAIT_TIMEOUT, WAIT_ABANDONED or WAIT_FAILED (see GetLastError).
VELMORA_PLATFORM_API DWORD WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds);
VELMORA_PLATFORM_API BOOL CloseHandle(HANDLE hObject);

// ---- Critical sections ---------------------------------------------------------------

VELMORA_PLATFORM_API void InitializeCriticalSection(LPCRITICAL_SECTION lpCriticalSection);
VELMORA_PLATFORM_API BOOL InitializeCriticalSectionAndSpinCount(
    LPCRITICAL_SECTION lpCriticalSection, DWORD dwSpinCount);
VELMORA_PLATFORM_API void EnterCriticalSection(LPCRITICAL_SECTION lpCriticalSection);
VELMORA_PLATFORM_API BOOL TryEnterCriticalSection(LPCRITICAL_SECTION lpCriticalSection);
VELMORA_PLATFORM_API void LeaveCriticalSection(LPCRITICAL_SECTION lpCriticalSection);
VELMORA_PLATFORM_API void DeleteCriticalSection(LPCRITICAL_SECTION lpCriticalSection);

// ---- Time ----------------------------------------------------------------------------

// Milliseconds of a monotonic clock, as a 32-bit count that wraps after 49.7 days.
VELMORA_PLATFORM_API DWORD GetTickCount(void);
VELMORA_PLATFORM_API uint64_t GetTickCount64(void);
VELMORA_PLATFORM_API void GetLocalTime(LPSYSTEMTIME lpSystemTime);
VELMORA_PLATFORM_API void GetSystemTime(LPSYSTEMTIME lpSystemTime);

// ---- Files and paths -----------------------------------------------------------------

VELMORA_PLATFORM_API HANDLE CreateFileA(LPCSTR lpFileName, DWORD dwDesiredAccess,
                                        DWORD dwShareMode,
                                        LPSECURITY_ATTRIBUTES lpSecurityAttributes,
                                        DWORD dwCreationDisposition,
                                        DWORD dwFlagsAndAttributes, HANDLE hTemplateFile);
VELMORA_PLATFORM_API DWORD GetFileSize(HANDLE hFile, LPDWORD lpFileSizeHigh);
VELMORA_PLATFORM_API DWORD SetFilePointer(HANDLE hFile, LONG lDistanceToMove,
                                          LONG* lpDistanceToMoveHigh, DWORD dwMoveMethod);
VELMORA_PLATFORM_API BOOL WriteFile(HANDLE hFile, LPCVOID lpBuffer,
                                    DWORD nNumberOfBytesToWrite,
                                    LPDWORD lpNumberOfBytesWritten, LPVOID lpOverlapped);
VELMORA_PLATFORM_API BOOL ReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead,
                                   LPDWORD lpNumberOfBytesRead, LPVOID lpOverlapped);
VELMORA_PLATFORM_API BOOL FlushFileBuffers(HANDLE hFile);
// Creates one level of folder. Fails with ERROR_ALREADY_EXISTS or ERROR_PATH_NOT_FOUND.
VELMORA_PLATFORM_API BOOL CreateDirectoryA(LPCSTR lpPathName,
                                           LPSECURITY_ATTRIBUTES lpSecurityAttributes);
// The path of the running executable (module null), cut to nSize - 1 characters with a
// terminator; the result is the number of characters copied.
VELMORA_PLATFORM_API DWORD GetModuleFileNameA(HMODULE hModule, LPSTR lpFilename,
                                              DWORD nSize);

// Sets, updates or (value null) deletes a key of an .ini file; a null key deletes the
// section. The file is replaced whole: a reader sees the old file or the new one.
VELMORA_PLATFORM_API BOOL WritePrivateProfileStringA(LPCSTR lpAppName, LPCSTR lpKeyName,
                                                     LPCSTR lpString, LPCSTR lpFileName);
VELMORA_PLATFORM_API DWORD GetPrivateProfileStringA(LPCSTR lpAppName, LPCSTR lpKeyName,
                                                    LPCSTR lpDefault, LPSTR lpReturnedString,
                                                    DWORD nSize, LPCSTR lpFileName);

// ---- Memory handed between modules ---------------------------------------------------

VELMORA_PLATFORM_API HGLOBAL GlobalAlloc(UINT uFlags, SIZE_T dwBytes);
// Null on success, the block on failure.
VELMORA_PLATFORM_API HGLOBAL GlobalFree(HGLOBAL hMem);

// ---- Service control manager ---------------------------------------------------------

VELMORA_PLATFORM_API SC_HANDLE OpenSCManagerA(LPCSTR lpMachineName, LPCSTR lpDatabaseName,
                                              DWORD dwDesiredAccess);
VELMORA_PLATFORM_API SC_HANDLE OpenServiceA(SC_HANDLE hSCManager, LPCSTR lpServiceName,
                                            DWORD dwDesiredAccess);
VELMORA_PLATFORM_API BOOL StartServiceA(SC_HANDLE hService, DWORD dwNumServiceArgs,
                                        LPCSTR* lpServiceArgVectors);
VELMORA_PLATFORM_API BOOL QueryServiceStatus(SC_HANDLE hService,
                                             LPSERVICE_STATUS lpServiceStatus);
VELMORA_PLATFORM_API BOOL CloseServiceHandle(SC_HANDLE hSCObject);

// ---- Program launch ------------------------------------------------------------------

// Starts a program detached from the caller. Above 32 on success; 32 or less on failure
// (2: no such file, 5: not executable, 8: out of resources, 31: verb not supported).
VELMORA_PLATFORM_API HINSTANCE ShellExecuteA(HWND hwnd, LPCSTR lpOperation, LPCSTR lpFile,
                                             LPCSTR lpParameters, LPCSTR lpDirectory,
                                             int nShowCmd);

// ---- Console control ------------------------------------------------------------------

// Registers (Add TRUE) or removes a routine called on a thread of its own when the process
// is asked to stop: SIGINT as CTRL_C_EVENT, SIGHUP as CTRL_CLOSE_EVENT, SIGTERM as
// CTRL_SHUTDOWN_EVENT. Routines run last registered first until one returns TRUE; when none
// does, the process ends with 128 plus the signal's number.
VELMORA_PLATFORM_API BOOL SetConsoleCtrlHandler(PHANDLER_ROUTINE HandlerRoutine, BOOL Add);

}  // extern "C"

// ---- Interlocked operations (full barriers) ------------------------------------------

inline LONG InterlockedIncrement(LONG volatile* lpAddend) {
    return __atomic_add_fetch(lpAddend, 1, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedDecrement(LONG volatile* lpAddend) {
    return __atomic_sub_fetch(lpAddend, 1, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedExchange(LONG volatile* lpTarget, LONG lValue) {
    return __atomic_exchange_n(lpTarget, lValue, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedCompareExchange(LONG volatile* lpDestination, LONG lExchange,
                                       LONG lComparand) {
    __atomic_compare_exchange_n(lpDestination, &lComparand, lExchange, false,
                                __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return lComparand;
}
inline LONG InterlockedExchangeAdd(LONG volatile* lpAddend, LONG lValue) {
    return __atomic_fetch_add(lpAddend, lValue, __ATOMIC_SEQ_CST);
}
