// The two operations of Printer that talk to the printer over SNMP.
#include "diag/Log.h"
#include "discovery/Printer.h"
#include "net/Network.h"
#include "net/SnmpSession.h"

namespace {

constexpr int kDone = 0;
constexpr int kNotWritten = 15;
constexpr int kNoSettings = 16;

}  // namespace

int Printer::RetrieveSnmpSettings() {
    constexpr char kFunction[] = "Printer::RetrieveSnmpSettings";
    snmpSettingsRead_ = false;
    const IPAddress address = GetIPAddress();
    if (address.GetType() == IPV6) {
        LogInfo(kFunction, "ipv6 doesn't support snmp!");
        return kNoSettings;
    }
    SnmpSession session(address);
    std::string ipAddress;
    std::string gateway;
    std::string subnetMask;
    unsigned configMethod = 0;
    // The texts are compared: a record with leading zeros in its address is not the printer's own.
    if (session.GetNetworkSettings(ipAddress, gateway, subnetMask, configMethod) != 0 ||
        ipAddress != address.GetText()) {
        LogSystemError(kFunction,
                       "Couldn't read snmp settings!  maybe the printer has it turned off");
        return kNoSettings;
    }
    LogInfo(kFunction, "We found our settings: (subnet - ", subnetMask, ") (gateway - ", gateway,
            ") (configMethod - ", configMethod, ")");
    snmpSettingsRead_ = true;
    subnetMask_ = subnetMask;
    gateway_ = gateway;
    configMethod_ = configMethod;
    return kDone;
}

int Printer::UpdateSnmpSettings(const std::string& ipAddress, const std::string& subnetMask,
                                const std::string& gateway) {
    constexpr char kFunction[] = "Printer::UpdateSnmpSettings";
    const IPAddress address = GetIPAddress();
    if (!snmpSettingsRead_) {
        LogInfo(kFunction, "this printer doesn't support ipv6");
        return kNoSettings;
    }
    LogInfo(kFunction, "About to write the printer settings.");
    SnmpSession session(address);
    if (const int result = session.SetNetworkSettings(ipAddress, gateway, subnetMask);
        result != 0) {
        LogSystemError(kFunction, "Failed to write the settings ", result);
        return kNotWritten;
    }
    LogInfo(kFunction, "Lets try pinging the printer at its new address ", ipAddress);
    // Two pings give a printer the time to take the address. The settings are written whether it
    // answers or not: the outcome is no part of the result.
    const IPAddress newAddress(ipAddress);
    if (Network::GetInstance().Ping(newAddress) != 0) {
        Network::GetInstance().Ping(newAddress);
    }
    LogInfo(kFunction, "Printer has been successfully updated!");
    return kDone;
}
