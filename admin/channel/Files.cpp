#include "admin/channel/Files.h"

#include <filesystem>
#include <fstream>

#include "base/CommandFailed.h"
#include "base/Text.h"

InputFile::InputFile(const std::string& file)
    : file_(file), input_(GetStdHandle(STD_INPUT_HANDLE)) {
    if (file != kStandardStream) {
        opened_.Reset(CreateFileW(Utf8ToWide(file).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                  OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
        input_ = opened_.Get();
        if (!opened_) {
            Fail();
        }
    }
}

size_t InputFile::Read(void* to, size_t room) {
    DWORD count = 0;
    // A pipe whose writer has gone has come to its end.
    if (!ReadFile(input_, to, static_cast<DWORD>(room), &count, nullptr) &&
        GetLastError() != ERROR_BROKEN_PIPE) {
        Fail();
    }
    return count;
}

std::optional<uint64_t> InputFile::Size() const {
    LARGE_INTEGER size = {};
    if (!opened_) {
        return std::nullopt;
    }
    if (!GetFileSizeEx(input_, &size)) {
        Fail();
    }
    return static_cast<uint64_t>(size.QuadPart);
}

void InputFile::Fail() const {
    throw CommandFailed(SourceName(file_) + " cannot be read: " + ErrorText(GetLastError()));
}

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
    InputFile input(file);
    std::string text;
    std::string part(64 << 10, '\0');
    while (text.size() <= kMaxFile) {
        const size_t count = input.Read(part.data(), part.size());
        if (count == 0) {
            break;
        }
        text.append(part, 0, count);
    }
    return text;
}
