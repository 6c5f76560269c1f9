#include "kestctl/Files.h"

#include <windows.h>

#include <filesystem>
#include <fstream>

#include "base/CommandFailed.h"
#include "base/Text.h"
#include "base/Handles.h"

std::string SourceName(const std::string& file) {
    return file == kStandardStream ? "standard input" : file;
}

void SaveFile(const std::string& file, const std::string& text, bool replace) {
    const std::filesystem::path path(Utf8ToWide(file));
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
    const auto fail = [&file] {
        throw CommandFailed(SourceName(file) + " cannot be read: " + ErrorText(GetLastError()));
    };
    UniqueFile opened;
    HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
    if (file != kStandardStream) {
        opened.Reset(CreateFileW(Utf8ToWide(file).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                 OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
        input = opened.Get();
        if (!opened) {
            fail();
        }
    }
    std::string text;
    std::string part(64 << 10, '\0');
    while (text.size() <= kMaxFile) {
        DWORD count = 0;
        // A pipe whose writer has gone has come to its end.
        if (!ReadFile(input, part.data(), static_cast<DWORD>(part.size()), &count, nullptr) &&
            GetLastError() != ERROR_BROKEN_PIPE) {
            fail();
        }
        if (count == 0) {
            break;
        }
        text.append(part, 0, count);
    }
    return text;
}
