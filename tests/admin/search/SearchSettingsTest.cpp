#include "admin/search/SearchSettings.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "base/CommandFailed.h"
#include "base/Handles.h"

namespace {

using testing::HasSubstr;

SearchSettings Good() {
    return {"2",           "service:printer", "239.255.255.253",   "ip-address", "ip-address-2",
            "mac-address", "host-name",       "printer-device-id", "MDL",        "DES"};
}

std::string Told(const SearchFile& file) {
    std::string told;
    for (const SearchFinding& finding : file.findings) {
        told +=
            std::to_string(finding.line) + (finding.problem ? ": " : "~ ") + finding.text + '\n';
    }
    return told;
}

TEST(SearchSettings, SayWhatIsWrongAndWhere) {
    const std::string good = ToXml(Good());
    const SearchFile file = CheckSearchText(good);
    EXPECT_EQ(Told(file), "");
    EXPECT_EQ(file.values, Good());
    const struct {
        const char* from;
        const char* to;
        const char* told;
    } cases[] = {
        {"<version>2<", "<version>3<", "6: <version> is '3': SLP has 1 and 2"},
        {"<version>2<", "<version>1<", "10: <multicast_address> is the group of the other version"},
        {"<version>2<", "<version>\n2<", "6: <version> has blanks or a line end"},
        {">ip-address-2<", "> <", "15: <ip_addr2_key> has blanks"},
        {">service:printer<", ">printer<", "8: <service_name> is 'printer'"},
        {">239.255.255.253<", ">239.255.255.053<", "10: <multicast_address> has leading zeros"},
        {">239.255.255.253<", ">10.0.0.7<", "10~ <multicast_address> is the address of a single"},
        {">239.255.255.253<", ">slp.example<", "10: <multicast_address> is 'slp.example': no IPv4"},
        {">ip-address<", "><", "13: <ip_addr_key> is empty"},
        {">mac-address<", ">mac-address <", "17: <mac_addr_key> has blanks"},
        {">mac-address<", ">(mac)<", "17: <mac_addr_key> has a character"},
        {">MDL<", ">MODEL<", "23: <model_name_key> is 'MODEL': keys have three letters"},
        {">DES<", "><", "25: <description_key> is ''"},
        {"<host_name_key>host-name</host_name_key>", "", "11: <host_name_key> is missing"},
        {"<version>2</version>", "<version>2</version><version>1</version>",
         "6: <version> is already in line 6: only that one is used"},
        {"mac_addr_key>", "mac_adr_key>",
         "17: an element is not closed, or its closing tag has another name"},
        {"</slp_config>", "", "27: an element is not closed"},
        {"-->", "->", "a comment is not closed"},
        {"<slp_config>", "<!DOCTYPE a><slp_config>", "4: a document type declaration"},
    };
    for (const auto& c : cases) {
        std::string text = good;
        text.replace(text.find(c.from), std::string(c.from).size(), c.to);
        if (std::string(c.from) == "-->") {
            for (size_t at = text.find("-->"); at != std::string::npos; at = text.find("-->")) {
                text.erase(at, 3);
            }
        }
        EXPECT_THAT(Told(CheckSearchText(text)), HasSubstr(c.told)) << c.from << " as " << c.to;
    }
    std::string nested;
    for (int i = 0; i < 100000; ++i) {
        nested += "<a>";
    }
    EXPECT_THAT(Told(CheckSearchText(nested)), HasSubstr("too much"));
    SearchSettings odd = Good();
    odd[kMacAddrKey] = "a<b>&amp;c";
    EXPECT_EQ(CheckSearchText(ToXml(odd)).values, odd);
}

TEST(SearchSettings, AKeptFileIsNeverWrittenOver) {
    const auto folder = std::filesystem::temp_directory_path() / "kest-search-settings";
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    const std::filesystem::path path = folder / "SLPConf.xml";
    const auto content = [](const std::filesystem::path& file) {
        std::ostringstream text;
        text << std::ifstream(file, std::ios::binary).rdbuf();
        return text.str();
    };
    const auto replace = [&path](const char* xml) { return NewSearchFile(path, xml).Install(); };
    EXPECT_THROW(RestorePreviousFile(path), CommandFailed);
    EXPECT_EQ(replace("one"), L"");
    const std::filesystem::path first = replace("two");
    const std::filesystem::path second = replace("three");
    EXPECT_EQ(content(first) + ' ' + content(second) + ' ' + content(path), "one two three");
    // The latest version is the previous one, whatever became of those before it.
    std::filesystem::remove(first);
    EXPECT_EQ(std::filesystem::path(replace("four")).filename(), "SLPConf.xml.old3");
    EXPECT_EQ(std::filesystem::path(RestorePreviousFile(path)).filename(), "SLPConf.xml.old3");
    EXPECT_EQ(content(path), "three");
    RestorePreviousFile(path);
    EXPECT_EQ(content(path), "four");
    // A new version that is only tried, or that cannot be installed, leaves nothing behind.
    {
        const NewSearchFile tried(path, "five");
        EXPECT_EQ(content(tried.Path()) + ' ' + content(path), "five four");
    }
    {
        const UniqueFile reader(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                            OPEN_EXISTING, 0, nullptr));
        EXPECT_THROW(replace("five"), CommandFailed);
        EXPECT_THROW(RestorePreviousFile(path), CommandFailed);
    }
    const std::filesystem::path aside = path.native() + L".new";
    {
        const UniqueFile held(CreateFileW(aside.c_str(), GENERIC_READ,
                                          FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                          CREATE_ALWAYS, 0, nullptr));
        EXPECT_THROW(RestorePreviousFile(path), CommandFailed);
    }
    std::filesystem::remove(aside);
    EXPECT_EQ(content(folder / "SLPConf.xml.old3"), "three");
    EXPECT_EQ(content(path), "four");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 3);
    // Nested properly, and yet no XML.
    std::ofstream(path, std::ios::binary) << "<slp_config><version>2 & 1</version></slp_config>";
    EXPECT_FALSE(ReadSearchFile(path).wellFormed);
    std::filesystem::remove_all(folder);
}

}  // namespace
