// kvtmon demo: the monitor at work on a private network (loopback only)
// against emulated print servers.
#include <sys/stat.h>
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
        "This job travels from the spooler host through the monitor, over LPR,\r\n"
        "to an emulated print server, which keeps every byte for comparison.\r\n\f";
    std::mt19937 random(20261123);
    while (job.size() < size) job.push_back(static_cast<char>(random() & 0xFF));
    job.resize(size);
    return job;
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
    AddTcpipComponent();
    SetMonitorFlags(true, false);

    std::printf("KVT print monitor demo, on a private network (loopback only)\n");
    kvtps::Emulator emulator;
    std::vector<kvtps::ServerConfig> servers(2);
    servers[0].name = "PS1";
    servers[0].address = "127.0.0.2";
    servers[1].name = "PS2";
    servers[1].address = "127.0.0.3";
    if (!emulator.Start(servers, &error)) {
        std::fprintf(stderr, "kvtmon demo: the print servers did not start: %s\n", error.c_str());
        return 2;
    }
    std::printf("  emulated print servers: PS1 at 127.0.0.2, PS2 at 127.0.0.3 (LPR on port 515)\n");

    const std::string jobPath = prefix + "/report.prn";
    const std::string job = MakeJob(1 << 20);
    std::ofstream(jobPath, std::ios::binary).write(job.data(), static_cast<std::streamsize>(job.size()));

    PrintOptions o;
    o.port = "PS1-P1";
    o.files = {jobPath};
    o.document = "report.prn";
    o.user = "demo";
    o.jobId = 7;
    o.server = "127.0.0.2";
    o.queue = "lp";
    o.debug = true;
    o.stallSeconds = 30;
    std::printf("  port PS1-P1 on PS1, queue \"lp\", automatic transport\n");
    std::printf("printing report.prn (%s) to PS1-P1 as job 7 of user demo\n", FormatBytes(job.size()).c_str());
    std::fflush(stdout);
    int status = RunPrint(o);
    if (status != 0) {
        std::fprintf(stderr, "kvtmon demo: the job did not go out\n");
        return status;
    }

    if (!emulator.WaitForJobs("PS1", 1, 10000)) {
        std::fprintf(stderr, "kvtmon demo: PS1 stored no job\n");
        return 1;
    }
    kvtps::LprJob got = emulator.Jobs("PS1").front();
    std::printf("PS1 received job %s on queue \"%s\":\n", got.dataFileName.c_str(), got.queue.c_str());
    for (const auto &line : got.controlLines) std::printf("  control line  %s\n", line.c_str());
    bool same = got.complete && got.data == job;
    std::printf("  data          %s, %s\n", FormatBytes(got.dataBytes).c_str(),
                same ? "identical to what was printed" : "DIFFERENT from what was printed");
    std::printf("  diagnostic log: %s/drive_c/Windows/System32/KVTLOG\n", prefix.c_str());
    emulator.Stop();
    std::printf(same ? "demo ok\n" : "demo FAILED\n");
    return same ? 0 : 1;
}

}  // namespace kvtmon
