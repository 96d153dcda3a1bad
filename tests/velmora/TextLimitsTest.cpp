// Texts at and past their room that no other suite takes there: the status file's folder, the source and options of repeats.
#include "DispatchTestSupport.h"

#include <cstdio>
#include <filesystem>
#include <unistd.h>

namespace fs = std::filesystem;
using velmora_shell_test::WaitFor;

// Started with VELMORA_STATUS_PATH_PROBE set, this program prints the status file's path and ends before any test.
static const bool g_bStatusPathProbe = getenv("VELMORA_STATUS_PATH_PROBE") != nullptr &&
                                       (velmora.EnableStatusMonitor(), printf("[%s]\n", velmora.szStatusFile), fflush(stdout), _exit(0), true);

// What a link to this program prints as the probe from a folder of nFolder characters with its '/'.
static std::string StatusPathFrom(std::string folder, size_t nFolder) {
    for (fs::create_directories(folder); folder.size() + 1 < nFolder; fs::create_directory(folder))
        folder += "/" + std::string(std::min<size_t>(200, nFolder - folder.size() - 2), 'd');
    const fs::path program = fs::read_symlink("/proc/self/exe");
    std::error_code error;
    if (fs::create_hard_link(program, folder + "/probe", error); error) fs::copy_file(program, folder + "/probe", error);
    std::string output, command = "VELMORA_STATUS_PATH_PROBE=1 LD_LIBRARY_PATH='" + program.parent_path().parent_path().string() + "/lib' '" + folder + "/probe'";
    FILE* pipe = popen(command.c_str(), "r");
    for (char buffer[1024]; pipe != nullptr && fgets(buffer, sizeof(buffer), pipe) != nullptr;) output += buffer;
    if (pipe != nullptr) pclose(pipe);
    return output;
}

// The status file's path has room for a folder of 236 characters; from a longer one the status file stays off.
TEST(TextLimits, TheStatusFileFolderHoldsUpTo236Characters) {
    velmora_test::TempDir base;
    if (base.path().size() + 4 > 236) GTEST_SKIP() << "the test folder is too deep already";
    std::string fits = StatusPathFrom(base.path() + "/a", 236);
    EXPECT_TRUE(fits.size() == 1 + 236 + 23 + 2 && fits.find("/ServerRuntimeStatus.ini]") != std::string::npos) << fits;
    EXPECT_EQ(StatusPathFrom(base.path() + "/b", 237), "[]\n");
}

using TextLimitsShell = velmora_shell_test::ShellFixture;

// A source counts to 127 characters: one of 128 repeats under the cut source, owned by one differing only past it.
TEST_F(TextLimitsShell, ARepeatSourceIsSignificantTo127Characters) {
    Subscribe();
    const std::string source = std::string(127, 's') + "1", cut = source.substr(0, 127);
    velmora.ShellCommand(source.c_str(), "snapshot", nullptr);
    velmora.ShellCommand(source.c_str(), "repeat", "-i=50");
    ASSERT_EQ(velmora.mapCommandRepeats.count(cut + "$$1"), 1u);
    ASSERT_TRUE(WaitFor([&] { return module.Deliveries().size() >= 2; }));
    EXPECT_EQ(module.Deliveries().back().source, cut);
    velmora.ShellCommand((cut + "2").c_str(), "repeat", "-stop=snapshot");
    EXPECT_TRUE(velmora.mapCommandRepeats.empty());
    ASSERT_TRUE(WaitFor([&] { return module.Stops().size() == 1; }));
    EXPECT_EQ(module.Stops()[0], cut + "#1");
}

// An option or value of "repeat" past 255 characters is skipped and the rest read; a command word of 256 stops nothing.
TEST_F(TextLimitsShell, RepeatOptionsPastTheirRoomAreCutAndTheRestIsRead) {
    Subscribe();
    velmora.ShellCommand(nullptr, "snapshot", nullptr);
    velmora.ShellCommand(nullptr, "repeat", ("-" + std::string(256, 'o') + "=" + std::string(256, 'v') + " -i=50").c_str());
    EXPECT_EQ(velmora.mapCommandRepeats.count("localhost$$1"), 1u);
    velmora.ShellCommand(nullptr, "repeat", ("-stop=snapshot" + std::string(248, 'z')).c_str());
    EXPECT_EQ(velmora.mapCommandRepeats.count("localhost$$1"), 1u);
}
