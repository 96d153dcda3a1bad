// The service object and the process-wide variables that hosts see by name.
#include "include/Velmora.h"

// Filled by the constructor of CVelmora; null until then.
const char* Report_Types::STR[23];
const char* OrderTag_Types::STR[10];

int debugLevel = 4;
CQuorelLog* globalDefaultLog = nullptr;
bool _G_TraceAll = false;
char _G_LogFileFolder[1024];
char _G_SessionID[64];
CDirectoryServiceInf* _G_Directory = nullptr;
CNameLock* _G_pNameLock = nullptr;
CLoginInitializationInf* _G_pLoginInitialization = nullptr;
int _G_nGapMS = 0;
// Only these three flags start true.
bool _G_ISPrimary = true;
bool _G_bPureAsychTradingBC = true;
bool _G_bDirectDBUpdateForPositions = true;
bool _G_bAlgoMode = false;
bool _G_underMaintenance = false;
bool _G_bSuspendOnThreadPoolShort = false;
bool _G_bProgressiveLoginEnabled = false;
CQuorelQueue* _GLOBAL_TradingQueue = nullptr;

// Defined after the variables above: the constructor reads none of them, but keeping the
// object last in this file keeps its construction after theirs in any case.
CVelmora velmora;
