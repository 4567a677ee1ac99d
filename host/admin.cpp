// kvtmon init, ports, delete and log: the prefix, the port list as the spooler
// asks for it, removal of a port, and the diagnostic log.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "kvthost.h"
#include "kvtmon.h"

namespace kvtmon {

namespace {

bool Has(int argc, char **argv, const char *flag) {
    for (int i = 0; i < argc; ++i)
        if (std::strcmp(argv[i], flag) == 0) return true;
    return false;
}

// Options other than the known flags, and the positional arguments.
bool SplitArgs(const char *command, int argc, char **argv, const std::vector<std::string> &flags,
               std::vector<std::string> *positional) {
    for (int i = 0; i < argc; ++i) {
        std::string a = argv[i];
        if (a.size() > 1 && a[0] == '-') {
            bool known = false;
            for (const auto &f : flags) known = known || a == f;
            if (!known) {
                std::fprintf(stderr, "kvtmon %s: unknown option '%s'\n", command, a.c_str());
                return false;
            }
        } else {
            positional->push_back(a);
        }
    }
    return true;
}

std::string LogPath() { return kvthost::MapPath(u"C:\\Windows\\System32\\KVTLOG"); }

const char *TransportName(int protocol) {
    switch (protocol) {
    case 0: return "automatic";
    case 1: return "IPX";
    case 2: return "TCP/IP";
    case 4: return "NetBIOS";
    default: return "unknown";
    }
}

struct PortRow {
    std::string name;
    std::string description;
    int protocol = -1;  // -1: no digit key or no value
    bool hasQueue = false;
    std::string queue;
    uint32_t address = 0;
    uint8_t node[6] = {};
};

// Reads what the tree holds for one port, as the monitor would read it.
void ReadPortTree(const std::u16string &monitorName, PortRow *row) {
    const std::string &n = row->name;
    if (n.size() < 4) return;
    std::u16string server = kvthost::Widen(n.substr(0, n.size() - 3));
    std::u16string base = u"System\\CurrentControlSet\\Control\\Print\\Monitors\\" + monitorName + u"\\Ports\\" + server;
    HKEY key;
    if (RegOpenKeyW(HKEY_LOCAL_MACHINE, base.c_str(), &key) == ERROR_SUCCESS) {
        DWORD cb = 4;
        RegQueryValueExW(key, u"IP    ", nullptr, nullptr, reinterpret_cast<BYTE *>(&row->address), &cb);
        cb = 6;
        RegQueryValueExW(key, u"Node Address", nullptr, nullptr, row->node, &cb);
        RegCloseKey(key);
    }
    // The settings of a port are those of the key named by its last character.
    std::u16string digit = base + u"\\" + char16_t(n.back());
    if (RegOpenKeyW(HKEY_LOCAL_MACHINE, digit.c_str(), &key) == ERROR_SUCCESS) {
        BYTE protocol = 0;
        DWORD cb = 1;
        if (RegQueryValueExW(key, u" ", nullptr, nullptr, &protocol, &cb) == ERROR_SUCCESS) row->protocol = protocol;
        char16_t queue[65] = {};
        cb = 128;
        if (RegQueryValueExW(key, u"QueueName", nullptr, nullptr, reinterpret_cast<BYTE *>(queue), &cb) ==
            ERROR_SUCCESS) {
            row->hasQueue = true;
            row->queue = kvthost::Narrow(queue);
        }
        RegCloseKey(key);
    }
}

std::string AddressText(uint32_t a) {
    if (a == 0) return "(looked up)";
    return std::to_string(a >> 24) + "." + std::to_string((a >> 16) & 255) + "." + std::to_string((a >> 8) & 255) +
           "." + std::to_string(a & 255);
}

}  // namespace

bool CheckPrefix();

namespace {

// The monitor started over the prefix, its boxes answered without a word;
// NULL after a message.
const MONITOR *StartMonitorQuietly() {
    if (!CheckPrefix()) return nullptr;
    UseTerminalForBoxes(true);
    std::string error;
    const MONITOR *m = LoadMonitor(&error);
    if (m == nullptr) std::fprintf(stderr, "kvtmon: %s\n", error.c_str());
    return m;
}

}  // namespace

bool PrefixExists() {
    struct stat st {};
    std::string system = kvthost::Prefix() + "/drive_c/Windows/System32";
    return stat(system.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool CheckPrefix() {
    if (!PrefixExists()) {
        std::fprintf(stderr, "kvtmon: no prefix at %s; make one with `kvtmon init`\n", kvthost::Prefix().c_str());
        return false;
    }
    HKEY key = nullptr;
    if (RegOpenKeyW(HKEY_LOCAL_MACHINE, u"SYSTEM", &key) == ERROR_BADDB) {
        std::fprintf(stderr, "kvtmon: the registry hive %s cannot be read; mend or remove it\n",
                     kvthost::HivePath().c_str());
        return false;
    }
    if (key != nullptr) RegCloseKey(key);
    return true;
}

std::u16string MonitorNameFromProfile() {
    char16_t device[29];
    GetPrivateProfileStringW(u"General Information", u"DeviceDesc", u"PrintServer", device, 29, u"KVTLPR.INI");
    std::u16string name = std::u16string(device) + u" Network Port";
    if (name.size() > 31) name.resize(31);
    return name;
}

int InitCommand(int argc, char **argv) {
    std::vector<std::string> positional;
    std::vector<char *> flags;
    unsigned transports = kPlatformTransports;
    bool ok = true;
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--transports") != 0) flags.push_back(argv[i]);
        else ok = ok && i + 1 < argc && ParseTransports(argv[++i], &transports);
    }
    if (!ok || !SplitArgs("init", static_cast<int>(flags.size()), flags.data(), {"--debug", "--notify"}, &positional) ||
        !positional.empty()) {
        std::fprintf(stderr, "usage: kvtmon init [--transports tcpip,ipx,netbios] [--debug] [--notify]\n"
                             "  --transports  the network components the host offers (default: tcpip,ipx,netbios)\n");
        return 2;
    }
    std::string error;
    if (!kvthost::MakePrefix(&error)) {
        std::fprintf(stderr, "kvtmon: %s\n", error.c_str());
        return 2;
    }
    if (!CheckPrefix()) return 2;
    kvthost::RegistryBatch batch;  // the components and the monitor's key reach the hive together
    SetNetworkComponents(transports);
    // A flag that is given is set; one that is stored already stays as it is.
    for (const char16_t *flag : {u"IsDEBUG", u"IsNOTIFY"}) {
        bool given = Has(argc, argv, flag[2] == u'D' ? "--debug" : "--notify");
        HKEY key;
        BYTE value;
        DWORD cb = 1;
        bool stored = false;
        if (RegOpenKeyW(HKEY_LOCAL_MACHINE, MonitorKeyPath().c_str(), &key) == ERROR_SUCCESS) {
            stored = RegQueryValueExW(key, flag, nullptr, nullptr, &value, &cb) == ERROR_SUCCESS;
            RegCloseKey(key);
        }
        if (given || !stored) SetMonitorFlag(flag, given);
    }
    if (HKEY key; RegCreateKeyW(HKEY_LOCAL_MACHINE, MonitorKeyPath().c_str(), &key) == ERROR_SUCCESS) {
        std::u16string driver = u"KVT64.DLL";
        RegSetValueExW(key, u"Driver", 0, REG_SZ, reinterpret_cast<const BYTE *>(driver.c_str()),
                       static_cast<DWORD>((driver.size() + 1) * 2));
        RegCloseKey(key);
    }
    std::printf("prefix %s: %s offered, monitor key \"%s\"%s\n", kvthost::Prefix().c_str(),
                TransportsText(transports).c_str(), kvthost::Narrow(MonitorNameFromProfile()).c_str(),
                Has(argc, argv, "--debug") ? ", log on" : "");
    return 0;
}

int PortsCommand(int argc, char **argv) {
    std::vector<std::string> positional;
    if (!SplitArgs("ports", argc, argv, {"--json"}, &positional) || !positional.empty()) {
        std::fprintf(stderr, "usage: kvtmon ports [--json]\n");
        return 2;
    }
    const MONITOR *m = StartMonitorQuietly();
    if (m == nullptr) return 2;
    // As the spooler asks: the size first, then the records.
    DWORD needed = 0, returned = 0;
    m->pfnEnumPorts(nullptr, 2, nullptr, 0, &needed, &returned);
    std::vector<BYTE> buffer(needed > 0 ? needed : 1);
    if (!m->pfnEnumPorts(nullptr, 2, buffer.data(), needed, &needed, &returned)) {
        std::fprintf(stderr, "kvtmon: the port list failed: error %s\n", DescribeError(GetLastError()).c_str());
        return 1;
    }
    auto *info = reinterpret_cast<PORT_INFO_2W *>(buffer.data());
    std::vector<PortRow> rows;
    for (DWORD i = 0; i < returned; ++i) {
        PortRow row;
        row.name = kvthost::Narrow(info[i].pPortName);
        row.description = kvthost::Narrow(info[i].pDescription);
        ReadPortTree(info[i].pMonitorName, &row);
        rows.push_back(row);
    }
    if (Has(argc, argv, "--json")) {
        std::printf("[");
        for (size_t i = 0; i < rows.size(); ++i) {
            const PortRow &r = rows[i];
            std::printf("%s\n  {\"port\": %s, \"description\": %s, \"transport\": %s, \"protocol\": %d, "
                        "\"queue\": %s, \"address\": %s, \"node\": %s}",
                        i == 0 ? "" : ",", JsonText(r.name).c_str(), JsonText(r.description).c_str(),
                        JsonText(r.protocol < 0 ? "automatic" : TransportName(r.protocol)).c_str(),
                        r.protocol < 0 ? 0 : r.protocol, r.hasQueue ? JsonText(r.queue).c_str() : "null",
                        JsonText(r.address == 0 ? "" : AddressText(r.address)).c_str(),
                        JsonText(NodeText(r.node)).c_str());
        }
        std::printf("%s]\n", rows.empty() ? "" : "\n");
        return 0;
    }
    if (rows.empty()) {
        std::printf("no ports\n");
        return 0;
    }
    std::printf("%-24s %-10s %-16s %-16s %s\n", "PORT", "TRANSPORT", "QUEUE", "ADDRESS", "NODE");
    for (const PortRow &r : rows) {
        std::string queue = r.hasQueue ? (r.queue.empty() ? "(empty)" : r.queue)
                                       : std::string("lpt") + (r.name.empty() ? '?' : r.name.back());
        std::printf("%-24s %-10s %-16s %-16s %s\n", r.name.c_str(),
                    r.protocol < 0 ? "automatic" : TransportName(r.protocol), queue.c_str(),
                    AddressText(r.address).c_str(), NodeText(r.node).c_str());
    }
    return 0;
}

int DeleteCommand(int argc, char **argv) {
    TakeLegacyOption(&argc, argv);
    std::vector<std::string> positional;
    if (!SplitArgs("delete", argc, argv, {}, &positional) || positional.size() != 1) {
        std::fprintf(stderr, "usage: kvtmon delete PORT [--legacy]\n");
        return 2;
    }
    const MONITOR *m = StartMonitorQuietly();
    if (m == nullptr) return 2;
    const MONITORUI *ui;
    if (!ChooseAdminEntries(m, &ui)) return 2;
    // The command line is the administrator's answer to the UI library's
    // question before the delete.
    kvthost::SetMessageBoxHandler([](HWND, const std::u16string &, const std::u16string &, unsigned type) {
        return (type & 0xF) == MB_YESNO ? IDYES : IDOK;
    });
    std::u16string port = kvthost::Widen(positional[0]);
    SetLastError(0);
    BOOL deleted;
    DWORD e;
    {
        kvthost::RegistryBatch batch;  // the port's keys leave the hive together, or none
        deleted = ui != nullptr ? ui->pfnDeletePortUI(nullptr, GetDesktopWindow(), port.c_str())
                                : m->pfnDeletePort(nullptr, nullptr, port.data());
        e = GetLastError();
    }
    if (!deleted) {
        if (e == ERROR_UNKNOWN_PORT)
            std::fprintf(stderr, "kvtmon: no port '%s'\n", positional[0].c_str());
        else
            std::fprintf(stderr, "kvtmon: '%s' was not deleted: error %s\n", positional[0].c_str(),
                         DescribeError(e).c_str());
        return 3;
    }
    std::printf("deleted %s\n", positional[0].c_str());
    return 0;
}

int LogCommand(int argc, char **argv) {
    std::vector<std::string> positional;
    if (!SplitArgs("log", argc, argv, {"--follow", "-f"}, &positional) || !positional.empty()) {
        std::fprintf(stderr, "usage: kvtmon log [--follow]\n");
        return 2;
    }
    if (!CheckPrefix()) return 2;
    bool follow = Has(argc, argv, "--follow") || Has(argc, argv, "-f");
    std::string path = LogPath();
    std::streamoff offset = 0;
    ino_t inode = 0;
    bool shown = false;
    for (;;) {
        struct stat st {};
        if (stat(path.c_str(), &st) == 0) {
            // A start-up deletes the log and begins a new one: read it from the start.
            if (st.st_ino != inode || st.st_size < offset) {
                inode = st.st_ino;
                offset = 0;
            }
            std::ifstream in(path, std::ios::binary);
            in.seekg(offset);
            std::string chunk((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            std::fwrite(chunk.data(), 1, chunk.size(), stdout);
            std::fflush(stdout);
            offset += static_cast<std::streamoff>(chunk.size());
            shown = true;
        } else if (!follow) {
            std::fprintf(stderr, "kvtmon: no log at %s (the monitor writes it once it has started)\n", path.c_str());
            return 1;
        }
        if (!follow) return shown ? 0 : 1;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
}

}  // namespace kvtmon
