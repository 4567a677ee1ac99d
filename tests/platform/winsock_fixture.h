// Shared by the Winsock tests: Winsock started for each test, and addresses.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include <winsock2.h>

// The last error after a call that failed (SOCKET_ERROR, INVALID_SOCKET); 0
// after one that did not.
template <typename T>
int ErrorOf(T result) {
    return static_cast<long long>(result) == -1 ? WSAGetLastError() : 0;
}

class WinsockTest : public testing::Test {
protected:
    void SetUp() override {
        WSADATA data;
        ASSERT_EQ(WSAStartup(MAKEWORD(1, 1), &data), 0);
    }
    void TearDown() override { WSACleanup(); }

public:
    static SOCKADDR_IN Address(const char *ip, u_short port) {
        SOCKADDR_IN a;
        std::memset(&a, 0, sizeof a);
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        a.sin_addr.s_addr = static_cast<u_long>(inet_addr(ip));
        return a;
    }
    static SOCKET Udp(const char *ip, u_short port) {
        SOCKET s = socket(AF_INET, SOCK_DGRAM, 0);
        SOCKADDR_IN a = Address(ip, port);
        EXPECT_EQ(bind(s, reinterpret_cast<SOCKADDR *>(&a), sizeof a), 0) << WSAGetLastError();
        return s;
    }
    static int SendTo(SOCKET s, const char *ip, u_short port, const char *text) {
        SOCKADDR_IN a = Address(ip, port);
        return sendto(s, text, static_cast<int>(std::strlen(text)), 0, reinterpret_cast<SOCKADDR *>(&a),
                      sizeof a);
    }
    static int Connect(SOCKET s, const char *ip, u_short port) {
        SOCKADDR_IN a = Address(ip, port);
        return connect(s, reinterpret_cast<SOCKADDR *>(&a), sizeof a);
    }
    static void NonBlocking(SOCKET s) {
        u_long on = 1;
        ASSERT_EQ(ioctlsocket(s, FIONBIO, &on), 0);
    }
    // select on s alone in the sets named of "rwe" (read, write, exception),
    // for that many seconds (below 0: no time-out): what it returned, then
    // each set that holds s afterwards ("1 e").
    static std::string Ready(SOCKET s, const std::string &sets, LONG seconds) {
        fd_set set[3];
        fd_set *given[3] = {};
        for (int i = 0; i < 3; ++i) {
            FD_ZERO(&set[i]);
            if (sets.find("rwe"[i]) != std::string::npos) FD_SET(s, given[i] = &set[i]);
        }
        timeval wait = {seconds, 0};
        std::string result = std::to_string(select(0, given[0], given[1], given[2], seconds < 0 ? nullptr : &wait));
        for (int i = 0; i < 3; ++i)
            if (given[i] != nullptr && given[i]->fd_count != 0) result += std::string(" ") + "rwe"[i];
        return result;
    }
    static bool Readable(SOCKET s, LONG seconds) { return Ready(s, "r", seconds) == "1 r"; }
};
