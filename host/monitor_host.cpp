// Loading the monitor, the host's part of the registry, and the terminal.
#include <dlfcn.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kvthost.h"
#include "kvtmon.h"

namespace kvtmon {

namespace {

std::string ProgramDirectory() {
    char path[4096];
    ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) return ".";
    path[n] = 0;
    std::string s(path);
    size_t slash = s.rfind('/');
    return slash == std::string::npos ? "." : s.substr(0, slash);
}

int64_t NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

HKEY CreateKey(const std::u16string &path) {
    HKEY key = nullptr;
    if (RegCreateKeyW(HKEY_LOCAL_MACHINE, path.c_str(), &key) != ERROR_SUCCESS) return nullptr;
    return key;
}

}  // namespace

const MONITOR *LoadMonitor(std::string *error) {
    const char *env = std::getenv("KVT64_SO");
    std::string path = env != nullptr && *env != 0 ? env : ProgramDirectory() + "/libkvt64.so";
    void *library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        *error = std::string("cannot load the monitor: ") + dlerror();
        return nullptr;
    }
    using InitFn = LPMONITOREX (*)(LPWSTR);
    auto init = reinterpret_cast<InitFn>(dlsym(library, "InitializePrintMonitor"));
    if (init == nullptr) {
        *error = path + " has no InitializePrintMonitor";
        return nullptr;
    }
    std::u16string root = u"System\\CurrentControlSet\\Control\\Print\\Monitors";
    LPMONITOREX table = init(root.data());
    if (table == nullptr || table->dwMonitorSize != sizeof(MONITOR)) {
        *error = "the monitor gave no entry table of the right size";
        return nullptr;
    }
    return &table->Monitor;
}

namespace {

// The monitor's UI library, found as the client side of Windows' spooler
// finds it: the monitor names it, and it is loaded from the monitor's folder.
// NULL with a message when the monitor offers none.
const MONITORUI *LoadMonitorUI(const MONITOR *m, std::string *error) {
    std::u16string name = MonitorNameFromProfile();
    kvthost::SetXcvMonitor(name, m);
    if (!kvthost::HasXcvMonitor()) {
        *error = "the monitor has no transceive entries";
        return nullptr;
    }
    std::u16string object = u",XcvMonitor " + name;
    PRINTER_DEFAULTSW defaults = {nullptr, nullptr, SERVER_ACCESS_ENUMERATE};
    HANDLE h = nullptr;
    if (!OpenPrinterW(object.data(), &h, &defaults)) {
        *error = "the monitor refused a transceive handle: error " + DescribeError(GetLastError());
        return nullptr;
    }
    char16_t file[260] = {};
    DWORD needed = 0, status = 0;
    XcvDataW(h, u"MonitorUI", nullptr, 0, reinterpret_cast<BYTE *>(file), sizeof file - 2, &needed, &status);
    ClosePrinter(h);
    if (status != ERROR_SUCCESS || file[0] == 0) {
        *error = "the monitor names no UI library: error " + DescribeError(status);
        return nullptr;
    }
    // Beside the monitor, as Windows finds it in the system folder.
    const char *env = std::getenv("KVT64_SO");
    std::string dir = env != nullptr && *env != 0 ? env : ProgramDirectory() + "/libkvt64.so";
    dir = dir.find('/') == std::string::npos ? "." : dir.substr(0, dir.rfind('/'));
    std::string path = dir + "/" + kvthost::Narrow(file);
    void *library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        *error = std::string("cannot load the monitor's UI library: ") + dlerror();
        return nullptr;
    }
    auto init = reinterpret_cast<PMONITORUI (*)()>(dlsym(library, "InitializePrintMonitorUI"));
    const MONITORUI *ui = init != nullptr ? init() : nullptr;
    if (ui == nullptr || ui->dwMonitorUISize < sizeof(MONITORUI)) {
        *error = path + " gave no UI table";
        return nullptr;
    }
    return ui;
}

}  // namespace

