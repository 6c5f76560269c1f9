#include "mdns/Collector.h"

#include <gmock/gmock.h>

#include "tests/mdns/Messages.h"

using namespace mdns;
using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr uint16_t kId = 7;
const std::string kRaw = "_pdl-datastream._tcp.local";
const std::string kLpr = "_printer._tcp.local";
const std::string kIpp = "_ipp._tcp.local";

std::string Ip(int a, int b, int c, int d) {
    return Number(a, 1) + Number(b, 1) + Number(c, 1) + Number(d, 1);
}

// A printer with one IPP service, whole.
std::string Whole(const std::string& name, const std::string& address) {
    return Response(kId, {Pointer(kIpp, name), Location(kIpp, name, 631, name + ".local"),
                          Texts(kIpp, name, {"rp=ipp"}), Address(name + ".local", address)});
}

std::vector<std::string> Hosts(const Collector& heard) {
    std::vector<std::string> hosts;
    for (const Printer& printer : heard.Printers()) {
        hosts.push_back(printer.host);
    }
    return hosts;
}

std::string Ask(std::string_view name, unsigned type) {
    return NameOf(name) + Label("") + Number(type, 2) + Number(0x8001, 2);
}

TEST(Collector, MakesOnePrinterOfAllThatAHostAnnounces) {
    Collector heard(kId);
    heard.Take(
        "10.0.0.1",
        Response(kId, {Address("prn.local", Ip(10, 9, 9, 9)), Address("PRN.Local", Ip(10, 0, 0, 1)),
                       Address("prn.local", "\xFD\x77" + std::string(13, '\0') + "\2"),
                       Location(kIpp, "Office", 631, "PRN.local"),
                       Texts(kIpp, "Office", {"RP=ipp/print", "rp=other", "note", "=x"}),
                       Pointer(kIpp, "Office"), Pointer(kRaw, "OFFICE")}));
    heard.Take(
        "fe80::1",
        Response(kId,
                 {Location(kRaw, "office", 9100, "prn.local"),
                  Texts(kRaw, "office", {"product=(Acme 1)", "UUID=u-1"}), Pointer(kLpr, "Lpr 1"),
                  Pointer(kLpr, "Lpr 2"), Location(kLpr, "Lpr 1", 515, "prn.local"),
                  Location(kLpr, "Lpr 2", 0, "prn.local"),
                  Texts(kLpr, "Lpr 1", {"rp=lp", "ty=Acme 2", "adminurl=http://prn/", "rp=x"})}));
    const auto printers = heard.Printers();
    ASSERT_EQ(printers.size(), 1u);
    const Printer& printer = printers[0];
    EXPECT_EQ(printer.host, "PRN.local");
    EXPECT_EQ(printer.instance, "OFFICE");
    EXPECT_THAT(printer.addresses, ElementsAre("10.0.0.1", "10.9.9.9", "fd77::2"));
    EXPECT_THAT(printer.services,
                ElementsAre(Service{Protocol::Raw, 9100, ""}, Service{Protocol::Lpr, 515, "lp"},
                            Service{Protocol::Ipp, 631, "ipp/print"}));
    EXPECT_EQ(printer.model, "Acme 1");
    EXPECT_EQ(printer.uuid, "u-1");
    EXPECT_EQ(printer.adminUrl, "http://prn/");
}

TEST(Collector, LeavesOutWhatCannotBeAPrinter) {
    const struct {
        std::string host;
        std::string address;
        bool good;
    } cases[] = {
        {"a.local", Ip(10, 0, 0, 1), true},
        {"a.local", Ip(169, 254, 0, 1), true},
        {"a.local", Ip(0, 0, 0, 0), false},
        {"a.local", Ip(127, 0, 0, 1), false},
        {"a.local", Ip(224, 0, 0, 1), false},
        {"a.local", Ip(255, 255, 255, 255), false},
        {"a.local", "\x20\x01" + std::string(14, '\1'), true},
        {"a.local", std::string(15, '\0') + "\1", false},
        {"a.local", "\xFE\x80" + std::string(14, '\1'), false},
        {"a.local", "\xFF\x02" + std::string(14, '\1'), false},
        {"a.b.LOCAL", Ip(10, 0, 0, 1), true},
        {"a.example", Ip(10, 0, 0, 1), false},
        {"a\x1B.local", Ip(10, 0, 0, 1), false},
        {"a b.local", Ip(10, 0, 0, 1), false},
    };
    for (const auto& c : cases) {
        Collector heard(kId);
        heard.Take("10.0.0.9", Response(kId, {Pointer(kIpp, "x"), Location(kIpp, "x", 631, c.host),
                                              Address(c.host, c.address)}));
        EXPECT_THAT(heard.Printers(), SizeIs(c.good ? 1 : 0)) << c.host;
    }
    Collector heard(kId);
    heard.Take("10.0.0.9", Response(kId, {Pointer("_http._tcp.local", "x"),
                                          Location("_http._tcp.local", "x", 80, "a.local"),
                                          RawRecord(NameOf(kIpp) + Label(""), 12,
                                                    NameOf("x._http._tcp.local") + Label("")),
                                          Address("a.local", Ip(10, 0, 0, 1))}));
    EXPECT_THAT(heard.Printers(), IsEmpty());
}

