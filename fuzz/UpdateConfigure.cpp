// UpdateConfigure (the reload of "config") called directly with arguments of any length and arbitrary settings, read
// as a host's directory does from an .ini file; a module and a login module get every kind and tail.
// Input: four texts: the arguments, the REPORT_LEVEL and LOG_LEVEL values, and the file's lines before them.
#include "FuzzSupport.h"

#include <climits>
#include <fstream>

namespace {

// Settings from an .ini file: section [general] for kind 1, [reload] for kind 2.
class IniDirectory : public CDirectoryServiceInf {
public:
    const char* GetLogFolderSuffix() override { return "fuzz"; }
    const char* GetLogFolderPrefix() override { return "velmora"; }
    void Reserved5() override {} void Reserved6() override {} void Reserved7() override {} void Reserved9() override {}
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
    bool Read(int nKind, const char* szKey, char* szValue, DWORD nSize) {
        GetPrivateProfileStringA(nKind == 1 ? "general" : "reload", szKey, "\x01", szValue, nSize, path.c_str());
        return strcmp(szValue, "\x01") != 0;
    }
};

class LoginModule : public CLoginInitializationInf {
public:
    bool OnLoginInitializationRequest(const char*, Login_Types::DEF, int, bool) override { return true; }
    bool OnLoginInitalizationRequestAdminRights(const char*) override { return true; }
    bool OnLoginInitalizationRequestLinkAccount(const char*) override { return true; }
    void OnLoginConfigurationReloaded() override {}
};

struct ReloadDoor : CVelmora {
    using CVelmora::UpdateConfigure;
};

IniDirectory g_directory;
LoginModule g_login;
velmora_fuzz::Console g_console(true);
velmora_fuzz::Module g_module;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    velmora_fuzz::StartService("UpdateConfigure", &g_console);
    g_directory.path = velmora_fuzz::ProcessFolder() + "/settings.ini";
    _G_Directory = &g_directory, _G_pLoginInitialization = &g_login;
    velmora.SubscribeMaitenance(&g_module);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    velmora_fuzz::Input input(pData, nSize);
    const std::string text = input.Text(), reportLevel = input.Text(), logLevel = input.Text(), lines = input.Text();
    std::ofstream(g_directory.path, std::ios::binary | std::ios::trunc)
        << lines << "\n[reload]\nREPORT_LEVEL=" << reportLevel << "\nLOG_LEVEL=" << logLevel << "\n";
    velmora.SetReportLevel(Report_Types::REPORT_DEBUG);
    debugLevel = 0;
    (velmora.*&ReloadDoor::UpdateConfigure)(text.c_str());
    Check(velmora.nReportLevel <= Report_Types::REPORT_DEBUG, "a report level above 22 stored");

    debugLevel = 0;  // no trace lines, whatever LOG_LEVEL said
    velmora_fuzz::KeepLogsSmall();
    return 0;
}
