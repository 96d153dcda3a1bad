// What the fuzz targets share: reading a fuzzer's input as bytes, numbers and texts, the
// set-up of a process around the one `velmora`, and the pieces a host plugs in, each of
// which checks what the library hands it.
#pragma once

#include "core/RelaxedAccess.h"
#include "include/Velmora.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include <unistd.h>

namespace velmora_fuzz {

// A broken promise of the library: said on stderr and ended as a crash, which libFuzzer
// keeps as an artifact.
inline void Check(bool bHolds, const char* szWhat) {
    if (bHolds) return;
    fprintf(stderr, "velmora fuzz check failed: %s\n", szWhat);
    abort();
}

// A fuzzer's input, read front to back: single bytes, 32-bit numbers, and texts that end at
// a NUL byte (the one byte no C string can hold) or at the end of the input. Past the end
// everything reads as 0 or empty.
class Input {
public:
    Input(const uint8_t* pData, size_t nSize)
        : m_p(reinterpret_cast<const char*>(pData)), m_nLeft(nSize) {}

    bool Done() const { return m_nLeft == 0; }
    uint8_t Byte() {
        if (m_nLeft == 0) return 0;
        --m_nLeft;
        return uint8_t(*m_p++);
    }
    int32_t Int() {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i) v = (v << 8) | Byte();
        return int32_t(v);
    }
    std::string Text() {
        if (m_nLeft == 0) return {};
        const char* pEnd = static_cast<const char*>(memchr(m_p, '\0', m_nLeft));
        size_t nLength = pEnd ? size_t(pEnd - m_p) : m_nLeft;
        std::string text(m_p, nLength);
        size_t nTaken = pEnd ? nLength + 1 : nLength;
        m_p += nTaken;
        m_nLeft -= nTaken;
        return text;
    }

private:
    const char* m_p;
    size_t m_nLeft;
};

// ---- The process --------------------------------------------------------------------------

inline std::string& ProcessFolder() {
    static std::string folder;
    return folder;
}

inline void RemoveProcessFolder() {
    std::error_code error;
    std::filesystem::remove_all(ProcessFolder(), error);
}

// Makes this process's folder, <executable folder>/tmp/<target>-<pid>, in the build tree,
// and sends the log client (log/) and the machine-wide names (objects/) there. The folder
// goes again when the process ends normally; scripts/fuzz clears what a crash left.
inline void MakeProcessFolder(const char* szTarget) {
    namespace fs = std::filesystem;
    fs::path folder = fs::read_symlink("/proc/self/exe").parent_path() / "tmp" /
                      (std::string(szTarget) + "-" + std::to_string(getpid()));
    fs::create_directories(folder / "log");
    fs::create_directories(folder / "objects");
    setenv("PELTRIX_LOG_FOLDER", (folder / "log").c_str(), 1);
    setenv("VELMORA_OBJECT_FOLDER", (folder / "objects").c_str(), 1);
    ProcessFolder() = folder.string();
    atexit(RemoveProcessFolder);
}

// Starts `velmora` as a host does, without the logger process, under a name of this
// process's own, with every report let through to the console. Init succeeds once in a
// process, so this belongs in LLVMFuzzerInitialize.
inline void StartService(const char* szTarget) {
    MakeProcessFolder(szTarget);
    std::string name = std::string("Fuzz") + szTarget + std::to_string(getpid());
    Check(velmora.Init(name.c_str(), 1), "Init failed");
    velmora.SetReportLevel(Report_Types::REPORT_DEBUG);
}

// Every report of every input reaches the default log. Now and then the log files are
// emptied so that a long run doesn't fill the disk; the client appends, so it goes on at
// the new end.
inline void KeepLogsSmall() {
    static unsigned nCalls = 0;
    if (++nCalls % 1024 != 0) return;
    std::error_code error;
    for (const auto& entry :
         std::filesystem::directory_iterator(ProcessFolder() + "/log", error)) {
        if (entry.is_regular_file(error) && entry.file_size(error) > (8u << 20))
            std::filesystem::resize_file(entry.path(), 0, error);
    }
}

// ---- What a host plugs in -----------------------------------------------------------------

