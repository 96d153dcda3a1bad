// Files: CreateFileA and the handle-based operations on what it opens, and CreateDirectoryA.
//
// A file handle is an entry of the handle table whose object owns a POSIX descriptor. The
// descriptor is closed when the last reference to the object goes away, not when the handle
// is closed: an operation that looked the handle up before CloseHandle keeps a valid
// descriptor until it returns, and a closed descriptor number can't be reused under it.
//
// Share modes: POSIX has no mandatory sharing locks, so every opener of a file may read and
// write it whatever share mode it asked for. This is exactly what the callers of this layer
// ask for (FILE_SHARE_READ | FILE_SHARE_WRITE); a share mode that would exclude others is
// accepted but not enforced. Handles are never inherited by launched programs (O_CLOEXEC),
// whatever the security attributes say.
#include "KernelObject.h"

#include <cerrno>
#include <cstdint>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace velmora_platform {
namespace {

constexpr DWORD kErrorNegativeSeek = 131;  // ERROR_NEGATIVE_SEEK
constexpr DWORD kErrorDiskFull = 112;      // ERROR_DISK_FULL
constexpr DWORD kErrorReadFault = 30;      // ERROR_READ_FAULT
constexpr DWORD kGenericAll = 0x10000000u;

class FileObject : public KernelObject {
public:
    FileObject(int fd, bool canRead, bool canWrite)
        : KernelObject(Kind::File), m_fd(fd), m_canRead(canRead), m_canWrite(canWrite) {}
    ~FileObject() override { ::close(m_fd); }

