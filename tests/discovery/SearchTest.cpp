// The search object and the engine below it, over an SLP library that does as it is told.
#include <gmock/gmock.h>

#include <stdexcept>

#include "discovery/PrinterDiscoveryClass.h"
#include "tests/discovery/ConfigFolder.h"
#include "tests/support/FakeSlp.h"
#include "tests/support/SnmpMachine.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr char kXml[] = R"(<slp_config>
  <version>2</version><service_name>service:printer</service_name>
  <multicast_address>239.255.255.253</multicast_address>
  <attr_parsing_info>
    <ip_addr_key>ip</ip_addr_key><ip_addr2_key>ip2</ip_addr2_key><mac_addr_key>mac</mac_addr_key>
    <host_name_key>host</host_name_key><device_id_string_key>id</device_id_string_key>
    <model_name_key>MDL</model_name_key><description_key>DES</description_key>
  </attr_parsing_info></slp_config>)";

const std::string kInfo = "[info]          - ";

class SearchTest : public testing::Test {
  protected:
    void SetUp() override {
        folder.Write(kXml);
        ASSERT_TRUE(search.Configure(""));
    }

    // The messages of one function.
    std::vector<std::string> LinesOf(const std::string& function) const {
        std::vector<std::string> lines;
        for (const std::string& line : log.Lines()) {
            if (const size_t bar = line.rfind('|'); line.substr(bar + 1) == function) {
                lines.push_back(line.substr(0, bar));
            }
        }
        return lines;
    }
    std::string LastOf(const std::string& function) const { return LinesOf(function).back(); }

    const SnmpMachine machine;
    LogCapture log;
    ConfigFolder folder;
    FakeSlp slp;
    PrinterDiscovery search;
    Printer found;
};

constexpr char kPrinter[] =
    "(ip=10.1.2.3),(ip2=fe80::1),(mac=0004004A1B2C),(host=PRN-01),(id=MFG:Acme;MDL:Model 100;"
    "DES:Office printer;)";

TEST_F(SearchTest, FindsAPrinterByItsMacAddress) {
    slp.answers = {"(ip=10.1.2.9),(mac=0004004a1b2d)"};
    const MacAddress mac(std::string("0004004a1b2c"));
    EXPECT_FALSE(search.FindPrinterByMacAddress(mac, found));
    slp.answers = {kPrinter};
    slp.TakeCalls();
    ASSERT_TRUE(search.FindPrinterByMacAddress(mac, found));
    EXPECT_EQ(found.GetIPAddress().GetText(), "10.1.2.3");
    EXPECT_EQ(found.GetModelName() + "|" + found.GetDescription(), "Model 100|Office printer");
    EXPECT_THAT(slp.TakeCalls(),
                ElementsAre("open en sync", "find service:printer 239.255.255.253 v2", "close"));
    EXPECT_THAT(machine.pinged, IsEmpty());
    std::string story;
    for (const std::string& line : log.Lines()) {
        const size_t bar = line.rfind('|');
        const std::string said = line.substr(kInfo.size(), bar - kInfo.size());
        if (said.starts_with("context type")) {
            story.clear();  // the last search's, from here on
        }
        if (!said.starts_with("context ipaddress")) {  // this computer's own
            story += said.substr(0, 54) + "|";
        }
    }
    EXPECT_EQ(story,
              "context type: 2|context macaddress is: 0004004a1b2c|"
              "context hostname is:|Searching for a printer by ip addr, mac addr or hostna|"
              "Using IPv4 Multicast Address = 239.255.255.253|Call foundPrinters|"
              "Call PD_DiscoverPrintersSynch|PD_DiscoverPrintersSynch - start|SLPOpen|"
              "SLPSetUnicastIP() - setting mcaddr|Setup userdata|SLPFindAttrs()|"
              "PrinterDiscoveryCB() - start|printer data is (ip=10.1.2.3),(ip2=fe80::1),(mac=00040|"
              "pdDataStr is 10.1.2.3|pdDataStr is fe80::1|pdDataStr is 0004004A1B2C|"
              "pdDataStr is PRN-01|pdDataStr is MFG:Acme;MDL:Model 100;DES:Office printer|"
              "Device ID String is MFG:Acme;MDL:Model 100;DES:Office |"
              "Device ID String is MFG:Acme;MDL:Model 100;DES:Office |"
              "Printer is: IPAddress: 10.1.2.3IPAddress2: fe80::1 Mac|"
              "Printer is the same model we are looking for|"
              "Searching context ipaddress is Invalid object|"
              "Searching context macaddress is 0004004a1b2c|Searching context hostname is|"
              "Find specific mac 0004004a1b2c|Adding printer to list|PrinterDiscoveryCB() - start|"
              "We are done!|Done!|SLPFindAttrs - end=0|Successfully found 1 printer(s)|"
              "Successfull!!!|");
}

