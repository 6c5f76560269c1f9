#include "admin/setup/WindowsMachine.h"

#include <winspool.h>

#include <algorithm>
#include <iterator>

#include "admin/channel/MonitorKey.h"
#include "base/Handles.h"

namespace {

constexpr int kServiceWaitSeconds = 60;
constexpr int kSpoolerWaitSeconds = 30;
constexpr wchar_t kEnvironmentKey[] =
    L"SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment";

struct ServiceTraits {
    using Type = SC_HANDLE;
    static constexpr SC_HANDLE kNone = nullptr;
    static void Close(SC_HANDLE service) noexcept { CloseServiceHandle(service); }
};
using UniqueService = UniqueResource<ServiceTraits>;

DWORD Result(BOOL worked) {
    return worked ? ERROR_SUCCESS : GetLastError();
}

// Null, with the last error set, when there is no such service or it may not be opened.
UniqueService OpenServiceFor(const std::wstring& name, DWORD access) {
    const UniqueService manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    return UniqueService(manager ? OpenServiceW(manager.Get(), name.c_str(), access) : nullptr);
}

DWORD CurrentState(const UniqueService& service) {
    SERVICE_STATUS status = {};
    return QueryServiceStatus(service.Get(), &status) ? status.dwCurrentState : 0;
}

DWORD WaitFor(const UniqueService& service, DWORD wanted, const Waiting& waiting) {
    for (int second = 0; CurrentState(service) != wanted; ++second) {
        if (second == kServiceWaitSeconds) {
            return ERROR_SERVICE_REQUEST_TIMEOUT;
        }
        // One that starts and ends at once says why.
        SERVICE_STATUS status = {};
        if (wanted == SERVICE_RUNNING && QueryServiceStatus(service.Get(), &status) &&
            status.dwCurrentState == SERVICE_STOPPED) {
            return status.dwWin32ExitCode != 0 ? status.dwWin32ExitCode : ERROR_SERVICE_NOT_ACTIVE;
        }
        waiting();
        Sleep(1000);
    }
    return ERROR_SUCCESS;
}

// The spooler takes a monitor only from who may load drivers; administrators may, but have to say
// that they want to.
void EnableDriverPrivilege() {
    UniqueFile token;
    TOKEN_PRIVILEGES privileges = {};
    privileges.PrivilegeCount = 1;
    privileges.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
    if (OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, token.Out()) &&
        LookupPrivilegeValueW(nullptr, SE_LOAD_DRIVER_NAME, &privileges.Privileges[0].Luid)) {
        AdjustTokenPrivileges(token.Get(), FALSE, &privileges, 0, nullptr, nullptr);
    }
}

// The spooler's environment is the system's, not this user's.
std::filesystem::path SpoolerTemporaryFolder() {
    wchar_t text[MAX_PATH];
    for (const wchar_t* name : {L"TMP", L"TEMP"}) {
        DWORD size = sizeof(text);
        if (RegGetValueW(HKEY_LOCAL_MACHINE, kEnvironmentKey, name, RRF_RT_REG_SZ, nullptr, text,
                         &size) == ERROR_SUCCESS &&
            text[0] != L'\0') {
            return text;
        }
    }
    return std::filesystem::path(text, text + GetSystemWindowsDirectoryW(text, MAX_PATH)) / L"Temp";
}

}  // namespace

bool WindowsMachine::IsElevated() {
    UniqueFile token;
    TOKEN_ELEVATION elevation = {};
    DWORD size = 0;
    return OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.Out()) &&
           GetTokenInformation(token.Get(), TokenElevation, &elevation, sizeof(elevation), &size) &&
           elevation.TokenIsElevated != 0;
}

bool WindowsMachine::IsX64() {
    // Windows before 10 knows neither the function nor ARM64.
    using Function = BOOL(WINAPI*)(HANDLE, USHORT*, USHORT*);
    const auto isWow64Process2 = reinterpret_cast<Function>(reinterpret_cast<void (*)()>(
        GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "IsWow64Process2")));
    USHORT process = 0;
    USHORT native = 0;
    return isWow64Process2 == nullptr || !isWow64Process2(GetCurrentProcess(), &process, &native) ||
           native == IMAGE_FILE_MACHINE_AMD64;
}

