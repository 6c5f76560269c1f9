#include "admin/search/SearchSettings.h"

#include <windows.h>

#include <pugixml.hpp>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <string_view>
#include <utility>

#include "base/Ascii.h"
#include "base/CommandFailed.h"
#include "base/Text.h"
#include "base/Handles.h"
#include "discovery/Config.h"

namespace {

constexpr size_t kLargestFile = 1 << 16;  // bytes
constexpr size_t kMostTags = 1000;        // no real file has nearly as many
constexpr size_t kKeyLength = 3;          // of the identifier's fields, "MDL"
constexpr size_t kLongestTag = 100;       // of an attribute, in the file
constexpr size_t kDepth = 4;              // of elements within elements that are looked at
constexpr int kKeptFiles = 100;

constexpr struct {
    const char* name;
    const char* path;
    const char* comment;  // above it in a file that is written
} kElements[] = {
    {"version", "/slp_config/version", "The version of SLP that the printers speak: 1 or 2."},
    {"service_name", "/slp_config/service_name", "The service type that they announce."},
    {"multicast_address", "/slp_config/multicast_address",
     "The IPv4 multicast group that they listen on."},
    {"ip_addr_key", "/slp_config/attr_parsing_info/ip_addr_key",
     "The attribute with the printer's address, of the interface in use."},
    {"ip_addr2_key", "/slp_config/attr_parsing_info/ip_addr2_key",
     "The attribute with its second address."},
    {"mac_addr_key", "/slp_config/attr_parsing_info/mac_addr_key",
     "The attribute with its MAC address, twelve hexadecimal digits."},
    {"host_name_key", "/slp_config/attr_parsing_info/host_name_key",
     "The attribute with its host name."},
    {"device_id_string_key", "/slp_config/attr_parsing_info/device_id_string_key",
     "The attribute with its device identifier (IEEE 1284)."},
    {"model_name_key", "/slp_config/attr_parsing_info/model_name_key",
     "The three-letter key of the model in it."},
    {"description_key", "/slp_config/attr_parsing_info/description_key",
     "The three-letter key of the description in it."},
};
static_assert(std::size(kElements) == kSearchElements);

std::string Named(const std::string& name) {
    return '<' + Printable(name) + '>';
}

struct Element {
    std::string path;
    std::string name;
    std::string text;
    size_t line;
};

// Takes a document apart into its elements, with the lines in which they stand. Whether Windows'
// own parser agrees, it has to say itself.
class Elements {
  public:
    explicit Elements(const std::string& xml) : xml_(xml) {}

    // Returns them in their order; with a finding where it is no document.
    std::vector<Element> Read(std::vector<SearchFinding>& findings) {
        constexpr unsigned kFlags =
            pugi::parse_default | pugi::parse_doctype | pugi::parse_ws_pcdata;
        const pugi::xml_parse_result result =
            document_.load_buffer(xml_.data(), xml_.size(), kFlags, pugi::encoding_utf8);
        if (!result) {
            findings.push_back({LineOf(result.offset), true, Reason(result)});
            return {};
        }
        for (const pugi::xml_node& node : document_) {
            if (node.type() == pugi::node_doctype) {
                findings.push_back({LineOf(node.offset_debug()), true,
                                    "a document type declaration: leave it out"});
            }
        }
        Take(document_, "");
        return std::move(elements_);
    }

  private:
    size_t LineOf(std::ptrdiff_t offset) const {
        return 1 + static_cast<size_t>(std::count(xml_.begin(), xml_.begin() + offset, '\n'));
    }

    static std::string Reason(const pugi::xml_parse_result& result) {
        switch (result.status) {
            case pugi::status_end_element_mismatch:
                return "an element is not closed, or its closing tag has another name";
            case pugi::status_bad_comment:
                return "a comment is not closed";
            case pugi::status_no_document_element:
                return "there is no element in the file";
            default:
                return std::string("not well-formed XML: ") + result.description();
        }
    }

    // Takes the elements below one; no deeper than the file's own ones stand.
    void Take(const pugi::xml_node& parent, const std::string& path, size_t depth = 0) {
        for (const pugi::xml_node& node : parent) {
            if (node.type() != pugi::node_element || depth == kDepth) {
                continue;
            }
            const std::string name = node.name();
            elements_.push_back(
                {path + '/' + name, name, TextOf(node), LineOf(node.offset_debug())});
            Take(node, path + '/' + name, depth + 1);
        }
    }

    static std::string TextOf(const pugi::xml_node& element) {
        std::string text;
        for (const pugi::xml_node& node : element) {
            if (node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata) {
                text += node.value();
            }
        }
        return text;
    }

