// Soak: many jobs of random sizes over random transports against random
// faults of the print server, from a seed, one after another on one port.  A
// job the monitor reports printed is stored once and whole; a job it reports
// failed is stored nowhere whole; nothing else is stored.  KVT_SOAK_JOBS sets
// the count (make soak runs 1000, KVT_SOAK_SEED the seed); from 1000 jobs on, the
// plain build's resident size after the last job is held to 10% over its size
// after job 100.  So that the process holds what a spooler's would, the server
// keeps each job's length and checksum only, and the host's spooler forgets
// the jobs and calls of a batch once it is checked.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <fstream>
#include <random>

#include <malloc.h>

#include "fixture.h"
#include "nbstartup.h"

namespace {

long ResidentKiB() {
    long pages = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// The resident size of what the process holds: first the C library hands back
// the pages it keeps free for reuse, which depend on the order of the batch's
// allocations, not on what is still allocated.  Both figures are printed.
long HeldKiB(int job) {
    const long kept = ResidentKiB();
    malloc_trim(0);
    const long held = ResidentKiB();
    std::printf("after job %d: %ld KiB resident, %ld KiB before the free pages went back\n", job, held, kept);
    return held;
}

int EnvOr(const char *name, int fallback) {
    const char *v = std::getenv(name);
    return v != nullptr && *v != 0 ? std::atoi(v) : fallback;
}

// One job's fault, applied to PS1 before the job and taken away after it.
struct Fault {
    const char *name;
    kvtps::LprFaults lpr;
    kvtps::ChannelFaults channel;
};

const Fault kFaults[] = {{"none", {}, {}},
                         {"LPR ack delay", {.ackDelayMs = 20}, {}},
                         {"LPR slow reads", {.readChunk = 700, .readDelayMs = 1}, {}},
                         {"LPR closes before ack 3 once", {.closeBeforeAck = 3, .closeBeforeAckCount = 1}, {}},
                         {"LPR nak at ack 2", {.nakAtStep = 2}, {}},
                         {"channel drops every 3rd frame", {}, {.dropDataEvery = 3}},
                         {"channel drops every 4th reply", {}, {.dropReplyEvery = 4}},
                         {"channel busy once", {}, {.busyAnswers = 1}}, {"channel silent", {}, {.silent = true}}};

using Digest = std::pair<uint64_t, uint64_t>;  // length, FNV-1a 64

class Soak : public JobTest {
protected:
    void Apply(const Fault &f) {
        ASSERT_TRUE(emulator.SetLprFaults("PS1", f.lpr));
        kvtps::IpxFaults ipx;
        static_cast<kvtps::ChannelFaults &>(ipx) = f.channel;
        ASSERT_TRUE(emulator.SetIpxFaults("PS1", ipx));
        const kvtps::NbFaults nb = kvttest::With(kvtps::NbFaults(), [&](auto &n) { n.channel = f.channel; });
        ASSERT_TRUE(emulator.SetNetbiosFaults("PS1", nb));
    }
    // Every job PS1 stored whole, on any carrier (LPR jobs, and channels hung
    // up), as its length and checksum.
    std::vector<Digest> StoredWhole() {
        std::vector<Digest> out;
        auto keep = [&](const auto &j, bool whole) { if (whole) out.emplace_back(j.dataBytes, j.dataChecksum); };
        for (const auto &j : emulator.Jobs("PS1")) keep(j, j.complete);
        for (const auto &j : emulator.IpxJobs("PS1")) keep(j, j.hungUp);
        for (const auto &j : emulator.NetbiosJobs("PS1")) keep(j, j.hungUp);
        return out;
    }
};

TEST_F(Soak, EveryJobIsReportedAsItArrived) {
    const int jobs = EnvOr("KVT_SOAK_JOBS", 40);
    const unsigned seed = static_cast<unsigned>(EnvOr("KVT_SOAK_SEED", 1));
    std::mt19937 random(seed);
    PINIPORT port = StartPort({.ipx = true, .netbios = true, .debug = false, .timeScale = 0.01});
    const kvtps::ServerConfig c = kvttest::With(kvttest::Server(), [](auto &c) { c.model = 3, c.storeData = false; });
    StartServers({c});
    ASSERT_TRUE(bStartup = NBStartup());
    const uint8_t protocols[] = {PROTOCOL_AUTO, PROTOCOL_TCPIP, PROTOCOL_IPX, PROTOCOL_NETBIOS};
    std::vector<Digest> printed;
    std::map<std::string, int> outcomes;  // "fault / protocol: printed|failed" -> jobs
    long residentAt100 = 0, residentLast = 0;
    size_t printedInAll = 0;
    // Every 100 jobs, and after the last: what the server stored whole is what
    // the monitor reported printed; then the server starts afresh and the host's
    // spooler forgets the batch, so that what they keep does not count as the
    // monitor's memory.
    auto check = [&](int n) {
        std::vector<Digest> stored = StoredWhole();
        std::sort(stored.begin(), stored.end());
        std::sort(printed.begin(), printed.end());
        EXPECT_TRUE(stored == printed) << "up to job " << n << ": " << stored.size() << " stored whole, "
                                       << printed.size() << " printed";
        printedInAll += printed.size();
        printed.clear();
        kvthost::ResetSpooler();
        StartServers({c});
        residentLast = HeldKiB(n);
        if (n == 100) residentAt100 = residentLast;
    };
    for (int n = 1; n <= jobs; ++n) {
        const Fault &fault = kFaults[random() % std::size(kFaults)];
        const uint8_t protocol = protocols[random() % 4];
        std::string data = "soak job " + std::to_string(n) + ":";
        data.resize(data.size() + random() % 20000, static_cast<char>('A' + n % 26));
        kvttest::MakePortKeys(u"PS1", u'1', kServerAddress, protocol, nullptr);
        kvthost::AddJob({kPrinter, static_cast<DWORD>(n), u"soak", u"guest", u"", 0});
        Apply(fault);
        const uint64_t lprBefore = emulator.Counters("PS1").jobsCompleted;
        bool ok = LocalmonStartDocPort(port, const_cast<LPWSTR>(kPrinter), n, 1, nullptr);
        if (ok) {
            const bool written = WriteAll(port, data);
            ok = LocalmonEndDocPort(port) && written;
        }
        if (ok && port->WorkProtocol == PROTOCOL_TCPIP) {  // LPR jobs are stored when the server sees the close
            EXPECT_TRUE(kvttest::Eventually([&] { return emulator.Counters("PS1").jobsCompleted > lprBefore; }))
                << "job " << n;
        }
        Apply(Fault{});
        if (ok) printed.push_back({data.size(), kvtps::Fnv1a64(data.data(), data.size())});
        ++outcomes[std::string(fault.name) + " / protocol " + std::to_string(protocol) + (ok ? ": printed" : ": failed")];
        if (n % 100 == 0 || n == jobs) check(n);
    }
    for (const auto &[what, count] : outcomes) std::printf("%5d  %s\n", count, what.c_str());
    EXPECT_GT(printedInAll, static_cast<size_t>(jobs) / 2) << "most faults let a job through";
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    if (jobs >= 1000) {  // the sanitizers' own bookkeeping grows; the plain build's must not
        std::printf("resident: %ld KiB after job 100, %ld KiB after job %d\n", residentAt100, residentLast, jobs);
        EXPECT_LE(residentLast, residentAt100 + residentAt100 / 10);
    }
#endif
}

}  // namespace
