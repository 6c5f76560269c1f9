#include "discovery/Rediscovery.h"

int RediscoverPrinter(PortEntry*, PORT_DATA_1*, PortDataEx*) noexcept {
    return 1;
}
