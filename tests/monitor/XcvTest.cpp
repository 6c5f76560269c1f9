#include "monitor/Xcv.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>

#include "monitor/PortConfig.h"
#include "tests/support/FakeSpooler.h"
#include "tests/support/HeldCall.h"

using testing::ElementsAre;

namespace {

class XcvTest : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(spooler.Start());
        administrator = spooler.OpenXcv();
        anybody = spooler.OpenXcv(0);
    }
    void TearDown() override {
        spooler->pfnXcvClosePort(administrator);
        spooler->pfnXcvClosePort(anybody);
    }

    // Sends a command with a name as input; the input's size is the name's unless given.
    DWORD Send(HANDLE xcv, const wchar_t* command, std::wstring name, int inputSize = -1,
               DWORD outputSize = 0) {
        output.assign(outputSize, 0xCC);
        needed = 77;
        const auto size =
            inputSize >= 0 ? inputSize : static_cast<int>((name.size() + 1) * sizeof(WCHAR));
        return spooler->pfnXcvDataPort(xcv, command, reinterpret_cast<PBYTE>(name.data()), size,
                                       output.empty() ? nullptr : output.data(), outputSize,
                                       &needed);
    }

    FakeSpooler spooler;
    HANDLE administrator = nullptr;
    HANDLE anybody = nullptr;
    std::vector<BYTE> output;
    DWORD needed = 0;
};

TEST_F(XcvTest, CommandsAreKnownByTheirExactNames) {
    for (const wchar_t* command : {L"HostAddress", L"IPAddress", L"SNMPCommunity",
                                   L"SNMPDeviceIndex", L"SNMPEnabled", L"PortIsValid"}) {
        EXPECT_EQ(Send(anybody, command, L"x", 0, 8), 0u);
        EXPECT_EQ(needed, 77u);
        EXPECT_THAT(output, testing::Each(0xCC));
    }
    for (const wchar_t* command : {L"addport", L"AddPort ", L"", L"Unknown"}) {
        EXPECT_EQ(Send(administrator, command, L"x"), DWORD{ERROR_INVALID_PARAMETER});
    }
    EXPECT_EQ(Send(administrator, nullptr, L"x"), DWORD{ERROR_INVALID_PARAMETER});
}

TEST_F(XcvTest, AddPortMakesAPortWithoutValues) {
    EXPECT_EQ(Send(administrator, L"AddPort", L"Office"), 0u);
    auto calls = spooler.TakeCalls();
    EXPECT_THAT(calls, testing::Contains("EnumPorts (null)"));
    calls.erase(calls.begin(), std::find(calls.begin(), calls.end(), "revert"));
    EXPECT_THAT(calls, ElementsAre("revert", "create Ports 2", "create Office 2", "close", "close",
                                   "impersonate"));
    HANDLE office = spooler.Open(L"Office");
    EXPECT_EQ(spooler.Text(L"Office", L"HWAddress"), L"-");
    // The spooler's list decides: a name that the monitor alone knows is added once more.
    EXPECT_EQ(Send(administrator, L"AddPort", L"OFFICE"), 0u);
    EXPECT_EQ(spooler.AddPort(L"office"), 0u);
    EXPECT_EQ(spooler.Open(L"Office"), office) << "the first one is found";
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Send(administrator, L"DeletePort", L"Office"), 0u);
    }
    EXPECT_EQ(Send(administrator, L"DeletePort", L"Office"), DWORD{ERROR_FILE_NOT_FOUND});
}

// One caller asks the spooler, and another one adds the name before the first gets on.
TEST_F(XcvTest, OfTwoThatAddOneNameAtOnceOneDoes) {
    using Add = std::function<DWORD()>;
    const Add byChannel = [this] { return spooler.Xcv(administrator, L"AddPort", L"Office"); };
    const Add byCall = [this] { return spooler.AddPort(L"OFFICE"); };
    const struct {
        const char* what;
        Add slow, quick;
        bool isDeleted;  // before the slow one gets on
        DWORD error;
    } cases[] = {{"AddPort", byChannel, byCall, false, ERROR_ALREADY_EXISTS},
                 {"AddPortEx", byCall, byChannel, false, ERROR_INVALID_PARAMETER},
                 {"AddPort, and a port that is gone again", byChannel, byCall, true, 0},
                 {"AddPortEx, and a port that is gone again", byCall, byChannel, true, 0}};
    EXPECT_EQ(spooler.AddPort(L"Office"), 0u) << "an older one counts for nothing";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        HeldCall asked;
        std::atomic<int> asking = 0;
        spooler.listener = [&](const std::string& call) {
            if (call == "EnumPorts (null)" && asking++ == 0) {
                asked.Hold();
            }
            return LONG{0};
        };
        auto slow = std::async(std::launch::async, c.slow);
        asked.Await();
        EXPECT_EQ(c.quick(), 0u);
        const auto remove = [this] {
            return Send(administrator, L"DeletePort", L"Office") +
                   Send(administrator, L"DeletePort", L"Office");
        };
        if (c.isDeleted) {
            EXPECT_EQ(remove(), 0u);
        }
        asked.Release();
        EXPECT_EQ(slow.get(), c.error);
        spooler.listener = nullptr;
        EXPECT_NE(spooler.Open(L"Office"), nullptr);
        EXPECT_TRUE(c.isDeleted ? spooler.HasPortKey(L"Office")
                                : remove() == 0 && !spooler.HasPortKey(L"Office"));
        EXPECT_EQ(c.isDeleted ? DWORD{0} : spooler.AddPort(L"Office"), 0u);
    }
}

