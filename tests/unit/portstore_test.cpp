// The ports' registry tree and the port list as a whole: names and keys both
// ways, what is stored where and in which form, enumeration into the
// spooler's buffer, and removal.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>

#include "fixture.h"
#include "portstore.h"

extern const kvthost::ResourceTable kvt_module_resources;

namespace {

using namespace kvttest;
using PortTree = MonitorTest;
using Vec = std::vector<BYTE>;

PortParam Param(const char16_t *server, char lptn, DWORD address, BYTE protocol) {
    PortParam p{{}, address, static_cast<BYTE>(lptn), {0, 0, 0, 0, 0, 9}, {}, protocol, u"q-one", u"q-two", u"q-three"};
    lstrcpyW(p.ServerName, server);
    return p;
}

// Digits 1 to 5 are P1 to P3, C1 and C2; a port's delete takes its digit key,
// and the last port's the server key with it.
TEST_F(PortTree, FiveSuffixesGoToFiveDigitKeysAndComeBack) {
    StartHost();
    for (char digit = '1'; digit <= '5'; ++digit) {
        PortParam p = Param(u"Shop", digit, 0xC0A80201, 0);
        CreatePortRegistry(&p);
    }
    // Queue names only below the printer ports.
    EXPECT_EQ(Value(kPortsKey + u"\\Shop\\2", u"QueueName").value_or(Vec()).size(), 12u);  // "q-two" and its terminator
    EXPECT_FALSE(Value(kPortsKey + u"\\Shop\\4", u"QueueName"));
    EXPECT_EQ(Value(kPortsKey + u"\\Shop\\4", u" "), Vec{0});

    ResetMonitor();
    InitializePrintMonitor(nullptr);
    EXPECT_EQ(PortNames(), (std::vector<std::string>{"Shop-P1", "Shop-P2", "Shop-P3", "Shop-C1", "Shop-C2"}));
    EXPECT_EQ(PortListHead->pNext->pNext->pNext->Lptn, '4');

    for (const char16_t *name : {u"Shop-C2", u"Shop-P3", u"Shop-C1"}) DeletePortRegistry(name);
    for (char16_t digit = u'1'; digit <= u'5'; ++digit)
        EXPECT_EQ(KeyExists(kPortsKey + u"\\Shop\\" + digit), digit <= u'2') << char(digit);
    DeletePortRegistry(u"Shop-P1");
    EXPECT_EQ(Value(kPortsKey + u"\\Shop", u"IP    ").value_or(Vec()).size(), 4u) << "the other port keeps them";
    DeletePortRegistry(u"Shop-P2");
    EXPECT_FALSE(KeyExists(kPortsKey + u"\\Shop"));
}

TEST_F(PortTree, TheAddressIsStoredLittleEndianUnderNamesWithTheirBlanks) {
    StartHost();
    PortParam p = Param(u"Lab", '1', 0xC0A80201, 2);
    CreatePortRegistry(&p);
    EXPECT_EQ(Value(kPortsKey + u"\\Lab", u"IP    "), (Vec{0x01, 0x02, 0xA8, 0xC0}));
    EXPECT_FALSE(Value(kPortsKey + u"\\Lab", u"IP")) << "the blanks are part of the name";
    EXPECT_EQ(Value(kPortsKey + u"\\Lab", u"Network"), (Vec{0, 0, 0, 0}));
    EXPECT_EQ(Value(kPortsKey + u"\\Lab", u"Node Address"), (Vec{0, 0, 0, 0, 0, 9}));
    EXPECT_EQ(Value(kPortsKey + u"\\Lab\\1", u" "), Vec{2});
    std::stringstream text;
    text << std::ifstream(kvthost::HivePath()).rdbuf();
    EXPECT_NE(text.str().find("\"IP    \"=hex:01,02,a8,c0"), std::string::npos);
    EXPECT_NE(text.str().find("\" \"=hex:02"), std::string::npos);
}

TEST_F(PortTree, ASerialPortReadsTheSettingsOfThePrinterPortWithItsDigit) {
    StartHost({}, [] { MakePortKeys(u"Desk", u'4', 0x0A000002, 1, nullptr); });
    EXPECT_EQ(GetPrintProtocol(u"Desk-C1"), 0u) << "no key 1, though key 4 says IPX";
    char queue[QUEUE_NAME_BYTES];
    EXPECT_FALSE(GetPrintQueueName(u"Desk-C1", queue));
    MakePortKeys(u"Desk", u'1', 0x0A000002, 4, u"lpt1");
    EXPECT_EQ(GetPrintProtocol(u"Desk-C1"), 4u);
    std::memset(queue, 'x', sizeof queue);
    ASSERT_TRUE(GetPrintQueueName(u"Desk-C1", queue));
    EXPECT_EQ(std::memcmp(queue, "lpt1", 5), 0) << "four bytes and a zero byte";
    EXPECT_EQ(std::u16string(QueueNameBuffer), u"lpt1");
}

// Each field of PortParam is taken within its own width, terminated or not:
// here every field is full to its last character, the last queue name up to
// the end of the block.
TEST_F(PortTree, EachFieldIsTakenWithinItsWidth) {
    StartHost();
    PortParam p;
    std::memset(&p, 0, sizeof p);
    std::fill(std::begin(p.ServerName), std::end(p.ServerName), u'S');
    std::fill(std::begin(p.QueueName2), std::end(p.QueueName2), u'b');
    std::fill(std::begin(p.QueueName3), std::end(p.QueueName3), u'c');
    p.Lptn = '3';
    p.Protocol = 4;
    CreatePortRegistry(&p);
    const std::u16string server(47, u'S');
    // 31 characters and the terminator.
    EXPECT_EQ(Value(kPortsKey + u"\\" + server + u"\\3", u"QueueName").value_or(Vec()).size(), 64u);
    EXPECT_EQ(GetPrintProtocol((server + u"-P3").c_str()), 4u);
    EXPECT_EQ(std::u16string(QueueNameBuffer), std::u16string(31, u'c'));
}

// The queue name that the last lookup left for the configure dialog: the one
// stored, none (empty, whatever was there before), or a longer one cut to the
// buffer.  A name that can't be a port of the tree says so in the log.
TEST_F(PortTree, EachLookupLeavesItsQueueNameInTheBuffer) {
    const std::u16string longName(40, u'q');
    StartHost({}, [&] {
        MakePortKeys(u"PS1", u'1', 1, 2, u"laser");
        MakePortKeys(u"PS1", u'2', 1, 2, nullptr);
        MakePortKeys(u"PS1", u'3', 1, 2, longName.c_str());
    });
    GetPrintProtocol(u"PS1-P1");
    EXPECT_EQ(std::u16string(QueueNameBuffer), u"laser");
    GetPrintProtocol(u"PS1-P2");
    EXPECT_EQ(std::u16string(QueueNameBuffer), u"");
    GetPrintProtocol(u"PS1-P3");
    EXPECT_EQ(std::u16string(QueueNameBuffer), longName.substr(0, 31));
    EXPECT_EQ(GetPrintProtocol(u"P1"), 0u);
    EXPECT_EQ(LogCount("Leave GetPrintProtocol - not a port name of the tree"), 1u);
}

TEST_F(PortTree, AServerNameTooLongForTheBufferEndsTheEnumeration) {
    StartHost({}, [] {
        MakePortKeys(u"Alpha", u'1', 1, 0, nullptr);
        MakePortKeys(std::u16string(u"B") + std::u16string(47, u'x'), u'1', 1, 0, nullptr);
        MakePortKeys(u"Zulu", u'1', 1, 0, nullptr);
    });
    EXPECT_EQ(PortNames(), std::vector<std::string>{"Alpha-P1"});
}

// Three ports: PS1-P1, PS1-C2 and lobby-P2, which comes first whatever the case.
class Enumeration : public MonitorTest {
protected:
    void SetUp() override {
        StartHost({}, [] {
            MakePortKeys(u"PS1", u'1', 1, 0, nullptr);
            MakePortKeys(u"PS1", u'5', 1, 0, nullptr);
            MakePortKeys(u"lobby", u'2', 2, 0, nullptr);
        });
    }
};

// Level 1: 8 bytes and the name a port; level 2: 32 bytes and three strings;
// level 0 counts.  One byte short is refused with the size, another level
// without; nothing is written where it is refused or past the size given,
// and nothing reaches the log, whose flag is back afterwards.
TEST_F(Enumeration, SizesAreExactAndOneByteShortIsRefused) {
    const DWORD level1 = 3 * 8 + 2 * (9 + 7 + 7), level2 = 3 * 32 + 2 * (9 + 7 + 7) + 3 * 2 * 2 * 25;
    const DWORD kShort = ERROR_INSUFFICIENT_BUFFER;
    const struct {
        DWORD level, size;
        BOOL result;
        DWORD error, needed, returned;
    } cases[] = {{1, level1 - 1, FALSE, kShort, level1, kSentinel}, {1, level1, TRUE, kSentinel, level1, 3},
                 {2, level2 - 1, FALSE, kShort, level2, kSentinel}, {2, level2, TRUE, kSentinel, level2, 3},
                 {0, 0, TRUE, kSentinel, 0, 3}, {3, 1, FALSE, ERROR_INVALID_LEVEL, kSentinel, kSentinel}};
    ASSERT_EQ(IsDEBUG, 1);
    const std::string log = ReadLog();
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "level " << c.level << ", " << c.size << " bytes");
        std::vector<BYTE> buffer(c.size + 16, 0xCD);
        DWORD needed = kSentinel, returned = kSentinel;
        SetLastError(kSentinel);
        EXPECT_EQ(LocalmonEnumPorts(nullptr, c.level, buffer.data(), c.size, &needed, &returned), c.result);
        EXPECT_EQ(GetLastError(), c.error);
        EXPECT_EQ(needed, c.needed);
        EXPECT_EQ(returned, c.returned);
        EXPECT_EQ(buffer[c.result ? c.size : 0], 0xCD);
    }
    EXPECT_EQ(ReadLog(), log);
    EXPECT_EQ(IsDEBUG, 1);
}

