// What the job benchmarks share: the job's bytes made a spooler buffer at a
// time, a prefix with the registry keys kvtmon writes for one port of print
// server PS1 at 127.0.0.2, the monitor loaded as the spooler loads it, the
// moments the print server saw each job end, and medians.
#pragma once

#include <dlfcn.h>

#include <windows.h>
#include <winsplp.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "kvthost.h"
#include "kvtps.h"

namespace bench {

using Clock = std::chrono::steady_clock;

constexpr size_t kSpoolBuffer = 64 * 1024;  // what the spooler hands over per WritePort
constexpr const char *kServerAddress = "127.0.0.2";
constexpr uint32_t kServerAddressHost = 0x7F000002;
constexpr const char16_t *kPortName = u"PS1-P1";
constexpr const char16_t *kPrinter = u"Bench";
constexpr int kStallMs = 30000;  // a run that moves nothing for this long has failed

inline double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// Buffer n of the job; the same bytes on every call, for both senders.
inline void FillBuffer(std::vector<unsigned char> &buffer, uint64_t n) {
    uint64_t x = 0x9E3779B97F4A7C15ull * (n + 1);
    for (size_t i = 0; i < buffer.size(); i += 8) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        std::memcpy(buffer.data() + i, &x, 8);
    }
}

inline uint64_t JobChecksum(uint64_t buffers) {
    std::vector<unsigned char> buffer(kSpoolBuffer);
    uint64_t hash = kvtps::kFnvOffset;
    for (uint64_t n = 0; n < buffers; ++n) {
        FillBuffer(buffer, n);
        hash = kvtps::Fnv1a64(buffer.data(), buffer.size(), hash);
    }
    return hash;
}

// A job as the print server saw it end, and when.
struct Arrival {
    Clock::time_point at;
    uint64_t bytes = 0;
    uint64_t checksum = 0;
    bool complete = false;
    std::string error;
};

class Arrivals {
public:
    void Add(uint64_t bytes, uint64_t checksum, bool complete, const std::string &error) {
        std::lock_guard<std::mutex> lock(mu_);
        list_.push_back({Clock::now(), bytes, checksum, complete, error});
        cv_.notify_all();
    }
    bool WaitFor(size_t count, int timeoutMs, Arrival *out) {
        std::unique_lock<std::mutex> lock(mu_);
        if (!cv_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return list_.size() >= count; }))
            return false;
        *out = list_[count - 1];
        return true;
    }

private:
    std::mutex mu_;
    std::condition_variable cv_;
    std::vector<Arrival> list_;
};

inline void SetValue(HKEY key, const char16_t *name, DWORD type, const void *data, DWORD size) {
    RegSetValueExW(key, name, 0, type, static_cast<const BYTE *>(data), size);
}

// The keys that kvtmon writes for a host with TCP/IP (and IPX when asked)
// and port PS1-P1 with the protocol given: the monitor's flags off (no log,
// no notice), an empty queue name.
inline bool WriteRegistry(BYTE protocol, bool ipx, std::string *error) {
    HKEY key = nullptr;
    if (RegCreateKeyW(HKEY_LOCAL_MACHINE, u"SYSTEM\\CurrentControlSet\\Services\\Tcpip", &key) != ERROR_SUCCESS) {
        *error = "cannot write the Tcpip key";
        return false;
    }
    std::u16string image = u"\\SystemRoot\\System32\\drivers\\tcpip.sys";
    SetValue(key, u"ImagePath", REG_EXPAND_SZ, image.c_str(), static_cast<DWORD>((image.size() + 1) * 2));
    RegCloseKey(key);
    if (ipx && RegCreateKeyW(HKEY_LOCAL_MACHINE, u"SYSTEM\\CurrentControlSet\\Services\\NwlnkIpx", &key) == ERROR_SUCCESS)
        RegCloseKey(key);

    const std::u16string monitor = u"System\\CurrentControlSet\\Control\\Print\\Monitors\\PrintServer Network Port";
    if (RegCreateKeyW(HKEY_LOCAL_MACHINE, monitor.c_str(), &key) != ERROR_SUCCESS) {
        *error = "cannot write the monitor's key";
        return false;
    }
    std::u16string driver = u"KVT64.DLL";
    BYTE off = 0;
    SetValue(key, u"Driver", REG_SZ, driver.c_str(), static_cast<DWORD>((driver.size() + 1) * 2));
    SetValue(key, u"IsDEBUG", REG_BINARY, &off, 1);
    SetValue(key, u"IsNOTIFY", REG_BINARY, &off, 1);
    RegCloseKey(key);

    HKEY server = nullptr, digit = nullptr;
    if (RegCreateKeyW(HKEY_LOCAL_MACHINE, (monitor + u"\\Ports\\PS1").c_str(), &server) != ERROR_SUCCESS ||
        RegCreateKeyW(HKEY_LOCAL_MACHINE, (monitor + u"\\Ports\\PS1\\1").c_str(), &digit) != ERROR_SUCCESS) {
        *error = "cannot write the port's keys";
        return false;
    }
    uint32_t address = kServerAddressHost;
    BYTE zero[6] = {};
    std::u16string queue;
    SetValue(server, u"IP    ", REG_BINARY, &address, 4);
    SetValue(server, u"Network", REG_BINARY, zero, 4);
    SetValue(server, u"Node Address", REG_BINARY, zero, 6);
    SetValue(digit, u" ", REG_BINARY, &protocol, 1);
    SetValue(digit, u"QueueName", REG_SZ, queue.c_str(), 2);
    RegCloseKey(digit);
    RegCloseKey(server);
    return true;
}