TEST_F(SearchTest, HostNamesCompareWholeAndInAnyCase) {
    slp.answers = {"(ip=10.1.2.3),(host=prn-01.example)", "(ip=10.1.2.4),(host=prn-0)",
                   "(ip=10.1.2.5),(host=prn-01)", "(ip=10.1.2.6),(host=PRN-01)"};
    ASSERT_TRUE(search.FindPrinterByHostName("PRN-01", found));
    EXPECT_EQ(found.GetIPAddress().GetText(), "10.1.2.5") << "the first of those that match";
    EXPECT_EQ(search.GetFoundPrinterCount(), 2);
    EXPECT_FALSE(search.FindPrinterByHostName("prn", found));
    EXPECT_EQ(search.GetFoundPrinterCount(), 0);
    EXPECT_EQ(found.GetIPAddress().GetText(), "10.1.2.5") << "the record stays as it was";
    EXPECT_EQ(LastOf("PrinterDiscovery::DoSpecificSearch"),
              "[code error]    - Return from DiscoverPrinterSynch is 0");
}

TEST_F(SearchTest, AnAddressIsAskedDirectlyWhenItAnswersPings) {
    const std::string name = "PrinterDiscovery::DoSpecificSearch";
    slp.answers = {"(ip=10.1.2.9)", "(ip=10.9.9.9),(ip2=127.0.0.5)"};
    SnmpMachine::answering = {"127.0.0.5"};
    EXPECT_TRUE(search.FindPrinterByIPAddress(IPAddress(std::string("127.0.0.5")), found));
    EXPECT_EQ(found.GetOtherIPAddress().GetText(), "127.0.0.5");
    EXPECT_THAT(slp.TakeCalls(), ElementsAre("open en sync", "unicast 127.0.0.5",
                                             "find service:printer 127.0.0.5 v2", "close"));
    EXPECT_THAT(LinesOf("PrinterDiscovery::PrinterDiscoveryCB"),
                Contains(StartsWith(kInfo + "Find specific IP-2")));
    EXPECT_THAT(LinesOf(name), Contains(kInfo + "Searching for a specific ip address - end"));

    for (const auto& [asked, group, said] : std::vector<std::array<std::string, 3>>{
             {"127.0.0.6", "239.255.255.253", "IPv4 Multicast Address = 239.255.255.253"},
             {"::1", "ff02::116", "IPv6 Multicast Address = FF02:0:0:0:0:0:0:116"}}) {
        EXPECT_FALSE(search.FindPrinterByIPAddress(IPAddress(asked), found));
        EXPECT_THAT(slp.TakeCalls(), Contains("find service:printer " + group + " v2"));
        EXPECT_THAT(LinesOf(name), Contains("[system error]  - Can't ping, do multicast instead"));
        EXPECT_THAT(LinesOf(name), Contains(kInfo + "Using " + said));
    }
    EXPECT_THAT(machine.pinged, ElementsAre("127.0.0.5", "127.0.0.6"));
}

