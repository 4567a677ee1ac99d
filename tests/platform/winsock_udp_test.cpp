// Datagrams: the broadcast that discovery relies on, and Windows' datagram
// errors (truncation, an ICMP "port unreachable" reported by the next receive).
#include "winsock_fixture.h"

namespace {

using WinsockUdp = WinsockTest;

bool Readable(SOCKET s, LONG seconds) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(s, &set);
    timeval wait = {seconds, 0};
    return select(0, &set, nullptr, nullptr, &wait) == 1;
}

TEST_F(WinsockUdp, BroadcastReachesASocketBoundToAnyAddress) {
    SOCKET receiver = Udp("0.0.0.0", 7201);
    SOCKET sender = Udp("0.0.0.0", 7202);
    EXPECT_EQ(SendTo(sender, "255.255.255.255", 7201, "who"), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEACCES) << "broadcast needs SO_BROADCAST";
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
    EXPECT_EQ(recv(s, buffer, sizeof buffer, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEMSGSIZE);
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
    EXPECT_EQ(recvfrom(s, buffer, sizeof buffer, 0, reinterpret_cast<SOCKADDR *>(&from), &fromLength),
              SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAECONNRESET);
    EXPECT_FALSE(Readable(s, 0)) << "reported once";
}

TEST_F(WinsockUdp, ReceiveOnAnUnboundSocketIsInvalid) {
    SOCKET s = socket(AF_INET, SOCK_DGRAM, 0);
    char buffer[8];
    EXPECT_EQ(recv(s, buffer, sizeof buffer, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEINVAL);
    EXPECT_EQ(SendTo(s, "0.0.0.0", 7231, "x"), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEADDRNOTAVAIL);
}

}  // namespace
