// The kvt backend's device URIs, kvt://SERVER/P1?protocol=auto&queue=NAME, and
// the device lines it lists for CUPS.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kvtcups {

// The monitor's protocol values, as a port stores them.
constexpr uint8_t kProtocolAuto = 0, kProtocolIpx = 1, kProtocolTcpip = 2, kProtocolNetbios = 4;

struct DeviceUri {
    std::string server;                // the print server's name, or its dotted address
    int port = 1;                      // P1..P3
    uint8_t protocol = kProtocolAuto;  // protocol=auto|tcpip|ipx|netbios
    std::optional<std::string> queue;  // queue=NAME, 1 to 31 characters
};

// False, with a message, for anything but a URI of that form.
bool ParseDeviceUri(const std::string &text, DeviceUri *uri, std::string *error);
// The URI of a printer port, with queue=NAME when a queue is given.
std::string DeviceUriFor(const std::string &server, int port, const std::string &queue = "");
// A text as a quoted field of a device line holds it: no double quote, no
// backslash, no control character.
std::string DeviceField(const std::string &in);

}  // namespace kvtcups
