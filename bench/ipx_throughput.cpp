// ipx_throughput: one 16 MiB job printed through the monitor over IPX, as the
// spooler prints it, next to the simplest sender of the same exchange in the
// same run, to the same emulated print server: the job start's one-pass
// search, the connect, the same 1000-byte data frames and the hang-up, each
// frame on a UDP socket of its own (IPX socket s of 127.0.0.2 is UDP port
// 0x8000 + s), sent once the frame before it was acknowledged.
//
// Both are timed from the start of the job (LocalmonStartDocPort; the plain
// sender's search) to the moment the print server has the hang-up; the pause
// of 500 ms that LocalmonEndDocPort makes after it is left out.  The figure is
// the ratio of the two medians; the target is at least 0.9.  The data phase
// alone (first frame to last acknowledgement) is reported beside it.
//
// Exits 1 when a job arrived with the wrong length or checksum, 2 when the
// set-up or a job failed; throughput below the target is reported, not an error.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>

#include "bench_common.h"

namespace {

using namespace bench;

constexpr size_t kFrame = 1000;      // payload of a data frame
constexpr int kSends = 21;           // a frame and its 20 resends
constexpr int kWaitMs = 500;         // for a reply, per send
constexpr int kSearchSilenceMs = 500;

struct Run {
    bool ok = false;
    double seconds = 0;      // start of the job to the hang-up at the server
    double dataSeconds = 0;  // first data frame to the last acknowledgement
    Arrival arrival;
    std::string error;
};

// ---- the plain sender: POSIX UDP sockets ---------------------------------------------------------

sockaddr_in At(const char *address, uint16_t ipxSocket) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(0x8000 + ipxSocket));
    inet_pton(AF_INET, address, &to.sin_addr);
    return to;
}

// The job start's search: the query broadcast once, then replies until 500 ms pass without one.
void Search() {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    const uint8_t query[4] = {0x00, 0x04, 0xFF, 0xFB};
    sockaddr_in to = At("255.255.255.255", 0x3434);
    sendto(fd, query, sizeof query, 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    uint8_t reply[74];
    for (pollfd p{fd, POLLIN, 0}; poll(&p, 1, kSearchSilenceMs) == 1;) recv(fd, reply, sizeof reply, 0);
    close(fd);
}

// One frame on a socket of its own until it is acknowledged; the reply's
// channel for a connect.
bool Exchange(uint16_t ipxSocket, const uint8_t *frame, size_t size, uint8_t *channel) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to = At(kServerAddress, ipxSocket);
    uint8_t reply[12];
    bool ok = false;
    for (int send = 0; send < kSends && !ok; ++send) {
        sendto(fd, frame, size, 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
        for (pollfd p{fd, POLLIN, 0}; !ok && poll(&p, 1, kWaitMs) == 1;)
            ok = recv(fd, reply, sizeof reply, 0) == 12 && reply[2] == 0x80 && reply[3] == frame[3] &&
                 (frame[3] == 2 ? reply[5] != 0 : std::memcmp(reply + 8, frame + 8, 4) == 0);
    }
    close(fd);
    *channel = reply[5];
    return ok;
}

Run PrintPlain(uint64_t buffers, Arrivals &arrivals, size_t arrivalNumber) {
    Run run;
    Clock::time_point start = Clock::now();
    Search();
    uint8_t frame[12 + kFrame] = {0x50, 0x53, 0x00, 0x02, 0x01, 0xFF};
    uint8_t channel = 0;
    if (!Exchange(0x3030, frame, 12, &channel)) {
        run.error = "the plain sender got no channel";
        return run;
    }
    Clock::time_point dataStart = Clock::now();
    frame[3] = 0x04;
    frame[5] = channel;
    std::vector<unsigned char> buffer(kSpoolBuffer);
    uint32_t sequence = 0;
    for (uint64_t n = 0; n < buffers && run.error.empty(); ++n) {
        FillBuffer(buffer, n);
        for (size_t at = 0; at < buffer.size() && run.error.empty(); at += kFrame, ++sequence) {
            size_t payload = std::min(kFrame, buffer.size() - at);
            std::memcpy(frame + 8, &sequence, 4);  // least significant byte first, as on this host
            std::memcpy(frame + 12, buffer.data() + at, payload);
            if (!Exchange(0x3131, frame, 12 + payload, &channel)) run.error = "a data frame of the plain sender was lost";
        }
    }
    run.dataSeconds = Seconds(Clock::now() - dataStart);
    frame[3] = 0x08;
    std::memset(frame + 8, 0, 4);
    if (!Exchange(0x3131, frame, 12, &channel) && run.error.empty()) run.error = "the plain sender's hang-up was lost";
    if (!arrivals.WaitFor(arrivalNumber, kStallMs, &run.arrival) && run.error.empty())
        run.error = "the print server never saw the plain job end";
    run.seconds = Seconds(run.arrival.at - start);
    run.ok = run.error.empty();
    return run;
}

// ---- the monitor, driven as the spooler drives it ------------------------------------------------

Run PrintThroughMonitor(const MONITOR *m, HANDLE port, DWORD jobId, uint64_t buffers, Arrivals &arrivals,
                        size_t arrivalNumber) {
    Run run;
    Clock::time_point start = Clock::now();
    if (!StartJob(m, port, jobId, &run.error)) return run;
    Clock::time_point dataStart = Clock::now();
    WriteJob(m, port, buffers, &run.error);
    run.dataSeconds = Seconds(Clock::now() - dataStart);
    m->pfnEndDocPort(port);  // the hang-up, then the pause
    if (!arrivals.WaitFor(arrivalNumber, kStallMs, &run.arrival) && run.error.empty())
        run.error = "the print server never saw the job end";
    run.seconds = Seconds(run.arrival.at - start);
    run.ok = run.error.empty();
    return run;
}

}  // namespace

