#include "tests/support/FakeSpooler.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <utility>

namespace {

FakeSpooler* current = nullptr;  // for the functions that come without a handle

std::string Narrow(LPCWSTR text) {
    return text == nullptr ? "(null)" : std::filesystem::path(text).string();
}

std::string Hex(DWORD number) {
    char text[16];
    snprintf(text, sizeof(text), "%lx", number);
    return text;
}

}  // namespace

// The functions of the print API that the monitor imports.
struct PrintApi {
    static LONG WINAPI CloseRegistryKey(HKEY key) {
        current->Record("close");
        return RegCloseKey(key);
    }
    static HANDLE WINAPI Revert() {
        current->Record("revert");
        return reinterpret_cast<HANDLE>(0x77);
    }
    static BOOL WINAPI Impersonate(HANDLE token) {
        current->Record(token == reinterpret_cast<HANDLE>(0x77) ? "impersonate" : "WRONG TOKEN");
        return TRUE;
    }
    static BOOL WINAPI OpenPrinter(LPWSTR name, LPHANDLE printer, LPPRINTER_DEFAULTSW) {
        current->Record("OpenPrinter " + Narrow(name));
        if (current->printers.count(name) == 0) {
            SetLastError(ERROR_INVALID_PRINTER_NAME);
            return FALSE;
        }
        *printer = reinterpret_cast<HANDLE>(0x99);
        return TRUE;
    }
    static BOOL WINAPI ClosePrinter(HANDLE) {
        current->Record("ClosePrinter");
        SetLastError(ERROR_BUSY);  // a cleaning call may not cost the caller its last error
        return TRUE;
    }
    static BOOL WINAPI SetJob(HANDLE, DWORD job, DWORD, LPBYTE, DWORD command) {
        current->Record("SetJob " + std::to_string(job) + " " + std::to_string(command));
        SetLastError(ERROR_BUSY);
        return TRUE;
    }
    static HMODULE WINAPI LoadSpoolerLibrary(LPCWSTR path) {
        current->Record("LoadLibrary " + std::filesystem::path(path).filename().string());
        if (!current->hasSpoolerLibrary) {
            SetLastError(ERROR_MOD_NOT_FOUND);
            return nullptr;
        }
        return GetModuleHandleW(nullptr);
    }
    static FARPROC WINAPI GetSpoolerProc(HMODULE module, LPCSTR name) {
        if (strcmp(name, "EnumPortsW") == 0) {
            return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(EnumSpoolerPorts));
        }
        return ::GetProcAddress(module, name);
    }
    static BOOL WINAPI EnumSpoolerPorts(LPWSTR server, DWORD, LPBYTE buffer, DWORD size,
                                        LPDWORD needed, LPDWORD returned) {
        current->Record("EnumPorts " + Narrow(server));
        *needed = static_cast<DWORD>(current->spoolerPorts.size() * sizeof(PORT_INFO_1W));
        if (current->enumPortsError != 0 || size < *needed) {
            SetLastError(current->enumPortsError != 0 ? current->enumPortsError
                                                      : ERROR_INSUFFICIENT_BUFFER);
            return FALSE;
        }
        auto* info = reinterpret_cast<PORT_INFO_1W*>(buffer);
        for (auto& port : current->spoolerPorts) {
            (info++)->pName = port.data();
        }
        *returned = static_cast<DWORD>(current->spoolerPorts.size());
        return TRUE;
    }
};

