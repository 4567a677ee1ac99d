// lpr_throughput: one large job printed through the monitor over LPR, as the
// spooler prints it, next to a plain TCP sender making the same 4096-byte
// sends to the same emulated print server in the same run.
//
// The monitor's figure runs from LocalmonStartDocPort (connect and LPR header
// included) to the moment the print server has the job's last byte; the 2 s
// pause that LocalmonEndDocPort makes after its close is left out.  The plain
// sender's runs from its connect to the same moment, over the same exchange.
// The figure is the ratio of the two medians; the target is at least 0.9.
//
// Exits 1 when a job arrived with the wrong length or checksum, 2 when the
// set-up failed; throughput below the target is reported, not an error.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <windows.h>
#include <winsplp.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "kvthost.h"
#include "kvtps.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kSpoolBuffer = 64 * 1024;  // what the spooler hands over per WritePort
constexpr size_t kSlice = 4096;             // the monitor's largest send, and the plain sender's
constexpr const char *kServerAddress = "127.0.0.2";
constexpr uint32_t kServerAddressHost = 0x7F000002;
constexpr const char *kServerName = "PS1";
constexpr const char16_t *kPortName = u"PS1-P1";
constexpr const char16_t *kPrinter = u"Bench";
constexpr int kStallMs = 30000;            // a run that moves nothing for this long has failed

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// ---- the job's bytes: generated a spooler buffer at a time ----------------------------
// Buffer n of the job; the same bytes on every call, for both senders.
void FillBuffer(std::vector<unsigned char> &buffer, uint64_t n) {
    uint64_t x = 0x9E3779B97F4A7C15ull * (n + 1);
    for (size_t i = 0; i < buffer.size(); i += 8) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        std::memcpy(buffer.data() + i, &x, 8);
    }
}

uint64_t JobChecksum(uint64_t buffers) {
    std::vector<unsigned char> buffer(kSpoolBuffer);
    uint64_t hash = kvtps::kFnvOffset;
    for (uint64_t n = 0; n < buffers; ++n) {
        FillBuffer(buffer, n);
        hash = kvtps::Fnv1a64(buffer.data(), buffer.size(), hash);
    }
    return hash;
}

// ---- what the print server saw ------------------------------------------------------------
struct Arrival {
    Clock::time_point at;
    uint64_t bytes = 0;
    uint64_t checksum = 0;
    bool complete = false;
    std::string error;
};