TEST_F(SearchTest, FailuresOfTheLibrary) {
    const MacAddress mac(std::string("0004004a1b2c"));
    const std::string engine = "PD_DiscoverPrintersSynch";
    slp.answers = {kPrinter};

    slp.openResult = SLP_NETWORK_INIT_FAILED;
    EXPECT_FALSE(search.FindPrinterByMacAddress(mac, found));
    EXPECT_THAT(slp.TakeCalls(), ElementsAre("open en sync"));
    EXPECT_EQ(LastOf(engine), kInfo + "SLPOpen - PDE_INTERNAL_ERROR=-20");
    EXPECT_EQ(LastOf("PrinterDiscovery::DoSpecificSearch"),
              "[code error]    - Return from DiscoverPrinterSynch is -104");

    slp.openResult = SLP_OK;
    slp.findResult = SLP_NETWORK_ERROR;
    EXPECT_FALSE(search.FindPrinterByMacAddress(mac, found));
    EXPECT_EQ(slp.TakeCalls().back(), "close");
    EXPECT_EQ(LastOf(engine), kInfo + "SLPFindAttrs - end=-104");
    EXPECT_THAT(LinesOf(engine), Contains(kInfo + "SLPFindAttrs - PDE_INTERNAL_ERROR=-23"));

    slp.findResult = SLP_OK;
    slp.unicastResult = SLP_PARAMETER_BAD;
    SnmpMachine::answering = {"127.0.0.5"};
    EXPECT_FALSE(search.FindPrinterByIPAddress(IPAddress("127.0.0.5"), found));
    EXPECT_THAT(slp.TakeCalls(), ElementsAre("open en sync", "unicast 127.0.0.5", "close"));
    EXPECT_EQ(LastOf(engine), kInfo + "SLPSetUnicastIP() - PDE_BAD_PARAM1");

    // An error between the answers is not one of the search's.
    slp.unicastResult = SLP_OK;
    slp.errors = {SLP_MEMORY_ALLOC_FAILED};
    EXPECT_TRUE(search.FindPrinterByMacAddress(mac, found));
}

TEST_F(SearchTest, EngineTellsEventsInOrderAndRefusesWhatItCannotUse) {
    std::vector<std::pair<std::string, int32_t>> events;
    const auto note = [](const char* list, int32_t code, void* context) -> int32_t {
        static_cast<decltype(events)*>(context)->emplace_back(list != nullptr ? list : "-", code);
        return code == PD_SUCCESS && std::string(list) == "bad" ? throw std::out_of_range("x") : 1;
    };
    slp.answers = {"one", "bad", "three"};
    slp.errors = {SLP_MEMORY_ALLOC_FAILED};
    EXPECT_EQ(PD_DiscoverPrintersSynch("service:x", 0, note, &events, 1, nullptr, false), 0);
    EXPECT_THAT(events, ElementsAre(std::pair("one", 0), std::pair("bad", 0), std::pair("three", 0),
                                    std::pair("-", -21), std::pair("-", -100)));
    slp.TakeCalls();
    EXPECT_EQ(PD_DiscoverPrintersSynch(nullptr, 0, note, nullptr, 2, nullptr, false), -101);
    EXPECT_EQ(PD_DiscoverPrintersSynch("service:x", 0, nullptr, nullptr, 2, nullptr, false), -101);
    EXPECT_THAT(slp.TakeCalls(), IsEmpty());
    EXPECT_EQ(PD_DiscoverPrintersSynch("service:x", 0, note, nullptr, 2, nullptr, true), -101);
    EXPECT_THAT(slp.TakeCalls(), ElementsAre("open en sync", "close"));
    EXPECT_EQ(LastOf("PD_DiscoverPrintersSynch"), kInfo + "SLPSetUnicastIP() - PDE_BAD_PARAM2");
}