std::filesystem::path WindowsMachine::SystemFolder() {
    wchar_t folder[MAX_PATH];
    return std::filesystem::path(folder, folder + GetSystemDirectoryW(folder, MAX_PATH));
}

std::vector<std::filesystem::path> WindowsMachine::TemporaryFolders() {
    std::vector<std::filesystem::path> folders = {SpoolerTemporaryFolder()};
    wchar_t text[MAX_PATH + 1];
    const std::filesystem::path user(text, text + GetTempPathW(MAX_PATH + 1, text));
    std::error_code ignored;
    if (!std::filesystem::equivalent(user, folders.front(), ignored)) {
        folders.push_back(user);
    }
    // Later releases of Windows give the account of services a folder of its own.
    wchar_t windows[MAX_PATH];
    const auto system =
        std::filesystem::path(windows, windows + GetSystemWindowsDirectoryW(windows, MAX_PATH)) /
        L"SystemTemp";
    if (std::filesystem::exists(system, ignored)) {
        folders.push_back(system);
    }
    return folders;
}

std::wstring WindowsMachine::PrintKey() {
    return kPrintKey;
}

ServiceState WindowsMachine::SpoolerState() {
    const UniqueService service =
        OpenServiceFor(kSpoolerService, SERVICE_QUERY_STATUS | SERVICE_QUERY_CONFIG);
    if (const DWORD state = CurrentState(service); state != 0 && state != SERVICE_STOPPED) {
        return ServiceState::Running;
    }
    DWORD needed = 0;
    QueryServiceConfigW(service.Get(), nullptr, 0, &needed);
    std::vector<BYTE> buffer(std::max<size_t>(needed, sizeof(QUERY_SERVICE_CONFIGW)));
    auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
    return QueryServiceConfigW(service.Get(), config, static_cast<DWORD>(buffer.size()), &needed) &&
                   config->dwStartType == SERVICE_DISABLED
               ? ServiceState::Disabled
               : ServiceState::Stopped;
}

std::vector<std::wstring> WindowsMachine::RunningDependents() {
    const UniqueService service = OpenServiceFor(kSpoolerService, SERVICE_ENUMERATE_DEPENDENTS);
    DWORD needed = 0;
    DWORD count = 0;
    EnumDependentServicesW(service.Get(), SERVICE_ACTIVE, nullptr, 0, &needed, &count);
    std::vector<BYTE> buffer(needed);
    auto* const records = reinterpret_cast<ENUM_SERVICE_STATUSW*>(buffer.data());
    std::vector<std::wstring> names;
    if (needed != 0 &&
        EnumDependentServicesW(service.Get(), SERVICE_ACTIVE, records, needed, &needed, &count)) {
        std::transform(records, records + count, std::back_inserter(names),
                       [](const auto& record) { return record.lpServiceName; });
    }
    return names;
}

DWORD WindowsMachine::Stop(const std::wstring& name, const Waiting& waiting) {
    const UniqueService service = OpenServiceFor(name, SERVICE_STOP | SERVICE_QUERY_STATUS);
    SERVICE_STATUS status = {};
    if (!service) {
        return GetLastError();
    }
    if (!ControlService(service.Get(), SERVICE_CONTROL_STOP, &status)) {
        const DWORD error = GetLastError();
        if (error != ERROR_SERVICE_NOT_ACTIVE && CurrentState(service) != SERVICE_STOP_PENDING) {
            return error;
        }
    }
    return WaitFor(service, SERVICE_STOPPED, waiting);
}

DWORD WindowsMachine::Start(const std::wstring& name, const Waiting& waiting) {
    const UniqueService service = OpenServiceFor(name, SERVICE_START | SERVICE_QUERY_STATUS);
    // One that is still about to stop counts as running, and stops then.
    if (service && CurrentState(service) == SERVICE_STOP_PENDING) {
        WaitFor(service, SERVICE_STOPPED, waiting);
    }
    if (!service || (!::StartServiceW(service.Get(), 0, nullptr) &&
                     GetLastError() != ERROR_SERVICE_ALREADY_RUNNING)) {
        return GetLastError();
    }
    return WaitFor(service, SERVICE_RUNNING, waiting);
}

