// The alert intake: every alert is reported at once and counted in the record of its text.
// Delivery is left to the alert timer thread (AlertFlush.cpp), which delivers a text when it
// is new and then at most once per repeat interval with its running total.
//
// Two maps, one per kind of alert: five-argument alerts for the plugged-in alert system,
// two-argument alerts for the monitor client. A record is found by its key, the composed
// text cut to 255 characters, so texts that agree that far count as one alert.
//
// Composing and reporting happen outside csAlerts; only the map work is done under it, so a
// storm of one alert costs one lookup and one increment under the lock, plus its report.
#include "alerting/AlertRecord.h"
#include "core/AsciiText.h"
#include "include/Velmora.h"
#include "reporting/Trace.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

// The composed text of an alert: at most 511 characters in a buffer of 512.
constexpr size_t kComposedSize = 512;
// Texts that agree in this many characters are one alert.
constexpr size_t kKeyLength = 255;
// A repetition this long or less after the last delivery doesn't ask for a flush. A constant
// of the intake: the repeat interval of the flush doesn't change it.
constexpr DWORD kRepeatRequestMS = 60000;

constexpr char kTextFormat[] = "From:%s %s\n";
constexpr char kEventFormat[] = "Event=%s Source=%s Ref=%s Desc=%s\n";
// A null text prints as glibc's printf prints a null string; the formatter never gets it.
constexpr char kNullText[] = "(null)";

const char* Printable(const char* szText) { return szText != nullptr ? szText : kNullText; }

// The flag is written here under csAlerts and read by the alert timer thread without it.
void RequestFlush(CVelmora& service) {
    std::atomic_ref<bool>(service.bAlertsPending).store(true, std::memory_order_release);
}

// What the first occurrence of a text leaves in its record.
struct FirstOccurrence {
    int nLevel;
    int nEvent;
    const char* szSource;  // null: kept empty
    const char* szRef;     // null: kept empty
    const char* szComposed;
};

// One occurrence, counted in the record of its key; the caller holds csAlerts.
void CountOccurrence(CVelmora& service, std::map<std::string, AlertRecord*>& alerts,
                     const FirstOccurrence& occurrence) {
    size_t nLength = strlen(occurrence.szComposed);
    std::string key(occurrence.szComposed, nLength < kKeyLength ? nLength : kKeyLength);

    auto found = alerts.find(key);
    if (found != alerts.end()) {
        AlertRecord* pRecord = found->second;
        // Counted in 32 bits as the record stores it; a wrap is no undefined behaviour.
        pRecord->nPending = int(unsigned(pRecord->nPending) + 1u);
        // Unsigned 32-bit: a wrap of the tick count does no harm.
        if (DWORD(GetTickCount() - pRecord->dwLastSent) > kRepeatRequestMS) RequestFlush(service);
        return;
    }

    AlertRecord* pRecord = new AlertRecord;
    pRecord->dwLastSent = 0;
    pRecord->nTotal = 0;
    pRecord->nPending = 1;
    pRecord->nLevel = occurrence.nLevel;
    pRecord->nEvent = occurrence.nEvent;
    if (occurrence.szSource != nullptr) pRecord->strSource = occurrence.szSource;
    if (occurrence.szRef != nullptr) pRecord->strRef = occurrence.szRef;
    pRecord->strDescription = occurrence.szComposed;
    try {
        alerts.emplace(std::move(key), pRecord);
    } catch (...) {
        delete pRecord;
        throw;
    }
    RequestFlush(service);
}

}  // namespace

// A text alert for the monitor: reported with type 1 before the lock, then counted.
void CVelmora::AlertMsg(const char* szText, const char* szFrom) {
    szText = Printable(szText);

    char szComposed[kComposedSize];
    if (szFrom != nullptr) {
        // Cut at 511 characters; the line end is the first to fall off.
        snprintf(szComposed, sizeof(szComposed), kTextFormat, szFrom, szText);
        LogReport(Report_Types::REPORT_ALERT, szComposed);
    } else {
        // The report gets the text whole; the record keeps at most 511 characters of it.
        LogReport(Report_Types::REPORT_ALERT, szText);
        velmora_core::CopyText(szComposed, sizeof(szComposed), szText);
    }

    // A host's failure while the lock is held leaves the map work undone and is reported;
    // the lock is left by the unwinding.
    try {
        CSmartLock lock(&csAlerts);
        VELMORA_TRACE("CVelmora::AlertMsg");
        CountOccurrence(*this, mapMonitorAlerts, {-1, -1, szFrom, nullptr, szComposed});
    } catch (const win32_exception& failure) {
        ReportException("CVelmora::AlertMsg", failure.what());
    }
}

// An event alert for the alert system, or a text alert for the monitor when no alert system
// is plugged in (level, event and reference are then dropped). Reported with type 22 after
// the lock has been left.
void CVelmora::AlertMsg(int nLevel, int nEvent, const char* szSource, const char* szRef,
                        const char* szDescription) {
    if (std::atomic_ref<CAlertSystemInf*>(pAlertSystem).load(std::memory_order_acquire) ==
        nullptr) {
        AlertMsg(szDescription, szSource);
        return;
    }

    char szComposed[kComposedSize];
    snprintf(szComposed, sizeof(szComposed), kEventFormat,
             QUOREL_ALERT_SYSTEM::GetAlertEventDescription(QUOREL_ALERT_SYSTEM::ALERT_EVENT(nEvent)),
             Printable(szSource), Printable(szRef), Printable(szDescription));

    try {
        CSmartLock lock(&csAlerts);
        VELMORA_TRACE("CVelmora::AlertMsg");
        CountOccurrence(*this, mapSystemAlerts, {nLevel, nEvent, szSource, szRef, szComposed});
    } catch (const win32_exception& failure) {
        ReportException("CVelmora::AlertMsg", failure.what());
    }

    LogReport(Report_Types::REPORT_DEBUG, szComposed);
}

// A plain store: the alert system is plugged in before the threads that raise alerts run,
// and the intake reads it without the lock.
void CVelmora::SetAlertSystem(CAlertSystemInf* pSystem) {
    std::atomic_ref<CAlertSystemInf*>(pAlertSystem).store(pSystem, std::memory_order_release);
}
