// kvtmon print: one job through the monitor, as the spooler drives it.
#include <arpa/inet.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "kvthost.h"
#include "kvtmon.h"

namespace kvtmon {

namespace {

constexpr size_t kSpoolBuffer = 64 * 1024;  // the spooler hands data over in buffers of this size

int64_t NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void PrintUsage() {
    std::fprintf(stderr,
                 "usage: kvtmon print PORT FILE... [options]\n"
                 "  --document NAME   the job's document name (default: the first file's name)\n"
                 "  --job-id N        the spooler's job id (default 1)\n"
                 "  --printer NAME    the printer the job belongs to (default: \"KVT PORT\")\n"
                 "  --user NAME       the job's owner (default: you)\n"
                 "  --server ADDRESS  store PORT in the registry first, for the print server at ADDRESS\n"
                 "  --queue NAME      with --server: the port's LPR queue name (default: none stored)\n"
                 "  --protocol N      with --server: 0 automatic, 1 IPX, 2 TCP/IP, 4 NetBIOS\n"
                 "  --debug           turn the diagnostic log on (IsDEBUG) before the job\n"
                 "  --notify          turn the notice after each job on (IsNOTIFY) before the job\n"
                 "  --stall SECONDS   give up when nothing moves for this long (default 120)\n"
                 "  --quiet           no progress, no boxes\n");
}

bool ParseNumber(const char *text, long min, long max, long *out) {
    char *end = nullptr;
    errno = 0;
    long v = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != 0 || v < min || v > max) return false;
    *out = v;
    return true;
}

// Hands one buffer to the monitor as the spooler does: a write that took less
// is called again with the rest.
bool WriteBuffer(const MONITOR *m, HANDLE port, const char *data, size_t size, int stallSeconds, Progress &progress,
                 uint64_t &sent, std::string *error) {
    int64_t lastMove = NowMs();
    while (size > 0) {
        DWORD written = 0;
        SetLastError(0);
        if (!m->pfnWritePort(port, reinterpret_cast<LPBYTE>(const_cast<char *>(data)), static_cast<DWORD>(size),
                             &written)) {
            *error = "the write failed: error " + DescribeError(GetLastError());
            return false;
        }
        if (written > size) {
            *error = "the monitor reported more bytes written than it was given";
            return false;
        }
        if (written > 0) {
            lastMove = NowMs();
        } else if (NowMs() - lastMove > stallSeconds * 1000LL) {
            *error = "nothing moved for " + std::to_string(stallSeconds) + " seconds";
            return false;
        }
        data += written;
        size -= written;
        sent += written;
        ProgressUpdate(progress, sent);
    }
    return true;
}

}  // namespace

