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

constexpr size_t kFrame = 1000;  // payload of a data frame
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
                if (d.data.size() == 12 && reply[2] == 0x80 && reply[3] == frame[3] &&
                    (frame[3] == 2 ? reply[5] != 0 : std::memcmp(reply + 8, frame + 8, 4) == 0)) {
                    *channel = reply[5];
                    return true;
                }
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
    Run run;
    Clock::time_point start = Clock::now();
    Sender sender;
    if (!sender.ok()) run.error = "the plain sender could not bind UDP port 138";
    uint8_t frame[12 + kFrame] = {0x50, 0x53, 0x00, 0x02, 0x01, 0xFF}, channel = 0;
    sender.Send("TEST", frame, 12);
    if (run.error.empty() && !sender.Exchange(frame, 12, &channel)) run.error = "the plain sender got no channel";
    Clock::time_point dataStart = Clock::now();
    frame[3] = 0x04;
    frame[5] = channel;
    std::vector<unsigned char> buffer(kSpoolBuffer);
    uint32_t sequence = 0;
    for (uint64_t n = 0; n < buffers && run.error.empty(); ++n) {
        FillBuffer(buffer, n);
        for (size_t at = 0; at < buffer.size() && run.error.empty(); at += kFrame, ++sequence) {
            size_t payload = std::min(kFrame, buffer.size() - at);
            std::memcpy(frame + 8, &sequence, 4);  // least significant byte first, as on this host
            std::memcpy(frame + 12, buffer.data() + at, payload);
            if (!sender.Exchange(frame, 12 + payload, &channel)) run.error = "a data frame was never acknowledged";
        }
    }
    run.dataSeconds = Seconds(Clock::now() - dataStart);
    frame[3] = 0x08;
    std::memset(frame + 8, 0, 4);
    if (run.error.empty() && !sender.Exchange(frame, 12, &channel)) run.error = "the hang-up was never acknowledged";
    if (run.error.empty() && !arrivals.WaitFor(arrivalNumber, kStallMs, &run.arrival))
        run.error = "the print server never saw the job end";
    run.seconds = Seconds(run.arrival.at - start);
    run.ok = run.error.empty();
    return run;
}

}  // namespace

int main(int argc, char **argv) {
    return Compare(argc, argv,
                   Comparison{"netbios_throughput", "plain UDP",
                              "over NetBIOS datagrams to kvtps's PS1 at 127.0.0.2, 1000-byte frames", 16, 16,
                              4 /* NetBIOS */, false, true, PrintPlain});
}
