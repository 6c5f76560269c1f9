// kestctl find --watch: the printers of the network as they come, go and move.
#pragma once

#include <string>

// Returns true if standard output is a pipe that nobody reads any more.
bool OutputIsClosed();

// Goes on asking until Ctrl-C or until its output is a closed pipe, its normal ends. Throws
// CommandFailed when the first round cannot be made.
//   modelPattern: as FindPrinters takes it.
//   json: one document a line for each event, in place of text.
void WatchPrinters(const std::string& modelPattern, bool json);
