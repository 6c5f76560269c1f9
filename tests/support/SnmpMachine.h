// The machine that a test of SNMP runs on: the process's Network with addresses and pings of the
// test's own, and what the substitute WinSNMP library and its printers have seen.
#pragma once

#include <winsock2.h>
#include <windows.h>
#include <iphlpapi.h>
#include <icmpapi.h>

#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "net/Network.h"
#include "tests/support/ImportPatch.h"
#include "tests/support/LogCapture.h"

extern "C" int NotGivenBack();
extern "C" const char* RequestsSeen();

class SnmpMachine {
  public:
    // Makes the process's Network; it is started unless told otherwise.
    explicit SnmpMachine(bool start = true) {
        const ImportPatch patch(GetModuleHandleW(nullptr), "GetProcAddress", Find);
        MakeNetwork(start);
        pinged.clear();
        answering.clear();
    }

    static inline std::vector<std::string> pinged;
    static inline std::set<std::string> answering;  // to pings

    // One line for each request that the printers have seen.
    static std::vector<std::string> Requests() {
        std::istringstream seen(RequestsSeen());
        std::vector<std::string> lines;
        for (std::string line; std::getline(seen, line);) {
            lines.push_back(line);
        }
        return lines;
    }

  private:
    // By itself: what is imported is a constant to the compiler, in each function.
    [[gnu::noinline]] static void MakeNetwork(bool start) {
        Network& network = Network::GetInstance();
        if (start) {
            network.Start();
        }
    }

    // The first is not used, and nothing can be sent from the second.
    static constexpr const char* kAddresses[] = {"127.0.0.1", "198.51.100.1", "10.0.0.1"};
    // Not ::GetProcAddress, which goes through the import that is replaced.
    static inline const auto realFind = reinterpret_cast<decltype(&::GetProcAddress)>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32"), "GetProcAddress")));

    static FARPROC WINAPI Find(HMODULE module, LPCSTR name) {
        const auto is = [name](const char* wanted) { return strcmp(name, wanted) == 0; };
        void* mine = is("GetIpAddrTable")      ? reinterpret_cast<void*>(Addresses)
                     : is("GetIpForwardTable") ? reinterpret_cast<void*>(Routes)
                     : is("IcmpSendEcho2")     ? reinterpret_cast<void*>(Echo)
                                               : nullptr;
        return mine != nullptr ? reinterpret_cast<FARPROC>(mine) : realFind(module, name);
    }

    static DWORD WINAPI Addresses(MIB_IPADDRTABLE* table, ULONG* size, BOOL) {
        constexpr ULONG kSize = sizeof(DWORD) + 3 * sizeof(MIB_IPADDRROW);
        if (*size < kSize) {
            *size = kSize;
            return ERROR_INSUFFICIENT_BUFFER;
        }
        table->dwNumEntries = 3;
        for (int i = 0; i < 3; ++i) {
            table->table[i] = {};
            table->table[i].dwAddr = inet_addr(kAddresses[i]);
            table->table[i].dwMask = inet_addr("255.0.0.0");
        }
        return NO_ERROR;
    }
    static DWORD WINAPI Routes(MIB_IPFORWARDTABLE* table, ULONG* size, BOOL) {
        if (*size < sizeof *table) {
            *size = sizeof *table;
            return ERROR_INSUFFICIENT_BUFFER;
        }
        *table = {};
        return NO_ERROR;
    }
    static DWORD WINAPI Echo(HANDLE, HANDLE, void*, void*, IPAddr to, void*, WORD size, void*,
                             void* buffer, DWORD, DWORD) {
        in_addr address = {};
        address.s_addr = to;
        pinged.emplace_back(inet_ntoa(address));
        auto* reply = static_cast<ICMP_ECHO_REPLY*>(buffer);
        reply->Status = 0;
        reply->DataSize = size;
        return answering.count(pinged.back()) != 0 ? 1 : 0;
    }
};
