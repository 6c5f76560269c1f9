#include "discovery/PrinterDiscoveryClass.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string_view>
#include <utility>

#include "diag/Log.h"
#include "discovery/DeviceId.h"
#include "net/Network.h"

namespace {

constexpr wchar_t kConfigFile[] = L"\\SLPConf.xml";
constexpr char kIPv6Group[] = "FF02:0:0:0:0:0:0:116";  // RFC 3111: SLP, link-local
constexpr uint32_t kAllInterfaces = 0xFFFFFFFF;
constexpr LCID kEnglishUnitedStates = 0x0409;

// Text from the network as one line of the log: control characters, which could end the line and
// begin a forged one, are shown as '?'. One character each: an answer that consists of them must
// not take more room in the log than others.
struct OneLine {
    std::string_view text;
};
std::ostream& operator<<(std::ostream& out, const OneLine& line) {
    std::string shown(line.text);
    std::ranges::replace_if(
        shown,
        [](unsigned char byte) {
            constexpr unsigned char kDelete = 0x7F;
            return byte < ' ' || byte == kDelete;
        },
        '?');
    return out << shown;
}

std::string Dump(const Printer& printer) {
    std::ostringstream out;
    out << printer;
    return std::move(out).str();
}

// The configured group as a socket address.
// Compatibility: the text is not checked: one that is no address becomes the broadcast address, and
// the search finds nothing; SLPConf.xml files with forms that only inet_addr reads rely on it.
sockaddr_storage MulticastGroup(const Config& config) {
    sockaddr_storage block = {};
    auto* address = reinterpret_cast<sockaddr_in*>(&block);
    address->sin_family = AF_INET;
    address->sin_addr.s_addr = inet_addr(config.GetMulticastAddress().c_str());
    return block;
}

// Without regard to case, and whole: "prn-01" is not "prn-01.example".
bool SameHostName(const std::string& a, const std::string& b) {
    return CompareStringA(kEnglishUnitedStates, NORM_IGNORECASE, a.data(),
                          static_cast<int>(a.size()), b.data(),
                          static_cast<int>(b.size())) == CSTR_EQUAL;
}

}  // namespace

bool PrinterDiscovery::Configure(const std::string& modelPattern) {
    modelPattern_ = modelPattern;
    return config_.Initialize(kConfigFile);
}

bool PrinterDiscovery::ConfigureFrom(const std::wstring& path, const std::string& modelPattern) {
    modelPattern_ = modelPattern;
    return config_.InitializeFrom(path);
}

bool PrinterDiscovery::FindPrinterByHostName(const std::string& hostName, Printer& result) {
    searchType_ = FIND_HOSTNAME;
    targetHostName_ = hostName;
    return DoSpecificSearch(result);
}

bool PrinterDiscovery::FindPrinterByMacAddress(const MacAddress& mac, Printer& result) {
    searchType_ = FIND_MAC;
    targetMac_ = mac;
    return DoSpecificSearch(result);
}

bool PrinterDiscovery::FindPrinterByIPAddress(const IPAddress& ip, Printer& result) {
    searchType_ = FIND_IP;
    targetIp_ = ip;
    return DoSpecificSearch(result);
}

bool PrinterDiscovery::InitAllPrinterDiscovery() {
    constexpr char kName[] = "PrinterDiscovery::InitAllPrinterDiscovery";
    if (discoveryHandle_ != nullptr) {
        return true;
    }
    // Compatibility: the line is written before there is a handle; tools that read the log rely on
    // its text and place.
    LogInfo(kName, "We have good handle to discover");
    const sockaddr_storage group = MulticastGroup(config_);
    LogInfo(kName, "Clearing found printer list");
    foundPrinters_.clear();
    LogInfo(kName, "Calling PD_InitPrinterDiscovery");
    const int32_t code = PD_InitPrinterDiscovery(&discoveryHandle_, config_.GetVersion(),
                                                 reinterpret_cast<const unsigned char*>(&group));
    if (code != PD_SUCCESS) {
        LogSystemError(kName, "PD_InitPrinterDiscovery returned err = ", code);
    }
    LogInfo(kName, "Init done");
    return code == PD_SUCCESS;
}

