// The trade date: the host writes the new date into _G_SessionID and calls
// NotifyTradeDateChange; the registered listeners hear of it first, the logger last.
//
// Registration may come from several threads at once. The interlocked increment gives each
// caller a place of its own; a place is published with a release store, and a walk that
// meets it before the store sees null and passes over it.
#include "include/Velmora.h"

#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kMaxDateListeners = 256;
constexpr size_t kSessionIDSize = sizeof(_G_SessionID);

static_assert(std::atomic_ref<int>::required_alignment <= alignof(int));
static_assert(std::atomic_ref<CTradeDateChangeListenerInf*>::required_alignment <=
              alignof(CTradeDateChangeListenerInf*));

std::atomic_ref<CTradeDateChangeListenerInf*> Place(CVelmora& service, int nIndex) {
    return std::atomic_ref<CTradeDateChangeListenerInf*>(service.pDateListeners[nIndex]);
}

// atoi as the date has always been read: leading blanks, a sign, digits, 0 when there is no
// number. C leaves atoi undefined for a number beyond int; such a number is clamped to the
// nearest int here, so that a long run of digits in a host's text still gives a defined date.
int AsciiToInt(const char* szText) {
    long nValue = std::strtol(szText, nullptr, 10);
    if (nValue > INT_MAX) return INT_MAX;
    if (nValue < INT_MIN) return INT_MIN;
    return int(nValue);
}

// The number at a character position of the date text, 0 where the text ends before it.
int NumberAt(const char* szText, size_t nLength, size_t nPosition) {
    return nPosition < nLength ? AsciiToInt(szText + nPosition) : 0;
}

}  // namespace

// Refused registrations are counted as well, so after a refusal the count stands above 256.
bool CVelmora::RegisterDateChangeListener(CTradeDateChangeListenerInf* pListener) {
    int nPlace = InterlockedIncrement(&nDateListeners);
    // Below 1 only after the count has wrapped, 2^31 refusals later: still no place.
    if (nPlace < 1 || nPlace > kMaxDateListeners) return false;
    Place(*this, nPlace - 1).store(pListener, std::memory_order_release);
    return true;
}

void CVelmora::NotifyTradeDateChange() {
    // The count is read anew each round, so a listener registered during the walk (by a
    // listener, or by another thread) is still called in it.
    std::atomic_ref<int> nCount(nDateListeners);
    for (int i = 0; i < kMaxDateListeners && i < nCount.load(std::memory_order_acquire); ++i) {
        CTradeDateChangeListenerInf* pListener = Place(*this, i).load(std::memory_order_acquire);
        if (pListener != nullptr) pListener->OnTradeDateChange();
    }

    // _G_SessionID is the host's plain array. A host that fills all 64 bytes without a
    // terminator gets those 64 characters read as the text (the YYYY-MM-DD form, as any
    // length but 8): the date is read from a terminated copy, never from beyond the array.
    char szDate[kSessionIDSize + 1];
    size_t nLength = strnlen(_G_SessionID, kSessionIDSize);
    std::memcpy(szDate, _G_SessionID, nLength);
    szDate[nLength] = '\0';

    int nYear, nMonth, nDay;
    if (nLength == 8) {
        // YYYYMMDD as one number; any 8 characters are read this way, digits or not.
        int nDate = AsciiToInt(szDate);
        nYear = nDate / 10000;
        nMonth = nDate % 10000 / 100;
        nDay = nDate % 100;
    } else {
        // YYYY-MM-DD by positions: what stands at 4 and 7 only has to end the number before it.
        nYear = AsciiToInt(szDate);
        nMonth = NumberAt(szDate, nLength, 5);
        nDay = NumberAt(szDate, nLength, 8);
    }
    // The date isn't tested: the logger gets the numbers as they are.
    UpdateLoggerSessionDate(nYear, nMonth, nDay);
}
