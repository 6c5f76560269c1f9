// kestctl config learn: SLPConf.xml fitted to a printer.
#include <winsock2.h>
#include <windows.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "admin/search/Hosts.h"
#include "admin/ports/PortStore.h"
#include "admin/search/PrinterSearch.h"
#include "base/Text.h"
#include "kestctl/Command.h"
#include "admin/search/ConfigLearning.h"
#include "kestctl/Interruption.h"
#include "admin/ports/PortPrinters.h"
#include "kestctl/Progress.h"
#include "admin/search/SearchSettings.h"

namespace {

// What printers are asked under, beside what the file says: the types that are registered, for
// printers in general and for their protocols.
constexpr const char* kServices[] = {
    "service:printer",     "service:printer:lpr", "service:printer:raw-tcp",
    "service:printer:ipp", "service:lpr",         "service:ipp"};

struct LearnArguments {
    std::string address;
    std::vector<std::string> services;
    bool write = false;
    bool force = false;
    bool json = false;
};

// Whether a search by what a printer is known by finds it; none where it has no such thing.
struct Tried {
    std::optional<bool> byMac;
    std::optional<bool> byName;

    bool WorseThan(const Tried& other) const {
        return (other.byMac.value_or(false) && !byMac.value_or(false)) ||
               (other.byName.value_or(false) && !byName.value_or(false));
    }
    bool Any() const { return byMac.value_or(false) || byName.value_or(false); }
};

// What the printer at an address is searched by: what it announces, whichever file says where.
struct Sought {
    IPAddress address;
    MacAddress mac;
    std::string hostName;
};

// Returns which of the two a job would find the printer by, among those that a search has found.
Tried TryOut(const Sought& sought, const std::vector<PrinterIdentity>& printers) {
    const auto finds = [&](const auto& is) {
        return std::any_of(printers.begin(), printers.end(), [&](const PrinterIdentity& printer) {
            return sought.address == IPAddress(printer.address) && is(printer);
        });
    };
    Tried tried;
    if (sought.mac.IsValid()) {
        tried.byMac = finds([mac = MacText(sought.mac)](const PrinterIdentity& printer) {
            return printer.mac == mac;
        });
    }
    if (!sought.hostName.empty()) {
        tried.byName = finds([name = Utf8ToWide(sought.hostName)](const PrinterIdentity& printer) {
            return SameName(Utf8ToWide(printer.hostName), name);
        });
    }
    return tried;
}

std::string Verdict(const std::optional<bool>& found) {
    return !found   ? "not tried: the printer announces no usable value"
           : *found ? "found"
                    : "not found";
}

void PrintLearned(const LearnedSettings& learned) {
    std::vector<std::vector<std::string>> rows;
    for (size_t i = 0; i < kSearchElements; ++i) {
        const auto& [value, says, why, recognised] = learned.elements[i];
        rows.push_back(
            {NameOf(static_cast<SearchElement>(i)), Cell(value), Cell(says), Printable(why)});
    }
    PrintTable({"ELEMENT", "VALUE", "PRINTER ANNOUNCES", "WHY"}, rows);
    for (const std::string& remark : learned.remarks) {
        std::cout << "note: " << Printable(remark) << '\n';
    }
}

nlohmann::json ToJson(const LearnedSettings& learned) {
    auto elements = nlohmann::json::object();
    for (size_t i = 0; i < kSearchElements; ++i) {
        const auto& [value, says, why, recognised] = learned.elements[i];
        elements[NameOf(static_cast<SearchElement>(i))] = {
            {"value", value}, {"says", says}, {"why", why}, {"recognised", recognised}};
    }
    return {{"elements", elements}, {"notes", learned.remarks}};
}

// What became of the file.
struct Written {
    bool changed = false;
    SearchSettings settings;  // that were tried
    size_t lost = 0;          // printers of ports
    bool worse = false;       // finds less of this printer than the old file
    std::wstring kept;        // path of the old file
    Tried tried;
};

// Tries settings from a file beside the one in place, and installs them if nothing is lost by it.
class Trial {
  public:
    //   force: installs them also if printers of ports are lost.
    Trial(std::wstring path, const SearchFile& present, Sought sought,
          std::vector<PortRecords> ports, bool force, bool json)
        : path_(std::move(path)),
          present_(present),
          sought_(std::move(sought)),
          ports_(std::move(ports)),
          force_(force),
          progress_(!json) {
        if (present_.wellFormed) {
            try {
                before_ = Search(path_);
            } catch (const CommandFailed&) {
                // A file that no search can be made by finds no printers.
            }
        }
    }

