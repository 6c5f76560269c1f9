#include "mdns/Collector.h"

#include <algorithm>

#include "mdns/Records.h"

namespace mdns {

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
    const bool converged = found_ && !news_;
    news_ = false;
    if (converged || round_ + 1 == kWaitingTimes.size()) {
        return false;
    }
    ++round_;
    return true;
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
        AddKnownAnswers(all);
        messages = {all.Message()};
    }
    std::vector<QueryWriter> further;
    for (const auto& [name, type] : Missing()) {
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

void Collector::AddKnownAnswers(QueryWriter& query) const {
    for (size_t service = 0; service < kServiceNames.size(); ++service) {
        for (const Found& instance : Find(kServiceNames[service], Type::Ptr)) {
            std::string_view name = instance.data;
            if (!query.AddKnown(service, TakeLabel(name))) {
                return;
            }
        }
    }
}

// Returns the records that others refer to. The answers of each host are followed up in turn, and
// short names first: a host that refers to hundreds of long names which do not exist does not use
// up the questions of a round.
std::vector<Collector::Question> Collector::Missing() const {
    std::vector<std::pair<std::pair<size_t, size_t>, Question>> missing;
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
    std::vector<Question> questions;
    for (auto& [order, question] : missing) {
        questions.push_back(std::move(question));
    }
    return questions;
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
        std::ranges::sort(printer.services);
        printer.services.erase(std::unique(printer.services.begin(), printer.services.end()),
                               printer.services.end());
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

    for (const Found& service : Find(instance, Type::Srv)) {
        const std::string_view target = std::string_view(service.data).substr(2);
        const auto port = static_cast<uint16_t>(Cursor(service.data).Number(2));
        // A printer without the service announces port 0.
        if (port == 0 || HostText(target).empty()) {
            continue;
        }
        Printer& printer = printers[Lower(target)];
        printer.host = HostText(target);
        printer.services.push_back({protocol, port, TextValue(text, "rp")});
        const auto fill = [](std::string& field, const std::string& value) {
            field = field.empty() ? value : field;
        };
        fill(printer.instance, label);
        fill(printer.model, model.empty() ? product : model);
        fill(printer.adminUrl, TextValue(text, "adminurl"));
        fill(printer.uuid, TextValue(text, "uuid"));
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
