// Finding a port's printer again when it has changed its address.
#pragma once

#include "monitor/PortConfig.h"
#include "monitor/PortList.h"

// Looks for the port's printer on the network, by its hardware address and then by its host name,
// and stores its new address in the records and in the registry.
//   portData, portDataEx: the port's configuration; the address fields are updated.
// Returns 0 when the caller should connect again with the updated records, anything else when the
// printer was not found or its address could not be stored. The last error is then the caller's,
// as it was, or the registry's code. Lets no exception out.
int RediscoverPrinter(PortEntry* port, PORT_DATA_1* portData, PortDataEx* portDataEx) noexcept;