// Whether a console block is what the library promises: 768 bytes from GlobalAlloc with its
// text ended inside them. Looking at all 768 bytes lets AddressSanitizer see a shorter block.
inline bool IsWholeBlock(Report_Types::DEF nType, const char* szBlock) {
    return nType >= Report_Types::REPORT_EXCEPTION && nType <= Report_Types::REPORT_DEBUG &&
           szBlock != nullptr && memchr(szBlock, '\0', 768) != nullptr;
}

// The local console: it takes each block, checks it and frees it, as a console owns it.
// With bGrepGate it also checks that, while a shell command's grep text is set, every
// report but shell output that gets through holds that text. Commands and repeat passes
// run one at a time, and the console is called within them, so the text can't change
// between the gate and here.
class Console : public CReportConsoleInf {
public:
    void LogReport(Report_Types::DEF nType, char* szBlock) override { Take(nType, szBlock); }
    void LogReportInColor(Report_Types::DEF nType, DWORD, char* szBlock) override {
        Take(nType, szBlock);
    }

    bool bGrepGate = false;

private:
    void Take(Report_Types::DEF nType, char* szBlock) {
        Check(IsWholeBlock(nType, szBlock), "a console block isn't a whole terminated block");
        if (bGrepGate && nType != Report_Types::REPORT_FS_OUTPUT) {
            char szGrep[sizeof(velmora.szGrepText)];
            velmora_core::RelaxedLoadText(velmora.szGrepText, szGrep, sizeof(szGrep));
            Check(szGrep[0] == '\0' || strstr(szBlock, szGrep) != nullptr,
                  "a report without the grep text reached the console");
        }
        GlobalFree(szBlock);
    }
};

// The remote console of every source: it only looks at a block, which isn't its own.
class RemoteConsole : public CReportConsoleInf, public CRemoteConsoleInf {
public:
    CReportConsoleInf* GetConsole(const char*) override { return this; }
    void LogReport(Report_Types::DEF nType, char* szBlock) override { Look(nType, szBlock); }
    void LogReportInColor(Report_Types::DEF nType, DWORD, char* szBlock) override {
        Look(nType, szBlock);
    }

private:
    static void Look(Report_Types::DEF nType, const char* szBlock) {
        Check(IsWholeBlock(nType, szBlock), "a remote block isn't a whole terminated block");
    }
};

// Goes through a text's options with GetCMDOption as a module does, with buffers that hold
// the whole text, which is what the form without sizes asks of its callers.
inline void ReadOptions(const char* szText) {
    size_t nRoom = strlen(szText) + 1;
    std::vector<char> option(nRoom, '\0'), value(nRoom, '\0');
    const char* p = szText;
    for (;;) {
        const char* pNext = velmora.GetCMDOption(p, option.data(), value.data());
        Check(pNext == nullptr || (pNext > p && pNext < szText + nRoom),
              "GetCMDOption's result doesn't move on within the text");
        if (option[0] == '\0' || pNext == nullptr) break;
        p = pNext;
    }
}

// A module of the server: it checks what the shell and the reload deliver, reads the
// options as modules do, and answers through the shell output and the reports, so that the
// grep gate and the consoles see its lines. Repeat passes call it from their own threads.
class Module : public CMaintenanceInf {
public:
    int GetSubscribeOrder() override { return 1; }

    void ShellCommand(const char* szSource, int nCommand, bool,
                      const char* szArguments) override {
        Check(szSource != nullptr && szArguments != nullptr, "a null source or argument text");
        Check(strlen(szArguments) < 512, "arguments of 512 characters or more delivered");
        Check(nCommand >= 1 && nCommand <= 11 && nCommand != 6 && nCommand != 7,
              "a command id the subscribers never get");
        Check(velmora_core::RelaxedLoad(velmora.bInShellCommand) &&
                  velmora_core::RelaxedLoad(velmora.dwShellThreadId) == GetCurrentThreadId(),
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
    void PrintReloadableSettings() override {
        velmora.FSLogReport(nullptr, false, "PROBE_LEVEL-the probe's setting\n");
    }
    void PrintRuntimeStatus(const char* szWhat) override {
        velmora.LogFortmatedReport(Report_Types::REPORT_RUNTIME_STATE,
                                   "Probe Status[What:%s]\n", szWhat ? szWhat : "-");
    }

    std::atomic<long> nStops{0};  // repeats that ended
};

}  // namespace velmora_fuzz
