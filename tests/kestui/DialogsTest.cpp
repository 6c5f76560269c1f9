// The dialogs on a screen. A second thread operates their controls as a user does.
#include <gmock/gmock.h>

#include <windows.h>
#include <commctrl.h>
#include <winspool.h>
#include <winsplp.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <set>

#include "base/Text.h"
#include "tests/kestui/Scene.h"
#include "tests/support/SocketsStarted.h"
#include "tests/support/TcpPeer.h"
#include "kestui/MonitorUI.h"
#include "kestui/DialogIds.h"
#include "kestui/Texts.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

const Texts kEnglish(MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US));

bool Eventually(const std::function<bool()>& holds) {
    for (int i = 0; i < 1000; ++i) {
        if (holds()) {
            return true;
        }
        Sleep(5);
    }
    return false;
}

// The user of the dialog that a thread shows.
class User {
  public:
    explicit User(DWORD thread) : thread_(thread) {}

    // Returns the window that takes input: a message box if there is one, otherwise the dialog.
    HWND Window() const {
        std::vector<HWND> windows;
        EnumThreadWindows(
            thread_,
            [](HWND window, LPARAM list) -> BOOL {
                WCHAR name[32] = {};
                GetClassNameW(window, name, 32);
                if (IsWindowVisible(window) && IsWindowEnabled(window) &&
                    std::wstring(name) == L"#32770") {
                    reinterpret_cast<std::vector<HWND>*>(list)->push_back(window);
                }
                return TRUE;
            },
            reinterpret_cast<LPARAM>(&windows));
        return windows.empty() ? nullptr : windows.front();
    }
    HWND Control(UINT id) const { return GetDlgItem(Window(), static_cast<int>(id)); }
    std::wstring Text(UINT id) const {
        WCHAR text[1024] = {};
        SendMessageW(Control(id), WM_GETTEXT, 1024, reinterpret_cast<LPARAM>(text));
        return text;
    }
    bool Enabled(UINT id) const { return IsWindowEnabled(Control(id)) != FALSE; }
    bool Checked(UINT id) const {
        return SendMessageW(Control(id), BM_GETCHECK, 0, 0) == BST_CHECKED;
    }
    void Type(UINT id, const std::wstring& text) const {
        SendMessageW(Window(), WM_NEXTDLGCTL, reinterpret_cast<WPARAM>(Control(id)), TRUE);
        SendMessageW(Control(id), EM_SETSEL, 0, -1);
        SendMessageW(Control(id), EM_REPLACESEL, TRUE, reinterpret_cast<LPARAM>(text.c_str()));
    }
    void Click(UINT id) const {
        ASSERT_TRUE(Eventually([&] { return Enabled(id); })) << id;
        SendMessageW(Control(id), BM_CLICK, 0, 0);
    }
    // Presses a button that can open a window, without waiting for it.
    void Press(UINT id) const { PostMessageW(Window(), WM_COMMAND, MAKEWPARAM(id, BN_CLICKED), 0); }
    void Pick(int row) const {
        const HWND list = Control(IDC_LIST);
        SetFocus(list);
        ListView_SetItemState(list, row, LVIS_SELECTED | LVIS_FOCUSED, LVIS_SELECTED);
    }
    void PickTheOnly() const {
        EXPECT_TRUE(Eventually([&] { return Rows() == 1; }));
        Pick(0);
    }
    int Rows() const { return ListView_GetItemCount(Control(IDC_LIST)); }
    void Await(UINT id, const std::wstring& part) const {
        EXPECT_TRUE(Eventually([&] { return Text(id).find(part) != std::wstring::npos; }))
            << id << " says " << WideToUtf8(Text(id)) << ", not " << WideToUtf8(part);
    }
    void AwaitProblem(UINT text) const { Await(IDC_PROBLEM, kEnglish(text)); }
    // Closes the message box with this text.
    void Dismiss(const std::string& part) const {
        EXPECT_TRUE(Eventually([&] { return MessageText().find(part) != std::string::npos; }))
            << MessageText() << " is not " << part;
        const HWND box = Window();
        PostMessageW(box, WM_COMMAND, IDOK, 0);
        EXPECT_TRUE(Eventually([&] { return !IsWindow(box); }));
    }
    std::string MessageText() const {
        // The identifier that Windows gives to the text of a message box.
        const HWND text = GetDlgItem(Window(), 0xFFFF);
        WCHAR shown[2048] = {};
        SendMessageW(text, WM_GETTEXT, 2048, reinterpret_cast<LPARAM>(shown));
        return text == nullptr ? "" : WideToUtf8(shown);
    }

