#include "address/IPAddress.h"

#include <cstring>
#include <new>
#include <utility>

#include "address/AddressText.h"

namespace {

constexpr size_t kIPv4Bytes = 4;
constexpr size_t kIPv6Bytes = 16;
static_assert(sizeof(sockaddr_in) == 16 && sizeof(sockaddr_in6) == 28);
static_assert(sizeof(in_addr) == kIPv4Bytes && sizeof(in6_addr) == kIPv6Bytes);

size_t ByteCount(AddressType type) {
    return type == IPV4 ? kIPv4Bytes : type == IPV6 ? kIPv6Bytes : 0;
}

std::unique_ptr<unsigned char[]> CopyBytes(const void* bytes, AddressType type) {
    auto copy = std::make_unique<unsigned char[]>(ByteCount(type));
    std::memcpy(copy.get(), bytes, ByteCount(type));
    return copy;
}

// Fills in `address`; true if the platform could read the text.
bool ConvertText(const std::string& text, int family, void* address, int length) {
    // The platform's parameter is not const, but it only reads the text.
    return WSAStringToAddressA(const_cast<char*>(text.c_str()), family, nullptr,
                               static_cast<sockaddr*>(address), &length) == 0;
}

// The platform's text for a socket address; empty if there is none.
std::string FormatAddress(const void* address, DWORD length) {
    char text[40] = {};
    // Compatibility: one character less than the longest IPv6 text needs with its terminator;
    // callers have always received an invalid object for such an address.
    DWORD capacity = 39;
    auto* source = static_cast<sockaddr*>(const_cast<void*>(address));
    return WSAAddressToStringA(source, length, nullptr, text, &capacity) == 0 ? text : "";
}

}  // namespace

IPAddress::IPAddress(const std::string& text) : text_(text) {
    if (IsIPv4AddressText(text)) {
        // Compatibility: the conversion's result is not examined, because the text was checked; the
        // SLP search relies on taking the address of a text with a TCP port.
        sockaddr_in address = {};
        ConvertText(text, AF_INET, &address, sizeof address);
        bytes_ = CopyBytes(&address.sin_addr, IPV4);
        type_ = IPV4;
    } else if (IsIPv6AddressText(text)) {
        sockaddr_in6 address = {};
        if (!ConvertText(text, AF_INET6, &address, sizeof address)) {
            return;
        }
        bytes_ = CopyBytes(&address.sin6_addr, IPV6);
        type_ = IPV6;
    }
    valid_ = bytes_ != nullptr;
}

IPAddress::IPAddress(const in_addr& address) {
    sockaddr_in full = {};
    full.sin_family = AF_INET;
    full.sin_addr = address;
    text_ = FormatAddress(&full, sizeof full);
    if (!text_.empty()) {
        bytes_ = CopyBytes(&address, IPV4);
        type_ = IPV4;
        valid_ = true;
    }
}

IPAddress::IPAddress(const in6_addr& address) {
    sockaddr_in6 full = {};
    full.sin6_family = AF_INET6;
    full.sin6_addr = address;
    text_ = FormatAddress(&full, sizeof full);
    if (!text_.empty()) {
        bytes_ = CopyBytes(&address, IPV6);
        type_ = IPV6;
        valid_ = true;
    }
}

IPAddress::IPAddress(const IPAddress& other) {
    *this = other;
}

IPAddress& IPAddress::operator=(const IPAddress& other) {
    // Compatibility: assigning an invalid address keeps the old one; callers that retain the last
    // valid address rely on it.
    if (other.valid_ && !other.text_.empty()) {
        std::string text = other.text_;
        auto bytes = CopyBytes(other.bytes_.get(), other.type_);
        sockAddr_.reset();
        valid_ = true;
        type_ = other.type_;
        text_ = std::move(text);
        bytes_ = std::move(bytes);
    }
    return *this;
}

bool IPAddress::operator==(const IPAddress& other) const noexcept {
    return type_ == other.type_ && type_ != UNKNOWN &&
           std::memcmp(bytes_.get(), other.bytes_.get(), ByteCount(type_)) == 0;
}

bool IPAddress::operator==(const std::string& text) const {
    return *this == IPAddress(text);
}

sockaddr* IPAddress::GetSockAddr(int& length) const noexcept {
    if (!valid_) {
        return nullptr;
    }
    const int size = type_ == IPV4 ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    if (!sockAddr_) {
        std::unique_ptr<sockaddr_storage> made(new (std::nothrow) sockaddr_storage());
        if (!made || !ConvertText(text_, type_ == IPV4 ? AF_INET : AF_INET6, made.get(), size)) {
            return nullptr;
        }
        if (type_ == IPV6) {
            auto* address = reinterpret_cast<sockaddr_in6*>(made.get());
            address->sin6_flowinfo = 0;
            address->sin6_scope_id = 0;
        }
        sockAddr_ = std::move(made);
    }
    length = size;
    return reinterpret_cast<sockaddr*>(sockAddr_.get());
}

std::ostream& operator<<(std::ostream& out, const IPAddress& address) {
    return out << (address.IsValid() ? address.GetText() : "Invalid object");
}
