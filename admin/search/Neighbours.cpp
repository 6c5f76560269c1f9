#include "admin/search/Neighbours.h"

#include <icmpapi.h>

#include <algorithm>
#include <map>

#include "admin/search/PrinterIdentity.h"
#include "admin/search/PrinterSearch.h"
#include "base/Handles.h"
#include "base/Parallel.h"

namespace {

constexpr size_t kAskedAtOnce = 64;
constexpr size_t kMostAsked = 256;   // addresses; any host can announce many
constexpr DWORD kEchoTimeout = 300;  // ms

// Whether a row has the MAC address of a host that has answered.
bool IsUsable(const MIB_IPNET_ROW2& row) {
    return row.PhysicalAddressLength == 6 && row.State != NlnsUnreachable &&
           row.State != NlnsIncomplete;
}

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
    std::map<std::string, std::vector<SearchHit*>> owners;
    for (SearchHit& printer : printers) {
        for (const MIB_IPNET_ROW2& row : table) {
            std::string mac = MacText(MacAddress(row.PhysicalAddress, row.PhysicalAddressLength));
            if (IsUsable(row) && CheckMacAddress(mac).empty() &&
                AddressOf(row) == printer.addresses[0]) {
                owners[mac].push_back(&printer);
                break;
            }
        }
    }
    for (const auto& [mac, sharing] : owners) {
        if (sharing.size() == 1) {
            sharing[0]->identity.mac = mac;
            sharing[0]->record.SetMacAddress(MacAddress(mac));
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
            const UniqueResource<ClosedBy<MIB_IPNET_TABLE2*, FreeMibTable>> freeing(table);
            rows.insert(rows.end(), table->Table, table->Table + table->NumEntries);
        }
    }
    SetMacAddresses(printers, rows);
}
