#include "monitor_host.h"

#include <stdlib.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "debuglog.h"
#include "kvthost.h"
#include "kvtnetbios.h"
#include "monitor.h"
#include "nbstartup.h"

namespace kvttest {

namespace {

void SetValue(HKEY key, const char16_t *name, DWORD type, const void *data, DWORD size) {
    RegSetValueExW(key, name, 0, type, static_cast<const BYTE *>(data), size);
}

HKEY Create(const std::u16string &path) {
    HKEY key = nullptr;
    RegCreateKeyW(HKEY_LOCAL_MACHINE, path.c_str(), &key);
    return key;
}

const std::u16string kMonitorKey = u"System\\CurrentControlSet\\Control\\Print\\Monitors\\PrintServer Network Port";

}  // namespace

TestHost::TestHost(const HostOptions &o) {
    char dir[] = "/tmp/kvt-test-XXXXXX";
    prefix = mkdtemp(dir);
    kvthost::SetPrefix(prefix);
    std::string error;
    kvthost::MakePrefix(&error);
    kvthost::ResetRegistry();
    kvthost::ResetSpooler();
    kvthost::ClearMessageBoxes();
    kvthost::SetMessageBoxHandler(nullptr);
    kvthost::SetUiDriver(nullptr);
    kvthost::ClearForegroundCalls();
    kvthost::SetUserNameFails(false);
    kvthost::RevertToSelf();
    kvthost::SetComputerName("");
    kvthost::SetSystemDirectoryFails(false);
    kvthost::SetNetbiosLanas({});
    kvthost::SetNetbiosHook(nullptr);
    kvthost::SetTimeScale(o.timeScale);
    if (o.tcpip) {
        HKEY key = Create(u"SYSTEM\\CurrentControlSet\\Services\\Tcpip");
        std::u16string image = u"\\SystemRoot\\System32\\drivers\\tcpip.sys";
        SetValue(key, u"ImagePath", REG_EXPAND_SZ, image.c_str(), static_cast<DWORD>((image.size() + 1) * 2));
        RegCloseKey(key);
    }
    if (o.ipx) RegCloseKey(Create(u"SYSTEM\\CurrentControlSet\\Services\\NwlnkIpx"));
    if (o.netbios) RegCloseKey(Create(u"SYSTEM\\CurrentControlSet\\Services\\Nbf"));
    if (o.monitorKey) {
        HKEY key = Create(kMonitorKey);
        BYTE debug = o.debug ? 1 : 0, notify = static_cast<BYTE>(o.notify);
        SetValue(key, u"IsDEBUG", REG_BINARY, &debug, 1);
        SetValue(key, u"IsNOTIFY", REG_BINARY, &notify, 1);
        RegCloseKey(key);
    }
    ResetMonitor();
}

TestHost::~TestHost() {
    ResetMonitor();
    kvthost::SetMessageBoxHandler(nullptr);
    kvthost::SetUiDriver(nullptr);
    kvthost::SetSpoolerHook(nullptr);
    kvthost::SetSystemDirectoryFails(false);
    kvthost::SetTimeScale(1.0);
    std::error_code ec;
    std::filesystem::remove_all(prefix, ec);
}

void MakePortKeys(const std::u16string &server, char16_t digitKey, uint32_t address, uint8_t protocol,
                  const char16_t *queue) {
    std::u16string serverPath = kMonitorKey + u"\\Ports\\" + server;
    HKEY s = Create(serverPath);
    BYTE zero[6] = {};
    SetValue(s, u"IP    ", REG_BINARY, &address, 4);
    SetValue(s, u"Network", REG_BINARY, zero, 4);
    SetValue(s, u"Node Address", REG_BINARY, zero, 6);
    RegCloseKey(s);
    HKEY d = Create(serverPath + u"\\" + digitKey);
    SetValue(d, u" ", REG_BINARY, &protocol, 1);
    if (queue != nullptr) {
        std::u16string q = queue;
        SetValue(d, u"QueueName", REG_SZ, q.c_str(), static_cast<DWORD>((q.size() + 1) * 2));
    }
    RegCloseKey(d);
}

void ResetMonitor() {
    while (PortListHead != nullptr) {
        PINIPORT next = PortListHead->pNext;
        LocalFree(PortListHead);
        PortListHead = next;
    }
    SupportProtocol = 0;
    bStartup = FALSE;
    for (NCB *t : {&WorkingNcb, &PortNcb1, &PortNcb2, &PortNcb3}) memset(t, 0, sizeof *t);
    AddPortBusy = FALSE;
    IsNOTIFY = 0;
    IsDEBUG = 0;
    ProfileFound = 0;
    VendorDesc[0] = DeviceDesc[0] = MonitorName[0] = 0;
}

std::string ReadLog() {
    std::ifstream in(kvthost::MapPath(u"C:\\Windows\\System32\\KVTLOG"), std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

std::vector<std::string> LogLines() {
    std::vector<std::string> lines;
    std::stringstream s(ReadLog());
    std::string line;
    while (std::getline(s, line))
        if (!line.empty()) lines.push_back(line);
    return lines;
}

std::vector<std::string> LogLinesStartingWith(const std::string &prefix) {
    std::vector<std::string> out;
    for (const auto &l : LogLines())
        if (l.rfind(prefix, 0) == 0) out.push_back(l);
    return out;
}

}  // namespace kvttest
