#include "discovery/Config.h"

#include <gmock/gmock.h>

#include "tests/discovery/ConfigFolder.h"
#include "tests/support/LogCapture.h"

namespace {

constexpr wchar_t kFile[] = L"\\SLPConf.xml";

std::string AllTexts(const Config& config) {
    return config.GetIpAddrKey() + "|" + config.GetIpAddr2Key() + "|" + config.GetMacAddrKey() +
           "|" + config.GetDeviceIdStringKey() + "|" + config.GetHostNameKey() + "|" +
           config.GetModelNameKey() + "|" + config.GetDescriptionKey() + "|" +
           config.GetMulticastAddress() + "|" + config.GetServiceName();
}

constexpr char kNothing[] = "||||||||";

constexpr char kWhole[] = R"(<?xml version="1.0"?>
<slp_config extra="ignored">
  <unknown>ignored</unknown>
  <attr_parsing_info>
    <description_key>DES</description_key><model_name_key>MDL</model_name_key>
    <ip_addr_key>ip</ip_addr_key><ip_addr_key>second</ip_addr_key><ip_addr2_key>ip2</ip_addr2_key>
    <mac_addr_key>mac</mac_addr_key><host_name_key>host</host_name_key>
    <device_id_string_key>id</device_id_string_key>
  </attr_parsing_info>
  <service_name> service:<!-- a comment -->printer </service_name>
  <multicast_address>239.255.255.253</multicast_address>
  <version> 7</version>
</slp_config>)";

TEST(Config, ReadsTheFileBesideTheModuleAsItStands) {
    const LogCapture log;
    const ConfigFolder folder;
    folder.Write(kWhole);
    Config config;
    ASSERT_TRUE(config.Initialize(kFile));
    EXPECT_EQ(AllTexts(config), "ip|ip2|mac|id|host|MDL|DES|239.255.255.253| service:printer ");
    EXPECT_EQ(config.GetVersion(), 7);
    EXPECT_THAT(log.Lines(), testing::ElementsAre("[info]          - XMLfile path: " +
                                                  folder.Path() + "|Config::Initialize"));

    config.Reset();
    EXPECT_EQ(AllTexts(config), kNothing);
}

TEST(Config, WhatIsMissingStaysAsItWasAndVersionsAreLeadingNumbers) {
    const ConfigFolder folder;
    Config config;
    folder.Write("<slp_config><service_name>service:printer</service_name></slp_config>");
    EXPECT_TRUE(config.Initialize(kFile));
    EXPECT_EQ(AllTexts(config), std::string(kNothing) + "service:printer");
    EXPECT_EQ(config.GetVersion(), 0);
    folder.Write("<slp_config><service_name/></slp_config>");
    EXPECT_TRUE(config.Initialize(kFile));
    EXPECT_EQ(AllTexts(config), kNothing);  // an element that is there and empty
    for (const auto& [text, version] : std::initializer_list<std::pair<std::string, int>>{
             {"2", 2}, {"", 2}, {"3x", 3}, {"abc", 0}, {"-1", -1}, {"99999999999", INT32_MAX}}) {
        folder.Write("<slp_config><version>" + text + "</version></slp_config>");
        EXPECT_TRUE(config.Initialize(kFile));
        EXPECT_EQ(config.GetVersion(), version) << text;
    }
}

TEST(Config, FilesThatCannotBeReadChangeNothing) {
    const ConfigFolder folder;
    Config config;
    EXPECT_FALSE(config.Initialize(kFile)) << "no file at all";
    folder.Write(kWhole);
    ASSERT_TRUE(config.Initialize(kFile));
    const std::string before = AllTexts(config);
    for (const char* broken :
         {"", "<slp_config><version>9</version>", "version = 9",
          "<slp_config><service_name>&nonsense;</service_name></slp_config>"}) {
        folder.Write(broken);
        EXPECT_FALSE(config.Initialize(kFile)) << broken;
        EXPECT_EQ(AllTexts(config), before) << broken;
        EXPECT_EQ(config.GetVersion(), 7) << broken;
    }
}

}  // namespace
