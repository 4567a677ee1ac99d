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
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>

#include "bench_common.h"

namespace {

using namespace bench;

constexpr size_t kSlice = 4096;  // the monitor's largest send, and the plain sender's
constexpr const char *kServerName = "PS1";

struct Run {
    bool ok = false;
    double seconds = 0;        // start of the job to its last byte at the server
    double streamSeconds = 0;  // first data byte handed over to the last byte at the server
    Arrival arrival;
    std::string error;
};

// ---- the monitor, driven as the spooler drives it ----------------------------------------------
Run PrintThroughMonitor(const MONITOR *m, HANDLE port, DWORD jobId, uint64_t buffers, Arrivals &arrivals,
                        size_t arrivalNumber) {
    Run run;
    Clock::time_point start = Clock::now();
    if (!StartJob(m, port, jobId, &run.error)) return run;
    Clock::time_point streamStart = Clock::now();
    WriteJob(m, port, buffers, &run.error);
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
    TemporaryPrefix prefix;
    if (!prefix.Make(&error) || !WriteRegistry(2 /* TCP/IP */, false, &error)) {
        std::fprintf(stderr, "lpr_throughput: %s\n", error.c_str());
        return 2;
    }

    Arrivals arrivals;
    kvtps::Emulator emulator;
    emulator.SetJobObserver([&arrivals](const kvtps::LprJob &job) {
        arrivals.Add(job.dataBytes, job.dataChecksum, job.complete, job.error);
    });
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
