// Services and a print spooler that change their state, refuse and fail by plan. Time passes by
// Sleep alone, so no test waits.
#include "admin/setup/WindowsMachine.h"

#include <winspool.h>

#include <gmock/gmock.h>

#include <fstream>
#include <map>

#include "base/Handles.h"
#include "tests/support/ImportPatch.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Plan = std::map<int, DWORD>;  // second, state from then on

struct Service {
    Plan states = {{0, SERVICE_RUNNING}};
    Plan statesOnceStarted = {{0, SERVICE_RUNNING}};
    DWORD exitCode = NO_ERROR;
    DWORD refusal = NO_ERROR;  // error of starting and of stopping it
    DWORD startType = SERVICE_AUTO_START;
    std::vector<std::wstring> dependents = {};
};
std::map<std::wstring, Service> services;
std::vector<std::wstring> monitors;  // that the spooler lists
int spoolerOpensAt = 0;              // second
DWORD spoolerRefusal = NO_ERROR;
int second = 0;
int beginning = 0;  // of the plan

BOOL Fail(DWORD error) {
    SetLastError(error);
    return error == NO_ERROR;
}
Service& Of(SC_HANDLE service) {
    return *reinterpret_cast<Service*>(service);
}

SC_HANDLE WINAPI OpenManager(LPCWSTR, LPCWSTR, DWORD) {
    return reinterpret_cast<SC_HANDLE>(&services);
}
SC_HANDLE WINAPI OpenOne(SC_HANDLE, LPCWSTR name, DWORD) {
    const auto found = services.find(name);
    if (found == services.end()) {
        SetLastError(ERROR_SERVICE_DOES_NOT_EXIST);
        return nullptr;
    }
    return reinterpret_cast<SC_HANDLE>(&found->second);
}
BOOL WINAPI Close(SC_HANDLE) {
    return TRUE;
}
BOOL WINAPI QueryStatus(SC_HANDLE service, LPSERVICE_STATUS status) {
    if (service == nullptr) {
        return Fail(ERROR_INVALID_HANDLE);
    }
    status->dwCurrentState = std::prev(Of(service).states.upper_bound(second - beginning))->second;
    status->dwWin32ExitCode = Of(service).exitCode;
    return TRUE;
}
BOOL WINAPI QueryConfig(SC_HANDLE service, LPQUERY_SERVICE_CONFIGW config, DWORD size,
                        LPDWORD needed) {
    *needed = sizeof(*config) + 100;  // its texts
    if (service == nullptr || size < *needed) {
        return Fail(service == nullptr ? ERROR_INVALID_HANDLE : ERROR_INSUFFICIENT_BUFFER);
    }
    config->dwStartType = Of(service).startType;
    return TRUE;
}
BOOL WINAPI Dependents(SC_HANDLE service, DWORD, LPENUM_SERVICE_STATUSW records, DWORD size,
                       LPDWORD needed, LPDWORD count) {
    auto& names = Of(service).dependents;
    *needed = static_cast<DWORD>(names.size() * sizeof(*records));
    if (size < *needed) {
        return Fail(ERROR_MORE_DATA);
    }
    for (std::wstring& name : names) {
        records++->lpServiceName = name.data();
    }
    *count = static_cast<DWORD>(names.size());
    return TRUE;
}
BOOL WINAPI Control(SC_HANDLE service, DWORD, LPSERVICE_STATUS) {
    return Fail(Of(service).refusal);
}
BOOL WINAPI StartOne(SC_HANDLE service, DWORD, LPCWSTR*) {
    if (Of(service).refusal == NO_ERROR) {
        Of(service).states = Of(service).statesOnceStarted;
        beginning = second;
    }
    return Fail(Of(service).refusal);
}
void WINAPI PassTime(DWORD milliseconds) {
    second += static_cast<int>(milliseconds / 1000);
}
BOOL WINAPI ListMonitors(LPWSTR, DWORD, LPBYTE buffer, DWORD size, LPDWORD needed, LPDWORD count) {
    if (spoolerRefusal != NO_ERROR || second < spoolerOpensAt) {
        return Fail(spoolerRefusal != NO_ERROR ? spoolerRefusal : RPC_S_SERVER_UNAVAILABLE);
    }
    auto* info = reinterpret_cast<MONITOR_INFO_1W*>(buffer);
    *needed = static_cast<DWORD>(monitors.size() * sizeof(*info));
    if (size < *needed) {
        return Fail(ERROR_INSUFFICIENT_BUFFER);
    }
    for (std::wstring& name : monitors) {
        info++->pName = name.data();
    }
    *count = static_cast<DWORD>(monitors.size());
    return TRUE;
}
BOOL WINAPI Add(LPWSTR, DWORD, LPBYTE) {
    return SetLastError(spoolerRefusal), FALSE;
}

