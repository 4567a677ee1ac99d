// An emulated print server as the tests start one, and the wait for what it
// receives.
#pragma once

#include <cstdint>
#include <string>

#include "eventually.h"
#include "kvtps.h"

namespace kvttest {

// A print server of the emulator: PS1 at 127.0.0.2, LPR on port 515, unless told otherwise.
inline kvtps::ServerConfig Server(const std::string &name = "PS1", const std::string &address = "127.0.0.2",
                                  uint16_t lprPort = 515) {
    kvtps::ServerConfig config;
    config.name = name;
    config.address = address;
    config.lprPort = lprPort;
    return config;
}

}  // namespace kvttest
