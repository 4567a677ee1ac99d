#include "ipx_server.h"
#include "device_list.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kvtps {
namespace {

constexpr size_t kReadBuffer = 2048;  // a data frame is 1012 bytes at most
constexpr int kDatagramsPerTurn = 64;
constexpr uint16_t kSocketNumbers[5] = {kIpxMgmtSocket, kIpxConnectSocket, kIpxDataSockets[0], kIpxDataSockets[1],
                                        kIpxDataSockets[2]};

// The IPv4 address that a node names, when it has the form 00-00-a-b-c-d.
bool NodeAddress(const NodeId &node, in_addr_t *address) {
    if (node[0] != 0 || node[1] != 0) return false;
    std::memcpy(address, &node[2], 4);
    return true;
}

std::string AddressText(in_addr_t address) {
    char text[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &address, text, sizeof text);
    return text;
}

// A UDP socket on the IPX socket number of an address.  The management
// socket shares its port: with the shared socket on 0.0.0.0 (reuse) and, for
// that one, with the shared sockets of other emulators (reuseport).
int OpenSocket(in_addr_t address, uint16_t socketNumber, bool reuse, bool reusePort, std::string *error) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int on = 1;
    if (fd >= 0 && reuse) setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (fd >= 0 && reusePort) setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
    if (fd >= 0 && reusePort) setsockopt(fd, IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_port = htons(static_cast<uint16_t>(kIpxPortBase + socketNumber));
    at.sin_addr.s_addr = address;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&at), sizeof at) != 0) {
        char socketText[8];
        std::snprintf(socketText, sizeof socketText, "0x%04X", socketNumber);
        *error = "cannot listen on IPX socket " + std::string(socketText) + " of " + AddressText(address) + ": " +
                 std::strerror(errno);
        if (fd >= 0) close(fd);
        return -1;
    }
    return fd;
}

// One datagram, its sender and the address it was sent to.
ssize_t Receive(int fd, std::vector<uint8_t> &buffer, sockaddr_in *from, in_addr_t *to) {
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))];
    iovec iov{buffer.data(), buffer.size()};
    msghdr msg{};
    msg.msg_name = from;
    msg.msg_namelen = sizeof *from;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    ssize_t n = recvmsg(fd, &msg, 0);
    *to = 0;
    for (cmsghdr *c = CMSG_FIRSTHDR(&msg); n >= 0 && c != nullptr; c = CMSG_NXTHDR(&msg, c))
        if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO)
            *to = reinterpret_cast<const in_pktinfo *>(CMSG_DATA(c))->ipi_addr.s_addr;
    return n;
}

}  // namespace

std::string DescribeIpxJob(const IpxJob &job) { return DescribeChannelJob(job, "IPX"); }

bool ValidateChannelFaults(const ChannelFaults &f, std::string *error) {
    auto fail = [&](const std::string &message) {
        if (error) *error = message;
        return false;
    };
    if (f.busyAnswers < 0) return fail("busy answers must not be negative");
    if (f.replyFlags < -1 || f.replyFlags > 255) return fail("reply flags are a byte");
    if (f.faultCount < -1) return fail("a fault count must be -1 or more");
    if (f.goneAfter < -1 || f.goneFor < -1) return fail("gone-after and gone-for must be -1 or more");
    if (f.faultReplies & ~kReplyAll) return fail("unknown replies among those the faults change");
    return true;
}

bool ValidateIpxFaults(const IpxFaults &f, std::string *error) {
    in_addr_t address;
    if (!ValidateChannelFaults(f, error)) return false;
    const char *why = f.delayMs < 0 || f.delayMs > 600000 ? "IPX delay must be 0..600000 ms"
                      : f.replyNode && !NodeAddress(*f.replyNode, &address) ? "a reply node has the form 00-00-a-b-c-d"
                                                                            : nullptr;
    if (why != nullptr && error != nullptr) *error = why;
    return why == nullptr;
}

