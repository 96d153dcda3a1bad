// The subscriber table's order and the walks of every fan-out.
#include "include/Velmora.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::vector<std::string> g_calls;

struct Module : CMaintenanceInf {
    std::string name;
    int key;
    bool maintenanceResult = true;
    bool suspendedWhenCalled = false;
    Module(std::string n, int k) : name(std::move(n)), key(k) {}
    int GetSubscribeOrder() override { return key; }
    bool PrepareDailyMaintenance(const char*, const char*, const char*) override {
        g_calls.push_back(name + ".prepare");
        return maintenanceResult;
    }
    bool DoDailyMaintenance(const char* a, const char*, const char*) override {
        g_calls.push_back(name + ".do:" + a);
        return maintenanceResult;
    }
    void PostDailyMaintenance(bool ok, const char*, const char*, const char*) override {
        g_calls.push_back(name + ".post:" + (ok ? "1" : "0"));
    }
    void DailyMaintenanceDone() override { g_calls.push_back(name + ".done"); }
    void DumpRuntimeStates(CQuorelLog* log) override {
        g_calls.push_back(name + ".dump:" + (log ? "log" : "null"));
    }
    void NotifyConfigurationReloaded(const char* what) override {
        g_calls.push_back(name + ".reloaded:" + what);
    }
    void Suspend() override {
        suspendedWhenCalled = velmora.IsServerUnderSuspension();
        g_calls.push_back(name + ".suspend");
    }
    void Resume() override {
        suspendedWhenCalled = velmora.IsServerUnderSuspension();
        g_calls.push_back(name + ".resume");
    }
    void SuspendAndRefresh() override { g_calls.push_back(name + ".refresh"); }
    void PrepareSystemsShutdown() override { g_calls.push_back(name + ".shutdown"); }
};

std::vector<std::string> Calls(const std::string& suffix) {
    std::vector<std::string> out;
    for (const std::string& c : g_calls)
        if (c.size() > suffix.size() && c.compare(c.size() - suffix.size(), suffix.size(), suffix) == 0)
            out.push_back(c.substr(0, c.size() - suffix.size()));
    return out;
}

}  // namespace

TEST(Subscribers, SortedByKeyWithArrivalOrderAmongEquals) {
    Module a("A", 5), b("B", 1), c("C", 5), d("D", 3);
    for (Module* m : {&a, &b, &c, &d}) velmora.SubscribeMaitenance(m);
    EXPECT_EQ(velmora.nSubscribers, 4);
    velmora.NotifyDailyMaintenanceDone();
    EXPECT_EQ(Calls(".done"), (std::vector<std::string>{"B", "D", "A", "C"}));

    // Removing the middle one keeps the others in order, each called once.
    g_calls.clear();
    velmora.UnsubscribeMaitenance(&d);
    EXPECT_EQ(velmora.nSubscribers, 3);
    velmora.NotifyDailyMaintenanceDone();
    EXPECT_EQ(Calls(".done"), (std::vector<std::string>{"B", "A", "C"}));
    EXPECT_EQ(velmora.pSubscribers[3], nullptr);

    // An unknown pointer changes nothing; a subscriber entered twice is called twice.
    velmora.UnsubscribeMaitenance(&d);
    EXPECT_EQ(velmora.nSubscribers, 3);
    velmora.SubscribeMaitenance(&b);
    g_calls.clear();
    velmora.NotifyDailyMaintenanceDone();
    EXPECT_EQ(Calls(".done"), (std::vector<std::string>{"B", "B", "A", "C"}));
}

TEST(Subscribers, TableHoldsSixtyFour) {
    std::vector<Module> modules;
    modules.reserve(66);
    for (int i = 0; i < 66; ++i) modules.emplace_back("M" + std::to_string(i), 100 + i);
    for (int i = 0; i < 64; ++i) velmora.SubscribeMaitenance(&modules[i]);
    EXPECT_EQ(velmora.nSubscribers, 64);
    // A 65th is ignored, even with the smallest key.
    modules[64].key = -1000;
    velmora.SubscribeMaitenance(&modules[64]);
    EXPECT_EQ(velmora.nSubscribers, 64);
    EXPECT_EQ(velmora.pSubscribers[0], &modules[0]);
    // Once one leaves, one more comes in, in key order.
    velmora.UnsubscribeMaitenance(&modules[63]);
    velmora.SubscribeMaitenance(&modules[64]);
    EXPECT_EQ(velmora.nSubscribers, 64);
    EXPECT_EQ(velmora.pSubscribers[0], &modules[64]);
    EXPECT_EQ(velmora.pSubscribers[63], &modules[62]);
    velmora.NotifyDailyMaintenanceDone();
    EXPECT_EQ(Calls(".done").size(), 64u);
}

