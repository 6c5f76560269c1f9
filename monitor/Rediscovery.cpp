#include "monitor/Rediscovery.h"

#include <locale>
#include <memory>
#include <new>
#include <string>

#include "base/LastError.h"
#include "base/MemoryRoom.h"
#include "base/Text.h"
#include "discovery/PrinterDiscoveryClass.h"
#include "monitor/Library.h"

namespace {

constexpr int kNotFound = 1;
// Bytes, generously: the SLP library alone remembers up to 4 MiB of answers.
constexpr size_t kRoomForSearch = 8 << 20;

// Returns false if there is too little memory to search. The process's first stream, the log's,
// takes some too, and the C++ library does not check whether it gets it.
bool HasRoomForSearch() {
    if (!HasMemoryRoom(kRoomForSearch)) {
        return false;
    }
    const std::locale ofAllStreams;
    return true;
}

// Text in the ANSI code page, one character for one: the name that the printer announces has to
// be as long. What does not convert to a single byte becomes a question mark.
std::string ToSingleBytes(const WCHAR* text) {
    std::string bytes;
    for (; *text != L'\0'; ++text) {
        char byte = '?';
        WideCharToMultiByte(CP_ACP, 0, text, 1, &byte, 1, nullptr, nullptr);
        bytes += byte;
    }
    return bytes;
}

// Copies what fits, with a terminator.
template <size_t N>
void CopyTruncated(WCHAR (&field)[N], const std::wstring& text) {
    field[text.copy(field, N - 1)] = L'\0';
}

// By hardware address first: a name may be somebody else's by now.
bool FindPrinter(IPrinterDiscovery& search, const MacAddress& mac, const std::string& hostName,
                 Printer& found) {
    return (mac.IsValid() && search.FindPrinterByMacAddress(mac, found)) ||
           (!hostName.empty() && search.FindPrinterByHostName(hostName, found));
}

// Stores the address in the records and in the registry, as the text that the printer announced.
// Returns 0 or the registry's error.
// Compatibility: padded octets and a port number are stored as well, and the text is truncated to
// the field; tools that read the value rely on finding the announced text.
DWORD StoreAddress(LPCWSTR portName, const IPAddress& address, PORT_DATA_1& portData,
                   PortDataEx& portDataEx) {
    const std::wstring text = AnsiToWide(address.GetText());
    if (address.GetType() == IPV4) {
        CopyTruncated(portData.sztIPAddress, text);
        portDataEx.dwUseIPV6 = 0;
        return WritePortAddress(portName, portData.sztIPAddress, 0);
    }
    // Compatibility: an answer without a valid address counts as IPv6: it empties IPv6HostName, and
    // the job fails to connect; tools that read the registry find such a port in this state.
    CopyTruncated(portDataEx.sztIPv6HostName, text);
    portDataEx.dwUseIPV6 = 1;
    return WritePortAddress(portName, portDataEx.sztIPv6HostName, 1);
}

// What RediscoverPrinter does, without a care for the last error.
//   registryError: receives the registry's code when that is what failed.
int Rediscover(const PortEntry& port, PORT_DATA_1& portData, PortDataEx& portDataEx,
               DWORD& registryError) {
    Printer found;
    if (portDataEx.sztHWAddress[0] == L'\0' && portData.sztHostAddress[0] == L'\0') {
        return kNotFound;
    }
    const std::unique_ptr<PrinterDiscovery> search(
        HasRoomForSearch() ? new (std::nothrow) PrinterDiscovery : nullptr);
    if (!search) {
        // Compatibility: too little memory to search is no failure; the caller relies on it to
        // connect to the old address once more and to report the result of that attempt.
        return 0;
    }
    Config::SetModule(LibraryModule());
    search->Configure("");
    if (!FindPrinter(*search, MacAddress(portDataEx.sztHWAddress),
                     ToSingleBytes(portData.sztHostAddress), found)) {
        return kNotFound;
    }
    registryError = StoreAddress(port.name, found.GetIPAddress(), portData, portDataEx);
    return static_cast<int>(registryError);
}

}  // namespace

int RediscoverPrinter(PortEntry* port, PORT_DATA_1* portData, PortDataEx* portDataEx) noexcept {
    DWORD registryError = ERROR_SUCCESS;
    int result = kNotFound;
    {
        const LastErrorKeeper keeper;
        try {
            result = Rediscover(*port, *portData, *portDataEx, registryError);
        } catch (...) {
        }
    }
    if (registryError != ERROR_SUCCESS) {
        SetLastError(registryError);
    }
    return result;
}