namespace detail {

IpxServer::IpxServer(const std::vector<ServerConfig> &configs, IpxJobObserver observer)
    : observer_(std::move(observer)) {
    for (const auto &config : configs) {
        Device d;
        d.config = config;
        d.node = config.node ? *config.node : NodeFromAddress(config.address);
        d.address = config.address;
        d.onIpx = config.ipx && NodeAddress(d.node, &d.ipxAddress);
        d.channel.Configure(config.name, config.storeData, config.ipxFaults);
        devices_.push_back(std::move(d));
    }
}

IpxServer::~IpxServer() { Stop(); }

bool IpxServer::Open(std::string *error) {
    bool any = false;
    for (Device &d : devices_) {
        if (!d.onIpx) continue;
        any = true;
        for (int k = 0; k < kSockets; ++k) {
            d.fds[k] = OpenSocket(d.ipxAddress, kSocketNumbers[k], k == 0, false, error);
            if (d.fds[k] < 0) {
                *error = "server " + d.config.name + ": " + *error;
                return false;  // the sockets opened so far close with the server
            }
        }
        d.listening = true;
    }
    if (!any) return true;
    wakeFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    sharedFd_ = OpenSocket(htonl(INADDR_ANY), kIpxMgmtSocket, true, true, error);
    return wakeFd_ >= 0 && sharedFd_ >= 0;
}

void IpxServer::Run() {
    if (wakeFd_ >= 0) thread_ = std::thread([this] { Loop(); });
}

void IpxServer::Stop() {
    {
        std::lock_guard<std::mutex> lock(mu_);
        stopping_ = true;
    }
    Wake();
    if (thread_.joinable()) thread_.join();
    std::lock_guard<std::mutex> lock(mu_);
    for (Device &d : devices_) {
        for (int &fd : d.fds) {
            if (fd >= 0) close(fd);
            fd = -1;
        }
        d.listening = false;
    }
    for (int *fd : {&sharedFd_, &wakeFd_}) {
        if (*fd >= 0) close(*fd);
        *fd = -1;
    }
}

void IpxServer::Wake() {
    if (wakeFd_ < 0) return;
    uint64_t one = 1;
    [[maybe_unused]] ssize_t n = write(wakeFd_, &one, sizeof one);
}

void IpxServer::Loop() {
    // The devices never change after the start: their sockets are polled as
    // they are, each with its owner and kind.
    std::vector<pollfd> fds = {{wakeFd_, POLLIN, 0}, {sharedFd_, POLLIN, 0}};
    std::vector<std::pair<Device *, int>> owners = {{nullptr, -1}, {nullptr, 0}};
    for (Device &d : devices_)
        for (int k = 0; k < kSockets; ++k)
            if (d.fds[k] >= 0) {
                fds.push_back({d.fds[k], POLLIN, 0});
                owners.push_back({&d, k});
            }
    std::vector<uint8_t> buffer(kReadBuffer);
    for (;;) {
        int timeoutMs = -1;
        {
            std::lock_guard<std::mutex> lock(mu_);
            if (stopping_) return;
            const Clock::time_point now = Clock::now();
            for (size_t i = 0; i < pending_.size();) {
                const Pending &p = pending_[i];
                if (p.due > now) {
                    auto left = std::chrono::ceil<std::chrono::milliseconds>(p.due - now).count();
                    timeoutMs = timeoutMs < 0 ? static_cast<int>(left) : std::min(timeoutMs, static_cast<int>(left));
                    ++i;
                    continue;
                }
                Send(p.fd, p.bytes, p.to, p.from);
                pending_.erase(pending_.begin() + static_cast<std::ptrdiff_t>(i));
            }
        }
        if (poll(fds.data(), fds.size(), timeoutMs) < 0 && errno != EINTR) return;
        if (fds[0].revents & POLLIN) {
            uint64_t count;
            [[maybe_unused]] ssize_t n = read(wakeFd_, &count, sizeof count);
        }
        for (size_t i = 1; i < fds.size(); ++i) {
            if (!(fds[i].revents & POLLIN)) continue;
            for (int n = 0; n < kDatagramsPerTurn; ++n) {
                sockaddr_in from{};
                in_addr_t to;
                ssize_t size = Receive(fds[i].fd, buffer, &from, &to);
                if (size < 0) break;
                // The shared socket takes broadcasts only: a datagram to an
                // address where no server listens finds it too.
                if (fds[i].fd == sharedFd_ && to != htonl(INADDR_BROADCAST)) continue;
                std::vector<IpxJob> ended;
                {
                    std::lock_guard<std::mutex> lock(mu_);
                    Take(owners[i].first, owners[i].second, buffer.data(), static_cast<size_t>(size), from);
                    ended.swap(ended_);
                }
                if (observer_)
                    for (const IpxJob &job : ended) observer_(job);
            }
        }
    }
}

void IpxServer::Take(Device *d, int kind, const uint8_t *bytes, size_t size, const sockaddr_in &from) {
    if (d == nullptr) {  // broadcast: a query for every server
        for (Device &each : devices_)
            if (each.onIpx) Take(&each, kind, bytes, size, from);
        return;
    }
    ChannelCounters &counters = d->channel.counters;
    if (kind == 0) {
        if (size < 4 || bytes[0] != 0x00 || bytes[2] != 0xFF || bytes[3] != static_cast<uint8_t>(~bytes[1])) {
            ++counters.malformed;
            return;
        }
        Management(*d, bytes[1], from);
        return;
    }
    const bool frame = size >= kChannelHeaderBytes && bytes[0] == 0x50 && bytes[1] == 0x53 && bytes[2] == 0x00;
    // The connect socket takes connects, a data socket the frames of its own printer port.
    const int port = kind - 1;
    unsigned reply = 0;
    std::string bytesOut;
    if (kind == 1 && frame && bytes[3] == kChannelConnect && bytes[4] >= 1 && bytes[4] <= 3) {
        bytesOut = d->channel.Connect(bytes);
        reply = kReplyConnect;
    } else if (kind > 1 && frame && bytes[4] == port && (bytes[3] == kChannelData || bytes[3] == kChannelHangup)) {
        bytesOut = d->channel.Data(port, bytes, size);
        reply = bytes[3] == kChannelData ? kReplyData : kReplyHangup;
    } else {
        ++counters.malformed;
    }
    for (ChannelJob &job : d->channel.TakeEnded()) ended_.push_back(std::move(job));
    if (!bytesOut.empty()) Reply(*d, d->fds[kind == 1 ? 1 : port + 1], reply, std::move(bytesOut), from);
}

void IpxServer::Management(Device &d, uint8_t command, const sockaddr_in &from) {
    if (command == kMgmtSearch) ++d.search;
    if (command == kMgmtReadEeprom) ++d.readEeprom;
    if (d.config.ipxFaults.silent || (command != kMgmtSearch && command != kMgmtReadEeprom)) {
        ++d.channel.counters.unanswered;
        return;
    }
    // The reply of UDP without its node prefix; the UDP faults don't apply.
    ServerConfig plain = d.config;
    plain.management = true;
    plain.mgmt = MgmtFaults{};
    std::string reply = BuildMgmtReply(plain, d.node, d.address, command);
    Reply(d, d.fds[0], kReplyManagement, reply.substr(6), from);
}

void IpxServer::Reply(Device &d, int fd, unsigned kind, std::string bytes, const sockaddr_in &to) {
    const IpxFaults &f = d.config.ipxFaults;
    in_addr_t other = 0;
    bool otherNode = false;
    if (!d.channel.Shape(kind, &bytes, f.replyNode && NodeAddress(*f.replyNode, &other), &otherNode)) return;
    const in_addr_t from = otherNode ? other : d.ipxAddress;
    if (f.delayMs > 0) pending_.push_back({Clock::now() + std::chrono::milliseconds(f.delayMs), fd, bytes, to, from});
    else Send(fd, bytes, to, from);
}

// From the address a node names, whatever the socket is bound to (IP_PKTINFO).
void IpxServer::Send(int fd, const std::string &bytes, const sockaddr_in &to, in_addr_t from) {
    in_pktinfo info{};
    info.ipi_spec_dst.s_addr = from;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof info)] = {};
    iovec iov{const_cast<char *>(bytes.data()), bytes.size()};
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
    sendmsg(fd, &msg, MSG_NOSIGNAL);
}

