// Machine-wide named mutexes.
//
// Every name has a lock file in one folder of the machine (/tmp/.velmora-objects, or the
// folder in $VELMORA_OBJECT_FOLDER). The state of the mutex is kept in open-file-description
// locks on single bytes of that file, which the kernel drops when the last descriptor of the
// description is closed, so also when the process dies, even by SIGKILL:
//
//   byte 0  shared by every process that has the name open (membership);
//   byte 1  exclusive for the process whose thread owns the mutex;
//   byte 2  exclusive for the one process that is joining or looking up the name.
//
// A process joins a name under the byte 2 gate: an exclusive lock on byte 0 succeeds only
// when no process holds the name, which makes the joiner its creator; it then converts the
// lock to a shared one (the kernel does that atomically). Members leave by dropping byte 0
// without the gate. Since only a joiner ever holds byte 0 exclusively, and only under the
// gate, "does the name exist" and "join it" form one step for every other process.
//
// The first data byte of the file tells the next owner how the last one left: '1' while the
// mutex is owned, '0' after a ReleaseMutex. An owner that dies, or whose thread ends,
// leaves '1' behind, so the next owner in any process gets WAIT_ABANDONED. The creator of a
// name resets it, since a file may be left from an earlier life of the name.
//
// Lock files are never deleted. A process that opened the file just before another one
// deleted it would lock a file nobody else can find any more, while the next process made a
// new one: two mutexes of one name. The files are empty but for one byte.
//
// Inside the process every handle of a name shares one object with one descriptor, so the
// process holds each byte at most once. A child made by fork() without exec shares those
// descriptions (the kernel's locks with them) until it execs or ends; descriptors are
// close-on-exec.
#include "SyncInternal.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>

namespace velmora_platform {
namespace {

constexpr off_t kMemberByte = 0;
constexpr off_t kOwnerByte = 1;
constexpr off_t kGateByte = 2;

constexpr char kOwned = '1';
constexpr char kReleased = '0';

const char kDefaultFolder[] = "/tmp/.velmora-objects";

// Names are escaped into file names; a longer result than this is cut and completed by a
// hash of the whole name, to stay below the 255 bytes a file name may have.
constexpr size_t kMaxFileName = 200;
constexpr size_t kKeptOfLongName = 160;

DWORD ErrorFromErrno(int error) {
    switch (error) {
    case ENOENT:
    case ENOTDIR:
        return ERROR_PATH_NOT_FOUND;
    case EMFILE:
    case ENFILE:
        return ERROR_TOO_MANY_OPEN_FILES;
    case ENOMEM:
    case ENOLCK:
    case ENOSPC:
        return ERROR_NOT_ENOUGH_MEMORY;
    case ENAMETOOLONG:
        return ERROR_INVALID_NAME;
    default:
        return ERROR_ACCESS_DENIED;
    }
}

std::string ObjectFolder() {
    const char* folder = std::getenv("VELMORA_OBJECT_FOLDER");
    return folder && *folder ? folder : kDefaultFolder;
}

// Every user's processes share the folder, as they share the names: it is made writable for
// all, with the sticky bit as on /tmp. The default folder lies in /tmp, where anyone could
// have put a symbolic link by that name: it must be a folder itself.
bool EnsureFolder(const std::string& folder) {
    if (mkdir(folder.c_str(), 01777) == 0) {
        chmod(folder.c_str(), 01777);  // mkdir applies the umask
        return true;
    }
    if (errno != EEXIST) return false;
    struct stat status;
    bool isDefault = folder == kDefaultFolder;
    if ((isDefault ? lstat(folder.c_str(), &status) : stat(folder.c_str(), &status)) != 0)
        return false;
    if (!S_ISDIR(status.st_mode)) {
        errno = ENOTDIR;
        return false;
    }
    return true;
}

uint64_t Fnv1a(const std::string& text, bool backwards) {
    uint64_t hash = 0xcbf29ce484222325ull;
    for (size_t i = 0; i < text.size(); ++i) {
        hash ^= static_cast<unsigned char>(backwards ? text[text.size() - 1 - i] : text[i]);
        hash *= 0x100000001b3ull;
    }
    return hash;
}

void AppendHex(std::string& out, uint64_t value, int digits) {
    static const char kHex[] = "0123456789ABCDEF";
    for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4) out += kHex[(value >> shift) & 15];
}

// "Global\App_MUTEX" -> "mutex.Global%5CApp_MUTEX": letters, digits, '_', '-' and '.' stay,
// every other byte becomes %XX. The prefix keeps "." and ".." out and leaves room for other
// kinds of object.
std::string FileNameOf(const std::string& name) {
    std::string file = "mutex.";
    for (unsigned char c : name) {
        bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                     c == '_' || c == '-' || c == '.';
        if (plain) {
            file += char(c);
        } else {
            file += '%';
            AppendHex(file, c, 2);
        }
    }
    if (file.size() > kMaxFileName) {
        file.resize(kKeptOfLongName);
        file += '#';
        AppendHex(file, Fnv1a(name, false), 16);
        AppendHex(file, Fnv1a(name, true), 16);
    }
    return file;
}

// Opens the lock file of a name, making it when asked. A file that exists is opened without
// O_CREAT, which the kernel may refuse on files of other users in a sticky folder.
int OpenLockFile(const std::string& path, bool create) {
    for (int attempt = 0; attempt < 100; ++attempt) {
        int fd = open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
        if (fd >= 0 || errno != ENOENT || !create) return fd;
        fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666);
        if (fd >= 0) {
            fchmod(fd, 0666);  // open applies the umask; every user may use the name
            return fd;
        }
        if (errno != EEXIST) return -1;
    }
    errno = EAGAIN;
    return -1;
}