bool PrinterDiscovery::AssociateIFList(const char* interfaceList) {
    constexpr char kName[] = "PrinterDiscovery::AssociateIFList";
    if (discoveryHandle_ == nullptr) {
        LogCodeError(kName, "PD_AssociateIFList: Need to initdiscovery first!");
        return false;
    }
    LogInfo(kName, "Calling PD_AssociateIFList");
    const bool done = interfaceList != nullptr &&
                      SLPAssociateIFList(discoveryHandle_->handle, interfaceList) == SLP_OK;
    if (!done) {
        LogSystemError(kName, "PD_AssociateIFList returned err = ", PD_BAD_PARAMETER);
    }
    LogInfo(kName, "PD_AssociateIFList done");
    return done;
}

bool PrinterDiscovery::SearchForAllPrinterWithModelName(DiscoveryCallback callback,
                                                        void* userData) {
    constexpr char kName[] = "PrinterDiscovery::SearchForAllPrinterWithModelName";
    searchType_ = FIND_ALL;
    userCallback_ = callback;
    userData_ = userData;
    if (discoveryHandle_ == nullptr) {
        LogCodeError(kName, "Need to initdiscovery first!");
        return false;
    }
    PD_Context& context = *discoveryHandle_;
    context.receiver = {DiscoveryCallbackTrampoline, this};
    const auto* destination = context.destination.ss_family != 0
                                  ? reinterpret_cast<const sockaddr*>(&context.destination)
                                  : nullptr;
    if (SLPFindAttrs(context.handle, config_.GetServiceName().c_str(), nullptr, nullptr,
                     PD_AttributeCallback, &context.receiver, destination,
                     context.version) != SLP_OK) {
        LogSystemError(kName, "PD_StartPrinterDiscoveryAsynch returned err = ", PD_INTERNAL_ERROR);
        return false;
    }
    return true;
}

bool PrinterDiscovery::StopSearchingForAllPrinterWithModelName() {
    if (discoveryHandle_ == nullptr) {
        LogCodeError("PrinterDiscovery::StopSearchingForAllPrinterWithModelName",
                     "Need to initdiscovery first!");
        return false;
    }
    return SLPStopFind(discoveryHandle_->handle) == SLP_OK;
}

void PrinterDiscovery::EndAllPrinterDiscovery() {
    if (discoveryHandle_ == nullptr) {
        LogCodeError("PrinterDiscovery::EndAllPrinterDiscovery", "Need to initdiscovery first!");
        return;
    }
    // The context goes last: until the handle is closed, the search's thread uses it.
    SLPClose(discoveryHandle_->handle);
    delete std::exchange(discoveryHandle_, nullptr);
}

int32_t PrinterDiscovery::GetFoundPrinterCount() {
    return static_cast<int32_t>(foundPrinters_.size());
}

Printer& PrinterDiscovery::GetFoundPrinter(int index) {
    if (index < 0 || static_cast<size_t>(index) >= foundPrinters_.size()) {
        std::abort();
    }
    return foundPrinters_[index];
}

bool PrinterDiscovery::DoSpecificSearch(Printer& result) {
    constexpr char kName[] = "PrinterDiscovery::DoSpecificSearch";
    IPAddress localIp = targetIp_;
    // Compatibility: every kind of search resolves this text. Without an address it is empty, and
    // this computer's own name is resolved; tools that read the log rely on the lines of it.
    const std::string addressText = localIp.GetText();
    const Network& network = Singleton<Network>::GetInstance();
    network.GetIpAddress(addressText, localIp);
    LogInfo(kName, "context type: ", static_cast<int32_t>(searchType_));
    LogInfo(kName, "context ipaddress is: ", localIp);
    LogInfo(kName, "context macaddress is: ", targetMac_);
    LogInfo(kName, "context hostname is: ", OneLine{targetHostName_});

    // This search and one for all printers share the list: who waits for the end of that one is
    // not told when this one ends, nor later.
    userCallback_ = nullptr;
    userData_ = nullptr;

    bool unicast = false;
    if (searchType_ == FIND_IP) {
        LogInfo(kName, "Searching for a specific IP address");
        if (!localIp.IsValid()) {
            LogSystemError(kName, "IP address not valid, bail out");
            return false;
        }
        unicast = network.Ping(localIp) == 0;
        if (!unicast) {
            LogSystemError(kName, "Can't ping, do multicast instead");
        }
    }
    return unicast ? DiscoverByUnicast(localIp, result) : DiscoverByMulticast(localIp, result);
}

