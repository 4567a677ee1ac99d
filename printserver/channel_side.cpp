#include "channel_side.h"

#include <cinttypes>
#include <cstdio>

namespace kvtps {
namespace {

constexpr uint8_t kReplyFlags = 0x80;

uint32_t SequenceOf(const uint8_t *frame) {
    return frame[8] | frame[9] << 8 | frame[10] << 16 | static_cast<uint32_t>(frame[11]) << 24;
}

// The request's 12 bytes with the reply's Flags.
std::string ReplyTo(const uint8_t *frame) {
    std::string reply(reinterpret_cast<const char *>(frame), kChannelHeaderBytes);
    reply[2] = static_cast<char>(kReplyFlags);
    return reply;
}

}  // namespace

std::string DescribeChannelJob(const ChannelJob &job, const char *carrier) {
    char line[256];
    std::snprintf(line, sizeof line,
                  "%s %s channel %d, port %d: %" PRIu64 " data bytes in %" PRIu64 " frames (%" PRIu64
                  " seen again), fnv1a64 %016" PRIx64 ", %s",
                  job.server.c_str(), carrier, job.channel, job.port, job.dataBytes, job.frames, job.duplicates,
                  job.dataChecksum, job.hungUp ? "hung up" : "not hung up");
    return line;
}

namespace detail {

void ChannelSide::Configure(const std::string &server, bool storeData, const ChannelFaults &faults) {
    server_ = server;
    storeData_ = storeData;
    SetFaults(faults);
}

void ChannelSide::SetFaults(const ChannelFaults &faults) {
    faults_ = faults;
    busyLeft_ = faults.busyAnswers;
    faultLeft_ = faults.faultCount;
    goneLeft_ = faults.goneFor;
    dataSeen_ = repliesSeen_ = stored_ = 0;
}

// Away for the moment (goneAfter): the frame is counted and not answered.
bool ChannelSide::Gone() {
    if (faults_.goneAfter < 0 || stored_ < static_cast<uint64_t>(faults_.goneAfter) || goneLeft_ == 0) return false;
    if (goneLeft_ > 0) --goneLeft_;
    ++counters.unanswered;
    return true;
}

std::string ChannelSide::Connect(const uint8_t *frame) {
    ++counters.connects;
    if (Gone()) return "";
    // A silent server still gives its busy answers: busy, then silent.
    if (faults_.silent && busyLeft_ == 0) {
        ++counters.unanswered;
        return "";
    }
    const int port = frame[4];
    Channel &c = channels_[port - 1];
    uint8_t id;
    if (busyLeft_ > 0) {
        --busyLeft_;
        ++counters.busyAnswers;
        id = 0;
    } else if (c.open && jobs[c.job].frames == 0 && jobs[c.job].duplicates == 0) {
        id = c.id;  // the connect again, its answer lost: the same channel
    } else {
        if (c.open) EndJob(c, false);
        c = Channel{true, nextId_, 0, jobs.size(), c.closedId, std::string()};
        nextId_ = nextId_ == 254 ? 1 : nextId_ + 1;
        ChannelJob job;
        job.server = server_;
        job.port = port;
        job.channel = c.id;
        jobs.push_back(job);
        id = c.id;
    }
    std::string reply = ReplyTo(frame);
    reply[5] = static_cast<char>(id);
    return reply;
}

std::string ChannelSide::Data(int port, const uint8_t *frame, size_t size) {
    Channel &c = channels_[port - 1];
    const bool data = frame[3] == kChannelData;
    const uint8_t id = frame[5];
    if (data) {
        ++counters.dataFrames;
        if (faults_.dropDataEvery > 0 && ++dataSeen_ % faults_.dropDataEvery == 0) {
            ++counters.droppedFrames;
            return "";
        }
    } else {
        ++counters.hangups;
    }
    if (Gone()) return "";
    const uint32_t sequence = SequenceOf(frame);
    // A data frame for the open channel, new or seen again, or a hang-up of
    // it (again, after its answer was lost); nothing else is answered.
    const bool known = c.open ? id == c.id && (!data || sequence <= c.next) : !data && id != 0 && id == c.closedId;
    if (faults_.silent || !known) {
        ++counters.unanswered;
        return "";
    }
    if (data && sequence == c.next) {
        ChannelJob &job = jobs[c.job];
        const size_t payload = size - kChannelHeaderBytes;
        if (storeData_) job.data.append(reinterpret_cast<const char *>(frame) + kChannelHeaderBytes, payload);
        job.dataBytes += payload;
        job.dataChecksum = Fnv1a64(frame + kChannelHeaderBytes, payload, job.dataChecksum);
        ++job.frames;
        ++stored_;
        ++c.next;
        c.last.assign(reinterpret_cast<const char *>(frame), size);
    } else if (data) {
        ChannelJob &job = jobs[c.job];
        ++job.duplicates;
        ++counters.duplicates;
        if (sequence + 1 == c.next && std::string(reinterpret_cast<const char *>(frame), size) != c.last)
            ++job.changedRepeats;
    } else if (c.open) {
        EndJob(c, true);
        c.closedId = id;
    }
    return ReplyTo(frame);
}

void ChannelSide::EndJob(Channel &c, bool hungUp) {
    jobs[c.job].hungUp = hungUp;
    c.open = false;
    ended_.push_back(jobs[c.job]);
}

bool ChannelSide::Shape(unsigned kind, std::string *reply, bool carrierChange, bool *carrierApplies) {
    const ChannelFaults &f = faults_;
    std::string &bytes = *reply;
    *carrierApplies = false;
    if ((f.faultReplies & kind) && faultLeft_ != 0) {
        bool changed = false;
        if (kind != kReplyManagement) {
            if (f.replyFlags >= 0) bytes[2] = static_cast<char>(f.replyFlags), changed = true;
            if (f.wrongSequence) {
                uint32_t next = SequenceOf(reinterpret_cast<const uint8_t *>(bytes.data())) + 1;
                for (int i = 0; i < 4; ++i) bytes[8 + i] = static_cast<char>(next >> (8 * i));
                changed = true;
            }
            if (f.otherPort) bytes[4] = static_cast<char>(bytes[4] % 3 + 1), changed = true;
        }
        if (carrierChange) *carrierApplies = changed = true;
        if (changed && faultLeft_ > 0) --faultLeft_;
    }
    if (f.dropReplyEvery > 0 && ++repliesSeen_ % f.dropReplyEvery == 0) {
        ++counters.droppedReplies;
        return false;
    }
    ++counters.replies;
    return true;
}

std::vector<ChannelJob> ChannelSide::TakeEnded() {
    std::vector<ChannelJob> ended;
    ended.swap(ended_);
    return ended;
}

}  // namespace detail
}  // namespace kvtps