bool ChooseAdminEntries(const MONITOR *m, const MONITORUI **ui) {
    *ui = nullptr;
    if (gLegacyEntries) return true;
    std::string error;
    *ui = LoadMonitorUI(m, &error);
    if (*ui == nullptr && kvthost::HasXcvMonitor()) {
        std::fprintf(stderr, "kvtmon: %s\n", error.c_str());
        return false;
    }
    return true;
}

bool gLegacyEntries = false;

bool TakeLegacyOption(int *argc, char **argv) {
    int kept = 0;
    for (int i = 0; i < *argc; ++i) {
        if (std::strcmp(argv[i], "--legacy") == 0) gLegacyEntries = true;
        else argv[kept++] = argv[i];
    }
    *argc = kept;
    return gLegacyEntries;
}

const char *ErrorName(DWORD error) {
    switch (error) {
    case 0: return "ERROR_SUCCESS";
    case 2: return "ERROR_FILE_NOT_FOUND";
    case 5: return "ERROR_ACCESS_DENIED";
    case 6: return "ERROR_INVALID_HANDLE";
    case 8: return "ERROR_NOT_ENOUGH_MEMORY";
    case 29: return "ERROR_WRITE_FAULT";
    case 32: return "ERROR_SHARING_VIOLATION";
    case 50: return "ERROR_NOT_SUPPORTED";
    case 87: return "ERROR_INVALID_PARAMETER";
    case 122: return "ERROR_INSUFFICIENT_BUFFER";
    case 124: return "ERROR_INVALID_LEVEL";
    case 170: return "ERROR_BUSY";
    case 1012: return "ERROR_CANTREAD";
    case 1223: return "ERROR_CANCELLED";
    case 1117: return "ERROR_IO_DEVICE";
    case 1796: return "ERROR_UNKNOWN_PORT";
    case 1801: return "ERROR_INVALID_PRINTER_NAME";
    case 3007: return "ERROR_INVALID_PRINT_MONITOR";
    default: return "";
    }
}

std::string DescribeError(DWORD error) {
    std::string name = ErrorName(error);
    return std::to_string(error) + (name.empty() ? "" : " (" + name + ")");
}

std::u16string MonitorKeyPath() {
    return u"System\\CurrentControlSet\\Control\\Print\\Monitors\\" + MonitorNameFromProfile();
}

namespace {

// The component key of each transport, as Windows NT names them; the
// monitor's start-up looks for each (Tcpip only with an ImagePath).
struct Component {
    unsigned bit;
    const char *name;  // on kvtmon's command line
    const char *text;
    const char16_t *key;
};
const Component kComponents[] = {
    {kTransportTcpip, "tcpip", "TCP/IP", u"SYSTEM\\CurrentControlSet\\Services\\Tcpip"},
    {kTransportIpx, "ipx", "IPX", u"SYSTEM\\CurrentControlSet\\Services\\NwlnkIpx"},
    {kTransportNetbios, "netbios", "NetBIOS", u"SYSTEM\\CurrentControlSet\\Services\\Nbf"},
};

}  // namespace

void SetNetworkComponents(unsigned transports) {
    for (const Component &c : kComponents) {
        if (!(transports & c.bit)) {
            RegDeleteKeyW(HKEY_LOCAL_MACHINE, c.key);
            continue;
        }
        HKEY key = CreateKey(c.key);
        if (key != nullptr && c.bit == kTransportTcpip) {
            std::u16string image = u"\\SystemRoot\\System32\\drivers\\tcpip.sys";
            RegSetValueExW(key, u"ImagePath", 0, REG_EXPAND_SZ, reinterpret_cast<const BYTE *>(image.c_str()),
                           static_cast<DWORD>((image.size() + 1) * 2));
        }
        if (key != nullptr) RegCloseKey(key);
    }
}

unsigned OfferedTransports() {
    unsigned bits = 0;
    for (const Component &c : kComponents) {
        HKEY key = nullptr;
        if (RegOpenKeyW(HKEY_LOCAL_MACHINE, c.key, &key) != ERROR_SUCCESS) continue;
        bits |= c.bit;
        RegCloseKey(key);
    }
    return bits;
}

