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

// The callbacks of MONITORREG, and the functions of the print API that the monitor imports.
struct Callbacks {
    static FakeSpooler* Of(HANDLE spooler) { return static_cast<FakeSpooler*>(spooler); }

    static LONG WINAPI CreateKey(HANDLE key, LPCWSTR name, DWORD options, REGSAM access,
                                 PSECURITY_ATTRIBUTES security, PHANDLE result, PDWORD disposition,
                                 HANDLE spooler) {
        const LONG error = Of(spooler)->Called("create " + Narrow(name) + " " + Hex(access));
        return error != 0
                   ? error
                   : RegCreateKeyExW(static_cast<HKEY>(key), name, 0, nullptr, options, access,
                                     security, reinterpret_cast<PHKEY>(result), disposition);
    }
    static LONG WINAPI OpenKey(HANDLE key, LPCWSTR name, REGSAM access, PHANDLE result,
                               HANDLE spooler) {
        const LONG error = Of(spooler)->Called("open " + Narrow(name) + " " + Hex(access));
        return error != 0 ? error
                          : RegOpenKeyExW(static_cast<HKEY>(key), name, 0, access,
                                          reinterpret_cast<PHKEY>(result));
    }
    static LONG WINAPI CloseKey(HANDLE key, HANDLE spooler) {
        Of(spooler)->Called("fpclose");
        return RegCloseKey(static_cast<HKEY>(key));
    }
    static LONG WINAPI DeleteKey(HANDLE key, LPCWSTR name, HANDLE spooler) {
        const LONG error = Of(spooler)->Called("delete " + Narrow(name));
        return error != 0 ? error : RegDeleteKeyW(static_cast<HKEY>(key), name);
    }
    static LONG WINAPI EnumKey(HANDLE key, DWORD index, LPWSTR name, PDWORD size, PFILETIME time,
                               HANDLE spooler) {
        const LONG error = Of(spooler)->Called("enum " + std::to_string(index));
        return error != 0 ? error
                          : RegEnumKeyExW(static_cast<HKEY>(key), index, name, size, nullptr,
                                          nullptr, nullptr, time);
    }
    static LONG WINAPI QueryInfoKey(HANDLE key, PDWORD subKeys, PDWORD longest, PDWORD values,
                                    PDWORD, PDWORD, PDWORD, PFILETIME, HANDLE spooler) {
        const LONG error = Of(spooler)->Called("info");
        return error != 0
                   ? error
                   : RegQueryInfoKeyW(static_cast<HKEY>(key), nullptr, nullptr, nullptr, subKeys,
                                      longest, nullptr, values, nullptr, nullptr, nullptr, nullptr);
    }
    static LONG WINAPI SetValue(HANDLE key, LPCWSTR value, DWORD type, const BYTE* data, DWORD size,
                                HANDLE spooler) {
        const LONG error = Of(spooler)->Called("set " + Narrow(value) + " " + std::to_string(type) +
                                               " " + std::to_string(size));
        return error != 0 ? error
                          : RegSetValueExW(static_cast<HKEY>(key), value, 0, type, data, size);
    }
    static LONG WINAPI QueryValue(HANDLE key, LPCWSTR value, PDWORD type, PBYTE data, PDWORD size,
                                  HANDLE spooler) {
        const LONG error =
            Of(spooler)->Called("query " + Narrow(value) + " " + std::to_string(*size));
        return error != 0
                   ? error
                   : RegQueryValueExW(static_cast<HKEY>(key), value, nullptr, type, data, size);
    }

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
    patch("RegCloseKey", Callbacks::CloseRegistryKey);
    patch("RevertToPrinterSelf", Callbacks::Revert);
    patch("ImpersonatePrinterClient", Callbacks::Impersonate);
    patch("OpenPrinterW", Callbacks::OpenPrinter);
    patch("ClosePrinter", Callbacks::ClosePrinter);
    patch("SetJobW", Callbacks::SetJob);
    patch("LoadLibraryW", Callbacks::LoadSpoolerLibrary);
    patch("GetProcAddress", Callbacks::GetSpoolerProc);

    rootPath_ = L"Software\\kestmon test " + std::to_wstring(GetCurrentProcessId());
    RegDeleteTreeW(HKEY_CURRENT_USER, rootPath_.c_str());
    RegCreateKeyW(HKEY_CURRENT_USER, rootPath_.c_str(), &root_);
    registry_ = {.cbSize = sizeof(registry_),
                 .fpCreateKey = Callbacks::CreateKey,
                 .fpOpenKey = Callbacks::OpenKey,
                 .fpCloseKey = Callbacks::CloseKey,
                 .fpDeleteKey = Callbacks::DeleteKey,
                 .fpEnumKey = Callbacks::EnumKey,
                 .fpQueryInfoKey = Callbacks::QueryInfoKey,
                 .fpSetValue = Callbacks::SetValue,
                 .fpDeleteValue = nullptr,
                 .fpEnumValue = nullptr,
                 .fpQueryValue = Callbacks::QueryValue};
    init = {.cbSize = sizeof(init),
            .hSpooler = this,
            .hckRegistryRoot = root_,
            .pMonitorReg = &registry_,
            .bLocal = TRUE,
            .pszServerName = nullptr};
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
