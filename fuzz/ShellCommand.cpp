// ShellCommand as hosts call it, up to four commands an input, with a local console (checking the grep gate), a remote
// one and a module (checking every delivery). Each input starts as a fresh process does and ends once every repeat it
// started is stopped as "repeat -stop" stops one and its thread has told the module: no thread outlives its input.
// Input: commands, each a byte (bit 0: no source, bit 1: no argument text) and three texts: source, word, arguments.
#include "FuzzSupport.h"

static velmora_fuzz::Console g_console(true, true), g_remote(false);
static velmora_fuzz::Module g_module;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    velmora_fuzz::StartService("ShellCommand", &g_console);
    velmora.EnableRemoteConsole(&g_remote), velmora.SubscribeMaitenance(&g_module);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    velmora.nLastCommand = -1, velmora.szLastArguments[0] = velmora.szLastSource[0] = '\0';
    velmora.SetReportLevel(Report_Types::REPORT_DEBUG);
    velmora_fuzz::Input input(pData, nSize);
    const long nStopsBefore = g_module.nStops.load();
    long nStarted = 0;
    for (int i = 0; i < 4 && !input.Done(); ++i) {
        const uint8_t flags = input.Byte();
        const std::string source = input.Text(), word = input.Text(), arguments = input.Text();
        const size_t nRepeats = velmora.mapCommandRepeats.size();  // only this thread changes the map
        velmora.ShellCommand(flags & 1 ? nullptr : source.c_str(), word.c_str(), flags & 2 ? nullptr : arguments.c_str());
        nStarted += velmora.mapCommandRepeats.size() > nRepeats;  // a call starts at most one repeat
    }
    for (auto& repeat : velmora.mapCommandRepeats) SetEvent(repeat.second);
    velmora.mapCommandRepeats.clear();
    for (int nWaits = 0; g_module.nStops.load() - nStopsBefore < nStarted; ++nWaits) {
        Check(nWaits < 10000, "a stopped repeat thread didn't end within 10 seconds");
        usleep(1000);
    }
    velmora_fuzz::KeepLogsSmall();
    return 0;
}