bool ParseTransports(const std::string &list, unsigned *transports) {
    unsigned bits = 0;
    for (size_t at = 0; at <= list.size();) {
        size_t comma = list.find(',', at);
        std::string name = list.substr(at, comma == std::string::npos ? std::string::npos : comma - at);
        bool known = false;
        for (const Component &c : kComponents)
            if (name == c.name) bits |= c.bit, known = true;
        if (!known) return false;
        if (comma == std::string::npos) break;
        at = comma + 1;
    }
    *transports = bits;
    return bits != 0;
}

std::string TransportsText(unsigned transports) {
    std::string text;
    for (const Component &c : kComponents)
        if (transports & c.bit) text += (text.empty() ? "" : ", ") + std::string(c.text);
    return text;
}

void SetMonitorFlag(const char16_t *name, bool on) {
    if (HKEY key = CreateKey(MonitorKeyPath())) {
        BYTE value = on ? 1 : 0;
        RegSetValueExW(key, name, 0, REG_BINARY, &value, 1);
        RegCloseKey(key);
    }
}

void SetMonitorFlags(bool debug, bool notify) {
    if (HKEY key = CreateKey(MonitorKeyPath())) {
        std::u16string driver = u"KVT64.DLL";
        RegSetValueExW(key, u"Driver", 0, REG_SZ, reinterpret_cast<const BYTE *>(driver.c_str()),
                       static_cast<DWORD>((driver.size() + 1) * 2));
        BYTE d = debug ? 1 : 0, n = notify ? 1 : 0;
        RegSetValueExW(key, u"IsDEBUG", 0, REG_BINARY, &d, 1);
        RegSetValueExW(key, u"IsNOTIFY", 0, REG_BINARY, &n, 1);
        RegCloseKey(key);
    }
}

bool MakePortKeys(const std::string &portName, uint32_t address, uint8_t protocol,
                  const std::optional<std::string> &queue, std::string *error) {
    // <server>-P1..P3 or <server>-C1..C2; the server has 1 to 47 characters.
    size_t n = portName.size();
    bool ok = n >= 4 && n - 3 <= 47 && portName[n - 3] == '-' &&
              ((portName[n - 2] == 'P' && portName[n - 1] >= '1' && portName[n - 1] <= '3') ||
               (portName[n - 2] == 'C' && portName[n - 1] >= '1' && portName[n - 1] <= '2'));
    if (!ok) {
        *error = "'" + portName + "' is not a port name: <server>-P1, -P2, -P3, -C1 or -C2";
        return false;
    }
    std::string server = portName.substr(0, n - 3);
    char digit = portName[n - 2] == 'P' ? portName[n - 1] : static_cast<char>(portName[n - 1] + 3);
    if (queue && queue->size() > 31) {
        *error = "a queue name has at most 31 characters";
        return false;
    }
    std::u16string serverPath = MonitorKeyPath() + u"\\Ports\\" + kvthost::Widen(server);
    kvthost::RegistryBatch batch;  // the port's keys reach the hive together, or none
    HKEY serverKey = CreateKey(serverPath);
    HKEY digitKey = CreateKey(serverPath + u"\\" + char16_t(digit));
    if (serverKey == nullptr || digitKey == nullptr) {
        *error = "cannot write the port's keys";
        if (serverKey) RegCloseKey(serverKey);
        if (digitKey) RegCloseKey(digitKey);
        return false;
    }
    BYTE zero[6] = {};
    RegSetValueExW(serverKey, u"IP    ", 0, REG_BINARY, reinterpret_cast<const BYTE *>(&address), 4);
    RegSetValueExW(serverKey, u"Network", 0, REG_BINARY, zero, 4);
    RegSetValueExW(serverKey, u"Node Address", 0, REG_BINARY, zero, 6);
    RegSetValueExW(digitKey, u" ", 0, REG_BINARY, &protocol, 1);
    if (digit <= '3' && queue) {
        std::u16string q = kvthost::Widen(*queue);
        RegSetValueExW(digitKey, u"QueueName", 0, REG_SZ, reinterpret_cast<const BYTE *>(q.c_str()),
                       static_cast<DWORD>((q.size() + 1) * 2));
    }
    RegCloseKey(digitKey);
    RegCloseKey(serverKey);
    return true;
}

