// One print server's print channel on one carrier (kvtps_channel.h): the
// channels of its three printer ports, its jobs, counts and faults.  The
// carrier (ipx_server.cpp, netbios_server.cpp) hands it each frame that came,
// sends the reply it gives, and keeps it under its own lock.
#pragma once

#include <string>
#include <vector>

#include "kvtps.h"

namespace kvtps::detail {

class ChannelSide {
public:
    void Configure(const std::string &server, bool storeData, const ChannelFaults &faults);
    // The faults from now on; their counts start afresh.
    void SetFaults(const ChannelFaults &faults);
    const ChannelFaults &Faults() const { return faults_; }

    // A connect of printer port 1 to 3 (byte 4), 12 bytes at least: the reply
    // to send, or "" for none.
    std::string Connect(const uint8_t *frame);
    // A data frame or hang-up of printer port `port`, size bytes: the same.
    std::string Data(int port, const uint8_t *frame, size_t size);
    // The reply faults on a reply of the kind given (kReplyConnect...):
    // Flags, Sequence and port changed as set, and whether the carrier's own
    // change (another node) applies to it, counted with them against
    // faultCount.  False when the reply is lost on its way out.
    bool Shape(unsigned kind, std::string *reply, bool carrierChange, bool *carrierApplies);
    bool Gone();
    // The jobs that ended since the last call.
    std::vector<ChannelJob> TakeEnded();

    ChannelCounters counters;
    std::vector<ChannelJob> jobs;  // every channel opened, in order, the open ones too

private:
    struct Channel {
        bool open = false;
        uint8_t id = 0;
        uint32_t next = 0;     // the sequence number the next new frame carries
        size_t job = 0;        // its job in jobs
        uint8_t closedId = 0;  // the last channel hung up, for a repeated hang-up
        std::string last;      // the last frame stored, to compare its repeats with
    };
    void EndJob(Channel &c, bool hungUp);

    std::string server_;
    bool storeData_ = true;
    ChannelFaults faults_;
    Channel channels_[3];
    uint8_t nextId_ = 1;
    int busyLeft_ = 0, faultLeft_ = -1, goneLeft_ = -1;
    uint64_t stored_ = 0;  // data frames stored since the faults were set
    uint64_t dataSeen_ = 0, repliesSeen_ = 0;
    std::vector<ChannelJob> ended_;
};

}  // namespace kvtps::detail