    int fd() const { return m_fd; }
    bool canRead() const { return m_canRead; }
    bool canWrite() const { return m_canWrite; }

private:
    int m_fd;
    bool m_canRead;
    bool m_canWrite;
};

std::shared_ptr<FileObject> LookupFile(HANDLE handle) {
    return LookupHandleAs<FileObject>(handle, KernelObject::Kind::File);
}

// True when the folder that would hold `path` exists, which tells a missing file
// (ERROR_FILE_NOT_FOUND) from a missing folder on its way (ERROR_PATH_NOT_FOUND).
bool ParentFolderExists(const std::string& path) {
    std::string::size_type slash = path.find_last_of('/');
    std::string parent = slash == std::string::npos ? "."
                         : slash == 0                ? "/"
                                                     : path.substr(0, slash);
    struct stat st;
    return ::stat(parent.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The Win32 error for an errno of an operation; `fallback` for what has no closer match.
DWORD ErrorFromErrno(int err, DWORD fallback) {
    switch (err) {
    case ENOENT: return ERROR_FILE_NOT_FOUND;
    case ENOTDIR:
    case ELOOP: return ERROR_PATH_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EROFS:
    case EISDIR:
    case ETXTBSY: return ERROR_ACCESS_DENIED;
    case EEXIST: return ERROR_FILE_EXISTS;
    case EMFILE:
    case ENFILE: return ERROR_TOO_MANY_OPEN_FILES;
    case ENOMEM: return ERROR_NOT_ENOUGH_MEMORY;
    case ENAMETOOLONG: return ERROR_INVALID_NAME;
    case EBADF: return ERROR_INVALID_HANDLE;
    case EINVAL: return ERROR_INVALID_PARAMETER;
    case ENOSPC:
    case EDQUOT:
    case EFBIG: return kErrorDiskFull;
    default: return fallback;
    }
}

// The error of a failed open or mkdir of `path`.
DWORD PathError(int err, const char* path) {
    if (err == ENOENT && !ParentFolderExists(path)) return ERROR_PATH_NOT_FOUND;
    return ErrorFromErrno(err, ERROR_ACCESS_DENIED);
}

// Opens an existing file, or creates it, and tells which of the two happened. The two
// attempts repeat in case the file is created or removed by someone else in between.
int OpenOrCreate(const char* path, int flags, bool* existed) {
    for (int attempt = 0; attempt < 100; ++attempt) {
        int fd = ::open(path, flags | O_CREAT | O_EXCL, 0666);
        if (fd >= 0) {
            *existed = false;
            return fd;
        }
        if (errno != EEXIST) return -1;
        fd = ::open(path, flags);
        if (fd >= 0) {
            *existed = true;
            return fd;
        }
        if (errno != ENOENT) return -1;
    }
    errno = EAGAIN;
    return -1;
}

}  // namespace
}  // namespace velmora_platform

using namespace velmora_platform;

extern "C" {

HANDLE CreateFileA(LPCSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                   LPSECURITY_ATTRIBUTES lpSecurityAttributes, DWORD dwCreationDisposition,
                   DWORD dwFlagsAndAttributes, HANDLE hTemplateFile) {
    (void)dwShareMode;  // not enforced, see the top of this file
    (void)lpSecurityAttributes;
    (void)dwFlagsAndAttributes;
    (void)hTemplateFile;
    if (lpFileName == nullptr) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }

    bool canRead = (dwDesiredAccess & (GENERIC_READ | kGenericAll)) != 0;
    bool canWrite = (dwDesiredAccess & (GENERIC_WRITE | kGenericAll)) != 0;
    int flags = O_CLOEXEC | O_NOCTTY | (canWrite ? (canRead ? O_RDWR : O_WRONLY) : O_RDONLY);

    int fd = -1;
    bool existed = false;
    switch (dwCreationDisposition) {
    case CREATE_NEW:
        fd = ::open(lpFileName, flags | O_CREAT | O_EXCL, 0666);
        break;
    case CREATE_ALWAYS:
    case OPEN_ALWAYS:
        fd = OpenOrCreate(lpFileName, flags, &existed);
        break;
    case OPEN_EXISTING:
        fd = ::open(lpFileName, flags);
        break;
    case TRUNCATE_EXISTING:
        // Truncating needs the right to write, as on Windows (and O_TRUNC with O_RDONLY
        // is undefined in POSIX).
        if (!canWrite) {
            SetLastError(ERROR_INVALID_PARAMETER);
            return INVALID_HANDLE_VALUE;
        }
        fd = ::open(lpFileName, flags | O_TRUNC);
        break;
    default:
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    if (fd < 0) {
        SetLastError(PathError(errno, lpFileName));
        return INVALID_HANDLE_VALUE;
    }

    // A folder opens on Linux, but it isn't a file that can be read or written.
    struct stat st;
    if (::fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
        ::close(fd);
        SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    }
    // CREATE_ALWAYS empties an existing file; done after the checks above so that a folder
    // or a failed open never truncates anything.
    if (dwCreationDisposition == CREATE_ALWAYS && existed && st.st_size != 0) {
        if (!canWrite || ::ftruncate(fd, 0) != 0) {
            int err = canWrite ? errno : EACCES;
            ::close(fd);
            SetLastError(ErrorFromErrno(err, ERROR_ACCESS_DENIED));
            return INVALID_HANDLE_VALUE;
        }
    }

    HANDLE handle = InsertHandle(std::make_shared<FileObject>(fd, canRead, canWrite));
    if (handle == nullptr) return INVALID_HANDLE_VALUE;  // the object closed fd; error is set
    SetLastError(existed ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return handle;
}

DWORD GetFileSize(HANDLE hFile, LPDWORD lpFileSizeHigh) {
    auto file = LookupFile(hFile);
    if (!file) return INVALID_FILE_SIZE;
    struct stat st;
    if (::fstat(file->fd(), &st) != 0) {
        SetLastError(ErrorFromErrno(errno, ERROR_ACCESS_DENIED));
        return INVALID_FILE_SIZE;
    }
    uint64_t size = uint64_t(st.st_size);
    if (lpFileSizeHigh) *lpFileSizeHigh = DWORD(size >> 32);
    // A size whose low part is INVALID_FILE_SIZE is told from a failure by the last error.
    SetLastError(ERROR_SUCCESS);
    return DWORD(size & 0xFFFFFFFFu);
}

DWORD SetFilePointer(HANDLE hFile, LONG lDistanceToMove, LONG* lpDistanceToMoveHigh,
                     DWORD dwMoveMethod) {
    auto file = LookupFile(hFile);
    if (!file) return INVALID_SET_FILE_POINTER;

    // Without a high part the distance is a signed 32-bit value; with one, the two parts
    // make a signed 64-bit distance.
    int64_t distance = lpDistanceToMoveHigh
                           ? int64_t((uint64_t(uint32_t(*lpDistanceToMoveHigh)) << 32) |
                                     uint32_t(lDistanceToMove))
                           : int64_t(lDistanceToMove);
    int64_t base;
    switch (dwMoveMethod) {
    case FILE_BEGIN:
        base = 0;
        break;
    case FILE_CURRENT:
        base = ::lseek(file->fd(), 0, SEEK_CUR);
        break;
    case FILE_END: {
        struct stat st;
        base = ::fstat(file->fd(), &st) == 0 ? int64_t(st.st_size) : -1;
        break;
    }
    default:
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_SET_FILE_POINTER;
    }
    if (base < 0) {
        SetLastError(ErrorFromErrno(errno, ERROR_INVALID_PARAMETER));
        return INVALID_SET_FILE_POINTER;
    }
    int64_t target;
    if (__builtin_add_overflow(base, distance, &target)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_SET_FILE_POINTER;
    }
    if (target < 0) {
        SetLastError(kErrorNegativeSeek);
        return INVALID_SET_FILE_POINTER;
    }
    // A caller without a high part can only be told positions of 32 bits.
    if (!lpDistanceToMoveHigh && uint64_t(target) > 0xFFFFFFFFu) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_SET_FILE_POINTER;
    }
    if (::lseek(file->fd(), off_t(target), SEEK_SET) < 0) {
        SetLastError(ErrorFromErrno(errno, ERROR_INVALID_PARAMETER));
        return INVALID_SET_FILE_POINTER;
    }
    if (lpDistanceToMoveHigh) *lpDistanceToMoveHigh = LONG(uint64_t(target) >> 32);
    // As with GetFileSize, a low part of 0xFFFFFFFF is a success when the last error is 0.
    SetLastError(ERROR_SUCCESS);
    return DWORD(uint64_t(target) & 0xFFFFFFFFu);
}

BOOL WriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite,
               LPDWORD lpNumberOfBytesWritten, LPVOID lpOverlapped) {
    if (lpNumberOfBytesWritten) *lpNumberOfBytesWritten = 0;
    auto file = LookupFile(hFile);
    if (!file) return FALSE;
    if (lpOverlapped != nullptr || (lpBuffer == nullptr && nNumberOfBytesToWrite != 0)) {
        SetLastError(ERROR_INVALID_PARAMETER);  // overlapped I/O isn't offered
        return FALSE;
    }
    if (!file->canWrite()) {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    // One call writes the whole buffer: the kernel may take it in parts.
    const char* data = static_cast<const char*>(lpBuffer);
    DWORD done = 0;
    while (done < nNumberOfBytesToWrite) {
        ssize_t n = ::write(file->fd(), data + done, nNumberOfBytesToWrite - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (lpNumberOfBytesWritten) *lpNumberOfBytesWritten = done;
            SetLastError(ErrorFromErrno(errno, ERROR_WRITE_FAULT));
            return FALSE;
        }
        done += DWORD(n);
    }
    if (lpNumberOfBytesWritten) *lpNumberOfBytesWritten = done;
    return TRUE;
}

BOOL ReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead,
              LPDWORD lpNumberOfBytesRead, LPVOID lpOverlapped) {
    if (lpNumberOfBytesRead) *lpNumberOfBytesRead = 0;
    auto file = LookupFile(hFile);
    if (!file) return FALSE;
    if (lpOverlapped != nullptr || (lpBuffer == nullptr && nNumberOfBytesToRead != 0)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (!file->canRead()) {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    // A read of a file returns less than asked only at its end.
    char* data = static_cast<char*>(lpBuffer);
    DWORD done = 0;
    while (done < nNumberOfBytesToRead) {
        ssize_t n = ::read(file->fd(), data + done, nNumberOfBytesToRead - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (lpNumberOfBytesRead) *lpNumberOfBytesRead = done;
            SetLastError(ErrorFromErrno(errno, kErrorReadFault));
            return FALSE;
        }
        if (n == 0) break;
        done += DWORD(n);
    }
    if (lpNumberOfBytesRead) *lpNumberOfBytesRead = done;
    return TRUE;
}

BOOL FlushFileBuffers(HANDLE hFile) {
    auto file = LookupFile(hFile);
    if (!file) return FALSE;
    if (!file->canWrite()) {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    if (::fsync(file->fd()) != 0) {
        SetLastError(ErrorFromErrno(errno, ERROR_WRITE_FAULT));
        return FALSE;
    }
    return TRUE;
}

BOOL CreateDirectoryA(LPCSTR lpPathName, LPSECURITY_ATTRIBUTES lpSecurityAttributes) {
    (void)lpSecurityAttributes;
    if (lpPathName == nullptr) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return FALSE;
    }
    if (::mkdir(lpPathName, 0777) != 0) {
        int err = errno;
        if (err == EEXIST)
            SetLastError(ERROR_ALREADY_EXISTS);
        else if (err == ENOENT || err == ENOTDIR)
            SetLastError(ERROR_PATH_NOT_FOUND);
        else
            SetLastError(ErrorFromErrno(err, ERROR_ACCESS_DENIED));
        return FALSE;
    }
    return TRUE;
}

}  // extern "C"
