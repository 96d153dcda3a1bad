// Texts one character past their room, where no other suite takes them there: the
// application name, the folder of the status file, the source of a repeat and the options
// of the word "repeat". Under AddressSanitizer a write past any of these buffers fails the
// test.
#include "DispatchTestSupport.h"
#include "TestSupport.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>

namespace {

const char kStatusPathProbe[] = "VELMORA_STATUS_PATH_PROBE";

// Started as the status path probe, this program prints the status file's path and ends
// before any test runs. The status file lies beside the executable, so the test below
// starts a link to this program from folders of chosen lengths.
const bool g_bStatusPathProbe = [] {
    if (getenv(kStatusPathProbe) == nullptr) return false;
    velmora.EnableStatusMonitor();
    printf("[%s]\n", velmora.szStatusFile);
    fflush(stdout);
    _exit(0);
}();

std::string ProgramPath() { return std::filesystem::read_symlink("/proc/self/exe").string(); }

// The status path that this program reports when it runs from a folder whose path, with
// its closing slash, is nFolder characters long.
std::string StatusPathFrom(const std::string& base, size_t nFolder) {
    std::string folder = base;
    std::filesystem::create_directories(folder);
    while (folder.size() + 1 < nFolder) {
        size_t nSegment = std::min<size_t>(200, nFolder - folder.size() - 2);
        folder += "/" + std::string(nSegment, 'd');
        std::filesystem::create_directory(folder);
    }
    const std::string program = folder + "/probe";
    std::error_code error;
    std::filesystem::create_hard_link(ProgramPath(), program, error);
    if (error) std::filesystem::copy_file(ProgramPath(), program, error);
    if (error) return "(no copy: " + error.message() + ")";
    // The libraries stay where the build put them, beside the original program.
    const std::string libraries =
        std::filesystem::path(ProgramPath()).parent_path().parent_path().string() + "/lib";
    const std::string command = std::string(kStatusPathProbe) + "=1 LD_LIBRARY_PATH='" +
                                libraries + "' '" + program + "'";
    std::string output;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        char buffer[1024];
        while (fgets(buffer, sizeof(buffer), pipe)) output += buffer;
        pclose(pipe);
    }
    return output;
}

}  // namespace

using velmora_shell_test::ShellFixture;
using velmora_shell_test::WaitFor;

TEST(TextLimits, AnApplicationNameOf64CharactersIsCutTo63Everywhere) {
    velmora_test::TempDir objects, logs;
    setenv("VELMORA_OBJECT_FOLDER", objects.path().c_str(), 1);
    setenv("PELTRIX_LOG_FOLDER", logs.path().c_str(), 1);
    // Unique within 63 characters, so that runs side by side don't share the machine-wide name.
    std::string name = velmora_test::UniqueName("App");
    name.resize(64, 'x');
    const std::string cut = name.substr(0, 63);

    ASSERT_TRUE(velmora.Init(name.c_str(), 1));
    EXPECT_EQ(std::string(velmora.GetAppName()), cut);
    // The machine-wide guard carries the cut name, as the logs do.
    HANDLE hGuard = OpenMutexA(MUTEX_ALL_ACCESS, FALSE, ("Global\\" + cut + "_MUTEX").c_str());
    EXPECT_NE(hGuard, nullptr);
    if (hGuard) CloseHandle(hGuard);
    ASSERT_NE(globalDefaultLog, nullptr);
    EXPECT_EQ(std::string(globalDefaultLog->szAppName), cut);
    velmora.Shutdown();
}

// The status file's path has room for a folder of 236 characters with its closing slash;
// from a longer folder the status file stays off.
TEST(TextLimits, TheStatusFileFolderHoldsUpTo236Characters) {
    velmora_test::TempDir base;
    if (base.path().size() + 4 > 236) GTEST_SKIP() << "the test folder is too deep already";
    std::string fits = StatusPathFrom(base.path() + "/a", 236);
    EXPECT_EQ(fits.size(), 1 + 236 + 23 + 2) << fits;
    EXPECT_NE(fits.find("/ServerRuntimeStatus.ini]"), std::string::npos) << fits;
    EXPECT_EQ(StatusPathFrom(base.path() + "/b", 237), "[]\n");
}

using TextLimitsShell = ShellFixture;

// A source counts up to 127 characters: a repeat started from a source of 128 runs under
// the cut source, and one of 128 that differs only in its last character owns it too.
TEST_F(TextLimitsShell, ARepeatSourceIsSignificantTo127Characters) {
    Subscribe();
    const std::string source = std::string(127, 's') + "1";
    const std::string twin = std::string(127, 's') + "2";
    velmora.ShellCommand(source.c_str(), "snapshot", nullptr);
    velmora.ShellCommand(source.c_str(), "repeat", "-i=50");
    const std::string key = source.substr(0, 127) + "$$1";
    ASSERT_EQ(velmora.mapCommandRepeats.count(key), 1u);
    ASSERT_TRUE(WaitFor([&] { return module.Deliveries().size() >= 2; }));
    EXPECT_EQ(module.Deliveries().back().source, source.substr(0, 127));

    velmora.ShellCommand(twin.c_str(), "repeat", "-stop=snapshot");
    EXPECT_TRUE(velmora.mapCommandRepeats.empty());
    ASSERT_TRUE(WaitFor([&] { return module.Stops().size() == 1; }));
    EXPECT_EQ(module.Stops()[0], source.substr(0, 127) + "#1");
}

// The option and value buffers of "repeat" hold 255 characters: a longer option or value
// is cut and skipped, and the options behind it are still read.
TEST_F(TextLimitsShell, RepeatOptionsPastTheirRoomAreCutAndTheRestIsRead) {
    Subscribe();
    velmora.ShellCommand(nullptr, "snapshot", nullptr);
    const std::string options =
        "-" + std::string(256, 'o') + "=" + std::string(256, 'v') + " -i=50";
    velmora.ShellCommand(nullptr, "repeat", options.c_str());
    EXPECT_EQ(velmora.mapCommandRepeats.count("localhost$$1"), 1u);

    // A stop whose command word is 256 characters long names no command: nothing stops.
    const std::string longStop = "-stop=snapshot" + std::string(248, 'z');
    velmora.ShellCommand(nullptr, "repeat", longStop.c_str());
    EXPECT_EQ(velmora.mapCommandRepeats.count("localhost$$1"), 1u);
}
