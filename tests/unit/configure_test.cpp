// Port configuration: dialog 550 opens on what the registry holds and what the
// host offers, a person changes it (or not), and OK stores all three values.
#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "admin.h"
#include "kvthost.h"
#include "monitor.h"
#include "monitor_host.h"

namespace {

const std::u16string kMonitorKey = u"System\\CurrentControlSet\\Control\\Print\\Monitors\\PrintServer Network Port";
const std::u16string kDigitKey = kMonitorKey + u"\\Ports\\PS1\\1";

// The port's protocol, its queue name and IsNOTIFY as "TYPE:VALUE", "-" for none.
std::string Stored() {
    std::string stored;
    for (auto [key, name] : {std::pair{&kDigitKey, u" "}, {&kDigitKey, u"QueueName"}, {&kMonitorKey, u"IsNOTIFY"}}) {
        HKEY k = nullptr;
        char16_t data[64] = {};
        DWORD cb = sizeof data - 2, type = 0;
        bool found = RegOpenKeyW(HKEY_LOCAL_MACHINE, key->c_str(), &k) == ERROR_SUCCESS &&
                     RegQueryValueExW(k, name, nullptr, &type, reinterpret_cast<BYTE *>(data), &cb) == ERROR_SUCCESS;
        RegCloseKey(k);
        bool text = type == REG_SZ || type == REG_EXPAND_SZ;
        stored += !found ? "- " : std::to_string(type) + ":" + (text ? kvthost::Narrow(data) : std::to_string(data[0] & 0xFF)) + " ";
    }
    return stored;
}

void Write(const std::u16string &key, const char16_t *name, DWORD type, const void *data, size_t cb) {
    HKEY k;
    RegCreateKeyW(HKEY_LOCAL_MACHINE, key.c_str(), &k);
    RegSetValueExW(k, name, 0, type, static_cast<const BYTE *>(data), static_cast<DWORD>(cb));
    RegCloseKey(k);
}

struct Configure : ::testing::Test {
    // A host with TCP/IP (and IPX and NetBIOS when all) and the port PS1-P1
    // with its protocol, queue name and IsNOTIFY (-1: none), stored in other
    // types than the monitor's own, so that a rewrite shows.
    void Start(bool all, bool tcpip, BYTE protocol, const char16_t *queue, int notify) {
        kvttest::HostOptions options;
        options.ipx = options.netbios = all;
        options.tcpip = tcpip;
        options.monitorKey = false;  // so that start-up writes no IsNOTIFY
        host.reset();
        host = std::make_unique<kvttest::TestHost>(options);
        InitializePrintMonitor(nullptr);
        IsDEBUG = 1;
        CreateMonitorPortEntry(u"PS1-P1", MonitorName, 0x7F000002, nullptr, nullptr, '1');
        kvttest::MakePortKeys(u"PS1", u'1', 0x7F000002, protocol, nullptr);
        Write(kDigitKey, u" ", REG_NONE, &protocol, 1);
        Write(kDigitKey, u"QueueName", REG_EXPAND_SZ, queue, 2 + 2 * std::u16string(queue).size());
        if (notify >= 0) Write(kMonitorKey, u"IsNOTIFY", REG_NONE, &notify, 1);
        shown.clear();
    }

    // ConfigurePort with a person who notes what the dialog shows (the checked
    // buttons, "-" and the disabled ones, the queue box), acts and presses OK.
    BOOL RunDialog(std::function<void(HWND)> act, const char16_t *port = u"PS1-P1") {
        kvthost::SetUiDriver([this, act](HWND d, int) {
            kvthost::WindowView view;
            kvthost::ViewWindow(d, &view);
            for (const kvthost::ControlView &c : view.controls)
                shown += (c.check == BST_CHECKED ? std::to_string(c.id) + " " : "") +
                         (c.enabled ? "" : "-" + std::to_string(c.id) + " ") +
                         (c.id == IDC_QUEUE_NAME ? kvthost::Narrow(c.text) : "");
            if (act) act(d);
            kvthost::Click(d, IDC_CONFIG_OK);
        });
        return LocalmonConfigurePort(nullptr, nullptr, const_cast<LPWSTR>(port));
    }

