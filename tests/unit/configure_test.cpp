// Port configuration: dialog 550 opens on what the registry holds and what the
// host offers, a person changes it (or not), and OK stores all three values.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <set>
#include <thread>

#include "admin.h"
#include "fixture.h"

namespace {

using kvttest::kMonitorKey;
const std::u16string kDigitKey = kvttest::kPortsKey + u"\\PS1\\1";

// The port's protocol, its queue name and IsNOTIFY as "TYPE:VALUE", "-" for none.
std::string Stored() {
    std::string stored;
    for (auto [key, name] : {std::pair{&kDigitKey, u" "}, {&kDigitKey, u"QueueName"}, {&kMonitorKey, u"IsNOTIFY"}}) {
        DWORD type = 0;
        const std::optional<std::vector<BYTE>> v = kvttest::Value(*key, name, &type);
        const std::u16string text(reinterpret_cast<const char16_t *>(v ? v->data() : nullptr), v ? v->size() / 2 : 0);
        stored += !v ? "- " : std::to_string(type) + ":" + (type == REG_SZ || type == REG_EXPAND_SZ
                                                                ? kvthost::Narrow(text.c_str())
                                                                : std::to_string(v->empty() ? 0 : (*v)[0])) + " ";
    }
    return stored;
}

struct Configure : MonitorTest {
    // A host with TCP/IP (and IPX and NetBIOS when all) and the port PS1-P1
    // with its protocol, queue name and IsNOTIFY (-1: none), stored in other
    // types than the monitor's own, so that a rewrite shows.
    void Start(bool all, bool tcpip, BYTE protocol, const char16_t *queue, int notify) {
        // No monitor key, so that start-up writes no IsNOTIFY.
        StartHost({.tcpip = tcpip, .ipx = all, .netbios = all, .monitorKey = false});
        IsDEBUG = 1;
        CreateMonitorPortEntry(u"PS1-P1", MonitorName, 0x7F000002, nullptr, nullptr, '1');
        kvttest::MakePortKeys(u"PS1", u'1', 0x7F000002, protocol, nullptr);
        kvttest::SetValue(kDigitKey, u" ", REG_NONE, &protocol, 1);
        kvttest::SetValue(kDigitKey, u"QueueName", REG_EXPAND_SZ, queue, 2 + 2 * std::u16string(queue).size());
        if (notify >= 0) kvttest::SetValue(kMonitorKey, u"IsNOTIFY", REG_NONE, &notify, 1);
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
        EXPECT_EQ(kvttest::LastLogLine(), "Leave LocalmonConfigurePort - " + c.leave);
        EXPECT_EQ(Stored(), c.stored);
    }
}

// Two administrators at once, on two spooler threads: both dialogs stand, the
// second is answered and its call has returned before the first is answered,
// and each port stores what its own dialog was given.
TEST_F(Configure, TwoDialogsAtOnceEachStoreTheirOwnAnswers) {
    Start(true, true, 2, u"qa", 0);
    // The log file is opened without sharing: two threads' lines at once
    // would meet, and the loser would show a box, which is not this test's.
    IsDEBUG = 0;
    const std::u16string secondKey = kvttest::kPortsKey + u"\\PS1\\2";
    CreateMonitorPortEntry(u"PS1-P2", MonitorName, 0x7F000002, nullptr, nullptr, '2');
    kvttest::MakePortKeys(u"PS1", u'2', 0x7F000002, 2, u"qb");
    std::mutex mutex;
    std::set<HWND> standing;
    std::atomic<bool> secondReturned{false};
    kvthost::SetUiDriver([&](HWND d, int) {
        kvthost::WindowView view;
        kvthost::ViewWindow(d, &view);
        bool first = false;
        for (const kvthost::ControlView &c : view.controls)
            if (c.id == IDC_QUEUE_NAME) first = c.text == u"qa";
        size_t stand;
        {
            std::lock_guard<std::mutex> lock(mutex);
            standing.insert(d);
            stand = standing.size();
        }
        if (stand < 2 || (first && !secondReturned)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            return;
        }
        kvthost::Click(d, first ? IDC_NETBEUI : IDC_IPX);
        Type(d, first ? u"\b\bA1" : u"\b\bB2");
        kvthost::Click(d, IDC_CONFIG_OK);
    });
    std::thread second([&] {
        EXPECT_TRUE(LocalmonConfigurePort(nullptr, nullptr, const_cast<LPWSTR>(u"PS1-P2")));
        secondReturned = true;
    });
    EXPECT_TRUE(LocalmonConfigurePort(nullptr, nullptr, const_cast<LPWSTR>(u"PS1-P1")));
    second.join();
    EXPECT_EQ(Stored(), "3:4 1:A1 3:0 ");
    auto queue = kvttest::Value(secondKey, u"QueueName");
    EXPECT_EQ(kvttest::Value(secondKey, u" "), (std::vector<BYTE>{1}));
    ASSERT_TRUE(queue.has_value());
    EXPECT_EQ(kvthost::Narrow(reinterpret_cast<const char16_t *>(queue->data())), "B2");
}

}  // namespace
