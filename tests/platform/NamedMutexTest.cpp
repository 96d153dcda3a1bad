// Machine-wide named mutexes: shared by name between processes, free again when the last
// holder closes them or dies.
#include "VelmoraPlatform.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <poll.h>
#include <signal.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr DWORD kLongWait = 10000;
constexpr DWORD kShortWait = 100;

// One letter per wait result, as a child reports it.
char Letter(DWORD waitResult) {
    switch (waitResult) {
    case WAIT_OBJECT_0: return 'O';
    case WAIT_ABANDONED: return 'A';
    case WAIT_TIMEOUT: return 'T';
    default: return 'F';
    }
}

// A child process (fork) that creates the named mutex, reports 'C' (created), 'E' (existed)
// or 'F' (failed), then serves commands until it is killed or the parent goes away:
// 'R' releases the mutex ('r' / 'f'), 'w' / 'W' wait for it briefly / long (a Letter).
class Child {
public:
    Child(const std::string& name, bool initialOwner) {
        if (pipe(m_toParent) != 0 || pipe(m_toChild) != 0) return;
        m_pid = fork();
        if (m_pid == 0) {
            close(m_toParent[0]);
            close(m_toChild[1]);
            Serve(name, initialOwner, m_toChild[0], m_toParent[1]);
        }
        close(m_toParent[1]);
        close(m_toChild[0]);
    }

    ~Child() {
        Kill();
        close(m_toParent[0]);
        close(m_toChild[1]);
    }

    bool Started() const { return m_pid > 0; }

    // The child's next report; '?' if none comes within ten seconds.
    char Read() {
        pollfd ready{m_toParent[0], POLLIN, 0};
        char letter = '?';
        if (poll(&ready, 1, 10000) == 1 && read(m_toParent[0], &letter, 1) != 1) letter = '?';
        return letter;
    }

    char Ask(char command) {
        if (write(m_toChild[1], &command, 1) != 1) return '?';
        return Read();
    }

    void Kill() {
        if (m_pid <= 0) return;
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }

private:
    [[noreturn]] static void Serve(const std::string& name, bool initialOwner, int in, int out) {
        HANDLE mutex = CreateMutexA(nullptr, initialOwner, name.c_str());
        char letter = !mutex ? 'F' : GetLastError() == ERROR_ALREADY_EXISTS ? 'E' : 'C';
        if (write(out, &letter, 1) != 1) _exit(1);
        char command;
        while (read(in, &command, 1) == 1) {
            if (command == 'R')
                letter = ReleaseMutex(mutex) ? 'r' : 'f';
            else
                letter = Letter(
                    WaitForSingleObject(mutex, command == 'W' ? kLongWait : kShortWait));
            if (write(out, &letter, 1) != 1) break;
        }
        _exit(0);
    }

    int m_toParent[2] = {-1, -1};
    int m_toChild[2] = {-1, -1};
    pid_t m_pid = -1;
};

class NamedMutexTest : public ::testing::Test {
protected:
    // The lock files go to a folder of the test's own, removed afterwards.
    void SetUp() override { setenv("VELMORA_OBJECT_FOLDER", m_folder.path().c_str(), 1); }
    void TearDown() override { unsetenv("VELMORA_OBJECT_FOLDER"); }

    static std::string Name(const char* stem) {
        return "Global\\" + velmora_test::UniqueName(stem) + "_MUTEX";
    }

    static bool Exists(const std::string& name) {
        HANDLE mutex = OpenMutexA(MUTEX_ALL_ACCESS, FALSE, name.c_str());
        if (!mutex) return false;
        CloseHandle(mutex);
        return true;
    }

    velmora_test::TempDir m_folder;
};

TEST_F(NamedMutexTest, MutexOfAnotherProcessIsFoundUntilThatProcessIsKilled) {
    const std::string name = Name("held_by_child");
    EXPECT_FALSE(Exists(name));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);

    Child child(name, true);
    ASSERT_TRUE(child.Started());
    ASSERT_EQ(child.Read(), 'C');

    HANDLE opened = OpenMutexA(MUTEX_ALL_ACCESS, FALSE, name.c_str());
    EXPECT_NE(opened, nullptr);
    HANDLE created = CreateMutexA(nullptr, TRUE, name.c_str());
    ASSERT_NE(created, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    // Ownership was asked for but not taken, since the mutex existed.
    EXPECT_FALSE(ReleaseMutex(created));
    EXPECT_EQ(GetLastError(), ERROR_NOT_OWNER);
    CloseHandle(opened);
    CloseHandle(created);

    EXPECT_TRUE(Exists(name));  // the child still holds it
    child.Kill();
    EXPECT_FALSE(Exists(name));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);

    // A new life of the name: a new mutex, free, and not abandoned by the old owner.
    HANDLE again = CreateMutexA(nullptr, FALSE, name.c_str());
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(WaitForSingleObject(again, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(ReleaseMutex(again));
    CloseHandle(again);
}

TEST_F(NamedMutexTest, OwnershipIsExclusiveBetweenProcesses) {
    const std::string name = Name("owned_by_child");
    Child child(name, true);
    ASSERT_TRUE(child.Started());
    ASSERT_EQ(child.Read(), 'C');

    HANDLE mutex = OpenMutexA(MUTEX_ALL_ACCESS, FALSE, name.c_str());
    ASSERT_NE(mutex, nullptr);
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(mutex, kShortWait), WAIT_TIMEOUT);

    EXPECT_EQ(child.Ask('R'), 'r');
    EXPECT_EQ(WaitForSingleObject(mutex, kLongWait), WAIT_OBJECT_0);  // released, not abandoned
    EXPECT_EQ(child.Ask('w'), 'T');
    EXPECT_EQ(child.Ask('R'), 'f');  // the child isn't the owner now

    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_EQ(child.Ask('W'), 'O');
    EXPECT_EQ(WaitForSingleObject(mutex, kShortWait), WAIT_TIMEOUT);
    EXPECT_EQ(child.Ask('R'), 'r');
    EXPECT_EQ(WaitForSingleObject(mutex, kLongWait), WAIT_OBJECT_0);
    EXPECT_TRUE(ReleaseMutex(mutex));
    CloseHandle(mutex);
}

