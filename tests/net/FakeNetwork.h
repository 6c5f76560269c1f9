// A Network of a test's own, on a platform that does as it is told.
#pragma once

#include <gmock/gmock.h>

#include <map>
#include <string>
#include <utility>

#include "net/Network.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SocketsStarted.h"

class FakeNetwork : public Network {
  public:
    // Every function of the platform is the real one, except what `platform` replaces.
    explicit FakeNetwork(const NetworkPlatform& platform) : Network(platform) {}
};

// Libraries that count their references and have the entries that a test puts into them.
struct FakeLibraries {
    using Library = std::pair<const std::string, std::map<std::string, void*>>;
    static inline std::map<std::string, int> references;                        // by library
    static inline std::map<std::string, std::map<std::string, void*>> entries;  // by library

    static void Reset() {
        references.clear();
        entries = {{"icmp.dll", {}}, {"iphlpapi.dll", {}}};
    }
    template <class Function>
    static void Add(const char* library, const char* name, Function* function) {
        entries[library][name] = reinterpret_cast<void*>(function);
    }
    static NetworkPlatform Platform() {
        NetworkPlatform platform;
        platform.loadLibrary = [](LPCSTR name) -> HMODULE {
            const auto library = entries.find(name);
            references[name] += library != entries.end();
            return library != entries.end() ? reinterpret_cast<HMODULE>(&*library) : nullptr;
        };
        platform.freeLibrary = [](HMODULE module) -> BOOL {
            return module != nullptr && references[reinterpret_cast<Library*>(module)->first]--;
        };
        platform.getProcAddress = [](HMODULE module, LPCSTR name) -> FARPROC {
            const auto& found = reinterpret_cast<Library*>(module)->second;
            const auto entry = found.find(name);
            return entry != found.end() ? reinterpret_cast<FARPROC>(entry->second) : nullptr;
        };
        return platform;
    }
};
