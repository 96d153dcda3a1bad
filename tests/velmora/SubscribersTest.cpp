// The subscriber table's order and limit, and the walks of every fan-out.
#include "include/Velmora.h"

#include <gtest/gtest.h>

namespace {

using Calls = std::vector<std::string>;
Calls g_calls;
HANDLE g_stop = nullptr;  // a repeat's stop event, looked at when the shutdown is heard

// Notes "<name>.<call>" (":1" if suspended by then); the maintenance steps answer `result`.
struct Module : CMaintenanceInf {
    using S = std::string;
    std::string name;
    int key;
    bool result = true;
    Module(std::string n, int k) : name(std::move(n)), key(k) {}
    bool Note(const std::string& what, bool bFlag = false) {
        g_calls.push_back(name + "." + what + (bFlag ? velmora.IsServerUnderSuspension() ? ":1" : ":0" : ""));
        return result;
    }
    int GetSubscribeOrder() override { return key; }
    bool PrepareDailyMaintenance(const char* a, const char*, const char*) override { return Note("prep:" + S(a)); }
    bool DoDailyMaintenance(const char* a, const char*, const char*) override { return Note("do:" + S(a)); }
    void PostDailyMaintenance(bool, const char* a, const char*, const char*) override { Note("post:" + S(a)); }
    void DailyMaintenanceDone() override { Note("done"); }
    void DumpRuntimeStates(CQuorelLog* log) override { Note(log ? "dump:log" : "dump:null"); }
    void NotifyConfigurationReloaded(const char* what) override { Note("reload:" + S(what)); }
    void PrintRuntimeStatus(const char* what) override { Note("status:" + S(what ? what : "null")); }
    void Suspend() override { Note("suspend", true); }
    void Resume() override { Note("resume", true); }
    void SuspendAndRefresh() override { Note("refresh", true); }
    void PrepareSystemsShutdown() override { Note(WaitForSingleObject(g_stop, 0) ? "running" : "stopped"); }
};
Calls Take() { return std::exchange(g_calls, {}); }

}  // namespace

// Key order, arrival order among equals (62, 63 first); a 65th comes in only once one leaves.
TEST(Subscribers, SortedByKeyAtMostSixtyFour) {
    std::vector<Module> modules;
    for (int i = 0; i < 65; ++i) modules.emplace_back(std::to_string(i), i < 64 ? 99 - i / 2 : 0);
    for (Module& m : modules) velmora.SubscribeMaitenance(&m);
    Calls expected;  // 62, 63, 60, 61, ..., 0, 1
    for (int i = 62; i >= 0; i -= 2) for (int j : {i, i + 1}) expected.push_back(std::to_string(j) + ".done");
    velmora.NotifyDailyMaintenanceDone();
    EXPECT_EQ(Take(), expected);
    velmora.UnsubscribeMaitenance(&modules[62]), velmora.UnsubscribeMaitenance(&modules[62]);
    velmora.SubscribeMaitenance(&modules[64]), velmora.NotifyDailyMaintenanceDone();
    expected[0] = "64.done";
    EXPECT_EQ(Take(), expected);
}

// Prepare/Do stop at a false; flags change before the walks; repeats stop before the shutdown.
TEST(Subscribers, FanOutsWalkInOrderWithTheirArguments) {
    Module a("A", 1), b("B", 2), c("C", 3);
    for (Module* m : {&c, &a, &b}) velmora.SubscribeMaitenance(m);
    b.result = false;
    EXPECT_FALSE(velmora.PrepareDailyMaintenance("p", "q", "r"));
    EXPECT_FALSE(velmora.DoDailyMaintenance("d", "e", "f"));
    velmora.PostDailyMaintenance(false, "a", "b", "c"), b.result = true;
    EXPECT_TRUE(velmora.DoDailyMaintenance("o", "-", "k"));
    velmora.UnsubscribeMaitenance(&c);
    velmora.mapCommandRepeats["localhost$$1"] = g_stop = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    velmora.Suspend(), velmora.SuspendAndRefresh(), velmora.Resume(), velmora.NotifyConfigurationReloaded("LOGIN");
    velmora.DumpRuntimeStates(reinterpret_cast<CQuorelLog*>(&g_stop)), velmora.PrepareSystemsShutdown();
    for (auto [szWhat, bToIni] : {std::pair<const char*, bool>{"iNi", true}, {nullptr, false}, {"INIX", false}}) {
        velmora.PrintRuntimeStatus(szWhat);
        EXPECT_EQ(velmora.bRuntimeStatusToIni, bToIni) << (szWhat ? szWhat : "null");
    }
    EXPECT_EQ(Take(), (Calls{"A.prep:p", "B.prep:p", "A.do:d", "B.do:d", "A.post:a", "B.post:a", "C.post:a",
                             "A.do:o", "B.do:o", "C.do:o", "A.suspend:1", "B.suspend:1", "A.refresh:1",
                             "B.refresh:1", "A.resume:0", "B.resume:0", "A.reload:LOGIN", "B.reload:LOGIN",
                             "A.dump:log", "B.dump:log", "A.stopped", "B.stopped", "A.status:iNi", "B.status:iNi",
                             "A.status:null", "B.status:null", "A.status:INIX", "B.status:INIX"}));
    velmora.mapCommandRepeats.clear(), CloseHandle(g_stop);
}
