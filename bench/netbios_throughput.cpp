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

// ---- the plain sender: one POSIX UDP socket on port 138 ------------------------------------------

class Sender {
public:
    Sender() {
        int on = 1;
        fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        setsockopt(fd_, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
        setsockopt(fd_, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
        sockaddr_in any{};
        any.sin_family = AF_INET;
        any.sin_port = htons(kvtnb::kDatagramPort);
        ok_ = bind(fd_, reinterpret_cast<sockaddr *>(&any), sizeof any) == 0;
    }
    ~Sender() { close(fd_); }
    bool ok() const { return ok_; }

    void Send(const std::string &to, const uint8_t *data, size_t size) {
        kvtnb::Datagram d;
        d.type = kvtnb::DatagramType::DirectUnique;
        d.id = ++id_;
        d.sourceIp = 0x7F000001;
        d.source = me_;
        d.destination = kvtnb::MakeName(to);
        d.data.assign(reinterpret_cast<const char *>(data), size);
        const std::string packet = kvtnb::EncodeDatagram(d);
        sockaddr_in all{};
        all.sin_family = AF_INET;
        all.sin_port = htons(kvtnb::kDatagramPort);
        all.sin_addr.s_addr = htonl(INADDR_BROADCAST);
        sendto(fd_, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr *>(&all), sizeof all);
    }

    // One frame to PS1 until it is acknowledged; the reply's channel for a connect.
    bool Exchange(const uint8_t *frame, size_t size, uint8_t *channel) {
        uint8_t packet[2048];
        for (int send = 0; send < kSends; ++send) {
            Send("PS1", frame, size);
            for (pollfd p{fd_, POLLIN, 0}; poll(&p, 1, kWaitMs) == 1;) {
                ssize_t n = recv(fd_, packet, sizeof packet, 0);
                kvtnb::Datagram d;
                if (n <= 0 || !kvtnb::DecodeDatagram(packet, static_cast<size_t>(n), &d) || d.destination != me_)
                    continue;  // its own broadcasts, and anyone else's
                const auto *reply = reinterpret_cast<const uint8_t *>(d.data.data());
                if (Acknowledges(frame, reply, d.data.size())) return *channel = reply[5], true;
            }
        }
        return false;
    }

private:
    int fd_ = -1;
    bool ok_ = false;
    uint16_t id_ = 0;
    kvtnb::Name me_ = kvtnb::MakeName("PLAIN.E1");
};

Run PrintPlain(uint64_t buffers, Arrivals &arrivals, size_t arrivalNumber) {
    Sender sender;
    auto exchange = [&](const uint8_t *frame, size_t size, uint8_t *channel) {
        return sender.ok() && sender.Exchange(frame, size, channel);
    };
    const uint8_t test[12] = {0x50, 0x53};
    return PlainChannelJob(buffers, arrivals, arrivalNumber, [&] { sender.Send("TEST", test, 12); }, exchange,
                           exchange);
}

}  // namespace

int main(int argc, char **argv) {
    return Compare(argc, argv,
                   Comparison{"netbios_throughput", "plain UDP",
                              "over NetBIOS datagrams to kvtps's PS1 at 127.0.0.2, 1000-byte frames", 16, 16,
                              4 /* NetBIOS */, false, true, PrintPlain});
}
