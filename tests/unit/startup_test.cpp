// Start-up: names and flags from the profile and the registry, the records
// from the port tree, the host's transports, and the port list's lookups.
#include <gtest/gtest.h>

#include <fstream>

#include "fixture.h"
#include "portstore.h"

namespace {

using kvttest::HostOptions;
using kvttest::TestHost;

std::string Narrow(const WCHAR *s) { return kvthost::Narrow(s); }

TEST(Startup, WithoutAProfileTheMonitorIsPrintServerNetworkPort) {
    TestHost host;
    InitializePrintMonitor(nullptr);
    EXPECT_EQ(Narrow(DeviceDesc), "PrintServer");
    EXPECT_EQ(Narrow(VendorDesc), "");
    EXPECT_EQ(Narrow(MonitorName), "PrintServer Network Port");
    EXPECT_EQ(ProfileFound, 0);
    EXPECT_EQ(SupportProtocol, PROTOCOL_TCPIP);
    std::vector<std::string> lines = kvttest::LogLines();
    ASSERT_GE(lines.size(), 5u);
    EXPECT_EQ(lines[0], "OS type : Windows NT/2000");
    EXPECT_EQ(lines[1], "Windows path : C:\\Windows");
    EXPECT_EQ(lines[2], "Load driver : KVT64.DLL");
    EXPECT_EQ(lines[3], " success");
    EXPECT_EQ(lines[4], "DLL version: 4.1.0.0");
}

TEST(Startup, TheProfileNamesTheDeviceAndALongNameIsCut) {
    TestHost host;
    std::ofstream(kvthost::MapPath(u"C:\\Windows\\KVTLPR.INI"))
        << "[General Information]\nVendorDesc = Acme\nDeviceDesc=Acme LaserBox Twelve\n";
    InitializePrintMonitor(nullptr);
    EXPECT_EQ(ProfileFound, 1);
    EXPECT_EQ(Narrow(VendorDesc), "Acme");
    EXPECT_EQ(Narrow(DeviceDesc), "Acme LaserBox Twelve");
    // 20 characters, a blank and "Network Port" would be 33: the name keeps 31.
    EXPECT_EQ(Narrow(MonitorName), "Acme LaserBox Twelve Network Po");
    EXPECT_EQ(kvttest::LogLinesStartingWith("Open profile : C:\\Windows\\KVTLPR.INI").size(), 1u);
}

TEST(Startup, MissingFlagsAreWrittenAsZeroAndTheLogStops) {
    HostOptions options;
    options.monitorKey = false;
    TestHost host(options);
    RegCloseKey([] {
        HKEY key;
        RegCreateKeyW(HKEY_LOCAL_MACHINE,
                      u"System\\CurrentControlSet\\Control\\Print\\Monitors\\PrintServer Network Port", &key);
        return key;
    }());
    InitializePrintMonitor(nullptr);
    EXPECT_EQ(IsDEBUG, 0);
    EXPECT_EQ(IsNOTIFY, 0);
    HKEY key;
    ASSERT_EQ(RegOpenKeyW(HKEY_LOCAL_MACHINE,
                          u"System\\CurrentControlSet\\Control\\Print\\Monitors\\PrintServer Network Port", &key),
              ERROR_SUCCESS);
    BYTE value = 0xFF;
    DWORD type = 0, cb = 1;
    EXPECT_EQ(RegQueryValueExW(key, u"IsDEBUG", nullptr, &type, &value, &cb), ERROR_SUCCESS);
    EXPECT_EQ(type, static_cast<DWORD>(REG_BINARY));
    EXPECT_EQ(value, 0);
    RegCloseKey(key);
    std::vector<std::string> lines = kvttest::LogLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "Disable DEBUG mode") << "nothing after it";
    EXPECT_TRUE(kvthost::MessageBoxes().empty());
}

