// Both forms of AlertMsg with arbitrary texts, sources, references, levels and event
// numbers, null pointers included where the intake accepts them, up to eight alerts an
// input so that repeated texts meet their record. An input runs with an alert system
// plugged in (the five-argument form composes its own text) or without (it falls back to
// the two-argument form). After each input every record is checked against what the
// intake promises, and both alert maps are emptied, so that memory doesn't grow.
//
// Input: a byte (bit 0: an alert system is plugged in), then up to eight alerts, each a
// byte (bit 0: the five-argument form; bits 1 to 3: a null source, reference, text), two
// numbers (level, event) and three texts (source, reference, text).
#include "FuzzSupport.h"
#include "alerting/AlertRecord.h"

using velmora_fuzz::Check;

namespace {

// The receiver of the alert timer thread's deliveries: three texts, never null.
class AlertSystem : public CAlertSystemInf {
public:
    void AlertMsg(int, int, const char* szSource, const char* szRef,
                  const char* szText) override {
        Check(szSource != nullptr && szRef != nullptr && szText != nullptr,
              "a null text delivered to the alert system");
    }
};

AlertSystem g_alertSystem;
velmora_fuzz::Console g_console;

// Checks every record of a map and frees it; the caller holds csAlerts.
void CheckAndEmpty(std::map<std::string, AlertRecord*>& alerts) {
    for (auto& [key, pRecord] : alerts) {
        Check(pRecord != nullptr, "a map entry without a record");
        Check(key.size() <= 255, "a key longer than 255 characters");
        Check(pRecord->strDescription.size() <= 511, "a composed text longer than 511");
        Check(pRecord->strDescription.compare(0, key.size(), key) == 0,
              "a key that doesn't begin its record's text");
        Check(pRecord->nPending >= 0 && pRecord->nTotal >= 0, "a negative count");
        delete pRecord;
    }
    alerts.clear();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    velmora_fuzz::StartService("AlertMsg");
    velmora.SetReportConsole(&g_console);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    velmora_fuzz::Input input(pData, nSize);
    velmora.SetAlertSystem(input.Byte() & 1 ? &g_alertSystem : nullptr);
    for (int i = 0; i < 8 && !input.Done(); ++i) {
        const uint8_t flags = input.Byte();
        const int nLevel = input.Int(), nEvent = input.Int();
        const std::string source = input.Text(), ref = input.Text(), text = input.Text();
        const char* szSource = flags & 2 ? nullptr : source.c_str();
        const char* szRef = flags & 4 ? nullptr : ref.c_str();
        const char* szText = flags & 8 ? nullptr : text.c_str();
        if (flags & 1)
            velmora.AlertMsg(nLevel, nEvent, szSource, szRef, szText);
        else
            velmora.AlertMsg(szText, szSource);
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
