// The acceptance test of a print-channel reply: a request built from the
// input (any command, port, channel and sequence), then any datagram.  An
// acceptable reply is 12 bytes at least, carries the request's Magic, Command
// and Port with Flags 0x80, and unless the request is a connect its Channel
// and Sequence too; nothing is read past the datagram.
#include "channel.h"
#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace kvtfuzz;
    if (size < 7) return 0;
    BYTE request[CHANNEL_FRAME_BYTES];
    const DWORD sequence = data[3] | data[4] << 8 | data[5] << 16 | static_cast<DWORD>(data[6]) << 24;
    BuildChannelFrame(data[0], data[1], data[2], sequence, nullptr, 0, request);
    Exact reply(std::vector<uint8_t>(data + 7, data + size));
    if (!IsChannelReplyAcceptable(request, reply.bytes, reply.size)) return 0;
    const BYTE *r = reply.bytes;
    if (reply.size < CHANNEL_HEADER_BYTES) Broken("a short reply taken");
    if (r[0] != 0x50 || r[1] != 0x53 || r[2] != 0x80 || r[3] != data[0] || r[4] != data[1])
        Broken("a reply to another request taken");
    if (data[2] != CHANNEL_NONE && (r[5] != data[2] || std::memcmp(r + 8, request + 8, 4) != 0))
        Broken("a reply of another channel or frame taken");
    return 0;
}