    const std::string& xml_;
    pugi::xml_document document_;
    std::vector<Element> elements_;
};

// The checks of values, once it is known where they stand.
class Check {
  public:
    Check(SearchFile& file, const std::array<size_t, kSearchElements>& lines)
        : file_(file), lines_(lines) {
        std::transform(file.values.begin(), file.values.end(), values_.begin(),
                       [](const std::string& value) { return Trim(value); });
    }

    void All() {
        for (size_t i = 0; i < kSearchElements; ++i) {
            if (values_[i] != file_.values[i]) {
                Problem(i, "has blanks or a line end around its value: they count as part of it");
            }
        }
        Request();
        Group();
        Attributes();
        Identifier();
    }

  private:
    void Add(size_t element, bool problem, const std::string& text) {
        if (lines_[element] != 0) {
            file_.findings.push_back(
                {lines_[element], problem, Named(kElements[element].name) + ' ' + text});
        }
    }
    void Problem(size_t element, const std::string& text) { Add(element, true, text); }
    void Note(size_t element, const std::string& text) { Add(element, false, text); }

    void Request() {
        if (values_[kVersion] != "1" && values_[kVersion] != "2") {
            Problem(kVersion, "is '" + Printable(values_[kVersion]) + "': SLP has 1 and 2");
        }
        const std::string& service = values_[kServiceName];
        if (!service.starts_with("service:")) {
            Problem(kServiceName,
                    "is '" + Printable(service) + "': a service type begins with 'service:'");
        }
    }

    void Group() {
        const std::string& group = values_[kGroup];
        unsigned octets[4] = {};
        char more = 0;
        const bool dotted =
            group.find_first_not_of("0123456789.") == std::string::npos &&
            sscanf(group.c_str(), "%3u.%3u.%3u.%3u%c", &octets[0], &octets[1], &octets[2],
                   &octets[3], &more) == 4 &&
            std::all_of(octets, octets + 4, [](unsigned octet) { return octet < 256; });
        const std::string own = GroupOf(values_[kVersion]);
        if (!dotted || octets[0] == 0 || octets[0] >= 240) {
            Problem(kGroup, "is '" + Printable(group) + "': no IPv4 multicast group, as " + own);
            return;
        }
        const std::string canonical = std::to_string(octets[0]) + '.' + std::to_string(octets[1]) +
                                      '.' + std::to_string(octets[2]) + '.' +
                                      std::to_string(octets[3]);
        if (group != canonical) {
            Problem(kGroup, "has leading zeros: Windows reads such parts as octal numbers");
        } else if (group != own && (group == GroupOf("1") || group == GroupOf("2"))) {
            Problem(kGroup, "is the group of the other version of SLP: that of version " +
                                Printable(values_[kVersion]) + " is " + own);
        } else if (octets[0] < 224) {
            Note(kGroup, "is the address of a single host: only that is asked");
        } else if (group != own) {
            Note(kGroup, "is not SLP's own group, " + own + ": printers have to be set to it");
        }
    }

    void Attributes() {
        for (const size_t i : {kIpAddrKey, kIpAddr2Key, kMacAddrKey, kHostNameKey, kDeviceIdKey}) {
            if (const std::string problem = TagProblem(values_[i]);
                !values_[i].empty() && !problem.empty()) {
                Problem(i, problem);
            }
        }
        if (values_[kIpAddrKey].empty()) {
            Problem(kIpAddrKey, "is empty: the address of no printer is known");
        }
        if (values_[kMacAddrKey].empty() && values_[kHostNameKey].empty()) {
            Problem(kMacAddrKey, "is empty, and so is <host_name_key>: no port can follow");
        } else if (values_[kMacAddrKey].empty()) {
            Note(kMacAddrKey, "is empty: ports follow by host name alone");
        } else if (values_[kHostNameKey].empty()) {
            Note(kHostNameKey, "is empty: ports follow by MAC address alone");
        }
    }

    void Identifier() {
        if (values_[kDeviceIdKey].empty()) {
            Note(kDeviceIdKey, "is empty: printers have no model");
            return;
        }
        for (const size_t i : {kModelKey, kDescriptionKey}) {
            const std::string& key = values_[i];
            const bool letters = std::all_of(key.begin(), key.end(), [](unsigned char letter) {
                return letter < 0x80 && std::isalnum(letter);
            });
            if (key.size() != kKeyLength || !letters) {
                Problem(i, "is '" + Printable(key) +
                               "': keys have three letters, and another value is cut out wrongly");
            }
        }
    }