TEST_F(NamedMutexTest, OwnerProcessKilledLeavesTheMutexAbandoned) {
    const std::string name = Name("owner_killed");
    Child child(name, true);
    ASSERT_TRUE(child.Started());
    ASSERT_EQ(child.Read(), 'C');
    HANDLE mutex = OpenMutexA(MUTEX_ALL_ACCESS, FALSE, name.c_str());
    ASSERT_NE(mutex, nullptr);
    EXPECT_EQ(WaitForSingleObject(mutex, kShortWait), WAIT_TIMEOUT);

    child.Kill();
    EXPECT_EQ(WaitForSingleObject(mutex, kLongWait), WAIT_ABANDONED);
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);  // reported once
    EXPECT_TRUE(ReleaseMutex(mutex));
    CloseHandle(mutex);
}

TEST_F(NamedMutexTest, OwnerThreadEndingAbandonsTheMutexForOtherProcesses) {
    const std::string name = Name("owner_thread_ends");
    Child child(name, false);
    ASSERT_TRUE(child.Started());
    ASSERT_EQ(child.Read(), 'C');
    HANDLE mutex = OpenMutexA(MUTEX_ALL_ACCESS, FALSE, name.c_str());
    ASSERT_NE(mutex, nullptr);

    std::thread([&] { EXPECT_EQ(WaitForSingleObject(mutex, kLongWait), WAIT_OBJECT_0); }).join();
    EXPECT_EQ(child.Ask('W'), 'A');
    EXPECT_EQ(WaitForSingleObject(mutex, kShortWait), WAIT_TIMEOUT);  // the child owns it now
    EXPECT_EQ(child.Ask('R'), 'r');
    EXPECT_EQ(WaitForSingleObject(mutex, kLongWait), WAIT_OBJECT_0);
    EXPECT_TRUE(ReleaseMutex(mutex));
    CloseHandle(mutex);
}

TEST_F(NamedMutexTest, SecondCreateInTheProcessSharesTheMutexWithoutTakingIt) {
    const std::string name = Name("two_handles");
    HANDLE first = CreateMutexA(nullptr, FALSE, name.c_str());
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);

    HANDLE second = nullptr;
    std::thread([&] {
        second = CreateMutexA(nullptr, TRUE, name.c_str());
        EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
        EXPECT_FALSE(ReleaseMutex(second));
    }).join();
    ASSERT_NE(second, nullptr);
    EXPECT_NE(second, first);
    // Not owned by the thread that has ended (it would have been abandoned), and one mutex
    // behind both handles.
    EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_OBJECT_0);
    std::thread([&] { EXPECT_EQ(WaitForSingleObject(second, kShortWait), WAIT_TIMEOUT); }).join();
    EXPECT_TRUE(ReleaseMutex(second));

    // The name lives until both handles are closed.
    CloseHandle(first);
    EXPECT_TRUE(Exists(name));
    CloseHandle(second);
    EXPECT_FALSE(Exists(name));
}

TEST_F(NamedMutexTest, CreatorAskingForOwnershipOwnsIt) {
    const std::string name = Name("initial_owner");
    HANDLE mutex = CreateMutexA(nullptr, TRUE, name.c_str());
    ASSERT_NE(mutex, nullptr);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    std::thread([&] {
        HANDLE other = OpenMutexA(MUTEX_ALL_ACCESS, FALSE, name.c_str());
        EXPECT_EQ(WaitForSingleObject(other, kShortWait), WAIT_TIMEOUT);
        CloseHandle(other);
    }).join();
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_FALSE(ReleaseMutex(mutex));
    CloseHandle(mutex);
}

TEST_F(NamedMutexTest, NamesAreNamesNotPaths) {
    const std::string unique = velmora_test::UniqueName("names");
    const std::string name = "Global\\" + unique;
    HANDLE mutex = CreateMutexA(nullptr, FALSE, name.c_str());
    ASSERT_NE(mutex, nullptr);
    EXPECT_TRUE(Exists(name));
    // Other spellings are other names, whatever they look like as file names.
    for (const std::string& other : {unique, "Global/" + unique, "Global%5C" + unique,
                                     "global\\" + unique, "Global\\\\" + unique}) {
        EXPECT_FALSE(Exists(other)) << other;
    }
    CloseHandle(mutex);

    // Names that would leave a folder, or are too long for a file name, are names as well;
    // long names that differ only at the end are still different names.
    const std::string longName(300, 'x');
    const std::vector<std::string> odd = {"../" + unique, "a/b/" + unique, longName + unique,
                                          longName + "y" + unique};
    std::vector<HANDLE> handles;
    for (const std::string& oddName : odd) {
        handles.push_back(CreateMutexA(nullptr, FALSE, oddName.c_str()));
        EXPECT_NE(handles.back(), nullptr) << oddName;
        EXPECT_EQ(GetLastError(), ERROR_SUCCESS) << oddName;
    }
    for (size_t i = 0; i < odd.size(); ++i) {
        EXPECT_TRUE(Exists(odd[i])) << odd[i];
        CloseHandle(handles[i]);
        EXPECT_FALSE(Exists(odd[i])) << odd[i];
    }

    EXPECT_EQ(OpenMutexA(MUTEX_ALL_ACCESS, FALSE, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

}  // namespace
