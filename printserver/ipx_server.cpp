#include "ipx_server.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
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
constexpr uint8_t kReplyFlags = 0x80;
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

uint32_t SequenceOf(const uint8_t *frame) {
    return frame[8] | frame[9] << 8 | frame[10] << 16 | static_cast<uint32_t>(frame[11]) << 24;
}

}  // namespace

std::string DescribeIpxJob(const IpxJob &job) {
    char line[256];
    std::snprintf(line, sizeof line,
                  "%s IPX channel %d, port %d: %" PRIu64 " data bytes in %" PRIu64 " frames (%" PRIu64
                  " seen again), fnv1a64 %016" PRIx64 ", %s",
                  job.server.c_str(), job.channel, job.port, job.dataBytes, job.frames, job.duplicates,
                  job.dataChecksum, job.hungUp ? "hung up" : "not hung up");
    return line;
}

bool ValidateIpxFaults(const IpxFaults &f, std::string *error) {
    auto fail = [&](const std::string &message) {
        if (error) *error = message;
        return false;
    };
    in_addr_t address;
    if (f.busyAnswers < 0) return fail("busy answers must not be negative");
    if (f.replyFlags < -1 || f.replyFlags > 255) return fail("reply flags are a byte");
    if (f.faultCount < -1) return fail("a fault count must be -1 or more");
    if (f.faultReplies & ~kIpxReplyAll) return fail("unknown replies among those the faults change");
    if (f.delayMs < 0 || f.delayMs > 600000) return fail("IPX delay must be 0..600000 ms");
    if (f.replyNode && !NodeAddress(*f.replyNode, &address)) return fail("a reply node has the form 00-00-a-b-c-d");
    return true;
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
        d.busyLeft = config.ipxFaults.busyAnswers;
        d.faultLeft = config.ipxFaults.faultCount;
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
        d.counters.listening = true;
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
        d.counters.listening = false;
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
    if (kind == 0) {
        if (size < 4 || bytes[0] != 0x00 || bytes[2] != 0xFF || bytes[3] != static_cast<uint8_t>(~bytes[1])) {
            ++d->counters.malformed;
            return;
        }
        Management(*d, bytes[1], from);
        return;
    }
    const bool frame = size >= kChannelHeaderBytes && bytes[0] == 0x50 && bytes[1] == 0x53 && bytes[2] == 0x00;
    if (kind == 1) {
        if (frame && bytes[3] == kChannelConnect && bytes[4] >= 1 && bytes[4] <= 3) Connect(*d, bytes, from);
        else ++d->counters.malformed;
        return;
    }
    // A data socket takes the frames of its own printer port.
    const int port = kind - 1;
    if (frame && bytes[4] == port && (bytes[3] == kChannelData || bytes[3] == kChannelHangup))
        Data(*d, port, bytes, size, from);
    else
        ++d->counters.malformed;
}

void IpxServer::Management(Device &d, uint8_t command, const sockaddr_in &from) {
    if (command == kMgmtSearch) ++d.counters.search;
    if (command == kMgmtReadEeprom) ++d.counters.readEeprom;
    if (d.config.ipxFaults.silent || (command != kMgmtSearch && command != kMgmtReadEeprom)) {
        ++d.counters.unanswered;
        return;
    }
    // The reply of UDP without its node prefix; the UDP faults don't apply.
    ServerConfig plain = d.config;
    plain.management = true;
    plain.mgmt = MgmtFaults{};
    std::string reply = BuildMgmtReply(plain, d.node, d.address, command);
    Reply(d, d.fds[0], kIpxReplyManagement, reply.substr(6), from);
}

void IpxServer::Connect(Device &d, const uint8_t *frame, const sockaddr_in &from) {
    ++d.counters.connects;
    // A silent server still gives its busy answers: busy, then silent.
    if (d.config.ipxFaults.silent && d.busyLeft == 0) {
        ++d.counters.unanswered;
        return;
    }
    const int port = frame[4];
    Channel &c = d.channels[port - 1];
    uint8_t id;
    if (d.busyLeft > 0) {
        --d.busyLeft;
        ++d.counters.busyAnswers;
        id = 0;
    } else if (c.open && d.jobs[c.job].frames == 0 && d.jobs[c.job].duplicates == 0) {
        id = c.id;  // the connect again, its answer lost: the same channel
    } else {
        if (c.open) EndJob(d, c, false);
        c = Channel{true, d.nextId, 0, d.jobs.size(), c.closedId, std::string()};
        d.nextId = d.nextId == 254 ? 1 : d.nextId + 1;
        IpxJob job;
        job.server = d.config.name;
        job.port = port;
        job.channel = c.id;
        d.jobs.push_back(job);
        id = c.id;
    }
    std::string reply(reinterpret_cast<const char *>(frame), kChannelHeaderBytes);
    reply[2] = static_cast<char>(kReplyFlags);
    reply[5] = static_cast<char>(id);
    Reply(d, d.fds[1], kIpxReplyConnect, reply, from);
}

