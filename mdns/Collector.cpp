#include "mdns/Collector.h"

#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else  // the fuzz targets
#include <arpa/inet.h>
#endif

#include <algorithm>
#include <array>

namespace mdns {
namespace {

// The names that the instances of the services are listed under, in the order of Protocol.
constexpr std::array<std::string_view, 4> kServiceNames{
    "\x0F_pdl-datastream\x04_tcp\x05local", "\x08_printer\x04_tcp\x05local",
    "\x04_ipp\x04_tcp\x05local", "\x05_ipps\x04_tcp\x05local"};

constexpr std::array<std::string_view, 5> kKeys{"rp", "ty", "product", "adminurl", "uuid"};
constexpr std::string_view kLocal = "\x05local";  // RFC 6762, section 3

// Whether a port can store this address and one host can have it. Link-local addresses of IPv6 say
// nothing without the interface. ::/8 has the unspecified, loopback and IPv4-mapped addresses.
bool IsHostAddress(std::string_view data) {
    const uint32_t start = Cursor(data).Number(2);
    const uint32_t first = start >> 8;
    return first != 0 && (data.size() == 4 ? first != 127 && first < 224
                                           : first != 0xFF && start >> 6 != 0xFE80 >> 6);
}

// Returns the first string in TXT data with this key, or empty text.
std::string_view StringOf(std::string_view data, std::string_view key) {
    while (!data.empty()) {
        const std::string_view text = TakeLabel(data);  // a length and bytes, like a label
        if (Lower(text.substr(0, text.find('='))) == key) {
            return text;
        }
    }
    return {};
}

// Whether text is valid UTF-8 without control characters, which include those that break lines or
// change the direction of writing.
bool IsClean(std::string_view text) {
    constexpr std::pair<uint32_t, uint32_t> kRefused[] = {
        {0, 0x1F},        {0x7F, 0x9F},     {0x200E, 0x200F},      {0x2028, 0x202E},
        {0x2066, 0x2069}, {0xD800, 0xDFFF}, {0x110000, UINT32_MAX}};
    constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    while (!text.empty()) {
        const auto lead = static_cast<unsigned char>(text[0]);
        const size_t size = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        if (size > text.size() || (lead >= 0x80 && lead < 0xC2) || lead > 0xF4) {
            return false;
        }
        uint32_t character = size == 1 ? lead : lead & 0x7Fu >> size;
        for (const char next : text.substr(1, size - 1)) {
            if ((static_cast<unsigned char>(next) & 0xC0) != 0x80) {
                return false;
            }
            character = character << 6 | (next & 0x3Fu);
        }
        if (character < kSmallest[size] || std::ranges::any_of(kRefused, [&](const auto& range) {
                return character >= range.first && character <= range.second;
            })) {
            return false;
        }
        text.remove_prefix(size);
    }
    return true;
}

// Reduces a record to what a search uses: the name in lower case, and of a TXT record the first
// string for each key that is read. Returns false if the record is of no use: it has or refers to a
// name outside `local`, lists another service, or has an address that no port can be set to.
bool Reduce(Record& record) {
    record.name = Lower(record.name);
    if (!record.name.ends_with(kLocal)) {
        return false;
    }
    std::string_view service = record.data;
    switch (record.type) {
        case Type::Ptr:
            TakeLabel(service);
            return Lower(service) == record.name &&
                   std::ranges::find(kServiceNames, record.name) != kServiceNames.end();
        case Type::Srv:
            return Lower(record.data).ends_with(kLocal);
        case Type::Txt: {
            std::string reduced;
            for (const std::string_view key : kKeys) {
                const std::string_view text = StringOf(record.data, key);
                reduced += static_cast<char>(text.size());
                reduced += text;
            }
            record.data = reduced;
            return true;
        }
        case Type::A:
        case Type::Aaaa:
            return IsHostAddress(record.data);
    }
    return false;
}

std::string LabelText(std::string_view label) {
    return IsClean(label) ? std::string(label) : std::string();
}

// Returns the value of a key in TXT data (RFC 6763, section 6.4), or empty text if there is none or
// it is not clean.
std::string TextValue(std::string_view data, std::string_view key) {
    const std::string_view text = StringOf(data, key);
    return LabelText(text.substr(std::min(key.size() + 1, text.size())));
}

// Returns the name of a host with its labels separated by dots, or empty text if a label is not
// clean or has a dot or a blank.
std::string HostText(std::string_view name) {
    std::string text;
    while (!name.empty()) {
        const std::string_view label = TakeLabel(name);
        if (!IsClean(label) || label.find_first_of(". ") != label.npos) {
            return {};
        }
        text += text.empty() ? "" : ".";
        text += label;
    }
    return text;
}

// Returns the numeric form of the data of an A or AAAA record.
std::string AddressText(std::string_view data) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(data.size() == 4 ? AF_INET : AF_INET6, data.data(), text, sizeof text);
    return text;
}

}  // namespace

void Collector::Take(const std::string& source, std::string_view datagram) {
    Family& family = families_[source.find(':') != source.npos];
    if (!family.sources.contains(source) && family.sources.size() == kMaxSourcesOfFamily) {
        return;
    }
    Source& from = family.sources[source];
    if (datagram.size() > kMaxReceivedOfSource - from.received) {
        return;
    }
    from.received += datagram.size();
    if (auto records = ParseResponse(datagram, id_)) {
        for (Record& record : *records) {
            Keep(family, from, std::move(record));
        }
    }
}

