#include "admin/search/PrinterSearch.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <stdexcept>

#include "base/CommandFailed.h"
#include "admin/search/Hosts.h"
#include "base/Text.h"
#include "base/Handles.h"
#include "discovery/PrinterDiscovery.h"
#include "discovery/PrinterDiscoveryClass.h"

namespace {

constexpr std::chrono::milliseconds kAskInterval{200};
constexpr size_t kTagsShown = 300;  // bytes

// kestmon.dll in the system's folder, where the spooler has it from; null when it is not installed.
UniqueLibrary InstalledMonitor() {
    wchar_t folder[MAX_PATH];
    const UINT length = GetSystemDirectoryW(folder, MAX_PATH);
    const std::wstring path = std::wstring(folder, length) + L"\\kestmon.dll";
    return UniqueLibrary(LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH));
}

// Returns the library beside which SLPConf.xml lies, to be held for as long as the search may read
// it: a program that searches once is not to keep the library from being updated.
//   file: read in place of that file, unless it is empty.
[[nodiscard]] UniqueLibrary SetUpSearch(PrinterDiscovery& search, const std::string& modelPattern,
                                        const std::wstring& file = {}) {
    StartedNetwork();
    UniqueLibrary monitor = InstalledMonitor();
    Config::SetModule(monitor.Get());
    if (!file.empty()) {
        if (!search.ConfigureFrom(file, modelPattern)) {
            throw NoSearchFile(WideToUtf8(file) + " is missing or is not well-formed XML");
        }
    } else if (!search.Configure(modelPattern)) {
        throw NoSearchFile(
            std::string(
                "SLPConf.xml, which says how printers are searched for, is missing beside ") +
            (monitor ? "the installed kestmon.dll" : "this program") +
            " or is not well-formed XML");
    }
    return monitor;
}

// What arrives on the search's thread, for the caller's.
class Arrivals {
  public:
    static void Ended(int32_t, void* arrivals) {
        auto* self = static_cast<Arrivals*>(arrivals);
        const std::lock_guard lock(self->mutex_);
        self->over_ = true;
        self->changed_.notify_one();
    }
    void Add(const Printer& printer) {
        const std::lock_guard lock(mutex_);
        // A copy of a record without an address is empty: it only counts.
        printers_.push_back(printer);
        changed_.notify_one();
    }
    // The next printer, waited for until then; none when none has come.
    //   over: receives whether no more will come.
    std::optional<Printer> Next(std::chrono::steady_clock::time_point until, bool& over) {
        std::unique_lock lock(mutex_);
        changed_.wait_until(lock, until, [this] { return over_ || !printers_.empty(); });
        over = over_ && printers_.empty();
        if (printers_.empty()) {
            return std::nullopt;
        }
        const Printer next = printers_.front();
        printers_.pop_front();
        return next;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Printer> printers_;
    bool over_ = false;
};

// Ends a search for all printers, whatever happens.
class SearchEnd {
  public:
    explicit SearchEnd(PrinterDiscovery& search) : search_(search) {}
    ~SearchEnd() { search_.EndAllPrinterDiscovery(); }
    SearchEnd(const SearchEnd&) = delete;
    SearchEnd& operator=(const SearchEnd&) = delete;

