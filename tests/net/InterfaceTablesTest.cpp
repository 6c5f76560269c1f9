#include "net/InterfaceTables.h"

#include <gmock/gmock.h>

namespace {

using enum AddressVerdict;

DWORD Dotted(const char* text) {
    return inet_addr(text);
}

MIB_IPADDRROW Address(const char* address, const char* mask = "255.255.255.0") {
    MIB_IPADDRROW row = {};
    row.dwAddr = Dotted(address);
    row.dwMask = Dotted(mask);
    return row;
}

MIB_IPFORWARDROW Route(const char* destination, const char* nextHop) {
    MIB_IPFORWARDROW row = {};
    row.dwForwardDest = Dotted(destination);
    row.dwForwardNextHop = Dotted(nextHop);
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

TEST(InterfaceTables, EachAddressByItself) {
    const std::pair<MIB_IPADDRROW, AddressVerdict> cases[] = {
        {Address("192.168.1.10"), Taken},
        {Address("10.0.0.127", "255.0.0.0"), Taken},
        {Address("0.0.0.0", "0.0.0.0"), NoAddress},
        {Address("0.0.0.0"), NoAddress},
        {Address("192.168.1.10", "0.0.0.0"), NoMask},
        {Address("0.1.2.3"), ZeroNetwork},
        {Address("127.0.0.1", "255.0.0.0"), Loopback},
        {Address("127.255.255.254"), Loopback},
        {Address("126.0.0.1"), Taken},
        {Address("128.0.0.1"), Taken},
        {Address("169.254.0.1"), SelfAssigned},
        {Address("169.254.255.254"), SelfAssigned},
        {Address("169.253.1.1"), Taken},
        {Address("169.255.1.1"), Taken},
        {Address("254.169.1.1"), Taken},
        {Address("10.1.169.254"), Taken},
    };
    for (const auto& [row, verdict] : cases) {
        EXPECT_EQ(Verdicts({row}, {}), std::vector{verdict})
            << inet_ntoa(*reinterpret_cast<const in_addr*>(&row.dwAddr));
    }
    EXPECT_EQ(Verdicts({}, {}), std::vector<AddressVerdict>{});
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

TEST(InterfaceTables, TenAreTakenInTableOrder) {
    std::vector<MIB_IPADDRROW> rows = {Address("127.0.0.1"), Address("169.254.1.1")};
    for (int i = 0; i < 12; ++i) {
        rows.push_back(Address(("10.0.0." + std::to_string(20 - i)).c_str()));
    }
    rows.push_back(Address("127.0.0.2"));
    std::vector<AddressVerdict> expected(rows.size(), BeyondLimit);
    expected[0] = Loopback;
    expected[1] = SelfAssigned;
    std::fill_n(expected.begin() + 2, 10, Taken);
    EXPECT_EQ(Verdicts(rows, {}), expected);
}

}  // namespace
