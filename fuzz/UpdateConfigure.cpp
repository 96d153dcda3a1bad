// UpdateConfigure, the reload of the "config" command, with arbitrary argument texts and
// arbitrary settings. The directory reads its settings from an .ini file of this process
// through the platform's GetPrivateProfileStringA, as a host's does, and every input
// writes that file anew: first its own lines, then the section of the reloadable settings
// with its two values. A module and a login module are plugged in, so every kind and
// every tail reaches them.
//
// UpdateConfigure is protected; hosts reach it through the "config" command, which refuses
// texts of 512 characters or more. It is called directly here, with texts of any length.
//
// Input: four texts: the argument text, the REPORT_LEVEL value, the LOG_LEVEL value, and
// the lines of the file before them.
#include "FuzzSupport.h"

#include <climits>
#include <fstream>

using velmora_fuzz::Check;

namespace {

// Settings from an .ini file: section [general] for kind 1, [reload] for kind 2.
class IniDirectory : public CDirectoryServiceInf {
public:
    const char* GetLogFolderSuffix() override { return "fuzz"; }
    const char* GetLogFolderPrefix() override { return "velmora"; }
    void Reserved5() override {}
    void Reserved6() override {}
    void Reserved7() override {}
    void Reserved9() override {}
    void GetIntSetting(int nKind, const char* szKey, int* pnValue) override {
        char szValue[64];
        if (!Read(nKind, szKey, szValue, sizeof(szValue))) return;
        long nValue = strtol(szValue, nullptr, 10);  // out of range: clamped, never undefined
        *pnValue = int(nValue < INT_MIN ? INT_MIN : nValue > INT_MAX ? INT_MAX : nValue);
    }
    void GetStringSetting(int nKind, const char* szKey, char* szValue, int nSize) override {
        if (nSize > 0) Read(nKind, szKey, szValue, DWORD(nSize));
    }

    std::string path;

private:
    bool Read(int nKind, const char* szKey, char* szValue, DWORD nSize) {
        GetPrivateProfileStringA(nKind == 1 ? "general" : "reload", szKey, "\x01", szValue,
                                 nSize, path.c_str());
        return strcmp(szValue, "\x01") != 0;
    }
};

class LoginModule : public CLoginInitializationInf {
public:
    bool OnLoginInitializationRequest(const char*, Login_Types::DEF, int, bool) override {
        return true;
    }
    bool OnLoginInitalizationRequestAdminRights(const char*) override { return true; }
    bool OnLoginInitalizationRequestLinkAccount(const char*) override { return true; }
    void OnLoginConfigurationReloaded() override {}
};

struct ReloadDoor : CVelmora {
    using CVelmora::UpdateConfigure;
};

IniDirectory g_directory;
LoginModule g_login;
velmora_fuzz::Console g_console;
velmora_fuzz::Module g_module;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    velmora_fuzz::StartService("UpdateConfigure");
    g_directory.path = velmora_fuzz::ProcessFolder() + "/settings.ini";
    _G_Directory = &g_directory;
    _G_pLoginInitialization = &g_login;
    velmora.SetReportConsole(&g_console);
    velmora.SubscribeMaitenance(&g_module);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    velmora_fuzz::Input input(pData, nSize);
    const std::string text = input.Text(), reportLevel = input.Text(), logLevel = input.Text(),
                      lines = input.Text();
    {
        std::ofstream file(g_directory.path, std::ios::binary | std::ios::trunc);
        file << lines << "\n[reload]\nREPORT_LEVEL=" << reportLevel << "\nLOG_LEVEL=" << logLevel
             << "\n";
    }
    velmora.SetReportLevel(Report_Types::REPORT_DEBUG);
    debugLevel = 0;

    (velmora.*&ReloadDoor::UpdateConfigure)(text.c_str());
    Check(velmora.nReportLevel <= Report_Types::REPORT_DEBUG, "a report level above 22 stored");

    debugLevel = 0;  // no trace lines, whatever LOG_LEVEL said
    velmora_fuzz::KeepLogsSmall();
    return 0;
}
