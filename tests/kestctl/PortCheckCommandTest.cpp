// kestctl port check and port test: printers that accept connections or refuse them, and a search
// that finds one of them elsewhere.
#include <gmock/gmock.h>

#include <filesystem>

#include "admin/ports/PortSettings.h"
#include "mdns/Browser.h"
#include "tests/kestctl/CommandLine.h"
#include "tests/support/FakeSlp.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SocketsStarted.h"
#include "tests/support/TcpPeer.h"

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

// Linked in the place of the search by DNS-SD, which sends to the network.
mdns::SearchResult mdns::FindPrinters(const std::function<bool()>&) {
    return {};
}

namespace {

class PortCheckCommand : public testing::Test {
  protected:
    PortCheckCommand() {
        // The search reads the file beside it; any library will do.
        fs::copy_file(BUILT "/slp64.dll", folder_ / "kestmon.dll",
                      fs::copy_options::overwrite_existing);
        fs::copy_file(BUILT "/SLPConf.xml", folder_ / "SLPConf.xml",
                      fs::copy_options::overwrite_existing);
        slp.reportsAtOnce = true;
        slp.answers = {"(ip-address=127.0.0.1),(mac-address=000400000001),(host-name=prn-1)",
                       "(ip-address=10.1.2.3),(mac-address=000400000002),(host-name=prn-2)"};
        Add(L"HERE", peer_.port, "000400000001");
        Add(L"MOVED", refusing_.number, "000400000002");
        monitor.ports[L"NEW"] = {};
    }
    ~PortCheckCommand() override {
        fs::remove(folder_ / "kestmon.dll");
        fs::remove(folder_ / "SLPConf.xml");
    }

    void Add(const wchar_t* name, DWORD port, const char* mac) {
        PortChange change;
        change.address = "127.0.0.1";
        change.portNumber = port;
        change.mac = mac;
        monitor.ports[name] = {};
        Apply(change, monitor.ports[name]);
        monitor.ports[name].extended.dwAlwaysPrint = 1;
    }

    // What `kestctl port ARGUMENT...` prints, with what it fails with.
    std::string Run(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "port");
        const std::string failure = Failure(monitor, arguments);
        return monitor.printed + failure;
    }
    // The document that it prints.
    nlohmann::json Document(std::vector<std::string> arguments) {
        arguments.emplace_back("--json");
        Run(arguments);
        return nlohmann::json::parse(monitor.printed);
    }

    FakeMonitor monitor;
    FakeSlp slp;

  private:
    static fs::path System() {
        wchar_t folder[MAX_PATH];
        return std::wstring(folder, GetSystemDirectoryW(folder, MAX_PATH));
    }

    const LogCapture log_;
    const SocketsStarted sockets_;
    TcpPeer peer_{[](PeerConnection&) {}};
    RefusingPort refusing_;
    const fs::path folder_ = System();
};

TEST_F(PortCheckCommand, ACheckReportsEachPortAndNamesTheRepair) {
    EXPECT_THAT(
        Run({"check", "*"}),
        AllOf(
            testing::ContainsRegex("HERE +127.0.0.1:\\d+ +ok +-"),
            testing::ContainsRegex("MOVED +127.0.0.1:\\d+ +moved +found at 10.1.2.3"),
            testing::ContainsRegex("NEW +- +not configured +-"),
            HasSubstr("3 ports: 1 ok, 1 moved, 1 not configured\n"),
            HasSubstr("2 ports did not pass the check. `kestctl port check * --repair` changes")));
    EXPECT_THAT(Run({"check", "HERE"}), Not(HasSubstr("did not pass")));
    EXPECT_THAT(Run({"check", "NEW"}), Not(HasSubstr("--repair"))) << "nothing to repair";
    const auto document = Document({"check"});
    ASSERT_EQ(document.size(), 3u);
    EXPECT_EQ(document[0]["state"], "ok");
    EXPECT_EQ(document[0]["hostName"], "prn-1");
    EXPECT_EQ(document[1]["name"], "MOVED");
    EXPECT_EQ(document[1]["found"], "10.1.2.3");
    EXPECT_EQ(document[1]["repaired"], false);
    EXPECT_FALSE(document[1].contains("dryRun") || document[1].contains("error"));
    monitor.ports.clear();
    EXPECT_EQ(Run({"check"}), "There are no ports. Add one with `kestctl port add`\n");
    EXPECT_EQ(Document({"check"}), nlohmann::json::array());
}

