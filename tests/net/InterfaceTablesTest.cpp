#include "net/InterfaceTables.h"

#include <gmock/gmock.h>

namespace {

using enum AddressVerdict;

MIB_IPADDRROW Address(const std::string& address, const char* mask = "255.255.255.0") {
    MIB_IPADDRROW row = {};
    row.dwAddr = inet_addr(address.c_str());
    row.dwMask = inet_addr(mask);
    return row;
}

MIB_IPFORWARDROW Route(const char* destination, const char* nextHop) {
    MIB_IPFORWARDROW row = {};
    row.dwForwardDest = inet_addr(destination);
    row.dwForwardNextHop = inet_addr(nextHop);
    return row;
}

std::vector<AddressVerdict> Verdicts(const std::vector<MIB_IPADDRROW>& addresses,
                                     const std::vector<MIB_IPFORWARDROW>& routes) {
    std::vector<AddressVerdict> verdicts;
    for (const auto& judged : JudgeAddresses(addresses, routes)) {
        verdicts.push_back(judged.verdict);
    }
    return verdicts;
}

TEST(InterfaceTables, EachAddressByItselfUpToTen) {
    const std::vector<std::pair<MIB_IPADDRROW, AddressVerdict>> cases = {
        {Address("10.0.0.127", "255.0.0.0"), Taken},
        {Address("0.0.0.0"), NoAddress},
        {Address("192.168.1.10", "0.0.0.0"), NoMask},
        {Address("0.1.2.3"), ZeroNetwork},
        {Address("127.255.255.254"), Loopback},
        {Address("126.0.0.1"), Taken},
        {Address("128.0.0.1"), Taken},
        {Address("169.254.255.254"), SelfAssigned},
        {Address("169.253.1.1"), Taken},
        {Address("169.255.1.1"), Taken},
        {Address("254.169.1.1"), Taken},
        {Address("10.1.169.254"), Taken},
        {Address("10.0.0.3"), Taken},
        {Address("10.0.0.2"), Taken},
        {Address("10.0.0.1"), Taken},
        {Address("10.0.0.0"), BeyondLimit},
        {Address("127.0.0.2"), BeyondLimit},  // is not looked at
    };
    std::vector<MIB_IPADDRROW> rows;
    std::vector<AddressVerdict> verdicts;
    for (const auto& [row, verdict] : cases) {
        rows.push_back(row);
        verdicts.push_back(verdict);
    }
    EXPECT_EQ(Verdicts(rows, {}), verdicts);
}

TEST(InterfaceTables, TheFirstDefaultRouteDecides) {
    const auto onLink = Route("10.0.0.0", "10.1.2.3");
    const auto toGateway = Route("0.0.0.0", "10.1.2.1");
    const std::pair<std::vector<MIB_IPFORWARDROW>, std::vector<AddressVerdict>> cases[] = {
        {{onLink}, {Taken, Taken}},
        {{onLink, toGateway}, {Taken, IsGateway}},
        {{Route("0.0.0.0", "10.9.9.9"), toGateway}, {Taken, Taken}},
        // A first default route without a gateway: the second is not asked.
        {{Route("0.0.0.0", "0.0.0.0"), toGateway}, {Taken, Taken}},
        {{Route("0.0.0.0", "127.0.0.1")}, {GatewayUnusable, GatewayUnusable}},
        {{Route("0.0.0.0", "0.0.0.1")}, {GatewayUnusable, GatewayUnusable}},
    };
    for (const auto& [routes, verdicts] : cases) {
        EXPECT_EQ(Verdicts({Address("10.1.2.3"), Address("10.1.2.1")}, routes), verdicts);
    }
}

}  // namespace