void IpxServer::Data(Device &d, int port, const uint8_t *frame, size_t size, const sockaddr_in &from) {
    const IpxFaults &f = d.config.ipxFaults;
    Channel &c = d.channels[port - 1];
    const bool data = frame[3] == kChannelData;
    const uint8_t id = frame[5];
    if (data) {
        ++d.counters.dataFrames;
        if (f.dropDataEvery > 0 && ++d.dataSeen % f.dropDataEvery == 0) {
            ++d.counters.droppedFrames;
            return;
        }
    } else {
        ++d.counters.hangups;
    }
    const uint32_t sequence = SequenceOf(frame);
    // A data frame for the open channel, new or seen again, or a hang-up of
    // it (again, after its answer was lost); nothing else is answered.
    const bool known = c.open ? id == c.id && (!data || sequence <= c.next) : !data && id != 0 && id == c.closedId;
    if (f.silent || !known) {
        ++d.counters.unanswered;
        return;
    }
    if (data && sequence == c.next) {
        IpxJob &job = d.jobs[c.job];
        const size_t payload = size - kChannelHeaderBytes;
        if (d.config.storeData) job.data.append(reinterpret_cast<const char *>(frame) + kChannelHeaderBytes, payload);
        job.dataBytes += payload;
        job.dataChecksum = Fnv1a64(frame + kChannelHeaderBytes, payload, job.dataChecksum);
        ++job.frames;
        ++c.next;
        c.last.assign(reinterpret_cast<const char *>(frame), size);
    } else if (data) {
        IpxJob &job = d.jobs[c.job];
        ++job.duplicates;
        ++d.counters.duplicates;
        if (sequence + 1 == c.next && std::string(reinterpret_cast<const char *>(frame), size) != c.last)
            ++job.changedRepeats;
    } else if (c.open) {
        EndJob(d, c, true);
        c.closedId = id;
    }
    std::string reply(reinterpret_cast<const char *>(frame), kChannelHeaderBytes);
    reply[2] = static_cast<char>(kReplyFlags);
    Reply(d, d.fds[port + 1], data ? kIpxReplyData : kIpxReplyHangup, reply, from);
}

void IpxServer::EndJob(Device &d, Channel &c, bool hungUp) {
    d.jobs[c.job].hungUp = hungUp;
    c.open = false;
    ended_.push_back(d.jobs[c.job]);
}

void IpxServer::Reply(Device &d, int fd, unsigned kind, std::string bytes, const sockaddr_in &to) {
    const IpxFaults &f = d.config.ipxFaults;
    in_addr_t from = d.ipxAddress;
    if ((f.faultReplies & kind) && d.faultLeft != 0) {
        bool changed = false;
        if (kind != kIpxReplyManagement) {
            if (f.replyFlags >= 0) bytes[2] = static_cast<char>(f.replyFlags), changed = true;
            if (f.wrongSequence) {
                uint32_t next = SequenceOf(reinterpret_cast<const uint8_t *>(bytes.data())) + 1;
                for (int i = 0; i < 4; ++i) bytes[8 + i] = static_cast<char>(next >> (8 * i));
                changed = true;
            }
            if (f.otherPort) bytes[4] = static_cast<char>(bytes[4] % 3 + 1), changed = true;
        }
        if (f.replyNode && NodeAddress(*f.replyNode, &from)) changed = true;
        if (changed && d.faultLeft > 0) --d.faultLeft;
    }
    if (f.dropReplyEvery > 0 && ++d.repliesSeen % f.dropReplyEvery == 0) {
        ++d.counters.droppedReplies;
        return;
    }
    ++d.counters.replies;
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

IpxServer::Device *IpxServer::Find(const std::string &server) {
    for (auto &d : devices_)
        if (d.config.name == server) return &d;
    return nullptr;
}

const IpxServer::Device *IpxServer::Find(const std::string &server) const {
    for (const auto &d : devices_)
        if (d.config.name == server) return &d;
    return nullptr;
}

bool IpxServer::Has(const std::string &server) const {
    std::lock_guard<std::mutex> lock(mu_);
    return Find(server) != nullptr;
}

std::vector<IpxJob> IpxServer::Jobs(const std::string &server) const {
    std::lock_guard<std::mutex> lock(mu_);
    const Device *d = Find(server);
    return d ? d->jobs : std::vector<IpxJob>{};
}

IpxCounters IpxServer::Counters(const std::string &server) const {
    std::lock_guard<std::mutex> lock(mu_);
    const Device *d = Find(server);
    return d ? d->counters : IpxCounters{};
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
        d->busyLeft = faults.busyAnswers;
        d->faultLeft = faults.faultCount;
        d->dataSeen = d->repliesSeen = 0;
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
