// The private network that every test program enters before its tests.
#include <cstdlib>
#include <string>

#include "kvthost.h"
#include "posix_peer.h"
#include "winsock_fixture.h"

namespace {

using PrivateNetwork = WinsockTest;

TEST_F(PrivateNetwork, LoopbackOnlyAndEnteringAgainIsHarmless) {
    EXPECT_EQ(peer::Interfaces(), "lo");
    ASSERT_NE(std::getenv("KVT_PRIVATE_NET"), nullptr);
    EXPECT_STREQ(std::getenv("KVT_PRIVATE_NET"), "1");
    std::string error;
    EXPECT_TRUE(kvthost::EnterPrivateNetwork(&error)) << error;
    EXPECT_EQ(peer::Interfaces(), "lo");
}

TEST_F(PrivateNetwork, EveryLoopbackAddressServesAndPrivilegedPortsBind) {
    for (const char *ip : {"127.0.0.2", "127.0.0.3", "127.0.0.200"}) {
        int listener = peer::Listen(ip, 515);
        ASSERT_GE(listener, 0) << ip;
        SOCKET s = socket(AF_INET, SOCK_STREAM, 0);
        EXPECT_EQ(Connect(s, ip, 515), 0) << ip << ": " << WSAGetLastError();
        int conn = peer::Accept(listener, 5000);
        EXPECT_GE(conn, 0);
        closesocket(s);
        peer::Close(conn);
        peer::Close(listener);
    }
}

}  // namespace
