// A way to the monitor. There are two, and administration works over either:
// SpoolerService, through the system's print spooler, and the tool's DirectChannel, a small spooler
// of its own.
#pragma once

#include <windows.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "admin/channel/Queue.h"
#include "admin/channel/StandardPorts.h"

// A job on its way. Destroyed without End, it is given up, and its queue is left as it was found.
class PrintJob {
  public:
    virtual ~PrintJob() = default;

    // Takes some of the job's bytes, or all. Returns how many, never 0.
    // Throws CommandFailed when none could be taken: the job cannot go on.
    virtual size_t Write(const BYTE* bytes, size_t count) = 0;

    // Gives the job up from another thread than the one that is in Write or End, which may wait for
    // the printer: the connection ends at once, and whatever is still on its way is lost. The
    // caller ends the process afterwards.
    virtual void Abandon() noexcept = 0;

    // Ends the job. Throws CommandFailed when the end was refused.
    virtual void End() = 0;

    // What became of it, for the user: "sent through port OFFICE". To be asked after End.
    virtual std::string Outcome() const = 0;
};

class SpoolerChannel {
  public:
    virtual ~SpoolerChannel() = default;

    // The names of the monitor's ports, in its own order. Throws CommandFailed.
    virtual std::vector<std::wstring> PortNames() = 0;

    // The names of the spooler's other ports, which no new port can have. Throws CommandFailed.
    virtual std::vector<std::wstring> OtherPortNames() = 0;

    // Sends the monitor one named command of its transceive channel (platform: XcvDataW).
    //   input, output: buffers with their sizes in bytes; null with size 0 where there is none.
    // Returns the command's Win32 code. Throws CommandFailed when the monitor cannot be reached.
    virtual DWORD Xcv(LPCWSTR command, const void* input, DWORD inputSize, void* output,
                      DWORD outputSize) = 0;

    // The system's local queues. Throws CommandFailed.
    virtual std::vector<Queue> Queues() = 0;

    // Has a queue print to these ports, and changes nothing else of it. Throws CommandFailed.
    virtual void MoveQueue(const std::wstring& queue, const std::vector<std::wstring>& ports) = 0;

    // The ports of Windows' own TCP/IP port monitor on the same machine. Throws CommandFailed.
    virtual std::vector<StandardPort> StandardPorts() = 0;

    // Starts a job of raw bytes through a port.
    //   document: the job's name in its queue.
    //   printer: the queue that it goes through, or that controls it; empty: the channel's choice.
    // Throws CommandFailed.
    virtual std::unique_ptr<PrintJob> StartJob(const std::wstring& port,
                                               const std::wstring& document,
                                               const std::wstring& printer) = 0;
};

// Opens a channel when it is about to be used. Throws CommandFailed.
using ChannelFactory = std::function<std::unique_ptr<SpoolerChannel>()>;