TEST(Subscribers, DailyMaintenanceEndsAtTheFirstFalseButPostReachesAll) {
    EXPECT_TRUE(velmora.PrepareDailyMaintenance("x", "y", "z"));  // no subscribers
    EXPECT_TRUE(velmora.DoDailyMaintenance("x", "y", "z"));
    std::vector<Module> modules;
    modules.reserve(5);
    for (int i = 0; i < 5; ++i) modules.emplace_back(std::string(1, char('A' + i)), i);
    for (Module& m : modules) velmora.SubscribeMaitenance(&m);
    modules[2].maintenanceResult = false;

    EXPECT_FALSE(velmora.DoDailyMaintenance("day", "b", "c"));
    EXPECT_EQ(Calls(".do:day"), (std::vector<std::string>{"A", "B", "C"}));
    EXPECT_FALSE(velmora.PrepareDailyMaintenance("a", "b", "c"));
    EXPECT_EQ(Calls(".prepare"), (std::vector<std::string>{"A", "B", "C"}));
    velmora.PostDailyMaintenance(false, "a", "b", "c");
    EXPECT_EQ(Calls(".post:0"), (std::vector<std::string>{"A", "B", "C", "D", "E"}));

    modules[2].maintenanceResult = true;
    EXPECT_TRUE(velmora.DoDailyMaintenance("ok", "b", "c"));
    EXPECT_EQ(Calls(".do:ok").size(), 5u);
}

TEST(Subscribers, SuspensionFlagChangesBeforeTheSubscribersHear) {
    Module a("A", 1), b("B", 2);
    velmora.SubscribeMaitenance(&a);
    velmora.SubscribeMaitenance(&b);
    EXPECT_FALSE(velmora.IsServerUnderSuspension());
    velmora.Suspend();
    EXPECT_TRUE(a.suspendedWhenCalled);
    EXPECT_TRUE(b.suspendedWhenCalled);
    velmora.SuspendAndRefresh();
    EXPECT_TRUE(velmora.IsServerUnderSuspension());
    velmora.Resume();
    EXPECT_FALSE(a.suspendedWhenCalled);
    EXPECT_FALSE(velmora.IsServerUnderSuspension());
    velmora.Resume();  // twice is harmless: the subscribers hear it again
    EXPECT_EQ(Calls(".resume"), (std::vector<std::string>{"A", "B", "A", "B"}));
    EXPECT_EQ(Calls(".refresh"), (std::vector<std::string>{"A", "B"}));
}

TEST(Subscribers, FanOutsPassTheirArgumentsAndShutdownSignalsRepeats) {
    Module a("A", 1);
    velmora.SubscribeMaitenance(&a);
    velmora.DumpRuntimeStates(nullptr);
    velmora.NotifyConfigurationReloaded("LOGIN");
    EXPECT_EQ(Calls(".dump:null"), (std::vector<std::string>{"A"}));
    EXPECT_EQ(Calls(".reloaded:LOGIN"), (std::vector<std::string>{"A"}));

    // A running repeat's stop event is set before the subscribers hear of the shutdown.
    HANDLE hStop = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    velmora.mapCommandRepeats["localhost$$1"] = hStop;
    velmora.PrepareSystemsShutdown();
    EXPECT_EQ(WaitForSingleObject(hStop, 0), WAIT_OBJECT_0);
    EXPECT_EQ(Calls(".shutdown"), (std::vector<std::string>{"A"}));
    velmora.mapCommandRepeats.clear();
    CloseHandle(hStop);
}

TEST(Subscribers, AThrowingSubscriberStopsTheWalk) {
    struct Thrower : Module {
        using Module::Module;
        void DailyMaintenanceDone() override { throw win32_exception("module failed"); }
    } thrower("T", 1);
    Module after("Z", 2);
    velmora.SubscribeMaitenance(&thrower);
    velmora.SubscribeMaitenance(&after);
    EXPECT_THROW(velmora.NotifyDailyMaintenanceDone(), win32_exception);
    EXPECT_TRUE(Calls(".done").empty());
}
