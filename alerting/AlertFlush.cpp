// The alert flush: delivers what the intake has counted, on the alert timer thread.
//
// A record is delivered when it is new, and after that at most once per repeat interval,
// then with the running total behind its text. What comes within the interval only adds to
// nPending. A record that has gone quiet for more than twice the interval is removed, at
// most one per map and flush, the first in key order.
//
// Both maps are walked under csAlerts, and the receivers are called under it too, so that
// a record can't change between its test and its delivery. All tick arithmetic is unsigned
// 32-bit, so a wrap of the tick count does no harm.
#include "alerting/AlertRecord.h"
#include "core/RelaxedAccess.h"
#include "include/Velmora.h"
#include "reporting/Trace.h"

#include <atomic>
#include <string>

namespace {

constexpr char kRepeatIntervalKey[] = "TIMEOUT_REPEATALERTS";
constexpr int kRepeatIntervalSection = 2;
// The configured interval is in minutes, and values below 2 are ignored: only the initial
// interval can be one minute.
constexpr int kShortestConfiguredMinutes = 2;
constexpr DWORD kMillisecondsPerMinute = 60000;

std::atomic_ref<bool> PendingFlag(CVelmora& service) {
    return std::atomic_ref<bool>(service.bAlertsPending);
}

// The text of a repeat delivery: the stored text, directly followed by the total. The
// stored text stays as it is.
std::string WithTotal(const AlertRecord& record) {
    std::string text = record.strDescription;
    text += "[Total:";
    text += std::to_string(record.nTotal);
    text += ']';
    return text;
}

// One walk over a map. Deliver(record, text) hands a due record to the map's receiver; it is
// not called when the map has no receiver, and the record is counted as delivered all the
// same. bReload is set when a delivery comes more than the interval after the one before
// it, which asks for the interval to be read again; it is set as the walk goes, so that it
// holds even when a later delivery of the walk fails.
template <typename Deliver>
void WalkAlerts(std::map<std::string, AlertRecord*>& alerts, DWORD dwNow, DWORD dwInterval,
                bool bHasReceiver, Deliver deliver, bool& bReload) {
    // 32-bit like the interval itself: a very long interval wraps when doubled.
    const DWORD dwQuietLimit = DWORD(2u * dwInterval);
    auto removal = alerts.end();

    for (auto at = alerts.begin(); at != alerts.end(); ++at) {
        AlertRecord* pRecord = at->second;
        if (pRecord == nullptr) continue;
        const DWORD dwSince = DWORD(dwNow - pRecord->dwLastSent);

        if (pRecord->nPending <= 0) {
            // Quiet: only the first record of the map that has been quiet long enough goes.
            if (dwSince > dwQuietLimit && removal == alerts.end()) removal = at;
            continue;
        }
        // Held: delivered before, and the interval hasn't passed yet.
        if (pRecord->dwLastSent != 0 && dwSince <= dwInterval) continue;

        pRecord->nTotal = int(unsigned(pRecord->nTotal) + unsigned(pRecord->nPending));
        pRecord->nPending = 0;
        if (bHasReceiver) {
            if (pRecord->dwLastSent == 0)
                deliver(*pRecord, pRecord->strDescription.c_str());
            else
                deliver(*pRecord, WithTotal(*pRecord).c_str());
        }
        if (dwSince > dwInterval) bReload = true;
        pRecord->dwLastSent = dwNow;
    }

    // Behind the walk, so that the walk itself never erases.
    if (removal != alerts.end()) {
        delete removal->second;
        alerts.erase(removal);
    }
}

}  // namespace

void CVelmora::FlushAlerts() {
    if (!PendingFlag(*this).load(std::memory_order_acquire)) return;
    // One moment for the whole flush.
    const DWORD dwNow = GetTickCount();
    bool bReload = false;

    // A host's failure, also one thrown by a receiver, ends the walks: it is reported and
    // bAlertsPending stays set, so the next second flushes again. Records delivered before
    // it have nPending 0 and aren't delivered twice.
    try {
        CSmartLock lock(&csAlerts);
        VELMORA_TRACE("CVelmora::FlushAlerts");
        const DWORD dwInterval = DWORD(velmora_core::RelaxedLoad(nAlertRepeatMS));

        CAlertSystemInf* pSystem =
            std::atomic_ref<CAlertSystemInf*>(pAlertSystem).load(std::memory_order_acquire);
        WalkAlerts(
            mapSystemAlerts, dwNow, dwInterval, pSystem != nullptr,
            [pSystem](const AlertRecord& record, const char* szText) {
                pSystem->AlertMsg(record.nLevel, record.nEvent, record.strSource.c_str(),
                                  record.strRef.c_str(), szText);
            },
            bReload);

        CHarvell* pClient = pMonitor;
        WalkAlerts(
            mapMonitorAlerts, dwNow, dwInterval, pClient != nullptr,
            [pClient](const AlertRecord&, const char* szText) { pClient->AlertMsg(szText); },
            bReload);

        // An alert that comes in during the flush waits for the lock and sets the flag
        // again after this, so it isn't lost.
        PendingFlag(*this).store(false, std::memory_order_release);
    } catch (const win32_exception& failure) {
        ReportException("CVelmora::FlushAlerts", failure.what());
    }

    if (!bReload) return;
    // The interval is read again after a delivery, outside the lock; it applies from the
    // next flush on. Without a directory service the interval stays as it is. A host's
    // failure in the directory is reported like one in the walks rather than ending the
    // alert timer thread.
    try {
        CDirectoryServiceInf* pDirectory = _G_Directory;
        if (pDirectory == nullptr) return;
        int nMinutes = 0;
        pDirectory->GetIntSetting(kRepeatIntervalSection, kRepeatIntervalKey, &nMinutes);
        if (nMinutes >= kShortestConfiguredMinutes)
            velmora_core::RelaxedStore(nAlertRepeatMS,
                                       int(DWORD(nMinutes) * kMillisecondsPerMinute));
    } catch (const win32_exception& failure) {
        ReportException("CVelmora::FlushAlerts", failure.what());
    }
}
