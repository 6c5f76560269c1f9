// Text for the wire and for name resolution: 8-bit, in the system's ANSI code page.
#pragma once

#include <windows.h>

#include <cstddef>

// A wide text in the ANSI code page, in a buffer of N bytes with its terminator. What does not
// convert, or not fit, is as the conversion leaves it.
template <size_t N>
struct AnsiText {
    explicit AnsiText(LPCWSTR wide) noexcept {
        WideCharToMultiByte(CP_ACP, 0, wide, -1, text, static_cast<int>(N), nullptr, nullptr);
        text[N - 1] = '\0';
    }
    char text[N] = {};
};
