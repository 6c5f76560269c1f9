// What the search for printers is set up with: SLPConf.xml, beside the library.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

// The values of the file, in the ANSI code page, exactly as they stand there. There are no
// defaults: what the file does not say is empty, or 0. docs/SLPConf.md explains each of them.
class Config {
  public:
    // Tells all Configs of the process which module's folder the file lies in. Until then it is
    // that of the program.
    static void SetModule(HMODULE module) noexcept;

    // Reads the file. Initializes COM on this thread, apartment-threaded, for good.
    //   fileName: with its leading backslash, "\SLPConf.xml".
    // Returns false when there is no XML parser or the file is missing or broken; the values stay
    // as they were. An element that is missing leaves its value as it was, and is no failure.
    bool Initialize(const std::wstring& fileName) noexcept;

    // The same of a file by its whole path, wherever it lies.
    bool InitializeFrom(const std::wstring& path) noexcept;

    // Empties all texts.
    void Reset() noexcept;

    // Attribute tags that carry a printer's addresses and names.
    const std::string& GetIpAddrKey() const noexcept { return ipAddrKey_; }
    const std::string& GetIpAddr2Key() const noexcept { return ipAddr2Key_; }
    const std::string& GetMacAddrKey() const noexcept { return macAddrKey_; }
    const std::string& GetDeviceIdStringKey() const noexcept { return deviceIdStringKey_; }
    const std::string& GetHostNameKey() const noexcept { return hostNameKey_; }

    // Keys of the fields of the device identifier.
    const std::string& GetModelNameKey() const noexcept { return modelNameKey_; }
    const std::string& GetDescriptionKey() const noexcept { return descriptionKey_; }

    // What is asked for, where, and in which version of SLP.
    const std::string& GetMulticastAddress() const noexcept { return multicastAddress_; }
    const std::string& GetServiceName() const noexcept { return serviceName_; }
    int32_t GetVersion() const noexcept { return version_; }

  private:
    std::string ipAddrKey_;
    std::string ipAddr2Key_;
    std::string macAddrKey_;
    std::string deviceIdStringKey_;
    std::string hostNameKey_;
    std::string modelNameKey_;
    std::string descriptionKey_;
    std::string multicastAddress_;
    std::string serviceName_;
    int32_t version_ = 0;
};