  private:
    DWORD thread_;
};

class Dialogs : public testing::Test {
  protected:
    Dialogs() {
        owner_ = CreateWindowExW(0, L"STATIC", L"owner", WS_OVERLAPPEDWINDOW | WS_VISIBLE, 0, 0,
                                 300, 200, nullptr, nullptr, nullptr, nullptr);
    }
    ~Dialogs() override { DestroyWindow(owner_); }

    // Returns the last error of the call, ERROR_SUCCESS when it returned TRUE.
    DWORD Play(const std::function<BOOL()>& call, const std::function<void(const User&)>& act) {
        const User user(GetCurrentThreadId());
        std::thread person([&] {
            ASSERT_TRUE(Eventually([&] { return user.Window() != nullptr; }));
            EXPECT_FALSE(IsWindowEnabled(owner_));
            act(user);
        });
        const DWORD error = call() ? ERROR_SUCCESS : GetLastError();
        person.join();
        EXPECT_TRUE(IsWindowEnabled(owner_));
        EXPECT_EQ(user.Window(), nullptr);
        return error;
    }
    using Act = std::function<void(const User&)>;

    void Add(Scene& scene, DWORD outcome, const Act& act) {
        PWSTR name = nullptr;
        const auto call = [&] {
            return AddPortByDialog(scene.environment, scene.asked.c_str(), owner_, &name);
        };
        EXPECT_EQ(Play(call, act), outcome);
        EXPECT_EQ(name != nullptr, outcome == ERROR_SUCCESS);
        added_ = name != nullptr ? name : L"";
        GlobalFree(name);
    }
    void Open(decltype(&ConfigurePortByDialog) dialog, Scene& scene, DWORD outcome,
              const Act& act) {
        EXPECT_EQ(Play([&] { return dialog(scene.environment, nullptr, owner_, L"office"); }, act),
                  outcome);
    }
    void Configure(Scene& scene, DWORD outcome, const Act& act) {
        Open(ConfigurePortByDialog, scene, outcome, act);
    }
    void Delete(Scene& scene, DWORD outcome, const Act& act) {
        Open(DeletePortByDialog, scene, outcome, act);
    }

    static PortRecords Port(const char* address, const char* mac, const char* hostName) {
        PortRecords records;
        PortChange change;
        change.address = address;
        change.mac = mac;
        change.hostName = hostName;
        change.alwaysPrint = true;
        Apply(change, records);
        return records;
    }

    HWND owner_;
    std::wstring added_;
};

TEST_F(Dialogs, AddPortForSelectedPrinter) {
    Scene scene;
    scene.AddPrinters(12);
    scene.withoutAddress = 1;
    scene.asked = L"\\\\PRINTSERVER";
    scene.monitor.ports[L"PRN-12"] = {};
    scene.printers[5].name = "evil\r\n\xE2\x80\xAEtxt";
    Add(scene, ERROR_SUCCESS, [&](const User& user) {
        user.Await(IDC_STATUS, L"12 printers were found. 1 more printer did not");
        user.Await(IDC_STATUS, L"not on \\\\PRINTSERVER");
        EXPECT_EQ(user.Rows(), 12);
        EXPECT_FALSE(user.Enabled(IDC_FOLLOW));
        user.Type(IDC_FILTER, L"EVIL???TXT");
        EXPECT_EQ(user.Rows(), 1);
        user.Type(IDC_FILTER, L"prn");
        EXPECT_EQ(user.Rows(), 11);
        user.Pick(1);
        user.Await(IDC_ADDRESS, L"10.1.0.3");
        // Sorting by name compares numbers by value and keeps the selection.
        const HWND header = ListView_GetHeader(user.Control(IDC_LIST));
        RECT heading;
        Header_GetItemRect(header, 0, &heading);
        SendMessageW(header, WM_LBUTTONDOWN, 0, MAKELPARAM(20, heading.bottom / 2));
        SendMessageW(header, WM_LBUTTONUP, 0, MAKELPARAM(20, heading.bottom / 2));
        EXPECT_EQ(ListView_GetNextItem(user.Control(IDC_LIST), -1, LVNI_SELECTED), 9);
        user.Pick(0);
        user.Await(IDC_NAME, L"prn-12 (2)");
        user.Await(IDC_FOLLOW_NOTE, L"00:04:00:4A:01:BC");
        EXPECT_TRUE(user.Checked(IDC_FOLLOW));
        user.Press(IDC_ADD);
    });
    EXPECT_EQ(added_, L"prn-12 (2)");
    EXPECT_EQ(scene.server, scene.asked);
    EXPECT_TRUE(
        SameSettings(scene.monitor.ports[added_], Port("10.1.0.13", "0004004A01BC", "prn-12")));
}

