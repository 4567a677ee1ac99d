// kvt: the CUPS backend for KVT print servers.  Run with no arguments it
// searches the network with the monitor's searches and lists one device per
// printer port found; run with a job it makes or refreshes the port that its
// device URI names, kvt://SERVER/P1?protocol=auto&queue=NAME, and prints the
// job through the monitor as the spooler would (backend(7)).
#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <strings.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "kvt_uri.h"
#include "kvthost.h"
#include "kvtmon.h"

namespace {

// The exit codes of backend(7).
constexpr int kOk = 0, kFailed = 1, kRetry = 6;
constexpr size_t kSpoolBuffer = 64 * 1024;
constexpr uint8_t kTypeQueueNames = 4;  // a print server that names its own queues
// A job start that takes longer (in the monitor's time) is reported as a
// print server that does not take the job yet.
constexpr int kStartPatienceMs = 5000;

std::atomic<bool> gCancelled{false};

void Say(const char *format, ...) __attribute__((format(printf, 1, 2)));
void Say(const char *format, ...) {
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    std::fflush(stderr);
}

int64_t NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// The monitor's last errors in words, and whether CUPS should try the job again.
struct ErrorWords {
    DWORD error;
    const char *words;
    bool retry;
};
const ErrorWords kErrorWords[] = {
    {ERROR_IO_DEVICE, "the print server cannot be reached or does not take the job", true},
    {ERROR_BUSY, "the print server is busy, or the port has another job", true},
    {ERROR_WRITE_FAULT, "the print server stopped taking the job's data", true},
    {ERROR_CANTREAD, "the job's document cannot be read", false},
    {ERROR_INVALID_HANDLE, "the port is gone", false},
};

int ReportError(const char *what, DWORD error) {
    const ErrorWords *w = nullptr;
    for (const ErrorWords &e : kErrorWords)
        if (e.error == error) w = &e;
    Say("ERROR: %s: %s (error %s)\n", what, w != nullptr ? w->words : "the monitor gave an error",
        kvtmon::DescribeError(error).c_str());
    return w != nullptr && w->retry ? kRetry : kFailed;
}

// ---- the prefix ----------------------------------------------------------------------
// KVT_PREFIX, else the one the installation wrote beside the program
// (kvt.prefix), else /var/lib/kvt.
void ChoosePrefix() {
    const char *env = std::getenv("KVT_PREFIX");
    if (env != nullptr && *env != 0) return;
    std::string prefix = KVT_CUPS_PREFIX;
    char self[4096];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n > 0) {
        self[n] = 0;
        std::string file = std::string(self).substr(0, std::string(self).rfind('/')) + "/kvt.prefix";
        if (FILE *f = std::fopen(file.c_str(), "r")) {
            char line[4096];
            if (std::fgets(line, sizeof line, f) != nullptr) {
                std::string s = line;
                while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
                if (!s.empty() && s[0] == '/') prefix = s;
            }
            std::fclose(f);
        }
    }
    kvthost::SetPrefix(prefix);
}

// A prefix made on first use offers all three transports, as `kvtmon init`.
bool EnsurePrefix() {
    if (kvtmon::PrefixExists()) return kvtmon::CheckPrefix();
    std::string error;
    if (!kvthost::MakePrefix(&error)) {
        Say("ERROR: cannot make the prefix %s: %s\n", kvthost::Prefix().c_str(), error.c_str());
        return false;
    }
    {
        kvthost::RegistryBatch batch;  // the components and the monitor's key reach the hive together
        kvtmon::SetNetworkComponents(kvtmon::kPlatformTransports);
        kvtmon::SetMonitorFlags(false, false);
    }
    Say("DEBUG: made the prefix %s\n", kvthost::Prefix().c_str());
    return kvtmon::CheckPrefix();
}

