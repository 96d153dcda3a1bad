// The trade date: the two forms of _G_SessionID and the numbers the logger gets from them,
// the table of 256 listeners with its refusals, the walk over it, and the order in which
// the listeners and the logger hear of a new date.
#include "ReportTestSupport.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <latch>
#include <set>
#include <thread>
#include <utility>

using namespace velmora_report_test;

// ---- What reaches the logger ------------------------------------------------------------
// The test program's definition takes the library's call (the program's symbols come first
// in the dynamic lookup), notes the date among the events of the test, and passes it on to
// the logger's own function.

namespace {

std::mutex g_eventsMutex;
std::vector<std::string> g_events;

void Note(const std::string& event) {
    std::lock_guard<std::mutex> lock(g_eventsMutex);
    g_events.push_back(event);
}

std::vector<std::string> TakeEvents() {
    std::lock_guard<std::mutex> lock(g_eventsMutex);
    return std::exchange(g_events, {});
}

std::string LoggerEvent(int nYear, int nMonth, int nDay) {
    return "logger " + std::to_string(nYear) + " " + std::to_string(nMonth) + " " +
           std::to_string(nDay);
}

}  // namespace

void UpdateLoggerSessionDate(int nYear, int nMonth, int nDay) {
    using Function = void (*)(int, int, int);
    static Function pNext =
        reinterpret_cast<Function>(dlsym(RTLD_NEXT, "_Z23UpdateLoggerSessionDateiii"));
    if (pNext == nullptr) {
        std::fprintf(stderr, "no definition of UpdateLoggerSessionDate behind the test\n");
        std::abort();
    }
    Note(LoggerEvent(nYear, nMonth, nDay));
    pNext(nYear, nMonth, nDay);
}

namespace {

// Notes its calls among the events; can do one more thing when called.
class DateListener : public CTradeDateChangeListenerInf {
public:
    DateListener() = default;
    explicit DateListener(std::string name) : name(std::move(name)) {}
    void OnTradeDateChange() override {
        ++nCalls;
        Note("listener " + name);
        if (onCall) onCall();
    }

    std::string name;
    int nCalls = 0;
    std::function<void()> onCall;
};

class TradeDate : public ReportFixture {
protected:
    static void SetSessionID(const std::string& text) {
        ASSERT_LT(text.size(), sizeof(_G_SessionID));
        std::memcpy(_G_SessionID, text.c_str(), text.size() + 1);
    }

    static std::string PathOf(CQuorelLog* pClient) {
        char szPath[MAX_PATH] = {};
        pClient->GetFullLogPath(szPath, sizeof(szPath));
        return szPath;
    }
    std::string ClientFile(const std::string& name) const {
        return tmp.path() + "/clients/" + name;
    }
};

}  // namespace

TEST_F(TradeDate, BothFormsAreToldApartByLengthAlone) {
    struct Case {
        const char* szText;
        int nYear, nMonth, nDay;
    };
    const Case cases[] = {
        // Eight characters: one number YYYYMMDD, digits or not.
        {"20240315", 2024, 3, 15},
        {"19991231", 1999, 12, 31},
        {"2024-3-5", 0, 20, 24},  // atoi stops at the '-': the number 2024
        {"March 15", 0, 0, 0},
        // Any other length: the numbers at positions 0, 5 and 8.
        {"2024-03-15", 2024, 3, 15},
        {"2024/03/15", 2024, 3, 15},
        {"2024.03.15 09:30", 2024, 3, 15},
        {"2024-3-15", 2024, 3, 5},  // positions, not separators
        {" 2024-03-15", 2024, -3, -15},  // "-03" and "-15" from there
        {"2024-03", 2024, 3, 0},    // ends before position 8
        {"2024-", 2024, 0, 0},      // ends at position 5
        {"2024", 2024, 0, 0},
        {"1234567", 1234567, 67, 0},
        {"123456789", 123456789, 6789, 9},
        {"", 0, 0, 0},
    };
    for (const Case& c : cases) {
        SetSessionID(c.szText);
        velmora.NotifyTradeDateChange();
        EXPECT_EQ(TakeEvents(),
                  std::vector<std::string>{LoggerEvent(c.nYear, c.nMonth, c.nDay)})
            << '"' << c.szText << '"';
    }
}

// A host's text that fills all 64 bytes has no terminator: it counts as a text of those 64
// characters, and the digits from position 8 on, which run to the array's end, give 15.
TEST_F(TradeDate, ATextWithoutTerminatorIsReadWithinItsSixtyFourBytes) {
    const std::string text = "2024-03-" + std::string(54, '0') + "15";
    ASSERT_EQ(text.size(), sizeof(_G_SessionID));
    std::memcpy(_G_SessionID, text.data(), sizeof(_G_SessionID));
    velmora.NotifyTradeDateChange();
    EXPECT_EQ(TakeEvents(), std::vector<std::string>{LoggerEvent(2024, 3, 15)});
}

// A year of more digits than an int holds comes out as the largest int.
TEST_F(TradeDate, AYearBeyondIntIsClamped) {
    SetSessionID("99999999999-12-31");
    velmora.NotifyTradeDateChange();
    EXPECT_EQ(TakeEvents(), std::vector<std::string>{LoggerEvent(2147483647, 999999, 999)});
}

TEST_F(TradeDate, AnEmptyDateStillReachesTheListenersAndTheLogger) {
    ASSERT_EQ(_G_SessionID[0], '\0');  // the state after load
    DateListener listener("A");
    ASSERT_TRUE(velmora.RegisterDateChangeListener(&listener));
    velmora.NotifyTradeDateChange();
    EXPECT_EQ(TakeEvents(), (std::vector<std::string>{"listener A", LoggerEvent(0, 0, 0)}));
}

