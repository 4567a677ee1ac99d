// The IPX side of an emulator's print servers: per server five UDP sockets on
// the address its node names (IPX sockets 0x3434, 0x3030, 0x3131, 0x3232,
// 0x3535), and one socket on 0.0.0.0:0xB434, shared with any other emulator,
// for the searches broadcast to every node (a socket bound to one address
// never sees them).  One thread reads them all and answers; replies that wait
// for a delay are kept in a queue.  The devices are guarded by mu_.
#pragma once

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <netinet/in.h>

#include "channel_side.h"
#include "kvtps.h"

namespace kvtps::detail {

class IpxServer {
public:
    IpxServer(const std::vector<ServerConfig> &configs, IpxJobObserver observer);
    ~IpxServer();
    IpxServer(const IpxServer &) = delete;
    IpxServer &operator=(const IpxServer &) = delete;

    bool Open(std::string *error);
    void Run();
    void Stop();

    bool Has(const std::string &server) const;
    std::vector<IpxJob> Jobs(const std::string &server) const;
    IpxCounters Counters(const std::string &server) const;
    IpxFaults Faults(const std::string &server) const;
    void SetFaults(const std::string &server, const IpxFaults &faults);
    void SetAddress(const std::string &server, const std::string &address);
    // A datagram to a server's socket of the kind given (0: 0x3434, 1: 0x3030,
    // 2 to 4: printer ports 1 to 3), taken as its thread takes one.
    void Take(const std::string &server, int kind, const uint8_t *bytes, size_t size);

private:
    using Clock = std::chrono::steady_clock;
    static constexpr int kSockets = 5;  // management, connect, data of ports 1 to 3

    struct Device {
        ServerConfig config;
        NodeId node{};
        bool onIpx = false;
        in_addr_t ipxAddress = 0;  // the address its node names
        std::string address;       // its current address, for the EEPROM image
        int fds[kSockets] = {-1, -1, -1, -1, -1};
        uint64_t search = 0, readEeprom = 0;
        bool listening = false;
        ChannelSide channel;       // its counters hold those of the management queries too
    };
    struct Pending {
        Clock::time_point due;
        int fd;
        std::string bytes;
        sockaddr_in to;
        in_addr_t from;
    };

    void Loop();
    void Wake();
    // With mu_ held: one datagram that came to socket kind (0 to 4) of device
    // d, or for every device when d is null (the shared socket).
    void Take(Device *d, int kind, const uint8_t *bytes, size_t size, const sockaddr_in &from);
    void Management(Device &d, uint8_t command, const sockaddr_in &from);
    void Reply(Device &d, int fd, unsigned kind, std::string bytes, const sockaddr_in &to);
    static void Send(int fd, const std::string &bytes, const sockaddr_in &to, in_addr_t from);
    Device *Find(const std::string &server);
    const Device *Find(const std::string &server) const;

    int sharedFd_ = -1;
    int wakeFd_ = -1;
    std::thread thread_;
    IpxJobObserver observer_;

    mutable std::mutex mu_;
    bool stopping_ = false;
    std::vector<Device> devices_;
    std::vector<Pending> pending_;
    std::vector<IpxJob> ended_;  // jobs to hand to the observer, outside mu_
};

}  // namespace kvtps::detail