TEST_F(Dialogs, AddPortForPrinterWithoutSlp) {
    Scene scene;
    scene.AddPrinters(2);
    scene.printers[0].identity.source = SearchSource::Both;
    scene.printers[1].identity = {
        "10.1.0.9", "", "quiet", SearchSource::DnsSd, {{"lpr", 1515, "q1"}, {"raw", 9100, ""}}};
    Add(scene, ERROR_SUCCESS, [&](const User& user) {
        user.Await(IDC_STATUS, L"2 printers were found");
        user.Type(IDC_FILTER, L"SLP, DNS-SD");
        EXPECT_EQ(user.Rows(), 1);
        user.Type(IDC_FILTER, L"dns-sd");
        EXPECT_EQ(user.Rows(), 2);
        user.Pick(1);
        user.Await(IDC_FOLLOW_NOTE, L"does not answer SLP. Jobs will not follow it");
        EXPECT_FALSE(user.Enabled(IDC_FOLLOW) || user.Checked(IDC_FOLLOW));
        user.Press(IDC_ADD);
    });
    const PortRecords& port = scene.monitor.ports[added_];
    EXPECT_EQ(Destination(port), "lpr to 10.1.0.9:1515, queue q1");
    EXPECT_EQ(port.extended.dwAlwaysPrint, 0u);
    EXPECT_EQ(FieldText(port.standard.sztHostAddress), "quiet");
}

// Types each value into a field and expects the same problem beside the field.
void ExpectRefused(const User& user, UINT field, const std::vector<const wchar_t*>& values,
                   UINT problem) {
    for (const wchar_t* value : values) {
        user.Type(field, value);
        user.Press(IDC_ADD);
        user.AwaitProblem(problem);
        RECT at, beside;
        GetWindowRect(user.Control(field), &at);
        GetWindowRect(user.Control(IDC_PROBLEM), &beside);
        EXPECT_LT(abs(at.top - beside.top), 8) << field;
    }
}

