#include "monitor/PortConfig.h"

#include <algorithm>
#include <cstdint>
#include <cwchar>

#include "monitor/Library.h"
#include "monitor/PortText.h"

namespace {

constexpr WCHAR kPortsKey[] = L"Ports";

// The spooler's own security context for the length of a scope: its registry key is not open to
// the clients that it impersonates.
class SpoolerContext {
  public:
    SpoolerContext() noexcept : clientToken_(RevertToPrinterSelf()) {}
    ~SpoolerContext() {
        if (clientToken_ != nullptr) {
            ImpersonatePrinterClient(clientToken_);
        }
    }
    SpoolerContext(const SpoolerContext&) = delete;
    SpoolerContext& operator=(const SpoolerContext&) = delete;

  private:
    HANDLE clientToken_;
};

// The text of a record's field, which may lack a terminator, with one.
template <size_t N>
struct FieldText {
    explicit FieldText(const WCHAR (&field)[N]) { std::copy_n(field, wcsnlen(field, N), text); }
    WCHAR text[N + 1] = {};
};

// A registry key, opened through the spooler's callbacks. One that could not be opened is null;
// what is then read from it or written to it fails with the callbacks' own error.
class Key {
  public:
    static HANDLE Root() { return MonitorInit()->hckRegistryRoot; }
    HANDLE Get() const { return key_.Get(); }

    DWORD Open(HANDLE parent, LPCWSTR name, REGSAM access) {
        HANDLE key = nullptr;
        const DWORD error = Registry().fpOpenKey(parent, name, access, &key, Spooler());
        return Keep(key, error);
    }

    DWORD Create(HANDLE parent, LPCWSTR name, REGSAM access) {
        HANDLE key = nullptr;
        DWORD disposition = 0;
        const DWORD error = Registry().fpCreateKey(parent, name, REG_OPTION_NON_VOLATILE, access,
                                                   nullptr, &key, &disposition, Spooler());
        return Keep(key, error);
    }

    void Delete(LPCWSTR name) { Registry().fpDeleteKey(Get(), name, Spooler()); }

    // Reads into a text field of a record. Whatever the value is (not text at all, too long, of
    // an odd size, without a terminator), the field is terminated text afterwards.
    template <size_t N>
    DWORD Read(LPCWSTR value, WCHAR (&field)[N]) {
        DWORD size = sizeof(field);
        const DWORD error = Query(value, field, size);
        EndText(field, N, error == ERROR_SUCCESS ? size / sizeof(WCHAR) : N);
        return error;
    }

    DWORD Read(LPCWSTR value, DWORD& field) {
        DWORD size = sizeof(field);
        return Query(value, &field, size);
    }

    DWORD WriteText(LPCWSTR value, LPCWSTR text) {
        return Set(value, REG_SZ, text, (wcslen(text) + 1) * sizeof(WCHAR));
    }

    template <size_t N>
    void WriteField(LPCWSTR value, const WCHAR (&field)[N]) {
        WriteText(value, FieldText(field).text);
    }

    template <size_t N>
    void WriteFieldUnlessEmpty(LPCWSTR value, const WCHAR (&field)[N]) {
        if (field[0] != L'\0') {
            WriteField(value, field);
        }
    }

    DWORD WriteNumber(LPCWSTR value, DWORD number) {
        return Set(value, REG_DWORD, &number, sizeof(number));
    }

  private:
    static MONITORREG& Registry() { return *MonitorInit()->pMonitorReg; }
    static HANDLE Spooler() { return MonitorInit()->hSpooler; }

    DWORD Keep(HANDLE key, DWORD error) {
        key_.Reset(error == ERROR_SUCCESS ? static_cast<HKEY>(key) : nullptr);
        return error;
    }

    DWORD Query(LPCWSTR value, void* data, DWORD& size) {
        DWORD type = 0;
        return Registry().fpQueryValue(Get(), value, &type, static_cast<BYTE*>(data), &size,
                                       Spooler());
    }

    DWORD Set(LPCWSTR value, DWORD type, const void* data, size_t size) {
        return Registry().fpSetValue(Get(), value, type, static_cast<const BYTE*>(data),
                                     static_cast<DWORD>(size), Spooler());
    }

