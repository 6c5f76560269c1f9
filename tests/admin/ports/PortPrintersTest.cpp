#include "admin/ports/PortPrinters.h"

#include <gtest/gtest.h>

#include "admin/ports/PortSettings.h"
#include "admin/search/Hosts.h"
#include "tests/support/FakeMonitor.h"

namespace {

TEST(PortPrinters, CountsPrintersThatAreLost) {
    StartedNetwork();
    FakeMonitor monitor;
    const auto add = [&monitor](const wchar_t* name, const char* mac, const char* host) {
        PortChange change;
        change.address = "10.0.0.1";
        change.mac = mac;
        change.hostName = host;
        Apply(change, monitor.ports[name]);
    };
    add(L"A", "000400000001", "prn-1");
    add(L"SAME AS A", "000400000001", "prn-1");
    add(L"B", "", "prn-2");
    add(L"NO KEYS", "", "");
    const auto channel = monitor.Factory()();
    const std::vector<PortRecords> ports = PrintersOfPorts(*channel, false);
    EXPECT_EQ(ports.size(), 2u);
    EXPECT_EQ(PrintersOfPorts(*channel, true).size(), 0u);
    const std::vector<PrinterIdentity> both = {{"10.0.0.1", "000400000001", ""},
                                               {"10.0.0.2", "", "PRN-2"}};
    EXPECT_EQ(CountFound(ports, both), 2u);
    EXPECT_EQ(CountLost(ports, both, {}), 2u);
    EXPECT_EQ(CountLost(ports, both, {{"10.0.0.1", "", "prn-1"}}), 1u) << "by its name";
    EXPECT_EQ(CountLost(ports, both, {{"0.0.0.0", "000400000001", ""}, both[1]}), 1u);
    EXPECT_EQ(CountLost(ports, {}, both), 0u);
}

}  // namespace
