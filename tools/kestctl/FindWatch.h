// kestctl find --watch: the printers of the network as they come, go and move.
#pragma once

#include <string>

// Goes on asking until Ctrl-C, which is its normal end. Throws CommandFailed when the first round
// cannot be made.
//   modelPattern: as FindPrinters takes it.
//   json: one document a line for each event, in place of text.
void WatchPrinters(const std::string& modelPattern, bool json);
