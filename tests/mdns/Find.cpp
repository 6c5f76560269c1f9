// Searches for printers and prints them, one field per line, as the scripts of this folder compare
// them. Ends with 1 if no interface has sent the query.
#include <chrono>
#include <iostream>

#include "mdns/Browser.h"

int main() {
    const auto begin = std::chrono::steady_clock::now();
    const mdns::SearchResult result = mdns::FindPrinters([] { return true; });
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    for (const mdns::Printer& printer : result.printers) {
        std::cout << printer.host << ";instance=" << printer.instance << ";model=" << printer.model
                  << ";url=" << printer.adminUrl << ";uuid=" << printer.uuid;
        for (const std::string& address : printer.addresses) {
            std::cout << ";" << address;
        }
        for (const mdns::Service& service : printer.services) {
            constexpr const char* kNames[] = {"raw", "lpr", "ipp", "ipps"};
            std::cout << ";" << kNames[static_cast<int>(service.protocol)] << ":" << service.port
                      << ":" << service.queue;
        }
        std::cout << "\n";
    }
    std::cerr << result.printers.size() << " printers in " << took.count() << " s\n";
    return result.sent ? 0 : 1;
}