    // Tries `kept` only if `learned` loses printers of ports.
    Written Write(const SearchSettings& learned, const SearchSettings& kept) {
        Written written = Try(learned);
        if (written.lost != 0) {
            Written other = Try(kept);
            written = other.tried.Any() && other.lost < written.lost ? other : written;
        }
        written.worse = written.tried.WorseThan(TryOut(sought_, before_));
        if (!IsPresent(written.settings) && !written.worse && (written.lost == 0 || force_)) {
            written.kept = NewSearchFile(path_, ToXml(written.settings)).Install();
            written.changed = true;
        }
        return written;
    }

  private:
    std::vector<PrinterIdentity> Search(const std::wstring& file) {
        auto found = FindIdentities(
            [this] {
                progress_.Show("trying");
                return !interruption_.Requested();
            },
            file);
        progress_.Clear();
        if (interruption_.Requested()) {
            throw Interrupted();
        }
        return found;
    }

    bool IsPresent(const SearchSettings& settings) const {
        return present_.wellFormed && present_.values == settings;
    }

    Written Try(const SearchSettings& settings) {
        Written written;
        written.settings = settings;
        if (IsPresent(settings)) {
            written.tried = TryOut(sought_, before_);
            return written;
        }
        const NewSearchFile file(path_, ToXml(settings));
        const std::vector<PrinterIdentity> found = Search(file.Path());
        written.tried = TryOut(sought_, found);
        written.lost = CountLost(ports_, before_, found);
        return written;
    }

