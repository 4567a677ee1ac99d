// What the fuzz targets of kvtps share: the command line from the input,
// and the invariants of a server's print channel after its datagrams.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "kvtps_program.h"

namespace kvtfuzz {

// Up to the first byte 0xFF: the arguments after "--server PS1@127.0.0.2",
// split at zero bytes; *at is left on that byte.  The server PS1 they set, or
// the default one when they don't parse.
inline kvtps::ServerConfig ServerFromArgs(const uint8_t *data, size_t size, size_t *at) {
    std::vector<std::string> args = {"--server", "PS1@127.0.0.2", ""};
    for (*at = 0; *at < size && data[*at] != 0xFF; ++*at) {
        if (data[*at] == 0) args.emplace_back();
        else args.back().push_back(static_cast<char>(data[*at]));
    }
    kvtps::ProgramOptions options;
    std::string error;
    kvtps::ServerConfig config;
    if (kvtps::ParseCommandLine(args, &options, &error) && kvtps::ValidateIpxFaults(options.servers[0].ipxFaults, &error) &&
        kvtps::ValidateChannelFaults(options.servers[0].netbios.channel, &error))
        config = options.servers[0];
    config.name = "PS1";
    return config;
}

// Each job holds the frames it stored in turn, and the counters add up.
inline void CheckChannel(const std::vector<kvtps::ChannelJob> &jobs, const kvtps::ChannelCounters &seen,
                         bool storeData) {
    uint64_t frames = 0;
    for (const kvtps::ChannelJob &job : jobs) {
        if (job.channel < 1 || job.channel > 254 || job.port < 1 || job.port > 3) std::abort();  // out of range
        if (storeData && job.data.size() != job.dataBytes) std::abort();  // stored bytes not counted
        frames += job.frames;
    }
    if (frames + seen.duplicates + seen.droppedFrames > seen.dataFrames) std::abort();  // frames that never came
    if (seen.busyAnswers > seen.connects) std::abort();  // busy answers without connects
}

}  // namespace kvtfuzz
