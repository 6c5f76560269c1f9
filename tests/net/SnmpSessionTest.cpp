#include "net/SnmpSession.h"

#include <gmock/gmock.h>

#include <chrono>

#include "tests/support/SnmpMachine.h"

namespace {

using std::string;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

// The community is followed by as many zeros as are sent with it.
constexpr char kWay[] = " from 10.0.0.1 to 10.1.0.1, community snmpro+15, ";
const string kSettings = "1.3.6.1.4.1.11.2.4.3.5.";
const string kNameOid = kSettings + "100.0";

// The settings read, or the failure's code; nothing may have been touched then.
string Read(SnmpSession& session) {
    string address = "-";
    string gateway;
    string mask;
    unsigned method = 9;
    const int result = session.GetNetworkSettings(address, gateway, mask, method);
    const string text = address + " " + mask + " " + gateway + " " + std::to_string(method);
    return result == 0 ? text : text == "-   9" ? std::to_string(result) : "touched";
}

string Printer(int number) {
    return "10.1.0." + std::to_string(number);
}

TEST(SnmpSessionTest, ReadsAndWritesSettings) {
    const SnmpMachine machine;
    {
        SnmpSession session(IPAddress("010.001.000.001"));
        EXPECT_EQ(Read(session), "10.1.0.1 255.0.0.0 10.1.255.254 3");
        EXPECT_EQ(session.SetNetworkSettings("010.9.9.9", "10.9.0.1", "255.255.0.0"), 0);
        EXPECT_EQ(Read(session), "10.9.9.9 255.255.0.0 10.9.0.1 3");
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
    const string get = string("GET") + kWay + kSettings;
    const string set = string("SET") + kWay + kSettings;
    const auto then = ", " + kSettings;
    const string getAll =
        get + "12.0=Null" + then + "13.0=Null" + then + "2.0=Null" + then + "1.0=Null";
    EXPECT_THAT(SnmpMachine::Requests(),
                ElementsAre(getAll,
                            set + "2.0=IpAddress 10.9.9.9" + then + "13.0=IpAddress 10.9.0.1" +
                                then + "12.0=IpAddress 255.255.0.0",
                            getAll,
                            set + "2.0=IpAddress 10.8.8.8" + then + "13.0=Null" + then +
                                "12.0=IpAddress 255.0.0.0",
                            set + "13.0=IpAddress 10.9.0.2", set + "1.0=Integer 4000000000",
                            get + "13.0=Null", get + "1.0=Null"));
}

// Whatever a printer answers, it is read rightly or not at all.
TEST(SnmpSessionTest, JudgesAnswers) {
    const SnmpMachine machine;
    string dotted = "1";
    for (int i = 2; i < 200; ++i) {
        dotted += "." + std::to_string(i);
    }
    const std::pair<int, string> cases[] = {
        {4, "1"},
        {5, "1"},
        {6, "1"},
        {7, "10.1.0.7  " + dotted + " 3"},
        {8, "1"},
        {9, "1"},
        {10, "10.1.0.10 255.0.0.0 10.1.255.254 3"},  // behind a late answer without values
        {12, "1"},
        {13, "1"},
    };
    for (const auto& [printer, settings] : cases) {
        SnmpSession session{IPAddress(Printer(printer))};
        EXPECT_EQ(Read(session), settings) << printer;
    }
    EXPECT_EQ(NotGivenBack(), 0);
}

TEST(SnmpSessionTest, TakesARefusalForWhatItIs) {
    const SnmpMachine machine;
    string text = "-";
    unsigned integer = 99;
    for (const int refusing : {3, 10}) {  // the second behind a late answer that refuses nothing
        SnmpSession session(IPAddress(Printer(refusing)));
        EXPECT_EQ(session.SetNetworkSettings("10.9.9.9", "10.9.0.1", "255.0.0.0"), 1);
        EXPECT_EQ(session.SetAddress(kAddressOid, "10.9.9.9"), 0);
        EXPECT_EQ(session.SetAddress(kAddressOid, "printer"), 3);
        EXPECT_EQ(session.SetInteger(kConfigMethodOid, 1), 0);
        EXPECT_EQ(session.GetText(kConfigMethodOid, text), 1);
        EXPECT_EQ(session.GetText("printer", text), 1);
        EXPECT_EQ(session.GetInteger(kNameOid, integer), 1);
        EXPECT_EQ(text + std::to_string(integer), "-99");
    }
    EXPECT_EQ(NotGivenBack(), 0);
}

TEST(SnmpSessionTest, ReadsEachSyntaxAndOutlivesAnotherSession) {
    const SnmpMachine machine;
    string text;
    unsigned integer = 0;
    SnmpSession other(IPAddress(Printer(3)));
    {
        SnmpSession session(IPAddress(Printer(1)));
        for (unsigned i = 1; i <= 4; ++i) {  // each of another syntax
            EXPECT_EQ(session.GetInteger(kSettings + std::to_string(100 + i) + ".0", integer), 0);
            EXPECT_EQ(integer, 4000000000U + i);
        }
        EXPECT_EQ(session.GetText(kNameOid, text), 0);
        EXPECT_EQ(text, string("Office\0", 7) + string(20000, 'x'));
        session.Close();
        EXPECT_EQ(session.GetText(kNameOid, text), 1);
    }
    // It outlives the other's end.
    EXPECT_EQ(other.GetInteger(kConfigMethodOid, integer), 0);
    other.Close();
    EXPECT_EQ(NotGivenBack(), 0);
}

TEST(SnmpSessionTest, WaitsForAnAnswerForFiveSeconds) {
    const SnmpMachine machine(false);
    SnmpSession session(IPAddress(Printer(1)));
    const auto expectNothing = [&session] {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(Read(session), "11");
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        EXPECT_GT(took.count(), 4.9);
        EXPECT_LT(took.count(), 30);
    };
    // Without addresses there is nothing to send from.
    expectNothing();
    EXPECT_THAT(SnmpMachine::Requests(), IsEmpty());

    const SnmpMachine started;
    session.Open(IPAddress(Printer(2)));
    expectNothing();
    EXPECT_THAT(SnmpMachine::Requests(), ElementsAre(StartsWith("GET from 10.0.0.1 to 10.1.0.2")));
    session.Close();
    EXPECT_EQ(NotGivenBack(), 0);
}

// The library may be in the callback, or call it, when the session that it calls for is closed.
TEST(SnmpSessionTest, CallbacksSetNoClosedEvent) {
    static const auto setEvent = reinterpret_cast<decltype(&::SetEvent)>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32"), "SetEvent")));
    static const HANDLE done = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    static HANDLE event;
    static int set;
    const ImportPatch patch(
        GetModuleHandleW(nullptr), "SetEvent", +[](HANDLE given) -> BOOL {
            event = given;
            setEvent(given);
            // The request goes on and the session is closed, up to its event.
            for (int i = 0; i < 100 && NotGivenBack() > 0; ++i) {
                Sleep(10);
            }
            Sleep(50);
            set += setEvent(given);
            return setEvent(done);
        });
    const SnmpMachine machine;
    {
        SnmpSession session(IPAddress(Printer(1)));
        EXPECT_EQ(Read(session).size(), 33u);
    }
    EXPECT_EQ(WaitForSingleObject(done, 5000), WAIT_OBJECT_0);
    EXPECT_EQ(set, 1);
    ResetEvent(done);
    EXPECT_EQ(SnmpSession::Callback(nullptr, nullptr, 0, 0, 0, event), 0U);
    EXPECT_EQ(SnmpSession::Callback(nullptr, nullptr, 0, 0, 0, nullptr), 0U);
    EXPECT_EQ(WaitForSingleObject(done, 0), static_cast<DWORD>(WAIT_TIMEOUT));
}

}  // namespace
