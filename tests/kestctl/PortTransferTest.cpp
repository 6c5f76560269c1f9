#include <gmock/gmock.h>

#include "base/Handles.h"
#include "tests/kestctl/CommandLine.h"
#include "tests/support/TempFile.h"
#include "kestctl/Interruption.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

// Ports that use what a port can have; one was never configured.
FakeMonitor Ports() {
    FakeMonitor monitor;
    Kestctl(monitor, {"port", "add", "B\u00fcro; 1", "--address", "10.0.0.1", "--mac",
                      "0004004A1B2C", "--host-name", "=cmd|x", "--always-print", "--snmp", "pub"});
    Kestctl(monitor, {"port", "add", "LAGER", "--ipv6", "fd00::2", "--protocol", "lpr",
                      "--double-spool", "--queue", "q", "--port", "1515"});
    Kestctl(monitor, {"port", "set", "LAGER", "--address", "10.0.0.2", "--protocol", "raw"});
    Kestctl(monitor,
            {"port", "set", "LAGER", "--ipv6", "fd00::3", "--snmp", "x", "--snmp-index", "7"});
    Kestctl(monitor, {"port", "set", "LAGER", "--no-snmp"});
    return monitor;
}

TEST(PortTransfer, WhatIsExportedIsImportedAndTwiceChangesNothing) {
    for (const char* extension : {".json", ".csv"}) {
        FakeMonitor monitor = Ports();
        monitor.ports[L"NEVER CONFIGURED"] = {};
        const TempFile file(extension, "");
        EXPECT_THAT(Failure(monitor, {"port", "export", file.Name()}), HasSubstr("--force"));
        Kestctl(monitor, {"port", "export", file.Name(), "--force"});
        FakeMonitor other;
        EXPECT_THAT(Kestctl(other, {"port", "import", file.Name(), "--dry-run"}),
                    AllOf(HasSubstr("would be added"), HasSubstr("Dry run")));
        EXPECT_THAT(other.ports, IsEmpty());
        Kestctl(other, {"port", "import", file.Name()});
        EXPECT_EQ(Kestctl(other, {"port", "list"}), Kestctl(monitor, {"port", "list"}));
        EXPECT_EQ(Kestctl(other, {"port", "show", "b*", "--json"}),
                  Kestctl(monitor, {"port", "show", "b*", "--json"}));
        EXPECT_THAT(Kestctl(other, {"port", "import", file.Name()}),
                    HasSubstr("0 changed, " + std::to_string(other.ports.size()) + " unchanged"));
    }
}

TEST(PortTransfer, SpreadsheetsHaveTheirWays) {
    FakeMonitor monitor;
    Kestctl(monitor, {"port", "add", "OFFICE", "--address", "10.0.0.1", "--mac", "0004004A1B2C"});
    const TempFile file(".csv",
                        "\xEF\xBB\xBFName;ADDRESS;mac;alwaysprint;queue;protocol;; \r\n"
                        "office ;10.0.0.1;00:04:00:4a:1b:2c\r\n"
                        ";;;;;;;;;\r\n"
                        "\"LAB \"\"A\"\"; 2\";10.0.0.2;00-04-00-4A-1B-2D;TRUE;lp2;lpr;;;;");
    EXPECT_THAT(Kestctl(monitor, {"port", "import", file.Name()}),
                AllOf(HasSubstr("port LAB \"A\"; 2 added: lpr to 10.0.0.2:515, queue lp2"),
                      HasSubstr("1 added, 0 changed, 1 unchanged")));
    // Only --replace changes what is there, and what the file does not have stays.
    file.Write("name,address\nOffice,10.0.0.9\n");
    EXPECT_THAT(Failure(monitor, {"port", "import", file.Name()}),
                HasSubstr("(address: 10.0.0.1 -> 10.0.0.9). --replace"));
    EXPECT_THAT(Kestctl(monitor, {"port", "import", file.Name(), "--replace"}),
                HasSubstr("port OFFICE changed: address: 10.0.0.1 -> 10.0.0.9"));
    EXPECT_EQ(FieldText(monitor.ports[L"OFFICE"].extended.sztHWAddress), "0004004A1B2C");
}

