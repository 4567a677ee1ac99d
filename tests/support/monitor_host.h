// A Windows around the monitor for one test: a fresh prefix and registry, the
// host's network components, an empty job table, and the monitor's globals
// as a new process has them.
#pragma once

#include <windows.h>

#include <cstdint>
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

// Keys of a port: the server key with its address (host order) and the digit
// key with its protocol; queue == nullptr stores no queue name.
void MakePortKeys(const std::u16string &server, char16_t digitKey, uint32_t address, uint8_t protocol,
                  const char16_t *queue);
// Frees every port record and zeroes the globals, as before a first start.
void ResetMonitor();
// Lines of <system folder>\KVTLOG as written (each text, then its line feed).
std::string ReadLog();
// The non-empty lines of the log, in order.
std::vector<std::string> LogLines();
// The log lines that start with the given prefix, in order.
std::vector<std::string> LogLinesStartingWith(const std::string &prefix);

}  // namespace kvttest
