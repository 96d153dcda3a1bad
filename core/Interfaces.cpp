// The exported parts of the plug-in interfaces: the operations that set an object up, and
// the default bodies that a host may leave in place.
#include "include/Velmora.h"

#define VELMORA_INTERFACE_SETUP(Name)                         \
    Name::Name() = default;                                   \
    Name::Name(const Name&) = default;                        \
    Name& Name::operator=(const Name&) { return *this; }

VELMORA_INTERFACE_SETUP(CDirectoryServiceInf)
VELMORA_INTERFACE_SETUP(CFTSInf)
VELMORA_INTERFACE_SETUP(CBCTEngineInf)
VELMORA_INTERFACE_SETUP(CIMDBRawDataAccessorInf)
VELMORA_INTERFACE_SETUP(CLoginInitializationInf)
VELMORA_INTERFACE_SETUP(CReportConsoleInf)
VELMORA_INTERFACE_SETUP(CRemoteConsoleInf)
VELMORA_INTERFACE_SETUP(CPerformanceConsoleInf)
VELMORA_INTERFACE_SETUP(CAlertSystemInf)
VELMORA_INTERFACE_SETUP(CTradeDateChangeListenerInf)
VELMORA_INTERFACE_SETUP(CMaintenanceInf)

#undef VELMORA_INTERFACE_SETUP

bool CDirectoryServiceInf::PrepareNewSection() { return true; }
const char* CDirectoryServiceInf::GetDomainAliasNames() { return nullptr; }

bool CIMDBRawDataAccessorInf::StartQuery() { return false; }
int CIMDBRawDataAccessorInf::EndQuery() { return -1; }
int CIMDBRawDataAccessorInf::GetTotalSegments() { return 0; }
CFIXMessage* CIMDBRawDataAccessorInf::GetAllAccountsOfSegment(int) { return nullptr; }
CFIXMessage* CIMDBRawDataAccessorInf::GetAllNetPositionsOfSegment(int) { return nullptr; }
CFIXMessage* CIMDBRawDataAccessorInf::GetTotalOpenOrderOfSegment(int) { return nullptr; }
CFIXMessage* CIMDBRawDataAccessorInf::GetTotalTradeDataOfSegment(int) { return nullptr; }

// A console that keeps this default drops coloured reports, and with them their blocks.
void CReportConsoleInf::LogReportInColor(Report_Types::DEF, DWORD, char*) {}
bool CReportConsoleInf::LogFiltered(Report_Types::DEF, void*) { return false; }
