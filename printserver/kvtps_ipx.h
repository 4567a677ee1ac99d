// kvtps over IPX: what a virtual print server does there, its fault knobs and
// what it saw.  Included by kvtps.h.
//
// The platform carries IPX over UDP: IPX socket s of node 00-00-a-b-c-d is
// UDP port 0x8000 + s of a.b.c.d, node FF-FF-FF-FF-FF-FF is 255.255.255.255.
// A server is on IPX at the address its node names (by default its own).
// It answers
//   - the search (00 04 FF FB) and EEPROM read (00 02 FF FD) on socket 0x3434:
//     01 CMD 00 00 and the body, as over UDP but without the node prefix;
//   - the print channel: a connect (50 53 00 02 PORT FF 0 0 SEQ) on socket
//     0x3030, data frames (... 04 PORT ID 0 0 SEQ payload) and hang-ups
//     (... 08 PORT ID 0 0 0) on 0x3131, 0x3232, 0x3535 for printer ports 1, 2,
//     3; each reply is the request's 12 bytes with Flags 0x80 (for a connect,
//     the channel id in byte 5: 1 to 254, or 0 while busy).
// A connect repeated before any data gets the same channel; a data frame seen
// again is acknowledged again and stored once; a hang-up repeated after the
// close is acknowledged again.  A new connect on a printer port whose channel
// has had data ends that channel's job (not hung up) and opens another.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace kvtps {

using NodeId = std::array<uint8_t, 6>;

constexpr uint16_t kIpxPortBase = 0x8000;
constexpr uint16_t kIpxMgmtSocket = 0x3434;
constexpr uint16_t kIpxConnectSocket = 0x3030;
constexpr uint16_t kIpxDataSockets[3] = {0x3131, 0x3232, 0x3535};
constexpr uint8_t kChannelConnect = 2, kChannelData = 4, kChannelHangup = 8;
constexpr size_t kChannelHeaderBytes = 12;

// The replies that the reply faults change (IpxFaults::faultReplies).
constexpr unsigned kIpxReplyConnect = 1;
constexpr unsigned kIpxReplyData = 2;
constexpr unsigned kIpxReplyHangup = 4;
constexpr unsigned kIpxReplyManagement = 8;
constexpr unsigned kIpxReplyAll = 15;

// How a server misbehaves over IPX.  Every knob can change while it runs
// (Emulator::SetIpxFaults); counts start afresh with each change.
struct IpxFaults {
    bool silent = false;            // answers nothing (and counts what it got) but
    int busyAnswers = 0;            // the next N connects, which are answered busy
    unsigned dropDataEvery = 0;     // every n-th data frame is lost on its way in (0: none)
    unsigned dropReplyEvery = 0;    // every n-th reply is lost on its way out
    int replyFlags = -1;            // replies carry this Flags byte (-1: 0x80)
    bool wrongSequence = false;     // replies carry the request's Sequence plus one
    bool otherPort = false;         // replies name the next printer port (3 then 1)
    std::optional<NodeId> replyNode;  // replies leave from this node (00-00-a-b-c-d)
    unsigned faultReplies = kIpxReplyAll;  // the replies the four faults above change
    int faultCount = -1;            // how many replies they change (-1: every one)
    int delayMs = 0;                // a pause before each reply
};

// One channel: a job, stored byte for byte in the order of its sequence numbers.
struct IpxJob {
    std::string server;
    int port = 0;                   // printer port 1 to 3
    int channel = 0;                // the id the server gave it
    std::string data;               // empty unless the server stores data
    uint64_t dataBytes = 0;
    uint64_t dataChecksum = 0xcbf29ce484222325ull;  // FNV-1a 64 of the data
    uint64_t frames = 0;            // data frames stored
    uint64_t duplicates = 0;        // data frames seen again: acknowledged, not stored
    uint64_t changedRepeats = 0;    // the last frame seen again with other bytes
    bool hungUp = false;            // ended by a hang-up; false: still open, or replaced
};

// Everything a server was sent over IPX, by kind.
struct IpxCounters {
    uint64_t search = 0, readEeprom = 0;     // management queries
    uint64_t connects = 0, busyAnswers = 0;
    uint64_t dataFrames = 0, duplicates = 0, hangups = 0;
    uint64_t replies = 0;                    // replies sent
    uint64_t droppedFrames = 0, droppedReplies = 0;
    uint64_t unanswered = 0;                 // silent, unknown channel, out of order
    uint64_t malformed = 0;                  // not a query or frame this socket takes
    bool listening = false;                  // its sockets are bound
};

// Called on the IPX thread for each job as it ends (hung up or replaced).
using IpxJobObserver = std::function<void(const IpxJob &job)>;

// "PS1 channel 3 port 1: 1048576 data bytes in 1049 frames (2 again), fnv1a64 ..., hung up".
std::string DescribeIpxJob(const IpxJob &job);

}  // namespace kvtps