TEST_F(SearchTest, AnswersMayLackAttributes) {
    const struct {
        std::string list, host, model, description;
    } cases[] = {
        // No host name: the value of the attribute before it.
        {"(ip=10.1.2.3),(mac=0004004A1B2C)", "0004004A1B2C", "", ""},
        {"(ip=10.1.2.3)", "10.1.2.3", "", ""},
        // No description: the model once more.
        {"(host=a),(id=MDL:Model 100;)", "a", "Model 100", "Model 100"},
        {"(host=a),(id=DES:Office;)", "a", "", "Office"},
        {"(host=a),(id=MFG:Acme)", "a", "", ""},
        {"(host=a),(id=MDL:Model 100)", "a", "Model 100", "Model 100"},
        {"(host=a),(id=MDL;DES:x)", "a", "DES:x", "x"},
    };
    for (const auto& [list, host, model, description] : cases) {
        Printer printer;
        search.LoadPrinterSettingsFromData(list, printer);
        const auto said = {printer.GetHostName(), printer.GetModelName(), printer.GetDescription()};
        EXPECT_THAT(said, ElementsAre(host, model, description)) << list;
    }
    std::string value = "untouched";
    EXPECT_FALSE(search.ExtractStringValue("b", "(a=1)", value));
    EXPECT_FALSE(search.ExtractStringValue("", "(a=1)", value));
    EXPECT_EQ(value, "untouched");
    search.GetDeviceIdAttr("MODEL", "MODEL:100;", value);
    EXPECT_EQ(value, "L:100") << "the skip is that of a three-letter key";
    EXPECT_THROW(search.GetDeviceIdAttr("MDL", "DES:x;MDL", value), std::out_of_range);

    // Such an answer is dropped, and no other.
    slp.answers = {"(ip=10.1.2.3),(host=prn),(id=DES:x;MDL)", "(ip=10.1.2.4),(host=prn)"};
    EXPECT_TRUE(search.FindPrinterByHostName("prn", found));
    EXPECT_EQ(found.GetIPAddress().GetText(), "10.1.2.4");
    EXPECT_THAT(LinesOf("PD_AttributeCallback"),
                ElementsAre(StartsWith("[code error]    - Answer dropped: ")));
}

TEST_F(SearchTest, HostileAnswersStayOnTheirLineOfTheLog) {
    const std::string forged = "\r\n{240315 09:07:05} - [info]          - Successfull!!!";
    slp.answers = {"(ip=10.1.2.3" + forged + "),(host=prn" + forged + "),(id=MDL:" + forged + ")",
                   "(ip=" + std::string(60000, '1') + "),(host=" + std::string(5000, '(') + ")"};
    EXPECT_FALSE(search.FindPrinterByHostName("prn", found));
    for (const std::string& line : log.Lines()) {
        EXPECT_THAT(line, Not(StartsWith(kInfo + "Successfull!!!"))) << line;
    }
    EXPECT_THAT(log.Text(), HasSubstr("(host=prn??{240315"));
}

// The limits of slp64.dll on what a request reports bound the log as long as no answer is written
// more than seven times: whole, as a value, twice as the device identifier, and three times in the
// dump of the record.
TEST_F(SearchTest, TheLogTakesSevenTimesAnAnswerAtMost) {
    for (const char filler : {'x', '\x01', '\x7F', '\xFF'}) {
        const std::string list = "(ip=10.1.2.3),(id=MDL:DES:" + std::string(60000, filler) + ")";
        const size_t before = log.Text().size();
        slp.answers = {list};
        EXPECT_FALSE(search.FindPrinterByHostName("prn", found));
        const size_t growth = log.Text().size() - before;
        EXPECT_GT(growth, 6 * list.size());
        EXPECT_LT(growth, 7 * list.size() + 10000);
    }
}

TEST_F(SearchTest, ModelsThatDoNotMatchAreLeftOut) {
    slp.answers = {"(ip=10.1.2.3),(host=prn),(id=MDL:Ink 1;)",
                   "(ip=10.1.2.4),(host=prn),(id=MDL:Laser 1;)"};
    search.Configure("Laser*");
    EXPECT_TRUE(search.FindPrinterByHostName("prn", found));
    EXPECT_EQ(found.GetIPAddress().GetText(), "10.1.2.4");
    EXPECT_EQ(search.GetFoundPrinterCount(), 1);
}

