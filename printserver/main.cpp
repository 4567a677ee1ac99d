// kvtps: virtual KVT print servers in one process, until SIGINT or SIGTERM.
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
    if (!emulator.Start(options.servers, &error)) {
        std::fprintf(stderr, "kvtps: %s\n", error.c_str());
        return 1;
    }
    if (!options.quiet) {
        std::lock_guard<std::mutex> lock(outputLock);
        for (const auto &server : options.servers) {
            const bool refusing = server.lpr.refuse;
            std::printf("kvtps: %s on %s:%u%s\n", server.name.c_str(), server.address.c_str(),
                        emulator.LprPort(server.name), refusing ? " (refusing)" : "");
        }
        std::printf("kvtps: ready\n");
        std::fflush(stdout);
    }

    int signal = 0;
    sigwait(&stopSignals, &signal);
    emulator.Stop();
    if (!options.quiet) {
        std::lock_guard<std::mutex> lock(outputLock);
        PrintSummary(emulator);
    }
    return 0;
}
