#include "monitor/PortList.h"

#include <gmock/gmock.h>

#include <thread>

#include "tests/support/FakeSpooler.h"

using testing::ElementsAre;

namespace {

using Names = std::vector<std::wstring>;

class PortListTest : public testing::Test {
  protected:
    void Load(const Names& ports) {
        for (const auto& port : ports) {
            spooler.SetPortKey(port);
        }
        ASSERT_TRUE(spooler.Start());
    }

    BOOL Enumerate(DWORD level, std::vector<BYTE>& buffer, DWORD size) {
        buffer.assign(size, 0xCC);
        return spooler->pfnEnumPorts(spooler.monitor, nullptr, level, buffer.data(), size, &needed,
                                     &returned);
    }

    Names Listed() {
        std::vector<BYTE> buffer;
        Enumerate(1, buffer, 0);
        EXPECT_TRUE(Enumerate(1, buffer, needed));
        Names names;
        for (DWORD i = 0; i < returned; ++i) {
            names.push_back(reinterpret_cast<PORT_INFO_1W*>(buffer.data())[i].pName);
        }
        return names;
    }

    FakeSpooler spooler;
    DWORD needed = 0;
    DWORD returned = 77;
    HANDLE handle = nullptr;
    BYTE byte = 0;
};

auto FailsWith(DWORD error) {
    return [error](const char* call, BOOL result) {
        EXPECT_FALSE(result) << call;
        EXPECT_EQ(GetLastError(), error) << call;
        SetLastError(0);
    };
}

TEST_F(PortListTest, TableHasTheSlotsOfThisMonitorAndNoOthers) {
    Load({});
    EXPECT_EQ(spooler->cbSize, 160u);
    EXPECT_FALSE(spooler->pfnOpenPortEx || spooler->pfnAddPort || spooler->pfnConfigurePort ||
                 spooler->pfnDeletePort || spooler->pfnSetPortTimeOuts);
    EXPECT_FALSE(
        spooler->pfnGetPrinterDataFromPort(nullptr, 0, nullptr, nullptr, 0, nullptr, 0, nullptr));
    EXPECT_EQ(spooler->pfnSendRecvBidiDataFromPort(nullptr, 0, nullptr, nullptr, nullptr), 50u);
    EXPECT_EQ(*static_cast<DWORD*>(spooler.monitor), 0x004D4C49u);
}

TEST_F(PortListTest, OnWindows2000TheTableSaysAnotherSize) {
    ImportPatch patch(
        spooler.dll, "VerifyVersionInfoW",
        +[](LPOSVERSIONINFOEXW version, DWORD types, DWORDLONG) -> BOOL WINAPI {
            return version->dwMajorVersion == 5 && version->dwMinorVersion == 0 &&
                   types == (VER_MAJORVERSION | VER_MINORVERSION);
        });
    Load({});
    EXPECT_EQ(spooler->cbSize, 148u);
}

TEST_F(PortListTest, ThreadsOfTheProcessDoNotEndTheLibrary) {
    Load({L"A"});
    EXPECT_THAT(spooler.TakeCalls(),
                ElementsAre("create Ports 20019", "info", "enum 0", "enum 1", "fpclose"));
    std::thread([] {}).join();
    EXPECT_THAT(Listed(), ElementsAre(L"A"));
    EXPECT_NE(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP), INVALID_SOCKET);
}

TEST_F(PortListTest, LoadsThePortsOfTheRegistryButNotTheSpoolersOwn) {
    Load({L"Ne00:", L"nE12:", L"Ne-3:", L"Ne:", L"Ne-:", L"IP_10.0.0.5", L"Ne", L"Ne-", L"Ne01",
          L"Ne0a:", L"Ne:1", L"Ne--1:", L"Network1", L"X", std::wstring(248, L'x')});
    EXPECT_THAT(Listed(),
                testing::UnorderedElementsAre(L"IP_10.0.0.5", L"Ne", L"Ne-", L"Ne01", L"Ne0a:",
                                              L"Ne:1", L"Ne--1:", L"Network1", L"X"));
    spooler.AddPort(L"last");
    EXPECT_EQ(Listed().back(), L"last");
}

TEST_F(PortListTest, AFailureToLoadIsTheSpoolersToHandle) {
    spooler.SetPortKey(L"A");
    for (const char* call : {"create Ports", "info", "enum 0", "enum 1"}) {
        spooler.failures = {{call, ERROR_REGISTRY_IO_FAILED}};
        EXPECT_FALSE(spooler.Start()) << call;
        EXPECT_EQ(GetLastError(), DWORD{ERROR_REGISTRY_IO_FAILED}) << call;
    }
    spooler.failures = {};
    EXPECT_TRUE(spooler.Start());
}

