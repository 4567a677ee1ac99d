// A Windows around the monitor for one test: a fresh prefix and registry, the
// host's network components, an empty job table, and the monitor's globals
// as a new process has them.
#pragma once

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kvttest {

struct HostOptions {
    bool tcpip = true;
    bool ipx = false;
    bool netbios = false;
    bool debug = true;         // IsDEBUG in the monitor's key
    int notify = 0;            // IsNOTIFY in the monitor's key
    bool monitorKey = true;    // make the monitor's key at all
    double timeScale = 0.001;  // KVT_TIMESCALE for the test
};

class TestHost {
public:
    explicit TestHost(const HostOptions &options = HostOptions());
    ~TestHost();
    std::string prefix;
};

// The monitor's key, and the port tree below it.
inline const std::u16string kMonitorKey =
    u"System\\CurrentControlSet\\Control\\Print\\Monitors\\PrintServer Network Port";
inline const std::u16string kPortsKey = kMonitorKey + u"\\Ports";

// Keys of a port: the server key with its address (host order) and the digit
// key with its protocol; queue == nullptr stores no queue name.
void MakePortKeys(const std::u16string &server, char16_t digitKey, uint32_t address, uint8_t protocol,
                  const char16_t *queue);
// Frees every port record and zeroes the globals and the table of print
// servers found, as before a first start.
void ResetMonitor();
// The port list's names, in its order.
std::vector<std::string> PortNames();

// The registry below HKEY_LOCAL_MACHINE: whether a key is there, a value's
// bytes (none when it can't be read) and type, and a value stored, its key
// made (name nullptr: the key alone).
bool KeyExists(const std::u16string &path);
std::optional<std::vector<BYTE>> Value(const std::u16string &path, const char16_t *name, DWORD *type = nullptr);
void SetValue(const std::u16string &path, const char16_t *name, DWORD type, const void *data, size_t size);

// Lines of <system folder>\KVTLOG as written (each text, then its line feed).
std::string ReadLog();
// The non-empty lines of the log, in order, and the last of them ("" for none).
std::vector<std::string> LogLines();
std::string LastLogLine();
// The log lines that start with the given prefix, in order, and how many.
std::vector<std::string> LogLinesStartingWith(const std::string &prefix);
size_t LogCount(const std::string &prefix);

}  // namespace kvttest