TEST(PortTransfer, AnySeparatorAndLetterCase) {
    for (const std::string separator : {",", ";", "\t"}) {
        for (const std::string& declared : {std::string(), "sep=" + separator + "\r\n"}) {
            std::string text = "name|address|protocol|hostName\r\nA| 10.0.0.1|LPR|x\r\nB|";
            std::replace(text.begin(), text.end(), '|', separator[0]);
            const TempFile file(".csv", declared + text);
            FakeMonitor monitor;
            EXPECT_THAT(Failure(monitor, {"port", "import", file.Name()}),
                        HasSubstr(declared.empty() ? "line 3: address" : "line 4: address"));
            file.Write(declared + text.substr(0, text.size() - 2));
            Kestctl(monitor, {"port", "import", file.Name()});
            EXPECT_EQ(Destination(monitor.ports[L"A"]), "lpr to 10.0.0.1:515, queue lp");
        }
    }
    // The declared separator decides, whatever else the heading has.
    const TempFile file(".csv", "sep=,\nname,address,hostName\nA,10.0.0.1,a;b\n");
    FakeMonitor monitor;
    Kestctl(monitor, {"port", "import", file.Name()});
    EXPECT_EQ(FieldText(monitor.ports[L"A"].standard.sztHostAddress), "a;b");
    EXPECT_THAT(Failure(monitor, {"port", "import", file.Name() + ".none"}),
                HasSubstr("cannot be read: File not found (2)"));
}

TEST(PortTransfer, HostNamesAreResolvedAndPrintersAskedForTheirIdentity) {
    FakeMonitor monitor;
    monitor.printers = {{"localhost", {"127.0.0.1", "000400000001", "prn-1"}},
                        {"10.0.0.2", {"10.0.0.2", "000400000002", ""}},
                        {"printer.example", {"fd00::3", "", "prn-3"}}};
    Kestctl(monitor, {"port", "add", "OLD", "--address", "10.0.0.2", "--mac", "0004000000FF"});
    const TempFile file(".csv",
                        "name,address,Follow,mac,alwaysPrint\n"
                        "A,localhost,YES,0004000000AA,no\nB,localhost,no,,\n"
                        "OLD,,yes,,\nC,,printer.example,,\n");
    Kestctl(monitor, {"port", "import", file.Name(), "--replace"});
    const struct {
        const wchar_t* name;
        const char* address;
        const char* mac;
        const char* hostName;
        DWORD alwaysPrint;
    } ports[] = {{L"A", "127.0.0.1", "000400000001", "prn-1", 1},
                 {L"B", "127.0.0.1", "", "", 0},
                 {L"OLD", "10.0.0.2", "000400000002", "", 1},
                 {L"C", "fd00::3", "", "prn-3", 1}};
    for (const auto& port : ports) {
        const PortRecords& records = monitor.ports[port.name];
        EXPECT_EQ(AddressInUse(records), port.address) << port.name;
        EXPECT_EQ(FieldText(records.extended.sztHWAddress), port.mac) << port.name;
        EXPECT_EQ(FieldText(records.standard.sztHostAddress), port.hostName) << port.name;
        EXPECT_EQ(records.extended.dwAlwaysPrint, port.alwaysPrint) << port.name;
    }
    // All or none, and every printer that does not answer is reported.
    file.Write("name,address,follow\nD,10.0.0.8,yes\nE,10.0.0.2,yes\nF,10.0.0.9,1\n");
    EXPECT_THAT(Failure(monitor, {"port", "import", file.Name()}),
                AllOf(HasSubstr("line 2: no answer"), HasSubstr("line 4: no answer"),
                      Not(HasSubstr("line 3"))));
    file.Write("name,address,follow\nD,,yes\nE,1.2.3,\nF,10.0.0.2,a b\n");
    EXPECT_THAT(Failure(monitor, {"port", "import", file.Name()}),
                AllOf(HasSubstr("line 2: follow needs an address"), HasSubstr("line 3: address"),
                      HasSubstr("line 4: follow is 'a b'")));
    EXPECT_EQ(monitor.ports.size(), 4u);
}