    const std::wstring path_;
    const SearchFile& present_;
    const Sought sought_;
    const std::vector<PortRecords> ports_;
    const bool force_;
    Progress progress_;
    const Interruption interruption_;
    std::vector<PrinterIdentity> before_;
};

std::string LossText(size_t lost) {
    return Count(lost, "printer") + " of your ports would no longer be found";
}

// The elements in which the tried settings are not the learned ones.
std::string KeptElements(const SearchSettings& tried, const SearchSettings& learned) {
    std::string text;
    for (size_t i = 0; i < kSearchElements; ++i) {
        if (tried[i] != learned[i]) {
            text += (text.empty() ? "<" : ", <") +
                    std::string(NameOf(static_cast<SearchElement>(i))) + "> " + Cell(tried[i]);
        }
    }
    return text;
}

void PrintWritten(const std::wstring& path, const Written& written, const SearchSettings& learned) {
    const std::string kept = KeptElements(written.settings, learned);
    if (!kept.empty()) {
        std::cout << "for other printers of your ports: " << kept << '\n';
    }
    if (written.lost != 0) {
        std::cout << LossText(written.lost) << '\n';
    }
    if (written.changed) {
        std::cout << "written: " << WideToUtf8(path) << '\n';
        if (!written.kept.empty()) {
            std::cout << "the old file is kept: " << WideToUtf8(written.kept) << '\n';
        }
    } else if (written.lost == 0 && !written.worse) {
        std::cout << WideToUtf8(path)
                  << (kept.empty() ? ": no change, the file already has these values\n"
                                   : ": no change, the file already finds this printer\n");
    }
    std::cout << "a search by MAC address: " << Verdict(written.tried.byMac)
              << "\na search by host name:   " << Verdict(written.tried.byName) << '\n';
}

// The printers of all ports, none if there is no monitor and no stored port.
std::vector<PortRecords> PortsToKeep(const ChannelFactory& openChannel, bool force) {
    try {
        return PrintersOfPorts(*openChannel(), false);
    } catch (const CommandFailed& failed) {
        if (force || !MayHavePorts(failed)) {
            return {};
        }
        throw CommandFailed("Cannot read the ports whose printers the new file has to find: " +
                            Explained(failed) + ". Nothing was written; --force writes it");
    }
}

SearchFile PresentFile(const std::wstring& path) {
    const bool there = GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
    return there ? ReadSearchFile(path) : SearchFile();
}

LearnedSettings LearnFrom(const SearchAnswer& answer, const IPAddress& address,
                          const SearchSettings& present) {
    return Learn(answer, address, present, [](const std::string& name) {
        IPAddress found;
        StartedNetwork().GetIpAddress(WideToAnsi(Utf8ToWide(name)), found);
        return found;
    });
}

bool IsPresentRequest(const SearchAnswer& answer, const SearchSettings& present) {
    return answer.service == present[kServiceName] &&
           std::to_string(answer.version) == present[kVersion];
}

// The answer of which the most is recognised; of equals the one to the file's own request, or the
// first, which is version 2's.
std::pair<LearnedSettings, const SearchAnswer*> Best(const std::vector<SearchAnswer>& answers,
                                                     const IPAddress& address,
                                                     const SearchSettings& present) {
    std::pair<LearnedSettings, const SearchAnswer*> best;
    for (const SearchAnswer& answer : answers) {
        LearnedSettings learned = LearnFrom(answer, address, present);
        if (best.second == nullptr || learned.Recognised() > best.first.Recognised() ||
            (IsPresentRequest(answer, present) &&
             learned.Recognised() == best.first.Recognised())) {
            best = {std::move(learned), &answer};
        }
    }
    return best;
}

// The settings that keep as much of the file as they can: its own request, if the printer answered
// that.
SearchSettings Cautious(const std::vector<SearchAnswer>& answers, const IPAddress& address,
                        const SearchSettings& present, const SearchAnswer& taken) {
    const auto own = std::find_if(answers.begin(), answers.end(), [&](const SearchAnswer& answer) {
        return IsPresentRequest(answer, present);
    });
    const SearchAnswer& answer = own != answers.end() ? *own : taken;
    return KeepPresent(LearnFrom(answer, address, present), answer, present);
}

Sought SoughtFrom(const LearnedSettings& learned, const IPAddress& address) {
    const auto says = [&](SearchElement element) {
        return learned.elements[element].recognised ? learned.elements[element].says : "";
    };
    return {address, MacAddress(says(kMacAddrKey)), says(kHostNameKey)};
}

// The types to ask for, each once: those that were given, the file's, and the usual ones.
std::vector<std::string> ServicesToAsk(const LearnArguments& arguments,
                                       const SearchSettings& present) {
    std::vector<std::string> services = arguments.services;
    services.push_back(present[kServiceName]);
    services.insert(services.end(), std::begin(kServices), std::end(kServices));
    std::vector<std::string> distinct;
    for (const std::string& service : services) {
        if (!service.empty() &&
            std::find(distinct.begin(), distinct.end(), service) == distinct.end()) {
            distinct.push_back(service);
        }
    }
    return distinct;
}

std::vector<SearchAnswer> Asked(const IPAddress& address,
                                const std::vector<std::string>& services) {
    std::vector<SearchAnswer> answers = AskEverything(address, services);
    if (answers.empty()) {
        throw CommandFailed(address.GetText() + " did not answer under any of " +
                            Count(services.size(), "service type") +
                            " in either version of SLP. Check that SLP is enabled on the "
                            "printer, and specify its service type (see its manual or web page) "
                            "with --service");
    }
    return answers;
}

nlohmann::json ToJson(const std::vector<SearchAnswer>& answers) {
    auto list = nlohmann::json::array();
    for (const SearchAnswer& answer : answers) {
        list.push_back({{"version", answer.version},
                        {"service", answer.service},
                        {"attributes", answer.attributes.size()}});
    }
    return list;
}

void PrintAnswers(const std::vector<SearchAnswer>& answers, const SearchAnswer* taken) {
    for (const SearchAnswer& answer : answers) {
        std::cout << (&answer == taken ? "taken:    " : "answered: ") << Printable(answer.service)
                  << " in version " << answer.version << ", "
                  << Count(answer.attributes.size(), "attribute") << '\n';
    }
    std::cout << '\n';
}

// Why a printer cannot be followed, whatever the file says; empty if it can.
std::string Obstacle(const LearnedSettings& learned, const Sought& sought) {
    if (!learned.elements[kIpAddrKey].recognised) {
        return "that printer cannot be followed: it does not announce its own address";
    }
    if (const std::string problem = AddressProblem(learned.elements[kIpAddrKey].says);
        !problem.empty()) {
        return "that printer cannot be followed: it announces " +
               learned.elements[kIpAddrKey].says + ", " + problem;
    }
    return sought.mac.IsValid() || !sought.hostName.empty()
               ? ""
               : "that printer cannot be followed: it announces neither a MAC address nor a host "
                 "name that can be used";
}

// Reports what became of the file, as text or in the document. Throws CommandFailed unless the
// printer is found by the file and no printers of ports are lost.
void ReportWritten(const LearnArguments& arguments, const std::wstring& path,
                   const Written& written, const SearchSettings& learned, nlohmann::json document) {
    if (arguments.json) {
        document["written"] = written.changed;
        document["kept"] = WideToUtf8(written.kept);
        document["lost"] = written.lost;
        document["byMac"] = written.tried.byMac.value_or(false);
        document["byName"] = written.tried.byName.value_or(false);
        for (size_t i = 0; i < kSearchElements; ++i) {
            document["tried"][NameOf(static_cast<SearchElement>(i))] = written.settings[i];
        }
        PrintJson(document);
    } else {
        std::cout << '\n';
        PrintWritten(path, written, learned);
    }
    if (written.worse) {
        throw CommandFailed(
            "The new file finds less of this printer than the old one; nothing was written");
    }
    if (written.lost != 0 && !written.changed) {
        throw CommandFailed(LossText(written.lost) +
                            "; nothing was written. Use --force to write the file");
    }
    if (!written.tried.Any()) {
        throw CommandFailed(
            "the search by multicast does not find that printer, although it answers at its "
            "address. Check that both are in the same subnet and that multicast is forwarded "
            "between them");
    }
}

void RunLearn(const LearnArguments& arguments, const ChannelFactory& openChannel) {
    const IPAddress address = AddressOf(StartedNetwork(), arguments.address);
    const std::wstring path = SearchFilePath();
    const SearchFile present = PresentFile(path);
    Progress progress(!arguments.json);
    progress.Show("asking in both versions");
    const std::vector<SearchAnswer> answers =
        Asked(address, ServicesToAsk(arguments, present.values));
    const auto [learned, taken] = Best(answers, address, present.values);
    const Sought sought = SoughtFrom(learned, address);
    const std::string obstacle = Obstacle(learned, sought);
    progress.Clear();

    nlohmann::json document = ToJson(learned);
    document["file"] = WideToUtf8(path);
    document["address"] = address.GetText();
    document["answers"] = ToJson(answers);
    if (!arguments.json) {
        PrintAnswers(answers, taken);
        PrintLearned(learned);
    }
    if (arguments.write && obstacle.empty()) {
        Trial trial(path, present, sought, PortsToKeep(openChannel, arguments.force),
                    arguments.force, arguments.json);
        const Written written =
            trial.Write(learned.Settings(), Cautious(answers, address, present.values, *taken));
        ReportWritten(arguments, path, written, learned.Settings(), std::move(document));
        return;
    }
    if (arguments.json) {
        PrintJson(document);
    }
    if (!obstacle.empty()) {
        throw CommandFailed(obstacle + (arguments.write ? "; nothing was written" : ""));
    }
    if (!arguments.json) {
        std::cout << "nothing was written; --write writes these values to " << WideToUtf8(path)
                  << '\n';
    }
}

}  // namespace

void AddConfigLearn(CLI::App& config, const ChannelFactory& openChannel) {
    const auto arguments = std::make_shared<LearnArguments>();
    CLI::App& learn = *config.add_subcommand(
        "learn",
        "Ask one printer, recognise its attributes by their values, and show what the file should "
        "say");
    AddExample(learn, "config learn 192.168.1.20 --write");
    learn.add_option("ADDRESS", arguments->address, "The printer's address or host name")
        ->required()
        ->check(NotEmpty());
    learn
        .add_option("--service", arguments->services,
                    "Ask for this service type, too; may be given several times")
        ->check(NotEmpty());
    CLI::Option* write =
        learn.add_flag("--write", arguments->write,
                       "Try a new file with a search, and install it if that finds this printer no "
                       "worse than before, and all printers of ports that it found before. The old "
                       "file is kept beside it");
    learn
        .add_flag("--force", arguments->force,
                  "Install it also if printers of ports are no longer found")
        ->needs(write);
    AddJsonFlag(learn, arguments->json);
    learn.callback([arguments, openChannel] { RunLearn(*arguments, openChannel); });
}
