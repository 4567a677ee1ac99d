// Shared by the Winsock tests: Winsock started for each test, and addresses.
#pragma once

#include <gtest/gtest.h>

#include <cstring>

#include <winsock2.h>

class WinsockTest : public testing::Test {
protected:
    void SetUp() override {
        WSADATA data;
        ASSERT_EQ(WSAStartup(MAKEWORD(1, 1), &data), 0);
    }
    void TearDown() override { WSACleanup(); }

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
};
