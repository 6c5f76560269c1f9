#include "tests/support/OddPrinter.h"

#include <cstdlib>
#include <utility>

namespace {

using namespace std::string_literals;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr size_t kPiece = 1000;
constexpr int kOddPieces = 40;  // of a job that a slow or talkative printer reads in pieces

// The next `length` bytes of the job, in the way of this printer.
std::string TakeData(const PeerConnection& job, const Visit& visit, size_t length) {
    std::string data;
    const bool slow = visit.behaviour == Behaviour::Slow;
    if (slow || visit.behaviour == Behaviour::SendsBack) {
        for (int i = 0; i < kOddPieces && data.size() < length; ++i) {
            const std::string piece = job.Read(std::min(kPiece, length - data.size()));
            if (piece.empty()) {
                return data;
            }
            data += piece;
            if (slow) {
                std::this_thread::sleep_for(milliseconds(1 + i % 5));
            } else if (!visit.lpr) {
                job.Write("@PJL INFO STATUS\r\n");
            }
        }
    }
    return data += job.Read(length - data.size());
}

// Reads the data, or as much of it as this printer takes. Returns false when it takes no more.
bool TakeDataOrEnd(const PeerConnection& job, Visit& visit, size_t length) {
    const bool resets = visit.behaviour == Behaviour::ResetsAfter;
    if (resets || visit.behaviour == Behaviour::ClosesAfter) {
        visit.data = job.Read(std::min(visit.after, length));
        if (resets) {
            job.Reset();
        }
        return false;
    }
    visit.data = TakeData(job, visit, length);
    return true;
}

void ServeRaw(const PeerConnection& job, Visit& visit) {
    if (visit.behaviour == Behaviour::HalfCloses) {
        job.HalfClose();
    }
    if (!TakeDataOrEnd(job, visit, SIZE_MAX)) {
        return;
    }
    if (visit.behaviour == Behaviour::SendsLong) {
        const auto end = Clock::now() + visit.time;
        while (Clock::now() < end) {
            job.Write(std::string(kPiece, 'x'));
            std::this_thread::sleep_for(milliseconds(2));
        }
    }
}

// A line printer daemon's side of RFC 1179, for one job.
class Dialogue {
  public:
    Dialogue(const PeerConnection& job, Visit& visit) : job_(job), visit_(visit) {}

    void Run() {
        const std::string receive = ReadCommand();
        if (!Take(receive == "\x02lp\n", receive, kReceiveJob)) {
            return;
        }
        const std::string command = ReadCommand();
        const std::string name = FileName(command, '\x02', " cf");
        if (!Take(!name.empty(), command, kControlFileCommand)) {
            return;
        }
        visit_.controlFile = job_.Read(std::min(Number(command), 1000L) + 1);
        if (!Take(visit_.controlFile.find("\nldf" + name + "\n\0"s) != std::string::npos,
                  visit_.controlFile, kControlFile)) {
            return;
        }
        const std::string data = ReadCommand();
        visit_.announced = Number(data);
        if (!Take(FileName(data, '\x03', " df") == name, data, kDataFileCommand) ||
            !TakeDataOrEnd(job_, visit_, visit_.size)) {
            return;
        }
        const std::string end = job_.Read(1);
        if (Take(end == "\0"s, end, kEndOfData)) {
            ExpectEnd();
        }
    }

  private:
    std::string ReadCommand() {
        std::string line = job_.ReadLine();
        if (!line.empty()) {
            visit_.commands.push_back(line);
        }
        return line;
    }

    void ExpectEnd() {
        const std::string more = job_.ReadAll();
        Check(more.empty(), more, kSteps);
    }

    static long Number(const std::string& command) {
        return command.empty() ? -1 : std::atol(command.c_str() + 1);
    }

    // The name behind the kind of file, such as "A001host": the same in a job's three files. Empty
    // when the command is another one.
    static std::string FileName(const std::string& command, char code, const char* kind) {
        const size_t at = command.find(kind);
        return command.empty() || command[0] != code || at == command.npos || command.back() != '\n'
                   ? ""
                   : command.substr(at + 3, command.size() - at - 4);
    }

    void Check(bool right, const std::string& seen, Step step) {
        if (!right) {
            visit_.complaint = "step " + std::to_string(step) + " was '" + seen.substr(0, 80) + "'";
        }
    }

    // Acknowledges a step that is right, in the way of this daemon. Returns whether the dialog
    // goes on.
    bool Take(bool right, const std::string& seen, Step step) {
        Check(right, seen, step);
        if (right && step != visit_.step) {
            job_.Write("\0"s);
        }
        return right && (step != visit_.step || AcknowledgeOddly());
    }

    bool AcknowledgeOddly() {
        switch (visit_.behaviour) {
            case Behaviour::AcksLate:
                std::this_thread::sleep_for(visit_.time);
                break;
            case Behaviour::AcksTwice:
                job_.Write("\0"s);
                break;
            case Behaviour::AcksNegative:
            case Behaviour::AcksWrong:
                job_.Write(visit_.behaviour == Behaviour::AcksNegative ? "\x01" : "lpd: no room\n");
                ExpectEnd();
                return false;
            case Behaviour::AcksNever:
                ExpectEnd();
                return false;
            case Behaviour::HalfCloses:
                job_.HalfClose();
                ExpectEnd();
                return false;
            default:
                break;
        }
        job_.Write("\0"s);
        return true;
    }

    const PeerConnection& job_;
    Visit& visit_;
};

}  // namespace

void Visit::End() {
    std::lock_guard lock(mutex_);
    ended_ = true;
    ending_.notify_all();
}

bool Visit::WaitForEnd(std::chrono::seconds patience) {
    std::unique_lock lock(mutex_);
    return ending_.wait_for(lock, patience, [this] { return ended_; });
}

void Serve(const PeerConnection& job, Visit& visit) {
    if (visit.behaviour == Behaviour::ClosesAtOnce) {
        return;
    }
    if (visit.lpr) {
        Dialogue(job, visit).Run();
    } else {
        ServeRaw(job, visit);
    }
}