    // Compatibility: RegCloseKey closes a port's keys, not the spooler's callback; observers of the
    // callbacks rely on seeing one call of fpCloseKey, that of the list of names.
    UniqueRegistryKey key_;
};

// The "Ports" key while the names below it are read, closed as it was opened.
class PortNamesKey {
  public:
    PortNamesKey(const MONITORREG& registry, HANDLE spooler)
        : registry_(registry), spooler_(spooler) {}
    ~PortNamesKey() {
        if (key_ != nullptr) {
            registry_.fpCloseKey(key_, spooler_);
        }
    }
    PortNamesKey(const PortNamesKey&) = delete;
    PortNamesKey& operator=(const PortNamesKey&) = delete;

    DWORD Create(HANDLE root) {
        DWORD disposition = 0;
        const LONG error = registry_.fpCreateKey(root, kPortsKey, REG_OPTION_NON_VOLATILE, KEY_READ,
                                                 nullptr, &key_, &disposition, spooler_);
        if (error != ERROR_SUCCESS) {
            key_ = nullptr;
        }
        return error;
    }

    DWORD QueryInfo(DWORD& count, DWORD& longest) {
        return registry_.fpQueryInfoKey(key_, &count, &longest, nullptr, nullptr, nullptr, nullptr,
                                        nullptr, spooler_);
    }

    DWORD Enumerate(DWORD index, LPWSTR name, DWORD& room) {
        return registry_.fpEnumKey(key_, index, name, &room, nullptr, spooler_);
    }

  private:
    const MONITORREG& registry_;
    HANDLE spooler_;
    HANDLE key_ = nullptr;
};

// Reads the names of the ports, each with a terminator, and one terminator more.
//   left: how many characters there is room for.
DWORD EnumerateNames(PortNamesKey& key, LPWSTR next, DWORD left) {
    for (DWORD index = 0; left > 0; ++index) {
        DWORD length = left;
        const DWORD error = key.Enumerate(index, next, length);
        if (error == ERROR_NO_MORE_ITEMS) {
            *next = L'\0';
            return ERROR_SUCCESS;
        }
        if (error != ERROR_SUCCESS) {
            return error;
        }
        const DWORD used = static_cast<DWORD>(EndText(next, left, left)) + 1;
        next += used;
        left -= used;
    }
    return ERROR_MORE_DATA;
}

}  // namespace

DWORD LoadPortNames(const MONITORINIT& init, UniqueBlock<WCHAR>& list) noexcept {
    PortNamesKey key(*init.pMonitorReg, init.hSpooler);
    if (const DWORD error = key.Create(init.hckRegistryRoot); error != ERROR_SUCCESS) {
        return error;
    }
    DWORD count = 0;
    DWORD longest = 0;
    if (const DWORD error = key.QueryInfo(count, longest); error != ERROR_SUCCESS) {
        return error;
    }
    if (count == 0) {
        return ERROR_SUCCESS;
    }
    // A terminator behind each name, and one more that ends the list.
    const uint64_t room = (uint64_t{longest} + 1) * count + 1;
    if (room > MAXDWORD) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    UniqueBlock<WCHAR> names(static_cast<LPWSTR>(GlobalAlloc(GPTR, room * sizeof(WCHAR))));
    if (!names) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    const DWORD error = EnumerateNames(key, names.Get(), static_cast<DWORD>(room));
    if (error == ERROR_SUCCESS) {
        list = std::move(names);
    }
    return error;
}

DWORD ReadPortConfig(LPCWSTR portName, PORT_DATA_1* out) noexcept {
    *out = {};
    const SpoolerContext context;
    Key ports;
    // Compatibility: here and in ReadPortConfigEx, the key is opened for writing although it is
    // only read; access control relies on it: an account without write access starts no job.
    if (const DWORD error = ports.Open(Key::Root(), kPortsKey, KEY_WRITE); error != ERROR_SUCCESS) {
        return error;
    }
    Key port;
    port.Open(ports.Get(), portName, KEY_READ);
    port.Read(L"HostName", out->sztHostAddress);
    port.Read(L"SNMPCommunity", out->sztSNMPCommunity);
    port.Read(L"IPAddress", out->sztIPAddress);
    port.Read(L"Queue", out->sztQueue);
    port.Read(L"PortNumber", out->dwPortNumber);
    port.Read(L"SNMPEnabled", out->dwSNMPEnabled);
    port.Read(L"SNMPIndex", out->dwSNMPDevIndex);
    port.Read(L"Version", out->dwVersion);
    port.Read(L"Protocol", out->dwProtocol);
    // Compatibility: only this value's result counts, so a port that was added but not configured
    // starts no job; programs that add a port and then configure it rely on it.
    return port.Read(L"Double Spool", out->dwDoubleSpool);
}