// The record of a caller that gets no monitor is its own again when the call returns.
TEST_F(PortListTest, AFailureToLoadLeavesAMonitorThatRunsAlone) {
    Load({L"A"});
    MONITORINIT other = spooler.init;
    other.hckRegistryRoot = nullptr;
    const auto initialize = reinterpret_cast<decltype(&InitializePrintMonitor2)>(
        reinterpret_cast<void*>(GetProcAddress(spooler.dll, "InitializePrintMonitor2")));
    HANDLE none = nullptr;
    EXPECT_EQ(initialize(&other, &none), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(spooler.AddPort(L"B"), 0u);
    EXPECT_TRUE(spooler.HasPortKey(L"B"));
    EXPECT_THAT(Listed(), ElementsAre(L"A", L"B"));
}

TEST_F(PortListTest, EnumerationNeedsExactlyTheSizeThatItFills) {
    Load({L"A", L"Office"});
    constexpr DWORD kNames = (2 + 7) * sizeof(WCHAR);
    constexpr DWORD kTexts = (8 + 27) * sizeof(WCHAR);
    const struct {
        DWORD level, needed;
    } cases[] = {{1, 2 * sizeof(PORT_INFO_1W) + kNames},
                 {2, 2 * (sizeof(PORT_INFO_2W) + kTexts) + kNames}};
    for (const auto& c : cases) {
        std::vector<BYTE> buffer;
        returned = 77;
        SetLastError(0);
        EXPECT_FALSE(Enumerate(c.level, buffer, 0));
        EXPECT_EQ(GetLastError(), DWORD{ERROR_INSUFFICIENT_BUFFER});
        EXPECT_EQ(needed, c.needed);
        EXPECT_EQ(returned, 77u);
        EXPECT_FALSE(Enumerate(c.level, buffer, c.needed - 1));
        EXPECT_THAT(buffer, testing::Each(0xCC));
        EXPECT_TRUE(Enumerate(c.level, buffer, c.needed));
        EXPECT_EQ(returned, 2u);
    }
}

TEST_F(PortListTest, Level2RecordsPackTheirTextsFromTheBuffersEnd) {
    Load({L"A", L"Office"});
    std::vector<BYTE> buffer;
    constexpr DWORD kSize = 1001;  // odd: nothing may rely on alignment
    ASSERT_TRUE(Enumerate(2, buffer, kSize));
    PORT_INFO_2W info[2];
    memcpy(info, buffer.data(), sizeof(info));
    const BYTE* mark = buffer.data() + kSize;
    const wchar_t* names[] = {L"A", L"Office"};
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(info[i].fPortType, 3u);
        EXPECT_EQ(info[i].Reserved, 0u);
        const std::pair<LPWSTR, const wchar_t*> texts[] = {
            {info[i].pPortName, names[i]},
            {info[i].pMonitorName, L"kestmon"},
            {info[i].pDescription, L"Kest Network Port Monitor "}};
        for (const auto& [text, expected] : texts) {
            const size_t size = (wcslen(expected) + 1) * sizeof(WCHAR);
            mark -= size;
            EXPECT_EQ(reinterpret_cast<BYTE*>(text), mark);
            EXPECT_EQ(memcmp(mark, expected, size), 0);
        }
    }
}

TEST_F(PortListTest, UnknownLevelsAnswerWithTheThreadsLastError) {
    Load({});
    std::vector<BYTE> buffer;
    SetLastError(5);
    EXPECT_TRUE(Enumerate(3, buffer, 100));
    spooler.AddPort(L"A");
    SetLastError(5);
    EXPECT_FALSE(Enumerate(3, buffer, 100));
    EXPECT_EQ(GetLastError(), 5u);
    SetLastError(0);
    EXPECT_TRUE(Enumerate(3, buffer, 100));
    EXPECT_EQ(returned, 0u);
    EXPECT_EQ(needed, 0u);
}

TEST_F(PortListTest, OpensPortsByNameInAnyLetterCase) {
    Load({L"Office", L"Other"});
    HANDLE office = spooler.Open(L"OFFICE");
    ASSERT_NE(office, nullptr);
    EXPECT_EQ(*static_cast<DWORD*>(office), 0x00005450u);
    EXPECT_EQ(spooler.Open(L"office"), office);
    EXPECT_NE(spooler.Open(L"Other"), office);
    SetLastError(1234);
    EXPECT_EQ(spooler.Open(L"Off"), nullptr);
    EXPECT_EQ(GetLastError(), 1234u);
    EXPECT_TRUE(spooler->pfnClosePort(office));
    EXPECT_EQ(spooler.Open(L"Office"), office);
}

