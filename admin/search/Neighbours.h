// MAC addresses of hosts on a local subnet, from the system's neighbor table.
#pragma once

#include "admin/search/MergedSearch.h"

#include <iphlpapi.h>

#include <span>

// Sets the MAC addresses that this table has for the addresses of printers. Two printers with the
// same MAC address get none: a device between answers for them, such as a router or print server.
void SetMacAddresses(std::vector<SearchHit>& printers, std::span<const MIB_IPNET_ROW2> table);

// Sends an echo request to each of the printers' IPv4 addresses, which has the system complete its
// table, and sets their MAC addresses.
void LookUpMacAddresses(std::vector<SearchHit>& printers);