class WindowsMachineTest : public testing::Test {
  protected:
    WindowsMachineTest() {
        services = {{L"Spooler", {}}};
        monitors.clear();
        spoolerRefusal = NO_ERROR;
        second = beginning = spoolerOpensAt = 0;
    }
    Service& Spooler() { return services[L"Spooler"]; }

    // The result of stopping or starting the service, with the seconds that it was waited for.
    std::pair<DWORD, int> Run(DWORD (WindowsMachine::*call)(const std::wstring&, const Waiting&),
                              const Service& service) {
        second = beginning = 0;
        Spooler() = service;
        int waited = 0;
        const DWORD code = (machine.*call)(L"Spooler", [&waited] { ++waited; });
        EXPECT_EQ(waited, second);
        return {code, second};
    }

    WindowsMachine machine;

  private:
    const HMODULE self_ = GetModuleHandleW(nullptr);
    const ImportPatch patches_[11] = {{self_, "OpenSCManagerW", OpenManager},
                                      {self_, "OpenServiceW", OpenOne},
                                      {self_, "CloseServiceHandle", Close},
                                      {self_, "QueryServiceStatus", QueryStatus},
                                      {self_, "QueryServiceConfigW", QueryConfig},
                                      {self_, "EnumDependentServicesW", Dependents},
                                      {self_, "ControlService", Control},
                                      {self_, "StartServiceW", StartOne},
                                      {self_, "Sleep", PassTime},
                                      {self_, "EnumMonitorsW", ListMonitors},
                                      {self_, "AddMonitorW", Add}};
};

TEST_F(WindowsMachineTest, StopWaitsUntilTheServiceHasStopped) {
    const struct {
        Service service;
        std::pair<DWORD, int> result;
    } cases[] = {
        {{.states = {{0, SERVICE_RUNNING}, {1, SERVICE_STOP_PENDING}, {3, SERVICE_STOPPED}}},
         {ERROR_SUCCESS, 3}},
        {{.states = {{0, SERVICE_STOP_PENDING}, {2, SERVICE_STOPPED}},
          .refusal = ERROR_SERVICE_CANNOT_ACCEPT_CTRL},
         {ERROR_SUCCESS, 2}},
        {{.states = {{0, SERVICE_STOPPED}}, .refusal = ERROR_SERVICE_NOT_ACTIVE},
         {ERROR_SUCCESS, 0}},
        {{.refusal = ERROR_DEPENDENT_SERVICES_RUNNING}, {ERROR_DEPENDENT_SERVICES_RUNNING, 0}},
        {{.states = {{0, SERVICE_STOP_PENDING}}}, {ERROR_SERVICE_REQUEST_TIMEOUT, 60}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Run(&WindowsMachine::Stop, c.service), c.result);
    }
    EXPECT_EQ(machine.Stop(L"Fax", [] {}), ERROR_SERVICE_DOES_NOT_EXIST);
}

TEST_F(WindowsMachineTest, StartWaitsUntilTheServiceRunsOrReportsWhyItEnded) {
    const Plan stopped = {{0, SERVICE_STOPPED}};
    const Plan endsAtOnce = {{0, SERVICE_START_PENDING}, {1, SERVICE_STOPPED}};
    const struct {
        Service service;
        std::pair<DWORD, int> result;
    } cases[] = {
        {{.states = stopped,
          .statesOnceStarted = {{0, SERVICE_START_PENDING}, {2, SERVICE_RUNNING}}},
         {ERROR_SUCCESS, 2}},
        // It must not be taken for a service that runs.
        {{.states = {{0, SERVICE_STOP_PENDING}, {4, SERVICE_STOPPED}}}, {ERROR_SUCCESS, 4}},
        {{.refusal = ERROR_SERVICE_ALREADY_RUNNING}, {ERROR_SUCCESS, 0}},
        {{.states = stopped, .refusal = ERROR_SERVICE_DISABLED}, {ERROR_SERVICE_DISABLED, 0}},
        {{.states = stopped,
          .statesOnceStarted = endsAtOnce,
          .exitCode = ERROR_SERVICE_LOGON_FAILED},
         {ERROR_SERVICE_LOGON_FAILED, 1}},
        {{.states = stopped, .statesOnceStarted = endsAtOnce}, {ERROR_SERVICE_NOT_ACTIVE, 1}},
        {{.states = stopped, .statesOnceStarted = {{0, SERVICE_START_PENDING}}},
         {ERROR_SERVICE_REQUEST_TIMEOUT, 60}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Run(&WindowsMachine::Start, c.service), c.result);
    }
    EXPECT_EQ(machine.Start(L"Fax", [] {}), ERROR_SERVICE_DOES_NOT_EXIST);
}

