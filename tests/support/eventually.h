// A wait for what another thread or process has still to do: what the monitor
// sent may be on its way, a job may still be printing.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace kvttest {

// Whether done() comes true within the seconds given, asked every 10 ms.  Only
// a test that fails waits that long.
inline bool Eventually(const std::function<bool()> &done, int seconds = 60) {
    for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
         std::chrono::steady_clock::now() < end; std::this_thread::sleep_for(std::chrono::milliseconds(10)))
        if (done()) return true;
    return done();
}

}  // namespace kvttest
