// A host program: a small trading server process in outline. It gives the service layer a
// directory of settings, starts it, plugs in a console that prints to standard output and an
// alert system, subscribes a sample order engine module, and runs every line of standard
// input as a shell command until the input ends.
//
//   velmora-host [--name APP] [--settings FILE] [--logger]
//
// Lines of input:
//   <word> [arguments]     a shell command (snapshot, counter, depth, runtime, config, ...)
//   alert <text>           raises an alert (delivered within a second, repeats suppressed)
//   sleep <milliseconds>   waits, so that repeats can run in a scripted session
//   quit                   ends the input early
#include "include/Velmora.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>
#include <string>

namespace {

std::mutex g_output;  // one writer at a time on standard output

// Settings come from an .ini file: section [general] for kind 1, [reload] for kind 2.
class IniDirectory : public CDirectoryServiceInf {
public:
    explicit IniDirectory(std::string path) : m_path(std::move(path)) {}
    const char* GetLogFolderSuffix() override { return "host"; }
    const char* GetLogFolderPrefix() override { return "velmora"; }
    void Reserved5() override {}
    void Reserved6() override {}
    void Reserved7() override {}
    void Reserved9() override {}
    void GetIntSetting(int nKind, const char* szKey, int* pnValue) override {
        char szValue[64];
        if (Read(nKind, szKey, szValue, sizeof(szValue))) *pnValue = atoi(szValue);
    }
    void GetStringSetting(int nKind, const char* szKey, char* szValue, int nSize) override {
        char szRead[1024];
        if (nSize > 0 && Read(nKind, szKey, szRead, sizeof(szRead)))
            snprintf(szValue, size_t(nSize), "%s", szRead);
    }

private:
    bool Read(int nKind, const char* szKey, char* szValue, DWORD nSize) {
        if (m_path.empty()) return false;
        const char* szSection = nKind == 1 ? "general" : "reload";
        GetPrivateProfileStringA(szSection, szKey, "\x01", szValue, nSize, m_path.c_str());
        return strcmp(szValue, "\x01") != 0;
    }
    std::string m_path;
};

// The local console: every block is printed and then freed, as a console owns it.
class StdoutConsole : public CReportConsoleInf {
public:
    void LogReport(Report_Types::DEF, char* szBlock) override { Print(szBlock); }
    void LogReportInColor(Report_Types::DEF, DWORD, char* szBlock) override { Print(szBlock); }

private:
    static void Print(char* szBlock) {
        {
            std::lock_guard<std::mutex> lock(g_output);
            size_t n = strlen(szBlock);
            fputs(szBlock, stdout);
            if (n == 0 || szBlock[n - 1] != '\n') fputc('\n', stdout);
            fflush(stdout);
        }
        GlobalFree(szBlock);
    }
};

// The alert system of the sample: prints what reaches it.
class PrintingAlertSystem : public CAlertSystemInf {
public:
    void AlertMsg(int nLevel, int nEvent, const char* szSource, const char*, const char* szText) override {
        std::lock_guard<std::mutex> lock(g_output);
        printf("** alert system: level %d, %s, from %s: %s", nLevel,
               QUOREL_ALERT_SYSTEM::GetAlertEventDescription(QUOREL_ALERT_SYSTEM::ALERT_EVENT(nEvent)),
               szSource, szText);
        size_t n = strlen(szText);
        if (n == 0 || szText[n - 1] != '\n') putchar('\n');
        fflush(stdout);
    }
};

// A sample module: an order engine that answers a few shell commands and reports its status.
class OrderEngine : public CMaintenanceInf {
public:
    int GetSubscribeOrder() override { return 10; }

    void ShellCommand(const char* szSource, int nCommand, bool bBackground, const char* szArguments) override {
        int nOrders = ++m_nOrders;
        switch (nCommand) {
        case 1:
            velmora.FSLogFortmatedReport(szSource, false, "snapshot%s: %d orders open, %d fills [%s]\n",
                                         bBackground ? " (background)" : "", nOrders, nOrders / 3, szArguments);
            break;
        case 3:
            velmora.FSLogFortmatedReport(szSource, false, "counter: %d commands seen\n", nOrders);
            break;
        case 5:
            velmora.LogReport(Report_Types::REPORT_DEBUG, "depth EURUSD 1.0845/1.0846 5M\n");
            velmora.LogReport(Report_Types::REPORT_DEBUG, "depth GBPUSD 1.2710/1.2712 3M\n");
            break;
        default:
            velmora.FSLogFortmatedReport(szSource, false, "command %d is not served by the order engine\n", nCommand);
        }
    }
    void StopCMDRepeat(const char* szSource, int nCommand) override {
        velmora.FSLogFortmatedReport(szSource, false, "the repeat of command %d ended\n", nCommand);
    }
    void PrintRuntimeStatus(const char*) override {
        velmora.LogFortmatedReport(Report_Types::REPORT_RUNTIME_STATE, "Order Engine Status[Orders:%d Fills:%d]\n",
                                   m_nOrders.load(), m_nOrders.load() / 3);
    }
    void ReloadSettings() override {
        velmora.FSLogReport(nullptr, false, "order engine: settings reloaded\n");
    }
    void PrepareSystemsShutdown() override {
        velmora.LogReport(Report_Types::REPORT_MAINTENANCE, "order engine: preparing to stop\n");
    }

private:
    std::atomic<int> m_nOrders{0};
};

}  // namespace

int main(int argc, char** argv) {
    std::string name = "VelmoraHost";
    std::string settings;
    int nInitOption = 1;  // the log client writes its own files; --logger asks for the logger
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--name" && i + 1 < argc) name = argv[++i];
        else if (arg == "--settings" && i + 1 < argc) settings = argv[++i];
        else if (arg == "--logger") nInitOption = 0;
        else {
            fprintf(stderr, "usage: %s [--name APP] [--settings FILE] [--logger]\n", argv[0]);
            return 2;
        }
    }

    static IniDirectory directory(settings);
    _G_Directory = &directory;
    if (!velmora.Init(name.c_str(), nInitOption)) {
        fprintf(stderr, "velmora-host: %s runs already on this machine, or its log can't be opened\n", name.c_str());
        return 1;
    }
    static StdoutConsole console;
    static PrintingAlertSystem alerts;
    static OrderEngine engine;
    velmora.SetReportConsole(&console);
    velmora.SetAlertSystem(&alerts);
    velmora.SubscribeMaitenance(&engine);
    velmora.EnableStatusMonitor();
    velmora.LogFortmatedReport(Report_Types::REPORT_RUNTIME_STATE, "%s is running; type shell commands\n", name.c_str());

    std::string line;
    while (std::getline(std::cin, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        size_t start = line.find_first_not_of(' ');
        if (start == std::string::npos) continue;
        size_t end = line.find(' ', start);
        std::string word = line.substr(start, end == std::string::npos ? std::string::npos : end - start);
        const char* szArguments = nullptr;
        std::string rest;
        if (end != std::string::npos) {
            rest = line.substr(end + 1);
            szArguments = rest.c_str();
        }
        if (word == "quit" || word == "exit") break;
        if (word == "sleep") {
            Sleep(DWORD(atoi(rest.c_str())));
        } else if (word == "alert") {
            velmora.AlertMsg(1, QUOREL_ALERT_SYSTEM::QUOTESERVICE_STALED, name.c_str(), "operator", rest.c_str());
        } else {
            velmora.ShellCommand(nullptr, word.c_str(), szArguments);
        }
    }

    velmora.PrepareSystemsShutdown();
    velmora.Shutdown();
    return 0;
}
