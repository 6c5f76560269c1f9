#include "admin/search/Neighbours.h"

#include <icmpapi.h>

#include <algorithm>
#include <map>
#include <set>

#include "admin/search/PrinterIdentity.h"
#include "admin/search/PrinterSearch.h"
#include "base/Handles.h"
#include "base/Parallel.h"

namespace {

constexpr size_t kAskedAtOnce = 64;
constexpr size_t kMostAsked = 256;   // addresses; any host can announce many
constexpr DWORD kEchoTimeout = 300;  // ms

IPAddress AddressOf(const MIB_IPNET_ROW2& row) {
    return row.Address.si_family == AF_INET ? IPAddress(row.Address.Ipv4.sin_addr)
                                            : IPAddress(row.Address.Ipv6.sin6_addr);
}

void SendEcho(HANDLE icmp, const IPAddress& address) {
    in_addr to;
    std::copy_n(address.GetBytes(), sizeof to, reinterpret_cast<unsigned char*>(&to));
    // With room for an ICMP error, as the function requires.
    alignas(ICMP_ECHO_REPLY) char reply[sizeof(ICMP_ECHO_REPLY) + 8];
    IcmpSendEcho(icmp, to.s_addr, nullptr, 0, nullptr, reply, sizeof reply, kEchoTimeout);
}

}  // namespace

void SetMacAddresses(std::vector<SearchHit>& printers, std::span<const MIB_IPNET_ROW2> table) {
    std::map<std::string, std::set<SearchHit*>> owners;
    for (const MIB_IPNET_ROW2& row : table) {
        std::string mac = MacText(MacAddress(row.PhysicalAddress, row.PhysicalAddressLength));
        // Of a host that has answered.
        if (row.PhysicalAddressLength != 6 || row.State == NlnsUnreachable ||
            row.State == NlnsIncomplete || !CheckMacAddress(mac).empty()) {
            continue;
        }
        const IPAddress address = AddressOf(row);
        for (SearchHit& printer : printers) {
            if (HasAddress(printer, address)) {
                owners[mac].insert(&printer);
            }
        }
    }
    for (const auto& [mac, sharing] : owners) {
        if (sharing.size() == 1) {
            SearchHit& printer = **sharing.begin();
            printer.identity.mac = mac;
            printer.record.SetMacAddress(MacAddress(mac));
        }
    }
}

void LookUpMacAddresses(std::vector<SearchHit>& printers) {
    std::vector<const IPAddress*> asked;
    for (const SearchHit& printer : printers) {
        if (printer.addresses[0].GetType() == IPV4 && asked.size() < kMostAsked) {
            asked.push_back(&printer.addresses[0]);
        }
    }
    if (const HANDLE icmp = IcmpCreateFile(); icmp != INVALID_HANDLE_VALUE) {
        const UniqueResource<ClosedBy<HANDLE, IcmpCloseHandle>> closing(icmp);
        ForEach(
            asked.size(), kAskedAtOnce, [&](size_t at) { SendEcho(icmp, *asked[at]); },
            [](size_t) {});
    }
    // One after the other: a system may have the table of one family alone.
    std::vector<MIB_IPNET_ROW2> rows;
    for (const ADDRESS_FAMILY family : {AF_INET, AF_INET6}) {
        MIB_IPNET_TABLE2* table = nullptr;
        if (GetIpNetTable2(family, &table) == NO_ERROR) {
            const std::unique_ptr<void, decltype(&FreeMibTable)> freeing(table, FreeMibTable);
            rows.insert(rows.end(), table->Table, table->Table + table->NumEntries);
        }
    }
    SetMacAddresses(printers, rows);
}
