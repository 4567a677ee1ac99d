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

struct Value {
    DWORD type = REG_NONE;
    std::u16string bytes;  // as 16-bit units; one unit per byte of a binary value
    bool operator==(const Value &) const = default;
};

void PrintTo(const Value &v, std::ostream *os) {
    *os << "type " << v.type << ":";
    for (char16_t c : v.bytes) *os << " " << static_cast<unsigned>(c);
}

Value Read(const std::u16string &key, const char16_t *name) {
    HKEY k;
    Value v{0xFFFF, u"missing"};
    if (RegOpenKeyW(HKEY_LOCAL_MACHINE, key.c_str(), &k) != ERROR_SUCCESS) return v;
    BYTE data[256];
    DWORD cb = sizeof data, type = 0;
    if (RegQueryValueExW(k, name, nullptr, &type, data, &cb) == ERROR_SUCCESS) {
        v = {type, u""};
        if (type == REG_SZ) v.bytes.assign(reinterpret_cast<char16_t *>(data), cb / 2);
        else v.bytes.assign(data, data + cb);
    }
    RegCloseKey(k);
    return v;
}

void Write(const std::u16string &key, const char16_t *name, DWORD type, const void *data, DWORD cb) {
    HKEY k;
    RegCreateKeyW(HKEY_LOCAL_MACHINE, key.c_str(), &k);
    RegSetValueExW(k, name, 0, type, static_cast<const BYTE *>(data), cb);
    RegCloseKey(k);
}

Value Binary(BYTE b) { return {REG_BINARY, std::u16string(1, b)}; }
Value Text(const std::u16string &s) { return {REG_SZ, s + u'\0'}; }

// What the dialog showed when it opened.
struct Shown {
    int checked = 0;
    std::vector<int> disabled;
    std::u16string queue;
    bool notify = false;
};

class Configure : public ::testing::Test {
protected:
    // A host with these transports and the port PS1-P1: its protocol and queue
    // name stored as given (nullptr: none), and IsNOTIFY (-1: none).  The
    // values are stored in other types than the monitor's own, so that a
    // rewrite shows.
    void Start(const kvttest::HostOptions &options, BYTE protocol, const char16_t *queue, int notify) {
        host = std::make_unique<kvttest::TestHost>(options);
        kvttest::MakePortKeys(u"PS1", u'1', 0x7F000002, protocol, nullptr);
        InitializePrintMonitor(nullptr);
        if (notify < 0) {  // start-up writes a missing flag: the key is made anew without it
            for (const char16_t *below : {u"\\Ports\\PS1\\1", u"\\Ports\\PS1", u"\\Ports", u""})
                RegDeleteKeyW(HKEY_LOCAL_MACHINE, (kMonitorKey + below).c_str());
            kvttest::MakePortKeys(u"PS1", u'1', 0x7F000002, protocol, nullptr);
        }
        Write(kDigitKey, u" ", REG_NONE, &protocol, 1);
        if (queue != nullptr)
            Write(kDigitKey, u"QueueName", REG_EXPAND_SZ, queue, static_cast<DWORD>(std::u16string(queue).size() + 1) * 2);
        BYTE n = static_cast<BYTE>(notify);
        if (notify >= 0) Write(kMonitorKey, u"IsNOTIFY", REG_NONE, &n, 1);
    }

    // ConfigurePort with a person at the dialog: what it showed is kept, then
    // the person acts and presses OK.
    BOOL RunDialog(std::function<void(HWND)> act = nullptr, const char16_t *port = u"PS1-P1") {
        kvthost::SetUiDriver([this, act](HWND d, int) {
            ++shows;
            kvthost::WindowView view;
            kvthost::ViewWindow(d, &view);
            for (const kvthost::ControlView &c : view.controls) {
                if (c.check == BST_CHECKED && c.id != IDC_NOTIFY) shown.checked = c.id;
                if (!c.enabled) shown.disabled.push_back(c.id);
                if (c.id == IDC_QUEUE_NAME) shown.queue = c.text;
                if (c.id == IDC_NOTIFY) shown.notify = c.check == BST_CHECKED;
            }
            if (act) act(d);
            kvthost::Click(d, IDC_CONFIG_OK);
        });
        return LocalmonConfigurePort(nullptr, nullptr, const_cast<LPWSTR>(port));
    }

    std::unique_ptr<kvttest::TestHost> host;
    Shown shown;
    int shows = 0;
};

void Type(HWND d, const std::u16string &keys) {
    for (char16_t k : keys) kvthost::TypeKey(d, IDC_QUEUE_NAME, k);
}