// ---- listing the devices -----------------------------------------------------------
// One line per printer port of the server (backend(7)'s device listing).  A
// print server of Type 4 names its own queues: the port's URI carries the
// name, cut to the monitor's 31 characters as dialog 200 cuts it, so that a
// queue made from the line prints where the line said; any other prints to
// "lpt1".."lpt3", and its URI names no queue.
std::string DeviceLines(const kvtmon::FoundServer &server, const char *carrier) {
    std::string lines;
    const int ports = (server.model & 3) != 0 ? server.model & 3 : 1;
    std::string where = server.ipAddress != 0 || std::strcmp(carrier, "tcpip") == 0
                            ? kvtmon::AddressShown(server)
                            : std::string("found over ") + (std::strcmp(carrier, "ipx") == 0 ? "IPX" : "NetBIOS");
    for (int p = 1; p <= ports; ++p) {
        const std::string name = kvtcups::DeviceField(server.name), port = "P" + std::to_string(p);
        const std::string queue = server.type == kTypeQueueNames ? server.queues[p - 1].substr(0, 31) : "";
        std::string info = "KVT " + name + " port " + port + " (" + where;
        if (!queue.empty()) info += ", queue " + kvtcups::DeviceField(queue);
        info += ")";
        lines += "network " + kvtcups::DeviceUriFor(server.name, p, queue) + " \"KVT Print Server\" \"" + info +
                 "\" \"MFG:KVT;MDL:Print Server;CMD:;CLS:PRINTER;DES:KVT " + name + " port " + port +
                 ";\" \"\"\n";
    }
    return lines;
}

int ListDevices() {
    ChoosePrefix();
    unsigned offered = kvtmon::kPlatformTransports;
    if (kvtmon::PrefixExists()) {
        if (!kvtmon::CheckPrefix()) return kFailed;
        offered = kvtmon::OfferedTransports();
    }
    std::vector<std::string> listed;
    const struct {
        unsigned bit;
        const char *name;
    } kCarriers[] = {{kvtmon::kTransportTcpip, "tcpip"}, {kvtmon::kTransportIpx, "ipx"},
                     {kvtmon::kTransportNetbios, "netbios"}};
    for (const auto &carrier : kCarriers) {
        if (!(offered & carrier.bit)) continue;
        std::vector<kvtmon::FoundServer> found;
        std::string error;
        if (kvtmon::SearchNetwork(&found, carrier.name, false, &error) != 0) {
            Say("DEBUG: the %s search: %s\n", carrier.name, error.c_str());
            continue;
        }
        for (const kvtmon::FoundServer &server : found) {
            bool seen = false;
            for (const std::string &name : listed) seen = seen || strcasecmp(name.c_str(), server.name.c_str()) == 0;
            if (seen || server.name.empty()) continue;
            listed.push_back(server.name);
            std::fputs(DeviceLines(server, carrier.name).c_str(), stdout);
            std::fflush(stdout);
        }
    }
    return kOk;
}

// ---- the port the URI names ---------------------------------------------------------
// Its server's address: a dotted address in the URI, else the one stored
// for the port, else what a search finds.  False (and the exit code) when
// the job cannot go on.
bool FindAddress(const kvtcups::DeviceUri &uri, uint32_t *address, uint8_t *protocol, int *code) {
    in_addr a{};
    if (inet_pton(AF_INET, uri.server.c_str(), &a) == 1) {
        *address = ntohl(a.s_addr);
        return true;
    }
    if (kvtmon::StoredServerAddress(uri.server, address) && *address != 0) return true;
    Say("STATE: +connecting-to-device\n");
    Say("INFO: Looking for print server %s on the network\n", uri.server.c_str());
    for (const char *carrier : {"tcpip", "ipx", "netbios"}) {
        std::vector<kvtmon::FoundServer> found;
        std::string error;
        if (!kvtmon::SearchInChild(carrier, &found, &error)) {
            Say("DEBUG: the %s search: %s\n", carrier, error.c_str());
            continue;
        }
        for (const kvtmon::FoundServer &s : found) {
            if (strcasecmp(s.name.c_str(), uri.server.c_str()) != 0) continue;
            *address = ntohl(s.ipAddress);
            // Without an address, an automatic port goes straight to the carrier
            // that found the server rather than through 200 connects to nothing.
            if (*address == 0 && *protocol == kvtcups::kProtocolAuto)
                *protocol = std::strcmp(carrier, "ipx") == 0 ? kvtcups::kProtocolIpx : kvtcups::kProtocolNetbios;
            return true;
        }
    }
    Say("ERROR: print server %s was not found on the network\n", uri.server.c_str());
    *code = kRetry;
    return false;
}