TEST_F(Dialogs, AddPortForTypedAddress) {
    Scene scene;
    scene.AddPrinters(1);
    scene.hosts["office.example"] = "10.1.0.2";
    scene.searchFails = "SLPConf.xml is missing";
    Add(scene, ERROR_SUCCESS, [&](const User& user) {
        user.Await(IDC_STATUS, L"SLPConf.xml is missing");
        const auto refused = [&user](UINT field, const std::vector<const wchar_t*>& values,
                                     UINT problem) { ExpectRefused(user, field, values, problem); };
        refused(IDC_ADDRESS, {L"", L"1.2.3", L"224.0.0.1", L"10.0.0.1:9100", L"a b", L"fd00::x"},
                IDS_BAD_ADDRESS);
        refused(IDC_ADDRESS, {L"nowhere.example"}, IDS_UNRESOLVED_HOST);
        // The lookup starts when the field loses the focus.
        user.Type(IDC_ADDRESS, L"10.9.9.9");
        user.Type(IDC_NAME, L"");
        user.Await(IDC_FOLLOW_NOTE, kEnglish(IDS_FOLLOW_UNIDENTIFIED));
        EXPECT_FALSE(user.Enabled(IDC_FOLLOW) || user.Checked(IDC_FOLLOW));
        user.Type(IDC_ADDRESS, L"office.example");
        user.Type(IDC_NAME, L"x");
        user.Await(IDC_FOLLOW_NOTE, L"prn-1");
        refused(IDC_NAME, {L"", L"a,b", L"a\\b", std::wstring(64, L'x').c_str()}, IDS_BAD_NAME);
        refused(IDC_NAME, {L"Ne01:"}, IDS_RESERVED_NAME);
        user.Type(IDC_NAME, L"OFFICE");
        EXPECT_FALSE(IsWindowVisible(user.Control(IDC_PORT)));
        user.Click(IDC_ADVANCED);
        user.Click(IDC_LPR);
        user.Await(IDC_PORT, L"515");
        refused(IDC_PORT, {L"", L"0", L"65536", L"99999999999"}, IDS_BAD_NUMBER);
        user.Type(IDC_PORT, L"516");
        refused(IDC_QUEUE, {L"", L"a b", L"\u00FC"}, IDS_BAD_WORD);
        user.Type(IDC_QUEUE, L"text");
        user.Click(IDC_SNMP);
        user.Click(IDC_ADVANCED);
        // A hidden field with a problem is shown.
        refused(IDC_COMMUNITY, {L"a b"}, IDS_BAD_WORD);
        EXPECT_TRUE(IsWindowVisible(user.Control(IDC_COMMUNITY)));
        user.Type(IDC_COMMUNITY, L"kest");
        refused(IDC_INDEX, {L"0"}, IDS_BAD_NUMBER);
        user.Type(IDC_INDEX, L"2");
        EXPECT_TRUE(scene.monitor.ports.empty());
        user.Press(IDC_ADD);
    });
    const PortRecords& port = scene.monitor.ports[L"OFFICE"];
    EXPECT_EQ(Destination(port), "lpr to 10.1.0.2:516, queue text");
    EXPECT_EQ(FieldText(port.standard.sztSNMPCommunity), "kest");
    EXPECT_EQ(port.standard.dwSNMPDevIndex, 2u);
    EXPECT_NE(port.extended.dwAlwaysPrint, 0u);
}

// A dialog that is canceled changes nothing, closes at once and leaves no job running.
TEST_F(Dialogs, CancelAtEachStep) {
    const std::pair<const char*, std::function<void(Scene&, const User&)>> steps[] = {
        {"searching",
         [](Scene& scene, const User&) {
             EXPECT_TRUE(Eventually([&] { return scene.running == 1; }));
         }},
        {"search begun once more", [](Scene&, const User& user) { user.Click(IDC_SEARCH); }},
        {"looking up",
         [](Scene& scene, const User& user) {
             scene.silent = true;
             user.Type(IDC_ADDRESS, L"10.1.0.9");
             user.Press(IDC_ADD);
             user.Await(IDC_FOLLOW_NOTE, kEnglish(IDS_FOLLOW_QUERYING));
         }},
    };
    for (const auto& [step, act] : steps) {
        Scene scene;
        scene.AddPrinters(200);
        scene.searchGoesOn = true;
        std::chrono::steady_clock::time_point closed;
        Add(scene, ERROR_CANCELLED, [&](const User& user) {
            act(scene, user);
            closed = std::chrono::steady_clock::now();
            user.Press(IDCANCEL);
        });
        EXPECT_LT(std::chrono::steady_clock::now() - closed, std::chrono::seconds(20)) << step;
        EXPECT_TRUE(scene.monitor.ports.empty()) << step;
        scene.silent = false;
        EXPECT_TRUE(Eventually([&] { return scene.running == 0; })) << step;
    }
}

