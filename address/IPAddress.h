// The address of a host, IPv4 or IPv6, as text and as bytes.
#pragma once

#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>

enum AddressType : uint32_t { IPV4 = 0, IPV6 = 1, UNKNOWN = 2 };

// A value that knows whether it is an address. Windows Sockets must have been started: text is
// turned into bytes by the platform.
//
// Bad text never throws; it makes an invalid object that keeps the text. Want of memory throws
// std::bad_alloc.
class IPAddress {
  public:
    // Empty text, invalid, type UNKNOWN.
    IPAddress() = default;

    // Text as IsIPv4AddressText or IsIPv6AddressText takes it, kept exactly as passed. A port, a
    // zone or brackets are part of the text but not of the bytes. What the platform cannot read
    // although its IPv6 form is right, such as a prefix length, is invalid.
    explicit IPAddress(const std::string& text);

    // From bytes in network order; the text is the platform's. An IPv6 address whose text takes
    // all 39 characters has no text, and is invalid.
    explicit IPAddress(const in_addr& address);
    explicit IPAddress(const in6_addr& address);

    // A copy has no cached socket address. Assigning an invalid object leaves this one unchanged.
    IPAddress(const IPAddress& other);
    IPAddress& operator=(const IPAddress& other);
    virtual ~IPAddress() = default;

    bool IsValid() const noexcept { return valid_; }
    AddressType GetType() const noexcept { return type_; }

    // 4 bytes for IPV4, 16 for IPV6, in network order; null when invalid. The object owns them.
    const unsigned char* GetBytes() const noexcept { return bytes_.get(); }

    const std::string& GetText() const noexcept { return text_; }

    // Same type and same bytes. Invalid objects equal nothing, not even each other.
    bool operator==(const IPAddress& other) const noexcept;
    bool operator==(const std::string& text) const;

    // The address for the platform's socket calls: a sockaddr_in or sockaddr_in6 with the port
    // that the text names (0 without one) and, for IPv6, flow information and scope 0; the probes
    // set the scope of a link-local address in it. Made on the first call and kept; the object
    // owns it.
    //   length: receives 16 or 28; untouched when the object is invalid.
    // Returns null for an invalid object, for a text that the platform cannot convert, and when
    // there is no memory; it never throws.
    sockaddr* GetSockAddr(int& length) const noexcept;

  private:
    std::string text_;
    std::unique_ptr<unsigned char[]> bytes_;
    bool valid_ = false;
    AddressType type_ = UNKNOWN;
    mutable std::unique_ptr<sockaddr_storage> sockAddr_;
};

// The text, or "Invalid object".
std::ostream& operator<<(std::ostream& out, const IPAddress& address);