int main(int argc, char **argv) {
    std::string error;
    if (!kvthost::EnterPrivateNetwork(&error)) {  // before any thread: loopback only
        std::fprintf(stderr, "ipx_throughput: cannot enter the private network: %s\n", error.c_str());
        return 2;
    }
    long mib = 16, rounds = 3;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if ((a == "--mib" || a == "--rounds") && i + 1 < argc &&
            ParseCount(argv[i + 1], 1, a == "--mib" ? 4096 : 100, a == "--mib" ? &mib : &rounds)) {
            ++i;
        } else {
            std::fprintf(stderr, "usage: ipx_throughput [--mib N (16)] [--rounds N (3)]\n");
            return 2;
        }
    }
    const uint64_t buffers = static_cast<uint64_t>(mib) * 1024 * 1024 / kSpoolBuffer;

    TemporaryPrefix prefix;
    Arrivals arrivals;
    kvtps::Emulator emulator;
    emulator.SetIpxJobObserver([&arrivals](const kvtps::IpxJob &job) {
        arrivals.Add(job.dataBytes, job.dataChecksum, job.hungUp, "");
    });
    kvtps::ServerConfig config;
    config.name = "PS1";
    config.address = kServerAddress;
    config.storeData = false;
    const MONITOR *m = nullptr;
    HANDLE port = nullptr;
    std::u16string portName = kPortName;
    if (!prefix.Make(&error) || !WriteRegistry(1 /* IPX */, true, &error) || !emulator.Start({config}, &error) ||
        (m = LoadMonitor(&error)) == nullptr || !m->pfnOpenPort(portName.data(), &port)) {
        std::fprintf(stderr, "ipx_throughput: the set-up failed: %s\n", error.c_str());
        return 2;
    }

    const uint64_t expected = JobChecksum(buffers);
    std::printf("ipx_throughput: %ld MiB over IPX to kvtps at %s, %zu-byte frames, a socket a frame, "
                "%zu KiB spooler buffers, %ld rounds\n",
                mib, kServerAddress, kFrame, kSpoolBuffer / 1024, rounds);
    std::vector<double> monitorRates, plainRates, monitorData, plainData;
    bool checksumsMatch = true;
    size_t arrived = 0;
    auto rate = [&](double seconds) { return seconds > 0 ? mib / seconds : 0.0; };
    // Round 0, a 1 MiB job each, warms up and is not counted; then the rounds
    // alternate which sender goes first.
    for (long round = 0; round <= rounds; ++round) {
        const uint64_t jobBuffers = round == 0 ? std::min<uint64_t>(buffers, 16) : buffers;
        Run runs[2];
        for (int k = 0; k < 2; ++k) {
            const bool monitorTurn = (k == 0) == (round % 2 == 0);
            Run run = monitorTurn ? PrintThroughMonitor(m, port, static_cast<DWORD>(100 + round), jobBuffers, arrivals,
                                                        ++arrived)
                                  : PrintPlain(jobBuffers, arrivals, ++arrived);
            if (!run.ok) {
                std::fprintf(stderr, "ipx_throughput: %s: %s\n", monitorTurn ? "monitor" : "plain", run.error.c_str());
                return 2;
            }
            const Arrival &a = run.arrival;
            if (a.bytes != jobBuffers * kSpoolBuffer || (round > 0 && a.checksum != expected) || !a.complete)
                checksumsMatch = false;
            runs[monitorTurn ? 0 : 1] = run;
        }
        if (round == 0) continue;
        monitorRates.push_back(rate(runs[0].seconds));
        plainRates.push_back(rate(runs[1].seconds));
        monitorData.push_back(rate(runs[0].dataSeconds));
        plainData.push_back(rate(runs[1].dataSeconds));
        std::printf("round %ld: monitor %6.2f MiB/s (%.3f s, data %.3f s)   plain %6.2f MiB/s (%.3f s, data %.3f s)   "
                    "ratio %.3f\n",
                    round, monitorRates.back(), runs[0].seconds, runs[0].dataSeconds, plainRates.back(),
                    runs[1].seconds, runs[1].dataSeconds, runs[1].seconds / runs[0].seconds);
    }
    m->pfnClosePort(port);
    emulator.Stop();

    double ratio = Median(plainRates) > 0 ? Median(monitorRates) / Median(plainRates) : 0;
    std::printf("median: monitor %.2f MiB/s, plain %.2f MiB/s\n", Median(monitorRates), Median(plainRates));
    std::printf("data phase only (first data frame to the last acknowledgement): monitor %.2f MiB/s, plain %.2f "
                "MiB/s, ratio %.3f\n",
                Median(monitorData), Median(plainData),
                Median(plainData) > 0 ? Median(monitorData) / Median(plainData) : 0);
    std::printf("ratio (monitor / plain, medians): %.3f   target >= 0.90: %s\n", ratio, ratio >= 0.9 ? "met" : "NOT met");
    std::printf("checksums: %s\n", checksumsMatch ? "all match" : "MISMATCH");
    return checksumsMatch ? 0 : 1;
}
