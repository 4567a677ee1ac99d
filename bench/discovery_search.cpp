// discovery_search: the monitor's TCP/IP search (TCPSearch, through
// libkvtsearch.so as `kvtmon discover` runs it) against 1, 10 and 100
// emulated print servers, each of which answers every query at once.
//
// The floor that the protocol's waits set: each of the three search passes
// ends only after a wait of 1.5 s in which nothing arrives, so a search takes
// at least 3 x 1.5 s = 4.5 s whatever it finds; the EEPROM and queue-name
// reads end with their reply, so each server found adds two round trips to
// the floor and no wait.  The program prints, per size, the median time, its
// excess over the floor, and that excess per server.  No target is set.
//
// Exits 1 when a search did not find every server with its EEPROM image and
// queue names, 2 when the set-up failed.
#include <dlfcn.h>
#include <unistd.h>

#include <windows.h>
#include <winsplp.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "../host/search/kvtsearch.h"
#include "kvthost.h"
#include "kvtps.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPasses = 3;           // TCP_SEARCH_PASSES
constexpr double kPassWaitS = 1.5;   // TCP_SEARCH_WAIT_MS
constexpr int kMaxServers = 100;     // the monitor's table
const int kSizes[] = {1, 10, 100};

bool WriteRegistry(std::string *error) {
    HKEY key = nullptr;
    if (RegCreateKeyW(HKEY_LOCAL_MACHINE, u"SYSTEM\\CurrentControlSet\\Services\\Tcpip", &key) != ERROR_SUCCESS) {
        *error = "cannot write the Tcpip component";
        return false;
    }
    RegCloseKey(key);
    if (RegCreateKeyW(HKEY_LOCAL_MACHINE,
                      u"System\\CurrentControlSet\\Control\\Print\\Monitors\\PrintServer Network Port",
                      &key) != ERROR_SUCCESS) {
        *error = "cannot write the monitor's key";
        return false;
    }
    BYTE off = 0;
    RegSetValueExW(key, u"IsDEBUG", 0, REG_BINARY, &off, 1);
    RegSetValueExW(key, u"IsNOTIFY", 0, REG_BINARY, &off, 1);
    RegCloseKey(key);
    return true;
}

KvtSearchTcpipFn LoadSearch(std::string *error) {
    std::string path;
    if (const char *env = std::getenv("KVT_SEARCH_SO"); env != nullptr && *env != 0) {
        path = env;
    } else {
        char self[4096];
        ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
        self[n > 0 ? n : 0] = 0;
        path = std::filesystem::path(self).parent_path() / "libkvtsearch.so";
    }
    void *module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
        *error = std::string("cannot load the search: ") + dlerror();
        return nullptr;
    }
    using InitFn = LPMONITOREX (*)(LPWSTR);
    auto init = reinterpret_cast<InitFn>(dlsym(module, "InitializePrintMonitor"));
    auto search = reinterpret_cast<KvtSearchTcpipFn>(dlsym(module, KVT_SEARCH_FUNCTION));
    if (init == nullptr || search == nullptr) {
        *error = path + " is no search module";
        return nullptr;
    }
    std::u16string root = u"System\\CurrentControlSet\\Control\\Print\\Monitors";
    init(root.data());
    return search;
}

std::vector<kvtps::ServerConfig> Servers(int count) {
    std::vector<kvtps::ServerConfig> servers;
    for (int i = 0; i < count; ++i) {
        kvtps::ServerConfig c;
        c.name = "PS" + std::to_string(i + 1);
        c.address = "127.0.0." + std::to_string(i + 2);
        c.model = 3;
        servers.push_back(c);
    }
    return servers;
}

// Every server once, with the address of its EEPROM image and its queue names.
bool Complete(const std::vector<KvtFoundServer> &found, int found_count, int expected) {
    if (found_count != expected) return false;
    std::set<std::string> names;
    for (int i = 0; i < found_count; ++i) {
        const KvtFoundServer &s = found[static_cast<size_t>(i)];
        names.insert(kvthost::Narrow(s.name));
        if (s.ipAddress == 0 || s.model != 3 || std::strcmp(s.queues[0], "lpt1") != 0) return false;
    }
    return static_cast<int>(names.size()) == expected;
}

}  // namespace

int main(int argc, char **argv) {
    std::string error;
    if (!kvthost::EnterPrivateNetwork(&error)) {
        std::fprintf(stderr, "discovery_search: cannot enter the private network: %s\n", error.c_str());
        return 2;
    }
    long rounds = 3;
    if (argc == 3 && std::strcmp(argv[1], "--rounds") == 0) {
        rounds = std::strtol(argv[2], nullptr, 10);
    } else if (argc != 1) {
        rounds = 0;
    }
    if (rounds < 1 || rounds > 100) {
        std::fprintf(stderr, "usage: discovery_search [--rounds N (3)]\n");
        return 2;
    }

    char prefixTemplate[] = "/tmp/kvt-bench-XXXXXX";
    if (mkdtemp(prefixTemplate) == nullptr) {
        std::perror("discovery_search: mkdtemp");
        return 2;
    }
    const std::string prefix = prefixTemplate;
    struct RemovePrefix {
        std::string path;
        ~RemovePrefix() {
            std::error_code ec;
            std::filesystem::remove_all(path, ec);
        }
    } removePrefix{prefix};
    kvthost::SetPrefix(prefix);
    kvthost::SetTimeScale(1.0);
    KvtSearchTcpipFn search = nullptr;
    if (!kvthost::MakePrefix(&error) || !WriteRegistry(&error) || (search = LoadSearch(&error)) == nullptr) {
        std::fprintf(stderr, "discovery_search: %s\n", error.c_str());
        return 2;
    }

    const double floor = kPasses * kPassWaitS;
    std::printf("TCPSearch against N emulated print servers, %ld rounds each; floor %.2f s "
                "(3 passes, each ending with a silent wait of 1.5 s)\n",
                rounds, floor);
    std::printf("%8s %10s %10s %10s %16s\n", "servers", "median s", "min s", "over floor", "per server ms");
    int status = 0;
    std::vector<KvtFoundServer> found(kMaxServers);
    for (int size : kSizes) {
        kvtps::Emulator emulator;
        if (!emulator.Start(Servers(size), &error)) {
            std::fprintf(stderr, "discovery_search: the print servers did not start: %s\n", error.c_str());
            return 2;
        }
        std::vector<double> seconds;
        for (long r = 0; r < rounds; ++r) {
            auto start = Clock::now();
            int n = search(found.data(), kMaxServers);
            seconds.push_back(std::chrono::duration<double>(Clock::now() - start).count());
            if (!Complete(found, n, size)) {
                std::fprintf(stderr, "discovery_search: round %ld with %d servers found %d, or found them "
                             "without their EEPROM image or queue names\n", r + 1, size, n);
                status = 1;
            }
        }
        emulator.Stop();
        std::sort(seconds.begin(), seconds.end());
        const double median = seconds[seconds.size() / 2];
        std::printf("%8d %10.3f %10.3f %10.3f %16.2f\n", size, median, seconds.front(), median - floor,
                    (median - floor) * 1000.0 / size);
        std::fflush(stdout);
    }
    return status;
}