TEST(Collector, ReportsTextOnlyIfItIsClean) {
    const struct {
        std::string text;
        bool clean;
    } cases[] = {
        {"Acme 1", true},
        {"\x7E\xC2\xA0\xC3\xBC\xDF\xBF", true},  // from the ends of what two bytes can say
        {"\xE0\xA0\x80\xED\x9F\xBF\xEF\xBF\xBD\xF0\x9F\x96\xA8\xF4\x8F\xBF\xBF", true},
        {"a\x1B[2J", false},
        {"a\0b"s, false},
        {"a\x7F", false},
        {"a\xC2\x9B", false},      // a C1 control character
        {"a\xE2\x80\xAE", false},  // writes from right to left
        {"a\xE2\x80\xA8", false},  // separates lines
        {"a\xE2\x81\xA6", false},  // isolates a direction
        {"\xC3", false},           // cut off
        {"\xE2\x82", false},
        {"\xC3\x28", false},          // no continuation
        {"\xBC", false},              // nothing to continue
        {"\xC0\xAF\xC1\xBF", false},  // longer than needed
        {"\xE0\x9F\xBF", false},
        {"\xF0\x8F\xBF\xBF", false},
        {"\xED\xA0\x80", false},      // a surrogate
        {"\xF4\x90\x80\x80", false},  // beyond Unicode
        {"\xFF\xFE", false},
    };
    for (const auto& c : cases) {
        Collector heard(kId);
        heard.Take("10.0.0.1",
                   Response(kId, {Pointer(kIpp, c.text), Location(kIpp, c.text, 631, "a.local"),
                                  Texts(kIpp, c.text, {"ty=" + c.text}),
                                  Address("a.local", Ip(10, 0, 0, 1))}));
        ASSERT_THAT(heard.Printers(), SizeIs(1));
        EXPECT_EQ(heard.Printers()[0].model, c.clean ? c.text : "");
        EXPECT_EQ(heard.Printers()[0].instance, c.clean ? c.text : "");
    }
}

TEST(Collector, AsksForAllServicesThenForEachAndWithKnownAnswers) {
    const std::string header = Number(kId, 2) + Number(0, 2);
    const std::string services =
        Ask(kRaw, 12) + Ask(kLpr, 12) + Ask(kIpp, 12) + Ask("_ipps._tcp.local", 12);
    Collector heard(kId);
    EXPECT_THAT(heard.Queries(), ElementsAre(header + Number(4, 2) + Number(0, 6) + services));
    heard.Take("10.0.0.1", Whole("prn", Ip(10, 0, 0, 1)));
    EXPECT_TRUE(heard.NextRound());
    const std::string one = header + Number(1, 2) + Number(0, 6);
    EXPECT_THAT(heard.Queries(),
                ElementsAre(one + Ask(kRaw, 12), one + Ask(kLpr, 12), one + Ask(kIpp, 12),
                            one + Ask("_ipps._tcp.local", 12)));
    heard.Take("10.0.0.2", Whole("other", Ip(10, 0, 0, 2)));
    EXPECT_TRUE(heard.NextRound());
    EXPECT_THAT(heard.Queries(), ElementsAre(testing::StartsWith(header + Number(4, 2) +
                                                                 Number(2, 2) + Number(0, 4))));
    EXPECT_THAT(heard.Queries()[0], testing::HasSubstr(Label("prn")));
    for (int n = 0; n < 100; ++n) {
        heard.Take("10.0.0.3", Whole("prn-" + std::to_string(n), Ip(10, 0, 1, n)));
    }
    ASSERT_THAT(heard.Queries(), SizeIs(1));
    EXPECT_LE(heard.Queries()[0].size(), kMaxQuery);
    EXPECT_GE(heard.Queries()[0].size(), kMaxQuery - 25);
}

TEST(Collector, AsksForRecordsThatAreMissing) {
    Collector heard(kId);
    const auto further = [&heard] {
        const auto queries = heard.Queries();
        return queries.size() < 2 ? "" : queries.back().substr(12);
    };
    heard.Take("10.0.0.1", Response(kId, {Pointer(kIpp, "x")}));
    EXPECT_EQ(further(), Ask("x." + kIpp, 33) + Ask("x." + kIpp, 16));
    heard.Take("10.0.0.1", Response(kId, {Location(kIpp, "x", 631, "a.local")}));
    EXPECT_EQ(further(), Ask("x." + kIpp, 16) + Ask("a.local", 1) + Ask("a.local", 28));
    heard.Take("10.0.0.1", Response(kId, {Texts(kIpp, "x", {""}),
                                          Address("a.local", "\x20\x01" + std::string(14, '\1'))}));
    EXPECT_EQ(further(), Ask("a.local", 1));
    heard.Take("10.0.0.1", Response(kId, {Address("a.local", Ip(10, 0, 0, 1))}));
    EXPECT_EQ(further(), "");
}