TEST_F(XcvTest, AddPortRefusesWhatItCannotAdd) {
    spooler.spoolerPorts = {L"LPT1:", L"Known"};
    const struct {
        const char* what;
        HANDLE xcv;
        std::wstring name;
        int size;
        DWORD error;
    } cases[] = {
        {"no right", anybody, L"A", -1, ERROR_ACCESS_DENIED},
        {"no right comes first", anybody, L"A", 0, ERROR_ACCESS_DENIED},
        {"no name", administrator, L"A", 0, ERROR_INVALID_PARAMETER},
        {"size without the terminator", administrator, L"AB", 4, ERROR_INVALID_PARAMETER},
        {"odd size", administrator, L"AB", 5, ERROR_INVALID_PARAMETER},
        {"terminator in the middle", administrator, std::wstring(L"A\0B", 3), 8,
         ERROR_INVALID_PARAMETER},
        {"known to the spooler", administrator, L"KNOWN", -1, ERROR_ALREADY_EXISTS},
        {"too long", administrator, std::wstring(248, L'x'), -1, ERROR_INVALID_NAME},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Send(c.xcv, L"AddPort", c.name, c.size), c.error) << c.what;
        EXPECT_FALSE(spooler.HasPortKey(c.name)) << c.what;
    }
    EXPECT_EQ(spooler->pfnXcvDataPort(administrator, L"AddPort", nullptr, 8, nullptr, 0, nullptr),
              DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(Send(administrator, L"AddPort", std::wstring(247, L'x')), 0u);
}

TEST_F(XcvTest, APortWithoutItsKeyIsTakenBack) {
    for (const char* call : {"create Ports", "create Office"}) {
        spooler.failures = {{call, ERROR_DISK_FULL}};
        EXPECT_EQ(Send(administrator, L"AddPort", L"Office"), DWORD{ERROR_DISK_FULL});
        EXPECT_EQ(spooler.Open(L"Office"), nullptr);
        EXPECT_EQ(spooler.AddPort(L"Office"), DWORD{ERROR_DISK_FULL});
        EXPECT_EQ(spooler.Open(L"Office"), nullptr);
    }
}

TEST_F(XcvTest, DoubtAboutTheSpoolersPortsAddsNone) {
    spooler.enumPortsError = ERROR_ACCESS_DENIED;
    EXPECT_EQ(Send(administrator, L"AddPort", L"Office"), DWORD{ERROR_ALREADY_EXISTS});
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ALREADY_EXISTS});
    EXPECT_EQ(Send(anybody, L"PortExists", L"Office", -1, 4), 0u);
    EXPECT_THAT(output, ElementsAre(1, 0, 0, 0));
}

TEST_F(XcvTest, AddPortExReportsAnExistingPortItsOwnWay) {
    spooler.spoolerPorts = {L"Known"};
    WCHAR server[] = L"server";
    EXPECT_EQ(spooler.AddPort(L"known"), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(spooler.AddPort(nullptr), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_FALSE(spooler->pfnAddPortEx(spooler.monitor, nullptr, 1, nullptr, nullptr));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_PARAMETER});
    for (DWORD level : {0u, 2u}) {
        EXPECT_EQ(spooler.AddPort(L"A", level), DWORD{ERROR_INVALID_LEVEL});
    }
    spooler.TakeCalls();
    EXPECT_EQ(spooler.AddPort(L"A", 0xFFFFFFFF, server), 0u);
    EXPECT_THAT(spooler.TakeCalls(), testing::Contains("EnumPorts server"));
    EXPECT_EQ(spooler.AddPort(L"B", 1), 0u);
}

