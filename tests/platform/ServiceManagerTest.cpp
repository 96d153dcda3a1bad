// The service control manager: no service by default, stand-ins that tests install, the
// manager being unavailable, and handles that CloseServiceHandle refuses.
#include "VelmoraPlatform.h"
#include "VelmoraServiceStandIn.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

using velmora_platform::InstallServiceStandIn;
using velmora_platform::SetServiceManagerAvailable;

namespace {

class FakeService : public velmora_platform::ServiceStandIn {
public:
    bool QueryState(DWORD* pdwState) override {
        ++queries;
        if (queryWorks) *pdwState = state;
        return queryWorks;
    }
    bool Start() override {
        ++starts;
        return startWorks;
    }
    std::atomic<DWORD> state{SERVICE_STOPPED};
    std::atomic<bool> startWorks{true}, queryWorks{true};
    std::atomic<int> starts{0}, queries{0};
};

// Installs a stand-in for the length of a test, also when an assertion ends it early.
struct Installed {
    Installed(const char* name, FakeService* service) : name(name) {
        InstallServiceStandIn(name, service);
    }
    ~Installed() { InstallServiceStandIn(name, nullptr); }
    const char* name;
};

SC_HANDLE OpenManager() { return OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS); }

}  // namespace

TEST(ServiceManagerTest, ManagerOpensButNoServiceExistsByDefault) {
    SC_HANDLE manager = OpenManager();
    ASSERT_NE(manager, nullptr);
    EXPECT_EQ(OpenServiceA(manager, "VelmoraLogger", SERVICE_ALL_ACCESS), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_SERVICE_DOES_NOT_EXIST);
    EXPECT_TRUE(CloseServiceHandle(manager));
    EXPECT_FALSE(CloseServiceHandle(manager)) << "a handle closes once";
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST(ServiceManagerTest, StandInIsFoundWithoutRegardToCaseAndStartAndQueryReachIt) {
    FakeService service;
    Installed installed("VelmoraLogger", &service);
    SC_HANDLE manager = OpenManager();
    ASSERT_NE(manager, nullptr);
    SC_HANDLE handle = OpenServiceA(manager, "velmoraLOGGER", SERVICE_ALL_ACCESS);
    ASSERT_NE(handle, nullptr);
    SERVICE_STATUS status;
    ASSERT_TRUE(QueryServiceStatus(handle, &status));
    EXPECT_EQ(status.dwCurrentState, SERVICE_STOPPED);
    ASSERT_TRUE(StartServiceA(handle, 0, nullptr));
    EXPECT_EQ(service.starts.load(), 1);
    service.state = SERVICE_RUNNING;
    // The manager's handle may go first; the service's stays usable.
    EXPECT_TRUE(CloseServiceHandle(manager));
    ASSERT_TRUE(QueryServiceStatus(handle, &status));
    EXPECT_EQ(status.dwCurrentState, SERVICE_RUNNING);
    EXPECT_EQ(status.dwServiceType, SERVICE_WIN32_OWN_PROCESS);
    EXPECT_TRUE(CloseServiceHandle(handle));
    EXPECT_FALSE(QueryServiceStatus(handle, &status));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST(ServiceManagerTest, FailingStartAndQueryAreReportedAndLeaveTheStatusAlone) {
    FakeService service;
    Installed installed("Svc", &service);
    SC_HANDLE manager = OpenManager();
    SC_HANDLE handle = OpenServiceA(manager, "SVC", SERVICE_ALL_ACCESS);
    ASSERT_NE(handle, nullptr);
    service.startWorks = false;
    service.queryWorks = false;
    SetLastError(0);
    EXPECT_FALSE(StartServiceA(handle, 0, nullptr));
    EXPECT_NE(GetLastError(), ERROR_SUCCESS);
    SERVICE_STATUS status;
    std::memset(&status, 0xAB, sizeof status);
    SetLastError(0);
    EXPECT_FALSE(QueryServiceStatus(handle, &status));
    EXPECT_NE(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(status.dwCurrentState, 0xABABABABu);
    EXPECT_EQ(service.starts + service.queries, 2);
    EXPECT_TRUE(CloseServiceHandle(handle));
    EXPECT_TRUE(CloseServiceHandle(manager));
}

TEST(ServiceManagerTest, RemovedStandInAndUnavailableManagerAreNotReached) {
    FakeService service;
    InstallServiceStandIn("Gone", &service);
    SC_HANDLE manager = OpenManager();
    SC_HANDLE handle = OpenServiceA(manager, "Gone", SERVICE_ALL_ACCESS);
    ASSERT_NE(handle, nullptr);
    InstallServiceStandIn("GONE", nullptr);
    EXPECT_EQ(OpenServiceA(manager, "Gone", SERVICE_ALL_ACCESS), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_SERVICE_DOES_NOT_EXIST);
    // An open handle doesn't reach the removed object any more.
    EXPECT_FALSE(StartServiceA(handle, 0, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_SERVICE_DOES_NOT_EXIST);
    EXPECT_EQ(service.starts.load(), 0);
    EXPECT_TRUE(CloseServiceHandle(handle));

    SetServiceManagerAvailable(false);
    EXPECT_EQ(OpenManager(), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    SetServiceManagerAvailable(true);
    SC_HANDLE again = OpenManager();
    EXPECT_NE(again, nullptr);
    EXPECT_TRUE(CloseServiceHandle(again));
    EXPECT_TRUE(CloseServiceHandle(manager));
}

TEST(ServiceManagerTest, HandlesOfTheWrongKindAreRefused) {
    FakeService service;
    Installed installed("Svc", &service);
    SC_HANDLE manager = OpenManager();
    SC_HANDLE handle = OpenServiceA(manager, "Svc", SERVICE_ALL_ACCESS);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(OpenServiceA(handle, "Svc", SERVICE_ALL_ACCESS), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(StartServiceA(manager, 0, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);

    // CloseServiceHandle closes only what the manager handed out; a file stays open.
    velmora_test::TempDir dir;
    HANDLE file = CreateFileA(dir.file("f").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    EXPECT_FALSE(CloseServiceHandle(file));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    DWORD written = 0;
    EXPECT_TRUE(WriteFile(file, "x", 1, &written, nullptr));
    EXPECT_TRUE(CloseHandle(file));
    EXPECT_FALSE(CloseServiceHandle(nullptr));
    EXPECT_TRUE(CloseServiceHandle(handle));
    EXPECT_TRUE(CloseServiceHandle(manager));
}

TEST(ServiceManagerTest, ConcurrentUseWhileAStandInComesAndGoes) {
    FakeService service;
    service.state = SERVICE_RUNNING;
    std::atomic<bool> stop{false};
    std::atomic<int> unexpected{0};
    std::thread toggler([&] {
        for (bool on = true; !stop; on = !on) {
            InstallServiceStandIn("BUSY", on ? &service : nullptr);
            std::this_thread::yield();
        }
    });
    std::vector<std::thread> users;
    for (int t = 0; t < 4; ++t) {
        users.emplace_back([&] {
            for (int i = 0; i < 300; ++i) {
                SC_HANDLE manager = OpenManager();
                SC_HANDLE handle = OpenServiceA(manager, "busy", SERVICE_ALL_ACCESS);
                SERVICE_STATUS status;
                if (handle && QueryServiceStatus(handle, &status))
                    unexpected += status.dwCurrentState != SERVICE_RUNNING;
                else
                    unexpected += GetLastError() != ERROR_SERVICE_DOES_NOT_EXIST;
                unexpected += handle && !CloseServiceHandle(handle);
                unexpected += !CloseServiceHandle(manager);
            }
        });
    }
    for (auto& t : users) t.join();
    stop = true;
    toggler.join();
    InstallServiceStandIn("Busy", nullptr);
    EXPECT_EQ(unexpected.load(), 0);
}
