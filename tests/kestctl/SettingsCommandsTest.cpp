#include <winsock2.h>

#include <gmock/gmock.h>

#include "tests/kestctl/CommandLine.h"
#include "tests/support/SnmpMachine.h"

namespace {

using std::string;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class SettingsCommands : public testing::Test {
  protected:
    // Standard output of "settings ARGUMENT..."; what is thrown is kept.
    string Run(std::vector<string> arguments) {
        arguments.insert(arguments.begin(), "settings");
        CLI::App app("kestctl");
        AddSettingsCommands(app);
        return Parse(app, std::move(arguments), failure_, usageError_);
    }

    const SnmpMachine machine_;
    const LogCapture log_;
    string failure_;
    string usageError_;
};

TEST_F(SettingsCommands, ShowPrintsThemOrSaysWhyNot) {
    EXPECT_EQ(Run({"show", "010.1.0.1"}),
              "address  10.1.0.1\nmask     255.0.0.0\ngateway  10.1.255.254\nmethod   3\n");
    EXPECT_EQ(nlohmann::json::parse(Run({"show", "10.1.0.1", "--json"})),
              nlohmann::json({{"address", "10.1.0.1"},
                              {"mask", "255.0.0.0"},
                              {"gateway", "10.1.255.254"},
                              {"method", 3}}));
    SnmpMachine::answering = {"10.1.0.13"};
    EXPECT_EQ(Run({"show", "10.1.0.13"}), "");
    EXPECT_THAT(failure_, HasSubstr("10.1.0.13 answers, but does not report its settings"));
    Run({"show", "10.1.0.11"});
    EXPECT_THAT(failure_, HasSubstr("10.1.0.11 is unreachable"));
    Run({"show", "fe80::1"});
    EXPECT_THAT(usageError_, HasSubstr("'fe80::1' is not an IPv4 address"));
}

TEST_F(SettingsCommands, SetWritesWhatIsGivenAndTellsWhetherThePrinterAnswers) {
    EXPECT_THAT(Run({"set", "10.1.0.1", "--gateway", "10.1.0.254", "--yes"}),
                HasSubstr("written to 10.1.0.1: address 10.1.0.1, mask 255.0.0.0, gateway "
                          "10.1.0.254\nthe printer does not answer at 10.1.0.1 yet"));
    SnmpMachine::answering = {"10.1.0.1"};
    EXPECT_EQ(nlohmann::json::parse(Run({"set", "10.1.0.1", "--mask", "255.255.0.0", "--gateway",
                                         "0.0.0.0", "--yes", "--json"})),
              nlohmann::json::parse(R"({
                  "before": {"address": "10.1.0.1", "mask": "255.0.0.0", "gateway": "10.1.0.254"},
                  "after": {"address": "10.1.0.1", "mask": "255.255.0.0", "gateway": "0.0.0.0"},
                  "answers": true})"));
    EXPECT_EQ(failure_ + usageError_, "");
    EXPECT_THAT(SnmpMachine::Requests(), SizeIs(4));

    Run({"set", "10.1.0.3", "--gateway", "10.1.0.254", "--yes"});
    EXPECT_THAT(failure_, HasSubstr("10.1.0.3 refused the settings"));
}

TEST_F(SettingsCommands, SetWritesNothingThatMakesNoSense) {
    const struct {
        string address, mask, gateway, problem;
    } cases[] = {
        {"10.1.0.9", "255.0.255.0", "10.1.0.254", "has ones behind its zeros"},
        {"10.1.0.9", "0.0.0.0", "10.1.0.254", "leaves no network"},
        {"10.1.0.9", "255.255.255.254", "10.1.0.254", "leaves no network"},
        {"127.1.0.9", "255.0.0.0", "127.1.0.254", "cannot be the address of a printer"},
        {"224.1.0.9", "255.0.0.0", "224.1.0.254", "cannot be the address of a printer"},
        {"10.1.0.0", "255.255.255.0", "10.1.0.254", "the network's own or its broadcast address"},
        {"10.1.0.255", "255.255.255.0", "10.1.0.254", "the network's own or its broadcast"},
        {"10.1.0.9", "255.255.255.0", "10.1.1.254", "outside the printer's network, 10.1.0.0"},
        {"10.1.0.9", "255.255.255.0", "10.1.0.9", "the gateway 10.1.0.9 is the printer's"},
        {"10.1.0.9", "255.255.255.0", "10.1.0.255", "the gateway 10.1.0.255 is"},
        {"10.1.0.9", "255.255.255.0", "10.1.0.256", "'10.1.0.256' is not an IPv4 address"},
        {"10.1.0.9:80", "255.255.255.0", "10.1.0.1", "'10.1.0.9:80' is not an IPv4 address"},
    };
    for (const auto& c : cases) {
        Run({"set", "10.1.0.1", "--address", c.address, "--mask", c.mask, "--gateway", c.gateway,
             "--yes"});
        EXPECT_THAT(usageError_, HasSubstr(c.problem));
    }
    Run({"set", "10.1.0.1", "--yes"});
    EXPECT_THAT(usageError_, HasSubstr("a setting to change is required"));
    // The tests have no terminal.
    Run({"set", "10.1.0.1", "--mask", "255.255.0.0"});
    EXPECT_THAT(usageError_,
                HasSubstr("--yes (there is no terminal to ask on), or --dry-run is required"));
    EXPECT_THAT(SnmpMachine::Requests(), IsEmpty());

    // What is the same already, and a dry run, write nothing either.
    EXPECT_THAT(Run({"set", "10.1.0.1", "--mask", "255.0.0.0", "--yes"}), HasSubstr("no change"));
    EXPECT_THAT(Run({"set", "10.1.0.1", "--gateway", "10.1.0.254", "--dry-run"}),
                HasSubstr("gateway  10.1.255.254 -> 10.1.0.254\nDry run"));

    // What the printer has is read first, and is judged with what is given.
    Run({"set", "10.1.0.1", "--address", "10.2.0.9", "--mask", "255.255.0.0", "--yes"});
    EXPECT_THAT(failure_, HasSubstr("10.1.255.254 is outside the printer's network, 10.2.0.0"));
    SnmpMachine::answering = {"10.2.0.9"};
    Run({"set", "10.1.0.1", "--address", "10.2.0.9", "--yes"});
    EXPECT_THAT(failure_, HasSubstr("another device already uses 10.2.0.9"));
    EXPECT_THAT(SnmpMachine::Requests(),
                AllOf(SizeIs(4), testing::Each(testing::StartsWith("GET"))));
    EXPECT_EQ(NotGivenBack(), 0);
}

}  // namespace
