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

using kvttest::TestHost;

const std::u16string kPorts = u"System\\CurrentControlSet\\Control\\Print\\Monitors\\PrintServer Network Port\\Ports";

bool KeyExists(const std::u16string &below) {
    HKEY key;
    if (RegOpenKeyW(HKEY_LOCAL_MACHINE, (kPorts + below).c_str(), &key) != ERROR_SUCCESS) return false;
    RegCloseKey(key);
    return true;
}

std::vector<BYTE> Value(const std::u16string &below, const char16_t *name) {
    HKEY key;
    std::vector<BYTE> data(256);
    DWORD cb = static_cast<DWORD>(data.size());
    if (RegOpenKeyW(HKEY_LOCAL_MACHINE, (kPorts + below).c_str(), &key) != ERROR_SUCCESS) return {};
    LONG status = RegQueryValueExW(key, name, nullptr, nullptr, data.data(), &cb);
    RegCloseKey(key);
    if (status != ERROR_SUCCESS) return {};
    data.resize(cb);
    return data;
}

PortParam Param(const char16_t *server, char lptn, DWORD address, BYTE protocol) {
    PortParam p;
    std::memset(&p, 0, sizeof p);
    lstrcpyW(p.ServerName, server);
    p.Lptn = static_cast<BYTE>(lptn);
    p.IPAddress = address;
    p.Protocol = protocol;
    lstrcpyW(p.QueueName1, u"q-one");
    lstrcpyW(p.QueueName2, u"q-two");
    lstrcpyW(p.QueueName3, u"q-three");
    p.NodeID[5] = 9;
    return p;
}

std::vector<std::string> PortNames() {
    std::vector<std::string> names;
    for (PINIPORT p = PortListHead; p != nullptr; p = p->pNext) names.push_back(kvthost::Narrow(p->pName));
    return names;
}

TEST(PortTree, FiveSuffixesGoToFiveDigitKeysAndComeBack) {
    TestHost host;
    InitializePrintMonitor(nullptr);
    for (char digit = '1'; digit <= '5'; ++digit) {
        PortParam p = Param(u"Shop", digit, 0xC0A80201, 0);
        CreatePortRegistry(&p);
    }
    for (char16_t digit = u'1'; digit <= u'5'; ++digit) EXPECT_TRUE(KeyExists(u"\\Shop\\" + std::u16string(1, digit)));
    // Queue names only below the printer ports.
    EXPECT_EQ(Value(u"\\Shop\\2", u"QueueName").size(), 12u);  // "q-two" and its terminator
    EXPECT_TRUE(Value(u"\\Shop\\4", u"QueueName").empty());
    EXPECT_EQ(Value(u"\\Shop\\4", u" "), std::vector<BYTE>{0});

    kvttest::ResetMonitor();
    InitializePrintMonitor(nullptr);
    EXPECT_EQ(PortNames(), (std::vector<std::string>{"Shop-P1", "Shop-P2", "Shop-P3", "Shop-C1", "Shop-C2"}));
    EXPECT_EQ(PortListHead->pNext->pNext->pNext->Lptn, '4');

    for (const char16_t *name : {u"Shop-C2", u"Shop-P3", u"Shop-C1"}) DeletePortRegistry(name);
    EXPECT_TRUE(KeyExists(u"\\Shop\\1"));
    EXPECT_TRUE(KeyExists(u"\\Shop\\2"));
    EXPECT_FALSE(KeyExists(u"\\Shop\\3"));
    EXPECT_FALSE(KeyExists(u"\\Shop\\4"));
    EXPECT_FALSE(KeyExists(u"\\Shop\\5"));
}

TEST(PortTree, TheAddressIsStoredLittleEndianUnderNamesWithTheirBlanks) {
    TestHost host;
    InitializePrintMonitor(nullptr);
    PortParam p = Param(u"Lab", '1', 0xC0A80201, 2);
    CreatePortRegistry(&p);
    EXPECT_EQ(Value(u"\\Lab", u"IP    "), (std::vector<BYTE>{0x01, 0x02, 0xA8, 0xC0}));
    EXPECT_TRUE(Value(u"\\Lab", u"IP").empty()) << "the blanks are part of the name";
    EXPECT_EQ(Value(u"\\Lab", u"Network"), (std::vector<BYTE>{0, 0, 0, 0}));
    EXPECT_EQ(Value(u"\\Lab", u"Node Address"), (std::vector<BYTE>{0, 0, 0, 0, 0, 9}));
    EXPECT_EQ(Value(u"\\Lab\\1", u" "), std::vector<BYTE>{2});
    std::ifstream hive(kvthost::HivePath());
    std::stringstream text;
    text << hive.rdbuf();
    EXPECT_NE(text.str().find("\"IP    \"=hex:01,02,a8,c0"), std::string::npos);
    EXPECT_NE(text.str().find("\" \"=hex:02"), std::string::npos);
}

