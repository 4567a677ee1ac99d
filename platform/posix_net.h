// The POSIX side of the platform's Winsock (winsock.cpp).  Plain types only:
// this header includes neither the Windows headers nor the system's socket
// headers, so both halves can include it.
//
// Functions that can fail return a value >= 0 on success, or minus the
// system's errno, which winsock.cpp turns into a Winsock number.  IPv4
// addresses and ports are in network byte order, as they sit in a sockaddr_in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kvtnet {

struct Inet {
    uint32_t addr = 0;
    uint16_t port = 0;
};

enum class Option { ReuseAddr, Broadcast, SndBuf, RcvBuf, Error, TcpNoDelay };

// Message flags, by meaning.
constexpr unsigned kMsgOob = 1, kMsgPeek = 2, kMsgDontRoute = 4, kMsgWaitAll = 8;

// A TCP (stream) or UDP socket, close-on-exec.  With reportUnreachable an
// ICMP error on a UDP socket is reported by its next receive, as Windows does
// for UDP; without it (the sockets that carry IPX) it is never reported.
int OpenInet(bool stream, int protocol, bool reportUnreachable = true);
// Wakes the calls blocked on fd in other threads, then closes it.
int Close(int fd);
int SetNonBlocking(int fd, bool on);
int BytesReadable(int fd);
int SetOption(int fd, Option option, int value);
int GetOption(int fd, Option option, int *value);  // Error: the pending errno, cleared
int Bind(int fd, const Inet &address);
int Connect(int fd, const Inet &address);
// Ends a failed connection attempt so that the socket can connect again.
int Disconnect(int fd);
// Never raises SIGPIPE.
long Send(int fd, const void *data, size_t length, unsigned flags);
long SendTo(int fd, const void *data, size_t length, unsigned flags, const Inet &to);
// *truncated: a datagram was longer than length (the rest is lost).  *hasFrom:
// the sender is known (datagram sockets).  An ICMP error on a datagram socket
// comes back as its errno, with the socket's error queue drained.
long Receive(int fd, void *buffer, size_t length, unsigned flags, bool datagram, Inet *from,
             bool *hasFrom, bool *truncated);

constexpr unsigned kPollIn = 1, kPollOut = 2, kPollPri = 4, kPollErr = 8, kPollHup = 16, kPollNval = 32;
struct PollItem {
    int fd;
    unsigned events;
    unsigned revents;
};
// timeoutNs < 0 waits for ever.  Returns the number of items with events.
int Poll(PollItem *items, size_t count, int64_t timeoutNs);

// The system's host name.
int SystemHostName(std::string *name);
// The IPv4 addresses of the interfaces that are up, loopback excepted.
std::vector<uint32_t> InterfaceAddresses();

enum class Lookup { Ok, NotFound, TryAgain, NoRecovery, NoData };
// An IPv4 name lookup through the system's resolver.
Lookup Resolve(const std::string &name, std::string *canonicalName, std::vector<uint32_t> *addresses);

}  // namespace kvtnet