IpxServer::Device *IpxServer::Find(const std::string &server) { return FindDevice(devices_, server); }

const IpxServer::Device *IpxServer::Find(const std::string &server) const { return FindDevice(devices_, server); }

bool IpxServer::Has(const std::string &server) const {
    std::lock_guard<std::mutex> lock(mu_);
    return Find(server) != nullptr;
}

std::vector<IpxJob> IpxServer::Jobs(const std::string &server) const {
    std::lock_guard<std::mutex> lock(mu_);
    const Device *d = Find(server);
    return d ? d->channel.jobs : std::vector<IpxJob>{};
}

IpxCounters IpxServer::Counters(const std::string &server) const {
    std::lock_guard<std::mutex> lock(mu_);
    const Device *d = Find(server);
    IpxCounters counters;
    if (d == nullptr) return counters;
    static_cast<ChannelCounters &>(counters) = d->channel.counters;
    counters.search = d->search;
    counters.readEeprom = d->readEeprom;
    counters.listening = d->listening;
    return counters;
}

IpxFaults IpxServer::Faults(const std::string &server) const {
    std::lock_guard<std::mutex> lock(mu_);
    const Device *d = Find(server);
    return d ? d->config.ipxFaults : IpxFaults{};
}

void IpxServer::SetFaults(const std::string &server, const IpxFaults &faults) {
    std::lock_guard<std::mutex> lock(mu_);
    if (Device *d = Find(server)) {
        d->config.ipxFaults = faults;
        d->channel.SetFaults(faults);
    }
}

