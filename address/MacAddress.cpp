#include "address/MacAddress.h"

#include <algorithm>

#include "address/AddressText.h"
#include "base/Text.h"

MacAddress::MacAddress(const unsigned char* bytes, size_t length)
    : length_(std::min(length, bytes_.size())) {
    std::copy_n(bytes, length_, bytes_.begin());
    for (size_t i = 0; i < length_; ++i) {
        text_ += "0123456789ABCDEF"[bytes_[i] >> 4];
        text_ += "0123456789ABCDEF"[bytes_[i] & 0xF];
    }
    valid_ = IsMacAddressText(text_);
}

MacAddress::MacAddress(const std::string& text) : text_(text), valid_(IsMacAddressText(text)) {
    if (valid_) {
        length_ = text.size() / 2;
        for (size_t i = 0; i < length_; ++i) {
            bytes_[i] = static_cast<unsigned char>(HexDigitValue(text[2 * i]) << 4 |
                                                   HexDigitValue(text[2 * i + 1]));
        }
    }
}

MacAddress::MacAddress(const wchar_t* text)
    : MacAddress(text != nullptr ? WideToAnsi(text) : std::string()) {}

bool MacAddress::operator==(const MacAddress& other) const noexcept {
    return valid_ && other.valid_ &&
           std::equal(bytes_.begin(), bytes_.begin() + length_, other.bytes_.begin());
}

bool MacAddress::operator==(const std::string& text) const {
    return *this == MacAddress(text);
}

std::ostream& operator<<(std::ostream& out, const MacAddress& address) {
    return out << (address.IsValid() ? address.GetText() : "Invalid object");
}
