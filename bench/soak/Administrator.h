// Somebody who manages ports while the soak's jobs are printed: lists, adds, changes, deletes,
// opens and closes ports, his own and those that print, with faults of the system on the way.
#pragma once

#include <memory>
#include <vector>

#include "bench/soak/PrintQueue.h"

class Administrator {
  public:
    Administrator(FakeSpooler& spooler, uint64_t seed, uint32_t number,
                  std::vector<std::unique_ptr<PrintQueue>>& queues);

    // Some steps of his work, on a thread that is new, as the spooler's are who serve clients.
    void Work();

  private:
    void Step();
    void ManageOwnPort();
    void ListPorts();
    void VisitQueue();

    DWORD Send(HANDLE xcv, const wchar_t* command, const void* input, DWORD inputSize,
               void* output = nullptr, DWORD outputSize = 0);

    FakeSpooler& spooler_;
    const uint64_t seed_;
    const uint32_t number_;
    std::vector<std::unique_ptr<PrintQueue>>& queues_;
    uint64_t step_ = 0;
};
