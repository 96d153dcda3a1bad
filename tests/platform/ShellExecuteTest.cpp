// ShellExecuteA: failures known when the call returns, and a program that runs detached,
// with its arguments, its folder, /dev/null as standard streams and none of our descriptors.
#include "VelmoraPlatform.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using velmora_test::ReadFile;
using velmora_test::SplitLines;
using velmora_test::TempDir;

namespace {

intptr_t Launch(const char* verb, const std::string& file, const char* params = nullptr,
                const char* directory = nullptr) {
    return reinterpret_cast<intptr_t>(
        ShellExecuteA(nullptr, verb, file.c_str(), params, directory, SW_HIDE));
}

void WriteScript(const std::string& path, const std::string& body, mode_t mode = 0755) {
    FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fputs(body.c_str(), f);
    std::fclose(f);
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
}

// Waits (generously: the machine may be slow and busy) for a file to appear.
bool WaitForFile(const std::string& path) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
        if (velmora_test::FileExists(path)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

// True when this process has no child at all, not even a zombie.
bool NoChildLeft() {
    int status;
    return waitpid(-1, &status, WNOHANG) == -1 && errno == ECHILD;
}

// Reports what the program found about itself into "result" of its working folder (written
// whole, then renamed, so that the test never reads half of it).
const char* kReportScript = R"(#!/bin/sh
in=$(readlink /proc/$$/fd/0)
out=$(readlink /proc/$$/fd/1)
err=$(readlink /proc/$$/fd/2)
if [ -e /proc/$$/fd/$VELMORA_LEAK_FD ]; then leak=leaked; else leak=closed; fi
{
  pwd
  echo "$#"
  for a in "$@"; do echo "[$a]"; done
  echo "$in $out $err"
  echo "$leak"
  set -- $(cat /proc/$$/stat)
  echo "$4 $6"
} > result.tmp
mv result.tmp result
)";

}  // namespace

TEST(ShellExecuteTest, FailuresAreKnownWhenTheCallReturns) {
    TempDir dir;
    EXPECT_EQ(Launch("open", dir.file("missing")), 2);
    EXPECT_EQ(Launch(nullptr, "velmora-no-such-program-anywhere"), 2) << "PATH has none";

    std::string plain = dir.file("plain.txt");
    WriteScript(plain, "not a program\n", 0644);
    EXPECT_EQ(Launch("open", plain), 5);

    // Executable, but neither a binary nor a script with an interpreter line.
    std::string junk = dir.file("junk");
    WriteScript(junk, "\x01\x02\x03 garbage\n", 0755);
    EXPECT_EQ(Launch("open", junk), 11);  // ERROR_BAD_FORMAT

    std::string script = dir.file("ok.sh");
    WriteScript(script, "#!/bin/sh\ntouch ran\n");
    EXPECT_EQ(Launch("print", script), 31) << "no verb but open is known";
    intptr_t result = Launch("open", script, nullptr, dir.file("no-such-folder").c_str());
    EXPECT_GT(result, 0);
    EXPECT_LE(result, 32) << "a missing working folder is a failure";

    EXPECT_TRUE(NoChildLeft()) << "failed launches leave a child to reap";
}

TEST(ShellExecuteTest, ProgramRunsDetachedWithItsArgumentsFolderAndNothingOfOurs) {
    TempDir dir;
    std::string work = dir.file("work");
    ASSERT_EQ(mkdir(work.c_str(), 0755), 0);
    std::string program = dir.file("report.sh");
    WriteScript(program, kReportScript);

    // A descriptor that isn't close-on-exec must still not reach the program.
    int leak = fcntl(STDERR_FILENO, F_DUPFD, 50);
    ASSERT_GE(leak, 50);
    setenv("VELMORA_LEAK_FD", std::to_string(leak).c_str(), 1);

    intptr_t result = Launch("open", program, "one \"two words\" \\\"q\\\"  last", work.c_str());
    close(leak);
    ASSERT_GT(result, 32);
    // The program isn't our child: nothing to reap, now or later.
    EXPECT_TRUE(NoChildLeft());

    ASSERT_TRUE(WaitForFile(work + "/result")) << "the program didn't run";
    std::vector<std::string> lines = SplitLines(ReadFile(work + "/result"));
    ASSERT_EQ(lines.size(), 9u) << ReadFile(work + "/result");
    char resolved[PATH_MAX];
    ASSERT_NE(realpath(work.c_str(), resolved), nullptr);
    EXPECT_EQ(lines[0], resolved);
    EXPECT_EQ(lines[1], "4");
    EXPECT_EQ(lines[2], "[one]");
    EXPECT_EQ(lines[3], "[two words]");
    EXPECT_EQ(lines[4], "[\"q\"]");
    EXPECT_EQ(lines[5], "[last]");
    EXPECT_EQ(lines[6], "/dev/null /dev/null /dev/null");
    EXPECT_EQ(lines[7], "closed");
    // Its parent isn't us, and it has a session of its own.
    long parent = 0, session = 0;
    ASSERT_EQ(std::sscanf(lines[8].c_str(), "%ld %ld", &parent, &session), 2);
    EXPECT_NE(parent, long(getpid()));
    EXPECT_NE(session, long(getsid(0)));
    EXPECT_TRUE(NoChildLeft());
}

TEST(ShellExecuteTest, ProgramsAreFoundRelativeToTheCallerAndInPath) {
    TempDir dir;
    std::string bin = dir.file("bin");
    std::string work = dir.file("work");
    ASSERT_EQ(mkdir(bin.c_str(), 0755), 0);
    ASSERT_EQ(mkdir(work.c_str(), 0755), 0);
    WriteScript(bin + "/velmora-marker", "#!/bin/sh\ntouch \"$1\"\n");

    // A relative path is the caller's, not the working folder's.
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    ASSERT_GT(Launch("open", "bin/velmora-marker", "relative", work.c_str()), 32);
    EXPECT_TRUE(WaitForFile(work + "/relative"));

    // A bare name is looked for in PATH.
    std::string path = bin + ":" + (getenv("PATH") ? getenv("PATH") : "/usr/bin:/bin");
    setenv("PATH", path.c_str(), 1);
    ASSERT_GT(Launch("OPEN", "velmora-marker", "bare", work.c_str()), 32);
    EXPECT_TRUE(WaitForFile(work + "/bare"));
}

TEST(ShellExecuteTest, ConcurrentLaunchesGetTheirOwnResults) {
    TempDir dir;
    std::string program = dir.file("touch.sh");
    WriteScript(program, "#!/bin/sh\ntouch \"$1\"\n");
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 3; ++i) {
                std::string marker = dir.file("m" + std::to_string(t * 3 + i));
                wrong += Launch("open", program, marker.c_str()) <= 32;
                wrong += Launch("open", dir.file("missing")) != 2;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(wrong.load(), 0);
    for (int m = 0; m < 12; ++m) EXPECT_TRUE(WaitForFile(dir.file("m" + std::to_string(m))));
    EXPECT_TRUE(NoChildLeft());
}
