// portstore_bench: what the port tree costs the spooler.  Start-up
// (InitializePrintMonitor, which rebuilds the port records from the registry)
// and one EnumPorts at level 2 (the size query and the call, as the spooler
// asks) with 1, 100 and 10,000 ports in the tree; and the cost of one log line
// with IsDEBUG on and off.
//
// Each start-up is measured in a fresh process, as the spooler's own start
// would be: the child loads libkvt64.so, times its calls and reports through
// a pipe.  No network is used.
#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <windows.h>
#include <winsplp.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "kvthost.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRounds = 5;
constexpr int kLogCalls = 2000;  // entries of LocalmonClosePort: two log lines each

std::string LibraryPath() {
    const char *env = std::getenv("KVT64_SO");
    if (env != nullptr) return env;
    char self[4096];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    std::string dir = n > 0 ? std::string(self, static_cast<size_t>(n)) : ".";
    return dir.substr(0, dir.rfind('/')) + "/libkvt64.so";
}

// A hive with the component key, the monitor's key and `ports` ports on
// servers of three ports each, written as an administrator's script would.
void WriteHive(const std::string &prefix, int ports, bool debug) {
    std::ofstream hive(prefix + "/system.reg", std::ios::binary);
    const std::string monitor =
        "HKEY_LOCAL_MACHINE\\System\\CurrentControlSet\\Control\\Print\\Monitors\\PrintServer Network Port";
    hive << "Windows Registry Editor Version 5.00\r\n\r\n"
         << "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\Tcpip]\r\n"
         << "\"ImagePath\"=\"tcpip.sys\"\r\n\r\n"
         << "[" << monitor << "]\r\n\"Driver\"=\"KVT64.DLL\"\r\n\"IsDEBUG\"=hex:0" << (debug ? 1 : 0)
         << "\r\n\"IsNOTIFY\"=hex:00\r\n\r\n";
    for (int i = 0; i < ports; ++i) {
        std::string server = "PS" + std::to_string(i / 3);
        if (i % 3 == 0)
            hive << "[" << monitor << "\\Ports\\" << server << "]\r\n\"IP    \"=hex:02,00,00,7f\r\n"
                 << "\"Network\"=hex:00,00,00,00\r\n\"Node Address\"=hex:00,00,00,00,00,00\r\n\r\n";
        hive << "[" << monitor << "\\Ports\\" << server << "\\" << (i % 3 + 1) << "]\r\n\" \"=hex:00\r\n"
             << "\"QueueName\"=\"lp" << i % 3 << "\"\r\n\r\n";
    }
}

struct Sample {
    double startMs = 0, enumMs = 0, logUs = 0;
    unsigned returned = 0;
};

// In a fresh process: load the monitor, start it, list its ports, and time
// log lines.  Reports through `fd`.
[[noreturn]] void Child(int fd, bool measureLog) {
    void *library = dlopen(LibraryPath().c_str(), RTLD_NOW);
    if (library == nullptr) {
        std::fprintf(stderr, "portstore_bench: %s\n", dlerror());
        _exit(2);
    }
    auto init = reinterpret_cast<LPMONITOREX (*)(LPWSTR)>(dlsym(library, "InitializePrintMonitor"));
    Sample s;
    auto t0 = Clock::now();
    LPMONITOREX table = init(nullptr);
    auto t1 = Clock::now();
    DWORD needed = 0, returned = 0;
    table->Monitor.pfnEnumPorts(nullptr, 2, nullptr, 0, &needed, &returned);
    std::vector<BYTE> buffer(needed + 1);
    table->Monitor.pfnEnumPorts(nullptr, 2, buffer.data(), needed, &needed, &returned);
    auto t2 = Clock::now();
    s.startMs = std::chrono::duration<double, std::milli>(t1 - t0).count();
    s.enumMs = std::chrono::duration<double, std::milli>(t2 - t1).count();
    s.returned = returned;
    if (measureLog) {
        // LocalmonClosePort logs two lines and does nothing else.
        auto t3 = Clock::now();
        for (int i = 0; i < kLogCalls; ++i) table->Monitor.pfnClosePort(nullptr);
        auto t4 = Clock::now();
        s.logUs = std::chrono::duration<double, std::micro>(t4 - t3).count() / (2.0 * kLogCalls);
    }
    if (write(fd, &s, sizeof s) != static_cast<ssize_t>(sizeof s)) _exit(2);
    _exit(0);
}

bool RunChild(bool measureLog, Sample *out) {
    int pipefd[2];
    if (pipe(pipefd) != 0) return false;
    pid_t pid = fork();
    if (pid == 0) {
        close(pipefd[0]);
        Child(pipefd[1], measureLog);
    }
    close(pipefd[1]);
    bool ok = read(pipefd[0], out, sizeof *out) == static_cast<ssize_t>(sizeof *out);
    close(pipefd[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    return ok && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

}  // namespace

int main() {
    char dir[] = "/tmp/kvt-bench-store-XXXXXX";
    std::string prefix = mkdtemp(dir);
    setenv("KVT_PREFIX", prefix.c_str(), 1);
    kvthost::SetPrefix(prefix);
    std::string error;
    if (!kvthost::MakePrefix(&error)) {
        std::fprintf(stderr, "portstore_bench: %s\n", error.c_str());
        return 2;
    }
    // No box may wait for an answer: a start-up with the log on shows one.
    kvthost::SetMessageBoxHandler([](HWND, const std::u16string &, const std::u16string &, unsigned) { return IDOK; });

    std::printf("%-8s %14s %14s\n", "ports", "start-up ms", "EnumPorts ms");
    int status = 0;
    for (int ports : {1, 100, 10000}) {
        WriteHive(prefix, ports, false);
        std::vector<double> start, enumerate;
        for (int round = 0; round < kRounds; ++round) {
            Sample s;
            if (!RunChild(false, &s) || s.returned != static_cast<unsigned>(ports)) {
                std::fprintf(stderr, "portstore_bench: a start-up with %d ports went wrong (%u listed)\n", ports,
                             s.returned);
                status = 1;
                break;
            }
            start.push_back(s.startMs);
            enumerate.push_back(s.enumMs);
        }
        if (!start.empty()) std::printf("%-8d %14.2f %14.3f\n", ports, Median(start), Median(enumerate));
    }

    std::printf("\n%-10s %18s\n", "IsDEBUG", "one log line, us");
    for (bool debug : {false, true}) {
        WriteHive(prefix, 1, debug);
        std::vector<double> line;
        for (int round = 0; round < kRounds; ++round) {
            Sample s;
            if (!RunChild(true, &s)) {
                status = 1;
                break;
            }
            line.push_back(s.logUs);
        }
        if (!line.empty()) std::printf("%-10s %18.3f\n", debug ? "on" : "off", Median(line));
    }
    std::error_code ec;
    std::filesystem::remove_all(prefix, ec);
    return status;
}
