// The private network that every test program enters before its tests, the
// time scale of the platform's waits, and Winsock's start-up, its fd_set, its
// error numbers and names.
#include <windows.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <thread>

#include <unistd.h>

#include "kvthost.h"
#include "posix_peer.h"
#include "winsock_fixture.h"

namespace {

TEST(PrivateNetwork, LoopbackOnlyAndEnteringAgainIsHarmless) {
    EXPECT_EQ(peer::Interfaces(), "lo");
    ASSERT_NE(std::getenv("KVT_PRIVATE_NET"), nullptr);
    EXPECT_STREQ(std::getenv("KVT_PRIVATE_NET"), "1");
    std::string error;
    EXPECT_TRUE(kvthost::EnterPrivateNetwork(&error)) << error;
    EXPECT_EQ(peer::Interfaces(), "lo");
}

// ---- KVT_TIMESCALE ------------------------------------------------------------------
// Every platform wait is scaled, and GetTickCount counts the scaled
// milliseconds, so that the monitor's arithmetic on it holds.  Bounds are
// wide: only what an unscaled wait could not meet is checked.

using Clock = std::chrono::steady_clock;

long long RealMsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

class ScaledTime : public WinsockTest {
protected:
    void TearDown() override {
        kvthost::SetTimeScale(1.0);
        WinsockTest::TearDown();
    }
};

// At a scale of 0.01 a wait of 3 s (Sleep) or 5 s (a select's time-out) takes
// a hundredth of it, and the tick count counts it whole.
TEST_F(ScaledTime, WaitsAreScaledAndTheTickCountCountsThemWhole) {
    SOCKET s = Udp("127.0.0.1", 7301);
    const struct {
        const char *what;
        DWORD ms;
        std::function<void()> wait;
    } waits[] = {{"Sleep", 3000, [] { Sleep(3000); }},
                 {"select", 5000, [s] { EXPECT_EQ(Ready(s, "r", 5), "0"); }}};
    for (const auto &w : waits) {
        kvthost::SetTimeScale(0.01);
        Clock::time_point start = Clock::now();
        DWORD before = GetTickCount();
        w.wait();
        DWORD ticks = GetTickCount() - before;
        long long real = RealMsSince(start);
        EXPECT_GE(real, w.ms / 100 - 1) << w.what;
        EXPECT_LT(real, w.ms * 2 / 3) << w.what << " was not scaled";
        EXPECT_GE(ticks, w.ms - 1) << w.what;
        EXPECT_LT(ticks, w.ms * 200 / 3) << w.what;
    }
    kvthost::SetTimeScale(1.0);
    Clock::time_point start = Clock::now();
    Sleep(100);
    EXPECT_GE(RealMsSince(start), 100);
}

TEST_F(ScaledTime, ChangingTheScaleNeverMovesTheCountBack) {
    DWORD t0 = GetTickCount();
    kvthost::SetTimeScale(0.001);
    DWORD t1 = GetTickCount();
    kvthost::SetTimeScale(1000.0);
    DWORD t2 = GetTickCount();
    kvthost::SetTimeScale(1.0);
    DWORD t3 = GetTickCount();
    EXPECT_LT(t1 - t0, 5000u);
    EXPECT_LT(t2 - t1, 5000u);
    EXPECT_LT(t3 - t2, 5000u);
    kvthost::SetTimeScale(-1.0);
    EXPECT_EQ(kvthost::TimeScale(), 1.0) << "an invalid scale is 1";
}

// The environment is read once per process: each case runs in a fresh one.
TEST(ScaledTimeDeathTest, EnvironmentGivesTheScale) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::pair<const char *, double> cases[] = {
        {"0.01", 0.01}, {"2.5", 2.5}, {"0", 1.0}, {"-0.5", 1.0}, {"fast", 1.0}, {"0.5x", 1.0}, {"", 1.0}};
    for (const auto &c : cases) {
        setenv("KVT_TIMESCALE", c.first, 1);
        EXPECT_EXIT(_exit(kvthost::TimeScale() == c.second ? 0 : 1), testing::ExitedWithCode(0), "")
            << "KVT_TIMESCALE=" << c.first;
    }
    unsetenv("KVT_TIMESCALE");
}

// ---- Winsock ----------------------------------------------------------------------

TEST(WinsockStartup, CallsBeforeStartupFailAndCleanupClosesSockets) {
    EXPECT_EQ(ErrorOf(socket(AF_INET, SOCK_STREAM, 0)), WSANOTINITIALISED);
    char name[64];
    EXPECT_EQ(ErrorOf(gethostname(name, sizeof name)), WSANOTINITIALISED);
    EXPECT_EQ(gethostbyname("localhost"), nullptr);
    EXPECT_EQ(ErrorOf(WSACleanup()), WSANOTINITIALISED);

    WSADATA data;
    ASSERT_EQ(WSAStartup(0x0101, &data), 0);
    EXPECT_EQ(data.wVersion, 0x0101);
    EXPECT_EQ(data.wHighVersion, 0x0202);
    SOCKET s = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_NE(s, INVALID_SOCKET);
    EXPECT_EQ(s % 4, 0u);
    ASSERT_EQ(WSACleanup(), 0);

    ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
    EXPECT_EQ(data.wVersion, 0x0202);
    EXPECT_EQ(ErrorOf(closesocket(s)), WSAENOTSOCK) << "the last cleanup closed it";
    EXPECT_EQ(ErrorOf(socket(AF_IPX, SOCK_STREAM, 0x3e8)), WSAESOCKTNOSUPPORT) << "no SPX";
    EXPECT_EQ(ErrorOf(socket(AF_IPX, SOCK_DGRAM, 0)), WSAEPROTONOSUPPORT);
    EXPECT_EQ(WSACleanup(), 0);
}

