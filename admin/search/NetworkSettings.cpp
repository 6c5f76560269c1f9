#include "admin/search/NetworkSettings.h"

#include <cstdint>
#include <cstdio>
#include <optional>

#include "address/AddressText.h"
#include "admin/search/Hosts.h"
#include "base/CommandFailed.h"

namespace {

// In host order. A leading zero is just a zero.
std::optional<uint32_t> ToNumber(const std::string& text) {
    unsigned octets[4] = {};
    if (!IsIPv4AddressText(text) || text.find(':') != std::string::npos ||
        std::sscanf(text.c_str(), "%3u.%3u.%3u.%3u", &octets[0], &octets[1], &octets[2],
                    &octets[3]) != 4) {
        return std::nullopt;
    }
    return octets[0] << 24 | octets[1] << 16 | octets[2] << 8 | octets[3];
}

std::string ToText(uint32_t address) {
    std::string text = std::to_string(address >> 24);
    for (int shift = 16; shift >= 0; shift -= 8) {
        text += "." + std::to_string(address >> shift & 0xFF);
    }
    return text;
}

}  // namespace

std::string CheckPlainAddress(std::string& text) {
    const auto number = ToNumber(text);
    if (!number) {
        return "'" + text + "' is not an IPv4 address, for example 192.168.1.20";
    }
    text = ToText(*number);
    return {};
}

std::string ProblemOf(const NetworkSettings& settings) {
    const auto address = ToNumber(settings.address);
    const auto mask = ToNumber(settings.mask);
    const auto gateway = ToNumber(settings.gateway);
    if (!address || !mask || !gateway) {
        return "address '" + settings.address + "', mask '" + settings.mask + "', gateway '" +
               settings.gateway + "': these are not all IPv4 addresses";
    }
    const uint32_t hosts = ~*mask;
    if ((hosts & (hosts + 1)) != 0) {
        return "the mask " + settings.mask +
               " has ones behind its zeros: a mask is like 255.255.255.0";
    }
    if (*mask == 0 || hosts < 3) {
        return "the mask " + settings.mask + " leaves no network that a printer can be in";
    }
    if (const uint32_t first = *address >> 24; first == 0 || first == 127 || first >= 224) {
        return settings.address + " cannot be the address of a printer";
    }
    const auto isReserved = [hosts](uint32_t host) {
        return (host & hosts) == 0 || (host & hosts) == hosts;
    };
    const std::string network = ToText(*address & *mask) + " with mask " + settings.mask;
    if (isReserved(*address)) {
        return settings.address + " is the network's own or its broadcast address, in " + network;
    }
    if (*gateway == 0) {
        return {};
    }
    if ((*gateway & *mask) != (*address & *mask)) {
        return "the gateway " + settings.gateway + " is outside the printer's network, " + network;
    }
    if (isReserved(*gateway) || *gateway == *address) {
        return "the gateway " + settings.gateway +
               " is the printer's, the network's own or its broadcast address, in " + network;
    }
    return {};
}

NetworkSettings ReadSettings(Printer& printer, const std::string& address,
                             const StepListener& begin) {
    const Network& network = StartedNetwork();
    if (network.GetLocalAddress(0) == nullptr) {
        throw CommandFailed(
            "this computer has no usable IPv4 address. `kestctl interfaces` shows why");
    }
    printer.SetFirstIPAddress(IPAddress(address));
    begin("reading the settings of " + address);
    if (printer.RetrieveSnmpSettings() != 0) {
        begin("checking whether it is reachable");
        throw CommandFailed(network.Ping(printer.GetIPAddress()) == 0
                                ? address +
                                      " answers, but does not report its settings. Check that SNMP "
                                      "is enabled and that the device supports these settings"
                                : address +
                                      " is unreachable. Check the address, and that the printer is "
                                      "on and connected");
    }
    return {printer.GetIPAddress().GetText(), printer.GetSubnetMask(), printer.GetGateway()};
}

NetworkSettings PlanSettings(const NetworkSettings& before, const NetworkSettings& wanted,
                             const StepListener& begin) {
    const auto chosen = [](const std::string& given, const std::string& old) {
        return given.empty() ? old : given;
    };
    const NetworkSettings after = {chosen(wanted.address, before.address),
                                   chosen(wanted.mask, before.mask),
                                   chosen(wanted.gateway, before.gateway)};
    if (const std::string problem = ProblemOf(after); !problem.empty()) {
        throw CommandFailed(problem + "; nothing was written");
    }
    if (after.address != before.address) {
        begin("checking whether " + after.address + " is in use");
        if (StartedNetwork().Ping(IPAddress(after.address)) == 0) {
            throw CommandFailed("another device already uses " + after.address +
                                "; nothing was written");
        }
    }
    return after;
}

bool WriteSettings(Printer& printer, const NetworkSettings& before, const NetworkSettings& after,
                   const StepListener& begin) {
    begin("writing, and waiting for the printer at " + after.address);
    if (printer.UpdateSnmpSettings(after.address, after.mask, after.gateway) != 0) {
        throw CommandFailed(before.address +
                            " refused the settings or did not confirm them. Check its old and its "
                            "new address with `kestctl settings show`");
    }
    return StartedNetwork().Ping(IPAddress(after.address)) == 0;
}
