// A printer that can be told to misbehave, connection by connection.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "tests/support/TcpPeer.h"

enum class Behaviour {
    Takes,
    Slow,        // reads in small pieces, with pauses
    SendsBack,   // answers each piece that it reads
    SendsLong,   // sends for some time after the job's end
    HalfCloses,  // closes its own direction: at once, or in place of an acknowledgment
    AcksLate,
    AcksTwice,  // two zero octets at once
    Refuses,
    ClosesAtOnce,
    ClosesAfter,
    ResetsAfter,
    AcksNegative,
    AcksWrong,
    AcksNever,
    Count
};

// The acknowledged steps of a line printer daemon's dialog.
enum Step { kReceiveJob, kControlFileCommand, kControlFile, kDataFileCommand, kEndOfData, kSteps };

// One connection: what it is to meet, and what came of it.
struct Visit {
    // The plan. A daemon ends the data where the job does, since a printer that is announced no
    // length, or a running total, could not.
    bool lpr = false;
    size_t size = 0;  // bytes of the job
    Behaviour behaviour = Behaviour::Takes;
    size_t after = 0;                // bytes of data, for ClosesAfter and ResetsAfter
    int step = 0;                    // at which an acknowledgment is odd
    std::chrono::milliseconds time;  // that SendsLong and AcksLate take

    // Whether a job may fail to arrive whole for this.
    bool IsFault() const {
        return behaviour >= Behaviour::Refuses || (lpr && behaviour == Behaviour::HalfCloses);
    }

    // What came. Complete once the visit has ended.
    std::vector<std::string> commands;  // lines of the dialog
    std::string controlFile;            // with its closing zero octet
    std::string data;
    std::string complaint;  // what was wrong with the dialog; empty when nothing was
    long announced = 0;     // bytes, by the data file subcommand

    void End();
    bool WaitForEnd(std::chrono::seconds patience);

  private:
    std::mutex mutex_;
    std::condition_variable ending_;
    bool ended_ = false;
};

// Plays the printer for one connection.
void Serve(const PeerConnection& job, Visit& visit);
