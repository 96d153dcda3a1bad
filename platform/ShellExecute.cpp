// ShellExecuteA: starts a program detached from the calling process.
//
// The program is started by a double fork: the child makes itself the leader of a new
// session (no controlling terminal, its own process group), forks the program's process
// and ends at once; the caller reaps the child right away. The program is then nobody's
// child in the caller, so the host has no zombie to reap and gets no SIGCHLD from it later.
//
// The program gets /dev/null as stdin, stdout and stderr, no other descriptor of the caller
// (all of them are closed before exec, whether or not they were close-on-exec), the default
// disposition of every signal and an empty signal mask, and the caller's environment.
//
// Failure is reported synchronously: a close-on-exec pipe runs from the program's process
// to the caller. A successful exec closes it without a word; a failure of any step writes
// the step and errno into it. The caller reads until the pipe is closed, so the result is
// known when ShellExecuteA returns.
//
// Between fork and exec only async-signal-safe calls are made: everything that allocates
// (arguments, candidate paths) is prepared beforehand.
//
// Programs: a file name with a '/' is a path, relative ones to the caller's current folder;
// a bare name is looked up in the folders of PATH. Windows and show states don't exist here.
#include "VelmoraPlatform.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <new>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

// Results 32 or less, as ShellExecute reports them.
constexpr intptr_t kSeErrOom = 8;            // out of memory or resources
constexpr intptr_t kSeErrFileNotFound = 2;   // SE_ERR_FNF
constexpr intptr_t kSeErrPathNotFound = 3;   // SE_ERR_PNF
constexpr intptr_t kSeErrAccessDenied = 5;   // SE_ERR_ACCESSDENIED
constexpr intptr_t kSeErrBadFormat = 11;     // ERROR_BAD_FORMAT
constexpr intptr_t kSeErrShare = 26;         // SE_ERR_SHARE
constexpr intptr_t kSeErrNoAssoc = 31;       // SE_ERR_NOASSOC
constexpr intptr_t kStarted = 42;            // anything above 32

// What the launching processes report through the pipe when a step fails.
enum Step : int { kStepSession = 1, kStepFork, kStepDirectory, kStepStdio, kStepExec };
struct Failure {
    int step;
    int error;
};

bool EqualNoCase(const char* a, const char* b) {
    for (;; ++a, ++b) {
        char ca = (*a >= 'A' && *a <= 'Z') ? char(*a - 'A' + 'a') : *a;
        char cb = (*b >= 'A' && *b <= 'Z') ? char(*b - 'A' + 'a') : *b;
        if (ca != cb) return false;
        if (ca == '\0') return true;
    }
}

// Splits a parameter string at blanks. Double quotes group blanks into one argument (and
// "" is an empty one); \" is a literal quote. Other backslashes are ordinary characters.
std::vector<std::string> SplitParameters(const char* text) {
    std::vector<std::string> args;
    if (text == nullptr) return args;
    std::string current;
    bool inArg = false, quoted = false;
    for (const char* p = text; *p; ++p) {
        char c = *p;
        if (c == '\\' && p[1] == '"') {
            current += '"';
            inArg = true;
            ++p;
        } else if (c == '"') {
            quoted = !quoted;
            inArg = true;
        } else if ((c == ' ' || c == '\t') && !quoted) {
            if (inArg) args.push_back(std::move(current));
            current.clear();
            inArg = false;
        } else {
            current += c;
            inArg = true;
        }
    }
    if (inArg) args.push_back(std::move(current));
    return args;
}

// The paths to try for a program, in order.
std::vector<std::string> Candidates(const std::string& file) {
    std::vector<std::string> paths;
    if (file.find('/') != std::string::npos) {
        if (file.front() == '/') {
            paths.push_back(file);
        } else {
            // Relative to the caller's folder, not to the program's working folder.
            std::string cwd(PATH_MAX, '\0');
            if (::getcwd(cwd.data(), cwd.size()) == nullptr) {
                paths.push_back(file);
            } else {
                cwd.resize(cwd.find('\0'));
                paths.push_back(cwd + "/" + file);
            }
        }
        return paths;
    }
    const char* path = ::getenv("PATH");
    std::string folders = path && *path ? path : "/usr/local/bin:/usr/bin:/bin";
    size_t start = 0;
    for (;;) {
        size_t end = folders.find(':', start);
        std::string folder = folders.substr(start, end == std::string::npos ? end : end - start);
        paths.push_back((folder.empty() ? std::string(".") : folder) + "/" + file);
        if (end == std::string::npos) break;
        start = end + 1;
    }
    return paths;
}

intptr_t ResultOf(const Failure& failure) {
    switch (failure.error) {
    case ENOENT: return failure.step == kStepDirectory ? kSeErrPathNotFound : kSeErrFileNotFound;
    case ENOTDIR:
    case ELOOP:
    case ENAMETOOLONG: return kSeErrPathNotFound;
    case EACCES:
    case EPERM:
    case EISDIR: return kSeErrAccessDenied;
    case ENOEXEC: return kSeErrBadFormat;
    case ETXTBSY: return kSeErrShare;
    case ENOMEM:
    case EAGAIN:
    case E2BIG:
    case EMFILE:
    case ENFILE: return kSeErrOom;
    default: return failure.step == kStepExec ? kSeErrAccessDenied : kSeErrOom;
    }
}

