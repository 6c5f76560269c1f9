#include "admin/search/MergedSearch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "admin/search/Hosts.h"
#include "admin/search/Neighbours.h"

namespace {

SearchHit Announced(const std::string& host, const std::vector<std::string>& addresses,
                    const std::set<mdns::Service>& services = {}) {
    return SearchHit(mdns::Printer{"Office", host, addresses, services, "Model 1", "", ""});
}

MIB_IPNET_ROW2 Neighbour(const char* address, const std::vector<unsigned char>& mac,
                         NL_NEIGHBOR_STATE state = NlnsStale) {
    MIB_IPNET_ROW2 row = {};
    int length = 0;
    std::copy_n(reinterpret_cast<const char*>(IPAddress(address).GetSockAddr(length)),
                std::string(address).find(':') == std::string::npos ? sizeof(sockaddr_in)
                                                                    : sizeof(sockaddr_in6),
                reinterpret_cast<char*>(&row.Address));
    std::ranges::copy(mac, row.PhysicalAddress);
    row.PhysicalAddressLength = static_cast<ULONG>(mac.size());
    row.State = state;
    return row;
}

TEST(MergedSearch, APrinterIsNamedAsBySlp) {
    StartedNetwork();
    const SearchHit hit = Announced("Prn-1.LOCAL", {"10.0.0.1", "fd00::1"},
                                    {{mdns::Protocol::Raw, 9101, "x"},
                                     {mdns::Protocol::Lpr, 515, "q"},
                                     {mdns::Protocol::Ipp, 631, "ipp/print"}});
    EXPECT_EQ(hit.identity.hostName, "Prn-1");
    EXPECT_EQ(hit.identity.address, "10.0.0.1");
    EXPECT_EQ(hit.identity.mac, "");
    ASSERT_EQ(hit.identity.services.size(), 2u) << "no port sends by IPP";
    EXPECT_EQ(hit.identity.services[0].port, 9101);
    EXPECT_EQ(hit.identity.services[1].queue, "q");
    EXPECT_EQ(Announced("local", {"10.0.0.1"}).identity.hostName, "local");
    EXPECT_TRUE(HasAddress(hit, IPAddress("fd00:0::1")));
    EXPECT_TRUE(MatchesPattern(hit, "Model*"));
    EXPECT_FALSE(MatchesPattern(hit, "model*"));
}

TEST(MergedSearch, AMacAddressIsNeverGuessed) {
    StartedNetwork();
    std::vector<SearchHit> printers;
    for (const char* address : {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4", "10.0.0.5",
                                "10.0.0.6", "10.0.0.7", "10.0.0.8", "10.9.0.1"}) {
        printers.push_back(Announced("prn.local", {address}));
    }
    printers.push_back(Announced("six.local", {"fd00::6", "10.9.0.2"}));
    printers.push_back(Announced("other.local", {"10.9.0.3", "10.0.0.254"}));
    const std::vector<MIB_IPNET_ROW2> table = {
        Neighbour("10.0.0.1", {0, 4, 0, 0, 0, 1}),
        Neighbour("10.0.0.2", {0, 4, 0, 0, 0, 2}, NlnsIncomplete),
        Neighbour("10.0.0.3", {0, 4, 0, 0, 0, 3}, NlnsUnreachable),
        Neighbour("10.0.0.4", {0, 4, 0, 0}),
        Neighbour("10.0.0.5", {0, 0, 0, 0, 0, 0}),
        Neighbour("10.0.0.6", {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}),
        Neighbour("10.0.0.7", {0, 4, 0, 0, 0, 7}),
        Neighbour("10.0.0.8", {0, 4, 0, 0, 0, 7}),
        Neighbour("10.0.0.254", {0, 4, 0, 0, 0, 9}),
        Neighbour("fd00::6", {0, 4, 0, 0, 0xAB, 6})};
    SetMacAddresses(printers, table);
    std::string macs;
    for (const SearchHit& printer : printers) {
        macs += printer.identity.mac + ' ';
        EXPECT_EQ(printer.record.GetMacAddress().IsValid(), !printer.identity.mac.empty());
    }
    EXPECT_EQ(macs, "000400000001         00040000AB06  ")
        << "an address that only is announced, too, proves nothing";
}

}  // namespace