bool PrinterDiscovery::DiscoverByUnicast(const IPAddress& ip, Printer& result) {
    constexpr char kName[] = "PrinterDiscovery::DoSpecificSearch";
    LogInfo(kName, "Searching for a specific ip address - start");
    int length = 0;
    const sockaddr* const destination = ip.GetSockAddr(length);
    LogInfo(kName, "Searching for a specific ip address - end");
    return Discover(destination, true, result);
}

// Asks the group of IPv6 if the address of the printer that is sought is one of IPv6.
bool PrinterDiscovery::DiscoverByMulticast(const IPAddress& ip, Printer& result) {
    constexpr char kName[] = "PrinterDiscovery::DoSpecificSearch";
    LogInfo(kName, "Searching for a printer by ip addr, mac addr or hostname!");
    if (searchType_ == FIND_IP && ip.GetType() == IPV6) {
        const IPAddress group{std::string(kIPv6Group)};
        int length = 0;
        const sockaddr* const destination = group.GetSockAddr(length);
        LogInfo(kName, "Using IPv6 Multicast Address = ", group);
        return Discover(destination, false, result);
    }
    const sockaddr_storage group = MulticastGroup(config_);
    LogInfo(kName, "Using IPv4 Multicast Address = ", config_.GetMulticastAddress());
    return Discover(reinterpret_cast<const sockaddr*>(&group), false, result);
}

bool PrinterDiscovery::AskPrinterAt(const IPAddress& ip, Printer& result) {
    searchType_ = FIND_IP;
    targetIp_ = ip;
    int length = 0;
    return Discover(ip.GetSockAddr(length), true, result);
}

// Asks the destination, and gives out the first printer that is one that is sought.
bool PrinterDiscovery::Discover(const sockaddr* destination, bool unicast, Printer& result) {
    constexpr char kName[] = "PrinterDiscovery::DoSpecificSearch";
    LogInfo(kName, "Call foundPrinters");
    foundPrinters_.clear();
    LogInfo(kName, "Call PD_DiscoverPrintersSynch");
    const int32_t code = PD_DiscoverPrintersSynch(config_.GetServiceName().c_str(), kAllInterfaces,
                                                  DiscoveryCallbackTrampoline, this,
                                                  config_.GetVersion(), destination, unicast);
    LogInfo(kName, "Successfully found ", foundPrinters_.size(), " printer(s)");
    if (code == PD_SUCCESS && !foundPrinters_.empty()) {
        // Compatibility: the text is spelled this way; tools that read the log search for it.
        LogInfo(kName, "Successfull!!!");
        result = foundPrinters_.front();
        return true;
    }
    // Compatibility: a search without a result is logged as a code error, also with the code 0;
    // tools that read the log rely on it.
    LogCodeError(kName, "Return from DiscoverPrinterSynch is ", code);
    return false;
}

int32_t PrinterDiscovery::PrinterDiscoveryCB(const char* attributeList, int32_t code) {
    constexpr char kName[] = "PrinterDiscovery::PrinterDiscoveryCB";
    LogInfo(kName, "PrinterDiscoveryCB() - start");
    if (code == PD_END_OF_RESULTS) {
        LogInfo(kName, "We are done!");
        if (userCallback_ != nullptr && userData_ != nullptr) {
            LogInfo(kName, "Calling the callback!");
            userCallback_(PD_END_OF_RESULTS, userData_);
            userCallback_ = nullptr;
            userData_ = nullptr;
        }
        LogInfo(kName, "Done!");
        return 0;
    }
    if (code != PD_SUCCESS || attributeList == nullptr) {
        return 0;
    }

    Printer printer;
    LoadPrinterSettingsFromData(attributeList, printer);
    LogInfo(kName, "Printer is: ", OneLine{Dump(printer)});
    if (!modelPattern_.empty() &&
        !MatchModelPattern(modelPattern_.c_str(), printer.GetModelName().c_str())) {
        return 0;
    }
    LogInfo(kName, "Printer is the same model we are looking for");
    LogInfo(kName, "Searching context ipaddress is ", targetIp_);
    LogInfo(kName, "Searching context macaddress is ", targetMac_);
    LogInfo(kName, "Searching context hostname is ", OneLine{targetHostName_});
    if (Matches(printer)) {
        LogInfo(kName, "Adding printer to list");
        AddFoundPrinter(printer);
    }
    return 0;
}