    std::unique_ptr<kvttest::TestHost> host;
    std::string shown;
};

void Type(HWND d, const std::u16string &keys) {
    for (char16_t k : keys) kvthost::TypeKey(d, IDC_QUEUE_NAME, k);
}

TEST_F(Configure, TheDialogOpensOnWhatIsStoredAndOKStoresWhatItShows) {
    const struct {
        bool all;  // IPX and NetBIOS as well as TCP/IP
        BYTE protocol;
        const char16_t *queue;
        int notify;
        std::function<void(HWND)> act;
        std::string shown, stored;
    } cases[] = {
        {false, 2, u"lp", 1, nullptr, "-552 553 -554 lp556 ", "3:2 1:lp 3:1 "},  // no change
        {false, 1, u"lp", 0, nullptr, "551 -552 -554 lp", "3:0 1:lp 3:0 "},      // IPX on a host without it
        {false, 0, u"lp", 0, [](HWND d) { Type(d, u"\b\b"); }, "551 -552 -554 lp", "3:0 1: 3:0 "},
        {false, 2, u"", -1, [](HWND d) { kvthost::Click(d, IDC_NOTIFY); }, "-552 553 -554 ", "3:2 1: 3:1 "},
        {false, 2, u"", -1, nullptr, "-552 553 -554 ", "3:2 1: 3:0 "},  // no IsNOTIFY: the box clear, OK makes it
        {true, 4, u"lp", 1, [](HWND d) { kvthost::Click(d, IDC_IPX); }, "554 lp556 ", "3:1 1:lp 3:1 "},
        {false, 0, u"", 0, [](HWND d) { kvthost::Click(d, IDC_NETBEUI); }, "551 -552 -554 ", "3:0 1: 3:0 "},
        {false, 0, u"q", 0, [](HWND d) { Type(d, std::u16string(40, u'x')); }, "551 -552 -554 q",
         "3:0 1:q" + std::string(30, 'x') + " 3:0 "},  // typing stops at 31 characters
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.shown);
        Start(c.all, true, c.protocol, c.queue, c.notify);
        EXPECT_TRUE(RunDialog(c.act));
        EXPECT_EQ(shown, c.shown);
        EXPECT_EQ(Stored(), c.stored);
        EXPECT_EQ(IsNOTIFY, c.stored[c.stored.size() - 2] - '0');
    }
}

TEST_F(Configure, FailuresStoreNothingThatComesAfterThem) {
    const struct {
        bool tcpip;
        const char16_t *port;
        bool deleteKey, desktop;  // the port's key goes while the dialog stands; a UI to show it in
        std::string leave, shown, stored;
    } cases[] = {
        {true, u"PS2-P1", false, true, "no any printserver port find", "", "0:2 2:9 0:1 "},
        {false, u"PS1-P1", false, true, "PC no support any protocol", "", "0:2 2:9 0:1 "},
        {true, u"PS1-P1", true, true, "open registry key fail", "-552 553 -554 9556 ", "- - 0:1 "},
        {true, u"PS1-P1", false, false, "show dialogbox fail", "", "0:2 2:9 0:1 "},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.leave);
        Start(false, c.tcpip, 2, u"9", 1);
        auto act = [&](HWND d) {
            if (c.deleteKey) RegDeleteKeyW(HKEY_LOCAL_MACHINE, kDigitKey.c_str());
            kvthost::Click(d, IDC_NOTIFY);
        };
        if (c.desktop) EXPECT_FALSE(RunDialog(act, c.port));
        else EXPECT_FALSE(LocalmonConfigurePort(nullptr, nullptr, const_cast<LPWSTR>(c.port)));
        EXPECT_EQ(shown, c.shown);
        EXPECT_EQ(kvttest::LogLines().back(), "Leave LocalmonConfigurePort - " + c.leave);
        EXPECT_EQ(Stored(), c.stored);
    }
}

}  // namespace
