// The EEPROM read's take of a reply: the node asked for and the record index
// from the input, then any datagram.
#include "discovery.h"
#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace kvtfuzz;
    if (size < 7) return 0;
    ClearTable();
    const int index = data[6] % AVAILPS_RECORDS;
    std::vector<uint8_t> piece(data + 7, data + size);
    Exact reply(piece);
    BOOL taken = TCPTakeEEPROM(reply.bytes, reply.size, data, &Table.Records[index]);
    CheckTable();
    if (taken) {
        if (Table.Records[index].Flags & ~(PS_FLAG_TCPIP_SUPPORTED | PS_FLAG_TCPIP_ENABLED)) Broken("a flag of its own");
        if (std::memcmp(reply.bytes, data, NODE_ID_BYTES) != 0) Broken("a reply of another node taken");
    }
    return 0;
}
