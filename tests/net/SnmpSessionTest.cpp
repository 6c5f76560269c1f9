#include "net/SnmpSession.h"

#include <gmock/gmock.h>

#include <chrono>

#include "tests/support/SnmpMachine.h"

namespace {

using std::string;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr char kFrom[] = " from 127.0.0.1 to 127.1.0.1, ";
constexpr char kCommunity[] = "community 736e6d70726f000000000000000000000000000000, ";
constexpr char kNameOid[] = "1.3.6.1.4.1.11.2.4.3.5.100.0";
constexpr char kMemoryOid[] = "1.3.6.1.4.1.11.2.4.3.5.101.0";

struct Settings {
    string address = "-";
    string gateway = "-";
    string mask = "-";
    unsigned method = 99;

    int Read(SnmpSession& session) {
        return session.GetNetworkSettings(address, gateway, mask, method);
    }
    string Text() const {
        return address + " " + mask + " " + gateway + " " + std::to_string(method);
    }
};

string Printer(int number) {
    return "10.1.0." + std::to_string(number);
}

TEST(SnmpSessionTest, ReadsAndWritesSettings) {
    const SnmpMachine machine;
    {
        SnmpSession session(IPAddress("010.001.000.001"));
        Settings before;
        EXPECT_EQ(before.Read(session), 0);
        EXPECT_EQ(before.Text(), "10.1.0.1 255.0.0.0 10.1.255.254 3");
        EXPECT_EQ(session.SetNetworkSettings("010.9.9.9", "10.9.0.1", "255.255.0.0"), 0);
        Settings after;
        EXPECT_EQ(after.Read(session), 0);
        EXPECT_EQ(after.Text(), "10.9.9.9 255.255.0.0 10.9.0.1 3");
        // 255.255.255.255 is no address: it has no value to go out with, and nothing is written.
        EXPECT_EQ(session.SetNetworkSettings("10.8.8.8", "255.255.255.255", "255.0.0.0"), 1);

        // One value at a time; a SET's result is 1 for success.
        session.Open(IPAddress(Printer(1)));
        EXPECT_EQ(session.SetAddress(kGatewayOid, "10.009.0.2"), 1);
        EXPECT_EQ(session.SetInteger(kConfigMethodOid, 4000000000U), 1);
        string gateway;
        unsigned method = 0;
        EXPECT_EQ(session.GetText(kGatewayOid, gateway), 0);
        EXPECT_EQ(gateway, "10.9.0.2");
        EXPECT_EQ(session.GetInteger(kConfigMethodOid, method), 0);
        EXPECT_EQ(method, 4000000000U);
    }
    EXPECT_EQ(NotGivenBack(), 0);
    const string get = string("GET") + kFrom + kCommunity;
    const string set = string("SET") + kFrom + kCommunity;
    const string getAll = get +
                          "1.3.6.1.4.1.11.2.4.3.5.12.0=Null, 1.3.6.1.4.1.11.2.4.3.5.13.0=Null, "
                          "1.3.6.1.4.1.11.2.4.3.5.2.0=Null, 1.3.6.1.4.1.11.2.4.3.5.1.0=Null";
    EXPECT_THAT(SnmpMachine::Requests(),
                ElementsAre(getAll,
                            set + "1.3.6.1.4.1.11.2.4.3.5.2.0=IpAddress 10.9.9.9, "
                                  "1.3.6.1.4.1.11.2.4.3.5.13.0=IpAddress 10.9.0.1, "
                                  "1.3.6.1.4.1.11.2.4.3.5.12.0=IpAddress 255.255.0.0",
                            getAll,
                            set + "1.3.6.1.4.1.11.2.4.3.5.2.0=IpAddress 10.8.8.8, "
                                  "1.3.6.1.4.1.11.2.4.3.5.13.0=Null, "
                                  "1.3.6.1.4.1.11.2.4.3.5.12.0=IpAddress 255.0.0.0",
                            set + "1.3.6.1.4.1.11.2.4.3.5.13.0=IpAddress 10.9.0.2",
                            set + "1.3.6.1.4.1.11.2.4.3.5.1.0=Integer -294967296",
                            get + "1.3.6.1.4.1.11.2.4.3.5.13.0=Null",
                            get + "1.3.6.1.4.1.11.2.4.3.5.1.0=Null"));
}

// Whatever a printer answers, it is read rightly or not at all.
TEST(SnmpSessionTest, JudgesAnswers) {
    const SnmpMachine machine;
    string dotted = "1";
    for (int i = 2; i < 200; ++i) {
        dotted += "." + std::to_string(i);
    }
    const struct {
        int printer;
        int result;
        string settings;
    } cases[] = {
        {4, 1, ""},
        {5, 1, ""},
        {6, 1, ""},
        {8, 1, ""},
        {9, 1, ""},
        {12, 1, ""},
        {13, 1, ""},
        {7, 0, "10.1.0.7  " + dotted + " 3"},
        {10, 0, "10.1.0.10 255.0.0.0 10.1.255.254 3"},  // after a datagram that is no message
    };
    for (const auto& c : cases) {
        SnmpSession session{IPAddress(Printer(c.printer))};
        Settings settings;
        EXPECT_EQ(settings.Read(session), c.result) << c.printer;
        EXPECT_EQ(settings.Text(), c.result == 0 ? c.settings : Settings().Text()) << c.printer;
    }

    SnmpSession session(IPAddress(Printer(3)));
    EXPECT_EQ(session.SetNetworkSettings("10.9.9.9", "10.9.0.1", "255.0.0.0"), 1);
    EXPECT_EQ(session.SetAddress(kAddressOid, "10.9.9.9"), 0);
    EXPECT_EQ(session.SetAddress(kAddressOid, "printer"), 3);
    EXPECT_EQ(session.SetInteger(kConfigMethodOid, 1), 0);
    string text = "-";
    unsigned integer = 99;
    EXPECT_EQ(session.GetText(kConfigMethodOid, text), 1);
    EXPECT_EQ(session.GetText("printer", text), 1);
    EXPECT_EQ(session.GetInteger(kNameOid, integer), 1);
    EXPECT_EQ(text, "-");
    EXPECT_EQ(integer, 99U);
    EXPECT_EQ(session.GetInteger(kMemoryOid, integer), 0);
    EXPECT_EQ(integer, static_cast<unsigned>(-2));
    EXPECT_EQ(session.GetText(kNameOid, text), 0);
    EXPECT_EQ(text.size(), 20007U);
    EXPECT_EQ(text.substr(0, 8), string("Office\0x", 8));
    session.Close();
    EXPECT_EQ(session.GetInteger(kMemoryOid, integer), 1);
    EXPECT_EQ(NotGivenBack(), 0);
}

TEST(SnmpSessionTest, WaitsForAnAnswerForFiveSeconds) {
    const SnmpMachine machine(false);
    SnmpSession session(IPAddress(Printer(1)));
    Settings settings;
    const auto timed = [](auto request) {
        const auto start = std::chrono::steady_clock::now();
        const int result = request();
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        EXPECT_GT(took.count(), 4.9);
        EXPECT_LT(took.count(), 8);
        return result;
    };
    // Without addresses there is nothing to send from.
    EXPECT_EQ(timed([&] { return settings.Read(session); }), 11);
    EXPECT_THAT(SnmpMachine::Requests(), IsEmpty());

    const SnmpMachine started;
    session.Open(IPAddress(Printer(2)));
    EXPECT_EQ(timed([&] { return settings.Read(session); }), 11);
    EXPECT_THAT(SnmpMachine::Requests(),
                ElementsAre(StartsWith("GET from 127.0.0.1 to 127.1.0.2")));
    EXPECT_EQ(settings.Text(), Settings().Text());
    session.Close();
    EXPECT_EQ(NotGivenBack(), 0);
}

// The library may still be in the callback when the session that it calls for is closed.
TEST(SnmpSessionTest, CloseWaitsForTheCallback) {
    EXPECT_EQ(SnmpSession::Callback(nullptr, nullptr, 0, 0, 0, nullptr), 0U);

    static const auto setEvent = reinterpret_cast<decltype(&::SetEvent)>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32"), "SetEvent")));
    static const HANDLE done = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    static bool eventIsOpen;
    const ImportPatch patch(
        GetModuleHandleW(nullptr), "SetEvent", +[](HANDLE event) -> BOOL {
            setEvent(event);
            // The request goes on and the session is closed: only its startup is still counted.
            for (int i = 0; i < 100 && NotGivenBack() > 1; ++i) {
                Sleep(10);
            }
            Sleep(50);
            eventIsOpen = setEvent(event) != FALSE;
            return setEvent(done);
        });
    const SnmpMachine machine;
    {
        SnmpSession session(IPAddress(Printer(1)));
        Settings settings;
        EXPECT_EQ(settings.Read(session), 0);
    }
    EXPECT_EQ(WaitForSingleObject(done, 5000), WAIT_OBJECT_0);
    EXPECT_TRUE(eventIsOpen);
}

}  // namespace
