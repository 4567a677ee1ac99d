// Datagrams: the broadcast that discovery relies on, Windows' datagram errors
// (truncation, an ICMP "port unreachable" reported by the next receive), and
// IPX datagrams over UDP.
#include <wsipx.h>

#include "winsock_fixture.h"

namespace {

using WinsockUdp = WinsockTest;

TEST_F(WinsockUdp, BroadcastReachesASocketBoundToAnyAddress) {
    SOCKET receiver = Udp("0.0.0.0", 7201);
    SOCKET sender = Udp("0.0.0.0", 7202);
    EXPECT_EQ(ErrorOf(SendTo(sender, "255.255.255.255", 7201, "who")), WSAEACCES)
        << "broadcast needs SO_BROADCAST";
    BOOL on = TRUE;
    ASSERT_EQ(setsockopt(sender, SOL_SOCKET, SO_BROADCAST, reinterpret_cast<char *>(&on), sizeof on), 0);
    ASSERT_EQ(SendTo(sender, "255.255.255.255", 7201, "who"), 3);

    ASSERT_TRUE(Readable(receiver, 5));
    char buffer[16] = {};
    SOCKADDR_IN from;
    int fromLength = sizeof from;
    ASSERT_EQ(recvfrom(receiver, buffer, sizeof buffer, 0, reinterpret_cast<SOCKADDR *>(&from), &fromLength), 3);
    EXPECT_STREQ(buffer, "who");
    EXPECT_EQ(fromLength, static_cast<int>(sizeof from));
    EXPECT_EQ(from.sin_family, AF_INET);
    EXPECT_EQ(ntohs(from.sin_port), 7202);
    EXPECT_STREQ(inet_ntoa(from.sin_addr), "127.0.0.1");
}

TEST_F(WinsockUdp, LongDatagramIsTruncatedWithAnError) {
    SOCKET s = Udp("127.0.0.2", 7211);
    ASSERT_EQ(SendTo(s, "127.0.0.2", 7211, "0123456789abcdef"), 16);
    ASSERT_TRUE(Readable(s, 5));
    char buffer[8];
    EXPECT_EQ(ErrorOf(recv(s, buffer, sizeof buffer, 0)), WSAEMSGSIZE);
    EXPECT_EQ(std::string(buffer, 8), "01234567");
    EXPECT_FALSE(Readable(s, 0)) << "the rest of the datagram is gone";
}

TEST_F(WinsockUdp, DatagramToAClosedPortFailsTheNextReceive) {
    SOCKET s = Udp("127.0.0.1", 7221);
    ASSERT_EQ(SendTo(s, "127.0.0.4", 7222, "anyone"), 6);
    ASSERT_TRUE(Readable(s, 5));
    char buffer[8];
    SOCKADDR_IN from;
    int fromLength = sizeof from;
    EXPECT_EQ(ErrorOf(recvfrom(s, buffer, sizeof buffer, 0, reinterpret_cast<SOCKADDR *>(&from), &fromLength)),
              WSAECONNRESET);
    EXPECT_FALSE(Readable(s, 0)) << "reported once";
}

TEST_F(WinsockUdp, ReceiveOnAnUnboundSocketIsInvalid) {
    SOCKET s = socket(AF_INET, SOCK_DGRAM, 0);
    char buffer[8];
    EXPECT_EQ(ErrorOf(recv(s, buffer, sizeof buffer, 0)), WSAEINVAL);
    EXPECT_EQ(ErrorOf(SendTo(s, "0.0.0.0", 7231, "x")), WSAEADDRNOTAVAIL);
}

// ---- IPX ------------------------------------------------------------------------

using WinsockIpx = WinsockTest;

SOCKADDR_IPX Ipx(const char *node, u_short socketNumber, char network = 0) {
    SOCKADDR_IPX a{AF_IPX, {0, 0, 0, network}, {}, htons(socketNumber)};
    std::memcpy(a.sa_nodenum, node, 6);
    return a;
}
const char kPs1[] = "\0\0\x7f\0\0\x02", kAnyNode[] = "\0\0\0\0\0\0", kForeign[] = "\0\x40\x26\0\0\x0a";

SOCKET IpxSocket(const char *node, u_short socketNumber) {
    SOCKET s = socket(AF_IPX, SOCK_DGRAM, NSPROTO_IPX);
    SOCKADDR_IPX a = Ipx(node, socketNumber);
    EXPECT_EQ(bind(s, reinterpret_cast<SOCKADDR *>(&a), sizeof a), 0) << WSAGetLastError();
    return s;
}

int IpxSend(SOCKET s, const SOCKADDR_IPX &to, const char *text) {
    return sendto(s, text, static_cast<int>(std::strlen(text)), 0, reinterpret_cast<const SOCKADDR *>(&to), 14);
}

// The datagram, or "error N"; the sender in *from.
std::string IpxReceive(SOCKET s, SOCKADDR_IPX *from, int room = 64) {
    std::string buffer(static_cast<size_t>(room), '\0');
    int fromLength = sizeof *from;
    if (!WinsockTest::Readable(s, 5)) return "";
    int n = recvfrom(s, buffer.data(), room, 0, reinterpret_cast<SOCKADDR *>(from), &fromLength);
    return n < 0 ? "error " + std::to_string(WSAGetLastError()) : buffer.substr(0, static_cast<size_t>(n));
}

TEST_F(WinsockIpx, NodesAreHostsSocketsArePortsAboveHex8000AndNothingElseArrives) {
    SOCKET server = IpxSocket(kPs1, 0x3434), listener = IpxSocket(kAnyNode, 0x3535);
    SOCKET client = IpxSocket(kAnyNode, 0);  // a dynamic socket number
    EXPECT_EQ(ErrorOf(IpxSend(client, Ipx("\xff\xff\xff\xff\xff\xff", 0x3535), "who")), WSAEACCES)
        << "broadcast needs SO_BROADCAST";
    BOOL on = TRUE;
    ASSERT_EQ(setsockopt(client, SOL_SOCKET, SO_BROADCAST, reinterpret_cast<char *>(&on), sizeof on), 0);
    ASSERT_EQ(IpxSend(client, Ipx("\xff\xff\xff\xff\xff\xff", 0x3535), "who"), 3);
    SOCKADDR_IPX from;
    EXPECT_EQ(IpxReceive(listener, &from), "who");
    ASSERT_EQ(IpxSend(client, Ipx(kPs1, 0x3434), "frame"), 5);
    ASSERT_EQ(IpxReceive(server, &from), "frame");
    EXPECT_EQ(std::string(reinterpret_cast<char *>(&from), 12),
              std::string("\x06\0\0\0\0\0\0\0\x7f\0\0\x01", 12));
    EXPECT_GE(ntohs(from.sa_socket), 0x4000);
    ASSERT_EQ(IpxSend(server, from, "a reply too long"), 16);
    EXPECT_EQ(IpxReceive(client, &from, 8), "error " + std::to_string(WSAEMSGSIZE));
    EXPECT_EQ(std::string(from.sa_nodenum, 6) + char(ntohs(from.sa_socket) >> 8), std::string(kPs1, 6) + '\x34');

    // No report of an unreachable socket (IPX has none), nothing from UDP
    // ports that are no IPX socket, and a node outside the mapping is nobody.
    ASSERT_EQ(IpxSend(client, Ipx(kPs1, 0x3999), "nobody"), 6);
    ASSERT_EQ(SendTo(Udp("127.0.0.1", 7301), "127.0.0.2", 0xB434, "udp"), 3);
    EXPECT_FALSE(Readable(client, 0));
    NonBlocking(server);
    EXPECT_EQ(IpxReceive(server, &from, 8), "error " + std::to_string(WSAEWOULDBLOCK));
    EXPECT_EQ(IpxSend(client, Ipx(kForeign, 0x3131), "lost"), 4);
    EXPECT_EQ(ErrorOf(IpxSend(client, Ipx(kPs1, 0x3131, 1), "far")), WSAENETUNREACH);
    SOCKADDR_IPX foreign = Ipx(kForeign, 0x3232);
    SOCKET other = socket(AF_IPX, SOCK_DGRAM, NSPROTO_IPX);
    EXPECT_EQ(ErrorOf(bind(other, reinterpret_cast<SOCKADDR *>(&foreign), 14)), WSAEADDRNOTAVAIL);
}

}  // namespace
