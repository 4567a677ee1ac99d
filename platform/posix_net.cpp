// The POSIX side of the platform's Winsock: BSD sockets, poll and the resolver,
// behind the plain interface of posix_net.h.
#include "posix_net.h"

#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

namespace kvtnet {

namespace {

int Result(long r) { return r < 0 ? -errno : static_cast<int>(r); }

sockaddr_in ToSockaddr(const Inet &a) {
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_port = a.port;
    sin.sin_addr.s_addr = a.addr;
    return sin;
}

int SystemFlags(unsigned flags) {
    int f = 0;
    if (flags & kMsgOob) f |= MSG_OOB;
    if (flags & kMsgPeek) f |= MSG_PEEK;
    if (flags & kMsgDontRoute) f |= MSG_DONTROUTE;
    if (flags & kMsgWaitAll) f |= MSG_WAITALL;
    return f;
}

bool OptionName(Option option, int *level, int *name) {
    switch (option) {
    case Option::ReuseAddr: *level = SOL_SOCKET; *name = SO_REUSEADDR; return true;
    case Option::Broadcast: *level = SOL_SOCKET; *name = SO_BROADCAST; return true;
    case Option::SndBuf: *level = SOL_SOCKET; *name = SO_SNDBUF; return true;
    case Option::RcvBuf: *level = SOL_SOCKET; *name = SO_RCVBUF; return true;
    case Option::Error: *level = SOL_SOCKET; *name = SO_ERROR; return true;
    case Option::TcpNoDelay: *level = IPPROTO_TCP; *name = TCP_NODELAY; return true;
    }
    return false;
}

void DrainErrorQueue(int fd) {
    char data[64];
    for (;;) {
        msghdr msg{};
        iovec iov{data, sizeof data};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        char control[256];
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        if (recvmsg(fd, &msg, MSG_ERRQUEUE | MSG_DONTWAIT) < 0) return;
    }
}

}  // namespace

int OpenInet(bool stream, int protocol, bool reportUnreachable) {
    int fd = socket(AF_INET, (stream ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, protocol);
    if (fd < 0) return -errno;
    if (!stream && reportUnreachable) {
        // Queue ICMP errors on unconnected sockets too, so that a datagram sent
        // to a closed port fails the next receive (WSAECONNRESET on Windows).
        int on = 1;
        setsockopt(fd, IPPROTO_IP, IP_RECVERR, &on, sizeof on);
    }
    return fd;
}

int Close(int fd) {
    // shutdown wakes a recv or poll blocked on fd in another thread (close alone
    // does not on Linux); on an unconnected socket it fails but still wakes.
    shutdown(fd, SHUT_RDWR);
    return Result(close(fd));
}

int SetNonBlocking(int fd, bool on) {
    int value = on ? 1 : 0;  // one call: the IPX transport makes a socket for every frame
    return Result(ioctl(fd, FIONBIO, &value));
}

int BytesReadable(int fd) {
    int n = 0;
    if (ioctl(fd, FIONREAD, &n) < 0) return -errno;
    return n;
}

int SetOption(int fd, Option option, int value) {
    int level, name;
    if (!OptionName(option, &level, &name)) return -ENOPROTOOPT;
    return Result(setsockopt(fd, level, name, &value, sizeof value));
}

int GetOption(int fd, Option option, int *value) {
    int level, name;
    if (!OptionName(option, &level, &name)) return -ENOPROTOOPT;
    socklen_t length = sizeof *value;
    return Result(getsockopt(fd, level, name, value, &length));
}

int Bind(int fd, const Inet &address) {
    sockaddr_in sin = ToSockaddr(address);
    return Result(bind(fd, reinterpret_cast<sockaddr *>(&sin), sizeof sin));
}

int Connect(int fd, const Inet &address) {
    sockaddr_in sin = ToSockaddr(address);
    return Result(connect(fd, reinterpret_cast<sockaddr *>(&sin), sizeof sin));
}

int Disconnect(int fd) {
    sockaddr none{};
    none.sa_family = AF_UNSPEC;
    return Result(connect(fd, &none, sizeof none));
}

long Send(int fd, const void *data, size_t length, unsigned flags) {
    long n = send(fd, data, length, SystemFlags(flags) | MSG_NOSIGNAL);
    return n < 0 ? -errno : n;
}

long SendTo(int fd, const void *data, size_t length, unsigned flags, const Inet &to) {
    sockaddr_in sin = ToSockaddr(to);
    long n = sendto(fd, data, length, SystemFlags(flags) | MSG_NOSIGNAL,
                    reinterpret_cast<sockaddr *>(&sin), sizeof sin);
    return n < 0 ? -errno : n;
}

long Receive(int fd, void *buffer, size_t length, unsigned flags, bool datagram, Inet *from,
             bool *hasFrom, bool *truncated) {
    sockaddr_in sin{};
    iovec iov{buffer, length};
    msghdr msg{};
    msg.msg_name = &sin;
    msg.msg_namelen = sizeof sin;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    *hasFrom = false;
    *truncated = false;
    long n = recvmsg(fd, &msg, SystemFlags(flags));
    if (n < 0) {
        int error = errno;
        if (datagram && error != EAGAIN && error != EWOULDBLOCK && error != EINTR)
            DrainErrorQueue(fd);
        return -error;
    }
    if (datagram && (msg.msg_flags & MSG_TRUNC)) *truncated = true;
    if (msg.msg_namelen >= sizeof sin && sin.sin_family == AF_INET) {
        *hasFrom = true;
        from->addr = sin.sin_addr.s_addr;
        from->port = sin.sin_port;
    }
    return n;
}

int Poll(PollItem *items, size_t count, int64_t timeoutNs) {
    pollfd fds[192];
    if (count > sizeof fds / sizeof fds[0]) return -EINVAL;
    for (size_t i = 0; i < count; ++i) {
        fds[i].fd = items[i].fd;
        fds[i].events = static_cast<short>(((items[i].events & kPollIn) ? POLLIN : 0) |
                                           ((items[i].events & kPollOut) ? POLLOUT : 0) |
                                           ((items[i].events & kPollPri) ? POLLPRI : 0));
        fds[i].revents = 0;
    }
    timespec ts{};
    timespec *timeout = nullptr;
    if (timeoutNs >= 0) {
        ts.tv_sec = static_cast<time_t>(timeoutNs / 1000000000);
        ts.tv_nsec = static_cast<long>(timeoutNs % 1000000000);
        timeout = &ts;
    }
    int n = ppoll(fds, count, timeout, nullptr);
    if (n < 0) return -errno;
    for (size_t i = 0; i < count; ++i) {
        short r = fds[i].revents;
        items[i].revents = ((r & POLLIN) ? kPollIn : 0) | ((r & POLLOUT) ? kPollOut : 0) |
                           ((r & POLLPRI) ? kPollPri : 0) | ((r & POLLERR) ? kPollErr : 0) |
                           ((r & POLLHUP) ? kPollHup : 0) | ((r & POLLNVAL) ? kPollNval : 0);
    }
    return n;
}

int SystemHostName(std::string *name) {
    char buffer[HOST_NAME_MAX + 1] = {};
    if (gethostname(buffer, sizeof buffer - 1) != 0) return -errno;
    *name = buffer;
    return 0;
}

std::vector<uint32_t> InterfaceAddresses() {
    std::vector<uint32_t> result;
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) return result;
    for (ifaddrs *i = list; i != nullptr; i = i->ifa_next) {
        if (i->ifa_addr == nullptr || i->ifa_addr->sa_family != AF_INET) continue;
        if (!(i->ifa_flags & IFF_UP) || (i->ifa_flags & IFF_LOOPBACK)) continue;
        result.push_back(reinterpret_cast<sockaddr_in *>(i->ifa_addr)->sin_addr.s_addr);
    }
    freeifaddrs(list);
    return result;
}

Lookup Resolve(const std::string &name, std::string *canonicalName, std::vector<uint32_t> *addresses) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_CANONNAME;
    addrinfo *list = nullptr;
    int r = getaddrinfo(name.c_str(), nullptr, &hints, &list);
    switch (r) {
    case 0: break;
    case EAI_NONAME: return Lookup::NotFound;
    case EAI_AGAIN: return Lookup::TryAgain;
#ifdef EAI_NODATA
    case EAI_NODATA: return Lookup::NoData;
#endif
#ifdef EAI_ADDRFAMILY
    case EAI_ADDRFAMILY: return Lookup::NoData;
#endif
    default: return Lookup::NoRecovery;
    }
    addresses->clear();
    *canonicalName = (list->ai_canonname != nullptr) ? list->ai_canonname : name;
    for (addrinfo *i = list; i != nullptr; i = i->ai_next) {
        if (i->ai_family != AF_INET) continue;
        uint32_t a = reinterpret_cast<sockaddr_in *>(i->ai_addr)->sin_addr.s_addr;
        bool seen = false;
        for (uint32_t b : *addresses) seen = seen || b == a;
        if (!seen) addresses->push_back(a);
    }
    freeaddrinfo(list);
    return addresses->empty() ? Lookup::NoData : Lookup::Ok;
}

}  // namespace kvtnet