// ---- the job ------------------------------------------------------------------------
// SIGTERM from CUPS marks the job deleting, as the spooler does for a job
// cancelled by its user; the monitor's own deletion test then ends it.
void WatchForCancel(std::u16string printer, DWORD jobId) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    std::thread([set, printer, jobId] {
        int signal = 0;
        if (sigwait(&set, &signal) != 0) return;
        gCancelled = true;
        kvthost::SetJobStatus(printer, jobId, JOB_STATUS_DELETING);
        Say("INFO: The job is cancelled\n");
    }).detach();
}

struct Job {
    const MONITOR *monitor = nullptr;
    HANDLE port = nullptr;
    uint64_t sent = 0, total = 0;
    int64_t lastReport = 0;
};

void Progress(Job &job, bool force) {
    const int64_t now = NowMs();
    if (!force && now - job.lastReport < 1000) return;
    job.lastReport = now;
    if (job.total > 0)
        Say("INFO: Printing: %s of %s sent\n", kvtmon::FormatBytes(job.sent).c_str(),
            kvtmon::FormatBytes(job.total).c_str());
    else
        Say("INFO: Printing: %s sent\n", kvtmon::FormatBytes(job.sent).c_str());
}

// Hands one buffer to the monitor; a write that took less is called again
// with the rest.  The last error's exit code, or -1 when all went.
int Write(Job &job, const char *data, size_t size) {
    while (size > 0 && !gCancelled) {
        DWORD written = 0;
        SetLastError(0);
        if (!job.monitor->pfnWritePort(job.port, reinterpret_cast<LPBYTE>(const_cast<char *>(data)),
                                       static_cast<DWORD>(size), &written))
            return ReportError("The job's data did not go", GetLastError());
        if (written > size) written = static_cast<DWORD>(size);
        data += written;
        size -= written;
        job.sent += written;
        Progress(job, false);
    }
    return -1;
}

// The file, or standard input, copies times (standard input once).
int SendData(Job &job, int fd, int copies) {
    std::vector<char> buffer(kSpoolBuffer);
    for (int copy = 0; copy < copies && !gCancelled; ++copy) {
        if (copy > 0 && lseek(fd, 0, SEEK_SET) != 0) break;
        for (;;) {
            ssize_t got = read(fd, buffer.data(), buffer.size());
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) {
                Say("ERROR: cannot read the job: %s\n", std::strerror(errno));
                return kFailed;
            }
            if (got == 0) break;
            int code = Write(job, buffer.data(), static_cast<size_t>(got));
            if (code >= 0) return code;
            if (gCancelled) break;
        }
    }
    return -1;
}

