// A hardware address, as text and as bytes.
#pragma once

#include <array>
#include <cstddef>
#include <ostream>
#include <string>

// A value that knows whether it is a hardware address: twelve hexadecimal digits, six bytes. Bad
// text never throws; it makes an invalid object that keeps the text.
class MacAddress {
  public:
    // Empty text, invalid.
    MacAddress() = default;

    // From bytes, most significant first; their text is upper-case. Valid for six bytes only; of
    // more than eight the rest is ignored.
    MacAddress(const unsigned char* bytes, size_t length);

    // Text as IsMacAddressText takes it, kept exactly as passed.
    explicit MacAddress(const std::string& text);

    // The same from UTF-16 text, converted to the ANSI code page; null counts as empty.
    explicit MacAddress(const wchar_t* text);

    MacAddress(const MacAddress&) = default;
    MacAddress& operator=(const MacAddress&) = default;
    virtual ~MacAddress() = default;

    bool IsValid() const noexcept { return valid_; }

    // The bytes, most significant first; GetLength of them count.
    const unsigned char* GetBytes() const noexcept { return bytes_.data(); }
    size_t GetLength() const noexcept { return length_; }

    const std::string& GetText() const noexcept { return text_; }

    // Same bytes, whatever the case of the texts. Invalid objects equal nothing.
    bool operator==(const MacAddress& other) const noexcept;
    bool operator==(const std::string& text) const;

  private:
    std::string text_;
    std::array<unsigned char, 8> bytes_ = {};
    size_t length_ = 0;
    bool valid_ = false;
};

// The text, or "Invalid object".
std::ostream& operator<<(std::ostream& out, const MacAddress& address);