    SearchFile& file_;
    const std::array<size_t, kSearchElements>& lines_;
    SearchSettings values_;
};

// Takes the values out of the elements, with the lines in which they stand (0: nowhere).
std::array<size_t, kSearchElements> TakeValues(const std::vector<Element>& elements,
                                               SearchFile& file) {
    std::array<size_t, kSearchElements> lines = {};
    for (const Element& element : elements) {
        const auto* known =
            std::find_if(std::begin(kElements), std::end(kElements),
                         [&](const auto& candidate) { return candidate.path == element.path; });
        const auto i = static_cast<size_t>(known - kElements);
        if (known == std::end(kElements)) {
            if (element.path != "/slp_config" && element.path != "/slp_config/attr_parsing_info") {
                file.findings.push_back(
                    {element.line, false,
                     Named(element.name) +
                         " is ignored: it is not a known element, or not known at this place"});
            }
        } else if (lines[i] != 0) {
            file.findings.push_back({element.line, true,
                                     Named(element.name) + " is already in line " +
                                         std::to_string(lines[i]) + ": only that one is used"});
        } else {
            lines[i] = element.line;
            file.values[i] = element.text;
        }
    }
    for (size_t i = 0; i < kSearchElements; ++i) {
        if (lines[i] == 0) {
            const bool inner =
                std::string_view(kElements[i].path).find("parsing") != std::string::npos;
            const auto parent =
                std::find_if(elements.begin(), elements.end(), [&](const Element& element) {
                    return element.path ==
                           (inner ? "/slp_config/attr_parsing_info" : "/slp_config");
                });
            file.findings.push_back({parent == elements.end() ? 1 : parent->line, true,
                                     Named(kElements[i].name) + " is missing"});
        }
    }
    return lines;
}

std::string ReadWhole(const std::wstring& path) {
    const UniqueFile file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                      OPEN_EXISTING, 0, nullptr));
    LARGE_INTEGER size = {};
    if (!file || !GetFileSizeEx(file.Get(), &size)) {
        throw CommandFailed(WideToUtf8(path) + " cannot be read: " + ErrorText(GetLastError()));
    }
    if (size.QuadPart > static_cast<LONGLONG>(kLargestFile)) {
        throw CommandFailed(WideToUtf8(path) + " is too long to be an SLPConf.xml");
    }
    std::string content(static_cast<size_t>(size.QuadPart), '\0');
    DWORD count = 0;
    if (!ReadFile(file.Get(), content.data(), static_cast<DWORD>(content.size()), &count,
                  nullptr)) {
        throw CommandFailed(WideToUtf8(path) + " cannot be read: " + ErrorText(GetLastError()));
    }
    content.resize(count);
    if (content.starts_with("\xFF\xFE")) {  // UTF-16, as the system's editor may save it
        std::wstring wide(content.size() / sizeof(wchar_t), L'\0');
        content.copy(reinterpret_cast<char*>(wide.data()), wide.size() * sizeof(wchar_t));
        content = WideToUtf8(wide.substr(1));
    }
    return content;
}

[[noreturn]] void FailToWrite(const std::wstring& path) {
    const DWORD code = GetLastError();
    throw CommandFailed(WideToUtf8(path) + " cannot be written: " + ErrorText(code),
                        code == ERROR_ACCESS_DENIED ? Remedy::RunAsAdministrator : Remedy::None);
}

