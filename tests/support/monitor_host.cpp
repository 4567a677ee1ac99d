#include "monitor_host.h"

#include <stdlib.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "availps.h"
#include "debuglog.h"
#include "kvthost.h"
#include "kvtnetbios.h"
#include "monitor.h"
#include "nbstartup.h"

namespace kvttest {

TestHost::TestHost(const HostOptions &o) {
    char dir[] = "/tmp/kvt-test-XXXXXX";
    prefix = mkdtemp(dir);
    kvthost::SetPrefix(prefix);
    std::string error;
    kvthost::MakePrefix(&error);
    kvthost::ResetRegistry();
    kvthost::ResetSpooler();
    kvthost::ClearMessageBoxes();
    kvthost::SetSessions(1, 1);
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
    const std::u16string services = u"SYSTEM\\CurrentControlSet\\Services\\";
    const std::u16string image = u"\\SystemRoot\\System32\\drivers\\tcpip.sys";
    if (o.tcpip) SetValue(services + u"Tcpip", u"ImagePath", REG_EXPAND_SZ, image.c_str(), (image.size() + 1) * 2);
    if (o.ipx) SetValue(services + u"NwlnkIpx", nullptr, 0, nullptr, 0);
    if (o.netbios) SetValue(services + u"Nbf", nullptr, 0, nullptr, 0);
    const BYTE debug = o.debug ? 1 : 0, notify = static_cast<BYTE>(o.notify);
    if (o.monitorKey) SetValue(kMonitorKey, u"IsDEBUG", REG_BINARY, &debug, 1);
    if (o.monitorKey) SetValue(kMonitorKey, u"IsNOTIFY", REG_BINARY, &notify, 1);
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
    const std::u16string path = kPortsKey + u"\\" + server;
    const BYTE zero[6] = {};
    SetValue(path, u"IP    ", REG_BINARY, &address, 4);
    SetValue(path, u"Network", REG_BINARY, zero, 4);
    SetValue(path, u"Node Address", REG_BINARY, zero, 6);
    SetValue(path + u"\\" + digitKey, u" ", REG_BINARY, &protocol, 1);
    if (queue != nullptr)
        SetValue(path + u"\\" + digitKey, u"QueueName", REG_SZ, queue, (std::u16string(queue).size() + 1) * 2);
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
    std::memset(AvailPS, 0, sizeof AvailPS);
    TotalPrintServer = 0;
}

std::vector<std::string> PortNames() {
    std::vector<std::string> names;
    for (PINIPORT p = PortListHead; p != nullptr; p = p->pNext) names.push_back(kvthost::Narrow(p->pName));
    return names;
}

bool KeyExists(const std::u16string &path) {
    HKEY key;
    if (RegOpenKeyW(HKEY_LOCAL_MACHINE, path.c_str(), &key) != ERROR_SUCCESS) return false;
    RegCloseKey(key);
    return true;
}

std::optional<std::vector<BYTE>> Value(const std::u16string &path, const char16_t *name, DWORD *type) {
    HKEY key;
    if (RegOpenKeyW(HKEY_LOCAL_MACHINE, path.c_str(), &key) != ERROR_SUCCESS) return std::nullopt;
    std::vector<BYTE> data(1024);
    DWORD cb = static_cast<DWORD>(data.size());
    const LONG status = RegQueryValueExW(key, name, nullptr, type, data.data(), &cb);
    RegCloseKey(key);
    if (status != ERROR_SUCCESS) return std::nullopt;
    data.resize(cb);
    return data;
}

void SetValue(const std::u16string &path, const char16_t *name, DWORD type, const void *data, size_t size) {
    HKEY key = nullptr;
    RegCreateKeyW(HKEY_LOCAL_MACHINE, path.c_str(), &key);
    if (name != nullptr) RegSetValueExW(key, name, 0, type, static_cast<const BYTE *>(data), static_cast<DWORD>(size));
    RegCloseKey(key);
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
    for (std::string line; std::getline(s, line);)
        if (!line.empty()) lines.push_back(line);
    return lines;
}

std::string LastLogLine() {
    const std::vector<std::string> lines = LogLines();
    return lines.empty() ? "" : lines.back();
}

std::vector<std::string> LogLinesStartingWith(const std::string &prefix) {
    std::vector<std::string> out;
    for (const auto &l : LogLines())
        if (l.rfind(prefix, 0) == 0) out.push_back(l);
    return out;
}

size_t LogCount(const std::string &prefix) { return LogLinesStartingWith(prefix).size(); }

}  // namespace kvttest
