// ShellCommand as hosts call it: any source or none, any word, any argument text or none,
// up to four commands an input, so that the word "repeat" finds a command before it. A
// local console, a remote console and a module are plugged in, so the echo, the grep gate,
// the dispatch, "runtime" and "config" all run; the module checks every delivery and the
// console the grep gate.
//
// Repeats: a command may start repeat threads. When an input ends, every repeat still in
// the map is stopped as "repeat -stop" stops one (its event set, its entry erased), and the
// input doesn't end before every repeat thread it started has told the module that it
// stopped. So no thread outlives its input, and none piles up across inputs.
//
// Every input starts from the state of a fresh process: no last command, full report level.
//
// Input: up to four commands, each a byte (bit 0: no source, bit 1: no argument text) and
// three texts: source, word, arguments.
#include "FuzzSupport.h"

using velmora_fuzz::Check;

namespace {
velmora_fuzz::Console g_console;
velmora_fuzz::RemoteConsole g_remote;
velmora_fuzz::Module g_module;
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    velmora_fuzz::StartService("ShellCommand");
    g_console.bGrepGate = true;
    velmora.SetReportConsole(&g_console);
    velmora.EnableRemoteConsole(&g_remote);
    velmora.SubscribeMaitenance(&g_module);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    velmora.nLastCommand = -1;
    velmora.szLastArguments[0] = '\0';
    velmora.szLastSource[0] = '\0';
    velmora.SetReportLevel(Report_Types::REPORT_DEBUG);

    velmora_fuzz::Input input(pData, nSize);
    const long nStopsBefore = g_module.nStops.load();
    long nStarted = 0;
    for (int i = 0; i < 4 && !input.Done(); ++i) {
        const uint8_t flags = input.Byte();
        const std::string source = input.Text(), word = input.Text(), arguments = input.Text();
        // Only this thread changes the map; a call starts at most one repeat.
        const size_t nRepeats = velmora.mapCommandRepeats.size();
        velmora.ShellCommand(flags & 1 ? nullptr : source.c_str(), word.c_str(),
                             flags & 2 ? nullptr : arguments.c_str());
        if (velmora.mapCommandRepeats.size() > nRepeats) ++nStarted;
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
