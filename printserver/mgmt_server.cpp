#include "mgmt_server.h"
#include "device_list.h"

#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kvtps::detail {
namespace {

// Queries are 10 bytes; anything longer is read whole and looked at no further.
constexpr size_t kReadBuffer = 2048;
constexpr int kDatagramsPerTurn = 256;

std::string Errno(const char *what) { return std::string(what) + ": " + std::strerror(errno); }

bool AllOnes(const uint8_t *prefix) {
    for (int i = 0; i < 6; ++i)
        if (prefix[i] != 0xFF) return false;
    return true;
}

}  // namespace

MgmtServer::MgmtServer(const std::vector<ServerConfig> &configs) {
    for (const auto &config : configs) {
        Device d;
        d.config = config;
        d.node = config.node ? *config.node : NodeFromAddress(config.address);
        d.address = config.address;
        devices_.push_back(std::move(d));
    }
}

MgmtServer::~MgmtServer() {
    Stop();
    if (fd_ >= 0) close(fd_);
    if (wakeFd_ >= 0) close(wakeFd_);
}

bool MgmtServer::Open(std::string *error) {
    bool wanted = false;
    for (const auto &d : devices_) wanted = wanted || d.config.management;
    if (!wanted) return true;
    wakeFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (wakeFd_ < 0 || fd_ < 0) {
        *error = Errno(wakeFd_ < 0 ? "eventfd" : "socket");
        return false;
    }
    // Every emulator and program on the host shares the port; a broadcast
    // reaches each of them.  The source address of a reply is the device's
    // own (IP_PKTINFO), as if each had its own socket.
    int on = 1;
    setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(fd_, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
    setsockopt(fd_, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_port = htons(kMgmtPort);
    any.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(fd_, reinterpret_cast<sockaddr *>(&any), sizeof any) != 0) {
        *error = "management datagrams: cannot listen on 0.0.0.0:" + std::to_string(kMgmtPort) + ": " +
                 std::strerror(errno);
        std::lock_guard<std::mutex> lock(mu_);
        traffic_.listenError = *error;
        return false;
    }
    std::lock_guard<std::mutex> lock(mu_);
    traffic_.listening = true;
    return true;
}

void MgmtServer::Run() {
    if (fd_ >= 0) thread_ = std::thread([this] { Loop(); });
}

void MgmtServer::Stop() {
    {
        std::lock_guard<std::mutex> lock(mu_);
        stopping_ = true;
    }
    Wake();
    if (thread_.joinable()) thread_.join();
    std::lock_guard<std::mutex> lock(mu_);
    traffic_.listening = false;
}

void MgmtServer::Wake() {
    if (wakeFd_ < 0) return;
    uint64_t one = 1;
    [[maybe_unused]] ssize_t n = write(wakeFd_, &one, sizeof one);
}

void MgmtServer::Loop() {
    std::vector<uint8_t> buffer(kReadBuffer);
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(mu_);
            if (stopping_) return;
        }
        pollfd fds[2] = {{wakeFd_, POLLIN, 0}, {fd_, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0 && errno != EINTR) return;
        if (fds[0].revents & POLLIN) {
            uint64_t count;
            [[maybe_unused]] ssize_t n = read(wakeFd_, &count, sizeof count);
        }
        for (int i = 0; i < kDatagramsPerTurn; ++i) {
            sockaddr_in from{};
            socklen_t fromLength = sizeof from;
            ssize_t n = recvfrom(fd_, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr *>(&from),
                                 &fromLength);
            if (n < 0) break;  // EAGAIN: all read; an error from an earlier reply: read on next turn
            for (const Reply &reply : Answer(buffer.data(), static_cast<size_t>(n))) Send(reply, from);
        }
    }
}

