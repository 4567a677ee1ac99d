// lpr_throughput: one large job printed through the monitor over LPR, as the
// spooler prints it, next to a plain TCP sender making the same 4096-byte
// sends to the same emulated print server in the same run.
//
// The monitor's figure runs from LocalmonStartDocPort (connect and LPR header
// included) to the moment the print server has the job's last byte; the 2 s
// pause that LocalmonEndDocPort makes after its close is left out.  The plain
// sender's runs from its connect to the same moment, over the same exchange.
// The data phase runs from the first byte handed over to the last byte
// received.  bench_common.h's Compare runs the rounds and reports.
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
    run.dataSeconds = Seconds(run.arrival.at - streamStart);
    run.ok = run.error.empty();
    return run;
}

}  // namespace

int main(int argc, char **argv) {
    return Compare(argc, argv, Comparison{"lpr_throughput", "plain TCP", "over LPR to kvtps at 127.0.0.2, 4096-byte sends",
                                          256, 512, 2 /* TCP/IP */, false, false, PrintPlain});
}
