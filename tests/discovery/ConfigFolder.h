// A folder with a module and an SLPConf.xml of a test's own.
#pragma once

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "discovery/Config.h"

class ConfigFolder {
  public:
    ConfigFolder() {
        wchar_t self[MAX_PATH];
        GetModuleFileNameW(nullptr, self, MAX_PATH);
        const std::wstring process = std::to_wstring(GetCurrentProcessId());
        folder_ = std::filesystem::temp_directory_path() / (L"kest-config-" + process);
        std::filesystem::remove_all(folder_);  // whatever an ended process left
        std::filesystem::create_directories(folder_);
        // Any library will do whose file lies there.
        const auto file = folder_ / (L"module" + process + L".dll");
        const auto build = std::filesystem::path(self).parent_path().parent_path();
        std::filesystem::copy_file(build / "bin" / "slp64.dll", file,
                                   std::filesystem::copy_options::overwrite_existing);
        module_ = LoadLibraryW(file.c_str());
        Config::SetModule(module_);
    }
    ~ConfigFolder() {
        Config::SetModule(nullptr);
        FreeLibrary(module_);
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }
    ConfigFolder(const ConfigFolder&) = delete;
    ConfigFolder& operator=(const ConfigFolder&) = delete;

    void Write(const std::string& xml) const {
        std::ofstream(folder_ / "SLPConf.xml", std::ios::binary) << xml;
    }

    std::string Path() const { return (folder_ / "SLPConf.xml").string(); }

  private:
    std::filesystem::path folder_;
    HMODULE module_ = nullptr;
};
