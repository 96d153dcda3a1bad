// The status file step of the report pipeline: a status report (type 2) through
// LogFortmatedReport, with a console plugged in and a status file set, writes the pairs of
// its text into the file. The text is arbitrary. What the step wrote is read back: a line
// holds at most a key and a value of 255 characters each, a section at most 255. The file
// is removed after every input.
//
// Input: the report text.
#include "FuzzSupport.h"

#include <fstream>

using velmora_fuzz::Check;

namespace {
velmora_fuzz::Console g_console;
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    velmora_fuzz::StartService("StatusFileLines");
    velmora.SetReportConsole(&g_console);
    // Where EnableStatusMonitor would put it beside the executable, but in this process's
    // own folder.
    std::string path = velmora_fuzz::ProcessFolder() + "/ServerRuntimeStatus.ini";
    Check(path.size() < sizeof(velmora.szStatusFile), "the status file's path is too long");
    memcpy(velmora.szStatusFile, path.c_str(), path.size() + 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    velmora_fuzz::Input input(pData, nSize);
    const std::string text = input.Text();
    velmora.LogFortmatedReport(Report_Types::REPORT_RUNTIME_STATE, "%s", text.c_str());

    std::ifstream file(velmora.szStatusFile, std::ios::binary);
    for (std::string line; std::getline(file, line);)
        Check(line.size() <= 255 + 1 + 255 + 1, "a status line longer than key and value allow");
    file.close();
    std::remove(velmora.szStatusFile);
    velmora_fuzz::KeepLogsSmall();
    return 0;
}

// Every pair replaces the status file whole, with an fsync, which costs milliseconds on a
// disk and would hold the fuzzer to a few dozen inputs a second. What is fuzzed here is the
// step and the .ini update, not the disk: in this process fsync returns at once. (The
// executable's definition stands in for the C library's in the libraries as well.)
extern "C" int fsync(int) { return 0; }
