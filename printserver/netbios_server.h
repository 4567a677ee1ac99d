// The NetBIOS side of an emulator's print servers: one UDP socket on
// 0.0.0.0:138 beside every other process's, one thread that reads the RFC 1002
// datagrams broadcast there and lets each server answer what is addressed to
// a name it holds: its own name, its ".CFG" name and the group KVTR.GROUP.
// Replies go to the sender's name, broadcast from the server's own address.
// Print channel frames to its own name go to its ChannelSide.
// The devices (names, address, knobs, counters) are guarded by mu_.
#pragma once

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "channel_side.h"
#include "kvtnetbios.h"
#include "kvtps.h"

namespace kvtps::detail {

class NbServer {
public:
    NbServer(const std::vector<ServerConfig> &configs, ChannelJobObserver observer);
    ~NbServer();
    NbServer(const NbServer &) = delete;
    NbServer &operator=(const NbServer &) = delete;

    // Open binds the socket when any server holds NetBIOS names.  A socket
    // that can't be had (port 138 is privileged outside the private network)
    // stops nothing: the servers then hold no names, and Traffic says why.
    void Open();
    void Run();
    void Stop();

    void SetAddress(const std::string &server, const std::string &address);
    NbCounters Counters(const std::string &server) const;
    NbTraffic Traffic() const;
    NbFaults Faults(const std::string &server) const;
    bool SetFaults(const std::string &server, const NbFaults &faults);
    std::vector<ChannelJob> Jobs(const std::string &server) const;
    // A datagram taken as its thread takes one, its replies and ended jobs dropped.
    void Take(const kvtnb::Datagram &datagram);

private:
    using Clock = std::chrono::steady_clock;
    struct Device {
        ServerConfig config;
        NodeId node{};
        std::string address;
        kvtnb::Name name{}, cfgName{};
        NbCounters counters;
        ChannelSide channel;
    };
    struct Reply {
        Clock::time_point due;
        std::string packet;
        std::string address;  // the device's, as the reply's source
    };

    void Loop();
    void Wake();
    void Answer(const kvtnb::Datagram &datagram);  // queues the replies, with mu_ held
    // A print channel frame to the device's name: its reply, or "" for none.
    std::string Frame(Device &dev, const std::string &data);
    void Queue(const Device &dev, const kvtnb::Name &to, std::string data);
    void SendDue();                                // sends the replies whose time has come
    Device *Find(const std::string &server);       // with mu_ held
    const Device *Find(const std::string &server) const;

    int fd_ = -1;
    int wakeFd_ = -1;
    std::thread thread_;
    ChannelJobObserver observer_;

    mutable std::mutex mu_;
    bool stopping_ = false;
    std::vector<Device> devices_;
    std::vector<Reply> replies_;
    uint16_t nextId_ = 1;
    NbTraffic traffic_;
    std::vector<ChannelJob> ended_;  // jobs to hand to the observer, outside mu_
};

}  // namespace kvtps::detail
