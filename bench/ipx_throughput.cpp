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
// alone (first data frame to the last acknowledgement) is reported beside it;
// bench_common.h's Compare runs the rounds and reports.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>

#include "bench_common.h"

namespace {

using namespace bench;

constexpr int kSends = 21;           // a frame and its 20 resends
constexpr int kWaitMs = 500;         // for a reply, per send
constexpr int kSearchSilenceMs = 500;

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
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0), on = 1;
    setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    uint8_t query[74] = {0x00, 0x04, 0xFF, 0xFB};
    sockaddr_in to = At("255.255.255.255", 0x3434);
    sendto(fd, query, 4, 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    for (pollfd p{fd, POLLIN, 0}; poll(&p, 1, kSearchSilenceMs) == 1;) recv(fd, query, sizeof query, 0);
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
            ok = Acknowledges(frame, reply, static_cast<size_t>(recv(fd, reply, sizeof reply, 0)));
    }
    close(fd);
    *channel = reply[5];
    return ok;
}

Run PrintPlain(uint64_t buffers, Arrivals &arrivals, size_t arrivalNumber) {
    using namespace std::placeholders;
    return PlainChannelJob(buffers, arrivals, arrivalNumber, Search, std::bind(Exchange, 0x3030, _1, _2, _3),
                           std::bind(Exchange, 0x3131, _1, _2, _3));
}

}  // namespace

int main(int argc, char **argv) {
    return Compare(argc, argv, Comparison{"ipx_throughput", "plain UDP",
                                          "over IPX to kvtps at 127.0.0.2, 1000-byte frames, a socket a frame", 16, 16,
                                          1 /* IPX */, true, false, PrintPlain});
}