TEST_F(Dialogs, CancelWhileAPortIsWrittenRollsBack) {
    for (const wchar_t* command : {L"AddPort", L"ConfigurePort", L"GetConfigExData"}) {
        Scene scene;
        scene.AddPrinters(1);
        scene.held = command;
        Add(scene, ERROR_CANCELLED, [&](const User& user) {
            user.PickTheOnly();
            user.Press(IDC_ADD);
            EXPECT_TRUE(Eventually([&] { return scene.waits.load(); }));
            SendMessageW(user.Window(), WM_COMMAND, IDCANCEL, 0);
            scene.release = true;
        });
        EXPECT_THAT(scene.monitor.ports, IsEmpty()) << command;
    }
}

TEST_F(Dialogs, FailuresAreShownAndRolledBack) {
    for (const wchar_t* step :
         {L"AddPort", L"ConfigurePort", L"SetConfigExData", L"GetConfigInfo"}) {
        Scene scene;
        scene.AddPrinters(1);
        scene.monitor.failing[step] = ERROR_ACCESS_DENIED;
        Add(scene, ERROR_CANCELLED, [&](const User& user) {
            user.PickTheOnly();
            user.Press(IDC_ADD);
            user.Dismiss("permission to manage the print server");
            EXPECT_TRUE(user.Enabled(IDC_ADD));
            user.Press(IDCANCEL);
        });
        EXPECT_THAT(scene.monitor.ports, IsEmpty()) << step;
    }
    Scene scene;
    scene.AddPrinters(1);
    scene.monitor.ports[L"office"] = Port("10.0.0.1", "000400000001", "prn");
    scene.monitor.failing[L"AddPort"] = ERROR_ALREADY_EXISTS;
    Add(scene, ERROR_CANCELLED, [&](const User& user) {
        for (const wchar_t* name : {L"OFFICE", L"LPT1:"}) {
            user.PickTheOnly();
            user.Type(IDC_NAME, name);
            user.Press(IDC_ADD);
            user.AwaitProblem(IDS_NAME_TAKEN);
        }
        user.Press(IDCANCEL);
    });
    // An account without rights sees the failure at once.
    scene.monitor.failing[L"MonitorUI"] = ERROR_ACCESS_DENIED;
    const auto dismiss = [](const User& user) { user.Dismiss("permission to manage"); };
    Add(scene, ERROR_CANCELLED, dismiss);
    Configure(scene, ERROR_CANCELLED, dismiss);
    Delete(scene, ERROR_CANCELLED, dismiss);
    EXPECT_FALSE(AddPortByDialog(scene.environment, nullptr, nullptr, nullptr));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_PARAMETER});
}

TEST_F(Dialogs, ConfigureTestAndFindPrinter) {
    Scene scene;
    scene.AddPrinters(3);
    PortRecords port = Port("10.1.0.2", "0004004A004A", "prn-2");  // moved to .3
    port.standard.dwPortNumber = 515;  // not the default of RAW, and kept
    scene.monitor.ports[L"OFFICE"] = port;
    Configure(scene, ERROR_SUCCESS, [&](const User& user) {
        user.Await(IDC_ADDRESS, L"10.1.0.2");
        user.Await(IDC_FOLLOW_NOTE, L"00:04:00:4A:00:4A or its host name prn-2");
        user.Click(IDC_TEST);
        user.Await(IDC_RESULT,
                   L"10.1.0.2 accepts connections on TCP port 515.\r\nThe printer at this address "
                   L"is 00:04");
        scene.silent = true;
        user.Click(IDC_TEST);
        user.Await(IDC_RESULT, L"accepts connections");
        user.Click(IDC_STOP);
        user.Await(IDC_RESULT, L"Stopped.");
        scene.silent = false;
        user.Click(IDC_FIND);
        user.Await(IDC_ADDRESS, L"10.1.0.3");
        EXPECT_STREQ(scene.monitor.ports[L"OFFICE"].standard.sztIPAddress, L"10.1.0.2");
        scene.answers = false;
        user.Click(IDC_TEST);
        user.Await(IDC_RESULT,
                   L"does not accept connections on TCP port 515.\r\nThe printer at this address "
                   L"is the one");
        user.Press(IDOK);
    });
    wcscpy(port.standard.sztIPAddress, L"10.1.0.3");
    EXPECT_TRUE(SameSettings(scene.monitor.ports[L"OFFICE"], port));
}