bool Exists(const std::wstring& path) {
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::wstring KeptPath(const std::wstring& path, int number) {
    return path + L".old" + (number == 1 ? L"" : std::to_wstring(number));
}

// The highest number of a kept version; 0 if there is none.
int LatestKept(const std::wstring& path) {
    int number = kKeptFiles;
    while (number > 0 && !Exists(KeptPath(path, number))) {
        --number;
    }
    return number;
}

// Copies a file beside itself, under the next number. Returns the copy's path; empty if there is no
// file.
std::wstring Keep(const std::wstring& path) {
    const int number = LatestKept(path) + 1;
    if (number > kKeptFiles) {
        throw CommandFailed("There are " + std::to_string(kKeptFiles) + " kept files beside " +
                            WideToUtf8(path) + ". Delete those that you do not need");
    }
    const std::wstring kept = KeptPath(path, number);
    if (CopyFileW(path.c_str(), kept.c_str(), TRUE)) {
        return kept;
    }
    if (GetLastError() != ERROR_FILE_NOT_FOUND) {
        FailToWrite(kept);
    }
    return {};
}

void Move(const std::wstring& from, const std::wstring& to) {
    if (!MoveFileExW(from.c_str(), to.c_str(),
                     MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
        FailToWrite(to);
    }
}

void WriteWhole(const std::wstring& path, const std::string& content) {
    const UniqueFile file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                      FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD count = 0;
    if (!file ||
        !WriteFile(file.Get(), content.data(), static_cast<DWORD>(content.size()), &count,
                   nullptr) ||
        count != content.size() || !FlushFileBuffers(file.Get())) {
        FailToWrite(path);
    }
}

std::string Escaped(const std::string& text) {
    std::string xml;
    for (const char character : text) {
        xml += character == '&'   ? "&amp;"
               : character == '<' ? "&lt;"
               : character == '>' ? "&gt;"
                                  : std::string(1, character);
    }
    return xml;
}

}  // namespace

const char* NameOf(SearchElement element) {
    return kElements[element].name;
}

SearchFile CheckSearchText(const std::string& xml) {
    SearchFile file;
    if (std::count(xml.begin(), xml.end(), '<') > static_cast<std::ptrdiff_t>(kMostTags)) {
        file.findings.push_back({1, true, "there is too much in the file to be an SLPConf.xml"});
        return file;
    }
    const std::vector<Element> elements = Elements(xml).Read(file.findings);
    file.wellFormed = file.findings.empty();
    if (file.wellFormed) {
        const auto lines = TakeValues(elements, file);
        Check(file, lines).All();
        std::stable_sort(file.findings.begin(), file.findings.end(),
                         [](const auto& a, const auto& b) { return a.line < b.line; });
    }
    return file;
}

SearchFile ReadSearchFile(const std::wstring& path) {
    SearchFile file = CheckSearchText(ReadWhole(path));
    if (file.wellFormed && !Config().InitializeFrom(path)) {
        file.wellFormed = false;
        file.findings.insert(file.findings.begin(),
                             {1, true,
                              "Windows' XML parser refuses the file: look for a bare '&', an "
                              "attribute without quotes, or letters that are not in the encoding "
                              "that the first line names"});
    }
    return file;
}

std::string TagProblem(const std::string& tag) {
    if (tag.empty()) {
        return "is empty";
    }
    if (tag.size() > kLongestTag) {
        return "is longer than " + std::to_string(kLongestTag) + " characters";
    }
    const bool odd = std::any_of(tag.begin(), tag.end(), [](unsigned char byte) {
        return byte < 0x20 || byte >= 0x7F ||
               std::string_view("(),\\!<=>~").find(static_cast<char>(byte)) !=
                   std::string_view::npos;
    });
    if (odd) {
        return "has a character that no attribute's tag can have here: brackets, commas, "
               "comparisons, or one beyond ASCII";
    }
    return Trim(tag) == tag ? "" : "has blanks around it";
}

const char* GroupOf(const std::string& version) {
    return version == "1" ? "224.0.1.22" : "239.255.255.253";
}

std::string ToXml(const SearchSettings& settings) {
    std::string xml =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!-- How kestmon finds the printers of this network: docs/SLPConf.md explains it.\n"
        "     Values are taken as they stand: no blanks or line ends around them. -->\n"
        "<slp_config>\n";
    std::string indent = "  ";
    for (size_t i = 0; i < kSearchElements; ++i) {
        if (i == kIpAddrKey) {
            xml += "  <attr_parsing_info>\n";
            indent = "    ";
        }
        const std::string name = kElements[i].name;
        xml += indent + "<!-- " + kElements[i].comment + " -->\n" + indent + '<' + name + '>' +
               Escaped(settings[i]) + "</" + name + ">\n";
    }
    return xml + "  </attr_parsing_info>\n</slp_config>\n";
}

NewSearchFile::NewSearchFile(std::wstring path, const std::string& xml)
    : path_(std::move(path)), fresh_(path_ + L".new") {
    try {
        WriteWhole(fresh_, xml);
    } catch (...) {
        DeleteFileW(fresh_.c_str());
        throw;
    }
}

NewSearchFile::~NewSearchFile() {
    DeleteFileW(fresh_.c_str());
}

std::wstring NewSearchFile::Install() {
    std::wstring kept = Keep(path_);
    try {
        Move(fresh_, path_);
    } catch (...) {
        if (!kept.empty()) {
            DeleteFileW(kept.c_str());
        }
        throw;
    }
    return kept;
}

std::wstring PreviousFile(const std::wstring& path) {
    const int number = LatestKept(path);
    if (number == 0) {
        throw CommandFailed("There is no previous version of " + WideToUtf8(path) + ": no file " +
                            WideToUtf8(KeptPath(path, 1)));
    }
    return KeptPath(path, number);
}

std::wstring RestorePreviousFile(const std::wstring& path) {
    const std::wstring kept = PreviousFile(path);
    if (!Exists(path)) {
        Move(kept, path);
        return kept;
    }
    const std::wstring aside = path + L".new";
    if (!CopyFileW(path.c_str(), aside.c_str(), FALSE)) {
        FailToWrite(aside);
    }
    try {
        Move(kept, path);
    } catch (...) {
        DeleteFileW(aside.c_str());
        throw;
    }
    try {
        Move(aside, kept);
    } catch (...) {
        Move(path, kept);
        CopyFileW(aside.c_str(), path.c_str(), FALSE);
        DeleteFileW(aside.c_str());
        throw;
    }
    return kept;
}