  private:
    PrinterDiscovery& search_;
};

// What a search for one printer by what it announces has found.
const Printer& Checked(bool found, const Printer& printer) {
    if (!found) {
        throw CommandFailed("that printer did not answer", Remedy::CheckSearch);
    }
    if (!printer.IsValid()) {
        throw CommandFailed(
            "that printer answered, but without an address in the attributes that SLPConf.xml "
            "names");
    }
    return printer;
}

// The tags of an attribute list, for a message: separated by commas, without what a terminal would
// take for a command, and cut off where there are too many.
std::string Tags(const std::string& list) {
    std::string tags;
    // Brackets in values are escaped: each one that opens begins an attribute.
    for (size_t at = list.find('('); at != std::string::npos; at = list.find('(', at)) {
        const size_t end = std::min(list.find_first_of("=)", ++at), list.size());
        tags += (tags.empty() ? "" : ", ") + list.substr(at, end - at);
        if (tags.size() > kTagsShown) {
            // Not inside a character.
            size_t cut = kTagsShown;
            while (cut > 0 && (static_cast<unsigned char>(tags[cut]) & 0xC0) == 0x80) {
                --cut;
            }
            return Printable(tags.substr(0, cut)) + "...";
        }
    }
    return tags.empty() ? "nothing" : Printable(tags);
}

int32_t TakeList(const char* list, int32_t code, void* context) {
    if (code == PD_SUCCESS) {
        *static_cast<std::optional<std::string>*>(context) = list;
    }
    return 0;
}

// Why a search for the printer at an address has not found it: that is asked once more, for what
// it announces.
CommandFailed WhyNotFound(PrinterDiscovery& search, const IPAddress& address,
                          const std::string& modelPattern) {
    constexpr wchar_t kConfigFile[] = L"\\SLPConf.xml";
    const std::string who = "the printer at " + address.GetText();
    Config config;
    std::optional<std::string> list;
    int length = 0;
    if (config.Initialize(kConfigFile)) {
        PD_DiscoverPrintersSynch(config.GetServiceName().c_str(), 0, TakeList, &list,
                                 config.GetVersion(), address.GetSockAddr(length), true);
    }
    if (!list) {
        return CommandFailed(who + " did not answer", Remedy::CheckSearch);
    }
    Printer printer;
    try {
        search.LoadPrinterSettingsFromData(*list, printer);
    } catch (const std::out_of_range&) {
        return CommandFailed(who +
                             " answered, but its device identifier is too short for the keys of "
                             "model and description that SLPConf.xml names");
    }
    if (!printer.IsValid()) {
        return CommandFailed(who + " answered, but announces no address under `" +
                             config.GetIpAddrKey() +
                             "`, which SLPConf.xml names; it announces: " + Tags(*list));
    }
    if (address != printer.GetIPAddress() && address != printer.GetOtherIPAddress()) {
        return CommandFailed(who + " answered, but announces " + printer.GetIPAddress().GetText() +
                             " as its address under `" + config.GetIpAddrKey() +
                             "`, which SLPConf.xml names; it announces: " + Tags(*list));
    }
    if (!modelPattern.empty()) {
        return CommandFailed(who + " answered, but its model is '" +
                             Printable(printer.GetModelName()) + "'");
    }
    return CommandFailed(who + " answered only when it was asked again");
}

}  // namespace

std::wstring SearchFilePath() {
    const UniqueLibrary monitor = InstalledMonitor();
    wchar_t path[MAX_PATH];
    const std::wstring module(path, GetModuleFileNameW(monitor.Get(), path, MAX_PATH));
    return module.substr(0, module.rfind(L'\\')) + L"\\SLPConf.xml";
}

size_t FindPrinters(const std::string& modelPattern,
                    const std::function<void(const Printer&)>& found,
                    const std::function<bool()>& goOn, const std::wstring& file) {
    PrinterDiscovery search;
    const UniqueLibrary monitor = SetUpSearch(search, modelPattern, file);
    Arrivals arrivals;
    search.SetFoundCallback([&arrivals](const Printer& printer) { arrivals.Add(printer); });
    if (!search.InitAllPrinterDiscovery()) {
        throw CommandFailed("the search cannot be begun: the log says why");
    }
    const SearchEnd end(search);
    if (!search.SearchForAllPrinterWithModelName(Arrivals::Ended, &arrivals)) {
        throw CommandFailed(
            "the search cannot be begun: check service name, multicast address and version in "
            "SLPConf.xml, and that there is a network");
    }

    size_t withoutAddress = 0;
    auto nextAsk = std::chrono::steady_clock::now();
    for (bool over = false; !over;) {
        if (std::chrono::steady_clock::now() >= nextAsk) {
            if (!goOn()) {
                break;
            }
            nextAsk = std::chrono::steady_clock::now() + kAskInterval;
        }
        const std::optional<Printer> printer = arrivals.Next(nextAsk, over);
        if (printer && printer->IsValid()) {
            found(*printer);
        } else if (printer) {
            ++withoutAddress;
        }
    }
    return withoutAddress;
}

