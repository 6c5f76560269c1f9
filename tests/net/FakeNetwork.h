// A Network of a test's own, on a platform that does as it is told.
#pragma once

#include <gmock/gmock.h>

#include <map>
#include <string>

#include "net/Network.h"
#include "tests/support/LogCapture.h"

class FakeNetwork : public Network {
  public:
    // Every entry point of the platform is the real one, except what `platform` replaces.
    explicit FakeNetwork(const NetworkPlatform& platform) : Network(platform) {}
};

// Libraries that count their references and have the entries that a test puts into them.
struct FakeLibraries {
    static inline std::map<std::string, int> references;                        // by library
    static inline std::map<std::string, std::map<std::string, void*>> entries;  // by library

    static void Reset() {
        references.clear();
        entries = {{"icmp.dll", {}}, {"iphlpapi.dll", {}}};
    }
    static NetworkPlatform Platform() {
        NetworkPlatform platform;
        platform.loadLibrary = [](LPCSTR name) -> HMODULE {
            const auto library = entries.find(name);
            if (library == entries.end()) {
                return nullptr;
            }
            ++references[name];
            return reinterpret_cast<HMODULE>(&*library);
        };
        platform.freeLibrary = [](HMODULE module) -> BOOL {
            if (module == nullptr) {
                return FALSE;
            }
            --references[Library(module).first];
            return TRUE;
        };
        platform.getProcAddress = [](HMODULE module, LPCSTR name) -> FARPROC {
            const auto& found = Library(module).second;
            const auto entry = found.find(name);
            return entry != found.end() ? reinterpret_cast<FARPROC>(entry->second) : nullptr;
        };
        return platform;
    }
    template <class Function>
    static void Add(const char* library, const char* name, Function* function) {
        entries[library][name] = reinterpret_cast<void*>(function);
    }

  private:
    static const std::pair<const std::string, std::map<std::string, void*>>& Library(
        HMODULE module) {
        return *reinterpret_cast<std::pair<const std::string, std::map<std::string, void*>>*>(
            module);
    }
};
