// What the job benchmarks share: the job's bytes made a spooler buffer at a
// time, a prefix with the registry keys kvtmon writes for one port of print
// server PS1 at 127.0.0.2, the monitor loaded as the spooler loads it, the
// moments the print server saw each job end, and the whole comparison of a
// job through the monitor with the same job through a plain sender.
#pragma once

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
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "kvthost.h"
#include "kvtmon.h"
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
};

class Arrivals {
public:
    void Add(uint64_t bytes, uint64_t checksum, bool complete) {
        std::lock_guard<std::mutex> lock(mu_);
        list_.push_back({Clock::now(), bytes, checksum, complete});
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

// The keys that `kvtmon init --transports tcpip[,ipx][,netbios]` writes, the
// monitor's flags off (no log, no notice), and port PS1-P1 with the protocol given.
inline bool WriteRegistry(BYTE protocol, bool ipx, bool netbios, std::string *error) {
    kvtmon::SetNetworkComponents(kvtmon::kTransportTcpip | (ipx ? kvtmon::kTransportIpx : 0) |
                                 (netbios ? kvtmon::kTransportNetbios : 0));
    kvtmon::SetMonitorFlags(false, false);
    return kvtmon::MakePortKeys("PS1-P1", kServerAddressHost, protocol, std::nullopt, error);
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

// ---- a job through the monitor next to the same job through a plain sender -------------

// One job through one sender.
struct Run {
    bool ok = false;
    double seconds = 0;      // from the job's start to its end at the print server
    double dataSeconds = 0;  // its data phase alone
    Arrival arrival;
    std::string error;
};

// A job through the monitor, driven as the spooler drives it: timed from
// LocalmonStartDocPort to the job's end at the print server, its data phase
// from the first LocalmonWritePort to the last byte at the server (with
// acknowledged frames, the return of the last LocalmonWritePort).
inline Run MonitorJob(const MONITOR *m, HANDLE port, DWORD jobId, uint64_t buffers, Arrivals &arrivals,
                      size_t arrivalNumber, bool acknowledged) {
    Run run;
    Clock::time_point start = Clock::now();
    if (!StartJob(m, port, jobId, &run.error)) return run;
    Clock::time_point dataStart = Clock::now();
    WriteJob(m, port, buffers, &run.error);
    Clock::time_point written = Clock::now();
    m->pfnEndDocPort(port);  // the close or the hang-up: the end of the job for the server
    if (!arrivals.WaitFor(arrivalNumber, kStallMs, &run.arrival) && run.error.empty())
        run.error = "the print server never saw the job end";
    run.seconds = Seconds(run.arrival.at - start);
    run.dataSeconds = Seconds((acknowledged ? written : run.arrival.at) - dataStart);
    run.ok = run.error.empty();
    return run;
}

// The plain sender's job over a print channel (IPX or NetBIOS): the connect,
// the job in 1000-byte data frames and the hang-up, each frame sent by
// exchange (the frame, its size, the reply's channel) until acknowledged;
// timed from before start(), the carrier's own first step.
using ChannelExchange = std::function<bool(const uint8_t *frame, size_t size, uint8_t *channel)>;
inline Run PlainChannelJob(uint64_t buffers, Arrivals &arrivals, size_t arrivalNumber, const std::function<void()> &start,
                           const ChannelExchange &connect, const ChannelExchange &exchange) {
    constexpr size_t kFrame = 1000;
    Run run;
    Clock::time_point begin = Clock::now();
    start();
    uint8_t frame[12 + kFrame] = {0x50, 0x53, 0x00, 0x02, 0x01, 0xFF}, channel = 0;
    if (!connect(frame, 12, &channel)) run.error = "the plain sender got no channel";
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
            if (!exchange(frame, 12 + payload, &channel)) run.error = "a data frame was never acknowledged";
        }
    }
    run.dataSeconds = Seconds(Clock::now() - dataStart);
    frame[3] = 0x08;
    std::memset(frame + 8, 0, 4);
    if (run.error.empty() && !exchange(frame, 12, &channel)) run.error = "the hang-up was never acknowledged";
    if (run.error.empty() && !arrivals.WaitFor(arrivalNumber, kStallMs, &run.arrival))
        run.error = "the print server never saw the job end";
    run.seconds = Seconds(run.arrival.at - begin);
    run.ok = run.error.empty();
    return run;
}

// An acknowledgement of the frame: a connect's with a channel, a data
// frame's or hang-up's with its Sequence.
inline bool Acknowledges(const uint8_t *frame, const uint8_t *reply, size_t size) {
    return size == 12 && reply[2] == 0x80 && reply[3] == frame[3] &&
           (frame[3] == 2 ? reply[5] != 0 : std::memcmp(reply + 8, frame + 8, 4) == 0);
}

struct Comparison {
    const char *program;  // its name, in its messages
    const char *plainName;  // the plain sender's name in the output
    const char *what;       // the job, after "N MiB ", in the first line
    long mib;               // the job's size unless --mib says
    uint64_t warmBuffers;   // the job that warms both up first, not counted
    BYTE protocol;          // PS1-P1's stored transport
    bool ipx;               // the host offers IPX too, and the job goes by acknowledged frames
    bool netbios;           // the host offers NetBIOS too, and the job goes by acknowledged frames
    std::function<Run(uint64_t buffers, Arrivals &arrivals, size_t arrivalNumber)> plain;
};

// The whole program: the private network, --mib and --rounds, a prefix with
// port PS1-P1, the print server PS1 (keeping only counts and checksums), the
// monitor; then a warm-up and the rounds, each job through each sender, the
// rounds alternating which goes first; then the medians and the figure, the
// ratio of the monitor's median to the plain sender's (target 0.9).  Exits 1
// when a job arrived with the wrong length or checksum, 2 when the set-up or a
// job failed.
inline int Compare(int argc, char **argv, const Comparison &c) {
    std::string error;
    if (!kvthost::EnterPrivateNetwork(&error)) {  // before any thread: loopback only
        std::fprintf(stderr, "%s: cannot enter the private network: %s\n", c.program, error.c_str());
        return 2;
    }
    long mib = c.mib, rounds = 3;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if ((a == "--mib" || a == "--rounds") && i + 1 < argc &&
            ParseCount(argv[i + 1], 1, a == "--mib" ? 65536 : 100, a == "--mib" ? &mib : &rounds)) {
            ++i;
        } else {
            std::fprintf(stderr, "usage: %s [--mib N (%ld)] [--rounds N (3)]\n", c.program, c.mib);
            return 2;
        }
    }
    const uint64_t buffers = static_cast<uint64_t>(mib) * 1024 * 1024 / kSpoolBuffer;

