// What the service layer relies on in the platform layer: waits, mutex ownership and
// abandonment (also between processes), the log's file, .ini files and starting the logger.
#include "VelmoraPlatform.h"
#include "VelmoraServiceStandIn.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace std::string_literals;

namespace {

constexpr DWORD kShortWait = 100, kLongWait = 10000;  // waits that must succeed end long before
constexpr DWORD kEarly = 0xEA, kLate = 0x1A7E, kPending = 0xFFFF;

void Pause(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }
DWORD Error(BOOL ok) { return ok ? ERROR_SUCCESS : GetLastError(); }

// WaitForSingleObject, with two faults made visible: a time-out before its time (kEarly),
// and a success only at the end of the time-out, as when nobody woke the waiter (kLate).
DWORD Wait(HANDLE handle, DWORD ms) {
    const auto start = std::chrono::steady_clock::now();
    const DWORD result = WaitForSingleObject(handle, ms);
    const bool full = std::chrono::steady_clock::now() - start >= std::chrono::milliseconds(ms);
    if (result == WAIT_TIMEOUT) return full ? result : kEarly;
    return full && ms != 0 && result != WAIT_FAILED ? kLate : result;
}

// A Wait on a thread of its own, which gives back a mutex it gets. The constructor returns
// once the thread sleeps in the wait (state 'S' in /proc) or is done.
class Waiter {
public:
    explicit Waiter(HANDLE handle, DWORD ms = kLongWait)
        : m_thread([this, handle, ms] {
              m_tid = pid_t(syscall(SYS_gettid));
              DWORD result = Wait(handle, ms);
              if (result == WAIT_OBJECT_0 || result == WAIT_ABANDONED) ReleaseMutex(handle);
              m_result = result;
          }) {
        while (m_result == kPending && !Sleeping()) Pause(1);
    }
    DWORD Result() { return m_thread.join(), m_result; }

private:
    bool Sleeping() const {
        std::ifstream in("/proc/self/task/" + std::to_string(m_tid) + "/stat");
        return m_tid && std::string(std::istreambuf_iterator<char>(in), {}).find(") S ") < 64;
    }
    std::atomic<pid_t> m_tid{0};
    std::atomic<DWORD> m_result{kPending};
    std::thread m_thread;
};

DWORD WaitOnOtherThread(HANDLE handle, DWORD ms) { return Waiter(handle, ms).Result(); }

TEST(Events, SetReleasesEveryWaiterOfAManualResetEventAndOneOfAnAutomaticOne) {
    for (BOOL manual : {TRUE, FALSE}) {
        HANDLE event = CreateEventA(nullptr, manual, TRUE, nullptr);  // set at creation
        EXPECT_EQ(Wait(event, 0), WAIT_OBJECT_0);
        EXPECT_EQ(Wait(event, 0), manual ? WAIT_OBJECT_0 : WAIT_TIMEOUT) << manual;
        // Odd manual rounds reset at once: a woken waiter that runs only later is released too.
        for (int round = 0; round < 4; ++round) {
            ResetEvent(event);
            std::vector<std::unique_ptr<Waiter>> waiters(manual ? 3 : 1);
            for (auto& waiter : waiters) waiter = std::make_unique<Waiter>(event);
            EXPECT_TRUE(SetEvent(event));
            if (manual && round % 2) ResetEvent(event);
            for (auto& waiter : waiters) EXPECT_EQ(waiter->Result(), WAIT_OBJECT_0) << manual;
            EXPECT_EQ(Wait(event, 0), manual && round % 2 == 0 ? WAIT_OBJECT_0 : WAIT_TIMEOUT);
        }
    }
}

TEST(Semaphores, CountStaysWithinItsMaximumAndAReleaseWakesAWaiter) {
    HANDLE semaphore = CreateSemaphoreA(nullptr, 0, 3, nullptr);
    Waiter waiter(semaphore);
    std::thread([&] { EXPECT_TRUE(ReleaseSemaphore(semaphore, 2, nullptr)); }).join();
    EXPECT_EQ(waiter.Result(), WAIT_OBJECT_0);  // any thread may release it
    EXPECT_EQ(Error(ReleaseSemaphore(semaphore, 3, nullptr)), ERROR_TOO_MANY_POSTS);
    LONG previous = -1;
    EXPECT_TRUE(ReleaseSemaphore(semaphore, 2, &previous) && previous == 1);  // to the maximum
    EXPECT_EQ(Error(ReleaseSemaphore(semaphore, 0, nullptr)), ERROR_INVALID_PARAMETER);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(Wait(semaphore, 0), WAIT_OBJECT_0);
    EXPECT_EQ(Wait(semaphore, kShortWait), WAIT_TIMEOUT);
}

TEST(Mutexes, OwnerReentersAndReleasesAsOftenAsItWaitedAndNobodyElseCan) {
    HANDLE mutex = CreateMutexA(nullptr, TRUE, nullptr);  // owned once from the start
    for (int i = 0; i < 2; ++i) EXPECT_EQ(Wait(mutex, 0), WAIT_OBJECT_0);
    std::thread([&] { EXPECT_EQ(Error(ReleaseMutex(mutex)), ERROR_NOT_OWNER); }).join();
    for (int i = 0; i < 2; ++i) EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_EQ(WaitOnOtherThread(mutex, kShortWait), WAIT_TIMEOUT);  // still owned once
    Waiter waiter(mutex);
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_EQ(waiter.Result(), WAIT_OBJECT_0);  // woken, and gave it back
    EXPECT_EQ(Error(ReleaseMutex(mutex)), ERROR_NOT_OWNER);
    // Closed, stale and wrong kinds of handle fail, and change nothing.
    HANDLE event = CreateEventA(nullptr, TRUE, TRUE, nullptr);
    EXPECT_TRUE(CloseHandle(event));
    HANDLE other = CreateEventA(nullptr, TRUE, TRUE, nullptr);  // may reuse the closed slot
    EXPECT_EQ(Error(WaitForSingleObject(event, 0) != WAIT_FAILED), ERROR_INVALID_HANDLE);
    for (BOOL ok : {CloseHandle(event), SetEvent(mutex), ReleaseSemaphore(mutex, 1, nullptr),
                    ReleaseMutex(other), CloseHandle(nullptr)})
        EXPECT_EQ(Error(ok), ERROR_INVALID_HANDLE);
    EXPECT_TRUE(Wait(mutex, 0) == WAIT_OBJECT_0 && Wait(other, 0) == WAIT_OBJECT_0);
}

// Keeps a thread from ending for a while after its routine has returned.
struct SlowExit {
    ~SlowExit() { Pause(2 * kShortWait); }
};

TEST(Threads, EndingWhileOwningAMutexAbandonItOnceAndRunWithThePriorityGiven) {
    HANDLE mutex = CreateMutexA(nullptr, FALSE, nullptr);
    HANDLE taken = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    // A platform thread, signalled only after the abandonment; then a std::thread that took
    // it twice and ends while this thread waits for it.
    static std::atomic<int> niceValue{0};
    auto takeOnce = [](LPVOID argument) -> DWORD {
        niceValue = getpriority(PRIO_PROCESS, id_t(syscall(SYS_gettid)));
        DWORD result = WaitForSingleObject(argument, 0);
        static thread_local SlowExit slowExit;  // destroyed before what the wait made
        return (void)slowExit, result;
    };
    HANDLE thread = CreateThread(nullptr, 0, takeOnce, mutex, CREATE_SUSPENDED, nullptr);
    EXPECT_TRUE(SetThreadPriority(thread, THREAD_PRIORITY_BELOW_NORMAL));  // as the service does
    EXPECT_EQ(Error(SetThreadPriority(thread, 3)), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(ResumeThread(thread), 1u);
    EXPECT_EQ(Wait(thread, kLongWait), WAIT_OBJECT_0);
    EXPECT_EQ(GetThreadPriority(thread), THREAD_PRIORITY_BELOW_NORMAL);
    // Lowering needs no privilege: the nice value rose (unless it was at its top already).
    EXPECT_GT(niceValue.load(), std::min(getpriority(PRIO_PROCESS, 0), 18));
    EXPECT_EQ(Wait(mutex, 0), WAIT_ABANDONED);
    EXPECT_TRUE(ReleaseMutex(mutex));
    std::thread owner([&] {
        for (int i = 0; i < 2; ++i) Wait(mutex, 0);
        SetEvent(taken);
        Pause(kShortWait);
    });
    EXPECT_EQ(Wait(taken, kLongWait), WAIT_OBJECT_0);
    EXPECT_EQ(Wait(mutex, kLongWait), WAIT_ABANDONED);
    owner.join();
    EXPECT_EQ(WaitOnOtherThread(mutex, 0), WAIT_TIMEOUT);  // taken once, then as usual
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_FALSE(ReleaseMutex(mutex));
    EXPECT_EQ(WaitOnOtherThread(mutex, 0), WAIT_OBJECT_0);
}

// A child process that creates the named mutex and answers 'C' (created) or 'E' (existed),
// then to 'R' releases it ('r' or 'f'), to 'W' waits for it (the result's low byte).
struct Child {
    Child(const std::string& name, bool owner) {
        socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
        timeval limit{10, 0};  // no answer within it: '?'
        setsockopt(fds[0], SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        if ((pid = fork()) != 0) return;
        HANDLE mutex = CreateMutexA(nullptr, owner, name.c_str());
        char reply = GetLastError() == ERROR_ALREADY_EXISTS ? 'E' : mutex ? 'C' : '?';
        for (char command; write(fds[1], &reply, 1) == 1 && read(fds[1], &command, 1) == 1;)
            reply = command == 'R' ? "fr"[ReleaseMutex(mutex)] : char(Wait(mutex, kLongWait));
        _exit(0);
    }
    ~Child() { Kill(); }
    char Ask(char command = 0) {
        char reply = '?';
        bool sent = !command || write(fds[0], &command, 1) == 1;
        return sent && read(fds[0], &reply, 1) == 1 ? reply : '?';
    }
    void Kill() { if (pid > 0 && kill(pid, SIGKILL) == 0) waitpid(std::exchange(pid, 0), 0, 0); }
    int fds[2] = {-1, -1}, pid = -1;  // the child's process id
};

bool Exists(const std::string& name) {
    HANDLE mutex = OpenMutexA(MUTEX_ALL_ACCESS, FALSE, name.c_str());
    return mutex && CloseHandle(mutex);
}

TEST(NamedMutexes, AreSharedOwnedAndAbandonedAcrossProcessesWhileANameLives) {
    velmora_test::TempDir folder;  // for the lock files
    setenv("VELMORA_OBJECT_FOLDER", folder.path().c_str(), 1);
    const std::string name = "Global\\" + velmora_test::UniqueName("mutex");
    EXPECT_EQ(Error(Exists(name)), ERROR_FILE_NOT_FOUND);
    // Both children start before this process opens the name, which a child would share.
    Child first(name, true);
    ASSERT_EQ(first.Ask(), 'C');
    Child second(name, false);
    ASSERT_EQ(second.Ask(), 'E');
    HANDLE mutex = CreateMutexA(nullptr, TRUE, name.c_str());  // not taken: it exists
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(Error(ReleaseMutex(mutex)), ERROR_NOT_OWNER);
    EXPECT_EQ(Wait(mutex, kShortWait), WAIT_TIMEOUT);
    EXPECT_EQ(first.Ask('R'), 'r');
    EXPECT_EQ(Wait(mutex, kLongWait), WAIT_OBJECT_0);  // released, not abandoned
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_EQ(first.Ask('W'), char(WAIT_OBJECT_0));
    first.Kill();  // ends owning it
    EXPECT_EQ(Wait(mutex, kLongWait), WAIT_ABANDONED);
    EXPECT_TRUE(ReleaseMutex(mutex));
    std::thread([&] { Wait(mutex, 0); }).join();  // ends owning it
    EXPECT_EQ(second.Ask('W'), char(WAIT_ABANDONED));
    EXPECT_EQ(Wait(mutex, kShortWait), WAIT_TIMEOUT);
    CloseHandle(mutex);
    EXPECT_TRUE(Exists(name));
    second.Kill();  // the last holder, owning it
    EXPECT_EQ(Error(Exists(name)), ERROR_FILE_NOT_FOUND);
    // A new life of the name, free, not abandoned; handles share it until the last closes.
    const std::string longName = name + std::string(300, 'x');  // beyond a file name's length
    for (const std::string& each : {name, longName}) {
        mutex = CreateMutexA(nullptr, FALSE, each.c_str());
        EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
        HANDLE other = OpenMutexA(MUTEX_ALL_ACCESS, FALSE, each.c_str());
        EXPECT_EQ(Wait(other, 0), WAIT_OBJECT_0);
        CloseHandle(mutex);
        EXPECT_TRUE(Exists(each) && !Exists(each + "y"));
        CloseHandle(other);
        EXPECT_FALSE(Exists(each));
    }
}

TEST(Files, AHandleOwnsOneCloseOnExecDescriptorAndWritesWhereThePositionIs) {
    velmora_test::TempDir dir;
    const std::string path = dir.file("log.txt");
    std::ofstream(path) << "first\n";
    const int next = dup(2);  // the lowest free descriptor, which the file will take
    close(next);
    HANDLE file = CreateFileA(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                              nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_TRUE(fcntl(next, F_GETFD) & FD_CLOEXEC);
    // No append mode: a write goes where the position is, at first the start.
    DWORD written = 0;
    EXPECT_TRUE(WriteFile(file, "F", 1, &written, nullptr));
    EXPECT_EQ(SetFilePointer(file, GetFileSize(file, nullptr), nullptr, FILE_BEGIN), 6u);
    EXPECT_TRUE(WriteFile(file, "second\n", 7, &written, nullptr) && written == 7);
    EXPECT_EQ(Error(CloseServiceHandle(file)), ERROR_INVALID_HANDLE);  // not the manager's
    EXPECT_TRUE(CloseHandle(file));
    EXPECT_EQ(fcntl(next, F_GETFD), -1) << "the descriptor outlives its handle";
    EXPECT_EQ(velmora_test::ReadFile(path), "First\nsecond\n");
}

TEST(ProfileStrings, UpdatesChangeOnlyTheirLines) {
    velmora_test::TempDir dir;
    const std::string path = dir.file("app.ini");
    std::ofstream(path) << "; by hand\n[General]\nName = Velmora\nPort=1\n\n[Status]\nX=0\ny=2\n"
                           "[Old]\nz=3\n";
    const char* updates[][3] = {
        {"GENERAL", "port", "8080"},    // in place, and the key keeps its spelling
        {"general", "New", "n"},        // behind the section's last line, before the blank
        {"Status", "X", nullptr},       // deletes a key
        {"old", nullptr, nullptr},      // deletes a section
        {"New", "k", ""},               // a new section at the end
        {"Status", "absent", nullptr},  // nothing to delete
    };
    for (auto& update : updates)
        EXPECT_TRUE(WritePrivateProfileStringA(update[0], update[1], update[2], path.c_str()));
    EXPECT_EQ(velmora_test::ReadFile(path),
              "; by hand\r\n[General]\r\nName = Velmora\r\nPort=8080\r\nNew=n\r\n\r\n[Status]\r\n"
              "y=2\r\n[New]\r\nk=\r\n");
}

TEST(ProfileStrings, ReadsFollowWin32Conventions) {
    velmora_test::TempDir dir;
    const std::string path = dir.file("app.ini");
    std::ofstream(path) << "\xEF\xBB\xBF[S]\nlong=abcdefghij\n Quoted = \"  spaced  \"\n"
                           "[T]\nonly=t\n[s]\nlong=2\n";
    const std::tuple<const char*, const char*, DWORD, DWORD, std::string> reads[] = {
        {"s", "QUOTED", 64, 10, "  spaced  \0"s},  // names without case or blanks; no quotes
        {"S", "long", 6, 5, "abcde\0"s},           // the first section of a name, cut to fit
        {"S", "only", 64, 8, "fallback\0"s},       // the default without trailing blanks
    };
    for (const auto& [section, key, size, result, expected] : reads) {
        char buffer[64];
        EXPECT_EQ(GetPrivateProfileStringA(section, key, "fallback  ", buffer, size, path.c_str()),
                  result);
        EXPECT_EQ(std::string(buffer, expected.size()), expected);
    }
}

TEST(ProfileStrings, ConcurrentWritersLoseNoKeyAndReadersSeeOnlyWholeFiles) {
    velmora_test::TempDir dir;
    const std::string path = dir.file("status.ini");
    std::ofstream(path) << "[Padding]\r\np=" << std::string(50000, 'x') << "\r\n";  // slow to write
    auto writeKeys = [&](std::string section) {
        for (int i = 0; i < 100; ++i)
            WritePrivateProfileStringA(section.c_str(), std::to_string(i).c_str(), "", path.c_str());
    };
    auto lines = [&] {  // of a whole file; -1 for a torn one
        std::string text = velmora_test::ReadFile(path);
        return text.ends_with("\r\n") ? std::count(text.begin(), text.end(), '\n') : -1;
    };
    const pid_t child = fork();  // a writer in another process, started before any thread
    if (child == 0) _exit((writeKeys("Child"), 0));
    std::atomic<bool> done{false};
    std::thread reader([&] {  // keys are only added: the number of lines never falls
        for (long last = 0, now; !done; last = now)
            if ((now = lines()) < last) return ADD_FAILURE() << "torn file";
    });
    std::thread writers[] = {std::thread(writeKeys, "A"), std::thread(writeKeys, "B")};
    for (auto& writer : writers) writer.join();
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    done = true;
    reader.join();
    EXPECT_EQ(lines(), 2 + 3 * 101) << "updates were lost";
}

struct FakeService : velmora_platform::ServiceStandIn {
    bool QueryState(DWORD* pdwState) override { return (*pdwState = SERVICE_RUNNING), works; }
    bool Start() override { return works; }
    bool works = false;
};

TEST(ServiceManager, ReachesAStandInByNameWithoutRegardToCaseUntilItIsRemoved) {
    FakeService service;
    velmora_platform::InstallServiceStandIn("Logger", &service);
    SC_HANDLE handle = OpenServiceA(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS),
                                    "LOGGER", SERVICE_ALL_ACCESS);
    SERVICE_STATUS status{};  // a failure is told, and leaves the status alone
    EXPECT_NE(Error(QueryServiceStatus(handle, &status)), ERROR_SUCCESS);
    EXPECT_EQ(status.dwCurrentState, 0u);
    service.works = true;
    EXPECT_TRUE(QueryServiceStatus(handle, &status) && status.dwCurrentState == SERVICE_RUNNING);
    velmora_platform::InstallServiceStandIn("logger", nullptr);  // gone for open handles too
    EXPECT_EQ(Error(StartServiceA(handle, 0, nullptr)), ERROR_SERVICE_DOES_NOT_EXIST);
    velmora_platform::SetServiceManagerAvailable(false);
    EXPECT_EQ(Error(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS) != nullptr),
              ERROR_ACCESS_DENIED);
}

// Tells in "result" of its working folder (renamed into place whole) what the program found:
// its standard streams, a descriptor of ours, its arguments, its parent and its session.
const char kReport[] = R"(#!/bin/sh
io=$(readlink /proc/$$/fd/0 /proc/$$/fd/1 /proc/$$/fd/2)
[ -e /proc/$$/fd/$VELMORA_LEAK_FD ] && io="$io leaked"
printf '%s|' $io "$@" $(cut -d' ' -f4,6 /proc/$$/stat) > result.tmp && mv result.tmp result
)";

TEST(ShellExecute, FailsAtOnceOrRunsTheProgramDetachedWithNothingOfOurs) {
    velmora_test::TempDir dir;
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    std::ofstream("report") << kReport;
    ASSERT_EQ(chmod("report", 0755) | mkdir("work", 0755), 0);
    const int leak = fcntl(2, F_DUPFD, 50);  // not close-on-exec, yet not for the program
    setenv("VELMORA_LEAK_FD", std::to_string(leak).c_str(), 1);
    // Verb, program, folder and the result (33: started); a failure is known at once.
    const std::tuple<const char*, std::string, const char*, intptr_t> launches[] = {
        {"open", "./missing", nullptr, 2}, {nullptr, "velmora-not-in-path", nullptr, 2},
        {"open", "/dev/null", nullptr, 5}, {"print", "./report", nullptr, 31},
        {"open", "./report", "missing", 3}, {"OPEN", dir.file("report"), "work", 33},
    };
    for (auto& [verb, file, folder, result] : launches) {
        HINSTANCE got = ShellExecuteA(nullptr, verb, file.c_str(), "one \"two words\" \\\"q\\\"  z",
                                      folder, SW_HIDE);
        EXPECT_EQ(std::min(intptr_t(got), intptr_t(33)), result) << file;
    }
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left to reap";
    for (int i = 0; i < 1000 && !velmora_test::FileExists("work/result"); ++i) Pause(20);
    const std::string report = velmora_test::ReadFile("work/result");
    long parent = 0, session = 0;
    EXPECT_EQ(sscanf(report.c_str(), "/dev/null|/dev/null|/dev/null|one|two words|\"q\"|z|%ld|%ld|",
                     &parent, &session), 2) << report;
    EXPECT_TRUE(parent != getpid() && session != getsid(0)) << "not detached: " << report;
}

}  // namespace