TEST(PortTree, TheLastPortTakesTheServerKeyWithIt) {
    TestHost host;
    InitializePrintMonitor(nullptr);
    PortParam one = Param(u"Hall", '1', 0x0A000001, 0), two = Param(u"Hall", '2', 0x0A000001, 0);
    CreatePortRegistry(&one);
    CreatePortRegistry(&two);
    DeletePortRegistry(u"Hall-P1");
    EXPECT_EQ(Value(u"\\Hall", u"IP    ").size(), 4u) << "the other port keeps the server's values";
    DeletePortRegistry(u"Hall-P2");
    EXPECT_FALSE(KeyExists(u"\\Hall"));
}

TEST(PortTree, DriverIsWrittenOnlyWithoutAProfile) {
    for (bool profile : {false, true}) {
        SCOPED_TRACE(profile);
        TestHost host;
        if (profile) std::ofstream(kvthost::MapPath(u"C:\\Windows\\KVTLPR.INI")) << "[General Information]\n";
        InitializePrintMonitor(nullptr);
        PortParam p = Param(u"Hall", '1', 1, 0);
        CreatePortRegistry(&p);
        HKEY key;
        ASSERT_EQ(RegOpenKeyW(HKEY_LOCAL_MACHINE,
                              u"System\\CurrentControlSet\\Control\\Print\\Monitors\\PrintServer Network Port", &key),
                  ERROR_SUCCESS);
        char16_t driver[32] = {};
        DWORD cb = sizeof driver;
        LONG status = RegQueryValueExW(key, u"Driver", nullptr, nullptr, reinterpret_cast<BYTE *>(driver), &cb);
        RegCloseKey(key);
        if (profile) {
            EXPECT_EQ(status, ERROR_FILE_NOT_FOUND);
        } else {
            ASSERT_EQ(status, ERROR_SUCCESS);
            EXPECT_EQ(std::u16string(driver), u"KVT64.DLL");
            EXPECT_EQ(cb, 20u);
        }
    }
}

TEST(PortTree, ASerialPortReadsTheSettingsOfThePrinterPortWithItsDigit) {
    TestHost host;
    kvttest::MakePortKeys(u"Desk", u'4', 0x0A000002, 1, nullptr);
    InitializePrintMonitor(nullptr);
    EXPECT_EQ(GetPrintProtocol(u"Desk-C1"), 0u) << "no key 1, though key 4 says IPX";
    char queue[QUEUE_NAME_BYTES];
    EXPECT_FALSE(GetPrintQueueName(u"Desk-C1", queue));
    kvttest::MakePortKeys(u"Desk", u'1', 0x0A000002, 4, u"lpt1");
    EXPECT_EQ(GetPrintProtocol(u"Desk-C1"), 4u);
    std::memset(queue, 'x', sizeof queue);
    ASSERT_TRUE(GetPrintQueueName(u"Desk-C1", queue));
    EXPECT_EQ(std::memcmp(queue, "lpt1", 5), 0) << "four bytes and a zero byte";
    EXPECT_EQ(std::u16string(QueueNameBuffer), u"lpt1");
}

// Each field of PortParam is taken within its own width, terminated or not:
// here every field is full to its last character, the last queue name up to
// the end of the block.
TEST(PortTree, EachFieldIsTakenWithinItsWidth) {
    TestHost host;
    InitializePrintMonitor(nullptr);
    PortParam p;
    std::memset(&p, 0, sizeof p);
    std::fill(std::begin(p.ServerName), std::end(p.ServerName), u'S');
    std::fill(std::begin(p.QueueName2), std::end(p.QueueName2), u'b');
    std::fill(std::begin(p.QueueName3), std::end(p.QueueName3), u'c');
    p.Lptn = '3';
    p.Protocol = 4;
    CreatePortRegistry(&p);
    const std::u16string server(47, u'S');
    std::vector<BYTE> queue = Value(u"\\" + server + u"\\3", u"QueueName");
    EXPECT_EQ(queue.size(), 64u) << "31 characters and the terminator";
    EXPECT_EQ(GetPrintProtocol((server + u"-P3").c_str()), 4u);
    EXPECT_EQ(std::u16string(QueueNameBuffer), std::u16string(31, u'c'));
}

