// The search object: finds printers on the network with SLP.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "address/IPAddress.h"
#include "address/MacAddress.h"
#include "discovery/Config.h"
#include "discovery/Printer.h"
#include "discovery/PrinterDiscovery.h"

// Called once, with PD_END_OF_RESULTS, when a search for all printers is over. It may call
// EndAllPrinterDiscovery.
using DiscoveryCallback = void (*)(int32_t code, void* userData);

enum SearchType : int32_t { FIND_ALL = 0, FIND_IP = 1, FIND_MAC = 2, FIND_HOSTNAME = 3 };

// What a client of the search uses. Call Configure first; then either look for one printer, or
//   InitAllPrinterDiscovery, AssociateIFList if wanted, SearchForAllPrinterWithModelName,
//   wait for the callback, read the list,
//   StopSearchingForAllPrinterWithModelName, EndAllPrinterDiscovery.
// The searches of one object are not to overlap: all fill one list, each on its own thread. A
// search for all printers is ended (EndAllPrinterDiscovery, which waits for its thread) before a
// search for one is begun, and before the next for all is: the end notification comes while its
// thread still runs, so that none is begun from within it. Every step is logged. An object is used
// by one thread at a time.
class IPrinterDiscovery {
  public:
    // Reads SLPConf.xml and sets the model filter of all searches: a pattern for the whole model
    // name, with '*' and '?', by case; empty for no filter.
    // Returns false when the file could not be read; searches then ask for nothing in particular,
    // and normally find nothing.
    virtual bool Configure(const std::string& modelPattern) = 0;

    // Look for one printer and return when the request is over (see DoSpecificSearch). They clear
    // the list of found printers. A search for all is to be ended first; the end of one that was
    // not is no longer told.
    //   hostName: the whole name as the printer announces it, in any letter case.
    //   ip: may be of a printer that does not answer pings: it is then asked by multicast.
    //   result: receives the printer; untouched when there is none.
    // Return true when the printer answered.
    virtual bool FindPrinterByHostName(const std::string& hostName, Printer& result) = 0;
    virtual bool FindPrinterByMacAddress(const MacAddress& mac, Printer& result) = 0;
    virtual bool FindPrinterByIPAddress(const IPAddress& ip, Printer& result) = 0;

    // Opens what the search for all printers needs, and clears the list. Returns true when it is
    // open, or was already.
    virtual bool InitAllPrinterDiscovery() = 0;

    // Restricts the multicast of the search for all printers; see SLPAssociateIFList.
    virtual bool AssociateIFList(const char* interfaceList) = 0;

    // Starts the search for all printers that the model filter lets pass.
    //   callback, userData: told when it is over, on the SLP library's thread, if both are there.
    // Returns true when the search runs.
    virtual bool SearchForAllPrinterWithModelName(DiscoveryCallback callback, void* userData) = 0;

    // Ends the running search early; the callback is still told. Returns true when it could be.
    virtual bool StopSearchingForAllPrinterWithModelName() = 0;

    // Closes what InitAllPrinterDiscovery opened and waits for a running search to end. The list
    // stays. Not allowed inside the callback of SetFoundCallback: the search that made the call
    // still uses what this frees.
    virtual void EndAllPrinterDiscovery() = 0;

    // The printers found, in the order of their answers. Not to be read while a search for all
    // printers is running: it fills the list on a thread of its own.
    //   index: one outside the list ends the process.
    virtual int32_t GetFoundPrinterCount() = 0;
    virtual Printer& GetFoundPrinter(int index) = 0;

    virtual ~IPrinterDiscovery() = default;
};

class PrinterDiscovery : public IPrinterDiscovery {
  public:
    PrinterDiscovery() = default;
    PrinterDiscovery(const PrinterDiscovery&) = delete;
    PrinterDiscovery& operator=(const PrinterDiscovery&) = delete;

    bool Configure(const std::string& modelPattern) override;
    bool FindPrinterByHostName(const std::string& hostName, Printer& result) override;
    bool FindPrinterByMacAddress(const MacAddress& mac, Printer& result) override;
    bool FindPrinterByIPAddress(const IPAddress& ip, Printer& result) override;
    bool InitAllPrinterDiscovery() override;
    bool AssociateIFList(const char* interfaceList) override;
    bool SearchForAllPrinterWithModelName(DiscoveryCallback callback, void* userData) override;
    bool StopSearchingForAllPrinterWithModelName() override;
    void EndAllPrinterDiscovery() override;
    int32_t GetFoundPrinterCount() override;
    Printer& GetFoundPrinter(int index) override;

    // Does not close a search for all printers that is still open: closing waits for the search's
    // thread, and a destructor is no place for that. Who began it ends it.
    ~PrinterDiscovery() override = default;

    // As Configure, with a file of another name or in another folder.
    bool ConfigureFrom(const std::wstring& path, const std::string& modelPattern);

    // Asks the printer at an address who it is, by unicast alone: for one that is known to be
    // there, whatever it makes of pings. Not for an object that is searching for all.
    //   result: receives the printer; untouched when there is none.
    // Returns true when it answered, and announces that address.
    bool AskPrinterAt(const IPAddress& ip, Printer& result);

    // Sets a function that is called for each printer when it joins the list, on the thread that
    // the answer arrives on; for clients that show printers as they answer. Set before a search
    // begins. The function must not call EndAllPrinterDiscovery or begin a search; it may call
    // StopSearchingForAllPrinterWithModelName.
    void SetFoundCallback(std::function<void(const Printer&)> callback) {
        foundCallback_ = std::move(callback);
    }

    // One event of a request, see PD_Callback. Always returns 0.
    int32_t PrinterDiscoveryCB(const char* attributeList, int32_t code);

    // Fills in a record from an attribute list. Throws std::out_of_range as GetDeviceIdAttr does.
    void LoadPrinterSettingsFromData(const std::string& data, Printer& printer);

    // The value of one attribute; false, and `value` untouched, when the list does not have it.
    bool ExtractStringValue(const std::string& key, const std::string& data, std::string& value);

    // The value of one field of a device identifier (IEEE 1284, "MFG:Acme;MDL:Model 100;");
    // `value` is untouched when there is no such field. Throws std::out_of_range for a key at the
    // very end of the identifier.
    void GetDeviceIdAttr(const std::string& key, const std::string& deviceId, std::string& value);

    // Adds a printer to the list unless one with its address is there already.
    void AddFoundPrinter(const Printer& printer);

    // True when the pattern, with '*' and '?', matches the whole text, by case.
    bool MatchModelPattern(const char* pattern, const char* text);

  private:
    bool DoSpecificSearch(Printer& result);
    bool DiscoverByUnicast(const IPAddress& ip, Printer& result);
    bool DiscoverByMulticast(const IPAddress& ip, Printer& result);
    bool Discover(const sockaddr* destination, bool unicast, Printer& result);
    bool Matches(const Printer& printer) const;

    Config config_;
    SearchType searchType_ = FIND_ALL;
    IPAddress targetIp_;
    MacAddress targetMac_;
    std::string targetHostName_;
    std::string modelPattern_;
    DiscoveryCallback userCallback_ = nullptr;
    void* userData_ = nullptr;
    std::vector<Printer> foundPrinters_;
    PD_Context* discoveryHandle_ = nullptr;
    std::function<void(const Printer&)> foundCallback_;
};

// The PD_Callback of a search; the context is its PrinterDiscovery.
int32_t DiscoveryCallbackTrampoline(const char* attributeList, int32_t code, void* context);
