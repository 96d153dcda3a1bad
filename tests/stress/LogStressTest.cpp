// Logs made and ended on many threads at once: private logs from GetLogClient (made under
// the log client lock) and profile logs attached to the default log (made without it).
// Every construction rebuilds the process's log folder; every log must still open in that
// one folder and keep its records.
#include "tests/stress/StressSupport.h"

#include <string>

namespace {

using velmora_stress::RunThreads;
using velmora_stress::Scaled;

TEST(StressLogs, LogsMadeOnManyThreadsOpenInTheOneFolderAndKeepTheirRecords) {
    velmora_stress::Watchdog watchdog("StressLogs");
    constexpr int kPrivateThreads = 4, kProfileThreads = 2;  // two profile slots
    const int nRounds = Scaled(40);

    const std::string folder = velmora_stress::g_pServiceEnvironment->DirectLogFolder();
    const std::string app = velmora.GetAppName();

    std::atomic<int> nRefusedProfiles{0};
    RunThreads(kPrivateThreads + kProfileThreads, [&](int t) {
        for (int i = 0; i < nRounds; ++i) {
            const std::string name = "T" + std::to_string(t) + "_" + std::to_string(i);
            if (t >= kPrivateThreads) {
                const DWORD dwThread = GetCurrentThreadId();
                if (velmora.ProfilePerformance(("Profile" + name).c_str(), dwThread) == -1) {
                    ++nRefusedProfiles;
                    continue;
                }
                velmora.StopProfiling(int(dwThread));
                continue;
            }
            CQuorelLog* pLog = velmora.GetLogClient(name.c_str(), true, true, false);
            ASSERT_NE(pLog, nullptr) << name;
            char szPath[MAX_PATH] = "";
            pLog->GetFullLogPath(szPath, sizeof(szPath));
            EXPECT_EQ(std::string(szPath), folder + app + "_" + name + ".log");
            pLog->Log("REC", name.c_str());
            pLog->Close();
        }
    });

    EXPECT_EQ(nRefusedProfiles.load(), 0);
    for (int t = 0; t < kPrivateThreads; ++t)
        for (int i = 0; i < nRounds; ++i) {
            const std::string name = "T" + std::to_string(t) + "_" + std::to_string(i);
            const std::string text = velmora_test::ReadFile(folder + app + "_" + name + ".log");
            EXPECT_NE(text.find(";REC;"), std::string::npos) << name << ": " << text;
            EXPECT_NE(text.find(name + ";\r\n"), std::string::npos) << name << ": " << text;
        }
    for (int t = kPrivateThreads; t < kPrivateThreads + kProfileThreads; ++t)
        for (int i = 0; i < nRounds; ++i)
            EXPECT_TRUE(velmora_test::FileExists(folder + app + "_ProfileT" + std::to_string(t) +
                                                 "_" + std::to_string(i) + ".log"))
                << t << "." << i;
}

}  // namespace