// A temporary prefix, removed when this goes, with the monitor's real waits.
struct TemporaryPrefix {
    std::string path;
    bool Make(std::string *error) {
        char dir[] = "/tmp/kvt-bench-XXXXXX";
        if (mkdtemp(dir) == nullptr) {
            *error = std::string("cannot make a temporary prefix: ") + std::strerror(errno);
            return false;
        }
        path = dir;
        kvthost::SetPrefix(path);
        kvthost::SetTimeScale(1.0);
        return kvthost::MakePrefix(error);
    }
    ~TemporaryPrefix() {
        std::error_code ec;
        if (!path.empty()) std::filesystem::remove_all(path, ec);
    }
};

inline std::string ProgramDirectory() {
    std::error_code ec;
    std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::string(".") : self.parent_path().string();
}

// libkvt64.so (KVT64_SO, else the one beside the program), started.
inline const MONITOR *LoadMonitor(std::string *error) {
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

// Adds the job to the spooler's table and starts it on the port.
inline bool StartJob(const MONITOR *m, HANDLE port, DWORD jobId, std::string *error) {
    kvthost::JobSpec job;
    job.printer = kPrinter;
    job.jobId = jobId;
    job.document = u"throughput";
    job.user = u"bench";
    job.machine = u"\\\\localhost";
    kvthost::AddJob(job);
    std::u16string document = job.document;
    DOC_INFO_1W info{document.data(), nullptr, const_cast<LPWSTR>(u"RAW")};
    if (m->pfnStartDocPort(port, const_cast<LPWSTR>(kPrinter), jobId, 1, reinterpret_cast<LPBYTE>(&info))) return true;
    *error = "LocalmonStartDocPort failed, error " + std::to_string(GetLastError());
    return false;
}

// Hands the buffers to LocalmonWritePort as the spooler does (a write that
// took less is called again with the rest); false with a message.
inline bool WriteJob(const MONITOR *m, HANDLE port, uint64_t buffers, std::string *error) {
    std::vector<unsigned char> buffer(kSpoolBuffer);
    for (uint64_t n = 0; n < buffers; ++n) {
        FillBuffer(buffer, n);
        size_t done = 0;
        Clock::time_point lastMove = Clock::now();
        while (done < buffer.size()) {
            DWORD written = 0;
            if (!m->pfnWritePort(port, buffer.data() + done, static_cast<DWORD>(buffer.size() - done), &written)) {
                *error = "LocalmonWritePort failed, error " + std::to_string(GetLastError());
                return false;
            }
            if (written > buffer.size() - done) {
                *error = "LocalmonWritePort reported more written than it was given";
                return false;
            }
            if (written > 0) {
                lastMove = Clock::now();
            } else if (Clock::now() - lastMove > std::chrono::milliseconds(kStallMs)) {
                *error = "LocalmonWritePort moved nothing for 30 s";
                return false;
            }
            done += written;
        }
    }
    return true;
}

inline double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    size_t n = v.size();
    return n == 0 ? 0 : n % 2 == 1 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

inline bool ParseCount(const char *text, long min, long max, long *out) {
    char *end = nullptr;
    errno = 0;
    long v = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != 0 || v < min || v > max) return false;
    *out = v;
    return true;
}

}  // namespace bench