DWORD WindowsMachine::AddToSpooler() {
    EnableDriverPrivilege();
    std::wstring name = kMonitorName;
    std::wstring library = kMonitorLibrary;
    MONITOR_INFO_2W info = {name.data(), nullptr, library.data()};
    SetLastError(ERROR_SUCCESS);
    if (AddMonitorW(nullptr, 2, reinterpret_cast<BYTE*>(&info))) {
        return ERROR_SUCCESS;
    }
    const DWORD error = GetLastError();
    return error != ERROR_SUCCESS ? error : ERROR_PRINT_MONITOR_ALREADY_INSTALLED;
}

DWORD WindowsMachine::DeleteFromSpooler() {
    EnableDriverPrivilege();
    std::wstring name = kMonitorName;
    return Result(DeleteMonitorW(nullptr, nullptr, name.data()));
}

DWORD WindowsMachine::ListsMonitor(bool& listed) {
    listed = false;
    std::vector<BYTE> buffer;
    DWORD needed = 0;
    DWORD count = 0;
    int waited = 0;
    while (!EnumMonitorsW(nullptr, 1, buffer.data(), static_cast<DWORD>(buffer.size()), &needed,
                          &count)) {
        const DWORD error = GetLastError();
        if (error == RPC_S_SERVER_UNAVAILABLE && SpoolerState() == ServiceState::Running &&
            ++waited <= kSpoolerWaitSeconds) {
            Sleep(1000);  // its service has started, its door is not yet open
        } else if (error == ERROR_INSUFFICIENT_BUFFER && needed > buffer.size()) {
            buffer.resize(needed);
        } else {
            return error;
        }
    }
    const auto* info = reinterpret_cast<const MONITOR_INFO_1W*>(buffer.data());
    listed = std::any_of(info, info + count, [](const MONITOR_INFO_1W& monitor) {
        return lstrcmpiW(monitor.pName, kMonitorName) == 0;
    });
    return ERROR_SUCCESS;
}

DWORD WindowsMachine::Register() {
    return static_cast<DWORD>(RegSetKeyValueW(HKEY_LOCAL_MACHINE, MonitorKey(PrintKey()).c_str(),
                                              L"Driver", REG_SZ, kMonitorLibrary,
                                              sizeof(kMonitorLibrary)));
}

DWORD WindowsMachine::Unregister(bool keepPorts) {
    const std::wstring key = MonitorKey(PrintKey());
    return static_cast<DWORD>(keepPorts
                                  ? RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"Driver")
                                  : RegDeleteTreeW(HKEY_LOCAL_MACHINE, key.c_str()));
}

DWORD WindowsMachine::Copy(const std::filesystem::path& from, const std::filesystem::path& to) {
    if (!CopyFileW(from.c_str(), to.c_str(), FALSE)) {
        return GetLastError();
    }
    return Result(SetFileAttributesW(to.c_str(), FILE_ATTRIBUTE_NORMAL));
}

DWORD WindowsMachine::Move(const std::filesystem::path& from, const std::filesystem::path& to) {
    return Result(MoveFileExW(from.c_str(), to.c_str(), 0));
}

DWORD WindowsMachine::Delete(const std::filesystem::path& file) {
    return Result(DeleteFileW(file.c_str()));
}

DWORD WindowsMachine::DeleteAtNextStart(const std::filesystem::path& file) {
    return Result(MoveFileExW(file.c_str(), nullptr, MOVEFILE_DELAY_UNTIL_REBOOT));
}

// Nobody may write to a file that is loaded, however it was opened.
bool WindowsMachine::IsInUse(const std::filesystem::path& library) {
    const UniqueFile file(CreateFileW(library.c_str(), GENERIC_WRITE,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      nullptr, OPEN_EXISTING, 0, nullptr));
    // One that cannot be looked at may well be.
    return !file && GetLastError() != ERROR_FILE_NOT_FOUND &&
           GetLastError() != ERROR_PATH_NOT_FOUND;
}
