#include <winsock2.h>

#include "admin/search/ConfigLearning.h"

#include <gmock/gmock.h>
#include <windows.h>

#include <iostream>

#include "admin/search/Hosts.h"

namespace {

using testing::HasSubstr;

const SearchSettings kPresent = {"2",       "service:printer", "239.255.255.253", "old-ip", "old-2",
                                 "old-mac", "old-name",        "old-id",          "MDL",    "DES"};

TEST(ConfigLearning, RecognisesByValues) {
    StartedNetwork();
    const IPAddress address(std::string("10.77.1.20"));
    const NameResolver resolve = [&](const std::string& name) {
        return name == "prn-1" ? address : IPAddress();
    };
    const struct {
        std::vector<std::pair<std::string, std::string>> attributes;
        SearchElement element;
        const char* value;
        const char* remark;  // in one of them; none where it is empty
    } cases[] = {
        {{{"gateway-ip", "10.77.1.1"}, {"x-a", "10.77.1.20"}}, kIpAddrKey, "x-a", ""},
        {{{"gateway-ip", "10.77.1.1"}, {"x-a", "10.77.1.20"}}, kIpAddr2Key, "old-2", ""},
        {{{"x-a", "10.77.1.20"}, {"ip", "10.77.1.20"}}, kIpAddrKey, "ip", "`x-a` fits"},
        {{{"ip", "10.77.1.20"}, {"ip2", "0.0.0.0"}}, kIpAddr2Key, "ip2", ""},
        {{{"serial", "0023456789AB"}, {"x-mac", "0004004a1b2c"}}, kMacAddrKey, "x-mac", "serial"},
        {{{"serial", "002345678901"}}, kMacAddrKey, "serial", ""},
        {{{"mac", "00:04:00:4A:1B:2C"}}, kMacAddrKey, "old-mac", "separators"},
        {{{"mac", "000000000000"}}, kMacAddrKey, "old-mac", ""},
        {{{"location", "office"}, {"host", "other"}, {"x-n", "prn-1"}},
         kHostNameKey,
         "x-n",
         "`host` fits"},
        {{{"location", "office"}}, kHostNameKey, "old-name", ""},
        {{{"x-id", "MFG:Acme;MDL:One;"}}, kDeviceIdKey, "x-id", ""},
        {{{"x-id", "MFG:Acme;MODEL:One;"}}, kModelKey, "MDL", "three letters"},
        {{{"x-id", "MFG:DESK;MDL:One;DES:Two;"}}, kDescriptionKey, "DES", "wrong value"},
        {{{"ip", "10.77.1.20:9100"}, {"x-a", "10.77.1.20"}}, kIpAddrKey, "x-a", "a port number"},
        {{{"ip", "010.077.001.020"}}, kIpAddrKey, "ip", "leading zeros"},
        {{{"mac", "0004004a1b2c"}, {"hw", "0004004a1b2d"}}, kMacAddrKey, "mac", "the first of"},
        {{{"hw", "0004004a1b2c"}, {"OLD-mac", "0004004a1b2d"}},
         kMacAddrKey,
         "OLD-mac",
         "as the file has it"},
        {{{"m<c", "0004004a1b2c"}}, kMacAddrKey, "old-mac", "has a character"},
    };
    for (const auto& c : cases) {
        const LearnedSettings learned =
            Learn({1, "service:x-acme", c.attributes}, address, kPresent, resolve);
        std::string remarks;
        for (const std::string& remark : learned.remarks) {
            remarks += remark + '\n';
        }
        EXPECT_EQ(learned.Settings()[c.element], c.value) << c.attributes.front().first;
        EXPECT_THAT(remarks, HasSubstr(c.remark));
        EXPECT_EQ(remarks.empty(), std::string(c.remark).empty()) << remarks;
        EXPECT_EQ(learned.Settings()[kGroup], "224.0.1.22");
    }
}

TEST(ConfigLearning, KeepsWhatPrintersOfAnotherMakeAnnounce) {
    StartedNetwork();
    const IPAddress address(std::string("10.77.1.20"));
    const auto kept = [&](std::vector<std::pair<std::string, std::string>> attributes) {
        const SearchAnswer answer = {2, "service:printer", std::move(attributes)};
        const LearnedSettings learned =
            Learn(answer, address, kPresent, [](const std::string&) { return IPAddress(); });
        const SearchSettings settings = KeepPresent(learned, answer, kPresent);
        return settings[kIpAddrKey] + ' ' + settings[kIpAddr2Key] + ' ' + settings[kMacAddrKey] +
               ' ' + settings[kHostNameKey];
    };
    const std::pair<std::string, std::string> ip = {"x-ip", "10.77.1.20"};
    const std::pair<std::string, std::string> mac = {"x-mac", "0004004a1b2c"};
    EXPECT_EQ(kept({ip, mac, {"x-host", "prn-1"}}), "old-ip x-ip old-mac x-host");
    EXPECT_EQ(kept({ip, mac}), "old-ip x-ip x-mac old-name");
    EXPECT_EQ(kept({ip, {"old-mac", "0004004a1b2c"}, {"x-host", "prn-1"}}),
              "old-ip x-ip old-mac old-name");
    // Its own attribute under that tag would be taken for its address.
    EXPECT_EQ(kept({ip, mac, {"old-ip", "0.0.0.0"}}), "x-ip old-ip x-mac old-name");
}

}  // namespace
