// An SLP library for tests, linked in the place of slp64.dll: writes down how it is called and
// lets the agents answer that a test has put into it. Attribute lists are parsed for real. Several
// threads may search at once.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "slp/Slp.h"

struct FakeSlp {
    FakeSlp();
    ~FakeSlp();
    FakeSlp(const FakeSlp&) = delete;
    FakeSlp& operator=(const FakeSlp&) = delete;

    std::vector<std::string> TakeCalls();

    // Reports to the last asynchronous request: the answers, the errors, the last call.
    void Report();
    bool reportsAtOnce = false;  // to each asynchronous request, before SLPFindAttrs returns

    std::vector<std::string> answers;  // attribute lists
    std::vector<SLPError> errors;      // reported behind them

    // What the functions return.
    SLPError openResult = SLP_OK;
    SLPError unicastResult = SLP_OK;
    SLPError findResult = SLP_OK;
    SLPError associateResult = SLP_OK;
    SLPError stopResult = SLP_OK;

    // Since the last TakeCalls, such as "find service:printer 10.1.2.3:0 v2".
    std::vector<std::string> calls;
    std::mutex mutex;  // guards `calls`
    SLPAttrCallback asyncCallback = nullptr;
    void* asyncCookie = nullptr;

    void Report(SLPAttrCallback callback, void* cookie) const;
};
