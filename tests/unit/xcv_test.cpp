// The transceive entries as the UI library calls them: what each data name
// answers, that no bad input and no change without the right to administer
// changes anything, and that a configure round trip stores what it was given.
#include <gtest/gtest.h>

#include <cstring>

#include "admin.h"
#include "fixture.h"
#include "xcv.h"

namespace {

using kvttest::kMonitorKey;
const std::u16string kServerKey = kvttest::kPortsKey + u"\\PS1";

struct Xcv : MonitorTest {
    void SetUp() override {
        StartHost({}, [] { kvttest::MakePortKeys(u"PS1", u'1', 0x7F000002, 2, u"qa"); });
    }
    void TearDown() override {
        for (HANDLE h : opened) LocalmonXcvClosePort(h);
        MonitorTest::TearDown();
    }
    // A handle, closed when the test ends unless Close closed it.
    HANDLE Open(const char16_t *object, ACCESS_MASK access = SERVER_ACCESS_ADMINISTER) {
        HANDLE h = nullptr;
        EXPECT_TRUE(LocalmonXcvOpenPort(object, access, &h)) << GetLastError();
        if (h != nullptr) opened.push_back(h);
        return h;
    }
    BOOL Close(HANDLE h) {
        std::erase(opened, h);
        return LocalmonXcvClosePort(h);
    }
    std::vector<HANDLE> opened;
    DWORD Data(HANDLE h, const char16_t *name, const void *in, DWORD cbIn, void *out = nullptr, DWORD cbOut = 0,
               DWORD *needed = nullptr) {
        DWORD n = 0;
        DWORD r = LocalmonXcvDataPort(h, name, (PBYTE)in, cbIn, (PBYTE)out, cbOut, &n);
        if (needed) *needed = n;
        return r;
    }
    // The ports the monitor lists, and the keys below the server, as one text.
    std::string State() {
        std::string s;
        for (PINIPORT p = PortListHead; p != nullptr; p = p->pNext) s += kvthost::Narrow(p->pName) + " ";
        for (const char16_t *digit : {u"1", u"2", u"4"})
            s += kvttest::Value(kServerKey + u"\\" + digit, u" ") ? "k" : "-";
        auto queue = kvttest::Value(kServerKey + u"\\1", u"QueueName");
        return s + " " + (queue ? kvthost::Narrow(reinterpret_cast<const char16_t *>(queue->data())) : "");
    }
};

PortParam Record(const char16_t *server, BYTE lptn) {
    PortParam p{};
    std::memcpy(p.ServerName, server, 2 * (std::char_traits<char16_t>::length(server) + 1));
    p.Lptn = lptn;
    p.IPAddress = 0x7F000003;
    p.Protocol = PROTOCOL_TCPIP;
    std::memcpy(p.QueueName1, u"raw", 8);
    return p;
}

TEST_F(Xcv, MonitorUiNamesTheLibraryAndSaysTheSizeWhenTheBufferIsShort) {
    HANDLE h = Open(u"");
    char16_t name[32] = {};
    DWORD needed = 0;
    EXPECT_EQ(Data(h, u"MonitorUI", nullptr, 0, name, 4, &needed), (DWORD)ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(needed, sizeof(u"libkvt64ui.so"));
    EXPECT_EQ(Data(h, u"MonitorUI", nullptr, 0, name, sizeof name, &needed), (DWORD)ERROR_SUCCESS);
    EXPECT_EQ(std::u16string(name), u"libkvt64ui.so");
    EXPECT_TRUE(Close(h));
    EXPECT_EQ(kvttest::LastLogLine(), "Leave LocalmonXcvClosePort");
}

// Every bad input, and every change without the right, leaves the ports and
// their keys as they were.
TEST_F(Xcv, NoBadInputAndNoChangeWithoutTheRightChangesAnything) {
    const std::string before = State();
    // The monitor by its name, as Windows' router passes ",XcvMonitor NAME" on.
    HANDLE admin = Open(u"PrintServer Network Port"), reader = Open(u"", SERVER_ACCESS_ENUMERATE);
    HANDLE port = Open(u"PS1-P1");
    PortParam good = Record(u"PS2", '1'), unterminated = good, badLptn = good, badProtocol = good;
    for (char16_t &c : unterminated.QueueName2) c = u'x';
    badLptn.Lptn = '6';
    badProtocol.Protocol = 3;
    XcvConfig config{PROTOCOL_IPX, 0, 1, {}, u"q"}, badConfig = config;
    badConfig.Notify = 2;
    const char16_t longName[] = u"PS1-P1\0junk";
    const std::u16string longServer = std::u16string(48, u'S') + u"-P1";  // the longest input; one too many
    const struct {
        const char *what;
        HANDLE h;
        const char16_t *name;
        const void *in;
        DWORD cb;
        DWORD result;
    } cases[] = {
        {"unknown data name", admin, u"PortExists", u"PS1-P1", 14, ERROR_INVALID_PARAMETER},
        {"no data name", admin, nullptr, nullptr, 0, ERROR_INVALID_PARAMETER},
        {"add without the right", reader, u"AddPort", u"PS3-P1", 14, ERROR_ACCESS_DENIED},
        {"delete without the right", reader, u"DeletePort", u"PS1-P1", 14, ERROR_ACCESS_DENIED},
        {"record without the right", reader, u"KvtAddPortRecord", &good, sizeof good, ERROR_ACCESS_DENIED},
        {"hand-over without the right", reader, u"KvtHandOver", nullptr, 0, ERROR_ACCESS_DENIED},
        {"name not terminated at its end", admin, u"AddPort", longName, sizeof longName, ERROR_INVALID_PARAMETER},
        {"name cut short", admin, u"DeletePort", u"PS1-P1", 8, ERROR_INVALID_PARAMETER},
        {"odd byte count", admin, u"DeletePort", u"PS1-P1", 13, ERROR_INVALID_PARAMETER},
        {"no such port form", admin, u"AddPort", u"PS1_Q9", 14, ERROR_INVALID_PARAMETER},
        {"a server of 48 characters", admin, u"AddPort", longServer.c_str(), 2 * 52, ERROR_INVALID_PARAMETER},
        {"input length without input", admin, u"AddPort", nullptr, 14, ERROR_INVALID_PARAMETER},
        {"record one byte short", admin, u"KvtAddPortRecord", &good, sizeof good - 1, ERROR_INVALID_PARAMETER},
        {"record with a text not terminated", admin, u"KvtAddPortRecord", &unterminated, sizeof good,
         ERROR_INVALID_PARAMETER},
        {"record with digit 6", admin, u"KvtAddPortRecord", &badLptn, sizeof good, ERROR_INVALID_PARAMETER},
        {"record with protocol 3", admin, u"KvtAddPortRecord", &badProtocol, sizeof good, ERROR_INVALID_PARAMETER},
        {"configure on the monitor's handle", admin, u"KvtSetConfig", &config, sizeof config,
         ERROR_INVALID_PARAMETER},
        {"configure without the right", Open(u"PS1-P1", SERVER_ACCESS_ENUMERATE), u"KvtSetConfig", &config,
         sizeof config, ERROR_ACCESS_DENIED},
        {"configure with notify 2", port, u"KvtSetConfig", &badConfig, sizeof config, ERROR_INVALID_PARAMETER},
        {"configure one byte long", port, u"KvtSetConfig", &config, sizeof config + 1, ERROR_INVALID_PARAMETER},
        {"search of transport 3", admin, u"KvtSearch", "\3\0\0\0", 4, ERROR_INVALID_PARAMETER},
        {"add of an existing port", admin, u"AddPort", u"ps1-p1", 14, ERROR_ALREADY_EXISTS},
        {"delete of no port", admin, u"DeletePort", u"PS9-P1", 14, ERROR_UNKNOWN_PORT},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(Data(c.h, c.name, c.in, c.cb), c.result);
        EXPECT_EQ(State(), before);
    }
    EXPECT_EQ(Data(nullptr, u"MonitorUI", nullptr, 0), (DWORD)ERROR_INVALID_HANDLE);
    HANDLE none = nullptr;
    EXPECT_FALSE(LocalmonXcvOpenPort(u"PS9-P1", SERVER_ACCESS_ADMINISTER, &none));
    EXPECT_EQ(GetLastError(), (DWORD)ERROR_UNKNOWN_PORT);
}

// What the UI library's dialogs do through the entries: a port by record and
// by name, a configure round trip, a delete.
TEST_F(Xcv, ChangesWithTheRightReachTheListAndTheRegistry) {
    HANDLE admin = Open(nullptr);
    PortParam second = Record(u"PS1", '2');
    ASSERT_EQ(Data(admin, u"KvtAddPortRecord", &second, sizeof second), (DWORD)ERROR_SUCCESS);
    EXPECT_EQ(Data(admin, u"KvtAddPortRecord", &second, sizeof second), (DWORD)ERROR_ALREADY_EXISTS);
    ASSERT_EQ(Data(admin, u"AddPort", u"ps1-c1", 14), (DWORD)ERROR_SUCCESS);
    EXPECT_EQ(State(), "PS1-P1 PS1-P2 PS1-C1 kkk qa");

    HANDLE port = Open(u"PS1-P1");
    XcvConfig got{};
    DWORD needed = 0;
    EXPECT_EQ(Data(port, u"KvtGetConfig", nullptr, 0, &got, sizeof got - 1, &needed),
              (DWORD)ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(needed, sizeof got);
    ASSERT_EQ(Data(port, u"KvtGetConfig", nullptr, 0, &got, sizeof got), (DWORD)ERROR_SUCCESS);
    EXPECT_EQ(got.Protocol, (DWORD)PROTOCOL_TCPIP);
    EXPECT_EQ(got.Offered, (DWORD)PROTOCOL_TCPIP);  // the default host offers TCP/IP alone
    EXPECT_EQ(std::u16string(got.QueueName), u"qa");
    XcvConfig set{PROTOCOL_NETBIOS, 0, 1, {}, u"fast"};
    ASSERT_EQ(Data(port, u"KvtSetConfig", &set, sizeof set), (DWORD)ERROR_SUCCESS);
    EXPECT_EQ(kvttest::Value(kServerKey + u"\\1", u" "), (std::vector<BYTE>{4}));
    EXPECT_EQ(kvttest::Value(kMonitorKey, u"IsNOTIFY"), (std::vector<BYTE>{1}));
    EXPECT_EQ(State(), "PS1-P1 PS1-P2 PS1-C1 kkk fast");

    ASSERT_EQ(Data(port, u"DeletePort", u"PS1-P2", 14), (DWORD)ERROR_SUCCESS);
    EXPECT_EQ(State(), "PS1-P1 PS1-C1 k-k fast");
    EXPECT_TRUE(Close(port));
    EXPECT_TRUE(Close(admin));
}

}  // namespace