// The queue name that the last lookup left for the configure dialog: the one
// stored, none (empty, whatever was there before), or a longer one cut to the
// buffer.  A name that can't be a port of the tree says so in the log.
TEST(PortTree, EachLookupLeavesItsQueueNameInTheBuffer) {
    TestHost host;
    const std::u16string longName(40, u'q');
    kvttest::MakePortKeys(u"PS1", u'1', 1, 2, u"laser");
    kvttest::MakePortKeys(u"PS1", u'2', 1, 2, nullptr);
    kvttest::MakePortKeys(u"PS1", u'3', 1, 2, longName.c_str());
    InitializePrintMonitor(nullptr);
    GetPrintProtocol(u"PS1-P1");
    EXPECT_EQ(std::u16string(QueueNameBuffer), u"laser");
    GetPrintProtocol(u"PS1-P2");
    EXPECT_EQ(std::u16string(QueueNameBuffer), u"");
    GetPrintProtocol(u"PS1-P3");
    EXPECT_EQ(std::u16string(QueueNameBuffer), longName.substr(0, 31));
    EXPECT_EQ(GetPrintProtocol(u"P1"), 0u);
    EXPECT_EQ(kvttest::LogLinesStartingWith("Leave GetPrintProtocol - not a port name of the tree").size(), 1u);
}

// Every name of the tree comes from the string table: with another text for
// string 1107 ("Ports") the ports live, are found and go under that key.
TEST(PortTree, TheTreesNamesComeFromTheStringTable) {
    TestHost host;
    std::vector<kvthost::StringResource> strings(kvt_module_resources.strings,
                                                 kvt_module_resources.strings + kvt_module_resources.stringCount);
    for (auto &s : strings)
        if (s.id == IDS_PORTS) s.text = u"Gates";
    const kvthost::ResourceTable renamed = {kvt_module_resources.moduleName, strings.data(), strings.size()};
    kvthost::RegisterModule(DllInstance, &renamed);
    InitializePrintMonitor(nullptr);
    PortParam p = Param(u"PS9", '1', 0x0A000009, 4);
    CreatePortRegistry(&p);
    const std::u16string gates =
        u"System\\CurrentControlSet\\Control\\Print\\Monitors\\PrintServer Network Port\\Gates\\PS9";
    HKEY key;
    EXPECT_EQ(RegOpenKeyW(HKEY_LOCAL_MACHINE, gates.c_str(), &key), ERROR_SUCCESS);
    RegCloseKey(key);
    EXPECT_EQ(GetPrintProtocol(u"PS9-P1"), 4u);
    char queue[QUEUE_NAME_BYTES];
    EXPECT_TRUE(GetPrintQueueName(u"PS9-P1", queue));
    EXPECT_STREQ(queue, "q-one");
    kvttest::ResetMonitor();
    InitializePrintMonitor(nullptr);
    EXPECT_EQ(PortNames(), std::vector<std::string>{"PS9-P1"});
    DeletePortRegistry(u"PS9-P1");
    EXPECT_NE(RegOpenKeyW(HKEY_LOCAL_MACHINE, gates.c_str(), &key), ERROR_SUCCESS);
    kvthost::RegisterModule(DllInstance, &kvt_module_resources);
}

TEST(PortTree, AServerNameTooLongForTheBufferEndsTheEnumeration) {
    TestHost host;
    kvttest::MakePortKeys(u"Alpha", u'1', 1, 0, nullptr);
    kvttest::MakePortKeys(std::u16string(u"B") + std::u16string(47, u'x'), u'1', 1, 0, nullptr);
    kvttest::MakePortKeys(u"Zulu", u'1', 1, 0, nullptr);
    InitializePrintMonitor(nullptr);
    EXPECT_EQ(PortNames(), std::vector<std::string>{"Alpha-P1"});
}

class Enumeration : public ::testing::Test {
protected:
    void SetUp() override {
        host_ = std::make_unique<TestHost>();
        kvttest::MakePortKeys(u"PS1", u'1', 1, 0, nullptr);
        kvttest::MakePortKeys(u"PS1", u'5', 1, 0, nullptr);
        kvttest::MakePortKeys(u"Lobby", u'2', 2, 0, nullptr);
        InitializePrintMonitor(nullptr);
    }
    std::unique_ptr<TestHost> host_;
};

TEST_F(Enumeration, SizesAreExactAndOneByteShortIsRefused) {
    // Level 1: 8 bytes and the name; level 2: 32 bytes and three strings.
    const DWORD level1 = 3 * 8 + 2 * (9 + 7 + 7);
    const DWORD level2 = 3 * 32 + 2 * (9 + 7 + 7) + 3 * 2 * 2 * 25;
    for (auto [level, size] : {std::pair<DWORD, DWORD>{1, level1}, {2, level2}}) {
        SCOPED_TRACE(level);
        std::vector<BYTE> buffer(size + 16, 0xCD);
        DWORD needed = kSentinel, returned = kSentinel;
        SetLastError(kSentinel);
        EXPECT_FALSE(LocalmonEnumPorts(nullptr, level, buffer.data(), size - 1, &needed, &returned));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
        EXPECT_EQ(needed, size);
        EXPECT_EQ(returned, kSentinel);
        EXPECT_EQ(buffer[0], 0xCD) << "nothing written";
        ASSERT_TRUE(LocalmonEnumPorts(nullptr, level, buffer.data(), size, &needed, &returned));
        EXPECT_EQ(returned, 3u);
        EXPECT_EQ(buffer[size], 0xCD) << "nothing past the size given";
    }
}

