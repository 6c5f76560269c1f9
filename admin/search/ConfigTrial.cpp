#include "admin/search/ConfigTrial.h"

#include <algorithm>
#include <utility>

#include "admin/search/Hosts.h"
#include "admin/search/PrinterSearch.h"
#include "base/CommandFailed.h"
#include "base/Text.h"

namespace {

// The registered service types of printers and of their protocols.
constexpr const char* kServices[] = {
    "service:printer",     "service:printer:lpr", "service:printer:raw-tcp",
    "service:printer:ipp", "service:lpr",         "service:ipp"};

// The types to ask for, each once: those that were given, the file's, and the usual ones.
std::vector<std::string> ServicesToAsk(std::vector<std::string> services,
                                       const SearchSettings& present) {
    services.push_back(present[kServiceName]);
    services.insert(services.end(), std::begin(kServices), std::end(kServices));
    std::vector<std::string> distinct;
    for (const std::string& service : services) {
        if (!service.empty() && std::ranges::find(distinct, service) == distinct.end()) {
            distinct.push_back(service);
        }
    }
    return distinct;
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

// Takes the answer of which the most is recognized; of equals the one to the file's own request, or
// the first, which is version 2's.
void TakeBest(LearnedPrinter& printer, const SearchSettings& present) {
    for (size_t i = 0; i < printer.answers.size(); ++i) {
        LearnedSettings learned = LearnFrom(printer.answers[i], printer.address, present);
        if (i == 0 || learned.Recognised() > printer.learned.Recognised() ||
            (IsPresentRequest(printer.answers[i], present) &&
             learned.Recognised() == printer.learned.Recognised())) {
            printer.learned = std::move(learned);
            printer.taken = i;
        }
    }
}

// The settings that keep as much of the file as they can: its own request, if the printer answered
// that.
SearchSettings Cautious(const LearnedPrinter& printer, const SearchSettings& present) {
    const auto own = std::ranges::find_if(printer.answers, [&](const SearchAnswer& answer) {
        return IsPresentRequest(answer, present);
    });
    const SearchAnswer& answer =
        own != printer.answers.end() ? *own : printer.answers[printer.taken];
    return KeepPresent(LearnFrom(answer, printer.address, present), answer, present);
}

std::string Obstacle(const LearnedPrinter& printer) {
    const LearnedElement& announced = printer.learned.elements[kIpAddrKey];
    if (!announced.recognised) {
        return "that printer cannot be followed: it does not announce its own address";
    }
    if (const std::string problem = AddressProblem(announced.says); !problem.empty()) {
        return "that printer cannot be followed: it announces " + announced.says + ", " + problem;
    }
    return printer.mac.IsValid() || !printer.hostName.empty()
               ? ""
               : "that printer cannot be followed: it announces neither a MAC address nor a host "
                 "name that can be used";
}

// Returns which of its keys a job would find the printer by, among those that a search has found.
FoundBy Find(const LearnedPrinter& sought, const std::vector<PrinterIdentity>& printers) {
    const auto finds = [&](const auto& is) {
        return std::ranges::any_of(printers, [&](const PrinterIdentity& printer) {
            return sought.address == IPAddress(printer.address) && is(printer);
        });
    };
    FoundBy found;
    if (sought.mac.IsValid()) {
        found.mac = finds([mac = MacText(sought.mac)](const PrinterIdentity& printer) {
            return printer.mac == mac;
        });
    }
    if (!sought.hostName.empty()) {
        found.hostName =
            finds([name = Utf8ToWide(sought.hostName)](const PrinterIdentity& printer) {
                return SameName(Utf8ToWide(printer.hostName), name);
            });
    }
    return found;
}

// Tries settings from a file beside the present one.
class Trial {
  public:
    Trial(const std::wstring& path, const SearchFile& present, const LearnedPrinter& printer,
          const TrialEnvironment& environment)
        : path_(path), present_(present), printer_(printer), environment_(environment) {
        if (present_.wellFormed) {
            try {
                before_ = environment_.search(path_);
            } catch (const CommandFailed&) {
                // A file that no search can be made by finds no printers.
            }
        }
    }

    TrialResult Try(const SearchSettings& settings) const {
        TrialResult result;
        result.settings = settings;
        if (IsPresent(settings)) {
            result.found = FoundBefore();
            return result;
        }
        const NewSearchFile file(path_, ToXml(settings));
        const std::vector<PrinterIdentity> found = environment_.search(file.Path());
        result.found = Find(printer_, found);
        result.lost = environment_.countLost(before_, found);
        return result;
    }

    bool IsPresent(const SearchSettings& settings) const {
        return present_.wellFormed && present_.values == settings;
    }
    FoundBy FoundBefore() const { return Find(printer_, before_); }

  private:
    const std::wstring& path_;
    const SearchFile& present_;
    const LearnedPrinter& printer_;
    const TrialEnvironment& environment_;
    std::vector<PrinterIdentity> before_;  // that the present file finds
};

}  // namespace

LearnedPrinter LearnPrinter(const IPAddress& address, const std::vector<std::string>& services,
                            const SearchSettings& present) {
    LearnedPrinter printer;
    printer.address = address;
    const std::vector<std::string> asked = ServicesToAsk(services, present);
    printer.answers = AskEverything(address, asked);
    printer.servicesAsked = asked.size();
    if (printer.answers.empty()) {
        return printer;
    }
    TakeBest(printer, present);
    printer.cautious = Cautious(printer, present);
    const auto announced = [&printer](SearchElement element) {
        const LearnedElement& learned = printer.learned.elements[element];
        return learned.recognised ? learned.says : "";
    };
    printer.mac = MacAddress(announced(kMacAddrKey));
    printer.hostName = announced(kHostNameKey);
    printer.obstacle = Obstacle(printer);
    return printer;
}

bool FoundBy::WorseThan(const FoundBy& other) const {
    return (other.mac.value_or(false) && !mac.value_or(false)) ||
           (other.hostName.value_or(false) && !hostName.value_or(false));
}

TrialResult TryAndInstall(const std::wstring& path, const SearchFile& present,
                          const LearnedPrinter& printer, bool force,
                          const TrialEnvironment& environment) {
    const Trial trial(path, present, printer, environment);
    TrialResult result = trial.Try(printer.learned.Settings());
    if (result.lost != 0) {
        TrialResult other = trial.Try(printer.cautious);
        result = other.found.Any() && other.lost < result.lost ? other : result;
    }
    result.worse = result.found.WorseThan(trial.FoundBefore());
    if (!trial.IsPresent(result.settings) && !result.worse && (result.lost == 0 || force)) {
        result.kept = NewSearchFile(path, ToXml(result.settings)).Install();
        result.written = true;
    }
    return result;
}