int PrintJob(int argc, char **argv) {
    const char *deviceUri = std::getenv("DEVICE_URI");
    kvtcups::DeviceUri uri;
    std::string error;
    if (deviceUri == nullptr || !kvtcups::ParseDeviceUri(deviceUri, &uri, &error)) {
        Say("ERROR: %s\n", deviceUri == nullptr ? "no DEVICE_URI" : error.c_str());
        return kFailed;
    }
    char *end = nullptr;
    const long jobId = std::strtol(argv[1], &end, 10);
    const long copies = std::strtol(argv[4], nullptr, 10);
    if (end == argv[1] || *end != 0 || jobId < 1 || jobId > 0x7FFFFFFF) {
        Say("ERROR: the job id '%s' is not a number\n", argv[1]);
        return kFailed;
    }
    int fd = STDIN_FILENO;
    if (argc == 7 && (fd = open(argv[6], O_RDONLY | O_CLOEXEC)) < 0) {
        Say("ERROR: cannot open %s: %s\n", argv[6], std::strerror(errno));
        return kFailed;
    }
    Job job;
    if (struct stat st {}; argc == 7 && fstat(fd, &st) == 0)
        job.total = static_cast<uint64_t>(st.st_size) * static_cast<uint64_t>(copies > 1 ? copies : 1);

    ChoosePrefix();
    kvtmon::UseTerminalForBoxes(true);
    if (!EnsurePrefix()) return kFailed;
    uint32_t address = 0;
    uint8_t protocol = uri.protocol;
    int code = kFailed;
    if (!FindAddress(uri, &address, &protocol, &code)) return code;
    const std::string portName = uri.server + "-P" + static_cast<char>('0' + uri.port);
    if (!kvtmon::MakePortKeys(portName, address, protocol, uri.queue, &error)) {
        Say("ERROR: %s\n", error.c_str());
        return kFailed;
    }
    job.monitor = kvtmon::LoadMonitor(&error);
    if (job.monitor == nullptr) {
        Say("ERROR: %s\n", error.c_str());
        return kFailed;
    }

    const char *printerEnv = std::getenv("PRINTER");
    std::u16string printer = kvthost::Widen(printerEnv != nullptr && *printerEnv != 0 ? printerEnv : portName);
    kvthost::JobSpec spec;
    spec.printer = printer;
    spec.jobId = static_cast<DWORD>(jobId);
    spec.document = kvthost::Widen(argv[3]);
    spec.user = kvthost::Widen(argv[2]);
    spec.machine = u"\\\\localhost";
    kvthost::AddJob(spec);
    WatchForCancel(printer, spec.jobId);
    kvthost::ImpersonateUser(spec.user);

    std::u16string port = kvthost::Widen(portName);
    if (!job.monitor->pfnOpenPort(port.data(), &job.port)) {
        Say("ERROR: the monitor has no port %s\n", portName.c_str());
        return kFailed;
    }
    Say("STATE: +connecting-to-device\n");
    Say("INFO: Connecting to print server %s\n", uri.server.c_str());
    std::atomic<bool> started{false};
    std::thread patience([&started] {
        const int64_t until = NowMs() + static_cast<int64_t>(kStartPatienceMs * kvthost::TimeScale());
        while (!started && NowMs() < until) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (started) return;
        Say("STATE: +offline-report\n");
        Say("INFO: The print server is busy or not answering; the monitor keeps trying\n");
    });
    DOC_INFO_1W info{spec.document.data(), nullptr, const_cast<LPWSTR>(u"RAW")};
    SetLastError(0);
    const BOOL ok = job.monitor->pfnStartDocPort(job.port, printer.data(), spec.jobId, 1,
                                                 reinterpret_cast<LPBYTE>(&info));
    const DWORD startError = GetLastError();
    started = true;
    patience.join();
    Say("STATE: -connecting-to-device,offline-report\n");
    if (!ok) {
        job.monitor->pfnClosePort(job.port);
        if (gCancelled) return kOk;
        return ReportError("The job did not start", startError);
    }
    Say("INFO: Printing to %s\n", portName.c_str());
    code = SendData(job, fd, argc == 7 && copies > 1 ? static_cast<int>(copies) : 1);
    job.monitor->pfnEndDocPort(job.port);
    job.monitor->pfnClosePort(job.port);
    kvthost::RevertToSelf();
    if (code >= 0) return code;
    Progress(job, true);
    Say("INFO: %s\n", gCancelled ? "The job is cancelled" : "The job is printed");
    return kOk;
}

}  // namespace

int main(int argc, char **argv) {
    signal(SIGPIPE, SIG_IGN);
    // SIGTERM waits for its thread (WatchForCancel), in every thread.
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    if (argc == 1) return ListDevices();
    if (argc >= 2 && std::strcmp(argv[1], "discover") == 0) {  // a search in a child of a job's process
        ChoosePrefix();
        return kvtmon::DiscoverCommand(argc - 2, argv + 2);
    }
    if (argc == 6 || argc == 7) return PrintJob(argc, argv);
    Say("Usage: %s job-id user title copies options [file]\n", argv[0]);
    return kFailed;
}
