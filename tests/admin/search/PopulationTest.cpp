#include "admin/search/Population.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

TEST(Population, TellsWhoComesMovesAndGoes) {
    std::string told;
    Population population(
        [&told](Population::Event event, const SearchHit& printer, const std::string& before) {
            told += std::to_string(static_cast<int>(event)) + printer.identity.address +
                    (before.empty() ? "" : "<" + before) + ' ';
        });
    // What a round with answers from these addresses tells.
    const auto round = [&](const std::vector<const char*>& addresses) {
        told.clear();
        for (const char* address : addresses) {
            Printer printer;
            printer.SetFirstIPAddress(IPAddress(address));
            printer.SetMacAddress(MacAddress("000400000001"));
            population.Answered(printer);
        }
        population.EndRound();
        return told;
    };
    EXPECT_EQ(round({"10.0.0.1"}), "010.0.0.1 ");
    EXPECT_EQ(round({"10.0.0.2", "10.0.0.1"}), "") << "it also answers at the old address";
    EXPECT_EQ(round({"10.0.0.2", "10.0.0.3"}), "110.0.0.2<10.0.0.1 ");
    for (const std::vector<const char*>& addresses :
         {std::vector<const char*>{}, {}, {"10.0.0.2"}, {}, {}}) {
        EXPECT_EQ(round(addresses), "") << "an answer ends the count";
    }
    EXPECT_EQ(round({}), "210.0.0.2 ");
    EXPECT_EQ(population.Size(), 0u);
    EXPECT_EQ(population.Counted(Population::Event::Moved), 1u);
}

TEST(Population, APrinterWithoutSlpIsKnownByItsName) {
    std::string told;
    Population population(
        [&told](Population::Event event, const SearchHit& printer, const std::string&) {
            told += std::to_string(static_cast<int>(event)) + printer.identity.address + ' ';
        });
    SearchHit printer(mdns::Printer{"", "prn.local", {"10.0.0.1"}, {}, "", "", ""});
    population.Answered(printer);
    population.EndRound();
    printer.identity.mac = "000400000001";  // known in this round alone
    population.Answered(printer);
    population.EndRound();
    population.Answered(SearchHit(mdns::Printer{"", "prn.local", {"10.0.0.2"}, {}, "", "", ""}));
    population.EndRound();
    EXPECT_EQ(told, "010.0.0.1 110.0.0.2 ");
    EXPECT_EQ(population.Size(), 1u);
}

}  // namespace
