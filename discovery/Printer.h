// One printer as found on the network.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "address/IPAddress.h"
#include "address/MacAddress.h"

// What a printer says of itself in its answer to a search, and the network settings that were read
// from it over SNMP. All text is 8-bit and comes from the network: any length, any bytes but NUL.
class Printer {
  public:
    // An invalid record: no addresses, empty texts.
    Printer() = default;

    // A copy takes what the search has found, not the SNMP settings: they hold for the record that
    // read them. An invalid record has nothing to give: a copy of it is an empty record, and
    // assigning it changes nothing.
    Printer(const Printer& other);
    Printer& operator=(const Printer& other);
    virtual ~Printer() = default;

    // True when GetIPAddress is valid.
    bool IsValid() const noexcept { return GetIPAddress().IsValid(); }

    // The address to reach the printer at: the first one when it is valid, otherwise the second,
    // which may be invalid.
    const IPAddress& GetIPAddress() const noexcept {
        return ipAddress_.IsValid() ? ipAddress_ : ipAddress2_;
    }

    // The same with the second one preferred.
    const IPAddress& GetOtherIPAddress() const noexcept {
        return ipAddress2_.IsValid() ? ipAddress2_ : ipAddress_;
    }

    const MacAddress& GetMacAddress() const noexcept { return macAddress_; }
    const IPAddress& GetFirstIPAddress() const noexcept { return ipAddress_; }
    const IPAddress& GetSecondIPAddress() const noexcept { return ipAddress2_; }
    const std::string& GetHostName() const noexcept { return hostName_; }
    uint32_t GetNumPorts() const noexcept { return numPorts_; }
    const std::string& GetModelName() const noexcept { return modelName_; }
    const std::string& GetDescription() const noexcept { return description_; }
    const std::string& GetDeviceId() const noexcept { return deviceId_; }

    // The settings read over SNMP: empty, and method 5, until RetrieveSnmpSettings succeeds.
    bool AreSnmpSettingsRead() const noexcept { return snmpSettingsRead_; }
    const std::string& GetSubnetMask() const noexcept { return subnetMask_; }
    const std::string& GetGateway() const noexcept { return gateway_; }
    uint32_t GetConfigMethod() const noexcept { return configMethod_; }

    // For the search, while it reads an answer. An invalid IP address leaves the field as it is.
    void SetMacAddress(const MacAddress& address) { macAddress_ = address; }
    void SetFirstIPAddress(const IPAddress& address) { ipAddress_ = address; }
    void SetSecondIPAddress(const IPAddress& address) { ipAddress2_ = address; }
    void SetHostName(const std::string& name) { hostName_ = name; }
    void SetModelName(const std::string& name) { modelName_ = name; }
    void SetDescription(const std::string& description) { description_ = description; }
    void SetDeviceId(const std::string& deviceId) { deviceId_ = deviceId; }

    // Reads the network settings from the printer over SNMP. Returns 0, or 16 when they could not
    // be read.
    int RetrieveSnmpSettings();

    // Writes network settings to the printer over SNMP and pings it at its new address; the
    // settings must have been read before. Returns 0, 15 when they could not be written, 16 when
    // they were never read.
    int UpdateSnmpSettings(const std::string& ipAddress, const std::string& subnetMask,
                           const std::string& gateway);

  private:
    // 5 stands for no method read yet.
    static constexpr uint32_t kConfigMethodUnread = 5;

    MacAddress macAddress_;
    IPAddress ipAddress_;
    IPAddress ipAddress2_;
    std::string hostName_;
    uint32_t numPorts_ = 0;
    std::string modelName_;
    std::string description_;
    std::string deviceId_;
    bool snmpSettingsRead_ = false;
    std::string subnetMask_;
    std::string gateway_;
    uint32_t configMethod_ = kConfigMethodUnread;
};

// The record on one line, or "Invalid object".
std::ostream& operator<<(std::ostream& out, const Printer& printer);
