// What the fuzz targets share: reading an input, the process around `velmora`, and host pieces that check what they get.
#pragma once

#include "core/RelaxedAccess.h"
#include "include/Velmora.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

#include <unistd.h>

namespace velmora_fuzz {

// A broken promise of the library: said on stderr and ended as a crash, kept by libFuzzer.
inline void Check(bool bHolds, const char* szWhat) {
    if (!bHolds) fprintf(stderr, "velmora fuzz check failed: %s\n", szWhat), abort();
}

// An input read front to back: bytes, big-endian 32-bit numbers, texts ending at a NUL byte or the end; then 0s and "".
class Input {
public:
    Input(const uint8_t* pData, size_t nSize) : m_p(reinterpret_cast<const char*>(pData)), m_nLeft(nSize) {}
    bool Done() const { return m_nLeft == 0; }
    uint8_t Byte() { return m_nLeft == 0 ? 0 : (--m_nLeft, uint8_t(*m_p++)); }
    int32_t Int() {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i) v = (v << 8) | Byte();  // in order: the operands of one expression are unsequenced
        return int32_t(v);
    }
    std::string Text() {
        const char* pEnd = m_nLeft ? static_cast<const char*>(memchr(m_p, '\0', m_nLeft)) : nullptr;
        std::string text(m_p, pEnd ? size_t(pEnd - m_p) : m_nLeft);
        const size_t nTaken = std::min(m_nLeft, text.size() + 1);
        m_p += nTaken, m_nLeft -= nTaken;
        return text;
    }

private:
    const char* m_p;
    size_t m_nLeft;
};

// <executable folder>/tmp/<target>-<pid>, with log files (log/) and machine-wide names (objects/); removed at a normal
// exit (scripts/fuzz clears what a crash left).
inline std::string& ProcessFolder() {
    static std::string folder;
    return folder;
}

// Starts `velmora` as a host does, under a name of its own, with every report let through to pConsole (in
// LLVMFuzzerInitialize: Init succeeds once a process).
inline void StartService(const char* szTarget, CReportConsoleInf* pConsole) {
    namespace fs = std::filesystem;
    const fs::path folder = fs::read_symlink("/proc/self/exe").parent_path() / "tmp" / (std::string(szTarget) + "-" + std::to_string(getpid()));
    fs::create_directories(folder / "log"), fs::create_directories(folder / "objects");
    setenv("PELTRIX_LOG_FOLDER", (folder / "log").c_str(), 1), setenv("VELMORA_OBJECT_FOLDER", (folder / "objects").c_str(), 1);
    ProcessFolder() = folder.string();
    atexit([] { std::error_code error; fs::remove_all(ProcessFolder(), error); });
    Check(velmora.Init(("Fuzz" + std::string(szTarget) + std::to_string(getpid())).c_str(), 1), "Init failed");
    velmora.SetReportLevel(Report_Types::REPORT_DEBUG), velmora.SetReportConsole(pConsole);
}

// Every report reaches the default log: now and then big log files are emptied (the client goes on at the new end).
inline void KeepLogsSmall() {
    static unsigned nCalls = 0;
    if (++nCalls % 1024 != 0) return;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(ProcessFolder() + "/log", error))
        if (entry.is_regular_file(error) && entry.file_size(error) > (8u << 20)) std::filesystem::resize_file(entry.path(), 0, error);
}

// A console that checks each block: of a report type, 768 bytes with the text ended inside (all looked at, for ASan).
// The local one frees it, as its owner, and with bGrepGate checks that while a command's grep text is set every report
// but shell output that gets through holds it (commands and passes run one at a time). A remote one only looks.
class Console : public CReportConsoleInf, public CRemoteConsoleInf {
public:
    explicit Console(bool bLocal, bool bGrepGate = false) : m_bLocal(bLocal), m_bGrepGate(bGrepGate) {}
    CReportConsoleInf* GetConsole(const char*) override { return this; }
    void LogReport(Report_Types::DEF nType, char* szBlock) override { LogReportInColor(nType, 0, szBlock); }
    void LogReportInColor(Report_Types::DEF nType, DWORD, char* szBlock) override {
        Check(nType >= Report_Types::REPORT_EXCEPTION && nType <= Report_Types::REPORT_DEBUG && szBlock != nullptr && memchr(szBlock, '\0', 768),
              "a console block isn't a whole terminated block");
        char szGrep[sizeof(velmora.szGrepText)];
        velmora_core::RelaxedLoadText(velmora.szGrepText, szGrep, sizeof(szGrep));
        Check(!m_bGrepGate || nType == Report_Types::REPORT_FS_OUTPUT || !szGrep[0] || strstr(szBlock, szGrep), "a report without the grep text reached the console");
        if (m_bLocal) GlobalFree(szBlock);
    }

private:
    const bool m_bLocal, m_bGrepGate;
};

// Walks a text's options with GetCMDOption as a module does, with buffers that hold the whole text.
inline void ReadOptions(const char* szText) {
    const size_t nRoom = strlen(szText) + 1;
    std::vector<char> option(nRoom, '\0'), value(nRoom, '\0');
    for (const char* p = szText;;) {
        const char* pNext = velmora.GetCMDOption(p, option.data(), value.data());
        Check(pNext == nullptr || (pNext > p && pNext < szText + nRoom), "GetCMDOption's result doesn't move on within the text");
        if (option[0] == '\0' || pNext == nullptr) break;
        p = pNext;
    }
}

// A module: checks what the shell and the reload deliver, reads the options, and answers through shell output and
// reports, which the grep gate and the consoles see. Repeat passes call it from their own threads.
class Module : public CMaintenanceInf {
public:
    int GetSubscribeOrder() override { return 1; }
    void ShellCommand(const char* szSource, int nCommand, bool, const char* szArguments) override {
        Check(szSource != nullptr && szArguments != nullptr, "a null source or argument text");
        Check(strlen(szArguments) < 512, "arguments of 512 characters or more delivered");
        Check(nCommand >= 1 && nCommand <= 11 && nCommand != 6 && nCommand != 7, "a command id the subscribers never get");
        Check(velmora_core::RelaxedLoad(velmora.bInShellCommand) && velmora_core::RelaxedLoad(velmora.dwShellThreadId) == GetCurrentThreadId(),
              "a delivery outside its command's gates");
        ReadOptions(szArguments);
        velmora.FSLogFortmatedReport(szSource, false, "%d %s\n", nCommand, szArguments);
        velmora.LogReport(Report_Types::REPORT_DEBUG, szArguments);
    }
    void StopCMDRepeat(const char* szSource, int nCommand) override {
        Check(szSource != nullptr && nCommand >= 1 && nCommand <= 11, "a stop of no command");
        nStops.fetch_add(1);
    }
    void UpdateConfiguration(int nKind, const char* szTail) override {
        Check(nKind >= 1 && nKind <= 5, "a reload kind that doesn't exist");
        Check(szTail != nullptr && strlen(szTail) < 512, "a reload tail longer than its text");
        ReadOptions(szTail);
    }
    void PrintReloadableSettings() override { velmora.FSLogReport(nullptr, false, "PROBE_LEVEL-the probe's setting\n"); }
    void PrintRuntimeStatus(const char* szWhat) override { velmora.LogFortmatedReport(Report_Types::REPORT_RUNTIME_STATE, "Probe Status[What:%s]\n", szWhat ? szWhat : "-"); }
    std::atomic<long> nStops{0};  // repeats that ended
};

}  // namespace velmora_fuzz

using velmora_fuzz::Check;  // every target's word for a broken promise