// An open-file-description lock on one byte. F_OFD_SETLKW only waits for the gate, which
// is held for a few system calls at most.
bool LockByte(int fd, short type, off_t byte, bool wait) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = 1;
    lock.l_pid = 0;
    for (;;) {
        if (fcntl(fd, wait ? F_OFD_SETLKW : F_OFD_SETLK, &lock) == 0) return true;
        if (errno != EINTR) return false;
    }
}

void UnlockByte(int fd, off_t byte) {
    int saved = errno;
    LockByte(fd, F_UNLCK, byte, false);
    errno = saved;
}

void WriteState(int fd, char state) {
    // Best effort: a file we can't write to only costs the WAIT_ABANDONED report.
    ssize_t written = pwrite(fd, &state, 1, 0);
    (void)written;
}

enum class JoinResult { Created, Existed, Absent, Failed };

// Joins the name of the lock file (or, without create, only if some process holds it).
// On Failed, errno tells why.
JoinResult Join(int fd, bool create) {
    if (!LockByte(fd, F_WRLCK, kGateByte, true)) return JoinResult::Failed;
    JoinResult result;
    if (LockByte(fd, F_WRLCK, kMemberByte, false)) {
        // No process holds the name.
        if (!create) {
            UnlockByte(fd, kMemberByte);
            result = JoinResult::Absent;
        } else {
            WriteState(fd, kReleased);
            if (LockByte(fd, F_RDLCK, kMemberByte, false)) {
                result = JoinResult::Created;
            } else {
                UnlockByte(fd, kMemberByte);
                result = JoinResult::Failed;
            }
        }
    } else if (errno == EAGAIN || errno == EACCES) {
        // Members hold it shared; nobody else can hold it exclusively while we have the gate.
        result = LockByte(fd, F_RDLCK, kMemberByte, false) ? JoinResult::Existed
                                                            : JoinResult::Failed;
    } else {
        result = JoinResult::Failed;
    }
    UnlockByte(fd, kGateByte);
    return result;
}

class NamedMutexObject : public MutexObject {
public:
    NamedMutexObject(std::string name, int fd) : m_name(std::move(name)), m_fd(fd) {}
    // Closing the descriptor drops every lock still held, ownership included: a mutex
    // destroyed while owned is abandoned.
    ~NamedMutexObject() override { close(m_fd); }

    void OnHandleClosed() override;

    const std::string m_name;
    const int m_fd;
    size_t m_handles = 0;  // open handles in this process, under NamedMutexes::lock

protected:
    bool HasMachineWidePart() const override { return true; }

    bool TryAcquireMachineWide(bool* abandoned) override {
        if (!LockByte(m_fd, F_WRLCK, kOwnerByte, false)) return false;
        char state = 0;
        *abandoned = pread(m_fd, &state, 1, 0) == 1 && state == kOwned;
        WriteState(m_fd, kOwned);
        return true;
    }

    void ReleaseMachineWide(bool abandoned) override {
        if (!abandoned) WriteState(m_fd, kReleased);
        UnlockByte(m_fd, kOwnerByte);
    }
};

struct NamedMutexes {
    std::mutex lock;
    std::unordered_map<std::string, std::shared_ptr<NamedMutexObject>> byName;
};

