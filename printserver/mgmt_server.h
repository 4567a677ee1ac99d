// The management side of an emulator's print servers: one UDP socket on
// 0.0.0.0:0x3434, shared with any other emulator or program on the host, one
// thread that reads the queries and lets each server they name answer.  The
// devices (identity, current address, faults, counters) are guarded by mu_.
#pragma once

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <netinet/in.h>

#include "kvtps.h"

namespace kvtps::detail {

class MgmtServer {
public:
    explicit MgmtServer(const std::vector<ServerConfig> &configs);
    ~MgmtServer();
    MgmtServer(const MgmtServer &) = delete;
    MgmtServer &operator=(const MgmtServer &) = delete;

    // Open binds the socket when any server answers management datagrams; Run
    // starts the thread.
    bool Open(std::string *error);
    void Run();
    void Stop();

    bool Has(const std::string &server) const;
    NodeId Node(const std::string &server) const;
    std::string Address(const std::string &server) const;
    void SetAddress(const std::string &server, const std::string &address);
    MgmtCounters Counters(const std::string &server) const;
    MgmtTraffic Traffic() const;
    MgmtFaults Faults(const std::string &server) const;
    void SetFaults(const std::string &server, const MgmtFaults &faults);

private:
    struct Device {
        ServerConfig config;
        NodeId node{};
        std::string address;  // current
        MgmtCounters counters;
    };
    struct Reply {
        std::string bytes;
        std::string address;  // the device's, as the reply's source
    };

    void Loop();
    void Wake();
    // Counts the query against every device it names and returns their replies.
    std::vector<Reply> Answer(const uint8_t *query, size_t size);
    void Send(const Reply &reply, const sockaddr_in &to);
    Device *Find(const std::string &server);  // with mu_ held
    const Device *Find(const std::string &server) const;

    int fd_ = -1;
    int wakeFd_ = -1;
    std::thread thread_;

    mutable std::mutex mu_;
    bool stopping_ = false;
    std::vector<Device> devices_;
    MgmtTraffic traffic_;
};

}  // namespace kvtps::detail
