#include "admin/setup/PackageFiles.h"

#include <bcrypt.h>

#include <algorithm>
#include <array>
#include <cwchar>
#include <fstream>
#include <iterator>
#include <vector>

#include "base/Handles.h"

namespace {

constexpr wchar_t kProduct[] = L"kestmon";

// SHA-256 of each SLPConf.xml that a release has shipped, with its lines ending in LF:
//   sha256sum resources/SLPConf.xml
// One that changes adds a line here and leaves the others.
constexpr const char* kShippedConfigurations[] = {
    "a0dc0684fd425dfafecf2e20e64dabdfb336d15aa34f73a3e3af38b5eb3e2119",  // 1.0.0
};

std::string ReadAll(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

std::string ReadText(const std::filesystem::path& file) {
    std::string text = ReadAll(file);
    std::erase(text, '\r');
    return text;
}

struct AlgorithmTraits {
    using Type = BCRYPT_ALG_HANDLE;
    static constexpr Type kNone = nullptr;
    static void Close(Type algorithm) noexcept { BCryptCloseAlgorithmProvider(algorithm, 0); }
};

struct HashTraits {
    using Type = BCRYPT_HASH_HANDLE;
    static constexpr Type kNone = nullptr;
    static void Close(Type hash) noexcept { BCryptDestroyHash(hash); }
};

// Empty where the platform has no SHA-256.
std::string Sha256(std::string& text) {
    UniqueResource<AlgorithmTraits> algorithm;
    UniqueResource<HashTraits> state;
    std::array<unsigned char, 32> hash = {};
    if (BCryptOpenAlgorithmProvider(algorithm.Out(), BCRYPT_SHA256_ALGORITHM, nullptr, 0) < 0 ||
        BCryptCreateHash(algorithm.Get(), state.Out(), nullptr, 0, nullptr, 0, 0) < 0 ||
        BCryptHashData(state.Get(), reinterpret_cast<PUCHAR>(text.data()),
                       static_cast<ULONG>(text.size()), 0) < 0 ||
        BCryptFinishHash(state.Get(), hash.data(), static_cast<ULONG>(hash.size()), 0) < 0) {
        return {};
    }
    std::string digits;
    for (const unsigned char byte : hash) {
        digits += "0123456789abcdef"[byte >> 4];
        digits += "0123456789abcdef"[byte & 15];
    }
    return digits;
}

}  // namespace

std::string FileVersion::Text() const {
    return std::to_string(number >> 48) + '.' + std::to_string(number >> 32 & 0xFFFF) + '.' +
           std::to_string(number >> 16 & 0xFFFF);
}

std::optional<FileVersion> ReadFileVersion(const std::filesystem::path& file) {
    DWORD ignored = 0;
    std::vector<BYTE> block(GetFileVersionInfoSizeW(file.c_str(), &ignored));
    void* value = nullptr;
    UINT size = 0;
    if (block.empty() ||
        !GetFileVersionInfoW(file.c_str(), 0, static_cast<DWORD>(block.size()), block.data()) ||
        !VerQueryValueW(block.data(), L"\\", &value, &size) || size < sizeof(VS_FIXEDFILEINFO)) {
        return std::nullopt;
    }
    const auto& fixed = *static_cast<const VS_FIXEDFILEINFO*>(value);
    FileVersion version;
    version.number = uint64_t{fixed.dwFileVersionMS} << 32 | fixed.dwFileVersionLS;
    version.ours =
        VerQueryValueW(block.data(), L"\\StringFileInfo\\040904B0\\ProductName", &value, &size) &&
        size != 0 && wcsncmp(static_cast<const wchar_t*>(value), kProduct, size) == 0;
    return version;
}

bool SameContents(const std::filesystem::path& one, const std::filesystem::path& other) {
    std::error_code error;
    const auto size = std::filesystem::file_size(one, error);
    return !error && size == std::filesystem::file_size(other, error) && !error &&
           ReadAll(one) == ReadAll(other);
}

bool SameText(const std::filesystem::path& one, const std::filesystem::path& other) {
    std::error_code ignored;
    return std::filesystem::exists(one, ignored) && std::filesystem::exists(other, ignored) &&
           ReadText(one) == ReadText(other);
}

bool IsShippedConfiguration(const std::filesystem::path& file) {
    std::string text = ReadText(file);
    const std::string hash = Sha256(text);
    return std::find(std::begin(kShippedConfigurations), std::end(kShippedConfigurations), hash) !=
           std::end(kShippedConfigurations);
}
