// kvtmon: the spooler host for Linux.  It loads libkvt64.so as the spooler
// loads the monitor, and drives its entry table for every administrator and
// job action.
#pragma once

#include <windows.h>
#include <winsplp.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kvtmon {

// ---- the monitor as the spooler sees it -------------------------------------------
// Loads the monitor library (KVT64_SO, else libkvt64.so beside kvtmon) and
// calls InitializePrintMonitor.  NULL with a message when it can't.
const MONITOR *LoadMonitor(std::string *error);

// The entries that add, configure and delete call, as the client side of
// Windows' spooler chooses them: *ui the monitor's UI library (the monitor
// names it through XcvData "MonitorUI"; it is loaded from the monitor's
// folder, and the platform's OpenPrinterW then reaches this monitor's
// transceive entries), or nullptr for the monitor's own entries (--legacy,
// or a monitor without transceive entries).  False, with the message
// written, when the monitor names a UI library that cannot be used.
bool ChooseAdminEntries(const MONITOR *m, const MONITORUI **ui);
// --legacy: add, configure and delete call the monitor's own entries (its
// dialogs in this process, as the spooler of old showed them) rather than
// the UI library.  Takes the option out of the arguments.
extern bool gLegacyEntries;
bool TakeLegacyOption(int *argc, char **argv);

// The name of a Win32 error number ("ERROR_IO_DEVICE"), or "" when unknown.
const char *ErrorName(DWORD error);
std::string DescribeError(DWORD error);  // "1117 (ERROR_IO_DEVICE)"

// ---- the host's prefix and registry ------------------------------------------------------
// False, with a message, when the prefix is missing or its hive can't be read.
bool CheckPrefix();
// Whether the prefix has been made (its System32 folder is there), without a word.
bool PrefixExists();
// The monitor's name as start-up composes it from the profile KVTLPR.INI:
// "PrintServer Network Port" without one.
std::u16string MonitorNameFromProfile();
// HKEY_LOCAL_MACHINE's path of the monitor's key.
std::u16string MonitorKeyPath();
// The network components by the monitor's protocol bits (1 IPX, 2 TCP/IP, 4
// NetBIOS): the keys of those given are written, those of the others removed,
// so that the monitor offers exactly these from its next job on.
constexpr unsigned kTransportIpx = 1, kTransportTcpip = 2, kTransportNetbios = 4;
void SetNetworkComponents(unsigned transports);
// The bits of the components the registry holds.
unsigned OfferedTransports();
// What the platform carries, the default of `kvtmon init`: all three.
constexpr unsigned kPlatformTransports = kTransportTcpip | kTransportIpx | kTransportNetbios;
// "tcpip,ipx" into protocol bits; false for an unknown name or an empty list.
bool ParseTransports(const std::string &list, unsigned *transports);
// "TCP/IP, IPX" for the bits.
std::string TransportsText(unsigned transports);
// Sets IsDEBUG and IsNOTIFY in the monitor's key, making the key if needed.
void SetMonitorFlags(bool debug, bool notify);
void SetMonitorFlag(const char16_t *name, bool on);
// Makes a port's keys: the server key with its address, the digit key with
// the protocol and, when one is given, the queue name.  False with a message
// for a bad port name.
bool MakePortKeys(const std::string &portName, uint32_t address, uint8_t protocol,
                  const std::optional<std::string> &queue, std::string *error);
// The address stored for a print server's ports (host byte order); false
// when none is stored.
bool StoredServerAddress(const std::string &server, uint32_t *address);

// ---- the terminal -----------------------------------------------------------------------
// Message boxes are written to the terminal and answered OK.
void UseTerminalForBoxes(bool quiet);
// A progress line for jobs: bytes, rate; drawn only on a terminal.
struct Progress {
    std::string label;
    uint64_t total = 0;
    uint64_t done = 0;
    int64_t startMs = 0;
    int64_t lastDrawMs = -1;
    bool enabled = false;
};
void ProgressStart(Progress &p, const std::string &label, uint64_t total);
void ProgressUpdate(Progress &p, uint64_t done);
void ProgressFinish(Progress &p);
std::string FormatBytes(uint64_t bytes);
std::string NodeText(const uint8_t *node);  // 00-00-7F-00-00-02
std::string JsonText(const std::string &s);

// ---- commands ------------------------------------------------------------------------------
struct PrintOptions {
    std::string port;
    std::vector<std::string> files;
    std::string document;
    std::string printer;
    std::string user;
    DWORD jobId = 1;
    std::string server;  // the print server of a port made for this run
    std::optional<std::string> queue;  // none: no queue name stored
    int protocol = 0;
    bool debug = false;
    bool notify = false;
    int stallSeconds = 120;
    bool quiet = false;
};
// Prints through the monitor as the spooler would; the exit status.
int RunPrint(const PrintOptions &options);
int PrintCommand(int argc, char **argv);
int InitCommand(int argc, char **argv);
int PortsCommand(int argc, char **argv);
int DeleteCommand(int argc, char **argv);
int LogCommand(int argc, char **argv);
int DemoCommand(int argc, char **argv);
int DiscoverCommand(int argc, char **argv);
int ConfigureCommand(int argc, char **argv);
int AddCommand(int argc, char **argv);

// ---- discovery (discover.cpp) ------------------------------------------------------------
// A print server as the monitor's search left it in its table (the IPX and
// NetBIOS searches read no queue names and no Type).
struct FoundServer {
    std::string name;
    uint32_t ipAddress = 0;  // network byte order
    uint8_t flags = 0;       // 1: TCP/IP supported, 4: TCP/IP enabled
    uint8_t model = 0;       // its two low bits: the printer ports
    uint8_t node[6] = {};
    uint8_t autoProtocol = 0;
    uint8_t type = 0;
    std::string queues[3];
};
// The address as the monitor's lists show it: dotted, "Automatic IP" or
// "TCP/IP Disabled".
std::string AddressShown(const FoundServer &server);
// Runs the search over "tcpip", "ipx" or "netbios" in this process, through
// libkvtsearch.so (KVT_SEARCH_SO, else beside kvtmon), with a progress line
// on a terminal when asked.  A process that runs it must not load
// libkvt64.so.  The exit status.
int SearchNetwork(std::vector<FoundServer> *found, const std::string &transport, bool progress, std::string *error);
// Runs `kvtmon discover --json` as a child over this process's prefix, for a
// process that has the monitor loaded or will load it.
bool DiscoverInChild(std::vector<FoundServer> *found, std::string *error);
// The same over "tcpip", "ipx" or "netbios": this program run as
// `PROGRAM discover --json --transport T`.
bool SearchInChild(const std::string &transport, std::vector<FoundServer> *found, std::string *error);
std::string DiscoverJson(const std::vector<FoundServer> &found);
std::string DiscoverTable(const std::vector<FoundServer> &found);
bool ParseDiscoverJson(const std::string &text, std::vector<FoundServer> *found, std::string *error);

}  // namespace kvtmon