void Collector::Keep(Family& family, Source& source, Record record) {
    if (!Reduce(record)) {
        return;
    }
    const size_t size = record.name.size() + record.data.size() + kRecordOverhead;
    if (size > kMaxKeptOfSource - source.kept || size > kMaxKeptOfFamily - family.kept) {
        return;
    }
    const bool pointer = record.type == Type::Ptr;
    Records& records = records_[{std::move(record.name), record.type}];
    if (records.data.insert(pointer ? Lower(record.data) : record.data).second) {
        records.inOrder.push_back({std::move(record.data), &source});
        source.kept += size;
        family.kept += size;
        news_ = true;
        found_ = found_ || pointer;
    }
}

const std::vector<Collector::Found>& Collector::Find(std::string_view name, Type type) const {
    static const std::vector<Found> none;
    const auto records = records_.find({Lower(name), type});
    return records != records_.end() ? records->second.inOrder : none;
}

bool Collector::NextRound() {
    const bool another = (news_ || !found_) && round_ + 1 < kWaitingTimes.size();
    news_ = false;
    round_ += another;
    return another;
}

std::vector<std::string> Collector::Queries() const {
    std::vector<std::string> messages;
    QueryWriter all(id_);
    for (const std::string_view service : kServiceNames) {
        QueryWriter one(id_);
        one.Ask(service, Type::Ptr);
        messages.push_back(one.Message());
        all.Ask(service, Type::Ptr);
    }
    if (round_ % 2 == 0) {
        for (size_t service = 0; service < kServiceNames.size(); ++service) {
            for (const Found& instance : Find(kServiceNames[service], Type::Ptr)) {
                std::string_view name = instance.data;
                all.AddKnown(service, TakeLabel(name));  // as far as there is room
            }
        }
        messages = {all.Message()};
    }
    std::vector<QueryWriter> further;
    for (const auto& [order, question] : Missing()) {
        const auto& [name, type] = question;
        if (further.empty() || !further.back().Ask(name, type)) {
            if (further.size() == kMaxFurtherQueries) {
                break;
            }
            further.emplace_back(id_).Ask(name, type);
        }
    }
    for (const QueryWriter& query : further) {
        messages.push_back(query.Message());
    }
    return messages;
}

// Returns the records that others refer to. The answers of each host are followed up in turn, and
// short names first: a host that refers to hundreds of long names which do not exist does not use
// up the questions of a round.
std::vector<std::pair<Collector::Order, Collector::Question>> Collector::Missing() const {
    std::vector<std::pair<Order, Question>> missing;
    std::map<const Source*, size_t> counts;
    std::set<Question> seen;
    const auto want = [&](std::string_view name, Type type, const Source* source) {
        if (Find(name, type).empty() && seen.emplace(Lower(name), type).second) {
            missing.push_back({{counts[source]++, name.size()}, {std::string(name), type}});
        }
    };
    for (const std::string_view name : kServiceNames) {
        for (const Found& instance : Find(name, Type::Ptr)) {
            want(instance.data, Type::Srv, instance.source);
            want(instance.data, Type::Txt, instance.source);
            for (const Found& service : Find(instance.data, Type::Srv)) {
                const std::string_view host = std::string_view(service.data).substr(2);
                want(host, Type::A, service.source);
                if (Find(host, Type::A).empty()) {
                    want(host, Type::Aaaa, service.source);
                }
            }
        }
    }
    std::ranges::sort(missing);
    return missing;
}

std::vector<Printer> Collector::Printers() const {
    std::map<std::string, Printer> drafts;  // by the host's name in lower case
    for (size_t service = 0; service < kServiceNames.size(); ++service) {
        for (const Found& instance : Find(kServiceNames[service], Type::Ptr)) {
            AddServices(static_cast<Protocol>(service), instance.data, drafts);
        }
    }
    std::vector<Printer> printers;
    for (auto& [host, printer] : drafts) {
        AddAddresses(printer, host, Type::A);
        AddAddresses(printer, host, Type::Aaaa);
        if (!printer.addresses.empty()) {
            printers.push_back(std::move(printer));
        }
    }
    return printers;
}

// Adds an instance of a service to the printers on its hosts.
void Collector::AddServices(Protocol protocol, const std::string& instance,
                            std::map<std::string, Printer>& printers) const {
    const auto& texts = Find(instance, Type::Txt);
    const std::string text = texts.empty() ? "" : texts.front().data;
    std::string product = TextValue(text, "product");
    if (product.starts_with('(') && product.ends_with(')')) {  // as PostScript has it
        product = product.substr(1, product.size() - 2);
    }
    const std::string model = TextValue(text, "ty");
    std::string_view name = instance;
    const std::string label = LabelText(TakeLabel(name));
    const auto fill = [](std::string& field, const std::string& value) {
        field = field.empty() ? value : field;
    };
    for (const Found& service : Find(instance, Type::Srv)) {
        Cursor data(service.data);
        const auto port = static_cast<uint16_t>(data.Number(2));
        const std::string_view target = data.Bytes(data.left());
        // A printer without the service announces port 0.
        if (const std::string host = HostText(target); port != 0 && !host.empty()) {
            Printer& printer = printers[Lower(target)];
            printer.host = host;
            printer.services.insert({protocol, port, TextValue(text, "rp")});
            fill(printer.instance, label);
            fill(printer.model, model.empty() ? product : model);
            fill(printer.adminUrl, TextValue(text, "adminurl"));
            fill(printer.uuid, TextValue(text, "uuid"));
        }
    }
}

void Collector::AddAddresses(Printer& printer, const std::string& host, Type type) const {
    const auto& sources = families_[type == Type::Aaaa].sources;
    std::vector<std::string> addresses;
    for (const Found& record : Find(host, type)) {
        addresses.push_back(AddressText(record.data));
    }
    std::stable_partition(addresses.begin(), addresses.end(),
                          [&](const std::string& address) { return sources.contains(address); });
    printer.addresses.insert(printer.addresses.end(), addresses.begin(), addresses.end());
}

}  // namespace mdns
