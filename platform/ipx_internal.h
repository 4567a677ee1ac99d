// IPX over UDP, for the platform's Winsock (winsock.cpp): Linux has no IPX
// stack, so an IPX datagram socket is a UDP socket and its addresses map to
// Internet addresses.  Node 00-00-a-b-c-d is the host with IPv4 address
// a.b.c.d (the numbering RFC 1234 gives hosts that carry IPX over IP), node
// FF-FF-FF-FF-FF-FF is the broadcast 255.255.255.255, network 0 is the local
// network, and IPX socket number s is UDP port 0x8000 + s.
#pragma once

#include <cstdint>

#include <wsipx.h>

#include "posix_net.h"

namespace kvtipx {

constexpr uint16_t kPortBase = 0x8000;
// The dynamic IPX sockets, 0x4000 to 0x7FFF, are UDP ports 0xC000 to 0xFFFF.
constexpr uint16_t kDynamicFirst = 0x4000;
constexpr uint16_t kDynamicCount = 0x4000;

enum class Place {
    Here,          // *out is the address on the UDP that carries IPX
    OtherNetwork,  // a network number other than 0: no router leads there
    NoSuchNode,    // a node or socket number that no host of the mapping has
};

// Socket number 0 maps to port 0 (any); node 0 to address 0 (any).
Place ToInet(const SOCKADDR_IPX &ipx, kvtnet::Inet *out);

// The IPX address of a UDP sender; false when it is no IPX socket (a port
// below 0x8000), whose datagram an IPX socket never receives.
bool FromInet(const kvtnet::Inet &in, SOCKADDR_IPX *out);

// Binds fd to a free dynamic socket number on address.addr; minus errno.
int BindDynamic(int fd, kvtnet::Inet address);

}  // namespace kvtipx
