// Connections as the monitor makes them: non-blocking connects watched with
// select, and the errors Windows gives on the way.
#include <thread>

#include "posix_peer.h"
#include "winsock_fixture.h"

namespace {

using WinsockTcp = WinsockTest;

TEST_F(WinsockTcp, RefusedNonBlockingConnectEndsInTheExceptionSet) {
    SOCKET s = socket(AF_INET, SOCK_STREAM, 0);
    NonBlocking(s);
    ASSERT_EQ(ErrorOf(Connect(s, "127.0.0.2", 9)), WSAEWOULDBLOCK);
    EXPECT_EQ(Ready(s, "we", 10), "1 e");
    int error = 0, length = sizeof error;
    ASSERT_EQ(getsockopt(s, SOL_SOCKET, SO_ERROR, reinterpret_cast<char *>(&error), &length), 0);
    EXPECT_EQ(error, WSAECONNREFUSED);
    ASSERT_EQ(getsockopt(s, SOL_SOCKET, SO_ERROR, reinterpret_cast<char *>(&error), &length), 0);
    EXPECT_EQ(error, 0) << "reading SO_ERROR clears it";
    EXPECT_EQ(ErrorOf(send(s, "x", 1, 0)), WSAENOTCONN);

    // A failed attempt may be followed by another on the same socket.
    ASSERT_EQ(ErrorOf(Connect(s, "127.0.0.2", 9)), WSAEWOULDBLOCK);
    EXPECT_EQ(Ready(s, "e", 10), "1 e");
    closesocket(s);
}

TEST_F(WinsockTcp, AcceptedNonBlockingConnectEndsInTheWriteSet) {
    int listener = peer::Listen("127.0.0.3", 515);
    ASSERT_GE(listener, 0);
    SOCKET s = socket(AF_INET, SOCK_STREAM, 0);
    SOCKADDR_IN from = Address("127.0.0.5", 0);
    ASSERT_EQ(bind(s, reinterpret_cast<SOCKADDR *>(&from), sizeof from), 0);
    NonBlocking(s);
    ASSERT_EQ(ErrorOf(Connect(s, "127.0.0.3", 515)), WSAEWOULDBLOCK);
    EXPECT_EQ(Ready(s, "we", 10), "1 w");
    EXPECT_EQ(ErrorOf(Connect(s, "127.0.0.3", 515)), WSAEISCONN);

    std::string client;
    int conn = peer::Accept(listener, 5000, &client);
    ASSERT_GE(conn, 0);
    EXPECT_EQ(client, "127.0.0.5");
    EXPECT_EQ(send(s, "\002lp\n", 4, 0), 4);
    char got[8] = {};
    EXPECT_EQ(peer::Receive(conn, got, sizeof got, 5000), 4);
    EXPECT_STREQ(got, "\002lp\n");

    // Nothing to read yet: a non-blocking recv would block.
    char buffer[16];
    EXPECT_EQ(ErrorOf(recv(s, buffer, sizeof buffer, 0)), WSAEWOULDBLOCK);
    peer::Send(conn, "\0", 1);
    EXPECT_TRUE(Readable(s, 10));
    u_long pending = 0;
    EXPECT_EQ(ioctlsocket(s, FIONREAD, &pending), 0);
    EXPECT_EQ(pending, 1u);

    // The peer's orderly close reads as 0.
    peer::Close(conn);
    EXPECT_EQ(recv(s, buffer, sizeof buffer, 0), 1);
    EXPECT_TRUE(Readable(s, 10));
    EXPECT_EQ(recv(s, buffer, sizeof buffer, 0), 0);
    closesocket(s);
    peer::Close(listener);
}

TEST_F(WinsockTcp, BlockingConnectRefusedAndBadDestinations) {
    SOCKET s = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(ErrorOf(Connect(s, "127.0.0.2", 9)), WSAECONNREFUSED);
    EXPECT_EQ(ErrorOf(Connect(s, "0.0.0.0", 515)), WSAEADDRNOTAVAIL);
    SOCKADDR_IN a = Address("127.0.0.2", 9);
    EXPECT_EQ(ErrorOf(connect(s, reinterpret_cast<SOCKADDR *>(&a), 8)), WSAEFAULT);
    closesocket(s);
}

// s connected to a listener of the far end at ip:515: the far end's socket, -1 when none.
int Connected(SOCKET s, const char *ip) {
    int listener = peer::Listen(ip, 515);
    EXPECT_EQ(WinsockTest::Connect(s, ip, 515), 0) << WSAGetLastError();
    int conn = peer::Accept(listener, 5000);
    peer::Close(listener);
    return conn;
}

TEST_F(WinsockTcp, ResetConnectionKeepsReportingTheReset) {
    SOCKET s = socket(AF_INET, SOCK_STREAM, 0);
    int conn = Connected(s, "127.0.0.2");
    ASSERT_GE(conn, 0);
    peer::Abort(conn);
    char buffer[4];
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(ErrorOf(recv(s, buffer, sizeof buffer, 0)), WSAECONNRESET);
    }
    EXPECT_EQ(ErrorOf(send(s, "x", 1, 0)), WSAECONNRESET) << "and never raises SIGPIPE";
    closesocket(s);
}

TEST_F(WinsockTcp, SendToAPeerThatDoesNotReadWouldBlock) {
    SOCKET s = socket(AF_INET, SOCK_STREAM, 0);
    int small = 4096;
    ASSERT_EQ(setsockopt(s, SOL_SOCKET, SO_SNDBUF, reinterpret_cast<char *>(&small), sizeof small), 0);
    int conn = Connected(s, "127.0.0.2");
    ASSERT_GE(conn, 0);
    NonBlocking(s);
    static char chunk[65536];
    int result = 0, sends = 0;
    while (sends < 10000 && (result = send(s, chunk, sizeof chunk, 0)) > 0) ++sends;
    EXPECT_EQ(ErrorOf(result), WSAEWOULDBLOCK);
    EXPECT_EQ(Ready(s, "w", 0), "0");
    closesocket(s);
    peer::Close(conn);
}

TEST_F(WinsockTcp, ClosingASocketEndsAReceiveBlockedInAnotherThread) {
    SOCKET s = Udp("127.0.0.1", 7001);
    int result = 0, error = 0;
    std::thread reader([&] {
        char buffer[8];
        result = recv(s, buffer, sizeof buffer, 0);
        error = WSAGetLastError();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(closesocket(s), 0);
    reader.join();
    EXPECT_EQ(result, SOCKET_ERROR);
    EXPECT_EQ(error, WSAEINTR);
    EXPECT_EQ(ErrorOf(closesocket(s)), WSAENOTSOCK);
}

}  // namespace