// A flag is written anew as one byte 0 only when its query fails: the value is
// missing, or longer than one byte.  An empty value reads as 0 and stays.
TEST(Startup, OnlyAFlagThatCannotBeReadIsWrittenAnew) {
    struct Case {
        const char *name;
        std::vector<BYTE> stored;  // {0xEE}: no value at all
        BYTE flag;
        std::vector<BYTE> after;
    };
    const Case cases[] = {{"missing", {0xEE}, 0, {0}},
                          {"empty", {}, 0, {}},
                          {"one byte", {1}, 1, {1}},
                          {"two bytes", {1, 1}, 0, {0}}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        HostOptions options;
        options.monitorKey = false;
        TestHost host(options);
        const char16_t *path = u"System\\CurrentControlSet\\Control\\Print\\Monitors\\PrintServer Network Port";
        HKEY key;
        ASSERT_EQ(RegCreateKeyW(HKEY_LOCAL_MACHINE, path, &key), ERROR_SUCCESS);
        BYTE zero = 0;
        RegSetValueExW(key, u"IsDEBUG", 0, REG_BINARY, &zero, 1);
        if (c.stored != std::vector<BYTE>{0xEE})
            RegSetValueExW(key, u"IsNOTIFY", 0, REG_BINARY, c.stored.data(), static_cast<DWORD>(c.stored.size()));
        RegCloseKey(key);
        InitializePrintMonitor(nullptr);
        EXPECT_EQ(IsNOTIFY, c.flag);
        ASSERT_EQ(RegOpenKeyW(HKEY_LOCAL_MACHINE, path, &key), ERROR_SUCCESS);
        BYTE value[8];
        DWORD cb = sizeof value;
        ASSERT_EQ(RegQueryValueExW(key, u"IsNOTIFY", nullptr, nullptr, value, &cb), ERROR_SUCCESS);
        EXPECT_EQ(std::vector<BYTE>(value, value + cb), c.after);
        RegCloseKey(key);
    }
}

// A second start-up keeps the records of the first (a job or a handle may use
// them) and adds only the ports that the tree has and the list lacks.
TEST(Startup, ASecondStartUpAddsNoPortTwice) {
    TestHost host;
    kvttest::MakePortKeys(u"PS1", u'1', 0x7F000002, 0, nullptr);
    InitializePrintMonitor(nullptr);
    PINIPORT first = PortListHead;
    kvttest::MakePortKeys(u"PS2", u'2', 0x7F000003, 0, nullptr);
    InitializePrintMonitor(nullptr);
    std::vector<std::string> names;
    for (PINIPORT p = PortListHead; p != nullptr; p = p->pNext) names.push_back(Narrow(p->pName));
    EXPECT_EQ(names, (std::vector<std::string>{"PS1-P1", "PS2-P2"}));
    EXPECT_EQ(PortListHead, first);
}

// Without the system folder there is nowhere to log: no file is written at
// the root of the drive instead.
TEST(Startup, WithoutASystemFolderNothingIsLogged) {
    TestHost host;
    kvthost::SetSystemDirectoryFails(true);
    InitializePrintMonitor(nullptr);
    EXPECT_FALSE(std::ifstream(kvthost::MapPath(u"C:\\KVTLOG")).good());
    EXPECT_FALSE(std::ifstream(kvthost::MapPath(u"C:\\Windows\\System32\\KVTLOG")).good());
}

TEST(Startup, WithoutTheMonitorKeyTheLogStaysOnAndSaysSo) {
    HostOptions options;
    options.monitorKey = false;
    TestHost host(options);
    InitializePrintMonitor(nullptr);
    EXPECT_EQ(IsDEBUG, 1);
    auto boxes = kvthost::MessageBoxes();
    ASSERT_EQ(boxes.size(), 1u);
    EXPECT_EQ(boxes[0].text, u"Starting DEBUG mode");
    EXPECT_EQ(boxes[0].caption, u"DEBUG");
    EXPECT_EQ(kvttest::LogLinesStartingWith("Can't open registry:IsDEBUG").size(), 1u);
}

TEST(Startup, IsNotifyKeepsItsStoredValue) {
    HostOptions options;
    options.notify = 2;
    TestHost host(options);
    InitializePrintMonitor(nullptr);
    EXPECT_EQ(IsNOTIFY, 2);
}

