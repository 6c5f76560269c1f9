// An SLP session that closes itself.
#pragma once

#include <memory>

#include "slp/Slp.h"

struct CloseHandleOfSlp {
    using pointer = SLPHandle;
    void operator()(SLPHandle handle) const { SLPClose(handle); }
};
using UniqueSlpHandle = std::unique_ptr<void, CloseHandleOfSlp>;
