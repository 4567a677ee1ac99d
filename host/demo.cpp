// kvtmon demo: the monitor at work on a private network (loopback only)
// against emulated print servers.
#include <arpa/inet.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "kvthost.h"
#include "kvtmon.h"
#include "kvtps.h"

namespace kvtmon {

namespace {

// A job that looks like one: a page of text, then bytes of every value.
std::string MakeJob(size_t size) {
    std::string job =
        "\x1b" "E" "KVT print monitor demonstration\r\n"
        "This job travels from the spooler host through the monitor, over LPR or IPX,\r\n"
        "to an emulated print server, which keeps every byte for comparison.\r\n\f";
    std::mt19937 random(20261123);
    while (job.size() < size) job.push_back(static_cast<char>(random() & 0xFF));
    job.resize(size);
    return job;
}

// Runs kvtmon with these arguments over this process's prefix, without a
// terminal (so that flags answer the dialogs), its output indented; its exit
// status.
int RunKvtmon(const std::vector<std::string> &args) {
    const std::string output = kvthost::Prefix() + "/kvtmon.out";
    std::string command = "KVT_PREFIX='" + kvthost::Prefix() + "' '" +
                          std::filesystem::read_symlink("/proc/self/exe").string() + "'";
    for (const std::string &a : args) command += " '" + a + "'";
    std::fflush(stdout);
    int status = std::system((command + " </dev/null >'" + output + "' 2>&1").c_str());
    std::ifstream in(output);
    for (std::string line; std::getline(in, line);) std::printf("    %s\n", line.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

// Prints one job of the demo; false after a message.
bool PrintDemoJob(const std::string &prefix, const std::string &port, const std::string &name, const std::string &job,
                  DWORD jobId) {
    const std::string path = prefix + "/" + name;
    std::ofstream(path, std::ios::binary).write(job.data(), static_cast<std::streamsize>(job.size()));
    PrintOptions o;
    o.port = port;
    o.files = {path};
    o.document = name;
    o.user = "demo";
    o.jobId = jobId;
    o.debug = true;
    o.stallSeconds = 30;
    std::fflush(stdout);
    if (RunPrint(o) == 0) return true;
    std::fprintf(stderr, "kvtmon demo: the job to %s did not go out\n", port.c_str());
    return false;
}

// What a print server received over IPX or NetBIOS, compared with what was printed.
bool ShowChannelJob(const std::vector<kvtps::ChannelJob> &jobs, const char *carrier, const std::string &server,
                    const std::string &job) {
    if (jobs.empty()) {
        std::fprintf(stderr, "kvtmon demo: %s received nothing over %s\n", server.c_str(), carrier);
        return false;
    }
    const kvtps::ChannelJob &got = jobs.back();
    bool same = got.hungUp && got.data == job;
    std::printf("  %s received it over %s on channel %d of printer port %d: %s in %llu frames, %s\n",
                server.c_str(), carrier, got.channel, got.port, FormatBytes(got.dataBytes).c_str(),
                static_cast<unsigned long long>(got.frames),
                same ? "identical to what was printed" : "DIFFERENT from what was printed");
    return same;
}

// The lines of the last job start in the log that tell which transport went.
void ShowFallOver(const std::string &prefix) {
    std::ifstream in(prefix + "/drive_c/Windows/System32/KVTLOG", std::ios::binary);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        if (line == "Entry LocalmonStartDocPort") lines.clear();
        for (const char *shown : {"Printing use", "Leave LprHandshake", "LprOpenFile fail", "Try ", "IPXConnect",
                                  "NBConnect", "Connect ok", "Leave LocalmonStartDocPort"})
            if (line.rfind(shown, 0) == 0) lines.push_back(line);
    }
    for (size_t i = 0; i < lines.size(); ++i) std::printf("  %s %s\n", i == 0 ? "the log:" : "        ", lines[i].c_str());
}

}  // namespace

int DemoCommand(int argc, char **argv) {
    (void)argc, (void)argv;
    std::string error;
    // First of all, before any thread: nothing of the demo leaves this namespace.
    if (!kvthost::EnterPrivateNetwork(&error)) {
        std::fprintf(stderr, "kvtmon demo: cannot enter a private network: %s\n", error.c_str());
        return 2;
    }
    char prefixTemplate[] = "/tmp/kvt-demo-XXXXXX";
    if (mkdtemp(prefixTemplate) == nullptr) {
        std::perror("kvtmon demo: mkdtemp");
        return 2;
    }
    std::string prefix = prefixTemplate;
    kvthost::SetPrefix(prefix);
    if (!kvthost::MakePrefix(&error)) {
        std::fprintf(stderr, "kvtmon demo: %s\n", error.c_str());
        return 2;
    }
    SetNetworkComponents(kPlatformTransports);
    SetMonitorFlags(true, false);

    std::printf("KVT print monitor demo, on a private network (loopback only)\n");
    kvtps::Emulator emulator;
    std::vector<kvtps::ServerConfig> servers(4);
    servers[0].name = "PS1";
    servers[0].address = "127.0.0.2";
    servers[0].queueTexts = {"lp P1", "lpt2 P2", "lpt3 P3"};
    servers[1].name = "PS2";
    servers[1].address = "127.0.0.3";
    servers[1].model = 3;
    servers[2].name = "PS3";
    servers[2].address = "127.0.0.4";
    servers[2].lpr.nakAtStep = 1;  // refuses every LPR job at its first acknowledgement
    servers[3].name = "PS4";
    servers[3].address = "127.0.0.5";
    servers[3].lpr.nakAtStep = 1;
    servers[3].ipx = false;  // reached over NetBIOS alone
    if (!emulator.Start(servers, &error)) {
        std::fprintf(stderr, "kvtmon demo: the print servers did not start: %s\n", error.c_str());
        return 2;
    }
    std::printf("  emulated print servers: PS1 at 127.0.0.2, PS2 at 127.0.0.3, PS3 at 127.0.0.4, PS4 at\n"
                "  127.0.0.5 (LPR on port 515, management datagrams on UDP port 0x3434, IPX at their\n"
                "  nodes but PS4's, NetBIOS datagrams to their names on UDP port 138)\n");

    // The search runs in a child (kvtmon discover): this process loads
    // libkvt64.so to print, and the search module is a second copy of it.
    std::printf("searching the network for print servers (kvtmon discover) ...\n");
    std::fflush(stdout);
    std::vector<FoundServer> found;
    if (!DiscoverInChild(&found, &error)) {
        std::fprintf(stderr, "kvtmon demo: the search failed: %s\n", error.c_str());
        return 1;
    }
    std::string table = DiscoverTable(found);
    for (size_t at = 0, end; at < table.size(); at = end + 1) {
        end = table.find('\n', at);
        std::printf("  %s\n", table.substr(at, end - at).c_str());
    }
    const FoundServer *target = nullptr;
    for (const FoundServer &s : found)
        if (s.name == "PS1") target = &s;
    if (found.size() != servers.size() || target == nullptr) {
        std::fprintf(stderr, "kvtmon demo: the search found %zu of the %zu print servers\n", found.size(),
                     servers.size());
        return 1;
    }
    // The ports, as an administrator makes them: one in dialog 200, the rest
    // by the marker file's way, and one of them fixed to IPX.
    const std::string port = "PS1-P1";
    std::printf("adding %s in the Add Port dialog (kvtmon add --server PS1 --lpt 1) ...\n", port.c_str());
    if (RunKvtmon({"add", "--server", "PS1", "--lpt", "1"}) != 0) return 1;
    std::printf("adding every printer port found (kvtmon add --all) ...\n");
    if (RunKvtmon({"add", "--all"}) != 0 || RunKvtmon({"configure", "PS2-P2", "--protocol", "ipx"}) != 0) return 1;
    // A new address for PS1: the port finds it by the node before the job.
    if (!emulator.SetAddress("PS1", "127.0.0.12", &error)) {
        std::fprintf(stderr, "kvtmon demo: PS1 did not move: %s\n", error.c_str());
        return 2;
    }
    std::printf("  PS1 takes a new address, 127.0.0.12; the port looks it up by node before the job\n");

    const std::string job = MakeJob(1 << 20);
    std::printf("printing report.prn (%s) to %s as job 7 of user demo\n", FormatBytes(job.size()).c_str(),
                port.c_str());
    if (!PrintDemoJob(prefix, port, "report.prn", job, 7)) return 1;

    if (!emulator.WaitForJobs("PS1", 1, 10000)) {
        std::fprintf(stderr, "kvtmon demo: PS1 stored no job\n");
        return 1;
    }
    kvtps::LprJob got = emulator.Jobs("PS1").front();
    std::printf("PS1 received job %s on queue \"%s\" at %s:\n", got.dataFileName.c_str(), got.queue.c_str(),
                emulator.Address("PS1").c_str());
    for (const auto &line : got.controlLines) std::printf("  control line  %s\n", line.c_str());
    bool same = got.complete && got.data == job;
    std::printf("  data          %s, %s\n", FormatBytes(got.dataBytes).c_str(),
                same ? "identical to what was printed" : "DIFFERENT from what was printed");

    // A port fixed to IPX, and an automatic port whose print server refuses
    // LPR: its job falls over to IPX.
    const std::string ipxJob = MakeJob(256 << 10), fallOverJob = MakeJob(64 << 10);
    std::printf("printing invoice.prn (%s) to PS2-P2, a port fixed to IPX, as job 8\n",
                FormatBytes(ipxJob.size()).c_str());
    if (!PrintDemoJob(prefix, "PS2-P2", "invoice.prn", ipxJob, 8)) return 1;
    same = ShowChannelJob(emulator.IpxJobs("PS2"), "IPX", "PS2", ipxJob) && same;
    std::printf("printing letter.prn (%s) to PS3-P1, a port on automatic; PS3 refuses LPR jobs\n",
                FormatBytes(fallOverJob.size()).c_str());
    if (!PrintDemoJob(prefix, "PS3-P1", "letter.prn", fallOverJob, 9)) return 1;
    ShowFallOver(prefix);
    same = ShowChannelJob(emulator.IpxJobs("PS3"), "IPX", "PS3", fallOverJob) && same;

    // A port fixed to NetBIOS, and an automatic port whose print server
    // refuses LPR and holds no IPX: its job falls over through both to NetBIOS.
    const std::string nbJob = MakeJob(128 << 10), nbFallOverJob = MakeJob(32 << 10);
    if (!MakePortKeys("PS2-P3", 0x7F000003, 4, std::nullopt, &error) ||
        !MakePortKeys("PS4-P1", 0x7F000005, 0, std::nullopt, &error)) {
        std::fprintf(stderr, "kvtmon demo: %s\n", error.c_str());
        return 2;
    }
    std::printf("printing memo.prn (%s) to PS2-P3, a port fixed to NetBIOS, as job 10\n",
                FormatBytes(nbJob.size()).c_str());
    if (!PrintDemoJob(prefix, "PS2-P3", "memo.prn", nbJob, 10)) return 1;
    same = ShowChannelJob(emulator.NetbiosJobs("PS2"), "NetBIOS", "PS2", nbJob) && same;
    std::printf("printing notes.prn (%s) to PS4-P1, a port on automatic; PS4 refuses LPR jobs and has no\n"
                "  IPX, so the job waits out IPX's ten seconds of silence\n",
                FormatBytes(nbFallOverJob.size()).c_str());
    if (!PrintDemoJob(prefix, "PS4-P1", "notes.prn", nbFallOverJob, 11)) return 1;
    ShowFallOver(prefix);
    same = ShowChannelJob(emulator.NetbiosJobs("PS4"), "NetBIOS", "PS4", nbFallOverJob) && same;

    std::printf("  diagnostic log: %s/drive_c/Windows/System32/KVTLOG\n", prefix.c_str());
    emulator.Stop();
    std::printf(same ? "demo ok\n" : "demo FAILED\n");
    return same ? 0 : 1;
}

}  // namespace kvtmon