NamedMutexes& Registry() {
    // Never destroyed, like the handle table: handles may be closed by static destructors.
    static NamedMutexes* registry = new NamedMutexes;
    return *registry;
}

void NamedMutexObject::OnHandleClosed() {
    NamedMutexes& registry = Registry();
    std::lock_guard<std::mutex> lock(registry.lock);
    if (--m_handles > 0) return;
    // The process leaves the name. The descriptor stays open until the object is gone: a
    // wait that still runs on it (its handle closed meanwhile) keeps using it.
    registry.byName.erase(m_name);
    UnlockByte(m_fd, kMemberByte);
}

// A new handle to the object the process already has for the name; null if none.
HANDLE HandleToKnown(NamedMutexes& registry, const std::string& name, bool* failed) {
    *failed = false;
    auto it = registry.byName.find(name);
    if (it == registry.byName.end()) return nullptr;
    HANDLE handle = InsertHandle(it->second);
    if (!handle) {
        *failed = true;
        return nullptr;
    }
    ++it->second->m_handles;
    return handle;
}

// Opens the name's lock file and joins the name; null with the last error set on failure
// (ERROR_FILE_NOT_FOUND when the name is free and create is false).
std::shared_ptr<NamedMutexObject> JoinName(const std::string& name, bool create,
                                           JoinResult* result) {
    std::string folder = ObjectFolder();
    if (create && !EnsureFolder(folder)) {
        SetLastError(ErrorFromErrno(errno));
        return nullptr;
    }
    int fd = OpenLockFile(folder + "/" + FileNameOf(name), create);
    if (fd < 0) {
        SetLastError(!create && errno == ENOENT ? ERROR_FILE_NOT_FOUND : ErrorFromErrno(errno));
        return nullptr;
    }
    *result = Join(fd, create);
    if (*result == JoinResult::Failed || *result == JoinResult::Absent) {
        SetLastError(*result == JoinResult::Absent ? ERROR_FILE_NOT_FOUND : ErrorFromErrno(errno));
        close(fd);
        return nullptr;
    }
    return std::make_shared<NamedMutexObject>(name, fd);
}

HANDLE EnterNew(NamedMutexes& registry, const std::shared_ptr<NamedMutexObject>& mutex) {
    HANDLE handle = InsertHandle(mutex);
    if (!handle) {
        UnlockByte(mutex->m_fd, kMemberByte);
        return nullptr;
    }
    mutex->m_handles = 1;
    registry.byName.emplace(mutex->m_name, mutex);
    return handle;
}

}  // namespace

HANDLE CreateNamedMutex(const char* name, bool initialOwner) {
    NamedMutexes& registry = Registry();
    std::unique_lock<std::mutex> lock(registry.lock);
    bool failed;
    if (HANDLE handle = HandleToKnown(registry, name, &failed)) {
        // An existing mutex is opened as it is: ownership isn't taken even when asked for.
        SetLastError(ERROR_ALREADY_EXISTS);
        return handle;
    }
    if (failed) return nullptr;
    JoinResult result;
    std::shared_ptr<NamedMutexObject> mutex = JoinName(name, true, &result);
    if (!mutex) return nullptr;
    bool takeOwnership = initialOwner && result == JoinResult::Created;
    // The creator is the only member, so the owner byte is free and the wait doesn't wait.
    // Taken before the name is entered, no other thread of ours can get there first.
    bool owned = takeOwnership && mutex->Wait(0) != WAIT_TIMEOUT;
    HANDLE handle = EnterNew(registry, mutex);
    lock.unlock();
    if (!handle) return nullptr;
    // The owner byte can only still be held by an object of this process whose name was
    // closed while a wait on it went on; wait for that one to let go.
    if (takeOwnership && !owned) mutex->Wait(INFINITE);
    SetLastError(result == JoinResult::Existed ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return handle;
}

HANDLE OpenNamedMutex(const char* name) {
    NamedMutexes& registry = Registry();
    std::lock_guard<std::mutex> lock(registry.lock);
    bool failed;
    if (HANDLE handle = HandleToKnown(registry, name, &failed)) {
        SetLastError(ERROR_SUCCESS);
        return handle;
    }
    if (failed) return nullptr;
    JoinResult result;
    std::shared_ptr<NamedMutexObject> mutex = JoinName(name, false, &result);
    if (!mutex) return nullptr;
    HANDLE handle = EnterNew(registry, mutex);
    if (handle) SetLastError(ERROR_SUCCESS);
    return handle;
}

}  // namespace velmora_platform