TEST_F(Configure, TheDialogOpensOnWhatIsStoredAndOKStoresWhatItShows) {
    kvttest::HostOptions tcpip, all;
    all.ipx = all.netbios = true;
    struct Case {
        const char *what;
        kvttest::HostOptions host;
        BYTE protocol;
        const char16_t *queue;
        int notify;
        std::function<void(HWND)> act;
        int checked;
        std::vector<int> disabled;
        const char16_t *queueShown;
        bool notifyShown;
        Value protocolStored, queueStored, notifyStored;
    };
    std::vector<Case> cases = {
        {"no change", tcpip, 2, u"lp", 1, nullptr, IDC_TCPIP, {IDC_IPX, IDC_NETBEUI}, u"lp", true,
         Binary(2), Text(u"lp"), Binary(1)},
        {"IPX on a host without it", tcpip, 1, u"lp", 0, nullptr, IDC_AUTO, {IDC_IPX, IDC_NETBEUI}, u"lp", false,
         Binary(0), Text(u"lp"), Binary(0)},
        {"an emptied queue box", tcpip, 0, u"lp", 0, [](HWND d) { Type(d, u"\b\b"); }, IDC_AUTO,
         {IDC_IPX, IDC_NETBEUI}, u"lp", false, Binary(0), Text(u""), Binary(0)},
        {"no IsNOTIFY, then the box checked", tcpip, 2, nullptr, -1, [](HWND d) { kvthost::Click(d, IDC_NOTIFY); },
         IDC_TCPIP, {IDC_IPX, IDC_NETBEUI}, u"", false, Binary(2), Text(u""), Binary(1)},
        {"no IsNOTIFY, OK", tcpip, 2, nullptr, -1, nullptr, IDC_TCPIP, {IDC_IPX, IDC_NETBEUI}, u"", false, Binary(2),
         Text(u""), Binary(0)},
        {"NetBIOS, then IPX chosen", all, 4, u"lp", 1, [](HWND d) { kvthost::Click(d, IDC_IPX); }, IDC_NETBEUI, {},
         u"lp", true, Binary(1), Text(u"lp"), Binary(1)},
        {"a disabled transport cannot be chosen", tcpip, 0, u"", 0, [](HWND d) { kvthost::Click(d, IDC_NETBEUI); },
         IDC_AUTO, {IDC_IPX, IDC_NETBEUI}, u"", false, Binary(0), Text(u""), Binary(0)},
        {"typing stops at 31 characters", tcpip, 0, u"q", 0, [](HWND d) { Type(d, std::u16string(40, u'x')); },
         IDC_AUTO, {IDC_IPX, IDC_NETBEUI}, u"q", false, Binary(0), Text(u"q" + std::u16string(30, u'x')), Binary(0)},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Start(c.host, c.protocol, c.queue, c.notify);
        shown = Shown();
        EXPECT_TRUE(RunDialog(c.act));
        EXPECT_EQ(shown.checked, c.checked);
        EXPECT_EQ(shown.disabled, c.disabled);
        EXPECT_EQ(shown.queue, c.queueShown);
        EXPECT_EQ(shown.notify, c.notifyShown);
        EXPECT_EQ(Read(kDigitKey, u" "), c.protocolStored);
        EXPECT_EQ(Read(kDigitKey, u"QueueName"), c.queueStored);
        EXPECT_EQ(Read(kMonitorKey, u"IsNOTIFY"), c.notifyStored);
        EXPECT_EQ(IsNOTIFY, c.notifyStored.bytes[0]);
        host.reset();
    }
}

TEST_F(Configure, EveryStepIsLoggedAndTheDialogCameToTheFront) {
    Start(kvttest::HostOptions(), 2, u"lp", 1);
    ASSERT_TRUE(RunDialog());
    auto lines = kvttest::LogLines();
    auto from = std::find(lines.begin(), lines.end(), "Entry LocalmonConfigurePort");
    EXPECT_EQ(std::vector<std::string>(from, lines.end()),
              (std::vector<std::string>{"Entry LocalmonConfigurePort", "Name: NULL\t", "PortName: PS1-P1 ",
                                        "Entry GetProtocol", "Leave GetProtocol - protocol = 2", "FindPortFromList ok",
                                        "Entry GetPrintProtocol", "Leave GetPrintProtocol - protocol = 2",
                                        "PrintMethod = 2", "IsNotify = 1", "Leave LocalmonConfigurePort - success"}));
    auto calls = kvthost::ForegroundCalls();
    ASSERT_EQ(calls.size(), 1u);
}

TEST_F(Configure, FailuresStoreNothingThatComesAfterThem) {
    struct Case {
        const char *what;
        bool tcpip;
        const char16_t *port;
        bool deleteKey;  // the port's key goes while the dialog stands
        const char *leave;
        bool desktop = true;
    };
    const Case cases[] = {
        {"an unknown port", true, u"PS2-P1", false, "no any printserver port find"},
        {"no transport at all", false, u"PS1-P1", false, "PC no support any protocol"},
        {"the port's key gone after the dialog", true, u"PS1-P1", true, "open registry key fail"},
        {"nowhere to show the dialog", true, u"PS1-P1", false, "show dialogbox fail", false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        kvttest::HostOptions options;
        options.tcpip = c.tcpip;
        Start(options, 2, u"lp", 1);
        Value queue = Read(kDigitKey, u"QueueName"), notify = Read(kMonitorKey, u"IsNOTIFY");
        shows = 0;
        auto act = [&](HWND d) {
            if (c.deleteKey) RegDeleteKeyW(HKEY_LOCAL_MACHINE, kDigitKey.c_str());
            kvthost::Click(d, IDC_NOTIFY);
        };
        if (c.desktop) EXPECT_FALSE(RunDialog(act, c.port));
        else EXPECT_FALSE(LocalmonConfigurePort(nullptr, nullptr, const_cast<LPWSTR>(c.port)));
        EXPECT_EQ(shows, c.deleteKey ? 1 : 0);
        EXPECT_EQ(kvttest::LogLines().back(), std::string("Leave LocalmonConfigurePort - ") + c.leave);
        EXPECT_EQ(Read(kDigitKey, u"QueueName"), c.deleteKey ? Value({0xFFFF, u"missing"}) : queue);
        EXPECT_EQ(Read(kMonitorKey, u"IsNOTIFY"), notify) << "not written";
        host.reset();
    }
}

}  // namespace