TEST_F(SearchTest, AllPrintersFromBeginningToEnd) {
    const DiscoveryCallback tell = [](int32_t code, void* data) {
        *static_cast<int*>(data) += code;
    };
    int ends = 0;
    std::vector<std::string> asTheyCome;
    search.SetFoundCallback(
        [&](const Printer& printer) { asTheyCome.push_back(printer.GetHostName()); });
    ASSERT_TRUE(search.InitAllPrinterDiscovery());
    ASSERT_TRUE(search.InitAllPrinterDiscovery()) << "it is open already";
    EXPECT_TRUE(search.AssociateIFList("127.0.0.1"));
    ASSERT_TRUE(search.SearchForAllPrinterWithModelName(tell, &ends));
    slp.answers = {"(ip=10.1.2.3),(host=a)",
                   "(ip=10.1.2.3),(host=b)",
                   "(ip2=10.1.2.3),(host=c)",
                   "(host=d)",
                   "(host=e)",
                   "(ip=::1),(host=f)"};
    slp.Report();
    slp.answers.clear();
    slp.Report();  // told once only
    EXPECT_EQ(ends, -100);
    EXPECT_THAT(asTheyCome, ElementsAre("a", "", "", "f")) << "no address equals nothing";
    EXPECT_TRUE(search.StopSearchingForAllPrinterWithModelName());
    search.EndAllPrinterDiscovery();
    EXPECT_EQ(search.GetFoundPrinterCount(), 4) << "the list stays";
    EXPECT_FALSE(search.GetFoundPrinter(1).IsValid());
    EXPECT_EQ(search.GetFoundPrinter(3).GetHostName(), "f");
    EXPECT_DEATH(search.GetFoundPrinter(4), "");
    EXPECT_DEATH(search.GetFoundPrinter(-1), "");
    EXPECT_THAT(slp.TakeCalls(),
                ElementsAre("open en async", "associate 127.0.0.1",
                            "find service:printer 239.255.255.253 v2", "stop", "close"));
    EXPECT_THAT(LinesOf("PrinterDiscovery::InitAllPrinterDiscovery"),
                ElementsAre(kInfo + "We have good handle to discover",
                            kInfo + "Clearing found printer list",
                            kInfo + "Calling PD_InitPrinterDiscovery", kInfo + "Init done"));

    // Without user data there is nobody to tell.
    ASSERT_TRUE(search.InitAllPrinterDiscovery());
    EXPECT_TRUE(search.SearchForAllPrinterWithModelName(tell, nullptr));
    slp.Report();
    // A search for one printer ends the wait for all of them.
    EXPECT_TRUE(search.SearchForAllPrinterWithModelName(tell, &ends));
    search.FindPrinterByHostName("a", found);
    slp.Report();
    EXPECT_EQ(ends, -100);
    search.EndAllPrinterDiscovery();
}

TEST_F(SearchTest, AllPrintersFailing) {
    const std::string needed = "[code error]    - Need to initdiscovery first!";
    const std::string system = "[system error]  - PD_";
    const auto last = [this](const char* function) {
        return LastOf(std::string("PrinterDiscovery::") + function);
    };
    EXPECT_FALSE(search.AssociateIFList("127.0.0.1"));
    EXPECT_EQ(last("AssociateIFList"),
              "[code error]    - PD_AssociateIFList: Need to initdiscovery first!");
    EXPECT_FALSE(search.SearchForAllPrinterWithModelName(nullptr, nullptr));
    EXPECT_EQ(last("SearchForAllPrinterWithModelName"), needed);
    EXPECT_FALSE(search.StopSearchingForAllPrinterWithModelName());
    EXPECT_EQ(last("StopSearchingForAllPrinterWithModelName"), needed);
    search.EndAllPrinterDiscovery();
    EXPECT_EQ(last("EndAllPrinterDiscovery"), needed);

    slp.openResult = SLP_INTERNAL_SYSTEM_ERROR;
    EXPECT_FALSE(search.InitAllPrinterDiscovery());
    EXPECT_THAT(log.Text(), HasSubstr(system + "InitPrinterDiscovery returned err = -104"));
    slp.openResult = SLP_OK;
    ASSERT_TRUE(search.InitAllPrinterDiscovery());
    EXPECT_FALSE(search.AssociateIFList(nullptr));
    slp.associateResult = SLP_PARAMETER_BAD;
    EXPECT_FALSE(search.AssociateIFList("nonsense"));
    EXPECT_THAT(log.Text(), HasSubstr(system + "AssociateIFList returned err = -101"));
    slp.findResult = SLP_HANDLE_IN_USE;
    EXPECT_FALSE(search.SearchForAllPrinterWithModelName(nullptr, nullptr));
    EXPECT_EQ(last("SearchForAllPrinterWithModelName"),
              system + "StartPrinterDiscoveryAsynch returned err = -104");
    slp.stopResult = SLP_PARAMETER_BAD;
    EXPECT_FALSE(search.StopSearchingForAllPrinterWithModelName());
    search.EndAllPrinterDiscovery();
}

}  // namespace