TEST_F(XcvTest, DeletePortTakesThePortAndItsKey) {
    Send(administrator, L"AddPort", L"Office");
    HANDLE office = spooler.Open(L"Office");
    EXPECT_EQ(Send(anybody, L"DeletePort", L"Office"), DWORD{ERROR_ACCESS_DENIED});
    spooler.TakeCalls();
    EXPECT_EQ(Send(administrator, L"DeletePort", L"OFFICE", 0), 0u);  // the size is not looked at
    EXPECT_THAT(spooler.TakeCalls(),
                ElementsAre("revert", "create Ports 2", "delete Office", "close", "impersonate"));
    EXPECT_FALSE(spooler.HasPortKey(L"Office"));
    EXPECT_EQ(spooler.Open(L"Office"), nullptr);
    EXPECT_FALSE(spooler.Start(office));
    EXPECT_TRUE(spooler->pfnClosePort(office));
    // A name can be equal to the port's without being spelled like its key.
    Send(administrator, L"AddPort", L"Office");
    EXPECT_EQ(Send(administrator, L"DeletePort", L"Of\u00ADfice"), 0u);
    EXPECT_FALSE(spooler.HasPortKey(L"Office"));
    spooler.SetPortKey(L"Office");
    EXPECT_EQ(Send(administrator, L"DeletePort", L"Office"), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_TRUE(spooler.HasPortKey(L"Office"));
    // An empty name is the key of all ports, which stays.
    EXPECT_EQ(Send(administrator, L"AddPort", L""), 0u);
    spooler.TakeCalls();
    EXPECT_EQ(Send(administrator, L"DeletePort", L""), 0u);
    EXPECT_THAT(spooler.TakeCalls(), ElementsAre());
    // The list's end was deleted: what is added now must still be found.
    Send(administrator, L"AddPort", L"Next");
    EXPECT_NE(spooler.Open(L"Next"), nullptr);
}

TEST_F(XcvTest, DeletePortReadsNoFurtherThanItMay) {
    EXPECT_EQ(
        spooler->pfnXcvDataPort(administrator, L"DeletePort", nullptr, 0, nullptr, 0, nullptr),
        DWORD{ERROR_INVALID_PARAMETER});
    auto* pages =
        static_cast<BYTE*>(VirtualAlloc(nullptr, 8192, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    DWORD old = 0;
    VirtualProtect(pages + 4096, 4096, PAGE_NOACCESS, &old);
    for (size_t size : {size_t{0}, size_t{1}, size_t{7}, size_t{64}}) {
        BYTE* input = pages + 4096 - size;
        memset(input, 'x', size);
        EXPECT_EQ(
            spooler->pfnXcvDataPort(administrator, L"DeletePort", input, 0, nullptr, 0, nullptr),
            DWORD{ERROR_FILE_NOT_FOUND});
    }
    VirtualFree(pages, 0, MEM_RELEASE);
    EXPECT_EQ(Send(administrator, L"DeletePort", std::wstring(300, L'x')),
              DWORD{ERROR_FILE_NOT_FOUND});
}

TEST_F(XcvTest, RecordsAreTakenInTheirExactSizeAndWithTheRight) {
    const struct {
        const wchar_t* command;
        DWORD size;
        bool isInput;
    } cases[] = {{L"ConfigurePort", 964, true},
                 {L"GetConfigInfo", 964, false},
                 {L"SetConfigExData", 428, true},
                 {L"GetConfigExData", 428, false}};
    BYTE buffer[1000] = {'A', 0};
    for (const auto& c : cases) {
        const auto send = [&](HANDLE xcv, PBYTE data, DWORD size) {
            BYTE name[] = {'A', 0, 0, 0};
            return c.isInput
                       ? spooler->pfnXcvDataPort(xcv, c.command, data, size, nullptr, 0, nullptr)
                       : spooler->pfnXcvDataPort(xcv, c.command, name, sizeof(name), data, size,
                                                 nullptr);
        };
        for (DWORD size : {DWORD{0}, c.size - 1, c.size + 1}) {
            EXPECT_EQ(send(anybody, buffer, size), DWORD{ERROR_INVALID_DATA});
            EXPECT_EQ(send(administrator, buffer, size), DWORD{ERROR_INVALID_DATA});
        }
        EXPECT_EQ(send(anybody, buffer, c.size), DWORD{ERROR_ACCESS_DENIED});
        EXPECT_EQ(send(administrator, nullptr, c.size), DWORD{ERROR_INVALID_PARAMETER});
        spooler.failures = {{"open Ports", ERROR_ACCESS_DENIED}};
        EXPECT_EQ(send(administrator, buffer + 1, c.size), 0u) << "whatever the registry did";
        spooler.failures = {};
    }
}

TEST_F(XcvTest, NamesEndWithTheirSize) {
    spooler.SetText(L"AB", L"Queue", L"right");
    spooler.SetText(L"ABCD", L"Queue", L"wrong");
    EXPECT_EQ(Send(administrator, L"GetConfigInfo", L"ABCD", 5, 964), 0u);
    EXPECT_STREQ(reinterpret_cast<PORT_DATA_1*>(output.data())->sztQueue, L"right");
    spooler.spoolerPorts = {L"AB"};
    EXPECT_EQ(Send(anybody, L"PortExists", L"ABCD", 4, 4), 0u);
    EXPECT_THAT(output, ElementsAre(1, 0, 0, 0));
}

TEST_F(XcvTest, MonitorUITellsTheNameOfItsLibrary) {
    EXPECT_EQ(Send(anybody, L"MonitorUI", L"", 0, 2), DWORD{ERROR_INSUFFICIENT_BUFFER});
    EXPECT_EQ(needed, 22u);
    EXPECT_EQ(Send(anybody, L"MonitorUI", L"", 0, 22), 0u);
    EXPECT_STREQ(reinterpret_cast<LPCWSTR>(output.data()), L"kestui.dll");
    EXPECT_EQ(spooler->pfnXcvDataPort(anybody, L"MonitorUI", nullptr, 0, nullptr, 0, nullptr),
              DWORD{ERROR_INVALID_PARAMETER});
}

// The sizes claim a buffer: without these checks the spooler would end.
TEST_F(XcvTest, NullPointersAreRefused) {
    WCHAR name[] = L"LPT1:";
    auto* input = reinterpret_cast<PBYTE>(name);
    BYTE buffer[64];
    for (const wchar_t* command : {L"MonitorUI", L"PortExists"}) {
        EXPECT_EQ(spooler->pfnXcvDataPort(anybody, command, input, sizeof(name), nullptr,
                                          sizeof(buffer), &needed),
                  DWORD{ERROR_INVALID_PARAMETER});
        EXPECT_EQ(spooler->pfnXcvDataPort(anybody, command, input, sizeof(name), buffer,
                                          sizeof(buffer), nullptr),
                  DWORD{ERROR_INVALID_PARAMETER});
    }
    EXPECT_EQ(spooler->pfnXcvDataPort(anybody, L"PortExists", nullptr, sizeof(name), buffer,
                                      sizeof(buffer), &needed),
              DWORD{ERROR_INVALID_PARAMETER});
}

TEST_F(XcvTest, PortExistsAsksTheSpooler) {
    spooler.spoolerPorts = {L"LPT1:", L"Office"};
    EXPECT_EQ(Send(anybody, L"PortExists", L"office", -1, 3), DWORD{ERROR_INSUFFICIENT_BUFFER});
    EXPECT_EQ(needed, 4u);
    EXPECT_EQ(Send(anybody, L"PortExists", L"office", -1, 4), 0u);
    EXPECT_THAT(output, ElementsAre(1, 0, 0, 0));
    EXPECT_EQ(Send(anybody, L"PortExists", L"nowhere", -1, 5), 0u);
    EXPECT_THAT(output, ElementsAre(0, 0, 0, 0, 0xCC));
    spooler.spoolerPorts = {};
    EXPECT_EQ(Send(anybody, L"PortExists", L"office", -1, 4), 0u);
    EXPECT_THAT(output, ElementsAre(0, 0, 0, 0));
}

TEST_F(XcvTest, WithoutTheSpoolersLibraryNothingIsAdded) {
    // The library is looked for until it is found, and then kept: a process of its own.
    spooler.hasSpoolerLibrary = false;
    EXPECT_EQ(Send(administrator, L"AddPort", L"Office"), DWORD{ERROR_MOD_NOT_FOUND});
    EXPECT_EQ(Send(anybody, L"PortExists", L"Office", -1, 4), DWORD{ERROR_MOD_NOT_FOUND});
    EXPECT_THAT(output, testing::Each(0xCC));
    spooler.hasSpoolerLibrary = true;
    EXPECT_EQ(Send(administrator, L"AddPort", L"Office"), 0u);
    spooler.TakeCalls();
    EXPECT_EQ(Send(administrator, L"AddPort", L"Other"), 0u);
    EXPECT_THAT(spooler.TakeCalls(), testing::Not(testing::Contains("LoadLibrary SPOOLSS.DLL")));
}

}  // namespace
