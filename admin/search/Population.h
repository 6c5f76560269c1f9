// The printers of the network as rounds of searches see them: which appear, move and disappear.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "base/CommandFailed.h"
#include "admin/search/MergedSearch.h"

class Population {
  public:
    enum class Event { Came, Moved, Went };

    // Called for each event.
    //   addressBefore: of a printer that has moved; otherwise empty.
    using Listener = std::function<void(Event event, const SearchHit& printer,
                                        const std::string& addressBefore)>;

    explicit Population(Listener tell) : tell_(std::move(tell)) {}

    // Takes one answer of the present round.
    void Answered(const SearchHit& printer);

    // Ends a round that was not cut short. A printer that did not answer in three rounds is gone. A
    // printer that answers at two addresses has not moved while the old one is among them.
    void EndRound();

    size_t Size() const { return known_.size(); }
    size_t Counted(Event event) const;

  private:
    struct Known {
        SearchHit printer;
        SearchHit latest;                 // its first answer in this round
        std::set<std::string> addresses;  // at which it answered in this round
        int missed = 0;                   // rounds without an answer
    };

    void Tell(Event event, const SearchHit& printer, const std::string& addressBefore = {});

    const Listener tell_;
    std::map<std::string, Known> known_;
    std::map<std::string, std::string> keys_;  // of all printers, by their names
    std::map<Event, size_t> counts_;
};

// Repeats a search for all printers, every 5 seconds, until goOn returns false.
//   sources, modelPattern: as FindPrinters takes them.
//   goOn: asked on this thread, several times a second; false also ends a search at once.
//   failed: called for a round that fails. The next one may succeed: the file may be being changed,
//           or the network may be down for a while.
// Throws CommandFailed if the first round fails.
void WatchPrinters(const SearchSources& sources, const std::string& modelPattern,
                   Population& population, const std::function<bool()>& goOn,
                   const std::function<void(const CommandFailed& failure)>& failed);
