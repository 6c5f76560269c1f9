// The printers of the network as rounds of searches see them: which appear, move and disappear.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>

#include "discovery/Printer.h"

class Population {
  public:
    enum class Event { Came, Moved, Went };

    // Called for each event.
    //   addressBefore: of a printer that has moved; otherwise empty.
    using Listener =
        std::function<void(Event event, const Printer& printer, const std::string& addressBefore)>;

    explicit Population(Listener tell) : tell_(std::move(tell)) {}

    // Takes one answer of the present round.
    void Answered(const Printer& printer);

    // Ends a round that was not cut short. A printer that did not answer in three rounds is gone. A
    // printer that answers at two addresses has not moved while the old one is among them.
    void EndRound();

    size_t Size() const { return known_.size(); }
    size_t Counted(Event event) const;

  private:
    struct Known {
        Printer printer;
        Printer latest;                   // its first answer in this round
        std::set<std::string> addresses;  // at which it answered in this round
        int missed = 0;                   // rounds without an answer
    };

    void Tell(Event event, const Printer& printer, const std::string& addressBefore = {});

    const Listener tell_;
    std::map<std::string, Known> known_;
    std::map<Event, size_t> counts_;
};
