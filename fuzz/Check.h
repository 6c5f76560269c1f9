// What the fuzz targets hold true whatever comes in.
#pragma once

#include <cstdlib>

// Ends the process, so that the fuzzer keeps the input, when a promise is broken.
inline void Check(bool promise) {
    if (!promise) {
        std::abort();
    }
}
