// The files that a release puts into the system folder.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "admin/setup/Machine.h"

// A library of the release. One that is optional was not there in every release.
struct PackageLibrary {
    const wchar_t* name;
    bool optional;
};
constexpr PackageLibrary kPackageLibraries[] = {
    {kMonitorLibrary, false}, {L"slp64.dll", false}, {L"kestui.dll", true}};

constexpr wchar_t kConfigurationFile[] = L"SLPConf.xml";
constexpr wchar_t kNewConfigurationFile[] = L"SLPConf.new.xml";

// What a program or library says of itself in its version resource.
struct FileVersion {
    uint64_t number = 0;  // four parts of 16 bits, the first highest
    bool ours = false;    // of the product kestmon

    std::string Text() const;  // "1.0.0"
};

// Nothing when the file is missing, or has no version resource.
std::optional<FileVersion> ReadFileVersion(const std::filesystem::path& file);

// True when both files are there with the same bytes.
bool SameContents(const std::filesystem::path& one, const std::filesystem::path& other);

// The same for two texts, apart from their line ends.
bool SameText(const std::filesystem::path& one, const std::filesystem::path& other);

// True when the file is, apart from its line ends, the SLPConf.xml of some release: nobody changed
// it, nobody will miss it.
bool IsShippedConfiguration(const std::filesystem::path& file);