TEST(PortTransfer, AllThatIsWrongIsToldAndNothingDone) {
    const struct {
        const char* text;
        std::vector<const char*> told;
    } cases[] = {
        {"name,adress\nA,10.0.0.1\n",
         {"line 1: unknown setting 'adress'; the settings are follow, name, ", "line 2: address"}},
        {"name,address,portNumber,doubleSpool,hostName\nA,10.0.0.1,0,maybe\n,10.0.0.2\n"
         "a,10.0.0.3\nB,10.0.0\nC\\,10.0.0.1\nD,10.0.0.1,,yes\nE,1,2,3,4,5\nF,\"10\nG,10.0.0.1,,,"
         "\xE4\n",
         {"line 2: portNumber", "line 2: doubleSpool is 'maybe'", "line 3: name is missing",
          "line 4: port a is already in line 2", "line 5: address '10.0.0'", "line 6: name must",
          "line 7: doubleSpool belongs to LPR", "line 8: the row has more cells",
          "line 9: a quoted cell", "line 10: hostName is not UTF-8"}},
        {"[\n {\"name\": \"A\", \"address\": \"10.0.0.1\", \"port\": 9100},\n {\"name\": "
         "\"OFFICE\",\n"
         "  \"address\": \"10.0.0.1\", \"hostName\": \"\", \"mac\": [1]}, 7]",
         {"line 2: unknown setting 'port'", "line 4: not the settings of a port",
          "line 3: hostName is empty"}},
        {"[{\"name\": \"A\",\n\"address\" \"10.0.0.1\"}]", {"line 2, column"}},
        {"name,address,\x1b[2J\nlpt1:,10.0.0.1\n",
         {"setting '?[2J'", "line 2: the name lpt1: belongs to a port of another monitor"}},
        {"", {"is empty"}},
        {"\xFF\xFEn\0a", {"UTF-8"}},
    };
    for (const auto& c : cases) {
        FakeMonitor monitor;
        monitor.otherPorts = {L"LPT1:"};
        Kestctl(monitor,
                {"port", "add", "OFFICE", "--address", "10.0.0.1", "--host-name", "prn-1"});
        const std::string text = c.text[0] == '\xFF' ? std::string(c.text, 5) : c.text;
        const TempFile file("", text);
        const std::string failure =
            Failure(monitor, {"port", "import", file.Name(), "--replace", "--dry-run"});
        for (const char* told : c.told) {
            EXPECT_THAT(failure, HasSubstr(told));
        }
        EXPECT_EQ(monitor.ports.size(), 1u);
    }
}

// Whatever JSON can carry.
TEST(PortTransfer, ValuesSurviveASpreadsheetsFile) {
    FakeMonitor monitor;
    for (const std::string name :
         {"=1+1", "'=1+1", "''-", "'quoted'", "-", "a;b", "\"", "\"a\" \"b\"",
          "a'=", "@B\u00fcro \u20ac", "none of it", "yes"}) {
        Kestctl(monitor, {"port", "add", name, "--address", "10.0.0.1", "--host-name", " " + name});
        Kestctl(monitor,
                {"port", "add", name + "2", "--ipv6", "fd00::1", "--host-name", name + " "});
    }
    Kestctl(monitor, {"port", "add", "list", "--address", "10.0.0.1", "--host-name", "a,b"});
    for (const char* extension : {".json", ".csv"}) {
        const TempFile file(extension);
        Kestctl(monitor, {"port", "export", file.Name()});
        FakeMonitor other;
        Kestctl(other, {"port", "import", file.Name()});
        EXPECT_EQ(Kestctl(other, {"port", "export"}), Kestctl(monitor, {"port", "export"}));
    }
}

