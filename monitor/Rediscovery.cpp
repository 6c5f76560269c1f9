#include "monitor/Rediscovery.h"

#include <memory>
#include <new>
#include <string>

#include "diag/SystemUtils.h"
#include "discovery/PrinterDiscoveryClass.h"
#include "monitor/Library.h"

namespace {

constexpr int kNotFound = 1;

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

// Stores the address in the records and in the registry. An answer without any valid address
// counts as an IPv6 one: it empties the field, and the job fails where it connects.
int StoreAddress(LPCWSTR portName, const IPAddress& address, PORT_DATA_1& portData,
                 PortDataEx& portDataEx) {
    const std::wstring text = system_helper::ToWide(address.GetText());
    if (address.GetType() == IPV4) {
        CopyTruncated(portData.sztIPAddress, text);
        portDataEx.dwUseIPV6 = 0;
        return static_cast<int>(WritePortAddress(portName, portData.sztIPAddress, 0));
    }
    CopyTruncated(portDataEx.sztIPv6HostName, text);
    portDataEx.dwUseIPV6 = 1;
    return static_cast<int>(WritePortAddress(portName, portDataEx.sztIPv6HostName, 1));
}

}  // namespace

int RediscoverPrinter(PortEntry* port, PORT_DATA_1* portData, PortDataEx* portDataEx) noexcept {
    try {
        Printer found;
        if (portDataEx->sztHWAddress[0] == L'\0' && portData->sztHostAddress[0] == L'\0') {
            return kNotFound;
        }
        const std::unique_ptr<PrinterDiscovery> search(new (std::nothrow) PrinterDiscovery);
        if (!search) {
            // Not a failure, on purpose: the caller connects once more, to the old address, and
            // reports what comes of that.
            return 0;
        }
        Config::SetModule(LibraryModule());
        search->Configure("");
        if (!FindPrinter(*search, MacAddress(portDataEx->sztHWAddress),
                         ToSingleBytes(portData->sztHostAddress), found)) {
            return kNotFound;
        }
        return StoreAddress(port->name, found.GetIPAddress(), *portData, *portDataEx);
    } catch (...) {
        return kNotFound;
    }
}