void UseTerminalForBoxes(bool quiet) {
    kvthost::SetMessageBoxHandler([quiet](HWND, const std::u16string &text, const std::u16string &caption,
                                          unsigned) {
        if (!quiet) {
            std::string t = kvthost::Narrow(text);
            while (!t.empty() && t.back() == '\n') t.pop_back();
            std::fprintf(stderr, "[%s] %s\n", kvthost::Narrow(caption).c_str(), t.c_str());
        }
        return IDOK;
    });
}

std::string NodeText(const uint8_t *node) {
    char text[18];
    std::snprintf(text, sizeof text, "%02X-%02X-%02X-%02X-%02X-%02X", node[0], node[1], node[2], node[3], node[4],
                  node[5]);
    return text;
}

// A JSON string: quotes, backslashes and bytes outside printable ASCII escaped.
std::string JsonText(const std::string &s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            out.push_back('\\');
            out.push_back(static_cast<char>(c));
        } else if (c < 0x20 || c >= 0x7f) {
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\u%04x", c);
            out += esc;
        } else {
            out.push_back(static_cast<char>(c));
        }
    }
    return out + "\"";
}

std::string FormatBytes(uint64_t bytes) {
    char text[32];
    if (bytes >= (1ull << 30)) std::snprintf(text, sizeof text, "%.1f GiB", bytes / 1073741824.0);
    else if (bytes >= (1ull << 20)) std::snprintf(text, sizeof text, "%.1f MiB", bytes / 1048576.0);
    else if (bytes >= 1024) std::snprintf(text, sizeof text, "%.1f KiB", bytes / 1024.0);
    else std::snprintf(text, sizeof text, "%llu B", static_cast<unsigned long long>(bytes));
    return text;
}

void ProgressStart(Progress &p, const std::string &label, uint64_t total) {
    p.label = label;
    p.total = total;
    p.done = 0;
    p.startMs = NowMs();
    p.lastDrawMs = -1;
    p.enabled = isatty(STDERR_FILENO) != 0;
}

static void Draw(Progress &p, int64_t now) {
    double seconds = (now - p.startMs) / 1000.0;
    double rate = seconds > 0 ? p.done / seconds : 0;
    int width = 30;
    int filled = p.total > 0 ? static_cast<int>(width * static_cast<double>(p.done) / p.total) : width;
    std::string bar(static_cast<size_t>(filled), '#');
    bar.resize(static_cast<size_t>(width), '.');
    std::fprintf(stderr, "\r%s [%s] %s / %s  %s/s   ", p.label.c_str(), bar.c_str(), FormatBytes(p.done).c_str(),
                 FormatBytes(p.total).c_str(), FormatBytes(static_cast<uint64_t>(rate)).c_str());
    std::fflush(stderr);
    p.lastDrawMs = now;
}

void ProgressUpdate(Progress &p, uint64_t done) {
    p.done = done;
    if (!p.enabled) return;
    int64_t now = NowMs();
    if (p.lastDrawMs < 0 || now - p.lastDrawMs >= 100) Draw(p, now);
}

void ProgressFinish(Progress &p) {
    if (!p.enabled) return;
    Draw(p, NowMs());
    std::fprintf(stderr, "\n");
}

bool StoredServerAddress(const std::string &server, uint32_t *address) {
    HKEY key = nullptr;
    std::u16string path = MonitorKeyPath() + u"\\Ports\\" + kvthost::Widen(server);
    if (RegOpenKeyW(HKEY_LOCAL_MACHINE, path.c_str(), &key) != ERROR_SUCCESS) return false;
    DWORD type = 0, cb = sizeof *address;
    LONG status = RegQueryValueExW(key, u"IP    ", nullptr, &type, reinterpret_cast<BYTE *>(address), &cb);
    RegCloseKey(key);
    return status == ERROR_SUCCESS && type == REG_BINARY && cb == sizeof *address;
}

}  // namespace kvtmon