class Arrivals {
public:
    void Add(const kvtps::LprJob &job) {
        std::lock_guard<std::mutex> lock(mu_);
        list_.push_back({Clock::now(), job.dataBytes, job.dataChecksum, job.complete, job.error});
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

struct Run {
    bool ok = false;
    double seconds = 0;        // start of the job to its last byte at the server
    double streamSeconds = 0;  // first data byte handed over to the last byte at the server
    Arrival arrival;
    std::string error;
};

// ---- the host: registry, prefix and the monitor -------------------------------------------
void SetValue(HKEY key, const char16_t *name, DWORD type, const void *data, DWORD size) {
    RegSetValueExW(key, name, 0, type, static_cast<const BYTE *>(data), size);
}

// The keys that kvtmon writes for a TCP/IP host with one port: the network
// component, the monitor's flags (no log, no notice) and port PS1-P1.
bool WriteRegistry(std::string *error) {
    HKEY key = nullptr;
    if (RegCreateKeyW(HKEY_LOCAL_MACHINE, u"SYSTEM\\CurrentControlSet\\Services\\Tcpip", &key) != ERROR_SUCCESS) {
        *error = "cannot write the Tcpip key";
        return false;
    }
    std::u16string image = u"\\SystemRoot\\System32\\drivers\\tcpip.sys";
    SetValue(key, u"ImagePath", REG_EXPAND_SZ, image.c_str(), static_cast<DWORD>((image.size() + 1) * 2));
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
    BYTE tcpip = 2;
    std::u16string queue;
    SetValue(server, u"IP    ", REG_BINARY, &address, 4);
    SetValue(server, u"Network", REG_BINARY, zero, 4);
    SetValue(server, u"Node Address", REG_BINARY, zero, 6);
    SetValue(digit, u" ", REG_BINARY, &tcpip, 1);
    SetValue(digit, u"QueueName", REG_SZ, queue.c_str(), 2);
    RegCloseKey(digit);
    RegCloseKey(server);
    return true;
}

std::string ProgramDirectory() {
    std::error_code ec;
    std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::string(".") : self.parent_path().string();
}

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

// ---- the monitor, driven as the spooler drives it ----------------------------------------------
Run PrintThroughMonitor(const MONITOR *m, HANDLE port, DWORD jobId, uint64_t buffers, Arrivals &arrivals,
                        size_t arrivalNumber) {
    Run run;
    kvthost::JobSpec job;
    job.printer = kPrinter;
    job.jobId = jobId;
    job.document = u"throughput";
    job.user = u"bench";
    job.machine = u"\\\\localhost";
    kvthost::AddJob(job);

    std::u16string document = job.document;
    DOC_INFO_1W info{document.data(), nullptr, const_cast<LPWSTR>(u"RAW")};
    std::vector<unsigned char> buffer(kSpoolBuffer);
    Clock::time_point start = Clock::now();
    if (!m->pfnStartDocPort(port, const_cast<LPWSTR>(kPrinter), jobId, 1, reinterpret_cast<LPBYTE>(&info))) {
        run.error = "LocalmonStartDocPort failed, error " + std::to_string(GetLastError());
        return run;
    }
    Clock::time_point streamStart = Clock::now();
    for (uint64_t n = 0; n < buffers && run.error.empty(); ++n) {
        FillBuffer(buffer, n);
        // A write that took less is called again with the rest, as the spooler does.
        size_t done = 0;
        Clock::time_point lastMove = Clock::now();
        while (done < buffer.size()) {
            DWORD written = 0;
            if (!m->pfnWritePort(port, buffer.data() + done, static_cast<DWORD>(buffer.size() - done), &written)) {
                run.error = "LocalmonWritePort failed, error " + std::to_string(GetLastError());
                break;
            }
            if (written > buffer.size() - done) {
                run.error = "LocalmonWritePort reported more written than it was given";
                break;
            }
            if (written > 0) lastMove = Clock::now();
            else if (Clock::now() - lastMove > std::chrono::milliseconds(kStallMs)) {
                run.error = "LocalmonWritePort moved nothing for 30 s";
                break;
            }
            done += written;
        }
    }
    m->pfnEndDocPort(port);  // closes the connection: the end of the job for the server
    if (!arrivals.WaitFor(arrivalNumber, kStallMs, &run.arrival)) {
        if (run.error.empty()) run.error = "the print server never saw the job end";
        return run;
    }
    run.seconds = Seconds(run.arrival.at - start);
    run.streamSeconds = Seconds(run.arrival.at - streamStart);
    run.ok = run.error.empty();
    return run;
}

// ---- the plain sender: POSIX sockets, non-blocking, select and send ---------------------------------
bool WaitFd(int fd, bool forWrite, int timeoutMs) {
    pollfd p{fd, static_cast<short>(forWrite ? POLLOUT : POLLIN), 0};
    return poll(&p, 1, timeoutMs) == 1;
}

bool SendAll(int fd, const char *data, size_t size) {
    while (size > 0) {
        if (!WaitFd(fd, true, kStallMs)) return false;
        ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) return false;
        if (n > 0) data += n, size -= static_cast<size_t>(n);
    }
    return true;
}

bool Step(int fd, const std::string &bytes) {
    char ack = 1;
    return SendAll(fd, bytes.data(), bytes.size()) && WaitFd(fd, false, kStallMs) && recv(fd, &ack, 1, 0) == 1 &&
           ack == 0;
}

Run PrintPlain(uint64_t buffers, Arrivals &arrivals, size_t arrivalNumber) {
    Run run;
    std::vector<unsigned char> buffer(kSpoolBuffer);
    Clock::time_point start = Clock::now();
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(515);
    inet_pton(AF_INET, kServerAddress, &server.sin_addr);
    int connected = connect(fd, reinterpret_cast<sockaddr *>(&server), sizeof server);
    int soError = 0;
    socklen_t length = sizeof soError;
    if ((connected != 0 && (errno != EINPROGRESS || !WaitFd(fd, true, kStallMs))) ||
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &soError, &length) != 0 || soError != 0) {
        run.error = "the plain sender could not connect";
        close(fd);
        return run;
    }
    // The same header as the monitor's: queue, control file, data file.
    std::string control = std::string("\x02") + "Hbench\nJthroughput\nNthroughput\nHbench\n" + '\0';
    bool header = Step(fd, "\x02lpt1\n") &&
                  Step(fd, "\x02" + std::to_string(control.size() - 1) + " cfA001bench\n") && Step(fd, control) &&
                  Step(fd, "\x03" "2147483647 dfA001bench\n");
    if (!header) {
        run.error = "the plain sender's LPR header was not accepted";
        close(fd);
        return run;
    }
    Clock::time_point streamStart = Clock::now();
    for (uint64_t n = 0; n < buffers && run.error.empty(); ++n) {
        FillBuffer(buffer, n);
        for (size_t at = 0; at < buffer.size();) {
            // select for write, then one send of at most one slice.
            fd_set writable;
            FD_ZERO(&writable);
            FD_SET(fd, &writable);
            timeval wait{kStallMs / 1000, 0};
            int ready = select(fd + 1, nullptr, &writable, nullptr, &wait);
            if (ready <= 0) {
                run.error = "the plain sender's select failed or timed out";
                break;
            }
            ssize_t sent = send(fd, buffer.data() + at, std::min(kSlice, buffer.size() - at), MSG_NOSIGNAL);
            if (sent < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
                run.error = std::string("the plain sender's send failed: ") + std::strerror(errno);
                break;
            }
            if (sent > 0) at += static_cast<size_t>(sent);
        }
    }
    close(fd);
    if (!arrivals.WaitFor(arrivalNumber, kStallMs, &run.arrival)) {
        if (run.error.empty()) run.error = "the print server never saw the plain job end";
        return run;
    }
    run.seconds = Seconds(run.arrival.at - start);
    run.streamSeconds = Seconds(run.arrival.at - streamStart);
    run.ok = run.error.empty();
    return run;
}

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    size_t n = v.size();
    return n == 0 ? 0 : n % 2 == 1 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

