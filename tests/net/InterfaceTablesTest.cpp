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
    const std::vector rows = {Address("10.1.2.3"), Address("10.1.2.1")};
    using V = std::vector<AddressVerdict>;
    const auto with = [&rows](std::vector<MIB_IPFORWARDROW> routes) {
        return Verdicts(rows, routes);
    };
    EXPECT_EQ(with({}), (V{Taken, Taken}));
    EXPECT_EQ(with({Route("10.0.0.0", "10.1.2.3")}), (V{Taken, Taken}));
    EXPECT_EQ(with({Route("10.0.0.0", "10.1.2.3"), Route("0.0.0.0", "10.1.2.1")}),
              (V{Taken, IsGateway}));
    EXPECT_EQ(with({Route("0.0.0.0", "10.9.9.9"), Route("0.0.0.0", "10.1.2.1")}),
              (V{Taken, Taken}));
    // A first default route on the link itself has no gateway; the second is not asked.
    EXPECT_EQ(with({Route("0.0.0.0", "0.0.0.0"), Route("0.0.0.0", "10.1.2.1")}), (V{Taken, Taken}));
    EXPECT_EQ(with({Route("0.0.0.0", "127.0.0.1")}), (V{GatewayUnusable, GatewayUnusable}));
    EXPECT_EQ(with({Route("0.0.0.0", "0.0.0.1")}), (V{GatewayUnusable, GatewayUnusable}));
}

TEST(InterfaceTables, TenAreTakenInTableOrder) {
    std::vector<MIB_IPADDRROW> rows = {Address("127.0.0.1"), Address("169.254.1.1")};
    for (int i = 0; i < 12; ++i) {
        rows.push_back(Address(("10.0.0." + std::to_string(20 - i)).c_str()));
    }
    rows.push_back(Address("127.0.0.2"));
    const auto judged = JudgeAddresses(rows, {});
    ASSERT_EQ(judged.size(), rows.size());
    for (size_t i = 0; i < judged.size(); ++i) {
        EXPECT_EQ(judged[i].address, rows[i].dwAddr);
        EXPECT_EQ(judged[i].verdict, i == 0    ? Loopback
                                     : i == 1  ? SelfAssigned
                                     : i <= 11 ? Taken
                                               : BeyondLimit);
    }
}

}  // namespace