TEST_F(Dialogs, ConfigureRollsBackWhenCancelledOrFailed) {
    Scene scene;
    scene.monitor.ports[L"OFFICE"] = Port("10.1.0.3", "0004004A004A", "prn-2");
    scene.held = L"GetConfigExData";
    scene.release = true;
    const auto change = [&](const User& user) {
        user.Await(IDC_ADDRESS, L"10.1.0.3");
        user.Click(IDC_FOLLOW);
        scene.release = false;
        user.Press(IDOK);
        EXPECT_TRUE(Eventually([&] { return scene.waits.load(); }));
        SendMessageW(user.Window(), WM_COMMAND, IDCANCEL, 0);
        scene.release = true;
    };
    Configure(scene, ERROR_CANCELLED, change);
    EXPECT_NE(scene.monitor.ports[L"OFFICE"].extended.dwAlwaysPrint, 0u);
    scene.held.clear();
    scene.monitor.failing[L"SetConfigExData"] = ERROR_DISK_FULL;
    Configure(scene, ERROR_CANCELLED, [&](const User& user) {
        user.Await(IDC_ADDRESS, L"10.1.0.3");
        user.Press(IDOK);
        user.Dismiss("Some of the settings may have been saved");
        user.Press(IDCANCEL);
    });
}

// A pending save belongs to the address whose lookup it waits for.
TEST_F(Dialogs, PendingSaveEndsWithItsLookup) {
    Scene scene;
    scene.AddPrinters(2);
    scene.hosts["office.example"] = "10.1.0.3";
    Add(scene, ERROR_SUCCESS, [&](const User& user) {
        EXPECT_TRUE(Eventually([&] { return user.Rows() == 2; }));
        user.Type(IDC_NAME, L"OFFICE");
        scene.silent = true;
        user.Type(IDC_ADDRESS, L"10.1.0.9");
        user.Press(IDC_ADD);
        user.Await(IDC_FOLLOW_NOTE, kEnglish(IDS_FOLLOW_QUERYING));
        user.Pick(0);
        user.Await(IDC_FOLLOW_NOTE, L"prn-1");
        scene.silent = false;
        user.Type(IDC_ADDRESS, L"office.example");
        user.Type(IDC_NAME, L"OFFICE");
        user.Await(IDC_FOLLOW_NOTE, L"prn-2");
        scene.silent = true;
        user.Type(IDC_ADDRESS, L"10.1.0.2");
        user.Press(IDC_ADD);
        user.Await(IDC_FOLLOW_NOTE, kEnglish(IDS_FOLLOW_QUERYING));
        scene.silent = false;
    });
    EXPECT_EQ(Destination(scene.monitor.ports[L"OFFICE"]), "raw to 10.1.0.2:9100");
}

TEST_F(Dialogs, ConfigureReportsWhatTheTestFinds) {
    Scene scene;
    scene.AddPrinters(2);
    PortRecords port = Port("10.1.0.2", "000400000001", "other");
    port.standard.sztHostAddress[0] = port.extended.sztHWAddress[0] = L'\0';
    scene.monitor.ports[L"OFFICE"] = port;
    Configure(scene, ERROR_CANCELLED, [&](const User& user) {
        user.Await(IDC_FOLLOW_NOTE, L"prn-1");
        EXPECT_FALSE(user.Enabled(IDC_FIND));
        user.Click(IDC_TEST);
        user.Await(IDC_RESULT, L"not configured for a specific printer");
        user.Type(IDC_ADDRESS, L"10.9.9.9");
        user.Click(IDC_TEST);
        user.Await(IDC_RESULT, kEnglish(IDS_UNIDENTIFIED));
        user.Press(IDCANCEL);
    });
    // The stored host name belongs to another printer, and the monitor cannot clear it.
    scene.printers[0].identity.hostName.clear();
    scene.monitor.ports[L"OFFICE"] = Port("10.9.9.9", "000400000001", "other");
    Configure(scene, ERROR_CANCELLED, [&](const User& user) {
        user.Await(IDC_FOLLOW_NOTE, L"00:04:00:00:00:01 or its host name other");
        user.Click(IDC_FIND);
        user.Await(IDC_RESULT, kEnglish(IDS_NOT_FOUND));
        user.Type(IDC_ADDRESS, L"10.1.0.2");
        user.Type(IDC_PORT, L"9101");
        user.Await(IDC_FOLLOW_NOTE, kEnglish(IDS_FOLLOW_OLD_NAME, {L"other"}));
        EXPECT_FALSE(user.Enabled(IDC_FOLLOW) || user.Checked(IDC_FOLLOW));
        scene.searchFails = "no network";
        user.Click(IDC_FIND);
        user.Await(IDC_RESULT, L"The operation failed. Details: no network");
        user.Press(IDCANCEL);
    });
}