// ---- Between fork and exec: async-signal-safe calls only -------------------------------

[[noreturn]] void Fail(int pipeFd, int step, int error) {
    Failure failure{step, error};
    ssize_t ignored = ::write(pipeFd, &failure, sizeof failure);  // one atomic pipe write
    (void)ignored;
    ::_exit(127);
}

// Closes every descriptor from `from` on except `keep`.
void CloseDescriptors(int from, int keep, int maxFd) {
    auto closeRange = [maxFd](int first, int last) {
        if (first > last) return;
        if (::syscall(SYS_close_range, unsigned(first), unsigned(last), 0u) == 0) return;
        for (int fd = first; fd <= last && fd < maxFd; ++fd) ::close(fd);
    };
    closeRange(from, keep - 1);
    closeRange(keep + 1, INT_MAX);
}

[[noreturn]] void RunProgram(int pipeFd, int maxFd, const char* directory,
                             const std::vector<const char*>& candidates, char* const* argv,
                             char* const* envp) {
    // Signals: what the caller ignored or blocked is no business of the program.
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    for (int sig = 1; sig < NSIG; ++sig) ::sigaction(sig, &dfl, nullptr);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);

    if (directory && ::chdir(directory) != 0) Fail(pipeFd, kStepDirectory, errno);

    int null = ::open("/dev/null", O_RDWR | O_NOCTTY);
    if (null < 0) Fail(pipeFd, kStepStdio, errno);
    // The pipe must not sit on 0..2, or the dup2 below would replace it.
    if (pipeFd <= 2) {
        int moved = ::fcntl(pipeFd, F_DUPFD_CLOEXEC, 3);
        if (moved < 0) Fail(pipeFd, kStepStdio, errno);
        pipeFd = moved;
    }
    for (int fd = 0; fd <= 2; ++fd)
        if (::dup2(null, fd) < 0) Fail(pipeFd, kStepStdio, errno);
    CloseDescriptors(3, pipeFd, maxFd);

    // As a shell does: the error of a path that exists but can't be run wins over the
    // "not found" of the others.
    int error = ENOENT;
    for (const char* path : candidates) {
        ::execve(path, argv, envp);
        if (errno != ENOENT && errno != ENOTDIR) error = errno;
        if (error == ENOEXEC || error == ENOMEM || error == E2BIG) break;
    }
    Fail(pipeFd, kStepExec, error);
}

}  // namespace

extern "C" {

HINSTANCE ShellExecuteA(HWND hwnd, LPCSTR lpOperation, LPCSTR lpFile, LPCSTR lpParameters,
                        LPCSTR lpDirectory, int nShowCmd) {
    (void)hwnd;
    (void)nShowCmd;
    auto result = [](intptr_t value) { return reinterpret_cast<HINSTANCE>(value); };
    if (lpOperation != nullptr && *lpOperation != '\0' && !EqualNoCase(lpOperation, "open"))
        return result(kSeErrNoAssoc);
    if (lpFile == nullptr || *lpFile == '\0') return result(kSeErrFileNotFound);

    // Everything the launching processes need, prepared before forking.
    std::vector<std::string> paths;
    std::vector<std::string> args;
    try {
        paths = Candidates(lpFile);
        args = SplitParameters(lpParameters);
        args.insert(args.begin(), lpFile);
    } catch (const std::bad_alloc&) {
        return result(kSeErrOom);
    }
    std::vector<const char*> candidates;
    std::vector<char*> argv;
    for (const std::string& path : paths) candidates.push_back(path.c_str());
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    const char* directory = lpDirectory && *lpDirectory ? lpDirectory : nullptr;
    struct rlimit limit {};
    int maxFd = ::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < 65536
                    ? int(limit.rlim_cur)
                    : 65536;

    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) return result(kSeErrOom);

    pid_t child = ::fork();
    if (child < 0) {
        ::close(pipeFds[0]);
        ::close(pipeFds[1]);
        return result(kSeErrOom);
    }
    if (child == 0) {
        ::close(pipeFds[0]);
        if (::setsid() < 0) Fail(pipeFds[1], kStepSession, errno);
        pid_t program = ::fork();
        if (program < 0) Fail(pipeFds[1], kStepFork, errno);
        if (program == 0)
            RunProgram(pipeFds[1], maxFd, directory, candidates, argv.data(), environ);
        ::_exit(0);
    }

    ::close(pipeFds[1]);
    Failure failure{0, 0};
    size_t got = 0;
    while (got < sizeof failure) {
        ssize_t n =
            ::read(pipeFds[0], reinterpret_cast<char*>(&failure) + got, sizeof failure - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += size_t(n);
    }
    ::close(pipeFds[0]);
    // The child ends right after its fork. It may already be reaped when the host ignores
    // SIGCHLD or reaps all children itself; then waitpid fails with ECHILD.
    int status;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }

    if (got == sizeof failure) return result(ResultOf(failure));
    if (got != 0) return result(kSeErrOom);  // the report was cut: something went badly wrong
    return result(kStarted);
}

}  // extern "C"
