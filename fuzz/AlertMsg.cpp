// Both forms of AlertMsg with arbitrary arguments, nulls included, eight an input so that texts meet their records, with
// an alert system or without (the five-argument form falls back to the other); then every record is checked and freed.
// Input: a byte (bit 0: an alert system), then alerts: a byte (bit 0: five arguments; bits 1 to 3: null source,
// reference, text), two numbers (level, event) and three texts (source, reference, text).
#include "FuzzSupport.h"
#include "alerting/AlertRecord.h"

namespace {

// The receiver of the alert timer thread's deliveries: three texts, never null.
class AlertSystem : public CAlertSystemInf {
public:
    void AlertMsg(int, int, const char* szSource, const char* szRef, const char* szText) override {
        Check(szSource != nullptr && szRef != nullptr && szText != nullptr, "a null text delivered to the alert system");
    }
} g_alertSystem;
velmora_fuzz::Console g_console(true);

// Checks every record of a map and frees it; the caller holds csAlerts.
void CheckAndEmpty(std::map<std::string, AlertRecord*>& alerts) {
    for (auto& [key, pRecord] : alerts) {
        Check(pRecord != nullptr, "a map entry without a record");
        Check(key.size() <= 255, "a key longer than 255 characters");
        Check(pRecord->strDescription.size() <= 511, "a composed text longer than 511");
        Check(pRecord->strDescription.compare(0, key.size(), key) == 0, "a key that doesn't begin its record's text");
        Check(pRecord->nPending >= 0 && pRecord->nTotal >= 0, "a negative count");
        delete pRecord;
    }
    alerts.clear();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    velmora_fuzz::StartService("AlertMsg", &g_console);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    velmora_fuzz::Input input(pData, nSize);
    velmora.SetAlertSystem(input.Byte() & 1 ? &g_alertSystem : nullptr);
    for (int i = 0; i < 8 && !input.Done(); ++i) {
        const uint8_t flags = input.Byte();
        const int nLevel = input.Int(), nEvent = input.Int();
        const std::string source = input.Text(), ref = input.Text(), text = input.Text();
        const char *szSource = flags & 2 ? nullptr : source.c_str(), *szText = flags & 8 ? nullptr : text.c_str();
        if (flags & 1) velmora.AlertMsg(nLevel, nEvent, szSource, flags & 4 ? nullptr : ref.c_str(), szText);
        else velmora.AlertMsg(szText, szSource);
    }
    {
        CSmartLock lock(&velmora.csAlerts);
        CheckAndEmpty(velmora.mapSystemAlerts);
        CheckAndEmpty(velmora.mapMonitorAlerts);
        std::atomic_ref<bool>(velmora.bAlertsPending).store(false, std::memory_order_release);
    }
    velmora_fuzz::KeepLogsSmall();
    return 0;
}