    TemporaryPrefix prefix;
    Arrivals arrivals;
    kvtps::Emulator emulator;
    emulator.SetJobObserver([&](const kvtps::LprJob &job) { arrivals.Add(job.dataBytes, job.dataChecksum, job.complete); });
    emulator.SetIpxJobObserver([&](const kvtps::IpxJob &job) { arrivals.Add(job.dataBytes, job.dataChecksum, job.hungUp); });
    emulator.SetNetbiosJobObserver(
        [&](const kvtps::ChannelJob &job) { arrivals.Add(job.dataBytes, job.dataChecksum, job.hungUp); });
    kvtps::ServerConfig config;
    config.name = "PS1";
    config.address = kServerAddress;
    config.storeData = false;
    const MONITOR *m = nullptr;
    HANDLE port = nullptr;
    std::u16string portName = kPortName;
    if (!prefix.Make(&error) || !WriteRegistry(c.protocol, c.ipx, c.netbios, &error) || !emulator.Start({config}, &error) ||
        (m = kvtmon::LoadMonitor(&error)) == nullptr || !m->pfnOpenPort(portName.data(), &port)) {
        std::fprintf(stderr, "%s: the set-up failed: %s\n", c.program, error.c_str());
        return 2;
    }

    const uint64_t expected = JobChecksum(buffers);
    std::printf("%s: %ld MiB %s, %zu KiB spooler buffers, %ld rounds\n", c.program, mib, c.what,
                kSpoolBuffer / 1024, rounds);
    std::printf("expected checksum: fnv1a64 %016llx\n", static_cast<unsigned long long>(expected));
    std::vector<double> rates[2], dataRates[2];
    bool checksumsMatch = true;
    size_t arrived = 0;
    auto rate = [&](double seconds) { return seconds > 0 ? mib / seconds : 0.0; };
    for (long round = 0; round <= rounds; ++round) {  // round 0 warms up
        const uint64_t jobBuffers = round == 0 ? std::min(buffers, c.warmBuffers) : buffers;
        const uint64_t checksum = round == 0 ? JobChecksum(jobBuffers) : expected;
        Run runs[2];
        const char *names[2] = {"monitor", c.plainName};
        for (int k = 0; k < 2; ++k) {
            const int who = (k == 0) == (round % 2 == 1) ? 0 : 1;  // 0: the monitor
            runs[who] = who == 0 ? MonitorJob(m, port, static_cast<DWORD>(100 + round), jobBuffers, arrivals,
                                              ++arrived, c.ipx || c.netbios)
                                 : c.plain(jobBuffers, arrivals, ++arrived);
            const Arrival &a = runs[who].arrival;
            if (!runs[who].ok) {
                std::fprintf(stderr, "%s: %s: %s\n", c.program, names[who], runs[who].error.c_str());
                return 2;
            }
            if (a.bytes != jobBuffers * kSpoolBuffer || a.checksum != checksum || !a.complete) {
                checksumsMatch = false;
                std::printf("  %s: the server got %llu bytes, checksum %016llx, %s\n", names[who],
                            static_cast<unsigned long long>(a.bytes), static_cast<unsigned long long>(a.checksum),
                            a.complete ? "whole" : "broken off");
            }
        }
        if (round == 0) continue;
        for (int who = 0; who < 2; ++who) {
            rates[who].push_back(rate(runs[who].seconds));
            dataRates[who].push_back(rate(runs[who].dataSeconds));
        }
        std::printf("round %ld: monitor %7.2f MiB/s (%.3f s, data %.3f s)   %s %7.2f MiB/s (%.3f s, data %.3f s)   "
                    "ratio %.3f\n",
                    round, rates[0].back(), runs[0].seconds, runs[0].dataSeconds, c.plainName, rates[1].back(),
                    runs[1].seconds, runs[1].dataSeconds, runs[1].seconds / runs[0].seconds);
    }
    m->pfnClosePort(port);
    emulator.Stop();

    const double ratio = Median(rates[1]) > 0 ? Median(rates[0]) / Median(rates[1]) : 0;
    std::printf("median: monitor %.2f MiB/s, %s %.2f MiB/s\n", Median(rates[0]), c.plainName, Median(rates[1]));
    std::printf("data phase only: monitor %.2f MiB/s, %s %.2f MiB/s, ratio %.3f\n", Median(dataRates[0]), c.plainName,
                Median(dataRates[1]), Median(dataRates[1]) > 0 ? Median(dataRates[0]) / Median(dataRates[1]) : 0);
    std::printf("ratio (monitor / %s, medians): %.3f   target >= 0.90: %s\n", c.plainName, ratio,
                ratio >= 0.9 ? "met" : "NOT met");
    std::printf("checksums: %s\n", checksumsMatch ? "all match" : "MISMATCH");
    return checksumsMatch ? 0 : 1;
}

}  // namespace bench