TEST(WinsockFdSet, AddsOnceUpToSixtyFourAndClearsInOrder) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(0x104, &set);
    FD_SET(0x104, &set);
    EXPECT_EQ(set.fd_count, 1u);
    for (SOCKET s = 0x200; s < 0x200 + 100; ++s) FD_SET(s, &set);
    EXPECT_EQ(set.fd_count, static_cast<u_int>(FD_SETSIZE));
    EXPECT_TRUE(FD_ISSET(0x200 + 62, &set));
    EXPECT_FALSE(FD_ISSET(0x200 + 63, &set));
    FD_CLR(0x104, &set);
    EXPECT_EQ(set.fd_count, 63u);
    EXPECT_EQ(set.fd_array[0], 0x200u);
    EXPECT_EQ(set.fd_array[62], 0x200u + 62);
}

using WinsockSelect = WinsockTest;

TEST_F(WinsockSelect, CountsReadySocketsAcrossSetsAndKeepsOnlyThem) {
    SOCKET a = Udp("127.0.0.1", 7101), b = Udp("127.0.0.1", 7102), c = Udp("127.0.0.1", 7103);
    ASSERT_EQ(SendTo(a, "127.0.0.1", 7102, "to b"), 4);
    ASSERT_EQ(SendTo(a, "127.0.0.1", 7101, "to a"), 4);
    fd_set readable, writable;
    FD_ZERO(&readable);
    FD_ZERO(&writable);
    FD_SET(c, &readable);
    FD_SET(b, &readable);
    FD_SET(a, &readable);
    FD_SET(a, &writable);
    timeval wait = {5, 0};
    EXPECT_EQ(select(99, &readable, &writable, nullptr, &wait), 3);
    ASSERT_EQ(readable.fd_count, 2u);
    EXPECT_EQ(readable.fd_array[0], b);
    EXPECT_EQ(readable.fd_array[1], a);
    EXPECT_TRUE(FD_ISSET(a, &writable));

    EXPECT_EQ(Ready(c, "r", 0), "0") << "{0, 0} polls";
    // Nothing to wait for, or something that is not a socket: errors.
    FD_ZERO(&readable);
    timeval now = {0, 0};
    EXPECT_EQ(ErrorOf(select(0, &readable, nullptr, nullptr, &now)), WSAEINVAL);
    FD_SET(0x12345, &readable);
    EXPECT_EQ(ErrorOf(select(0, &readable, nullptr, nullptr, &now)), WSAENOTSOCK);
}

TEST_F(WinsockSelect, NoTimeoutWaitsForTheSocket) {
    SOCKET a = Udp("127.0.0.1", 7111);
    std::thread writer([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        SOCKET w = socket(AF_INET, SOCK_DGRAM, 0);
        SendTo(w, "127.0.0.1", 7111, "late");
        closesocket(w);
    });
    EXPECT_EQ(Ready(a, "r", -1), "1 r");
    writer.join();
}

using WinsockNames = WinsockTest;

TEST_F(WinsockNames, OwnNameResolvesWithoutLookup) {
    kvthost::SetComputerName("PrintHost.Example.Test");
    char name[64];
    ASSERT_EQ(gethostname(name, sizeof name), 0);
    EXPECT_STREQ(name, "PrintHost.Example.Test");
    EXPECT_EQ(ErrorOf(gethostname(name, 22)), WSAEFAULT) << "no room for the terminating zero";

    for (const char *asked : {"printhost", "PRINTHOST.example.test", "localhost"}) {
        hostent *h = gethostbyname(asked);
        ASSERT_NE(h, nullptr) << asked;
        EXPECT_EQ(h->h_addrtype, AF_INET);
        EXPECT_EQ(h->h_length, 4);
        in_addr first;
        std::memcpy(&first, h->h_addr, 4);
        EXPECT_STREQ(inet_ntoa(first), "127.0.0.1") << asked << ": loopback is all the private network has";
        EXPECT_EQ(h->h_addr_list[1], nullptr);
    }
    EXPECT_STREQ(gethostbyname("printhost")->h_name, "PrintHost.Example.Test");
    hostent *h = gethostbyname("10.1.2.3");
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(*reinterpret_cast<u_long *>(h->h_addr), static_cast<u_long>(inet_addr("10.1.2.3")));

    kvthost::SetComputerName("");
    ASSERT_EQ(gethostname(name, sizeof name), 0);
    EXPECT_EQ(std::string(name), peer::SystemHostName());
}

}  // namespace
