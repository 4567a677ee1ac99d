// netbios_throughput: one 16 MiB job printed through the monitor over NetBIOS,
// as the spooler prints it, next to the simplest sender of the same exchange
// in the same run, to the same emulated print server: the job start's one
// datagram to "TEST", the connect, the same 1000-byte data frames and the
// hang-up, each an RFC 1002 datagram broadcast to UDP port 138 and addressed
// to PS1's name, sent once the frame before it was acknowledged to the
// sender's name.
//
// Timed as ipx_throughput is: from the start of the job to the moment the
// print server has the hang-up; the figure is the ratio of the two medians,
// the target at least 0.9.  The monitor's first job (the warm-up) brings its
// NetBIOS names up; the rounds find them up.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>

#include "bench_common.h"
#include "kvtnetbios.h"

namespace {

using namespace bench;

constexpr int kSends = 21;       // a frame and its 20 resends
constexpr int kWaitMs = 500;     // for a reply, per send

// ---- the plain sender: one POSIX UDP socket on port 138, beside the monitor's ---------------------

const kvtnb::Name kMe = kvtnb::MakeName("PLAIN.E1");

int Bind() {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0), on = 1;
    for (int option : {SO_REUSEADDR, SO_REUSEPORT, SO_BROADCAST}) setsockopt(fd, SOL_SOCKET, option, &on, sizeof on);
    sockaddr_in any{AF_INET, htons(kvtnb::kDatagramPort), {}, {}};
    return bind(fd, reinterpret_cast<sockaddr *>(&any), sizeof any) == 0 ? fd : (close(fd), -1);
}

// A datagram from kMe to the name, broadcast as a B node sends it.
void Send(int fd, const char *to, const uint8_t *data, size_t size) {
    static uint16_t id = 0;
    kvtnb::Datagram d;
    d.id = ++id;
    d.sourceIp = 0x7F000001;
    d.source = kMe;
    d.destination = kvtnb::MakeName(to);
    d.data.assign(reinterpret_cast<const char *>(data), size);
    const std::string packet = kvtnb::EncodeDatagram(d);
    sockaddr_in all{AF_INET, htons(kvtnb::kDatagramPort), {htonl(INADDR_BROADCAST)}, {}};
    sendto(fd, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr *>(&all), sizeof all);
}

// One frame to PS1 until an acknowledgement comes to kMe; the reply's channel for a connect.
bool Exchange(int fd, const uint8_t *frame, size_t size, uint8_t *channel) {
    uint8_t packet[2048];
    for (int send = 0; send < kSends && fd >= 0; ++send) {
        Send(fd, "PS1", frame, size);
        for (pollfd p{fd, POLLIN, 0}; poll(&p, 1, kWaitMs) == 1;) {
            ssize_t n = recv(fd, packet, sizeof packet, 0);
            kvtnb::Datagram d;  // its own broadcasts, and anyone else's, are not for kMe
            if (n > 0 && kvtnb::DecodeDatagram(packet, static_cast<size_t>(n), &d) && d.destination == kMe &&
                Acknowledges(frame, reinterpret_cast<const uint8_t *>(d.data.data()), d.data.size()))
                return *channel = static_cast<uint8_t>(d.data[5]), true;
        }
    }
    return false;
}

Run PrintPlain(uint64_t buffers, Arrivals &arrivals, size_t arrivalNumber) {
    using namespace std::placeholders;
    const int fd = Bind();
    const uint8_t test[12] = {0x50, 0x53};
    Run run = PlainChannelJob(
        buffers, arrivals, arrivalNumber, [&] { Send(fd, "TEST", test, 12); }, std::bind(Exchange, fd, _1, _2, _3),
        std::bind(Exchange, fd, _1, _2, _3));
    close(fd);
    return run;
}

}  // namespace

int main(int argc, char **argv) {
    return Compare(argc, argv,
                   Comparison{"netbios_throughput", "plain UDP",
                              "over NetBIOS datagrams to kvtps's PS1 at 127.0.0.2, 1000-byte frames", 16, 16,
                              4 /* NetBIOS */, false, true, PrintPlain});
}
