#include "admin/search/ConfigLearning.h"

#include <algorithm>
#include <cctype>
#include <future>

#include "address/AddressText.h"
#include "address/MacAddress.h"
#include "base/Ascii.h"
#include "base/CommandFailed.h"
#include "admin/search/PrinterIdentity.h"
#include "base/Text.h"
#include "slp/AttributeList.h"
#include "slp/SlpHandle.h"

namespace {

constexpr size_t kAttributes = 500;  // of one answer; printers have some dozens
constexpr size_t kShown = 96;        // bytes of a value, in a remark
constexpr size_t kNamesAsked = 8;    // a printer is not to have us ask for thousands of names

bool HasOneOf(const std::string& tag, std::initializer_list<const char*> words) {
    const std::string lower = ToLower(tag);
    return std::any_of(words.begin(), words.end(), [&lower](const char* word) {
        return lower.find(word) != std::string::npos;
    });
}

std::string Shown(const std::string& value) {
    std::string text = Printable(value);
    if (text.size() <= kShown) {
        return text;
    }
    size_t cut = kShown;
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) {
        --cut;  // not inside a character
    }
    return text.substr(0, cut) + "...";
}

SLPBoolean TakeAnswer(SLPHandle, const char* list, SLPError code, void* cookie) {
    if (code == SLP_OK) {
        auto& attributes = static_cast<SearchAnswer*>(cookie)->attributes;
        slp::Cursor rest(list);
        while (attributes.size() < kAttributes) {
            const auto attribute = slp::NextAttribute(rest);
            if (!attribute) {
                break;
            }
            // Of two alike the first counts, for the search as well.
            const std::string tag(attribute->tag);
            if (attribute->whole &&
                std::none_of(attributes.begin(), attributes.end(), [&](const auto& other) {
                    return EqualsIgnoreCase(other.first, tag);
                })) {
                attributes.emplace_back(tag, slp::Unescape(attribute->value));
            }
        }
    }
    return SLP_TRUE;
}

SearchAnswer Ask(const IPAddress& address, unsigned version, const std::string& service) {
    SearchAnswer answer{version, service};
    SLPHandle opened = nullptr;
    SLPError error = SLPOpen("en", SLP_FALSE, &opened);
    if (error == SLP_OK) {
        const UniqueSlpHandle handle(opened);
        int length = 0;
        const sockaddr* to = address.GetSockAddr(length);
        error = to == nullptr ? SLP_PARAMETER_BAD : SLPSetUnicastIP(handle.Get(), to);
        if (error == SLP_OK) {
            error = SLPFindAttrs(handle.Get(), service.c_str(), nullptr, nullptr, TakeAnswer,
                                 &answer, nullptr, version);
        }
    }
    if (error != SLP_OK) {
        throw CommandFailed("the printer cannot be asked for " + Printable(service) +
                            " (SLP error " + std::to_string(error) + ')');
    }
    return answer;
}

// An attribute that may be what an element names.
struct Candidate {
    std::string tag;
    std::string value;
    std::string why;
    int rank;  // the highest is taken; among equals the present file's tag, or the first
};

struct Field {
    std::string key;
    std::string value;
    size_t at;  // in the identifier
};

std::vector<Field> Fields(const std::string& identifier) {
    std::vector<Field> fields;
    for (size_t at = 0; at < identifier.size();) {
        const size_t end = std::min(identifier.find(';', at), identifier.size());
        const size_t colon = identifier.find(':', at);
        if (colon < end) {
            fields.push_back({identifier.substr(at, colon - at),
                              identifier.substr(colon + 1, end - colon - 1), at});
        }
        at = end + 1;
    }
    return fields;
}

bool IsDeviceIdentifier(const std::string& value) {
    bool make = false;
    bool model = false;
    for (const Field& field : Fields(value)) {
        make = make || field.key == "MFG" || field.key == "MANUFACTURER";
        model = model || field.key == "MDL" || field.key == "MODEL";
    }
    return make && model;
}

// An IPv4 address without leading zeros and without a port number.
std::string Plain(const std::string& text) {
    std::string plain;
    if (IsIPv4AddressText(text)) {
        NormalizeAddressText(text.substr(0, text.find(':')), plain, false);
    }
    return plain;
}

class Learner {
  public:
    Learner(const SearchAnswer& answer, const IPAddress& address, const SearchSettings& present,
            const NameResolver& resolve)
        : answer_(answer), address_(address), present_(present), resolve_(resolve) {
        for (const std::string& value : present) {
            learned_.elements.push_back({value, "", "nothing fits; as the file has it", false});
        }
    }

    LearnedSettings All() {
        Request();
        Sort();
        Take(kIpAddrKey);
        Take(kIpAddr2Key);
        Take(kMacAddrKey);
        Take(kHostNameKey);
        Take(kDeviceIdKey);
        if (const LearnedElement& id = learned_.elements[kDeviceIdKey]; id.recognised) {
            const std::string identifier = whole_;
            TakeKey(kModelKey, "MDL", "MODEL", identifier);
            TakeKey(kDescriptionKey, "DES", "DESCRIPTION", identifier);
        }
        return std::move(learned_);
    }

