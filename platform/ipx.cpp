// The IPX address mapping of ipx_internal.h.
#include "ipx_internal.h"

#include <arpa/inet.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <unistd.h>

namespace kvtipx {

Place ToInet(const SOCKADDR_IPX &ipx, kvtnet::Inet *out) {
    static const unsigned char kZero[6] = {}, kAll[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    if (std::memcmp(ipx.sa_netnum, kZero, 4) != 0) return Place::OtherNetwork;
    const uint16_t socket = ntohs(ipx.sa_socket);
    if (socket >= kPortBase) return Place::NoSuchNode;
    out->port = socket == 0 ? 0 : htons(static_cast<uint16_t>(kPortBase + socket));
    if (std::memcmp(ipx.sa_nodenum, kAll, 6) == 0) {
        out->addr = htonl(INADDR_BROADCAST);
    } else if (ipx.sa_nodenum[0] == 0 && ipx.sa_nodenum[1] == 0) {
        std::memcpy(&out->addr, ipx.sa_nodenum + 2, 4);  // a.b.c.d, already in network order
    } else {
        return Place::NoSuchNode;
    }
    return Place::Here;
}

bool FromInet(const kvtnet::Inet &in, SOCKADDR_IPX *out) {
    const uint16_t port = ntohs(in.port);
    if (port < kPortBase) return false;
    std::memset(out, 0, sizeof *out);
    out->sa_family = 6;  // AF_IPX
    if (in.addr == htonl(INADDR_BROADCAST)) std::memset(out->sa_nodenum, 0xFF, 6);
    else std::memcpy(out->sa_nodenum + 2, &in.addr, 4);
    out->sa_socket = htons(static_cast<uint16_t>(port - kPortBase));
    return true;
}

int BindDynamic(int fd, kvtnet::Inet address) {
    // Each process starts at its own place in the range, so that processes
    // seldom try the same numbers; a number in use is passed over.
    static std::atomic<uint32_t> next{static_cast<uint32_t>(getpid()) * 2654435761u ^
                                      static_cast<uint32_t>(std::time(nullptr))};
    int r = -EADDRINUSE;
    for (uint32_t tries = 0; tries < kDynamicCount && r == -EADDRINUSE; ++tries) {
        address.port = htons(static_cast<uint16_t>(kPortBase + kDynamicFirst + next++ % kDynamicCount));
        r = kvtnet::Bind(fd, address);
    }
    return r;
}

}  // namespace kvtipx
