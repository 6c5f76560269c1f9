// The line printer daemon's dialog of an LPR job (RFC 1179), over the connection that the job's
// start has made. With double spooling the job is first collected in a temporary file, so that its
// length can be announced before its data.
#pragma once

#include "monitor/PortList.h"

constexpr long kAcknowledgeSeconds = 4;  // that the daemon has for each acknowledgment

// Opens the job at the daemon: receive-job command for the queue, control file, and either the
// data file subcommand (length 0: "until the connection ends") or the temporary file.
// Returns false when a step fails or the daemon does not acknowledge it with a zero octet within
// kAcknowledgeSeconds; what was sent is not taken back. The last error is the socket's or the
// file's, or WSAENOTCONN when the daemon closed the connection; a silent daemon leaves it as it
// was.
bool StartLprJob(PortEntry* port, LPCWSTR queue) noexcept;

// Appends a piece of the job to the temporary file.
//   written: receives how many bytes were taken.
// Returns FALSE when the file cannot be written, with ERROR_INVALID_HANDLE when there is none.
BOOL SpoolLprData(PortEntry* port, const BYTE* data, DWORD size, LPDWORD written) noexcept;

// Ends the job: sends the temporary file, if the job has one, and the closing zero octet. What
// fails here is not reported; the temporary file is left on disk when the daemon did not take its
// announcement.
void EndLprJob(PortEntry* port) noexcept;
