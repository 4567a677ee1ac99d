// KVT_TIMESCALE: every platform wait is scaled, and GetTickCount counts the
// scaled milliseconds, so that the monitor's arithmetic on it holds.  Bounds
// are wide: only what an unscaled wait could not meet is checked.
#include <chrono>
#include <cstdlib>
#include <functional>
#include <unistd.h>

#include "kvthost.h"
#include "winsock_fixture.h"

namespace {

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

}  // namespace