std::vector<PrinterIdentity> FindIdentities(const std::function<bool()>& goOn,
                                            const std::wstring& file) {
    std::vector<PrinterIdentity> printers;
    const auto add = [&printers](const Printer& printer) {
        printers.push_back(IdentityOf(printer));
        if (const IPAddress& other = printer.GetOtherIPAddress();
            other.IsValid() && !(other == printer.GetIPAddress())) {
            printers.push_back(printers.back());
            printers.back().address = other.GetText();
        }
    };
    FindPrinters("", add, goOn, file);
    return printers;
}

Printer FindPrinterByMacAddress(const MacAddress& mac, const std::string& modelPattern) {
    PrinterDiscovery search;
    const UniqueLibrary monitor = SetUpSearch(search, modelPattern);
    Printer printer;
    const bool found = search.FindPrinterByMacAddress(mac, printer);
    return Checked(found, printer);
}

Printer FindPrinterByHostName(const std::string& hostName, const std::string& modelPattern) {
    PrinterDiscovery search;
    const UniqueLibrary monitor = SetUpSearch(search, modelPattern);
    Printer printer;
    const bool found = search.FindPrinterByHostName(hostName, printer);
    return Checked(found, printer);
}

Printer FindPrinterAt(const std::string& host, const std::string& modelPattern) {
    PrinterDiscovery search;
    const UniqueLibrary monitor = SetUpSearch(search, modelPattern);
    const IPAddress address = AddressOf(StartedNetwork(), host);
    Printer printer;
    if (!search.FindPrinterByIPAddress(address, printer)) {
        throw WhyNotFound(search, address, modelPattern);
    }
    return printer;
}

void RequireKeys(const PrinterIdentity& printer) {
    if (printer.mac.empty() && printer.hostName.empty()) {
        throw CommandFailed("the printer at " + printer.address +
                                " announces neither a MAC address nor a host name",
                            Remedy::CheckSearch);
    }
}

PrinterIdentity IdentifyPrinter(const std::string& host) {
    const std::string address = AddressOf(StartedNetwork(), host).GetText();
    PrinterIdentity identity = IdentityOf(FindPrinterAt(address, ""));
    identity.address = address;
    RequireKeys(identity);
    return identity;
}

PrinterIdentity IdentityAt(const std::string& host) {
    PrinterDiscovery search;
    const UniqueLibrary monitor = SetUpSearch(search, "");
    Printer printer;
    if (!search.AskPrinterAt(AddressOf(StartedNetwork(), host), printer)) {
        throw CommandFailed("does not say who it is");
    }
    return IdentityOf(printer);
}

PrinterIdentity IdentityOf(const Printer& printer) {
    PrinterIdentity identity = {printer.GetIPAddress().GetText(), MacText(printer.GetMacAddress()),
                                printer.GetHostName()};
    // Without a name of its own, a record has its last address for one.
    std::string& name = identity.hostName;
    if (IPAddress(name).IsValid() || MacAddress(name).IsValid() || !CheckHostName(name).empty()) {
        name.clear();
    }
    return identity;
}

std::string IdentityText(const PrinterIdentity& printer) {
    return printer.mac + (printer.mac.empty() || printer.hostName.empty() ? "" : ", ") +
           Printable(printer.hostName);
}

std::string MacText(const MacAddress& mac) {
    std::string text = mac.IsValid() ? mac.GetText() : "";
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char digit) { return std::toupper(digit); });
    return text;
}
