// Prints through the monitor to a printer simulated on this computer, and compares the data.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "admin/channel/SpoolerChannel.h"
#include "base/CommandFailed.h"

struct SelfTestStep {
    enum Result { Ok, Failed, Ended };  // Ended: because goOn returned false

    const char* name;
    Result result = Ok;
    std::string text = {};  // of a step that succeeded
    std::optional<CommandFailed> failure = {};
};

struct SelfTestOptions {
    bool queues = true;  // print through queues on the ports; otherwise to the ports directly
    std::wstring controlledBy;   // printer that controls jobs without a queue
    std::function<bool()> goOn;  // asked often; false ends the test, which cleans up
};

// Adds a RAW and an LPR port with a queue each, prints through both, compares what arrives, and
// deletes everything again.
//   report: called after each step.
// Returns true if all steps succeeded.
bool RunSelfTest(const ChannelFactory& openChannel, const SelfTestOptions& options,
                 const std::function<void(const SelfTestStep& step)>& report);
