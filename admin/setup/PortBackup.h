// Keeps the configuration of the monitor before it is removed.
#pragma once

#include <string>

#include "admin/channel/SpoolerChannel.h"
#include "admin/setup/Machine.h"
#include "admin/setup/SetupSteps.h"

// Writes all ports to a file that `port import` reads, and a modified SLPConf.xml to a file beside
// it. Never replaces a file.
//   file: UTF-8.
// Throws CommandFailed unless everything is kept.
void KeepPorts(const std::string& file, Machine& machine, const ChannelFactory& openChannel,
               const Report& report);
