#include "discovery/Config.h"

#include <msxml.h>
#include <objbase.h>
#include <oleauto.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <utility>

#include "base/Handles.h"
#include "base/Text.h"
#include "diag/Log.h"

namespace {

constexpr char kInitialize[] = "Config::Initialize";
constexpr size_t kPathSize = 260;  // characters, with terminator

// The parser's class and interface, here so that no library of identifiers is needed.
constexpr CLSID kDomDocument = {
    0x2933bf90, 0x7b36, 0x11d2, {0xb2, 0x0e, 0x00, 0xc0, 0x4f, 0x98, 0x3e, 0x60}};
constexpr IID kXmlDomDocument = {
    0x2933bf81, 0x7b36, 0x11d2, {0xb2, 0x0e, 0x00, 0xc0, 0x4f, 0x98, 0x3e, 0x60}};

std::atomic<HMODULE> configModule = nullptr;

// An automation text, freed at its end.
class AutomationText {
  public:
    AutomationText() = default;
    explicit AutomationText(const std::wstring& text) : text_(SysAllocString(text.c_str())) {
        if (!text_) {
            throw std::bad_alloc();
        }
    }

    BSTR Get() const { return text_.Get(); }
    BSTR* Out() { return text_.Out(); }

    // A variant that lends the text out, for arguments.
    VARIANT Variant() const {
        VARIANT variant;
        VariantInit(&variant);
        variant.vt = VT_BSTR;
        variant.bstrVal = Get();
        return variant;
    }

  private:
    UniqueResource<ClosedBy<BSTR, SysFreeString>> text_;
};

// The folder of the module, without the last backslash.
std::wstring ModuleFolder() {
    wchar_t path[kPathSize];
    const DWORD length = GetModuleFileNameW(configModule, path, kPathSize);
    const std::wstring file(path, length);
    return file.substr(0, file.rfind(L'\\'));
}

bool Load(IXMLDOMDocument& document, const std::wstring& path) {
    // Values are taken with their blanks, and the document has to be there when load returns.
    document.put_preserveWhiteSpace(VARIANT_TRUE);
    document.put_async(VARIANT_FALSE);
    const AutomationText file(path);
    VARIANT_BOOL loaded = VARIANT_FALSE;
    return SUCCEEDED(document.load(file.Variant(), &loaded)) && loaded == VARIANT_TRUE;
}

// The text of the first element that the path matches; `value` stays as it is without one.
void ReadText(IXMLDOMDocument& document, const wchar_t* xmlPath, std::string& value) {
    const AutomationText query{std::wstring(xmlPath)};
    ComPointer<IXMLDOMNodeList> nodes;
    ComPointer<IXMLDOMNode> node;
    AutomationText text;
    if (SUCCEEDED(document.selectNodes(query.Get(), nodes.Out())) && nodes &&
        SUCCEEDED(nodes->nextNode(node.Out())) && node && SUCCEEDED(node->get_text(text.Out())) &&
        text.Get() != nullptr) {
        value = WideToAnsi({text.Get(), SysStringLen(text.Get())});
    }
}

}  // namespace

void Config::SetModule(HMODULE module) noexcept {
    configModule = module;
}

bool Config::Initialize(const std::wstring& fileName) noexcept {
    try {
        const std::wstring path = ModuleFolder() + fileName;
        LogInfo(kInitialize, "XMLfile path: ", WideToAnsi(path));
        return InitializeFrom(path);
    } catch (...) {
        return false;
    }
}

bool Config::InitializeFrom(const std::wstring& path) noexcept {
    try {
        // Compatibility: COM stays initialized on the calling thread; the spooler, which owns the
        // thread, could rely on it.
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        ComPointer<IXMLDOMDocument> document;
        void** const out = reinterpret_cast<void**>(document.Out());
        if (FAILED(CoCreateInstance(kDomDocument, nullptr, CLSCTX_ALL, kXmlDomDocument, out)) ||
            !document || !Load(*document.Get(), path)) {
            return false;
        }

        const std::pair<const wchar_t*, std::string*> texts[] = {
            {L"/slp_config/attr_parsing_info/ip_addr_key", &ipAddrKey_},
            {L"/slp_config/attr_parsing_info/ip_addr2_key", &ipAddr2Key_},
            {L"/slp_config/attr_parsing_info/mac_addr_key", &macAddrKey_},
            {L"/slp_config/attr_parsing_info/device_id_string_key", &deviceIdStringKey_},
            {L"/slp_config/attr_parsing_info/host_name_key", &hostNameKey_},
            {L"/slp_config/attr_parsing_info/model_name_key", &modelNameKey_},
            {L"/slp_config/attr_parsing_info/description_key", &descriptionKey_},
            {L"/slp_config/multicast_address", &multicastAddress_},
            {L"/slp_config/service_name", &serviceName_},
        };
        for (const auto& [xmlPath, value] : texts) {
            ReadText(*document.Get(), xmlPath, *value);
        }
        std::string version;
        ReadText(*document.Get(), L"/slp_config/version", version);
        if (!version.empty()) {
            version_ = std::strtol(version.c_str(), nullptr, 10);
        }
        return true;
    } catch (...) {
        return false;
    }
}

void Config::Reset() noexcept {
    for (std::string* text :
         {&ipAddrKey_, &ipAddr2Key_, &macAddrKey_, &deviceIdStringKey_, &hostNameKey_,
          &modelNameKey_, &descriptionKey_, &multicastAddress_, &serviceName_}) {
        text->clear();
    }
}
