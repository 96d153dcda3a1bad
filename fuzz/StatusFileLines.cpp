// A status report (type 2) of arbitrary text, with a console and a status file set, writes the pairs of its text into
// the file: a line holds at most a key and a value of 255 characters each. Input: the report text.
#include "FuzzSupport.h"

#include <fstream>

static velmora_fuzz::Console g_console(true);

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    velmora_fuzz::StartService("StatusFileLines", &g_console);
    // Where EnableStatusMonitor puts it beside the executable, but in this process's folder.
    std::string path = velmora_fuzz::ProcessFolder() + "/ServerRuntimeStatus.ini";
    Check(path.size() < sizeof(velmora.szStatusFile), "the status file's path is too long");
    memcpy(velmora.szStatusFile, path.c_str(), path.size() + 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    velmora_fuzz::Input input(pData, nSize);
    const std::string text = input.Text();
    velmora.LogFortmatedReport(Report_Types::REPORT_RUNTIME_STATE, "%s", text.c_str());
    {
        std::ifstream file(velmora.szStatusFile, std::ios::binary);
        for (std::string line; std::getline(file, line);)
            Check(line.size() <= 255 + 1 + 255 + 1, "a status line longer than key and value allow");
    }
    std::remove(velmora.szStatusFile);
    velmora_fuzz::KeepLogsSmall();
    return 0;
}

// Every pair replaces the status file with an fsync, which would hold the fuzzer to a few dozen
// inputs a second; the step is fuzzed here, not the disk. (This definition stands in for the C
// library's in the libraries too.)
extern "C" int fsync(int) { return 0; }