// The real network, as far as the loopback goes.
TEST(SystemEnvironment, ResolvesAndConnects) {
    const SocketsStarted sockets;
    const Environment environment = SystemEnvironment();
    EXPECT_EQ(environment.resolve("127.0.0.1"), "127.0.0.1");
    EXPECT_THROW(environment.resolve("1.2.3"), CommandFailed);
    const TcpPeer peer([](const PeerConnection&) {});
    const RefusingPort refusing;
    const std::chrono::seconds timeout(5);
    EXPECT_EQ(environment.connect("127.0.0.1", peer.port, timeout).error, "");
    EXPECT_NE(environment.connect("127.0.0.1", refusing.number, timeout).error, "");
}

TEST_F(Dialogs, DeletePortAsksForConfirmation) {
    Scene scene;
    scene.monitor.ports[L"OFFICE"] = {};
    scene.monitor.queues = {{L"Laser", {L"OFFICE"}}, {L"Color & more", {L"OFFICE"}}};
    Delete(scene, ERROR_CANCELLED, [](const User& user) {
        user.Await(IDC_QUEUES, L"Laser\r\nColor & more");
        EXPECT_FALSE(user.Enabled(IDC_DELETE));
        user.Press(IDC_DELETE);
        user.Press(IDCANCEL);
    });
    EXPECT_FALSE(DeletePortByDialog(scene.environment, nullptr, nullptr, L"office"));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_BUSY});
    scene.monitor.queues.clear();
    Delete(scene, ERROR_CANCELLED, [](const User& user) {
        user.Await(IDC_QUESTION, L"delete the port OFFICE?");
        user.Press(IDCANCEL);
    });
    EXPECT_EQ(scene.monitor.ports.size(), 1u);
    Delete(scene, ERROR_SUCCESS, [](const User& user) {
        user.Await(IDC_QUESTION, L"delete the port OFFICE?");
        user.Press(IDC_DELETE);
    });
    EXPECT_THAT(scene.monitor.ports, IsEmpty());
}

// The shipped library over the spooler of this computer.
TEST_F(Dialogs, LibraryOpensDialogsAndUnloads) {
    const auto path = std::filesystem::absolute(KESTUI_DLL).make_preferred();
    const HMODULE library = LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    ASSERT_NE(library, nullptr) << GetLastError();
    const auto initialize = reinterpret_cast<decltype(&InitializePrintMonitorUI)>(
        reinterpret_cast<void*>(GetProcAddress(library, "InitializePrintMonitorUI")));
    const MONITORUI& ui = *initialize();
    EXPECT_EQ(ui.dwMonitorUISize, sizeof(MONITORUI));
    EXPECT_FALSE(ui.pfnConfigurePortUI(nullptr, nullptr, L"OFFICE"));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_PARAMETER});
    // Wine's spooler has no such monitor.
    EXPECT_FALSE(ui.pfnDeletePortUI(nullptr, nullptr, L"OFFICE"));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_UNKNOWN_PRINT_MONITOR});
    PWSTR name = nullptr;
    EXPECT_EQ(Play([&] { return ui.pfnAddPortUI(nullptr, owner_, L"kestmon", &name); },
                   [](const User& user) { user.Dismiss("Install kestmon"); }),
              DWORD{ERROR_CANCELLED});
    EXPECT_EQ(name, nullptr);
    // The library stays loaded until its search has ended.
    FreeLibrary(library);
    EXPECT_TRUE(Eventually([] { return GetModuleHandleW(L"kestui.dll") == nullptr; }));
}

