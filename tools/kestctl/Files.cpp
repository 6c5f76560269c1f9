#include "tools/kestctl/Files.h"

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <iostream>

#include "admin/CommandFailed.h"
#include "admin/Text.h"

std::string SourceName(const std::string& file) {
    return file == kStandardStream ? "standard input" : file;
}

void SaveFile(const std::string& file, const std::string& text, bool replace) {
    const std::filesystem::path path(ToWide(file));
    std::filesystem::path part = path;
    part += L"." + std::to_wstring(GetCurrentProcessId()) + L".part";
    std::ofstream stream(part, std::ios::binary);
    stream << text;
    stream.close();
    const DWORD flags = MOVEFILE_WRITE_THROUGH | (replace ? MOVEFILE_REPLACE_EXISTING : 0);
    if (!stream || !MoveFileExW(part.c_str(), path.c_str(), flags)) {
        const DWORD error = GetLastError();
        DeleteFileW(part.c_str());
        throw CommandFailed(file + " cannot be written: " + ErrorText(error));
    }
}

std::string ReadFileOrInput(const std::string& file) {
    std::ifstream stream;
    std::istream* input = &std::cin;
    if (file != kStandardStream) {
        stream.open(std::filesystem::path(ToWide(file)), std::ios::binary);
        input = &stream;
    }
    // One byte more than is allowed tells that there is too much.
    std::string text(kMaxFile + 1, '\0');
    input->read(text.data(), static_cast<std::streamsize>(text.size()));
    if (input->bad() || (file != kStandardStream && !stream.is_open())) {
        throw CommandFailed(SourceName(file) + " cannot be read");
    }
    text.resize(static_cast<size_t>(input->gcount()));
    return text;
}