TEST_F(Enumeration, RecordsFromTheFrontStringsFromTheBack) {
    const DWORD size = 3 * 32 + 2 * (9 + 7 + 7) + 3 * 2 * 2 * 25;
    std::vector<BYTE> buffer(size);
    DWORD needed = 0, returned = 0;
    ASSERT_TRUE(LocalmonEnumPorts(nullptr, 2, buffer.data(), size, &needed, &returned));
    auto *info = reinterpret_cast<PORT_INFO_2W *>(buffer.data());
    // The list's order is the tree's: Lobby before PS1, digits in order.
    EXPECT_EQ(std::u16string(info[0].pPortName), u"Lobby-P2");
    EXPECT_EQ(std::u16string(info[1].pPortName), u"PS1-P1");
    EXPECT_EQ(std::u16string(info[2].pPortName), u"PS1-C2");
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

TEST_F(Enumeration, LevelZeroCountsAndOtherLevelsAreRefused) {
    DWORD needed = kSentinel, returned = kSentinel;
    BYTE byte = 0xCD;
    EXPECT_TRUE(LocalmonEnumPorts(nullptr, 0, &byte, 0, &needed, &returned));
    EXPECT_EQ(needed, 0u);
    EXPECT_EQ(returned, 3u);
    EXPECT_EQ(byte, 0xCD);
    needed = returned = kSentinel;
    SetLastError(kSentinel);
    EXPECT_FALSE(LocalmonEnumPorts(nullptr, 3, &byte, 1, &needed, &returned));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_LEVEL));
    EXPECT_EQ(needed, kSentinel);
    EXPECT_EQ(returned, kSentinel);
}

TEST_F(Enumeration, NothingReachesTheLogAndTheFlagIsBackAfterwards) {
    ASSERT_EQ(IsDEBUG, 1);
    std::string before = kvttest::ReadLog();
    DWORD needed = 0, returned = 0;
    LocalmonEnumPorts(nullptr, 1, nullptr, 0, &needed, &returned);
    std::vector<BYTE> buffer(needed);
    EXPECT_TRUE(LocalmonEnumPorts(nullptr, 1, buffer.data(), needed, &needed, &returned));
    EXPECT_EQ(kvttest::ReadLog(), before);
    EXPECT_EQ(IsDEBUG, 1);
}

TEST(EmptyList, EnumeratesToNothing) {
    TestHost host;
    InitializePrintMonitor(nullptr);
    for (DWORD level : {1u, 2u}) {
        DWORD needed = kSentinel, returned = kSentinel;
        EXPECT_TRUE(LocalmonEnumPorts(nullptr, level, nullptr, 0, &needed, &returned));
        EXPECT_EQ(needed, 0u);
        EXPECT_EQ(returned, 0u);
    }
}

TEST_F(Enumeration, DeletingByANameInOtherCaseRemovesRecordAndKey) {
    SetLastError(kSentinel);
    EXPECT_TRUE(LocalmonDeletePort(nullptr, nullptr, const_cast<LPWSTR>(u"ps1-c2")));
    EXPECT_EQ(PortNames(), (std::vector<std::string>{"Lobby-P2", "PS1-P1"}));
    EXPECT_FALSE(KeyExists(u"\\PS1\\5"));
    EXPECT_TRUE(KeyExists(u"\\PS1\\1"));
    EXPECT_NE(kvttest::ReadLog().find("PortName = ps1-c2"), std::string::npos)
        << "the tree is given the name as the caller wrote it";
    SetLastError(kSentinel);
    EXPECT_FALSE(LocalmonDeletePort(nullptr, nullptr, const_cast<LPWSTR>(u"PS1-P3")));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_UNKNOWN_PORT));
    EXPECT_FALSE(LocalmonDeletePort(nullptr, nullptr, nullptr));
    EXPECT_TRUE(KeyExists(u"\\PS1\\1")) << "a failed delete leaves the tree alone";
    // After a restart the deleted port stays gone.
    kvttest::ResetMonitor();
    InitializePrintMonitor(nullptr);
    EXPECT_EQ(PortNames(), (std::vector<std::string>{"Lobby-P2", "PS1-P1"}));
}

}  // namespace
