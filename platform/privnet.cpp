// The private network: a new user and network namespace in which loopback is
// the only interface, up, and the default route, so that broadcasts and
// packets to any address stay on this machine.
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "kvthost.h"

namespace {

std::string Errno(const char *what) { return std::string(what) + ": " + std::strerror(errno); }

bool WriteFile(const char *path, const std::string &text, std::string *error) {
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        *error = Errno(path);
        return false;
    }
    bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (!ok) *error = Errno(path);
    close(fd);
    return ok;
}

int CountThreads() {
    DIR *dir = opendir("/proc/self/task");
    if (dir == nullptr) return -1;
    int n = 0;
    while (dirent *e = readdir(dir))
        if (e->d_name[0] != '.') ++n;
    closedir(dir);
    return n;
}

bool LoopbackUp(bool *up, std::string *error) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        *error = Errno("socket");
        return false;
    }
    ifreq req{};
    std::strncpy(req.ifr_name, "lo", IFNAMSIZ - 1);
    bool ok = ioctl(fd, SIOCGIFFLAGS, &req) == 0;
    if (!ok) *error = Errno("SIOCGIFFLAGS lo");
    *up = ok && (req.ifr_flags & IFF_UP);
    close(fd);
    return ok;
}

bool BringLoopbackUp(std::string *error) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        *error = Errno("socket");
        return false;
    }
    ifreq req{};
    std::strncpy(req.ifr_name, "lo", IFNAMSIZ - 1);
    bool ok = ioctl(fd, SIOCGIFFLAGS, &req) == 0;
    if (ok) {
        req.ifr_flags |= IFF_UP | IFF_RUNNING;
        ok = ioctl(fd, SIOCSIFFLAGS, &req) == 0;
    }
    if (!ok) *error = Errno("bringing lo up");
    close(fd);
    return ok;
}

void AddAttribute(nlmsghdr *header, size_t capacity, unsigned short type, const void *data, size_t length) {
    size_t at = NLMSG_ALIGN(header->nlmsg_len);
    size_t size = RTA_LENGTH(length);
    if (at + RTA_ALIGN(size) > capacity) return;
    rtattr *attribute = reinterpret_cast<rtattr *>(reinterpret_cast<char *>(header) + at);
    attribute->rta_type = type;
    attribute->rta_len = static_cast<unsigned short>(size);
    std::memcpy(RTA_DATA(attribute), data, length);
    header->nlmsg_len = static_cast<uint32_t>(at + RTA_ALIGN(size));
}

// "ip route add default dev lo src 127.0.0.1", through rtnetlink.
bool AddDefaultRoute(std::string *error) {
    int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (fd < 0) {
        *error = Errno("netlink socket");
        return false;
    }
    alignas(nlmsghdr) char buffer[256] = {};
    nlmsghdr *header = reinterpret_cast<nlmsghdr *>(buffer);
    header->nlmsg_len = NLMSG_LENGTH(sizeof(rtmsg));
    header->nlmsg_type = RTM_NEWROUTE;
    header->nlmsg_flags = NLM_F_REQUEST | NLM_F_CREATE | NLM_F_EXCL | NLM_F_ACK;
    header->nlmsg_seq = 1;
    rtmsg *route = static_cast<rtmsg *>(NLMSG_DATA(header));
    route->rtm_family = AF_INET;
    route->rtm_dst_len = 0;
    route->rtm_table = RT_TABLE_MAIN;
    route->rtm_protocol = RTPROT_BOOT;
    route->rtm_scope = RT_SCOPE_LINK;
    route->rtm_type = RTN_UNICAST;
    int index = static_cast<int>(if_nametoindex("lo"));
    in_addr source{};
    source.s_addr = htonl(INADDR_LOOPBACK);
    AddAttribute(header, sizeof buffer, RTA_OIF, &index, sizeof index);
    AddAttribute(header, sizeof buffer, RTA_PREFSRC, &source, sizeof source);

    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    bool ok = false;
    if (sendto(fd, buffer, header->nlmsg_len, 0, reinterpret_cast<sockaddr *>(&kernel), sizeof kernel) < 0) {
        *error = Errno("RTM_NEWROUTE");
    } else {
        alignas(nlmsghdr) char reply[1024];
        ssize_t n = recv(fd, reply, sizeof reply, 0);
        nlmsghdr *answer = reinterpret_cast<nlmsghdr *>(reply);
        if (n < 0) {
            *error = Errno("netlink answer");
        } else if (!NLMSG_OK(answer, static_cast<unsigned>(n)) || answer->nlmsg_type != NLMSG_ERROR) {
            *error = "netlink: unexpected answer to RTM_NEWROUTE";
        } else {
            int code = -static_cast<nlmsgerr *>(NLMSG_DATA(answer))->error;
            ok = code == 0 || code == EEXIST;
            if (!ok) *error = std::string("adding the default route: ") + std::strerror(code);
        }
    }
    close(fd);
    return ok;
}

// Inside a private network, loopback is the only interface, and it is up.
bool Verify(std::string *error) {
    struct if_nameindex *names = if_nameindex();
    if (names == nullptr) {
        *error = Errno("if_nameindex");
        return false;
    }
    std::string others;
    for (struct if_nameindex *i = names; i->if_index != 0; ++i)
        if (std::strcmp(i->if_name, "lo") != 0) others += std::string(others.empty() ? "" : ", ") + i->if_name;
    if_freenameindex(names);
    if (!others.empty()) {
        *error = "KVT_PRIVATE_NET=1 but this network has interfaces other than lo: " + others;
        return false;
    }
    bool up = false;
    if (!LoopbackUp(&up, error)) return false;
    if (!up) {
        *error = "KVT_PRIVATE_NET=1 but lo is down";
        return false;
    }
    return true;
}

}  // namespace

namespace kvthost {

bool EnterPrivateNetwork(std::string *error) {
    std::string ignored;
    if (error == nullptr) error = &ignored;
    const char *inside = std::getenv("KVT_PRIVATE_NET");
    if (inside != nullptr && std::strcmp(inside, "1") == 0) return Verify(error);
    if (CountThreads() > 1) {
        *error = "the private network must be entered before the process starts threads";
        return false;
    }
    uid_t uid = getuid();
    gid_t gid = getgid();
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
        *error = Errno("unshare(CLONE_NEWUSER | CLONE_NEWNET)");
        return false;
    }
    // The process is root in its own namespaces: enough to configure the
    // network, and to bind the ports below 1024 that print servers use.
    if (access("/proc/self/setgroups", F_OK) == 0 && !WriteFile("/proc/self/setgroups", "deny", error))
        return false;
    if (!WriteFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1\n", error)) return false;
    if (!WriteFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1\n", error)) return false;
    if (!BringLoopbackUp(error)) return false;
    if (!AddDefaultRoute(error)) return false;
    setenv("KVT_PRIVATE_NET", "1", 1);
    return true;
}

}  // namespace kvthost
