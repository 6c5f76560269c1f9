#include "kestui/Texts.h"

#include "base/Text.h"

namespace {

// A resource holds sixteen texts, each after its length. Returns an empty text if there is none.
std::wstring TableText(UINT id, LANGID language) {
    const HMODULE module = OwnModule();
    const HRSRC found = FindResourceExW(module, RT_STRING, MAKEINTRESOURCEW(id / 16 + 1), language);
    const HGLOBAL loaded = found != nullptr ? LoadResource(module, found) : nullptr;
    if (loaded == nullptr) {
        return {};
    }
    const auto* text = static_cast<const WCHAR*>(LockResource(loaded));
    for (UINT before = id % 16; before > 0; --before) {
        text += 1 + *text;
    }
    return std::wstring(text + 1, *text);
}

// Returns true for control characters and those that change how other characters look.
bool IsDeceptive(wchar_t c) {
    return c < 0x20 || (c >= 0x7F && c < 0xA0) || c == 0xAD || c == 0x61C ||
           (c >= 0x200B && c <= 0x200F) || (c >= 0x2028 && c <= 0x202E) ||
           (c >= 0x2060 && c <= 0x206F) || c == 0xFEFF;
}

}  // namespace

HMODULE OwnModule() noexcept {
    HMODULE module = nullptr;
    GetModuleHandleExW(
        GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
        reinterpret_cast<LPCWSTR>(&OwnModule), &module);
    return module;
}

std::wstring Texts::operator()(UINT id, std::initializer_list<std::wstring> inserts) const {
    const bool german = PRIMARYLANGID(language_) == LANG_GERMAN;
    const std::wstring text = TableText(id, german ? MAKELANGID(LANG_GERMAN, SUBLANG_GERMAN)
                                                   : MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US));
    std::wstring result;
    // In one pass: an inserted value can contain %1.
    for (size_t i = 0; i < text.size(); ++i) {
        const size_t insert =
            text[i] == L'%' && i + 1 < text.size() ? text[i + 1] - L'1' : SIZE_MAX;
        if (insert < inserts.size()) {
            result += inserts.begin()[insert];
            ++i;
        } else {
            result += text[i];
        }
    }
    return result;
}

std::wstring Texts::Count(UINT one, size_t count) const {
    return count == 1 ? (*this)(one) : (*this)(one + 1, {std::to_wstring(count)});
}

std::wstring DisplayText(std::string_view utf8, size_t most) {
    // A text from the network can have megabytes.
    std::wstring text = Utf8ToWide(utf8.substr(0, most * 4));
    for (wchar_t& c : text) {
        if (IsDeceptive(c)) {
            c = L'?';
        }
    }
    if (text.size() > most) {
        const bool pair = IS_HIGH_SURROGATE(text[most - 1]);
        text = text.substr(0, most - (pair ? 1 : 0)) + L"\u2026";
    }
    return text;
}

std::wstring DisplayMac(const std::string& digits) {
    std::wstring text;
    for (size_t i = 0; i < digits.size(); ++i) {
        text += i > 0 && i % 2 == 0 ? L":" : L"";
        text += Utf8ToWide(digits.substr(i, 1));
    }
    return text;
}