// Whether this is a printer that the current search is for; logs what made it one.
bool PrinterDiscovery::Matches(const Printer& printer) const {
    constexpr char kName[] = "PrinterDiscovery::PrinterDiscoveryCB";
    switch (searchType_) {
        case FIND_ALL:
            LogInfo(kName, "Find all printers");
            return true;
        case FIND_IP:
            if (targetIp_ == printer.GetIPAddress()) {
                LogInfo(kName, "Find specific IP ", targetIp_);
                return true;
            }
            if (targetIp_ == printer.GetOtherIPAddress()) {
                LogInfo(kName, "Find specific IP-2 ", targetIp_);
                return true;
            }
            return false;
        case FIND_MAC:
            if (printer.GetMacAddress() == targetMac_) {
                LogInfo(kName, "Find specific mac ", targetMac_);
                return true;
            }
            return false;
        case FIND_HOSTNAME:
            if (SameHostName(printer.GetHostName(), targetHostName_)) {
                LogInfo(kName, "Find specific hostname ", OneLine{targetHostName_});
                return true;
            }
            return false;
    }
    return false;
}

void PrinterDiscovery::LoadPrinterSettingsFromData(const std::string& data, Printer& printer) {
    LogInfo("PrinterDiscovery::LoadPrinterSettingsFromData", "printer data is ", OneLine{data});
    // Compatibility: one text serves all attributes, so a printer that announces no host name gets
    // the last value found before it; ports that store such a name rely on it to be found.
    std::string value;
    if (ExtractStringValue(config_.GetIpAddrKey(), data, value)) {
        printer.SetFirstIPAddress(IPAddress(value));
    }
    if (ExtractStringValue(config_.GetIpAddr2Key(), data, value)) {
        printer.SetSecondIPAddress(IPAddress(value));
    }
    if (ExtractStringValue(config_.GetMacAddrKey(), data, value)) {
        printer.SetMacAddress(MacAddress(value));
    }
    ExtractStringValue(config_.GetHostNameKey(), data, value);
    printer.SetHostName(value);
    if (ExtractStringValue(config_.GetDeviceIdStringKey(), data, value)) {
        printer.SetDeviceId(value);
        // Compatibility: without a description field, the description repeats the model name;
        // programs that show the description rely on a text.
        std::string field;
        GetDeviceIdAttr(config_.GetModelNameKey(), value, field);
        printer.SetModelName(field);
        GetDeviceIdAttr(config_.GetDescriptionKey(), value, field);
        printer.SetDescription(field);
    }
}

bool PrinterDiscovery::ExtractStringValue(const std::string& key, const std::string& data,
                                          std::string& value) {
    char* found = nullptr;
    SLPParseAttrs(data.c_str(), key.c_str(), &found);
    const UniqueSlpText text(found);
    if (!text) {
        return false;
    }
    LogInfo("PrinterDiscovery::ExtractStringValue", "pdDataStr is ", OneLine{found});
    value = found;
    return true;
}

void PrinterDiscovery::GetDeviceIdAttr(const std::string& key, const std::string& deviceId,
                                       std::string& value) {
    LogInfo("PrinterDiscovery::GetDeviceIdAttr", "Device ID String is ", OneLine{deviceId});
    if (const auto field = DeviceIdField(deviceId, key)) {
        value = *field;
    }
}

void PrinterDiscovery::AddFoundPrinter(const Printer& printer) {
    const auto sameAddress = [&printer](const Printer& other) {
        return other.GetIPAddress() == printer.GetIPAddress();
    };
    if (std::none_of(foundPrinters_.begin(), foundPrinters_.end(), sameAddress)) {
        foundPrinters_.push_back(printer);
        if (foundCallback_) {
            foundCallback_(foundPrinters_.back());
        }
    }
}

bool PrinterDiscovery::MatchModelPattern(const char* pattern, const char* text) {
    return MatchesModel(pattern, text);
}

int32_t DiscoveryCallbackTrampoline(const char* attributeList, int32_t code, void* context) {
    return static_cast<PrinterDiscovery*>(context)->PrinterDiscoveryCB(attributeList, code);
}
