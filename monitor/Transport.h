// One print job's way from the spooler to the printer over TCP: the entry points of a job
// (platform interface MONITOR2). RAW jobs are the plain stream; LPR jobs add the dialog of Lpr.h.
//
// The spooler serializes the calls of one job; jobs of different ports run at the same time.
// Several callers may use one port all the same: StartDocPort has the port for itself until it
// returns, one EndDocPort ends the job, and nothing that a call still uses is closed.
#pragma once

#include "monitor/PortConfig.h"
#include "monitor/PortList.h"

// Reads the port's configuration afresh, connects, and, when the printer cannot be reached and the
// port says AlwaysPrint, has it searched for on the network and connects once more.
//   pPrinterName, JobId: the queue and the job, for job control; Level and pDocInfo are not used.
// Returns TRUE also when a job is already in progress on the port, or starts or ends there (and
// does nothing then), and when the printer cannot be opened (the job then has no connection). On
// FALSE the port is idle and the last error says why: the registry's, getaddrinfo's or a socket's
// code.
BOOL WINAPI StartDocPort(HANDLE hPort, LPWSTR pPrinterName, DWORD JobId, DWORD Level,
                         LPBYTE pDocInfo);

// Sends a piece of the job with one send, or appends it to the temporary file of a double-spooled
// LPR job. Takes no lock, copies nothing, allocates nothing.
//   pcbWritten: receives how many bytes were taken, possibly fewer than cbBuf; the spooler sends
//   the rest.
// Returns FALSE when the connection is lost (the socket's error; the job is then restarted) or
// there is none (ERROR_INVALID_HANDLE), also while the job starts or ends. When the connection is
// lost, it ends the other WritePort and ReadPort calls on the port and waits until they return.
BOOL WINAPI WritePort(HANDLE hPort, LPBYTE pBuffer, DWORD cbBuf, LPDWORD pcbWritten);

// Polls for what the printer sends back; never waits.
//   pcbRead: receives the number of bytes read, 0 when there are none.
// Returns FALSE with ERROR_INVALID_HANDLE without a connection, WSAENOTCONN when the printer closed
// it, WSAEMSGSIZE when there is data but no buffer, or the socket's error. FALSE for LPR ports.
// While another caller reads there is nothing to read.
BOOL WINAPI ReadPort(HANDLE hPort, LPBYTE pBuffer, DWORD cbBuffer, LPDWORD pcbRead);

// Ends the job: closes the stream once the printer has taken it all, and reports the job to the
// spooler as sent. Does nothing without a job, while StartDocPort runs, and while another caller
// ends the job. Always TRUE.
BOOL WINAPI EndDocPort(HANDLE hPort);