// Hosts that refer to many records which they do not send do not keep others from being asked.
TEST(Collector, AsksAboutTheAnswersOfEachHostInTurn) {
    Collector heard(kId);
    for (int host = 1; host <= 20; ++host) {
        for (int n = 0; n < 100; ++n) {
            const std::string name = std::string(55, 'x') + std::to_string(1000 * host + n);
            heard.Take("10.0.0." + std::to_string(host), Response(kId, {Pointer(kIpp, name)}));
        }
    }
    heard.Take("10.0.0.99", Response(kId, {Pointer(kIpp, "honest")}));
    const auto queries = heard.Queries();
    EXPECT_EQ(queries.size(), 1 + kMaxFurtherQueries);
    EXPECT_THAT(queries[1], testing::HasSubstr(Ask("honest." + kIpp, 33)));
    EXPECT_THAT(queries[1] + queries[2] + queries[3],
                testing::HasSubstr(Ask("honest." + kIpp, 16)));
    for (const std::string& query : queries) {
        EXPECT_LE(query.size(), kMaxQuery);
    }
}

TEST(Collector, RepeatsUntilNothingNewComes) {
    const struct {
        std::string
            rounds;  // '.' nothing, 'n' a new printer, 'o' the old one, 'a' an address alone
        int milliseconds;
    } cases[] = {{"....", 2500}, {"n.", 1000},   {"no", 1000},  {".n.", 1700},
                 {"nn.", 1700},  {"nnnn", 2500}, {"a...", 2500}};
    for (const auto& c : cases) {
        Collector heard(kId);
        std::chrono::milliseconds waited(0);
        for (int n = 0; const char round : c.rounds) {
            if (round == 'n' || round == 'o') {
                heard.Take("10.0.0.1",
                           Whole("prn-" + std::to_string(round == 'n' ? n++ : 0), Ip(10, 0, 0, 1)));
            } else if (round == 'a') {
                heard.Take("10.0.0.1", Response(kId, {Address("a.local", Ip(10, 0, 0, 1))}));
            }
            waited += heard.WaitingTime();
            if (!heard.NextRound()) {
                break;
            }
        }
        EXPECT_EQ(waited.count(), c.milliseconds) << c.rounds;
    }
}

// Announces printers in so many bytes.
void Flood(Collector& heard, const std::string& source, const std::string& name, size_t bytes) {
    for (size_t sent = 0, n = 0; sent < bytes; ++n) {
        const std::string whole = Whole(name + std::to_string(n), Ip(10, 66, 0, 1));
        heard.Take(source, whole);
        sent += whole.size();
    }
}

TEST(Collector, AFloodDoesNotDisplaceTheAnswersOfOthers) {
    Collector heard(kId);
    Flood(heard, "10.0.0.66", "one", kMaxReceivedOfSource / 2);
    const size_t most = heard.Printers().size();
    EXPECT_GT(most, 300u);
    EXPECT_LT(most, kMaxKeptOfSource / kRecordOverhead / 4);
    Flood(heard, "10.0.0.66", "two", kMaxReceivedOfSource);
    EXPECT_EQ(heard.Printers().size(), most);
    // What is never kept has a limit, too: nothing more of this host is read.
    for (size_t n = 0; n <= kMaxReceivedOfSource / kMaxMessage; ++n) {
        heard.Take("10.0.0.67", std::string(kMaxMessage, 'x'));
    }
    heard.Take("10.0.0.67", Whole("late", Ip(10, 0, 0, 67)));
    EXPECT_EQ(heard.Printers().size(), most);
    heard.Take("10.0.0.1", Whole("prn", Ip(10, 0, 0, 1)));
    EXPECT_EQ(heard.Printers().size(), most + 1);
}

TEST(Collector, InventedAddressesDoNotDisplaceTheAnswersOfTheOtherFamily) {
    Collector heard(kId);
    for (size_t n = 0; n <= kMaxSourcesOfFamily; ++n) {
        heard.Take("fe80::" + std::to_string(n), "");
    }
    heard.Take("fe80::ffff", Whole("six", Ip(10, 0, 0, 2)));
    heard.Take("10.0.0.1", Whole("four", Ip(10, 0, 0, 1)));
    EXPECT_THAT(Hosts(heard), ElementsAre("four.local"));

    Collector full(kId);
    for (size_t n = 0; n < kMaxKeptOfFamily / kMaxKeptOfSource + 1; ++n) {
        const std::string number = std::to_string(n);
        Flood(full, "fe80::" + number, number + "-", kMaxReceivedOfSource / 2);
    }
    const size_t most = full.Printers().size();
    full.Take("fe80::ffff", Whole("six", Ip(10, 0, 0, 2)));
    EXPECT_EQ(full.Printers().size(), most);
    full.Take("10.0.0.1", Whole("four", Ip(10, 0, 0, 1)));
    EXPECT_EQ(full.Printers().size(), most + 1);
}

}  // namespace