TEST(PortTransfer, MessagesAreShortAndNameTheirSource) {
    FakeMonitor monitor;
    const std::string huge(100000, 'x');
    const TempFile input(".in", "name,address," + huge + "\nA," + huge + "\n");
    const UniqueFile opened(CreateFileW(Utf8ToWide(input.Name()).c_str(), GENERIC_READ,
                                        FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    const HANDLE before = GetStdHandle(STD_INPUT_HANDLE);
    SetStdHandle(STD_INPUT_HANDLE, opened.Get());
    const std::string failure = Failure(monitor, {"port", "import", "-"});
    SetStdHandle(STD_INPUT_HANDLE, before);
    EXPECT_THAT(failure, AllOf(HasSubstr("standard input: nothing was changed"),
                               HasSubstr("line 1: unknown setting 'xxx"),
                               HasSubstr("line 2: address is too long")));
    const TempFile file("", "[{\"name\": \"" + huge + "\xFF");
    EXPECT_LT(Failure(monitor, {"port", "import", file.Name()}).size(), 500u);
}

TEST(PortTransfer, AFailureTakesTheOthersBack) {
    FakeMonitor monitor;
    Kestctl(monitor, {"port", "add", "A", "--address", "10.0.0.1"});
    const TempFile file("", "name,address\nA,10.0.0.9\nB,10.0.0.2\nC,10.0.0.3\n");
    const std::vector<std::string> import = {"port", "import", file.Name(), "--replace"};
    monitor.refused = L"C";
    EXPECT_THAT(Failure(monitor, import),
                AllOf(HasSubstr("port C cannot be added"),
                      HasSubstr("the changes of the other ports were undone")));
    EXPECT_EQ(monitor.ports.size(), 1u);
    EXPECT_EQ(AddressInUse(monitor.ports[L"A"]), "10.0.0.1");
    monitor.failing[L"DeletePort"] = ERROR_ACCESS_DENIED;
    EXPECT_THAT(Failure(monitor, import),
                AllOf(HasSubstr("undone: B"), Not(HasSubstr("undone: B, A"))));
}

TEST(PortTransfer, ARollbackThatFailsIsReported) {
    FakeMonitor monitor;
    Kestctl(monitor, {"port", "add", "A", "--address", "10.0.0.1"});
    monitor.failing[L"SetConfigExData"] = ERROR_ACCESS_DENIED;
    const TempFile file("", "name,address,configured,follow\nA,10.0.0.9,,\n");
    EXPECT_THAT(Failure(monitor, {"port", "import", file.Name(), "--replace"}),
                AllOf(HasSubstr("the previous settings could not be restored"),
                      Not(HasSubstr("all changes were undone"))));
    file.Write("name,address,configured,follow\nB,10.0.0.2,no,yes\n");
    EXPECT_THAT(Failure(monitor, {"port", "import", file.Name()}),
                HasSubstr("line 2: follow is not possible for a port that is not configured"));
}

// The last one: the process keeps the Ctrl-C.
TEST(PortTransfer, CtrlCTakesAllBack) {
    FakeMonitor monitor;
    Kestctl(monitor, {"port", "add", "A", "--address", "10.0.0.1"});
    const TempFile file("", "name,address\nA,10.0.0.9\nB,10.0.0.2\nC,10.0.0.3\n");
    monitor.added = [] { Interruption::Note(CTRL_C_EVENT); };
    EXPECT_THROW(Kestctl(monitor, {"port", "import", file.Name(), "--replace"}), Interrupted);
    EXPECT_EQ(monitor.ports.size(), 1u);
    EXPECT_EQ(AddressInUse(monitor.ports[L"A"]), "10.0.0.1");
}

}  // namespace
