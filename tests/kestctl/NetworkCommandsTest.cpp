#include <winsock2.h>

#include <gmock/gmock.h>

#include "tests/kestctl/CommandLine.h"
#include "tests/support/LogCapture.h"

namespace {

using testing::HasSubstr;

class NetworkCommands : public testing::Test {
  protected:
    NetworkCommands() { AddNetworkCommands(app_); }

    // The output of a command; what it throws is kept.
    std::string Run(std::vector<std::string> arguments) {
        return Parse(app_, std::move(arguments), failure_, usageError_);
    }

    CLI::App app_{"kestctl"};
    std::string failure_;
    std::string usageError_;
    LogCapture log_;
};

TEST_F(NetworkCommands, ResolveGivesTheAddressAlone) {
    EXPECT_EQ(Run({"resolve", "127.0.0.1"}), "127.0.0.1\n");
    const auto json = nlohmann::json::parse(Run({"resolve", "::1", "--json"}));
    EXPECT_EQ(json, nlohmann::json({{"name", "::1"}, {"address", "::1"}, {"family", "IPv6"}}));
    EXPECT_EQ(failure_, "");
}

TEST_F(NetworkCommands, PingTellsWhetherTheHostAnswers) {
    EXPECT_EQ(Run({"ping", "127.0.0.1"}), "127.0.0.1 answers\n");
    EXPECT_EQ(failure_, "");
    // There is no ICMP for IPv6 under Wine, so that nothing can answer.
    const auto json = nlohmann::json::parse(Run({"ping", "::1", "--json"}));
    EXPECT_EQ(json, nlohmann::json({{"address", "::1"}, {"answered", false}}));
    EXPECT_THAT(failure_, HasSubstr("::1 does not answer. Check that"));
}

TEST_F(NetworkCommands, InterfacesSayWhyOneIsNotUsed) {
    EXPECT_THAT(Run({"interfaces"}),
                testing::ContainsRegex("127.0.0.1 +255.0.0.0 +no: it is the loopback address"));
    const auto json = nlohmann::json::parse(Run({"interfaces", "--json"}));
    EXPECT_GT(json["interfaces"], 0);
    for (const auto& row : json["addresses"]) {
        EXPECT_EQ(row["used"], !row.contains("reason")) << row;
    }
}

}  // namespace