TEST(Startup, AnOldLogIsGoneAfterStartUp) {
    TestHost host;
    std::ofstream(kvthost::MapPath(u"C:\\Windows\\System32\\KVTLOG")) << "old line from before\n";
    InitializePrintMonitor(nullptr);
    EXPECT_EQ(kvttest::ReadLog().find("old line"), std::string::npos);
}

TEST(Startup, TcpipNeedsAReadableImagePath) {
    HostOptions options;
    options.tcpip = false;
    options.ipx = true;
    TestHost host(options);
    HKEY key;
    RegCreateKeyW(HKEY_LOCAL_MACHINE, u"SYSTEM\\CurrentControlSet\\Services\\Tcpip", &key);
    RegCloseKey(key);
    EXPECT_EQ(GetProtocol(), PROTOCOL_IPX);
}

TEST(Startup, RecordsComeFromThePortTreeInKeyOrder) {
    TestHost host;
    kvttest::MakePortKeys(u"Zeta", u'2', 0xC0A80201, 0, nullptr);
    kvttest::MakePortKeys(u"alpha", u'5', 0x0A000001, 0, nullptr);
    kvttest::MakePortKeys(u"alpha", u'1', 0x0A000001, 0, nullptr);
    InitializePrintMonitor(nullptr);
    std::vector<std::string> names;
    for (PINIPORT p = PortListHead; p != nullptr; p = p->pNext) names.push_back(Narrow(p->pName));
    EXPECT_EQ(names, (std::vector<std::string>{"alpha-P1", "alpha-C2", "Zeta-P2"}));
    PINIPORT zeta = PortListHead->pNext->pNext;
    EXPECT_EQ(zeta->IPAddress, 0xC0A80201u) << "stored as 01 02 A8 C0, read as 192.168.2.1";
    EXPECT_EQ(zeta->Lptn, '2');
    EXPECT_EQ(zeta->Socket, INVALID_SOCKET);
    EXPECT_EQ(Narrow(zeta->pDeviceDesc), "PrintServer Network Port");
}

TEST(PortList, LookupsIgnoreCaseAndRefuseEmptyNames) {
    TestHost host;
    kvttest::MakePortKeys(u"PS1", u'1', 0x7F000002, 0, nullptr);
    InitializePrintMonitor(nullptr);
    HANDLE first = nullptr, second = nullptr, untouched = reinterpret_cast<HANDLE>(0x1234);
    EXPECT_TRUE(LocalmonOpenPort(const_cast<LPWSTR>(u"ps1-p1"), &first));
    EXPECT_TRUE(LocalmonOpenPort(const_cast<LPWSTR>(u"PS1-P1"), &second));
    EXPECT_EQ(first, second);
    EXPECT_EQ(first, PortListHead);
    SetLastError(kSentinel);
    EXPECT_FALSE(LocalmonOpenPort(const_cast<LPWSTR>(u""), &untouched));
    EXPECT_FALSE(LocalmonOpenPort(nullptr, &untouched));
    EXPECT_FALSE(LocalmonOpenPort(const_cast<LPWSTR>(u"PS1-P2"), &untouched));
    EXPECT_EQ(untouched, reinterpret_cast<HANDLE>(0x1234));
    EXPECT_EQ(GetLastError(), kSentinel) << "not found sets no last error";
}

TEST(PortList, ANetworkNumberPassedInIsIgnored) {
    TestHost host;
    InitializePrintMonitor(nullptr);
    BYTE net[4] = {1, 2, 3, 4}, node[6] = {0, 0, 0x7F, 0, 0, 2};
    PINIPORT p = CreateMonitorPortEntry(u"X-P1", u"desc", 5, net, node, '1');
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::vector<BYTE>(p->NetNum, p->NetNum + 4), std::vector<BYTE>(4, 0));
    EXPECT_EQ(std::vector<BYTE>(p->NodeID, p->NodeID + 6), std::vector<BYTE>(node, node + 6));
    EXPECT_EQ(p->signature, static_cast<DWORD>(INIPORT_SIGNATURE));
    EXPECT_EQ(p->cb, sizeof(IniPort) + 2 * (5 + 5));
}

