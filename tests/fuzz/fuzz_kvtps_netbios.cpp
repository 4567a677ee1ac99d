// kvtps over NetBIOS: a command line from the input (the --nb- options among
// the others), then datagrams from the input to a print server's names (its
// own, its ".CFG" name, the group, or another), with the faults that line
// set, taken as its thread takes them.  A job holds the frames it stored in
// turn, and the counters add up.
#include "fuzz_kvtps.h"
#include "netbios_server.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    size_t at = 0;
    kvtps::ServerConfig config = kvtfuzz::ServerFromArgs(data, size, &at);
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
    kvtfuzz::CheckChannel(server.Jobs("PS1"), server.Counters("PS1").channel, config.storeData);
    return 0;
}