DWORD WritePortConfig(const PORT_DATA_1* in) noexcept {
    const SpoolerContext context;
    Key ports;
    if (const DWORD error = ports.Open(Key::Root(), kPortsKey, KEY_WRITE); error != ERROR_SUCCESS) {
        return error;
    }
    Key port;
    port.Create(ports.Get(), FieldText(in->sztPortName).text, KEY_SET_VALUE);
    // Compatibility: an empty text or the TCP port 0 leaves the stored value as it is; clients that
    // fill in only some fields of the record rely on it.
    port.WriteFieldUnlessEmpty(L"HostName", in->sztHostAddress);
    port.WriteFieldUnlessEmpty(L"SNMPCommunity", in->sztSNMPCommunity);
    port.WriteFieldUnlessEmpty(L"IPAddress", in->sztIPAddress);
    port.WriteFieldUnlessEmpty(L"Queue", in->sztQueue);
    if (in->dwPortNumber != 0) {
        port.WriteNumber(L"PortNumber", in->dwPortNumber);
    }
    port.WriteNumber(L"SNMPEnabled", in->dwSNMPEnabled);
    port.WriteNumber(L"SNMPIndex", in->dwSNMPDevIndex);
    port.WriteNumber(L"Version", in->dwVersion);
    port.WriteNumber(L"Protocol", in->dwProtocol);
    return port.WriteNumber(L"Double Spool", in->dwDoubleSpool);
}

DWORD ReadPortConfigEx(LPCWSTR portName, PortDataEx* out) noexcept {
    *out = {};
    const SpoolerContext context;
    Key ports;
    ports.Open(Key::Root(), kPortsKey, KEY_WRITE);
    Key port;
    port.Open(ports.Get(), portName, KEY_READ);
    port.Read(L"IPv6HostName", out->sztIPv6HostName);
    port.Read(L"HWAddress", out->sztHWAddress);
    port.Read(L"AlwaysPrint", out->dwAlwaysPrint);
    port.Read(L"UseIPV6", out->dwUseIPV6);
    // Compatibility: the result is always 0; ports that were configured without the extended record
    // rely on it to start jobs.
    return ERROR_SUCCESS;
}

DWORD WritePortConfigEx(const PortDataEx* in) noexcept {
    const SpoolerContext context;
    Key ports;
    ports.Open(Key::Root(), kPortsKey, KEY_WRITE);
    Key port;
    port.Open(ports.Get(), FieldText(in->sztPortName).text, KEY_WRITE);
    port.WriteFieldUnlessEmpty(L"IPv6HostName", in->sztIPv6HostName);
    port.WriteNumber(L"AlwaysPrint", in->dwAlwaysPrint);
    port.WriteNumber(L"UseIPV6", in->dwUseIPV6);
    port.WriteField(L"HWAddress", in->sztHWAddress);
    return ERROR_SUCCESS;
}

BOOL CreatePortKey(LPCWSTR portName) noexcept {
    if (portName == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    const DWORD error = [portName] {
        const SpoolerContext context;
        Key ports;
        Key port;
        const DWORD opened = ports.Create(Key::Root(), kPortsKey, KEY_SET_VALUE);
        return opened != ERROR_SUCCESS ? opened : port.Create(ports.Get(), portName, KEY_SET_VALUE);
    }();
    if (error != ERROR_SUCCESS) {
        SetLastError(error);
    }
    return error == ERROR_SUCCESS;
}

void DeletePortKey(LPCWSTR portName) noexcept {
    // The registry takes an empty name for the key itself, which is all ports'.
    if (portName == nullptr || *portName == L'\0') {
        return;
    }
    const SpoolerContext context;
    Key ports;
    if (ports.Create(Key::Root(), kPortsKey, KEY_SET_VALUE) == ERROR_SUCCESS) {
        ports.Delete(portName);
    }
}

DWORD WritePortAddress(LPCWSTR portName, LPCWSTR addressText, DWORD isIPv6) noexcept {
    const SpoolerContext context;
    Key ports;
    if (const DWORD error = ports.Open(Key::Root(), kPortsKey, KEY_WRITE); error != ERROR_SUCCESS) {
        return error;
    }
    Key port;
    port.Open(ports.Get(), portName, KEY_WRITE);
    port.WriteText(isIPv6 != 0 ? L"IPv6HostName" : L"IPAddress", addressText);
    return port.WriteNumber(L"UseIPV6", isIPv6);
}
