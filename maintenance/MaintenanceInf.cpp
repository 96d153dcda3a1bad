// The default bodies of the subscriber interface: a module overrides only what it needs.
#include "include/Velmora.h"

void CMaintenanceInf::ShellCommand(const char*, int, bool, const char*) {}
void CMaintenanceInf::StopCMDRepeat(const char*, int) {}
void CMaintenanceInf::UpdateConfiguration(int, const char*) {}
void CMaintenanceInf::NotifyConfigurationReloaded(const char*) {}
void CMaintenanceInf::PrintReloadableSettings() {}
void CMaintenanceInf::ReloadSettings() {}
void CMaintenanceInf::PrepareSystemsShutdown() {}
bool CMaintenanceInf::PrepareDailyMaintenance(const char*, const char*, const char*) {
    return true;
}
bool CMaintenanceInf::DoDailyMaintenance(const char*, const char*, const char*) { return true; }
void CMaintenanceInf::PostDailyMaintenance(bool, const char*, const char*, const char*) {}
void CMaintenanceInf::PrintRuntimeStatus(const char*) {}
void CMaintenanceInf::DumpRuntimeStates(CQuorelLog*) {}
void CMaintenanceInf::DailyMaintenanceDone() {}
void CMaintenanceInf::Suspend() {}
void CMaintenanceInf::Resume() {}
void CMaintenanceInf::SuspendAndRefresh() {}