int RunPrint(const PrintOptions &o) {
    UseTerminalForBoxes(o.quiet);
    if (!CheckPrefix()) return 2;
    if (o.debug) SetMonitorFlag(u"IsDEBUG", true);
    if (o.notify) SetMonitorFlag(u"IsNOTIFY", true);
    if (!o.server.empty()) {
        in_addr addr{};
        if (inet_pton(AF_INET, o.server.c_str(), &addr) != 1) {
            std::fprintf(stderr, "kvtmon: '%s' is not an IPv4 address\n", o.server.c_str());
            return 2;
        }
        std::string error;
        if (!MakePortKeys(o.port, ntohl(addr.s_addr), static_cast<uint8_t>(o.protocol), o.queue, &error)) {
            std::fprintf(stderr, "kvtmon: %s\n", error.c_str());
            return 2;
        }
    }

    uint64_t total = 0;
    for (const auto &f : o.files) {
        struct stat st {};
        if (stat(f.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
            std::fprintf(stderr, "kvtmon: cannot read '%s'\n", f.c_str());
            return 2;
        }
        total += static_cast<uint64_t>(st.st_size);
    }

    std::string error;
    const MONITOR *m = LoadMonitor(&error);
    if (m == nullptr) {
        std::fprintf(stderr, "kvtmon: %s\n", error.c_str());
        return 2;
    }

    std::u16string port = kvthost::Widen(o.port);
    std::u16string printer = kvthost::Widen(o.printer.empty() ? "KVT " + o.port : o.printer);
    std::string docName = o.document;
    if (docName.empty()) {
        docName = o.files.front();
        size_t slash = docName.rfind('/');
        if (slash != std::string::npos) docName = docName.substr(slash + 1);
    }
    std::u16string document = kvthost::Widen(docName);
    kvthost::JobSpec job;
    job.printer = printer;
    job.jobId = o.jobId;
    job.document = document;
    job.user = kvthost::Widen(o.user);
    job.machine = u"\\\\localhost";
    kvthost::AddJob(job);
    if (!o.user.empty()) kvthost::ImpersonateUser(job.user);

    HANDLE handle = nullptr;
    if (!m->pfnOpenPort(port.data(), &handle)) {
        std::fprintf(stderr, "kvtmon: no port '%s' (kvtmon ports lists them; --server ADDRESS makes one)\n",
                     o.port.c_str());
        return 3;
    }
    DOC_INFO_1W info{document.data(), nullptr, const_cast<LPWSTR>(u"RAW")};
    SetLastError(0);
    if (!m->pfnStartDocPort(handle, printer.data(), o.jobId, 1, reinterpret_cast<LPBYTE>(&info))) {
        DWORD e = GetLastError();
        std::fprintf(stderr, "kvtmon: the job did not start: error %s\n", DescribeError(e).c_str());
        m->pfnClosePort(handle);
        return 3;
    }

    Progress progress;
    ProgressStart(progress, o.port, total);
    uint64_t sent = 0;
    int64_t start = NowMs();
    std::vector<char> buffer(kSpoolBuffer);
    bool ok = true;
    for (const auto &f : o.files) {
        std::ifstream in(f, std::ios::binary);
        while (ok && in) {
            in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
            size_t got = static_cast<size_t>(in.gcount());
            if (got == 0) break;
            ok = WriteBuffer(m, handle, buffer.data(), got, o.stallSeconds, progress, sent, &error);
        }
        if (!ok) break;
    }
    if (!o.quiet) ProgressFinish(progress);
    double seconds = (NowMs() - start) / 1000.0;  // the data's time, without the close's pause
    m->pfnEndDocPort(handle);
    m->pfnClosePort(handle);
    kvthost::RevertToSelf();
    if (!ok) {
        std::fprintf(stderr, "kvtmon: %s after %s\n", error.c_str(), FormatBytes(sent).c_str());
        return 4;
    }
    if (!o.quiet)
        std::printf("printed %s to %s in %.1f s (%s/s)\n", FormatBytes(sent).c_str(), o.port.c_str(), seconds,
                    FormatBytes(seconds > 0 ? static_cast<uint64_t>(sent / seconds) : sent).c_str());
    return 0;
}

int PrintCommand(int argc, char **argv) {
    PrintOptions o;
    std::vector<std::string> positional;
    for (int i = 0; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](const char *name) -> const char * {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "kvtmon print: %s needs a value\n", name);
                return nullptr;
            }
            return argv[++i];
        };
        long n;
        const char *v;
        if (a == "--help" || a == "-h") {
            PrintUsage();
            return 0;
        } else if (a == "--document") {
            if (!(v = value("--document"))) return 2;
            o.document = v;
        } else if (a == "--job-id") {
            if (!(v = value("--job-id"))) return 2;
            if (!ParseNumber(v, 1, 0x7FFFFFFF, &n)) {
                std::fprintf(stderr, "kvtmon print: --job-id takes a number from 1 to 2147483647\n");
                return 2;
            }
            o.jobId = static_cast<DWORD>(n);
        } else if (a == "--printer") {
            if (!(v = value("--printer"))) return 2;
            o.printer = v;
        } else if (a == "--user") {
            if (!(v = value("--user"))) return 2;
            o.user = v;
        } else if (a == "--server") {
            if (!(v = value("--server"))) return 2;
            o.server = v;
        } else if (a == "--queue") {
            if (!(v = value("--queue"))) return 2;
            o.queue = v;
        } else if (a == "--protocol") {
            if (!(v = value("--protocol"))) return 2;
            if (!ParseNumber(v, 0, 4, &n) || n == 3) {
                std::fprintf(stderr, "kvtmon print: --protocol takes 0, 1, 2 or 4\n");
                return 2;
            }
            o.protocol = static_cast<int>(n);
        } else if (a == "--stall") {
            if (!(v = value("--stall"))) return 2;
            if (!ParseNumber(v, 1, 86400, &n)) {
                std::fprintf(stderr, "kvtmon print: --stall takes seconds from 1 to 86400\n");
                return 2;
            }
            o.stallSeconds = static_cast<int>(n);
        } else if (a == "--debug") {
            o.debug = true;
        } else if (a == "--notify") {
            o.notify = true;
        } else if (a == "--quiet") {
            o.quiet = true;
        } else if (a.size() > 1 && a[0] == '-') {
            std::fprintf(stderr, "kvtmon print: unknown option '%s'\n", a.c_str());
            return 2;
        } else {
            positional.push_back(a);
        }
    }
    if (positional.size() < 2) {
        PrintUsage();
        return 2;
    }
    o.port = positional[0];
    o.files.assign(positional.begin() + 1, positional.end());
    return RunPrint(o);
}

}  // namespace kvtmon
