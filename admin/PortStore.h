// The monitor's ports over a channel: what can be done with them, with every failure told.
#pragma once

#include <string>

#include "admin/PortSettings.h"
#include "admin/SpoolerChannel.h"

// The port's name as the monitor has it, for a name in any letter case.
// Throws CommandFailed when there is no such port.
std::wstring FindPort(SpoolerChannel& channel, const std::wstring& name);

// Reads both records of a port. A port that was added but never configured reads as all zero.
// Throws CommandFailed.
PortRecords ReadPort(SpoolerChannel& channel, const std::wstring& name);

// Makes a port with its configuration, or, when any step fails, nothing.
// Throws CommandFailed.
void AddPort(SpoolerChannel& channel, const std::wstring& name, const PortRecords& records);

// Writes both records of a port that is there, and reads them back: the monitor itself does not
// report what the registry refused. What was there before is written again when that fails.
// Throws CommandFailed.
void ChangePort(SpoolerChannel& channel, const std::wstring& name, const PortRecords& before,
                const PortRecords& after);

// Throws CommandFailed.
void DeletePort(SpoolerChannel& channel, const std::wstring& name);
