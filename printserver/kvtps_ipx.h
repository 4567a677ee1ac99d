// kvtps over IPX: what a virtual print server does there, its fault knobs and
// what it saw.  Included by kvtps.h.
//
// The platform carries IPX over UDP: IPX socket s of node 00-00-a-b-c-d is
// UDP port 0x8000 + s of a.b.c.d, node FF-FF-FF-FF-FF-FF is 255.255.255.255.
// A server is on IPX at the address its node names (by default its own).
// It answers
//   - the search (00 04 FF FB) and EEPROM read (00 02 FF FD) on socket 0x3434:
//     01 CMD 00 00 and the body, as over UDP but without the node prefix;
//   - the print channel (kvtps_channel.h): connects on socket 0x3030, data
//     frames and hang-ups on 0x3131, 0x3232, 0x3535 for printer ports 1, 2, 3.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "kvtps_channel.h"

namespace kvtps {

using NodeId = std::array<uint8_t, 6>;

constexpr uint16_t kIpxPortBase = 0x8000;
constexpr uint16_t kIpxMgmtSocket = 0x3434;
constexpr uint16_t kIpxConnectSocket = 0x3030;
constexpr uint16_t kIpxDataSockets[3] = {0x3131, 0x3232, 0x3535};

// The replies that the reply faults change (IpxFaults::faultReplies).
constexpr unsigned kIpxReplyConnect = kReplyConnect;
constexpr unsigned kIpxReplyData = kReplyData;
constexpr unsigned kIpxReplyHangup = kReplyHangup;
constexpr unsigned kIpxReplyManagement = kReplyManagement;
constexpr unsigned kIpxReplyAll = kReplyAll;

// How a server misbehaves over IPX: the channel's faults (which silent and
// the reply faults extend to its management replies), and two of IPX's own.
// Every knob can change while it runs (Emulator::SetIpxFaults).
struct IpxFaults : ChannelFaults {
    std::optional<NodeId> replyNode;  // replies leave from this node (00-00-a-b-c-d), one of the reply faults
    int delayMs = 0;                  // a pause before each reply
};

using IpxJob = ChannelJob;

// Everything a server was sent over IPX, by kind.
struct IpxCounters : ChannelCounters {
    uint64_t search = 0, readEeprom = 0;     // management queries
    bool listening = false;                  // its sockets are bound
};

using IpxJobObserver = ChannelJobObserver;

// "PS1 IPX channel 3, port 1: ...": DescribeChannelJob over IPX.
std::string DescribeIpxJob(const IpxJob &job);

}  // namespace kvtps