// Returns true if a text fits its control.
bool Fits(HWND control, const std::wstring& text) {
    const HDC device = GetDC(control);
    const HGDIOBJ before =
        SelectObject(device, reinterpret_cast<HFONT>(SendMessageW(control, WM_GETFONT, 0, 0)));
    RECT room;
    GetClientRect(control, &room);
    RECT needed = room;
    WCHAR name[32] = {};
    GetClassNameW(control, name, 32);
    const bool button = std::wstring(name) == L"Button";
    const LONG_PTR kind = GetWindowLongPtrW(control, GWL_STYLE) & BS_TYPEMASK;
    const bool push = button && kind <= BS_DEFPUSHBUTTON;
    DrawTextW(device, text.c_str(), -1, &needed,
              DT_CALCRECT | (button ? DT_SINGLELINE : DT_WORDBREAK | DT_NOPREFIX));
    const int beside = push ? 6 : button ? GetSystemMetrics(SM_CXMENUCHECK) + 4 : 0;
    SelectObject(device, before);
    ReleaseDC(control, device);
    return needed.right + beside <= room.right && needed.bottom <= room.bottom + 1;
}

TEST_F(Dialogs, TextsFitAndMnemonicsAreUnique) {
    for (const LANGID language : {MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US),
                                  MAKELANGID(LANG_GERMAN, SUBLANG_GERMAN_SWISS)}) {
        Scene scene;
        scene.environment.language = language;
        scene.monitor.ports[L"OFFICE"] = {};
        const Texts texts(language);
        // The longest values to insert.
        const auto text = [&texts](UINT id) {
            return texts(id, {L"fe80::204:ff:fe4a:1b2c%12", L"00:04:00:4A:1B:2C, npi4a1b2c"});
        };
        for (UINT id = IDD_ADD; id < IDS_END; ++id) {
            EXPECT_EQ(kEnglish(id).empty(), texts(id).empty()) << id;
        }
        const auto inspect = [&](const User& user) {
            std::set<wchar_t> mnemonics;
            for (HWND control = GetWindow(user.Window(), GW_CHILD); control != nullptr;
                 control = GetWindow(control, GW_HWNDNEXT)) {
                const auto id = static_cast<UINT>(GetDlgCtrlID(control));
                const std::wstring shown = user.Text(id);
                if (id >= IDC_PROGRESS && id < IDS_COLUMN_NAME) {
                    continue;
                }
                EXPECT_TRUE(Fits(control, shown)) << language << ": " << WideToUtf8(shown);
                if (const size_t at = shown.find(L'&'); at != std::wstring::npos) {
                    EXPECT_TRUE(mnemonics.insert(towlower(shown[at + 1])).second)
                        << WideToUtf8(shown);
                }
            }
            const auto fits = [&](UINT control, UINT first, UINT last) {
                for (UINT id = first; user.Control(control) != nullptr && id <= last; ++id) {
                    EXPECT_TRUE(Fits(user.Control(control), text(id)))
                        << language << ": " << WideToUtf8(text(id));
                }
            };
            fits(IDC_PROBLEM, IDS_BAD_ADDRESS, IDS_BAD_WORD);
            fits(IDC_FOLLOW_NOTE, IDS_FOLLOW_NO_ADDRESS,
                 user.Control(IDC_NAME) ? IDS_FOLLOW_NEITHER : IDS_FOLLOW_OLD_NAME);
            fits(IDC_STATUS, IDS_SEARCHING_ONE, IDS_SEARCHED_LOCALLY);
            fits(IDC_RESULT, IDS_CONNECTED, IDS_FAILED);
            fits(IDC_QUESTION, IDS_DELETE_CONFIRM, IDS_DELETE_IN_USE);
            user.Press(IDCANCEL);
        };
        Add(scene, ERROR_CANCELLED, inspect);
        Configure(scene, ERROR_CANCELLED, inspect);
        Delete(scene, ERROR_CANCELLED, inspect);
    }
}

}  // namespace