TEST_F(Enumeration, RecordsFromTheFrontStringsFromTheBack) {
    const DWORD size = 3 * 32 + 2 * (9 + 7 + 7) + 3 * 2 * 2 * 25;
    std::vector<BYTE> buffer(size);
    DWORD needed = 0, returned = 0;
    ASSERT_TRUE(LocalmonEnumPorts(nullptr, 2, buffer.data(), size, &needed, &returned));
    auto *info = reinterpret_cast<PORT_INFO_2W *>(buffer.data());
    // The list's order is the tree's: lobby before PS1 whatever the case, digits in order.
    EXPECT_EQ((std::vector<std::u16string>{info[0].pPortName, info[1].pPortName, info[2].pPortName}),
              (std::vector<std::u16string>{u"lobby-P2", u"PS1-P1", u"PS1-C2"}));
    EXPECT_EQ(reinterpret_cast<BYTE *>(info[0].pPortName), buffer.data() + size - 18)
        << "the first port's name ends the buffer";
    EXPECT_LT(info[0].pMonitorName, info[0].pPortName);
    EXPECT_LT(info[0].pDescription, info[0].pMonitorName);
    EXPECT_NE(info[0].pDescription, info[0].pMonitorName) << "copied separately";
    EXPECT_EQ(std::u16string(info[0].pDescription), u"PrintServer Network Port");
    EXPECT_EQ(std::u16string(info[0].pMonitorName), u"PrintServer Network Port");
    EXPECT_EQ(info[1].fPortType, static_cast<DWORD>(PORT_TYPE_WRITE));
    EXPECT_EQ(info[1].Reserved, 0u);
    // The strings fill the buffer exactly up to the last record.
    EXPECT_EQ(reinterpret_cast<BYTE *>(info[2].pDescription), buffer.data() + 3 * 32);
}

