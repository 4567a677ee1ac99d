// kvtps over IPX: a command line from the input (the IPX options among the
// others), then datagrams from the input to the sockets of a print server
// with the faults that line set, taken as its thread takes them.  A job holds
// the frames it stored in turn, and the counters add up.
#include "fuzz_kvtps.h"
#include "ipx_server.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    size_t at = 0;
    kvtps::ServerConfig config = kvtfuzz::ServerFromArgs(data, size, &at);
    config.ipxFaults.delayMs = 0;  // a reply is sent at once (nowhere: the sockets aren't open)

    // Then datagrams: a byte naming the socket, two of length, the bytes.
    kvtps::detail::IpxServer server({config}, nullptr);
    for (++at; at + 3 <= size;) {
        size_t length = std::min<size_t>((data[at + 1] | data[at + 2] << 8) % 1100, size - at - 3);
        server.Take("PS1", data[at] % 5, data + at + 3, length);
        at += 3 + length;
    }
    kvtfuzz::CheckChannel(server.Jobs("PS1"), server.Counters("PS1"), config.storeData);
    return 0;
}
