#include "monitor/PortConfig.h"

#include <gmock/gmock.h>

#include <algorithm>

#include "tests/support/FakeSpooler.h"

using testing::ElementsAre;
using testing::ElementsAreArray;

namespace {

class PortConfigTest : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(spooler.Start());
        xcv = spooler.OpenXcv();
        spooler.TakeCalls();
    }
    void TearDown() override { spooler->pfnXcvClosePort(xcv); }

    template <class Record>
    DWORD Set(const wchar_t* command, Record record) {
        return spooler->pfnXcvDataPort(xcv, command, reinterpret_cast<PBYTE>(&record),
                                       sizeof(record), nullptr, 0, nullptr);
    }

    template <class Record>
    Record Get(const wchar_t* command, std::wstring port) {
        Record record;
        memset(&record, 0xCC, sizeof(record));
        EXPECT_EQ(
            spooler->pfnXcvDataPort(xcv, command, reinterpret_cast<PBYTE>(port.data()),
                                    static_cast<DWORD>((port.size() + 1) * sizeof(WCHAR)),
                                    reinterpret_cast<PBYTE>(&record), sizeof(record), nullptr),
            0u);
        return record;
    }

    PORT_DATA_1 Read(const std::wstring& port) { return Get<PORT_DATA_1>(L"GetConfigInfo", port); }
    PortDataEx ReadEx(const std::wstring& port) {
        return Get<PortDataEx>(L"GetConfigExData", port);
    }

    static PORT_DATA_1 Full() {
        PORT_DATA_1 data = {};
        wcscpy(data.sztPortName, L"Office");
        wcscpy(data.sztHostAddress, L"prn-01");
        wcscpy(data.sztSNMPCommunity, L"public");
        wcscpy(data.sztIPAddress, L"10.1.2.3");
        wcscpy(data.sztQueue, L"lp");
        data.dwVersion = 1;
        data.dwProtocol = 2;
        data.dwPortNumber = 515;
        data.dwSNMPEnabled = 1;
        data.dwSNMPDevIndex = 7;
        data.dwDoubleSpool = 1;
        return data;
    }

    static PortDataEx FullEx() {
        PortDataEx data = {};
        wcscpy(data.sztPortName, L"Office");
        wcscpy(data.sztIPv6HostName, L"fe80::1");
        wcscpy(data.sztHWAddress, L"0004004A1B2C");
        data.dwAlwaysPrint = 1;
        data.dwUseIPV6 = 1;
        return data;
    }

    FakeSpooler spooler;
    HANDLE xcv = nullptr;
};

TEST_F(PortConfigTest, RecordsComeBackAsTheyWereWritten) {
    EXPECT_EQ(Set(L"SetConfigExData", FullEx()), 0u);
    EXPECT_FALSE(spooler.HasPortKey(L"Office")) << "the extended record makes no port";
    EXPECT_EQ(Set(L"ConfigurePort", Full()), 0u);
    PORT_DATA_1 expected = Full();
    std::fill_n(expected.sztPortName, 64, L'\0');
    const PORT_DATA_1 read = Read(L"OFFICE");
    EXPECT_EQ(memcmp(&read, &expected, sizeof(read)), 0);
    EXPECT_EQ(Set(L"SetConfigExData", FullEx()), 0u);
    PortDataEx expectedEx = FullEx();
    std::fill_n(expectedEx.sztPortName, 64, L'\0');
    const PortDataEx readEx = ReadEx(L"Office");
    EXPECT_EQ(memcmp(&readEx, &expectedEx, sizeof(readEx)), 0);
}

TEST_F(PortConfigTest, ValuesAreReadAndWrittenInTheirOrderAsTheSpooler) {
    Set(L"ConfigurePort", Full());
    EXPECT_THAT(spooler.TakeCalls(),
                ElementsAre("revert", "open Ports 20006", "create Office 2", "set HostName 1 14",
                            "set SNMPCommunity 1 14", "set IPAddress 1 18", "set Queue 1 6",
                            "set PortNumber 4 4", "set SNMPEnabled 4 4", "set SNMPIndex 4 4",
                            "set Version 4 4", "set Protocol 4 4", "set Double Spool 4 4", "close",
                            "close", "impersonate"));
    Read(L"Office");
    EXPECT_THAT(spooler.TakeCalls(),
                ElementsAre("revert", "open Ports 20006", "open Office 20019", "query HostName 98",
                            "query SNMPCommunity 66", "query IPAddress 32", "query Queue 66",
                            "query PortNumber 4", "query SNMPEnabled 4", "query SNMPIndex 4",
                            "query Version 4", "query Protocol 4", "query Double Spool 4", "close",
                            "close", "impersonate"));
    Set(L"SetConfigExData", FullEx());
    EXPECT_THAT(spooler.TakeCalls(),
                ElementsAre("revert", "open Ports 20006", "open Office 20006",
                            "set IPv6HostName 1 16", "set AlwaysPrint 4 4", "set UseIPV6 4 4",
                            "set HWAddress 1 26", "close", "close", "impersonate"));
    ReadEx(L"Office");
    EXPECT_THAT(spooler.TakeCalls(),
                ElementsAre("revert", "open Ports 20006", "open Office 20019",
                            "query IPv6HostName 256", "query HWAddress 26", "query AlwaysPrint 4",
                            "query UseIPV6 4", "close", "close", "impersonate"));
}