// A delete takes record and key, by a name in any case; one of no port fails
// with the log on; the ports deleted stay gone after a restart, and an empty
// list enumerates to nothing.
TEST_F(Enumeration, DeletingByANameInOtherCaseRemovesRecordAndKey) {
    SetLastError(kSentinel);
    EXPECT_TRUE(LocalmonDeletePort(nullptr, nullptr, const_cast<LPWSTR>(u"ps1-c2")));
    EXPECT_EQ(PortNames(), (std::vector<std::string>{"lobby-P2", "PS1-P1"}));
    EXPECT_FALSE(KeyExists(kPortsKey + u"\\PS1\\5"));
    EXPECT_TRUE(KeyExists(kPortsKey + u"\\PS1\\1"));
    // The tree is given the name as the caller wrote it.
    EXPECT_NE(ReadLog().find("PortName = ps1-c2"), std::string::npos);
    SetLastError(kSentinel);
    EXPECT_FALSE(LocalmonDeletePort(nullptr, nullptr, const_cast<LPWSTR>(u"PS1-P3")));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_UNKNOWN_PORT)) << "the log's own calls keep it";
    EXPECT_FALSE(LocalmonDeletePort(nullptr, nullptr, nullptr));
    EXPECT_TRUE(KeyExists(kPortsKey + u"\\PS1\\1")) << "a failed delete leaves the tree alone";
    ResetMonitor();
    InitializePrintMonitor(nullptr);
    EXPECT_EQ(PortNames(), (std::vector<std::string>{"lobby-P2", "PS1-P1"}));
    for (const char16_t *name : {u"lobby-P2", u"PS1-P1"})
        EXPECT_TRUE(LocalmonDeletePort(nullptr, nullptr, const_cast<LPWSTR>(name)));
    for (DWORD level : {1u, 2u}) {
        DWORD needed = kSentinel, returned = kSentinel;
        EXPECT_TRUE(LocalmonEnumPorts(nullptr, level, nullptr, 0, &needed, &returned));
        EXPECT_TRUE(needed == 0 && returned == 0) << level;
    }
}

}  // namespace
