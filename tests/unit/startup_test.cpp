// Start-up: names and flags from the profile and the registry, the records
// from the port tree, the host's transports, and the port list's lookups.
#include <gtest/gtest.h>

#include <fstream>

#include "fixture.h"
#include "portstore.h"

extern const kvthost::ResourceTable kvt_module_resources;

namespace {

using namespace kvttest;
using Startup = MonitorTest;
using PortList = MonitorTest;

std::string Narrow(const WCHAR *s) { return kvthost::Narrow(s); }

// Without a profile the monitor is PrintServer Network Port and a port's
// registry takes Driver; the profile names the device, and no Driver is written.
TEST_F(Startup, TheProfileNamesTheDeviceAndDriverIsWrittenOnlyWithoutOne) {
    for (bool profile : {false, true}) {
        SCOPED_TRACE(profile);
        StartHost({}, [&] {
            if (profile)
                std::ofstream(kvthost::MapPath(u"C:\\Windows\\KVTLPR.INI"))
                    << "[General Information]\nVendorDesc = Acme\nDeviceDesc=Acme LaserBox Twelve\n";
        });
        const PortParam p{u"Hall", 0, '1', {}, {}, 0, u"", u"", u""};
        CreatePortRegistry(&p);
        EXPECT_EQ(ProfileFound, profile ? 1 : 0);
        EXPECT_EQ(Narrow(VendorDesc), profile ? "Acme" : "");
        EXPECT_EQ(Narrow(DeviceDesc), profile ? "Acme LaserBox Twelve" : "PrintServer");
        // 20 characters, a blank and "Network Port" would be 33: the name keeps 31.
        EXPECT_EQ(Narrow(MonitorName), profile ? "Acme LaserBox Twelve Network Po" : "PrintServer Network Port");
        EXPECT_EQ(LogCount("Open profile : C:\\Windows\\KVTLPR.INI"), profile ? 1u : 0u);
        const auto driver = Value(kMonitorKey, u"Driver");
        const auto *text = driver ? reinterpret_cast<const char16_t *>(driver->data()) : u"-";
        const std::u16string kvt64(u"KVT64.DLL", 10);  // and its terminator
        EXPECT_EQ(std::u16string(text, driver ? driver->size() / 2 : 1), profile ? u"-" : kvt64);
    }
}

// A flag is written anew as one byte 0 only when its query fails: the value is
// missing, or longer than one byte.  An empty value reads as 0 and stays.
// With IsDEBUG 0 the log stops at the line that says so.
TEST_F(Startup, OnlyAFlagThatCannotBeReadIsWrittenAnew) {
    const std::vector<BYTE> kMissing = {0xEE};
    const struct {
        const char *name;
        std::vector<BYTE> debug, notify;  // as stored
        BYTE flag;
        std::vector<BYTE> after;  // IsNOTIFY
    } cases[] = {{"missing", kMissing, kMissing, 0, {0}}, {"empty", {0}, {}, 0, {}},
                 {"one byte", {0}, {2}, 2, {2}},          {"two bytes", {0}, {1, 1}, 0, {0}}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        StartHost({.monitorKey = false}, [&] {
            SetValue(kMonitorKey, nullptr, 0, nullptr, 0);
            if (c.debug != kMissing) SetValue(kMonitorKey, u"IsDEBUG", REG_BINARY, c.debug.data(), c.debug.size());
            if (c.notify != kMissing) SetValue(kMonitorKey, u"IsNOTIFY", REG_BINARY, c.notify.data(), c.notify.size());
        });
        EXPECT_EQ(IsDEBUG, 0);
        EXPECT_EQ(IsNOTIFY, c.flag);
        DWORD debugType = 0, notifyType = 0;
        EXPECT_EQ(Value(kMonitorKey, u"IsDEBUG", &debugType), std::vector<BYTE>{0});
        EXPECT_EQ(Value(kMonitorKey, u"IsNOTIFY", &notifyType), c.after);
        EXPECT_TRUE(debugType == REG_BINARY && notifyType == REG_BINARY);
        EXPECT_EQ(LastLogLine(), "Disable DEBUG mode") << "nothing after it";
        EXPECT_TRUE(kvthost::MessageBoxes().empty());
    }
}

TEST_F(Startup, WithoutTheMonitorKeyTheLogStaysOnAndSaysSo) {
    StartHost({.monitorKey = false});
    EXPECT_EQ(IsDEBUG, 1);
    auto boxes = kvthost::MessageBoxes();
    ASSERT_EQ(boxes.size(), 1u);
    EXPECT_TRUE(boxes[0].text == u"Starting DEBUG mode" && boxes[0].caption == u"DEBUG");
    EXPECT_EQ(LogCount("Can't open registry:IsDEBUG"), 1u);
}

// The debug box where someone sees it: on the process's desktop, or, from the
// services' session 0, sent to the console session without waiting.  With no
// console session it is not shown at all; the start goes on either way.
TEST_F(Startup, TheDebugBoxNeverWaitsInTheServicesSession) {
    const struct {
        DWORD own, console;
        long shownIn;         // -1: a box of the process; 0: none
        const char *logLine;  // before "Starting DEBUG mode"
    } cases[] = {{1, 1, -1, "OS type"}, {0, 2, 2, "Session 0: box sent to session 2"},
                 {0, 0xFFFFFFFF, 0, "Session 0: box not shown, no console session"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.own * 10 + c.console);
        StartHost({}, [&] {
            kvthost::SetSessions(c.own, c.console);
            BYTE on = 1;
            SetValue(kMonitorKey, u"IsDEBUG", REG_BINARY, &on, 1);
        });
        auto boxes = kvthost::MessageBoxes();
        ASSERT_EQ(boxes.size(), c.shownIn != 0 ? 1u : 0u);
        if (!boxes.empty()) {
            EXPECT_EQ(boxes[0].text + u"|" + boxes[0].caption, u"Starting DEBUG mode|DEBUG");
            EXPECT_EQ(boxes[0].session, c.shownIn);
            EXPECT_EQ(boxes[0].waited, c.shownIn == -1);
            EXPECT_EQ(boxes[0].timeoutSeconds, c.shownIn == -1 ? 0u : unsigned(SESSION_BOX_SECONDS));
        }
        EXPECT_EQ(LogCount(c.logLine), 1u);
        EXPECT_EQ(LogCount("Starting DEBUG mode"), 1u);
    }
}

// A second start-up keeps the records of the first (a job or a handle may use
// them) and adds only the ports that the tree has and the list lacks.
TEST_F(Startup, ASecondStartUpAddsNoPortTwice) {
    StartHost({}, [] { MakePortKeys(u"PS1", u'1', 0x7F000002, 0, nullptr); });
    PINIPORT first = PortListHead;
    MakePortKeys(u"PS2", u'2', 0x7F000003, 0, nullptr);
    InitializePrintMonitor(nullptr);
    EXPECT_EQ(PortNames(), (std::vector<std::string>{"PS1-P1", "PS2-P2"}));
    EXPECT_EQ(PortListHead, first);
}

// Without the system folder there is nowhere to log: no file is written at
// the root of the drive instead.
TEST_F(Startup, WithoutASystemFolderNothingIsLogged) {
    StartHost({}, [] { kvthost::SetSystemDirectoryFails(true); });
    EXPECT_FALSE(std::ifstream(kvthost::MapPath(u"C:\\KVTLOG")).good());
    EXPECT_FALSE(std::ifstream(kvthost::MapPath(u"C:\\Windows\\System32\\KVTLOG")).good());
}

TEST_F(Startup, AnOldLogIsGoneAfterStartUp) {
    StartHost({}, [] { std::ofstream(kvthost::MapPath(u"C:\\Windows\\System32\\KVTLOG")) << "old line\n"; });
    EXPECT_EQ(ReadLog().find("old line"), std::string::npos);
}

TEST_F(Startup, TcpipNeedsAReadableImagePath) {
    // The key is there, without its ImagePath.
    StartHost({.tcpip = false, .ipx = true},
              [] { SetValue(u"SYSTEM\\CurrentControlSet\\Services\\Tcpip", nullptr, 0, nullptr, 0); });
    EXPECT_EQ(GetProtocol(), PROTOCOL_IPX);
}

TEST_F(Startup, ARenamedLibraryStillFindsItsStrings) {
    // The module registered under another file name: no module is called KVT64.DLL.
    static const kvthost::StringResource strings[] = {{1006, u"PrintServer"}, {1103, u"Network Port"},
                                                      {1100, u"System\\CurrentControlSet\\Control\\Print\\Monitors"}};
    static const kvthost::ResourceTable renamed = {u"KVTOLD.DLL", strings, 3};
    StartHost({}, [] { kvthost::RegisterModule(DllInstance, &renamed); });
    kvthost::RegisterModule(DllInstance, &kvt_module_resources);
    EXPECT_EQ(ResourceModule, nullptr);
    EXPECT_EQ(LogCount(" fail"), 1u);
    EXPECT_EQ(Narrow(MonitorName), "PrintServer Network Port");
}

TEST_F(PortList, LookupsIgnoreCaseAndRefuseEmptyNames) {
    StartHost({}, [] { MakePortKeys(u"PS1", u'1', 0x7F000002, 0, nullptr); });
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

// A network number passed in is never stored; the node is.
TEST_F(PortList, AppendingAfterDeletesKeepsCreationOrder) {
    StartHost();
    BYTE net[6] = {1, 2, 3, 4}, node[6] = {0, 0, 0x7F, 0, 0, 2};
    auto add = [&](const char16_t *name) {
        PINIPORT p = CreateMonitorPortEntry(name, u"d", 1, net, node, '1');
        EXPECT_TRUE(p != nullptr && std::memcmp(p->NetNum, "\0\0\0", 4) == 0 && std::memcmp(p->NodeID, node, 6) == 0);
    };
    auto remove = [](std::initializer_list<const char16_t *> names) {
        EnterCriticalSection(&PortListLock);
        for (const char16_t *n : names) EXPECT_TRUE(DeleteMonitorPortEntry(n));
        LeaveCriticalSection(&PortListLock);
    };
    for (const char16_t *n : {u"A-P1", u"B-P1", u"C-P1"}) add(n);
    remove({u"C-P1"});  // the last
    add(u"D-P1");
    EXPECT_EQ(PortNames(), (std::vector<std::string>{"A-P1", "B-P1", "D-P1"}));
    remove({u"A-P1", u"D-P1", u"B-P1"});
    EXPECT_EQ(PortListHead, nullptr);
    add(u"E-P1");
    add(u"F-P1");
    EXPECT_EQ(PortNames(), (std::vector<std::string>{"E-P1", "F-P1"}));
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
