// Sleep, GetTickCount and the time scale.  One clock: CLOCK_MONOTONIC, read
// through KVT_TIMESCALE, so that the monitor's own waits and its arithmetic on
// GetTickCount agree with each other at any scale.
#include <windows.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <mutex>
#include <sched.h>
#include <time.h>

#include "clock_internal.h"
#include "kvthost.h"

namespace {

double ScaleFromEnvironment() {
    const char *text = std::getenv("KVT_TIMESCALE");
    if (text == nullptr || *text == '\0') return 1.0;
    char *end = nullptr;
    errno = 0;
    double value = std::strtod(text, &end);
    if (errno != 0 || end == text || *end != '\0' || !std::isfinite(value) || value <= 0.0)
        return 1.0;
    return value;
}

// GetTickCount runs from an anchor: monitor time anchorMonitorMs at real time
// anchorRealNs, advancing by real elapsed / scale.  A change of scale moves the
// anchor to the present, so the count never jumps.
struct Clock {
    std::mutex lock;
    double scale;
    int64_t anchorRealNs;
    double anchorMonitorMs;

    Clock() : scale(ScaleFromEnvironment()) {
        anchorRealNs = KvtRealNowNs();
        // Like Windows' count since boot: start from the system's uptime.
        anchorMonitorMs = static_cast<double>(anchorRealNs / 1000000);
    }

    double MonitorMsLocked(int64_t realNs) const {
        return anchorMonitorMs + static_cast<double>(realNs - anchorRealNs) / 1e6 / scale;
    }
};

Clock &TheClock() {
    static Clock clock;
    return clock;
}

}  // namespace

int64_t KvtRealNowNs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

int64_t KvtScaledWaitNs(int64_t monitorNs) {
    if (monitorNs <= 0) return 0;
    double real = std::ceil(static_cast<double>(monitorNs) * kvthost::TimeScale());
    if (real >= 9.0e18) return INT64_MAX;
    return real < 1.0 ? 1 : static_cast<int64_t>(real);
}

int64_t KvtScaledWaitMs(int64_t monitorMs) {
    if (monitorMs <= 0) return 0;
    double real = std::ceil(static_cast<double>(monitorMs) * kvthost::TimeScale());
    if (real >= 9.0e18) return INT64_MAX;
    return real < 1.0 ? 1 : static_cast<int64_t>(real);
}

uint64_t KvtMonitorNowMs() {
    Clock &clock = TheClock();
    std::lock_guard<std::mutex> guard(clock.lock);
    return static_cast<uint64_t>(clock.MonitorMsLocked(KvtRealNowNs()));
}

namespace kvthost {

double TimeScale() {
    Clock &clock = TheClock();
    std::lock_guard<std::mutex> guard(clock.lock);
    return clock.scale;
}

void SetTimeScale(double scale) {
    if (!std::isfinite(scale) || scale <= 0.0) scale = 1.0;
    Clock &clock = TheClock();
    std::lock_guard<std::mutex> guard(clock.lock);
    int64_t now = KvtRealNowNs();
    clock.anchorMonitorMs = clock.MonitorMsLocked(now);
    clock.anchorRealNs = now;
    clock.scale = scale;
}

}  // namespace kvthost

extern "C" {

void WINAPI Sleep(DWORD dwMilliseconds) {
    if (dwMilliseconds == 0) {
        sched_yield();
        return;
    }
    if (dwMilliseconds == INFINITE) {
        for (;;) {
            timespec forever{3600, 0};
            nanosleep(&forever, nullptr);
        }
    }
    int64_t ns = KvtScaledWaitNs(static_cast<int64_t>(dwMilliseconds) * 1000000);
    timespec wait{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
    timespec rest{};
    while (nanosleep(&wait, &rest) != 0 && errno == EINTR) wait = rest;
}

DWORD WINAPI GetTickCount(void) {
    return static_cast<DWORD>(KvtMonitorNowMs());
}

}  // extern "C"