TEST_F(PortConfigTest, EmptyValuesLeaveTheRegistryAsItIs) {
    Set(L"ConfigurePort", Full());
    PORT_DATA_1 empty = {};
    wcscpy(empty.sztPortName, L"Office");
    spooler.TakeCalls();
    Set(L"ConfigurePort", empty);
    EXPECT_EQ(spooler.Text(L"Office", L"HostName"), L"prn-01");
    EXPECT_EQ(spooler.Number(L"Office", L"PortNumber"), 515);
    EXPECT_EQ(spooler.Number(L"Office", L"Double Spool"), 0);
    PortDataEx emptyEx = {};
    wcscpy(emptyEx.sztPortName, L"Office");
    Set(L"SetConfigExData", FullEx());
    Set(L"SetConfigExData", emptyEx);
    EXPECT_EQ(spooler.Text(L"Office", L"IPv6HostName"), L"fe80::1");
    EXPECT_EQ(spooler.Text(L"Office", L"HWAddress"), L"");
    EXPECT_EQ(spooler.Number(L"Office", L"AlwaysPrint"), 0);
}

TEST_F(PortConfigTest, FieldsWithoutATerminatorEndWithTheField) {
    PORT_DATA_1 data = {};
    std::fill_n(data.sztPortName, 64, L'n');
    std::fill_n(data.sztHostAddress, 49, L'h');
    std::fill_n(data.sztQueue, 33, L'q');
    Set(L"ConfigurePort", data);
    const std::wstring port(64, L'n');
    EXPECT_EQ(spooler.Text(port, L"HostName"), std::wstring(49, L'h'));
    EXPECT_EQ(spooler.Text(port, L"Queue"), std::wstring(33, L'q'));
}

TEST_F(PortConfigTest, StrangeRegistryValuesNeverMakeUnterminatedText) {
    const struct {
        const char* what;
        DWORD type;
        std::vector<BYTE> bytes;
        std::wstring expected;
    } cases[] = {
        {"without a terminator", REG_SZ, {'1', 0, '0', 0}, L"10"},
        {"of an odd size", REG_SZ, {'1', 0, '0', 0, '.'}, L"10"},
        {"filling its field", REG_BINARY, std::vector<BYTE>(32, 'a'), std::wstring(15, 0x6161)},
        {"too long", REG_SZ, std::vector<BYTE>(34, 'a'), L""},
        {"empty", REG_SZ, {}, L""},
        {"a number", REG_DWORD, {'7', 0, 0, 0}, L"7"},
    };
    for (const auto& c : cases) {
        spooler.SetBytes(L"Office", L"IPAddress", c.type, c.bytes);
        spooler.SetNumber(L"Office", L"Double Spool", 1);
        const PORT_DATA_1 data = Read(L"Office");
        ASSERT_LT(wcsnlen(data.sztIPAddress, 16), 16u) << c.what;
        EXPECT_EQ(data.sztIPAddress, c.expected) << c.what;
        EXPECT_EQ(data.dwDoubleSpool, 1u) << c.what;
    }
}

TEST_F(PortConfigTest, APortThatIsNotThereReadsAsZero) {
    PORT_DATA_1 zero = {};
    const PORT_DATA_1 data = Read(L"Nowhere");
    EXPECT_EQ(memcmp(&data, &zero, sizeof(zero)), 0);
    spooler.failures = {{"open Ports", ERROR_ACCESS_DENIED}};
    spooler.TakeCalls();
    Read(L"Nowhere");
    EXPECT_THAT(spooler.TakeCalls(), ElementsAre("revert", "open Ports 20006", "impersonate"));
}

}  // namespace