void IpxServer::Take(const std::string &server, int kind, const uint8_t *bytes, size_t size) {
    std::lock_guard<std::mutex> lock(mu_);
    Device *d = Find(server);
    if (d != nullptr && kind >= 0 && kind < kSockets) Take(d, kind, bytes, size, sockaddr_in{});
    ended_.clear();
}

void IpxServer::SetAddress(const std::string &server, const std::string &address) {
    std::lock_guard<std::mutex> lock(mu_);
    if (Device *d = Find(server)) d->address = address;
}

}  // namespace detail

// ---- the Emulator's IPX side ----------------------------------------------------------

std::shared_ptr<detail::IpxServer> Emulator::Ipx() const {
    std::lock_guard<std::mutex> lock(mu_);
    return ipx_;
}

void Emulator::SetIpxJobObserver(IpxJobObserver observer) {
    std::lock_guard<std::mutex> lock(mu_);
    ipxObserver_ = std::move(observer);
}

std::vector<IpxJob> Emulator::IpxJobs(const std::string &server) const {
    auto x = Ipx();
    return x ? x->Jobs(server) : std::vector<IpxJob>{};
}

IpxCounters Emulator::IpxCountersOf(const std::string &server) const {
    auto x = Ipx();
    return x ? x->Counters(server) : IpxCounters{};
}

IpxFaults Emulator::IpxFaultsOf(const std::string &server) const {
    auto x = Ipx();
    return x ? x->Faults(server) : IpxFaults{};
}

bool Emulator::SetIpxFaults(const std::string &server, const IpxFaults &faults, std::string *error) {
    auto x = Ipx();
    if (!x || !x->Has(server)) {
        if (error) *error = "no server named " + server;
        return false;
    }
    if (!ValidateIpxFaults(faults, error)) return false;
    x->SetFaults(server, faults);
    return true;
}

}  // namespace kvtps