FakeSpooler::FakeSpooler() {
    WCHAR self[MAX_PATH];
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    const auto library = std::filesystem::path(self).parent_path().parent_path() / "bin";
    dll = LoadLibraryExW((library / "kestmon.dll").c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    if (dll == nullptr) {
        throw std::runtime_error("kestmon.dll does not load: " + std::to_string(GetLastError()));
    }
    current = this;
    const auto patch = [this](const char* name, auto* function) {
        patches_.push_back(std::make_unique<ImportPatch>(dll, name, function));
    };
    patch("RegCloseKey", PrintApi::CloseRegistryKey);
    patch("RevertToPrinterSelf", PrintApi::Revert);
    patch("ImpersonatePrinterClient", PrintApi::Impersonate);
    patch("OpenPrinterW", PrintApi::OpenPrinter);
    patch("ClosePrinter", PrintApi::ClosePrinter);
    patch("SetJobW", PrintApi::SetJob);
    patch("LoadLibraryW", PrintApi::LoadSpoolerLibrary);
    patch("GetProcAddress", PrintApi::GetSpoolerProc);

    rootPath_ = L"Software\\kestmon test " + std::to_wstring(GetCurrentProcessId());
    RegDeleteTreeW(HKEY_CURRENT_USER, rootPath_.c_str());
    RegCreateKeyW(HKEY_CURRENT_USER, rootPath_.c_str(), &root_);
    init = MonitorInit(root_);
}

FakeSpooler::~FakeSpooler() {
    Stop();
    patches_.clear();
    FreeLibrary(dll);
    RegCloseKey(root_);
    RegDeleteTreeW(HKEY_CURRENT_USER, rootPath_.c_str());
    current = nullptr;
}

bool FakeSpooler::Start() {
    using Initialize = LPMONITOR2(WINAPI*)(PMONITORINIT, PHANDLE);
    const auto initialize = reinterpret_cast<Initialize>(
        reinterpret_cast<void*>(::GetProcAddress(dll, "InitializePrintMonitor2")));
    table = initialize(&init, &monitor);
    return table != nullptr;
}

void FakeSpooler::Stop() {
    if (table != nullptr) {
        table->pfnShutdown(monitor);
        table = nullptr;
    }
}

void FakeSpooler::SetPortKey(const std::wstring& port) const {
    HKEY key = nullptr;
    RegCreateKeyW(root_, (L"Ports\\" + port).c_str(), &key);
    RegCloseKey(key);
}

void FakeSpooler::SetText(const std::wstring& port, const wchar_t* value,
                          const std::wstring& text) const {
    const auto* bytes = reinterpret_cast<const BYTE*>(text.c_str());
    SetBytes(port, value, REG_SZ, {bytes, bytes + (text.size() + 1) * sizeof(WCHAR)});
}

void FakeSpooler::SetNumber(const std::wstring& port, const wchar_t* value, DWORD number) const {
    RegSetKeyValueW(root_, (L"Ports\\" + port).c_str(), value, REG_DWORD, &number, sizeof(number));
}

void FakeSpooler::SetBytes(const std::wstring& port, const wchar_t* value, DWORD type,
                           const std::vector<BYTE>& bytes) const {
    RegSetKeyValueW(root_, (L"Ports\\" + port).c_str(), value, type, bytes.data(),
                    static_cast<DWORD>(bytes.size()));
}

std::wstring FakeSpooler::Text(const std::wstring& port, const wchar_t* value) const {
    WCHAR text[512] = {};
    DWORD size = sizeof(text);
    return RegGetValueW(root_, (L"Ports\\" + port).c_str(), value, RRF_RT_REG_SZ, nullptr, text,
                        &size) == ERROR_SUCCESS
               ? text
               : L"-";
}

int FakeSpooler::Number(const std::wstring& port, const wchar_t* value) const {
    DWORD number = 0;
    DWORD size = sizeof(number);
    return RegGetValueW(root_, (L"Ports\\" + port).c_str(), value, RRF_RT_REG_DWORD, nullptr,
                        &number, &size) == ERROR_SUCCESS
               ? static_cast<int>(number)
               : -1;
}

bool FakeSpooler::HasPortKey(const std::wstring& port) const {
    HKEY key = nullptr;
    const bool there = RegOpenKeyW(root_, (L"Ports\\" + port).c_str(), &key) == ERROR_SUCCESS;
    RegCloseKey(key);
    return there;
}

void FakeSpooler::ConfigurePort(const std::wstring& port, DWORD protocol, WORD tcpPort,
                                bool doubleSpool, const wchar_t* address) const {
    SetText(port, L"IPAddress", address);
    SetText(port, L"Queue", L"lp");
    SetNumber(port, L"PortNumber", tcpPort);
    SetNumber(port, L"Protocol", protocol);
    SetNumber(port, L"Double Spool", doubleSpool ? 1 : 0);
}

HANDLE FakeSpooler::Open(const std::wstring& port) const {
    HANDLE handle = nullptr;
    return table->pfnOpenPort(monitor, const_cast<LPWSTR>(port.c_str()), &handle) ? handle
                                                                                  : nullptr;
}

HANDLE FakeSpooler::OpenXcv(ACCESS_MASK access) const {
    HANDLE handle = nullptr;
    table->pfnXcvOpenPort(monitor, L"", access, &handle);
    return handle;
}

DWORD FakeSpooler::Xcv(HANDLE xcv, LPCWSTR command, std::wstring name) const {
    return table->pfnXcvDataPort(xcv, command, reinterpret_cast<PBYTE>(name.data()),
                                 static_cast<DWORD>((name.size() + 1) * sizeof(WCHAR)), nullptr, 0,
                                 nullptr);
}

DWORD FakeSpooler::AddPort(LPCWSTR name, DWORD level, LPWSTR server) const {
    const auto bytes = reinterpret_cast<LPBYTE>(&name);
    return table->pfnAddPortEx(monitor, server, level, bytes, nullptr) ? 0 : GetLastError();
}

HANDLE FakeSpooler::OpenNew(const std::wstring& port, DWORD protocol, WORD tcpPort,
                            bool doubleSpool) const {
    AddPort(port.c_str());
    ConfigurePort(port, protocol, tcpPort, doubleSpool);
    return Open(port);
}

BOOL FakeSpooler::Start(HANDLE port, const wchar_t* printer, DWORD job) const {
    return table->pfnStartDocPort(port, const_cast<LPWSTR>(printer), job, 1, nullptr);
}

BOOL FakeSpooler::Write(HANDLE port, std::string data, DWORD& written) const {
    return table->pfnWritePort(port, reinterpret_cast<LPBYTE>(data.data()),
                               static_cast<DWORD>(data.size()), &written);
}

bool FakeSpooler::WriteAll(HANDLE port, std::string data) const {
    DWORD written = 0;
    while (!data.empty() && Write(port, data, written)) {
        data.erase(0, written);
    }
    return data.empty();
}

std::vector<std::string> FakeSpooler::TakeCalls() {
    std::lock_guard lock(mutex_);
    return std::exchange(calls_, {});
}

std::vector<std::string> FakeSpooler::TakeJobCalls() {
    auto calls = TakeCalls();
    std::erase_if(calls, [](const std::string& call) {
        return call.find("Printer") == call.npos && call.find("SetJob") == call.npos;
    });
    return calls;
}

void FakeSpooler::Record(const std::string& call) {
    if (listener) {
        listener(call);
        return;
    }
    std::lock_guard lock(mutex_);
    calls_.push_back(call);
}

LONG FakeSpooler::Called(const std::string& call) {
    if (listener) {
        return listener(call);
    }
    Record(call);
    for (const auto& [start, error] : failures) {
        if (call.compare(0, start.size(), start) == 0) {
            return error;
        }
    }
    return ERROR_SUCCESS;
}

LONG FakeSpooler::CreateKey(HKEY key, LPCWSTR name, DWORD options, REGSAM access,
                            SECURITY_ATTRIBUTES* security, HKEY* result, DWORD* disposition) {
    const LONG error = Called("create " + Narrow(name) + " " + Hex(access));
    return error != 0 ? error
                      : MonitorRegistry::CreateKey(key, name, options, access, security, result,
                                                   disposition);
}

LONG FakeSpooler::OpenKey(HKEY key, LPCWSTR name, REGSAM access, HKEY* result) {
    const LONG error = Called("open " + Narrow(name) + " " + Hex(access));
    return error != 0 ? error : MonitorRegistry::OpenKey(key, name, access, result);
}

LONG FakeSpooler::CloseKey(HKEY key) {
    Called("fpclose");
    return MonitorRegistry::CloseKey(key);
}

LONG FakeSpooler::DeleteKey(HKEY key, LPCWSTR name) {
    const LONG error = Called("delete " + Narrow(name));
    return error != 0 ? error : MonitorRegistry::DeleteKey(key, name);
}

LONG FakeSpooler::EnumKey(HKEY key, DWORD index, LPWSTR name, DWORD* length, FILETIME* written) {
    const LONG error = Called("enum " + std::to_string(index));
    return error != 0 ? error : MonitorRegistry::EnumKey(key, index, name, length, written);
}

LONG FakeSpooler::QueryInfoKey(HKEY key, DWORD* subkeys, DWORD* longestSubkey, DWORD* values,
                               DWORD* longestValueName, DWORD* longestData, DWORD* security,
                               FILETIME* written) {
    const LONG error = Called("info");
    return error != 0
               ? error
               : MonitorRegistry::QueryInfoKey(key, subkeys, longestSubkey, values,
                                               longestValueName, longestData, security, written);
}

LONG FakeSpooler::SetValue(HKEY key, LPCWSTR name, DWORD type, const BYTE* data, DWORD size) {
    const LONG error =
        Called("set " + Narrow(name) + " " + std::to_string(type) + " " + std::to_string(size));
    return error != 0 ? error : MonitorRegistry::SetValue(key, name, type, data, size);
}

LONG FakeSpooler::QueryValue(HKEY key, LPCWSTR name, DWORD* type, BYTE* data, DWORD* size) {
    const LONG error = Called("query " + Narrow(name) + " " + std::to_string(*size));
    return error != 0 ? error : MonitorRegistry::QueryValue(key, name, type, data, size);
}
