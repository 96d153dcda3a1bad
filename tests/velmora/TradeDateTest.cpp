// The trade date: the two forms of _G_SessionID, the 256 listeners, and who hears first.
#include "include/Velmora.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>

namespace {

using Events = std::vector<std::string>;
Events g_events;  // noted on the thread that notifies

struct Listener : CTradeDateChangeListenerInf {
    std::string name;
    int nCalls = 0;
    Listener* pRegisterWhenCalled = nullptr;
    void OnTradeDateChange() override {
        ++nCalls, g_events.push_back(name);
        if (pRegisterWhenCalled) { EXPECT_TRUE(velmora.RegisterDateChangeListener(pRegisterWhenCalled)); }
    }
};

}  // namespace

// Comes first in the dynamic lookup: notes the date, then passes it on to the logger.
void UpdateLoggerSessionDate(int nYear, int nMonth, int nDay) {
    static auto pNext = reinterpret_cast<void (*)(int, int, int)>(dlsym(RTLD_NEXT, "_Z23UpdateLoggerSessionDateiii"));
    g_events.push_back(std::to_string(nYear) + " " + std::to_string(nMonth) + " " + std::to_string(nDay));
    if (pNext != nullptr) pNext(nYear, nMonth, nDay);
}

TEST(TradeDate, EightCharactersAreOneNumberAnyOtherLengthIsReadByPositions) {
    const std::pair<const char*, const char*> cases[] = {
        {"20240315", "2024 3 15"}, {"2024-3-5", "0 20 24"},  // eight: atoi stops at the '-'
        {"2024-03-15", "2024 3 15"}, {"2024-3-15", "2024 3 5"},  // positions 0, 5 and 8, not separators
        {"2024-03", "2024 3 0"}, {"123456789", "123456789 6789 9"}, {"99999999999-12-31", "2147483647 999999 999"}};
    for (auto [szText, szDate] : cases) {
        std::strcpy(_G_SessionID, szText), velmora.NotifyTradeDateChange();
        EXPECT_EQ(std::exchange(g_events, {}), Events{szDate}) << szText;
    }
}

// Listeners in order, then the logger; null places are passed over; a late listener is heard.
TEST(TradeDate, ListenersHearBeforeTheLoggerAndLateOnesInTheSameWalk) {
    Listener a, b, c;
    a.name = "A", b.name = "B", c.name = "C", a.pRegisterWhenCalled = &c;
    for (Listener* p : {(Listener*)nullptr, &a, &b}) ASSERT_TRUE(velmora.RegisterDateChangeListener(p));
    velmora.nDateListeners++, velmora.NotifyTradeDateChange();  // the empty date after load
    EXPECT_EQ(g_events, (Events{"A", "B", "C", "0 0 0"}));
}

// The 256th listener is entered; later ones are refused, but counted.
TEST(TradeDate, TheTableHolds256Listeners) {
    std::vector<Listener> listeners(258);
    for (size_t i = 0; i < 258; ++i) EXPECT_EQ(velmora.RegisterDateChangeListener(&listeners[i]), i < 256) << i;
    EXPECT_EQ(velmora.nDateListeners, 258);
    velmora.NotifyTradeDateChange();
    EXPECT_EQ(std::pair(listeners[255].nCalls, listeners[256].nCalls), std::pair(1, 0));
}