bool ParseCount(const char *text, long min, long max, long *out) {
    char *end = nullptr;
    errno = 0;
    long v = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != 0 || v < min || v > max) return false;
    *out = v;
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    // Before any thread: the private network, loopback only.
    std::string error;
    if (!kvthost::EnterPrivateNetwork(&error)) {
        std::fprintf(stderr, "lpr_throughput: cannot enter the private network: %s\n", error.c_str());
        return 2;
    }

    long mib = 256, rounds = 3;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--mib" && i + 1 < argc && ParseCount(argv[i + 1], 1, 65536, &mib)) {
            ++i;
        } else if (a == "--rounds" && i + 1 < argc && ParseCount(argv[i + 1], 1, 100, &rounds)) {
            ++i;
        } else {
            std::fprintf(stderr, "usage: lpr_throughput [--mib N (256)] [--rounds N (3)]\n");
            return 2;
        }
    }
    const uint64_t buffers = static_cast<uint64_t>(mib) * 1024 * 1024 / kSpoolBuffer;

    // A prefix of its own, and the monitor's real waits.
    char prefixTemplate[] = "/tmp/kvt-bench-XXXXXX";
    if (mkdtemp(prefixTemplate) == nullptr) {
        std::fprintf(stderr, "lpr_throughput: cannot make a temporary prefix: %s\n", std::strerror(errno));
        return 2;
    }
    const std::string prefix = prefixTemplate;
    kvthost::SetPrefix(prefix);
    kvthost::SetTimeScale(1.0);
    struct RemovePrefix {
        std::string path;
        ~RemovePrefix() {
            std::error_code ec;
            std::filesystem::remove_all(path, ec);
        }
    } removePrefix{prefix};
    if (!kvthost::MakePrefix(&error) || !WriteRegistry(&error)) {
        std::fprintf(stderr, "lpr_throughput: %s\n", error.c_str());
        return 2;
    }

    Arrivals arrivals;
    kvtps::Emulator emulator;
    emulator.SetJobObserver([&arrivals](const kvtps::LprJob &job) { arrivals.Add(job); });
    kvtps::ServerConfig config;
    config.name = kServerName;
    config.address = kServerAddress;
    config.storeData = false;
    if (!emulator.Start({config}, &error)) {
        std::fprintf(stderr, "lpr_throughput: the print server did not start: %s\n", error.c_str());
        return 2;
    }

    const MONITOR *m = LoadMonitor(&error);
    if (m == nullptr) {
        std::fprintf(stderr, "lpr_throughput: %s\n", error.c_str());
        return 2;
    }
    HANDLE port = nullptr;
    std::u16string portName = kPortName;
    if (!m->pfnOpenPort(portName.data(), &port)) {
        std::fprintf(stderr, "lpr_throughput: the monitor has no port PS1-P1\n");
        return 2;
    }

    const uint64_t expected = JobChecksum(buffers);
    std::printf("lpr_throughput: %ld MiB over LPR to kvtps at %s, %zu-byte sends, %zu KiB spooler buffers, "
                "%ld rounds\n",
                mib, kServerAddress, kSlice, kSpoolBuffer / 1024, rounds);
    std::printf("expected checksum: fnv1a64 %016llx\n", static_cast<unsigned long long>(expected));

    std::vector<double> monitorRates, plainRates, monitorStream, plainStream;
    bool checksumsMatch = true;
    size_t arrived = 0;
    // One job through each sender; false when either could not print.
    auto printBoth = [&](long round, uint64_t jobBuffers, uint64_t checksum, Run runs[2]) {
        for (int k = 0; k < 2; ++k) {
            bool monitorTurn = (k == 0) == (round % 2 == 0);  // rounds alternate which goes first
            const char *who = monitorTurn ? "monitor" : "plain TCP";
            Run run = monitorTurn ? PrintThroughMonitor(m, port, static_cast<DWORD>(100 + round), jobBuffers,
                                                        arrivals, ++arrived)
                                  : PrintPlain(jobBuffers, arrivals, ++arrived);
            if (!run.ok) {
                std::fprintf(stderr, "lpr_throughput: %s: %s\n", who, run.error.c_str());
                return false;
            }
            const Arrival &a = run.arrival;
            if (a.bytes != jobBuffers * kSpoolBuffer || a.checksum != checksum || !a.complete) {
                checksumsMatch = false;
                std::printf("  %s: the server got %llu bytes, checksum %016llx%s%s\n", who,
                            static_cast<unsigned long long>(a.bytes), static_cast<unsigned long long>(a.checksum),
                            a.complete ? "" : ", ", a.error.c_str());
            }
            runs[monitorTurn ? 0 : 1] = run;
        }
        return true;
    };
    auto rate = [&](double seconds) { return seconds > 0 ? mib / seconds : 0.0; };

    // A shorter job through each first, not counted: connections, buffers and
    // caches warm, for both alike.
    bool failed = false;
    {
        Run warm[2];
        uint64_t warmBuffers = std::min<uint64_t>(buffers, 512);
        failed = !printBoth(-1, warmBuffers, JobChecksum(warmBuffers), warm);
    }
    for (long r = 0; r < rounds && !failed; ++r) {
        Run runs[2];
        if (!printBoth(r, buffers, expected, runs)) {
            failed = true;
            break;
        }
        monitorRates.push_back(rate(runs[0].seconds));
        plainRates.push_back(rate(runs[1].seconds));
        monitorStream.push_back(rate(runs[0].streamSeconds));
        plainStream.push_back(rate(runs[1].streamSeconds));
        std::printf("round %ld: monitor %7.1f MiB/s (%.3f s, data %.3f s)   plain TCP %7.1f MiB/s (%.3f s, data "
                    "%.3f s)   ratio %.3f\n",
                    r + 1, monitorRates.back(), runs[0].seconds, runs[0].streamSeconds, plainRates.back(),
                    runs[1].seconds, runs[1].streamSeconds, runs[1].seconds / runs[0].seconds);
    }
    m->pfnClosePort(port);
    emulator.Stop();
    if (failed) return 2;

    double monitorMedian = Median(monitorRates), plainMedian = Median(plainRates);
    double ratio = plainMedian > 0 ? monitorMedian / plainMedian : 0;
    double streamRatio = Median(plainStream) > 0 ? Median(monitorStream) / Median(plainStream) : 0;
    std::printf("median: monitor %.1f MiB/s, plain TCP %.1f MiB/s\n", monitorMedian, plainMedian);
    std::printf("data phase only (first byte handed over to last byte received): monitor %.1f MiB/s, plain TCP "
                "%.1f MiB/s, ratio %.3f\n",
                Median(monitorStream), Median(plainStream), streamRatio);
    std::printf("ratio (monitor / plain TCP, medians): %.3f   target >= 0.90: %s\n", ratio,
                ratio >= 0.9 ? "met" : "NOT met");
    std::printf("checksums: %s\n", checksumsMatch ? "all match" : "MISMATCH");
    return checksumsMatch ? 0 : 1;
}
