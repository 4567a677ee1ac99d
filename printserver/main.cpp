// kvtps: virtual KVT print servers in one process, until SIGINT or SIGTERM.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include <pthread.h>

#include "kvthost.h"
#include "kvtps.h"
#include "kvtps_program.h"

namespace {

void PrintSummary(const kvtps::Emulator &emulator) {
    for (const auto &name : emulator.ServerNames()) {
        kvtps::LprCounters c = emulator.Counters(name);
        std::printf("kvtps: %s: %llu connections, %llu jobs completed, %llu broken off, "
                    "%llu protocol errors\n",
                    name.c_str(), static_cast<unsigned long long>(c.connectionsAccepted),
                    static_cast<unsigned long long>(c.jobsCompleted),
                    static_cast<unsigned long long>(c.jobsBrokenOff),
                    static_cast<unsigned long long>(c.protocolErrors));
        kvtps::MgmtCounters m = emulator.ManagementCounters(name);
        std::printf("kvtps: %s: management queries: %llu search, %llu EEPROM, %llu queue names, "
                    "%llu status; %llu replies\n",
                    name.c_str(), static_cast<unsigned long long>(m.search),
                    static_cast<unsigned long long>(m.readEeprom), static_cast<unsigned long long>(m.queueNames),
                    static_cast<unsigned long long>(m.status), static_cast<unsigned long long>(m.replies));
        kvtps::IpxCounters x = emulator.IpxCountersOf(name);
        std::printf("kvtps: %s: IPX: %llu search, %llu EEPROM, %llu connects (%llu busy), %llu data frames "
                    "(%llu again), %llu hang-ups; %llu replies\n",
                    name.c_str(), static_cast<unsigned long long>(x.search),
                    static_cast<unsigned long long>(x.readEeprom), static_cast<unsigned long long>(x.connects),
                    static_cast<unsigned long long>(x.busyAnswers), static_cast<unsigned long long>(x.dataFrames),
                    static_cast<unsigned long long>(x.duplicates), static_cast<unsigned long long>(x.hangups),
                    static_cast<unsigned long long>(x.replies));
        kvtps::NbCounters n = emulator.NetbiosCounters(name);
        std::printf("kvtps: %s: NetBIOS queries: %llu search to the group, %llu to its name, %llu EEPROM; "
                    "%llu replies; channel: %llu connects, %llu data frames, %llu hang-ups; %llu replies\n",
                    name.c_str(), static_cast<unsigned long long>(n.groupSearch),
                    static_cast<unsigned long long>(n.nameSearch), static_cast<unsigned long long>(n.cfgReadEeprom),
                    static_cast<unsigned long long>(n.replies), static_cast<unsigned long long>(n.channel.connects),
                    static_cast<unsigned long long>(n.channel.dataFrames),
                    static_cast<unsigned long long>(n.channel.hangups),
                    static_cast<unsigned long long>(n.channel.replies));
    }
}

// A server's timed move to another address (--move).
struct Move {
    std::string server;
    std::string address;
    std::chrono::steady_clock::time_point at;
};

// Waits for SIGINT or SIGTERM, moving servers as their times come.
int WaitForStop(const sigset_t &stopSignals, kvtps::Emulator &emulator, std::vector<Move> moves,
                std::mutex &outputLock, bool quiet) {
    std::sort(moves.begin(), moves.end(), [](const Move &a, const Move &b) { return a.at < b.at; });
    for (size_t next = 0;;) {
        if (next == moves.size()) {
            int signal = 0;
            sigwait(&stopSignals, &signal);
            return signal;
        }
        auto wait = std::max(moves[next].at - std::chrono::steady_clock::now(), std::chrono::steady_clock::duration(0));
        auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(wait).count();
        timespec timeout{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
        int signal = sigtimedwait(&stopSignals, nullptr, &timeout);
        if (signal > 0) return signal;
        if (std::chrono::steady_clock::now() < moves[next].at) continue;  // EINTR
        const Move &m = moves[next++];
        std::string error;
        bool moved = emulator.SetAddress(m.server, m.address, &error);
        std::lock_guard<std::mutex> lock(outputLock);
        if (!moved) std::fprintf(stderr, "kvtps: %s cannot move to %s: %s\n", m.server.c_str(), m.address.c_str(), error.c_str());
        else if (!quiet) std::printf("kvtps: %s moved to %s\n", m.server.c_str(), m.address.c_str());
        std::fflush(stdout);
    }
}

}  // namespace

int main(int argc, char **argv) {
    kvtps::ProgramOptions options;
    std::string error;
    if (!kvtps::ParseCommandLine(std::vector<std::string>(argv + 1, argv + argc), &options,
                                 &error)) {
        std::fprintf(stderr, "kvtps: %s\nTry 'kvtps --help'.\n", error.c_str());
        return 2;
    }
    if (options.help) {
        std::fputs(kvtps::UsageText(), stdout);
        return 0;
    }
    // The namespace must be entered while the process has a single thread.
    if (options.privateNet && !kvthost::EnterPrivateNetwork(&error)) {
        std::fprintf(stderr, "kvtps: cannot enter a private network: %s\n", error.c_str());
        return 1;
    }

    // Blocked before any thread starts, so that every thread inherits the mask
    // and the signals reach sigwait below.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    std::mutex outputLock;
    kvtps::Emulator emulator;
    emulator.SetJobObserver([&](const kvtps::LprJob &job) {
        std::vector<std::string> written;
        std::string why;
        bool spooled = options.spoolDir.empty() || kvtps::SpoolJob(options.spoolDir, job, &written, &why);
        std::lock_guard<std::mutex> lock(outputLock);
        if (!options.quiet) std::printf("%s\n", kvtps::DescribeJob(job).c_str());
        if (!spooled) std::fprintf(stderr, "kvtps: %s\n", why.c_str());
        std::fflush(stdout);
    });
    for (const char *carrier : {"IPX", "NetBIOS"}) {
        auto print = [&, carrier](const kvtps::ChannelJob &job) {
            std::lock_guard<std::mutex> lock(outputLock);
            if (!options.quiet) std::printf("%s\n", kvtps::DescribeChannelJob(job, carrier).c_str());
            std::fflush(stdout);
        };
        if (carrier[0] == 'I') emulator.SetIpxJobObserver(print);
        else emulator.SetNetbiosJobObserver(print);
    }
    if (!emulator.Start(options.servers, &error)) {
        std::fprintf(stderr, "kvtps: %s\n", error.c_str());
        return 1;
    }
    if (!options.quiet) {
        std::lock_guard<std::mutex> lock(outputLock);
        for (const auto &server : options.servers) {
            const bool refusing = server.lpr.refuse;
            std::printf("kvtps: %s on %s:%u%s, node %s%s%s\n", server.name.c_str(), server.address.c_str(),
                        emulator.LprPort(server.name), refusing ? " (refusing)" : "",
                        kvtps::NodeText(emulator.Node(server.name)).c_str(),
                        server.management ? "" : " (no management)",
                        emulator.IpxCountersOf(server.name).listening ? ", IPX" : " (no IPX)");
            if (server.netbios.enabled && emulator.NetbiosTraffic().listening)
                std::printf("kvtps: %s holds the NetBIOS names \"%s\" and \"%s\", member of %s\n", server.name.c_str(),
                            kvtps::NbName(server).c_str(), kvtps::NbCfgName(server).c_str(), kvtps::kNbGroupName);
        }
        if (!emulator.NetbiosTraffic().listenError.empty())
            std::fprintf(stderr, "kvtps: %s; the servers hold no NetBIOS names\n",
                         emulator.NetbiosTraffic().listenError.c_str());
        std::printf("kvtps: ready\n");
        std::fflush(stdout);
    }

    std::vector<Move> moves;
    const auto started = std::chrono::steady_clock::now();
    for (const auto &server : options.servers) {
        if (server.moveAfterMs >= 0)
            moves.push_back({server.name, server.moveAddress, started + std::chrono::milliseconds(server.moveAfterMs)});
    }
    WaitForStop(stopSignals, emulator, moves, outputLock, options.quiet);
    emulator.Stop();
    if (!options.quiet) {
        std::lock_guard<std::mutex> lock(outputLock);
        PrintSummary(emulator);
    }
    return 0;
}
