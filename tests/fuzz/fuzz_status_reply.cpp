// The status reply of the address lookup and the reply recognisers of the
// three carriers, on any datagram.
#include "availps.h"
#include "dynip.h"
#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace kvtfuzz;
    if (size < 1) return 0;
    const BYTE command = data[0];
    std::vector<uint8_t> piece(data + 1, data + size);
    Exact reply(piece);
    DWORD address = 0;
    if (StatusReplyAddress(reply.bytes, reply.size, &address) && reply.size < STATUS_REPLY_MIN)
        Broken("an address from a reply too short to hold one");
    const MgmtCarrier carriers[] = {MGMT_CARRIER_UDP, MGMT_CARRIER_IPX, MGMT_CARRIER_NETBIOS};
    for (MgmtCarrier carrier : carriers)
        if (IsManagementReply(carrier, reply.bytes, reply.size, command) &&
            reply.size < ManagementBodyOffset(carrier) - 2)
            Broken("a reply without its head");
    return 0;
}
