// What every carrier of the emulator does with its list of devices.
#pragma once

#include <string>

namespace kvtps::detail {

// The device of the server with that name, or nullptr.
template <typename List>
auto FindDevice(List &devices, const std::string &server) -> decltype(&*devices.begin()) {
    for (auto &d : devices)
        if (d.config.name == server) return &d;
    return nullptr;
}

}  // namespace kvtps::detail
