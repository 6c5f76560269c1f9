// Hosts as people name them: by address or by name.
#pragma once

#include <string>

#include "net/Network.h"

// The process's network, started: names, pings and searches work. Throws CommandFailed.
Network& StartedNetwork();

// The address of a host by its name (UTF-8). Throws CommandFailed when it has none.
IPAddress Resolve(const Network& network, const std::string& name);

// The same for what may be an address already.
IPAddress AddressOf(const Network& network, const std::string& host);

// Why a search does not use an address of this computer; empty if it does.
const char* ReasonText(AddressVerdict verdict);