TEST_F(WindowsMachineTest, TellsTheStateOfTheSpoolerAndWhatDependsOnIt) {
    EXPECT_EQ(machine.SpoolerState(), ServiceState::Running);
    EXPECT_THAT(machine.RunningDependents(), IsEmpty());
    Spooler().dependents = {L"Fax", L"LPDSVC"};
    EXPECT_THAT(machine.RunningDependents(), ElementsAre(L"Fax", L"LPDSVC"));
    Spooler().states = {{0, SERVICE_START_PENDING}};
    EXPECT_EQ(machine.SpoolerState(), ServiceState::Running);
    Spooler().states = {{0, SERVICE_STOPPED}};
    EXPECT_EQ(machine.SpoolerState(), ServiceState::Stopped);
    Spooler().startType = SERVICE_DISABLED;
    EXPECT_EQ(machine.SpoolerState(), ServiceState::Disabled);
    services.clear();
    EXPECT_EQ(machine.SpoolerState(), ServiceState::Stopped);
}

TEST_F(WindowsMachineTest, WaitsForASpoolerThatHasJustStarted) {
    bool listed = false;
    monitors = {L"Local Port", L"KESTMON"};
    spoolerOpensAt = 20;
    EXPECT_EQ(machine.ListsMonitor(listed), ERROR_SUCCESS);
    EXPECT_TRUE(listed);
    EXPECT_EQ(second, 20);
    monitors = {L"Local Port"};
    EXPECT_EQ(machine.ListsMonitor(listed), ERROR_SUCCESS);
    EXPECT_FALSE(listed);

    spoolerOpensAt = 1000;
    EXPECT_EQ(machine.ListsMonitor(listed), DWORD{RPC_S_SERVER_UNAVAILABLE});
    EXPECT_EQ(second, 50);
    Spooler().states = {{0, SERVICE_STOPPED}};
    EXPECT_EQ(machine.ListsMonitor(listed), DWORD{RPC_S_SERVER_UNAVAILABLE});
    spoolerRefusal = ERROR_ACCESS_DENIED;
    EXPECT_EQ(machine.ListsMonitor(listed), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(second, 50) << "nothing to wait for";
}

TEST_F(WindowsMachineTest, ARefusalOfTheSpoolerIsNeverASuccess) {
    EXPECT_EQ(machine.AddToSpooler(), DWORD{ERROR_PRINT_MONITOR_ALREADY_INSTALLED});
    spoolerRefusal = ERROR_MOD_NOT_FOUND;
    EXPECT_EQ(machine.AddToSpooler(), DWORD{ERROR_MOD_NOT_FOUND});
}

TEST_F(WindowsMachineTest, AFileThatAProgramHasOpenIsInUse) {
    const std::filesystem::path file = std::filesystem::temp_directory_path() /
                                       (L"kest-in-use-" + std::to_wstring(GetCurrentProcessId()));
    EXPECT_FALSE(machine.IsInUse(file));
    EXPECT_FALSE(machine.IsInUse(file / L"in a folder that does not exist"));
    std::ofstream(file) << "library";
    EXPECT_FALSE(machine.IsInUse(file));
    {
        // As the loader opens a library.
        const UniqueFile held(CreateFileW(file.c_str(), GENERIC_READ,
                                          FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                          OPEN_EXISTING, 0, nullptr));
        ASSERT_TRUE(held);
        EXPECT_TRUE(machine.IsInUse(file));
    }
    EXPECT_EQ(machine.Delete(file), ERROR_SUCCESS);
    EXPECT_EQ(machine.Delete(file), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(machine.Copy(file, file), DWORD{ERROR_FILE_NOT_FOUND});
}

}  // namespace
