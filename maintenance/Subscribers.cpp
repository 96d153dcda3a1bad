// The server's modules as subscribers: a table kept sorted by their keys, and the fan-outs
// that tell them of the life of the process. The table has no lock: a host subscribes and
// unsubscribes while no fan-out runs.
#include "maintenance/SubscriberWalk.h"
#include "core/RelaxedAccess.h"
#include "shell/ShellState.h"

using velmora_core::WalkSubscribers;

// Equal keys keep their arrival order; a 65th subscriber is ignored.
void CVelmora::SubscribeMaitenance(CMaintenanceInf* pSubscriber) {
    if (nSubscribers >= 64) return;
    int nKey = pSubscriber->GetSubscribeOrder();
    for (int i = 0; i < 64; ++i) {
        if (!pSubscribers[i]) {
            pSubscribers[i] = pSubscriber;
            ++nSubscribers;
            return;
        }
        if (nKey < pSubscribers[i]->GetSubscribeOrder()) {
            for (int j = 63; j > i; --j) pSubscribers[j] = pSubscribers[j - 1];
            pSubscribers[i] = pSubscriber;
            ++nSubscribers;
            return;
        }
    }
}

void CVelmora::UnsubscribeMaitenance(CMaintenanceInf* pSubscriber) {
    int i = 0;
    while (i < 64 && pSubscribers[i] != pSubscriber) ++i;
    if (i == 64) return;
    for (; i < 63 && pSubscribers[i + 1]; ++i) pSubscribers[i] = pSubscribers[i + 1];
    pSubscribers[i] = nullptr;
    --nSubscribers;
}

bool CVelmora::PrepareDailyMaintenance(const char* sz1, const char* sz2, const char* sz3) {
    return WalkSubscribers(*this, [&](CMaintenanceInf* p) {
        return p->PrepareDailyMaintenance(sz1, sz2, sz3);
    });
}

bool CVelmora::DoDailyMaintenance(const char* sz1, const char* sz2, const char* sz3) {
    return WalkSubscribers(*this, [&](CMaintenanceInf* p) {
        return p->DoDailyMaintenance(sz1, sz2, sz3);
    });
}

void CVelmora::PostDailyMaintenance(bool bSucceeded, const char* sz1, const char* sz2,
                                    const char* sz3) {
    WalkSubscribers(*this, [&](CMaintenanceInf* p) {
        p->PostDailyMaintenance(bSucceeded, sz1, sz2, sz3);
        return true;
    });
}

void CVelmora::NotifyDailyMaintenanceDone() {
    WalkSubscribers(*this, [](CMaintenanceInf* p) {
        p->DailyMaintenanceDone();
        return true;
    });
}

void CVelmora::DumpRuntimeStates(CQuorelLog* pLog) {
    WalkSubscribers(*this, [&](CMaintenanceInf* p) {
        p->DumpRuntimeStates(pLog);
        return true;
    });
}

void CVelmora::NotifyConfigurationReloaded(const char* szWhat) {
    WalkSubscribers(*this, [&](CMaintenanceInf* p) {
        p->NotifyConfigurationReloaded(szWhat);
        return true;
    });
}

// The flag changes before the subscribers hear of it.
void CVelmora::Suspend() {
    velmora_core::RelaxedStore(bSuspended, true);
    WalkSubscribers(*this, [](CMaintenanceInf* p) {
        p->Suspend();
        return true;
    });
}

void CVelmora::Resume() {
    velmora_core::RelaxedStore(bSuspended, false);
    WalkSubscribers(*this, [](CMaintenanceInf* p) {
        p->Resume();
        return true;
    });
}

void CVelmora::SuspendAndRefresh() {
    WalkSubscribers(*this, [](CMaintenanceInf* p) {
        p->SuspendAndRefresh();
        return true;
    });
}

bool CVelmora::IsServerUnderSuspension() { return velmora_core::RelaxedLoad(bSuspended); }

// Signals every repeating command to stop, gives the repeat threads half a second to end
// (each tells the subscribers as it goes) and waits for any still in a pass, then tells the
// subscribers of the shutdown. When it returns, no repeat thread calls a subscriber again.
void CVelmora::PrepareSystemsShutdown() {
    velmora_core::StopAllRepeats(*this);
    Sleep(500);
    velmora_core::WaitForRepeatThreads();
    WalkSubscribers(*this, [](CMaintenanceInf* p) {
        p->PrepareSystemsShutdown();
        return true;
    });
}