TEST_F(PortCheckCommand, ARepairReportsWhatItChangedAndWhatItCouldNot) {
    const auto before = monitor.ports;
    EXPECT_THAT(Run({"check", "--repair", "--dry-run"}), HasSubstr("would send to 10.1.2.3"));
    EXPECT_EQ(Document({"check", "MOVED", "--repair", "--dry-run"})[0]["dryRun"], true);
    EXPECT_EQ(AddressInUse(monitor.ports[L"MOVED"]), "127.0.0.1");

    monitor.failing[L"ConfigurePort"] = ERROR_ACCESS_DENIED;
    EXPECT_THAT(Run({"check", "MOVED", "--repair"}),
                AllOf(HasSubstr("found at 10.1.2.3; not repaired: "), HasSubstr("(5)"),
                      HasSubstr("1 port did not pass the check"), Not(HasSubstr("repair`"))));
    EXPECT_THAT(Document({"check", "MOVED", "--repair"})[0]["error"].get<std::string>(),
                HasSubstr("(5)"));
    monitor.failing.clear();
    monitor.ports = before;
    EXPECT_THAT(Run({"check", "MOVED", "--repair"}),
                AllOf(HasSubstr("now sends to 10.1.2.3"), HasSubstr("1 moved; 1 repaired"),
                      Not(HasSubstr("did not pass"))));
    EXPECT_EQ(AddressInUse(monitor.ports[L"MOVED"]), "10.1.2.3");
    EXPECT_EQ(FieldText(monitor.ports[L"MOVED"].extended.sztHWAddress), "000400000002");
}

TEST_F(PortCheckCommand, ATestReportsTheConnectionAndWhoAnswers) {
    slp.answers = {"(ip-address=127.0.0.1),(mac-address=000400000001),(host-name=prn-1)"};
    EXPECT_THAT(Run({"test", "HERE"}),
                AllOf(testing::ContainsRegex("port HERE: 127.0.0.1:\\d+ accepts connections, "
                                             "after \\d+ ms\n"
                                             "printer there: 000400000001, prn-1\n$")));
    EXPECT_THAT(Run({"test", "*"}),
                AllOf(HasSubstr("accepts no connection, after "), HasSubstr("ms: refuses"),
                      HasSubstr("port NEW: not configured\n"),
                      HasSubstr("port MOVED: unreachable; port NEW: not configured")));
    EXPECT_EQ(Document({"test", "HERE"})["mac"], "000400000001") << "one name, one object";
    EXPECT_EQ(Document({"test", "H*"}).size(), 1u);

    slp.answers = {"(ip-address=127.0.0.1),(mac-address=0004000000FF)"};
    EXPECT_THAT(Run({"test", "HERE"}),
                HasSubstr("printer there: 0004000000FF, not the port's printer\n"
                          "port HERE: another printer"));
    slp.answers.clear();
    EXPECT_THAT(Run({"test", "HERE"}),
                HasSubstr("printer there: unknown, it does not say who it is\n"));
    slp.answers = {"(ip-address=127.0.0.1)"};
    EXPECT_THAT(Run({"test", "HERE"}),
                HasSubstr("unknown, it announces neither MAC address nor host name"));
    slp.answers = {"(ip-address=127.0.0.1),(host-name=prn-1)"};
    EXPECT_THAT(Run({"test", "HERE"}),
                AllOf(HasSubstr("not recognised: the printer announces only prn-1"),
                      HasSubstr("port HERE: not recognised")));
    monitor.ports[L"HERE"].extended.sztHWAddress[0] = L'\0';
    EXPECT_THAT(Run({"test", "HERE"}), HasSubstr("port HERE: cannot follow"));
}

}  // namespace
