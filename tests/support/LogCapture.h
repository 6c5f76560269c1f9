// What is logged while this object lives goes into a folder of its own, where a test can read it.
#pragma once

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "diag/KestLogger.h"

class LogCapture {
  public:
    LogCapture() {
        static int count = 0;
        wchar_t old[MAX_PATH] = {};
        GetEnvironmentVariableW(L"TMP", old, MAX_PATH);
        oldFolder_ = old;
        folder_ = std::filesystem::temp_directory_path() /
                  (L"kest-log-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                   std::to_wstring(++count));
        // A process that was ended may have left one of the same name.
        std::filesystem::remove_all(folder_);
        std::filesystem::create_directories(folder_);
        SetEnvironmentVariableW(L"TMP", folder_.c_str());
    }
    ~LogCapture() {
        SetEnvironmentVariableW(L"TMP", oldFolder_.empty() ? nullptr : oldFolder_.c_str());
        KestLogger().SetLogFile(L"");
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::filesystem::path Path() const { return folder_ / L"KestSetupWizard.log"; }

    // The log's bytes so far.
    std::string Text() const {
        std::ifstream file(Path(), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    // "<tag><message>|<function>" of each line, without time, padding, line number and file.
    std::vector<std::string> Lines() const {
        std::vector<std::string> lines;
        std::istringstream text(Text());
        for (std::string line; std::getline(text, line);) {
            const size_t start = line.find("} - ") + 4;
            const size_t tab = line.rfind("\t[");
            const size_t end = line.find_last_not_of(' ', tab - 1) + 1;
            const size_t nameEnd = line.find(" - ", tab);
            lines.push_back(line.substr(start, end - start) + "|" +
                            line.substr(tab + 2, nameEnd - tab - 2));
        }
        return lines;
    }

  private:
    std::wstring oldFolder_;
    std::filesystem::path folder_;
};
