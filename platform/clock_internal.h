// The platform clock, for the platform's own files (timers, select, NetBIOS):
// real time from CLOCK_MONOTONIC, and the scaling of every wait by
// KVT_TIMESCALE (kvthost::TimeScale).  The monitor sees only Sleep and
// GetTickCount, whose milliseconds are the scaled ones.
#pragma once

#include <cstdint>

// Real monotonic time in nanoseconds.
int64_t KvtRealNowNs();

// The real time a wait of monitorMs milliseconds of the monitor's time takes:
// in milliseconds rounded up (a wait that is not zero never becomes zero), and
// in nanoseconds.  Negative waits count as zero.
int64_t KvtScaledWaitMs(int64_t monitorMs);
int64_t KvtScaledWaitNs(int64_t monitorNs);

// The monitor's clock in milliseconds, without GetTickCount's 32-bit wrap.
uint64_t KvtMonitorNowMs();
