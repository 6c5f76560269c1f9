// The machine's network as the process sees it: names, reachability, the addresses of its own.
#pragma once

#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <iphlpapi.h>

#include <cstddef>
#include <string>
#include <vector>

#include "address/IPAddress.h"
#include "net/InterfaceTables.h"
#include "net/Singleton.h"

// What Network asks of the platform.
struct NetworkPlatform {
    decltype(&::LoadLibraryA) loadLibrary = ::LoadLibraryA;
    decltype(&::FreeLibrary) freeLibrary = ::FreeLibrary;
    decltype(&::GetProcAddress) getProcAddress = ::GetProcAddress;
    decltype(&::WSAStartup) startSockets = ::WSAStartup;
    decltype(&::WSAEnumProtocolsA) enumProtocols = ::WSAEnumProtocolsA;
    decltype(&::gethostname) getHostName = ::gethostname;
    decltype(&::getaddrinfo) getAddrInfo = ::getaddrinfo;
    decltype(&::freeaddrinfo) freeAddrInfo = ::freeaddrinfo;
    decltype(&::WSAAddressToStringA) addressToString = ::WSAAddressToStringA;
};

// One for the process, by Singleton<Network>::GetInstance(). Start runs once, before the object is
// used by several threads; after that resolution, protocol queries and probes may run on any
// number of them. Name resolution needs Windows Sockets started but not Start. Every outcome is
// logged.
class Network : public Singleton<Network> {
  public:
    virtual ~Network();

    // Loads the libraries, opens the ICMP handles, starts Windows Sockets and reads the interface
    // tables. Returns 0, or 8 when Windows Sockets cannot be started. Missing entries and
    // unreadable tables are no failure: what needs them does not work, or is empty. A second call
    // finds everything there and changes nothing.
    int Start();

    // The entry `name` of the IP helper library or, failing that, of the ICMP library; null when
    // there is none, and before Start.
    void* GetProc(const std::string& name) const;

    // Looks for a provider of an address family (AF_INET, AF_INET6, ...) in the Windows Sockets
    // catalog. Returns 0 when there is one, 11 when there is none, 1 when the catalog cannot
    // be read.
    int FindProtocol(int family) const;

    // Whether the machine speaks the protocol. Both return what FindProtocol does.
    //   supported: true exactly when the result is 0.
    int IsIPv4Supported(bool& supported) const;
    int IsIPv6Supported(bool& supported) const;

    // Resolves a name in one address family; the first address found is the result. An empty name
    // is the local computer's.
    //   result: receives the address; unchanged on failure.
    // Returns 0, or 1 when there is no such name or address.
    int GetIpAddrFromHostName(const std::string& hostName, IPAddress& result, bool ipv6) const;

    // Resolves a name, as an IPv4 address if there is one, else as an IPv6 address.
    // Returns 0, or what the last attempt returned: 1 not resolved, 11 no such protocol here.
    int GetIpAddress(const std::string& hostName, IPAddress& result) const;

    // Sends one ICMP echo request (RFC 792, RFC 4443) and waits at most 5 s for the answer. Needs
    // Start. None of them throws.
    // Returns 0 when the address answered, 1 when it did not or could not be asked, 3 when it is
    // invalid.
    int Ping(const IPAddress& address) const;
    int PingV4(const IPAddress& address) const;
    // An address without a scope gets one by SetV6Scope, which stays in its socket address: two
    // threads must not probe the same object at once.
    int Ping6(const IPAddress& address) const;

    // The machine's IPv4 addresses as they were at Start, a copy of the platform's table; null
    // before Start, and when the tables could not be read.
    const MIB_IPADDRTABLE* GetAddressTable() const;

    // The text of the i-th usable address, null when there are fewer. At most kMaxLocalAddresses.
    const char* GetLocalAddress(int i) const;

    // All usable addresses, joined by ","; null as GetAddressTable.
    const char* GetAddressList() const;

    // Every row of the address table, with the reason if it is not usable.
    const std::vector<JudgedAddress>& GetJudgedAddresses() const { return judgedAddresses_; }

    // The number of network interfaces, 0 when unknown.
    DWORD GetNumInterfaces() const { return numInterfaces_; }

  protected:
    Network() : Network(NetworkPlatform()) {}
    explicit Network(const NetworkPlatform& platform);

  private:
    friend class Singleton<Network>;

    template <class Function>
    Function Entry(const char* name) const {
        return reinterpret_cast<Function>(GetProc(name));
    }
    void OpenIcmpHandles();
    void ReadInterfaceTables();

    NetworkPlatform platform_;
    HMODULE icmpModule_ = nullptr;
    HMODULE ipHelperModule_ = nullptr;
    HANDLE icmpHandle_ = nullptr;   // null when unavailable
    HANDLE icmp6Handle_ = nullptr;  // null when unavailable
    bool started_ = false;
    DWORD numInterfaces_ = 0;
    std::vector<std::byte> addressTable_;
    std::vector<JudgedAddress> judgedAddresses_;
    std::vector<std::string> localAddresses_;
    std::string addressList_;
};

// Finds a scope identifier for an address without one, by binding a socket to the address with
// one after the other, 0 to 254.
//   address: receives the identifier that worked, or the last one tried.
// Returns 0 when a bind succeeded, -1 when none did or there is no IPv6 socket.
int SetV6Scope(sockaddr_in6* address);