  private:
    void Request() {
        const std::string version = std::to_string(answer_.version);
        std::string& group = learned_.elements[kGroup].value;
        const bool ownGroup = !group.empty() && group != GroupOf("1") && group != GroupOf("2") &&
                              learned_.elements[kVersion].value == version;
        learned_.elements[kVersion] = {version, "", "it answers in this version", true};
        learned_.elements[kServiceName] = {answer_.service, "", "it answers under this type", true};
        learned_.elements[kGroup] = {
            ownGroup ? group : GroupOf(version), "",
            ownGroup ? "as the file has it" : "SLP's own in version " + version, true};
    }

    // Puts each attribute where its value fits.
    void Sort() {
        for (const auto& [tag, value] : answer_.attributes) {
            if (SortAddress(tag, value) || SortMac(tag, value)) {
                continue;
            }
            if (IsDeviceIdentifier(value)) {
                Add(kDeviceIdKey, tag, value, "make and model by their keys (IEEE 1284)",
                    HasOneOf(tag, {"id"}) ? 2 : 1);
            } else {
                SortName(tag, value);
            }
        }
    }

    bool SortAddress(const std::string& tag, const std::string& value) {
        const IPAddress address(value);
        if (!address.IsValid()) {
            return false;
        }
        const bool named = HasOneOf(tag, {"ip", "addr"}) &&
                           !HasOneOf(tag, {"gate", "mask", "dns", "route", "server", "wins"});
        const std::string problem = AddressProblem(value);
        if (!problem.empty()) {
            learned_.remarks.push_back(Quoted(tag) + " is " + Shown(value) + ", " + problem +
                                       ": no port can follow a printer by it");
        }
        if (address == address_ || IPAddress(Plain(value)) == address_) {
            Add(kIpAddrKey, tag, value, "its own address", !problem.empty() ? 0 : named ? 2 : 1);
        } else if (named) {
            Add(kIpAddr2Key, tag, value, "another address, by its value and tag", 1);
        }
        return true;
    }

    bool SortMac(const std::string& tag, const std::string& value) {
        std::string digits = value;
        if (!CheckMacAddress(digits).empty() || digits.empty()) {
            return false;
        }
        if (!MacAddress(value).IsValid()) {
            learned_.remarks.push_back(Quoted(tag) + " is a MAC address with separators, " +
                                       Shown(value) +
                                       ": ports cannot follow by it, only by host name");
        } else {
            const bool named = HasOneOf(tag, {"mac", "hardware", "hw", "ether", "physical"});
            Add(kMacAddrKey, tag, value, "twelve hexadecimal digits", named ? 2 : 1);
        }
        return true;
    }

    void SortName(const std::string& tag, const std::string& value) {
        std::string name = value;
        const auto inName = [](unsigned char letter) {
            return letter >= 0x80 || std::isalnum(letter) || letter == '-' || letter == '.' ||
                   letter == '_';
        };
        if (value.empty() || !CheckHostName(name).empty() ||
            !std::all_of(value.begin(), value.end(), inName) ||
            value.find_first_not_of("0123456789.") == std::string::npos) {
            return;
        }
        const bool host = HasOneOf(tag, {"host"});
        const int named = host ? 2 : HasOneOf(tag, {"name"}) ? 1 : 0;
        if (IPAddress found; namesAsked_ < kNamesAsked) {
            ++namesAsked_;
            found = resolve_(value);
            if (found == address_) {
                Add(kHostNameKey, tag, value, "a name that resolves to its address", 3 + named);
                return;
            }
            if (found.IsValid() && host) {
                Add(kHostNameKey, tag, value,
                    "by its tag; the name resolves to " + found.GetText() + ", though", named);
                return;
            }
        }
        if (named != 0) {
            Add(kHostNameKey, tag, value, "by its tag; the name does not resolve", named);
        }
    }

    void Add(SearchElement element, const std::string& tag, const std::string& value,
             const std::string& why, int rank) {
        if (const std::string problem = TagProblem(tag); !problem.empty()) {
            learned_.remarks.push_back(Quoted(tag) + " fits <" + NameOf(element) +
                                       ">, but its tag " + problem);
        } else {
            candidates_[element].push_back({tag, value, why, rank});
        }
    }

    void Take(SearchElement element) {
        const std::vector<Candidate>& all = candidates_[element];
        if (all.empty()) {
            return;
        }
        const auto best =
            std::max_element(all.begin(), all.end(), [&](const Candidate& a, const Candidate& b) {
                return a.rank < b.rank ||
                       (a.rank == b.rank && !EqualsIgnoreCase(a.tag, present_[element]) &&
                        EqualsIgnoreCase(b.tag, present_[element]));
            });
        learned_.elements[element] = {best->tag, Shown(best->value), best->why, true};
        if (element == kDeviceIdKey) {
            whole_ = best->value;
        }
        for (auto other = all.begin(); other != all.end(); ++other) {
            if (other != best) {
                const char* reason = other->rank < best->rank ? "by tag and value the better one"
                                     : EqualsIgnoreCase(best->tag, present_[element])
                                         ? "as the file has it"
                                         : "the first of the two";
                learned_.remarks.push_back(Quoted(other->tag) + " fits <" + NameOf(element) +
                                           ">, too (" + Shown(other->value) + "); taken is " +
                                           Quoted(best->tag) + ", " + reason);
            }
        }
    }