std::vector<MgmtServer::Reply> MgmtServer::Answer(const uint8_t *query, size_t size) {
    std::vector<Reply> replies;
    std::lock_guard<std::mutex> lock(mu_);
    ++traffic_.datagrams;
    const uint8_t *q = query + 6;
    if (size < kMgmtQueryBytes || q[0] != 0x00 || q[2] != 0xFF || q[3] != static_cast<uint8_t>(~q[1])) {
        ++traffic_.malformed;
        return replies;
    }
    const uint8_t command = q[1];
    const bool everyone = AllOnes(query);
    bool named = false;
    for (Device &d : devices_) {
        if (!d.config.management) continue;
        if (!everyone && std::memcmp(query, d.node.data(), 6) != 0) continue;
        named = true;
        switch (command) {
        case kMgmtSearch: ++d.counters.search; break;
        case kMgmtReadEeprom: ++d.counters.readEeprom; break;
        case kMgmtQueueNames: ++d.counters.queueNames; break;
        case kMgmtStatus: ++d.counters.status; break;
        default: ++d.counters.otherCommands; break;
        }
        std::string bytes = BuildMgmtReply(d.config, d.node, d.address, command);
        if (bytes.empty()) {
            ++d.counters.unanswered;
            continue;
        }
        ++d.counters.replies;
        replies.push_back({std::move(bytes), d.address});
    }
    if (!named) ++traffic_.unaddressed;
    return replies;
}

void MgmtServer::Send(const Reply &reply, const sockaddr_in &to) {
    in_pktinfo info{};
    inet_pton(AF_INET, reply.address.c_str(), &info.ipi_spec_dst);
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof info)] = {};
    iovec iov{const_cast<char *>(reply.bytes.data()), reply.bytes.size()};
    msghdr msg{};
    msg.msg_name = const_cast<sockaddr_in *>(&to);
    msg.msg_namelen = sizeof to;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    cmsghdr *c = CMSG_FIRSTHDR(&msg);
    c->cmsg_level = IPPROTO_IP;
    c->cmsg_type = IP_PKTINFO;
    c->cmsg_len = CMSG_LEN(sizeof info);
    std::memcpy(CMSG_DATA(c), &info, sizeof info);
    if (sendmsg(fd_, &msg, MSG_NOSIGNAL) >= 0) return;
    // An address that isn't this host's can't be a source: send from any.
    sendto(fd_, reply.bytes.data(), reply.bytes.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&to),
           sizeof to);
}

MgmtServer::Device *MgmtServer::Find(const std::string &server) { return FindDevice(devices_, server); }

const MgmtServer::Device *MgmtServer::Find(const std::string &server) const { return FindDevice(devices_, server); }

bool MgmtServer::Has(const std::string &server) const {
    std::lock_guard<std::mutex> lock(mu_);
    return Find(server) != nullptr;
}

NodeId MgmtServer::Node(const std::string &server) const {
    std::lock_guard<std::mutex> lock(mu_);
    const Device *d = Find(server);
    return d ? d->node : NodeId{};
}

std::string MgmtServer::Address(const std::string &server) const {
    std::lock_guard<std::mutex> lock(mu_);
    const Device *d = Find(server);
    return d ? d->address : "";
}

void MgmtServer::SetAddress(const std::string &server, const std::string &address) {
    std::lock_guard<std::mutex> lock(mu_);
    if (Device *d = Find(server)) d->address = address;
}

MgmtCounters MgmtServer::Counters(const std::string &server) const {
    std::lock_guard<std::mutex> lock(mu_);
    const Device *d = Find(server);
    return d ? d->counters : MgmtCounters{};
}

MgmtTraffic MgmtServer::Traffic() const {
    std::lock_guard<std::mutex> lock(mu_);
    return traffic_;
}

MgmtFaults MgmtServer::Faults(const std::string &server) const {
    std::lock_guard<std::mutex> lock(mu_);
    const Device *d = Find(server);
    return d ? d->config.mgmt : MgmtFaults{};
}

void MgmtServer::SetFaults(const std::string &server, const MgmtFaults &faults) {
    std::lock_guard<std::mutex> lock(mu_);
    if (Device *d = Find(server)) d->config.mgmt = faults;
}

}  // namespace kvtps::detail
