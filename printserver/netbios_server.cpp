#include "netbios_server.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "kvthost.h"
#include "device_list.h"

namespace kvtps {

std::string NbName(const ServerConfig &c) {
    return (c.deviceName.empty() ? c.name : c.deviceName).substr(0, 16);
}

std::string NbCfgName(const ServerConfig &c) {
    std::string shortName = (c.shortName.empty() ? c.name : c.shortName).substr(0, kShortNameBytes);
    return shortName.substr(0, shortName.find('\0')) + ".CFG";
}

std::string BuildNbReply(const ServerConfig &config, const NodeId &node, const std::string &address,
                         uint8_t command) {
    std::string udp = BuildMgmtReply(config, node, address, command);
    if (udp.size() <= kMgmtHeadBytes - 4) return "";  // nothing, or a reply cut into its prefix
    return std::string("PS\x80\x00", 4) + udp.substr(kMgmtHeadBytes - 4);
}

namespace detail {
namespace {

constexpr size_t kReadBuffer = 65536;
constexpr int kDatagramsPerTurn = 256;
constexpr size_t kQueryBytes = 8;  // "PS" 00 00, then 00 CMD FF ~CMD

std::string Errno(const char *what) { return std::string(what) + ": " + std::strerror(errno); }

// A print channel frame: "PS", Flags 0, a connect, data or hang-up, 12 bytes at least.
bool IsFrame(const std::string &data) {
    const auto *q = reinterpret_cast<const uint8_t *>(data.data());
    return data.size() >= kChannelHeaderBytes && q[0] == 'P' && q[1] == 'S' && q[2] == 0 &&
           (q[3] == kChannelConnect || q[3] == kChannelData || q[3] == kChannelHangup);
}

// The command of a management query over NetBIOS; -1 for anything else.
int QueryCommand(const std::string &data) {
    const auto *q = reinterpret_cast<const uint8_t *>(data.data());
    if (data.size() != kQueryBytes || q[0] != 'P' || q[1] != 'S' || q[2] != 0 || q[3] != 0 || q[4] != 0 ||
        q[6] != 0xFF || q[7] != static_cast<uint8_t>(~q[5]))
        return -1;
    return q[5];
}

}  // namespace

NbServer::NbServer(const std::vector<ServerConfig> &configs, ChannelJobObserver observer)
    : observer_(std::move(observer)) {
    for (const auto &config : configs) {
        Device d;
        d.config = config;
        d.node = config.node ? *config.node : NodeFromAddress(config.address);
        d.address = config.address;
        d.name = kvtnb::MakeName(NbName(config));
        d.cfgName = kvtnb::MakeName(NbCfgName(config));
        d.channel.Configure(config.name, config.storeData, config.netbios.channel);
        devices_.push_back(std::move(d));
    }
}

NbServer::~NbServer() {
    Stop();
    if (fd_ >= 0) close(fd_);
    if (wakeFd_ >= 0) close(wakeFd_);
}

void NbServer::Open() {
    bool wanted = false;
    for (const auto &d : devices_) wanted = wanted || d.config.netbios.enabled;
    if (!wanted) return;
    std::string error;
    wakeFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int on = 1;
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_port = htons(kvtnb::kDatagramPort);
    any.sin_addr.s_addr = htonl(INADDR_ANY);
    if (wakeFd_ < 0 || fd_ < 0) {
        error = Errno(wakeFd_ < 0 ? "eventfd" : "socket");
    } else {
        setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        setsockopt(fd_, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
        setsockopt(fd_, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
        if (bind(fd_, reinterpret_cast<sockaddr *>(&any), sizeof any) != 0)
            error = "NetBIOS: cannot listen on 0.0.0.0:138: " + std::string(std::strerror(errno));
    }
    std::lock_guard<std::mutex> lock(mu_);
    if (error.empty()) {
        traffic_.listening = true;
        return;
    }
    traffic_.listenError = error;
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
}

void NbServer::Run() {
    if (fd_ >= 0) thread_ = std::thread([this] { Loop(); });
}

void NbServer::Stop() {
    {
        std::lock_guard<std::mutex> lock(mu_);
        stopping_ = true;
    }
    Wake();
    if (thread_.joinable()) thread_.join();
    std::lock_guard<std::mutex> lock(mu_);
    traffic_.listening = false;
}

void NbServer::Wake() {
    if (wakeFd_ < 0) return;
    uint64_t one = 1;
    [[maybe_unused]] ssize_t n = write(wakeFd_, &one, sizeof one);
}

void NbServer::Loop() {
    std::vector<uint8_t> buffer(kReadBuffer);
    for (;;) {
        long long timeoutMs = -1;  // until a datagram comes, or the next late reply is due
        {
            std::lock_guard<std::mutex> lock(mu_);
            if (stopping_) return;
            for (const Reply &r : replies_) {
                long long wait = std::max<long long>(
                    0, std::chrono::ceil<std::chrono::milliseconds>(r.due - Clock::now()).count());
                if (timeoutMs < 0 || wait < timeoutMs) timeoutMs = wait;
            }
        }
        pollfd fds[2] = {{wakeFd_, POLLIN, 0}, {fd_, POLLIN, 0}};
        if (poll(fds, 2, static_cast<int>(std::min<long long>(timeoutMs, 60000))) < 0 && errno != EINTR) return;
        if (fds[0].revents & POLLIN) {
            uint64_t count;
            [[maybe_unused]] ssize_t n = read(wakeFd_, &count, sizeof count);
        }
        for (int i = 0; i < kDatagramsPerTurn; ++i) {
            ssize_t n = recv(fd_, buffer.data(), buffer.size(), 0);
            if (n < 0) break;
            kvtnb::Datagram d;
            std::vector<ChannelJob> ended;
            {
                std::lock_guard<std::mutex> lock(mu_);
                ++traffic_.datagrams;
                if (kvtnb::DecodeDatagram(buffer.data(), static_cast<size_t>(n), &d)) Answer(d);
                else ++traffic_.malformed;
                ended.swap(ended_);
            }
            if (observer_)
                for (const ChannelJob &job : ended) observer_(job);
        }
        SendDue();
    }
}

void NbServer::Answer(const kvtnb::Datagram &d) {
    const kvtnb::Name group = kvtnb::MakeName(kNbGroupName);
    const int command = QueryCommand(d.data);
    for (Device &dev : devices_) {
        const NbFaults &f = dev.config.netbios;
        if (!f.enabled) continue;
        const bool toGroup = d.destination == group, toName = d.destination == dev.name,
                   toCfg = d.destination == dev.cfgName;
        if (!toGroup && !toName && !toCfg) continue;
        if (toName && IsFrame(d.data) && !f.groupOnly) {
            std::string reply = Frame(dev, d.data);
            if (!reply.empty()) Queue(dev, d.source, std::move(reply));
            continue;
        }
        bool asked = false;
        if (command == kMgmtSearch && toGroup) ++dev.counters.groupSearch, asked = true;
        else if (command == kMgmtSearch && toName) ++dev.counters.nameSearch, asked = true;
        else if (command == kMgmtReadEeprom && toCfg) ++dev.counters.cfgReadEeprom, asked = true;
        else ++dev.counters.other;
        std::string data = asked && (toGroup || !f.groupOnly)
                               ? BuildNbReply(dev.config, dev.node, dev.address, static_cast<uint8_t>(command))
                               : "";
        if (data.empty()) {
            ++dev.counters.unanswered;
            continue;
        }
        ++dev.counters.replies;
        Queue(dev, d.source, std::move(data));
    }
}

std::string NbServer::Frame(Device &dev, const std::string &data) {
    const auto *frame = reinterpret_cast<const uint8_t *>(data.data());
    const int port = frame[4];
    std::string reply;
    unsigned kind = kReplyConnect;
    if (port < 1 || port > 3) ++dev.channel.counters.malformed;
    else if (frame[3] == kChannelConnect) reply = dev.channel.Connect(frame);
    else reply = dev.channel.Data(port, frame, data.size()), kind = frame[3] == kChannelData ? kReplyData : kReplyHangup;
    for (ChannelJob &job : dev.channel.TakeEnded()) ended_.push_back(std::move(job));
    bool ignored;
    if (reply.empty() || !dev.channel.Shape(kind, &reply, false, &ignored)) return "";
    return reply;
}

// A reply to the sender's name (direct unique: one station's own), from the
// device's name or the one its knob gives, late by the knob.
void NbServer::Queue(const Device &dev, const kvtnb::Name &to, std::string data) {
    const NbFaults &f = dev.config.netbios;
    kvtnb::Datagram reply;
    reply.type = kvtnb::DatagramType::DirectUnique;
    reply.id = nextId_++;
    in_addr a{};
    inet_pton(AF_INET, dev.address.c_str(), &a);
    reply.sourceIp = ntohl(a.s_addr);
    reply.source = f.replyName.empty() ? dev.name : kvtnb::MakeName(f.replyName);
    reply.destination = to;
    reply.data = std::move(data);
    // Late by the monitor's milliseconds: its clock runs at KVT_TIMESCALE.
    auto late = std::chrono::microseconds(std::llround(f.lateMs * 1000.0 * kvthost::TimeScale()));
    replies_.push_back({Clock::now() + late, kvtnb::EncodeDatagram(reply), dev.address});
}

void NbServer::SendDue() {
    std::vector<Reply> due;
    {
        std::lock_guard<std::mutex> lock(mu_);
        auto now = Clock::now();
        auto later = std::stable_partition(replies_.begin(), replies_.end(), [&](const Reply &r) { return r.due <= now; });
        due.assign(replies_.begin(), later);
        replies_.erase(replies_.begin(), later);
    }
    for (const Reply &r : due) {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(kvtnb::kDatagramPort);
        to.sin_addr.s_addr = htonl(INADDR_BROADCAST);
        in_pktinfo info{};
        inet_pton(AF_INET, r.address.c_str(), &info.ipi_spec_dst);
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof info)] = {};
        iovec iov{const_cast<char *>(r.packet.data()), r.packet.size()};
        msghdr msg{};
        msg.msg_name = &to;
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
        if (sendmsg(fd_, &msg, MSG_NOSIGNAL) < 0)  // an address that isn't this host's: from any
            sendto(fd_, r.packet.data(), r.packet.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr *>(&to), sizeof to);
    }
}

NbServer::Device *NbServer::Find(const std::string &server) { return FindDevice(devices_, server); }

const NbServer::Device *NbServer::Find(const std::string &server) const { return FindDevice(devices_, server); }

void NbServer::SetAddress(const std::string &server, const std::string &address) {
    std::lock_guard<std::mutex> lock(mu_);
    if (Device *d = Find(server)) d->address = address;
}

NbCounters NbServer::Counters(const std::string &server) const {
    std::lock_guard<std::mutex> lock(mu_);
    const Device *d = Find(server);
    NbCounters counters = d ? d->counters : NbCounters{};
    if (d != nullptr) counters.channel = d->channel.counters;
    return counters;
}

std::vector<ChannelJob> NbServer::Jobs(const std::string &server) const {
    std::lock_guard<std::mutex> lock(mu_);
    const Device *d = Find(server);
    return d ? d->channel.jobs : std::vector<ChannelJob>{};
}

void NbServer::Take(const kvtnb::Datagram &datagram) {
    std::lock_guard<std::mutex> lock(mu_);
    Answer(datagram);
    replies_.clear();
    ended_.clear();
}

NbTraffic NbServer::Traffic() const {
    std::lock_guard<std::mutex> lock(mu_);
    return traffic_;
}

NbFaults NbServer::Faults(const std::string &server) const {
    std::lock_guard<std::mutex> lock(mu_);
    const Device *d = Find(server);
    return d ? d->config.netbios : NbFaults{};
}

bool NbServer::SetFaults(const std::string &server, const NbFaults &faults) {
    std::lock_guard<std::mutex> lock(mu_);
    Device *d = Find(server);
    if (d == nullptr) return false;
    d->config.netbios = faults;
    d->channel.SetFaults(faults.channel);
    return true;
}

}  // namespace detail
}  // namespace kvtps