// The listeners see the logger still on the old date; it switches after the last of them.
TEST_F(TradeDate, ListenersHearOfTheDateBeforeTheLogger) {
    CQuorelLog* pClient = velmora.GetLogClient("dates", true, false, true);
    ASSERT_NE(pClient, nullptr);
    const std::string undated = ClientFile("Reports_dates.log");
    ASSERT_EQ(PathOf(pClient), undated);

    DateListener first("first"), second("second");
    std::vector<std::string> seen;
    first.onCall = [&] { seen.push_back(PathOf(pClient)); };
    second.onCall = [&] { seen.push_back(PathOf(pClient)); };
    ASSERT_TRUE(velmora.RegisterDateChangeListener(&first));
    ASSERT_TRUE(velmora.RegisterDateChangeListener(&second));
    SetSessionID("20240315");
    velmora.NotifyTradeDateChange();

    EXPECT_EQ(TakeEvents(), (std::vector<std::string>{"listener first", "listener second",
                                                      LoggerEvent(2024, 3, 15)}));
    EXPECT_EQ(seen, (std::vector<std::string>{undated, undated}));
    EXPECT_EQ(PathOf(pClient), ClientFile("Reports_dates_20240315.log"));
}

TEST_F(TradeDate, WithoutListenersTheLoggerStillGetsTheDate) {
    CQuorelLog* pClient = velmora.GetLogClient("dates", true, false, true);
    ASSERT_NE(pClient, nullptr);
    SetSessionID("2025/01/02");
    velmora.NotifyTradeDateChange();
    EXPECT_EQ(TakeEvents(), std::vector<std::string>{LoggerEvent(2025, 1, 2)});
    EXPECT_EQ(PathOf(pClient), ClientFile("Reports_dates_20250102.log"));
}

TEST_F(TradeDate, The256thListenerIsAcceptedAndEveryLaterOneRefused) {
    std::vector<DateListener> listeners(260);
    for (size_t i = 0; i < listeners.size(); ++i) {
        listeners[i].name = std::to_string(i);
        bool bEntered = velmora.RegisterDateChangeListener(&listeners[i]);
        EXPECT_EQ(bEntered, i < 256) << "registration " << i + 1;
    }
    // Refusals are counted too.
    EXPECT_EQ(velmora.nDateListeners, 260);
    EXPECT_EQ(velmora.pDateListeners[255], &listeners[255]);

    SetSessionID("20240315");
    velmora.NotifyTradeDateChange();
    std::vector<std::string> expected;
    for (int i = 0; i < 256; ++i) expected.push_back("listener " + std::to_string(i));
    expected.push_back(LoggerEvent(2024, 3, 15));
    EXPECT_EQ(TakeEvents(), expected);
    for (size_t i = 256; i < listeners.size(); ++i) EXPECT_EQ(listeners[i].nCalls, 0) << i;

    // The table stays full.
    DateListener late("late");
    EXPECT_FALSE(velmora.RegisterDateChangeListener(&late));
    EXPECT_EQ(velmora.nDateListeners, 261);
}

// A null place (a registration of null, or one whose store hasn't happened yet) is passed
// over; the count is read anew each round, so a listener entered during the walk is called.
TEST_F(TradeDate, TheWalkPassesOverNullPlacesAndReachesListenersEnteredDuringIt) {
    DateListener a("A"), b("B"), c("C");
    a.onCall = [&] { EXPECT_TRUE(velmora.RegisterDateChangeListener(&c)); };
    ASSERT_TRUE(velmora.RegisterDateChangeListener(nullptr));
    ASSERT_TRUE(velmora.RegisterDateChangeListener(&a));
    ASSERT_TRUE(velmora.RegisterDateChangeListener(&b));
    // A place taken but not yet written.
    velmora.nDateListeners++;
    SetSessionID("2024-03-15");
    velmora.NotifyTradeDateChange();
    EXPECT_EQ(TakeEvents(), (std::vector<std::string>{"listener A", "listener B", "listener C",
                                                      LoggerEvent(2024, 3, 15)}));
    EXPECT_EQ(velmora.pDateListeners[4], &c);
    EXPECT_EQ(velmora.nDateListeners, 5);
}

TEST_F(TradeDate, ConcurrentRegistrationsTakePlacesOfTheirOwn) {
    constexpr int kThreads = 8;
    constexpr int kEach = 40;  // 320 registrations for 256 places
    std::vector<DateListener> listeners(kThreads * kEach);
    std::vector<char> entered(listeners.size(), 0);
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            for (int k = 0; k < kEach; ++k) {
                size_t i = size_t(t * kEach + k);
                entered[i] = velmora.RegisterDateChangeListener(&listeners[i]) ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    EXPECT_EQ(velmora.nDateListeners, kThreads * kEach);
    EXPECT_EQ(std::count(entered.begin(), entered.end(), 1), 256);
    // Every place holds one of the entered listeners, each in one place only.
    std::set<CTradeDateChangeListenerInf*> places(std::begin(velmora.pDateListeners),
                                                  std::end(velmora.pDateListeners));
    std::set<CTradeDateChangeListenerInf*> accepted;
    for (size_t i = 0; i < listeners.size(); ++i)
        if (entered[i]) accepted.insert(&listeners[i]);
    EXPECT_EQ(places, accepted);

    velmora.NotifyTradeDateChange();
    for (size_t i = 0; i < listeners.size(); ++i)
        EXPECT_EQ(listeners[i].nCalls, entered[i]) << i;
}