    // The search takes the first place at which the key stands, inside of words, too, and what
    // begins four characters behind it.
    void TakeKey(SearchElement element, const std::string& key, const std::string& longKey,
                 const std::string& identifier) {
        const std::vector<Field> fields = Fields(identifier);
        const auto named = [&fields](const std::string& wanted) {
            return std::find_if(fields.begin(), fields.end(),
                                [&](const Field& field) { return field.key == wanted; });
        };
        if (const auto field = named(key); field == fields.end()) {
            if (named(longKey) != fields.end()) {
                learned_.remarks.push_back(longKey + " in the identifier does not fit <" +
                                           NameOf(element) + ">: keys have three letters there");
            }
        } else if (identifier.find(key) != field->at) {
            learned_.remarks.push_back(key + " stands in the identifier before its field, in " +
                                       Shown(identifier.substr(0, field->at)) +
                                       ": the search takes that place, and shows a wrong value");
            learned_.elements[element] = {key, Shown(field->value), "the key's own field", true};
        } else {
            learned_.elements[element] = {key, Shown(field->value), "the key's field", true};
        }
    }

    static std::string Quoted(const std::string& tag) { return '`' + Shown(tag) + '`'; }

    const SearchAnswer& answer_;
    const IPAddress& address_;
    const SearchSettings& present_;
    const NameResolver& resolve_;
    size_t namesAsked_ = 0;
    std::string whole_;  // the identifier
    std::vector<Candidate> candidates_[kSearchElements];
    LearnedSettings learned_;
};

}  // namespace

SearchSettings LearnedSettings::Settings() const {
    SearchSettings settings;
    std::transform(elements.begin(), elements.end(), settings.begin(),
                   [](const LearnedElement& element) { return element.value; });
    return settings;
}

size_t LearnedSettings::Recognised() const {
    return static_cast<size_t>(
        std::count_if(elements.begin() + kIpAddrKey, elements.end(),
                      [](const LearnedElement& element) { return element.recognised; }));
}

std::vector<SearchAnswer> AskEverything(const IPAddress& address,
                                        const std::vector<std::string>& services) {
    std::vector<std::future<SearchAnswer>> asked;
    for (const unsigned version : {2U, 1U}) {
        for (const std::string& service : services) {
            asked.push_back(std::async(std::launch::async, Ask, address, version, service));
        }
    }
    std::vector<SearchAnswer> answers;
    for (auto& question : asked) {
        if (SearchAnswer answer = question.get(); !answer.attributes.empty()) {
            answers.push_back(std::move(answer));
        }
    }
    return answers;
}

LearnedSettings Learn(const SearchAnswer& answer, const IPAddress& address,
                      const SearchSettings& present, const NameResolver& resolve) {
    return Learner(answer, address, present, resolve).All();
}

std::string AddressProblem(const std::string& text) {
    if (!IsIPv4AddressText(text)) {
        return {};
    }
    if (text.find(':') != std::string::npos) {
        return "an address with a port number";
    }
    return Plain(text) != text ? "an address with leading zeros" : "";
}

SearchSettings KeepPresent(const LearnedSettings& learned, const SearchAnswer& answer,
                           const SearchSettings& present) {
    const auto& elements = learned.elements;
    SearchSettings settings = learned.Settings();
    const auto isFree = [&](SearchElement element) {
        return !present[element].empty() &&
               std::none_of(answer.attributes.begin(), answer.attributes.end(),
                            [&](const auto& attribute) {
                                return EqualsIgnoreCase(attribute.first, present[element]);
                            });
    };
    const auto keep = [&](SearchElement element) { settings[element] = present[element]; };
    const auto isNew = [&](SearchElement element) {
        return elements[element].recognised &&
               !EqualsIgnoreCase(elements[element].value, present[element]);
    };
    if (isNew(kIpAddrKey) && isFree(kIpAddrKey)) {
        settings[kIpAddr2Key] = settings[kIpAddrKey];
        keep(kIpAddrKey);
    }
    // The printer is found by one of the two.
    if (isNew(kHostNameKey) && isFree(kHostNameKey) && elements[kMacAddrKey].recognised &&
        !isNew(kMacAddrKey)) {
        keep(kHostNameKey);
    } else if (isNew(kMacAddrKey) && isFree(kMacAddrKey) && elements[kHostNameKey].recognised) {
        keep(kMacAddrKey);
    }
    if (isNew(kDeviceIdKey) && isFree(kDeviceIdKey)) {
        keep(kDeviceIdKey);
        keep(kModelKey);
        keep(kDescriptionKey);
    }
    return settings;
}
