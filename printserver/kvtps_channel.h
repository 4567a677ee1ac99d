// The print channel as a print server keeps it, the same over IPX and over
// NetBIOS: its fault knobs, its jobs and its counts.  Included by kvtps.h.
//
// A connect (50 53 00 02 PORT FF 0 0 SEQ) opens a channel on printer port 1,
// 2 or 3; data frames (... 04 PORT ID 0 0 SEQ payload) carry the job and a
// hang-up (... 08 PORT ID 0 0 0) ends it.  Each reply is the request's 12
// bytes with Flags 0x80 (for a connect, the channel id in byte 5: 1 to 254,
// or 0 while busy).  A connect repeated before any data gets the same channel;
// a data frame seen again is acknowledged again and stored once; a hang-up
// repeated after the close is acknowledged again.  A new connect on a printer
// port whose channel has had data ends that channel's job (not hung up) and
// opens another.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace kvtps {

constexpr uint8_t kChannelConnect = 2, kChannelData = 4, kChannelHangup = 8;
constexpr size_t kChannelHeaderBytes = 12;

// The replies that the reply faults change (ChannelFaults::faultReplies).
constexpr unsigned kReplyConnect = 1;
constexpr unsigned kReplyData = 2;
constexpr unsigned kReplyHangup = 4;
constexpr unsigned kReplyManagement = 8;
constexpr unsigned kReplyAll = 15;

// How a server misbehaves on its print channel.  Every knob can change while
// it runs; counts start afresh with each change.
struct ChannelFaults {
    bool silent = false;            // answers nothing (and counts what it got) but
    int busyAnswers = 0;            // the next N connects, which are answered busy
    unsigned dropDataEvery = 0;     // every n-th data frame is lost on its way in (0: none)
    unsigned dropReplyEvery = 0;    // every n-th reply is lost on its way out
    int replyFlags = -1;            // replies carry this Flags byte (-1: 0x80)
    bool wrongSequence = false;     // replies carry the request's Sequence plus one
    bool otherPort = false;         // replies name the next printer port (3 then 1)
    unsigned faultReplies = kReplyAll;  // the replies the faults above (and the carrier's own) change
    int faultCount = -1;            // how many replies they change (-1: every one)
    // A server that goes away in the middle of a job and may come back: after
    // goneAfter data frames stored (-1: never) it lets the next goneFor frames
    // of the channel pass unanswered (-1: all), then answers again.
    int goneAfter = -1;
    int goneFor = -1;
};

// One channel: a job, stored byte for byte in the order of its sequence numbers.
struct ChannelJob {
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

// What a server's channel was sent, by kind.
struct ChannelCounters {
    uint64_t connects = 0, busyAnswers = 0;
    uint64_t dataFrames = 0, duplicates = 0, hangups = 0;
    uint64_t replies = 0;                    // replies sent
    uint64_t droppedFrames = 0, droppedReplies = 0;
    uint64_t unanswered = 0;                 // silent, unknown channel, out of order
    uint64_t malformed = 0;                  // not a query or frame it takes
};

// Called on the carrier's thread for each job as it ends (hung up or replaced).
using ChannelJobObserver = std::function<void(const ChannelJob &job)>;

// "PS1 NetBIOS channel 3, port 1: 1048576 data bytes in 1049 frames (2 seen again), fnv1a64 ..., hung up".
std::string DescribeChannelJob(const ChannelJob &job, const char *carrier);

}  // namespace kvtps
