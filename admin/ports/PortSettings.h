// A port's configuration as the administrator sees it: values as people write them, checked, laid
// over the monitor's two records, and shown.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>

#include "admin/channel/PortRecords.h"
#include "admin/search/PrinterIdentity.h"

// The checks of single values. Each takes the text as it was given (UTF-8), may bring it into the
// form that is stored, and returns what is wrong with it, or nothing. "none" means the same to all
// of them: that the port is to forget the value; those that the monitor keeps say so.
std::string CheckPortName(std::string& text);
// Returns whether the spooler keeps names like this one (UTF-8) for its own network ports.
bool IsReservedPortName(const std::string& name);
std::string CheckIPv4Address(std::string& text);
std::string CheckIPv6Host(std::string& text);    // an IPv6 address or a host name
std::string CheckPortNumber(std::string& text);  // decimal, 1 to 65535
std::string CheckSnmpIndex(std::string& text);   // the same range
std::string CheckQueue(std::string& text);
std::string CheckCommunity(std::string& text);

// What is asked for; what is not mentioned has no value. Texts have passed their
// checks.
struct PortChange {
    std::optional<std::string> address = {};
    std::optional<std::string> ipv6 = {};
    std::optional<std::string> protocol = {};  // "raw" or "lpr"
    std::optional<DWORD> portNumber = {};
    std::optional<std::string> queue = {};
    std::optional<bool> doubleSpool = {};
    std::optional<std::string> hostName = {};
    std::optional<std::string> mac = {};
    std::optional<bool> alwaysPrint = {};
    std::optional<std::string> snmpCommunity = {};
    std::optional<DWORD> snmpIndex = {};
    bool noSnmp = false;
};

// The settings that can contradict others.
enum class PortSetting { Address, Queue, DoubleSpool, SnmpIndex, AlwaysPrint };

// A value that does not go with the others. The message begins behind the setting's name:
// "belongs to LPR".
struct SettingsClash : std::runtime_error {
    SettingsClash(PortSetting which, const std::string& message)
        : std::runtime_error(message), setting(which) {}

    PortSetting setting;
};

// Lays a change over a port's records (all zero for a port that is new) and completes what a
// working port needs: the protocol's usual port number, LPR's queue "lp". The address given last
// is the one that is used.
// Throws SettingsClash where the values do not go together; the records are undefined then.
void Apply(const PortChange& change, PortRecords& records);

// True when both are the same to a job and to an administrator, whatever stands behind the texts.
bool SameSettings(const PortRecords& one, const PortRecords& other);