TEST_F(PortListTest, WhatIsNoHandleIsRefused) {
    Load({L"A"});
    HANDLE port = spooler.Open(L"A");
    LPCWSTR name = L"B";
    DWORD nothing[64] = {};
    const std::pair<HANDLE, HANDLE> wrong[] = {{}, {nothing, nothing}, {port, spooler.monitor}};
    const auto refused = FailsWith(ERROR_INVALID_HANDLE);
    for (const auto& [noMonitor, noPort] : wrong) {
        refused("EnumPorts",
                spooler->pfnEnumPorts(noMonitor, nullptr, 1, nullptr, 0, &needed, &needed));
        refused("OpenPort", spooler->pfnOpenPort(noMonitor, const_cast<LPWSTR>(L"A"), &handle));
        refused("AddPortEx", spooler->pfnAddPortEx(noMonitor, nullptr, 1,
                                                   reinterpret_cast<LPBYTE>(&name), nullptr));
        refused("XcvOpenPort", spooler->pfnXcvOpenPort(noMonitor, L"", 1, &handle));
        refused("StartDocPort", spooler->pfnStartDocPort(noPort, nullptr, 1, 1, nullptr));
        refused("WritePort", spooler->pfnWritePort(noPort, &byte, 1, &needed));
        refused("ReadPort", spooler->pfnReadPort(noPort, &byte, 1, &needed));
        EXPECT_TRUE(spooler->pfnEndDocPort(noPort));
        EXPECT_TRUE(spooler->pfnClosePort(noPort));
        EXPECT_TRUE(spooler->pfnXcvClosePort(noPort));
        EXPECT_EQ(spooler->pfnXcvDataPort(noPort, L"MonitorUI", nullptr, 0, nullptr, 0, nullptr),
                  DWORD{ERROR_INVALID_HANDLE});
        spooler->pfnShutdown(noMonitor);
    }
}

TEST_F(PortListTest, MissingArgumentsAreRefused) {
    Load({L"A"});
    HANDLE port = spooler.Open(L"A");
    const auto invalid = FailsWith(ERROR_INVALID_PARAMETER);
    invalid("EnumPorts",
            spooler->pfnEnumPorts(spooler.monitor, nullptr, 1, nullptr, 0, nullptr, &needed));
    invalid("EnumPorts",
            spooler->pfnEnumPorts(spooler.monitor, nullptr, 1, nullptr, 999, &needed, &needed));
    invalid("OpenPort", spooler->pfnOpenPort(spooler.monitor, nullptr, &handle));
    invalid("OpenPort", spooler->pfnOpenPort(spooler.monitor, const_cast<LPWSTR>(L"A"), nullptr));
    invalid("WritePort", spooler->pfnWritePort(port, &byte, 1, nullptr));
    invalid("WritePort", spooler->pfnWritePort(port, nullptr, 1, &needed));
    invalid("ReadPort", spooler->pfnReadPort(port, &byte, 1, nullptr));
    invalid("XcvOpenPort", spooler->pfnXcvOpenPort(spooler.monitor, nullptr, 1, &handle));
    invalid("XcvOpenPort", spooler->pfnXcvOpenPort(spooler.monitor, L"", 1, nullptr));
}

TEST_F(PortListTest, ShutdownLeavesHandlesThatCloseHarmlessly) {
    Load({L"A", L"deleted"});
    HANDLE ports[] = {spooler.Open(L"A"), spooler.Open(L"deleted")};
    HANDLE xcv = spooler.OpenXcv();
    spooler.Xcv(xcv, L"DeletePort", L"deleted");
    MONITOR2* table = spooler.table;
    spooler.Stop();
    for (HANDLE port : ports) {
        EXPECT_FALSE(table->pfnStartDocPort(port, const_cast<LPWSTR>(L"Office"), 1, 1, nullptr));
        EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_HANDLE});
        EXPECT_TRUE(table->pfnClosePort(port));
    }
    EXPECT_EQ(table->pfnXcvDataPort(xcv, L"PortIsValid", nullptr, 0, nullptr, 0, nullptr),
              DWORD{ERROR_INVALID_HANDLE});
    EXPECT_TRUE(table->pfnXcvClosePort(xcv));
}

}  // namespace
