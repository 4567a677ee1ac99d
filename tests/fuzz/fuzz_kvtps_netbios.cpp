// kvtps over NetBIOS: a command line from the input (the --nb- options among
// the others), then datagrams from the input to a print server's names (its
// own, its ".CFG" name, the group, or another), with the faults that line
// set, taken as its thread takes them.  A job holds the frames it stored in
// turn, and the counters add up.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "kvtps_program.h"
#include "netbios_server.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // Up to the first byte 0xFF: the arguments, split at zero bytes.
    size_t at = 0;
    std::vector<std::string> args = {"--server", "PS1@127.0.0.2", ""};
    for (; at < size && data[at] != 0xFF; ++at) {
        if (data[at] == 0) args.emplace_back();
        else args.back().push_back(static_cast<char>(data[at]));
    }
    kvtps::ProgramOptions options;
    std::string error;
    kvtps::ServerConfig config;
    if (kvtps::ParseCommandLine(args, &options, &error) &&
        kvtps::ValidateChannelFaults(options.servers[0].netbios.channel, &error))
        config = options.servers[0];
    config.name = "PS1";
    config.netbios.lateMs = 0;

    // Then datagrams: a byte naming the destination, two of length, the bytes.
    const kvtnb::Name names[4] = {kvtnb::MakeName(kvtps::NbName(config)), kvtnb::MakeName(kvtps::NbCfgName(config)),
                                  kvtnb::MakeName(kvtps::kNbGroupName), kvtnb::MakeName("ELSEWHERE")};
    kvtps::detail::NbServer server({config}, nullptr);
    for (++at; at + 3 <= size;) {
        size_t length = std::min<size_t>((data[at + 1] | data[at + 2] << 8) % 1100, size - at - 3);
        kvtnb::Datagram d;
        d.source = kvtnb::MakeName("00007f000001.E1");
        d.destination = names[data[at] % 4];
        d.data.assign(reinterpret_cast<const char *>(data + at + 3), length);
        server.Take(d);
        at += 3 + length;
    }
    const kvtps::ChannelCounters seen = server.Counters("PS1").channel;
    uint64_t frames = 0;
    for (const kvtps::ChannelJob &job : server.Jobs("PS1")) {
        if (job.channel < 1 || job.channel > 254 || job.port < 1 || job.port > 3) std::abort();  // out of range
        if (config.storeData && job.data.size() != job.dataBytes) std::abort();  // stored bytes not counted
        frames += job.frames;
    }
    if (frames + seen.duplicates + seen.droppedFrames > seen.dataFrames) std::abort();  // frames that never came
    if (seen.busyAnswers > seen.connects) std::abort();  // busy answers without connects
    return 0;
}