TEST(Stubs, UnsupportedEntriesAnswerAsTheyShould) {
    TestHost host;
    InitializePrintMonitor(nullptr);
    DWORD read = kSentinel;
    SetLastError(kSentinel);
    EXPECT_TRUE(LocalmonReadPort(nullptr, nullptr, 0, &read));
    EXPECT_EQ(read, 0u);
    EXPECT_FALSE(LocalmonAddPortEx(nullptr, 1, nullptr, nullptr));
    EXPECT_FALSE(LocalmonGetPrinterDataFromPort(nullptr, 0, nullptr, nullptr, 0, nullptr, 0, nullptr));
    EXPECT_FALSE(LocalmonSetPortTimeOuts(nullptr, nullptr, 0));
    EXPECT_EQ(GetLastError(), kSentinel) << "the stubs that refuse set no last error";
}

}  // namespace

extern const kvthost::ResourceTable kvt_module_resources;

namespace {

TEST(Startup, ARenamedLibraryStillFindsItsStrings) {
    TestHost host;
    // The module registered under another file name: no module is called KVT64.DLL.
    static const kvthost::StringResource strings[] = {{1006, u"PrintServer"}, {1103, u"Network Port"},
                                                      {1100, u"System\\CurrentControlSet\\Control\\Print\\Monitors"}};
    static const kvthost::ResourceTable renamed = {u"KVTOLD.DLL", strings, 3};
    kvthost::RegisterModule(DllInstance, &renamed);
    InitializePrintMonitor(nullptr);
    EXPECT_EQ(ResourceModule, nullptr);
    EXPECT_EQ(kvttest::LogLinesStartingWith(" fail").size(), 1u);
    EXPECT_EQ(Narrow(MonitorName), "PrintServer Network Port");
    kvthost::RegisterModule(DllInstance, &kvt_module_resources);
}

TEST(PortList, DeletingAPortThatIsNotThereSaysSoWithTheLogOn) {
    TestHost host;
    kvttest::MakePortKeys(u"PS1", u'1', 0x7F000002, 0, nullptr);
    InitializePrintMonitor(nullptr);
    ASSERT_EQ(IsDEBUG, 1);
    SetLastError(kSentinel);
    EXPECT_FALSE(LocalmonDeletePort(nullptr, nullptr, const_cast<LPWSTR>(u"PS1-P2")));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_UNKNOWN_PORT)) << "the log's own calls keep it";
    EXPECT_NE(PortListHead, nullptr);
}

}  // namespace

namespace {

TEST(PortList, AppendingAfterDeletesKeepsCreationOrder) {
    TestHost host;
    InitializePrintMonitor(nullptr);
    auto names = [] {
        std::vector<std::string> out;
        for (PINIPORT p = PortListHead; p != nullptr; p = p->pNext) out.push_back(Narrow(p->pName));
        return out;
    };
    BYTE zero[6] = {};
    for (const char16_t *n : {u"A-P1", u"B-P1", u"C-P1"}) CreateMonitorPortEntry(n, u"d", 1, zero, zero, '1');
    EnterCriticalSection(&PortListLock);
    EXPECT_TRUE(DeleteMonitorPortEntry(u"C-P1"));  // the last
    LeaveCriticalSection(&PortListLock);
    CreateMonitorPortEntry(u"D-P1", u"d", 1, zero, zero, '1');
    EXPECT_EQ(names(), (std::vector<std::string>{"A-P1", "B-P1", "D-P1"}));
    EnterCriticalSection(&PortListLock);
    for (const char16_t *n : {u"A-P1", u"D-P1", u"B-P1"}) EXPECT_TRUE(DeleteMonitorPortEntry(n));
    LeaveCriticalSection(&PortListLock);
    EXPECT_EQ(PortListHead, nullptr);
    CreateMonitorPortEntry(u"E-P1", u"d", 1, zero, zero, '1');
    CreateMonitorPortEntry(u"F-P1", u"d", 1, zero, zero, '1');
    EXPECT_EQ(names(), (std::vector<std::string>{"E-P1", "F-P1"}));
}

}  // namespace
