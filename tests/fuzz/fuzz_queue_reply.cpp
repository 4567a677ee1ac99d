// The queue-name read's take of a reply: the record index from the input,
// then any datagram.  Each slot ends up terminated within its 64 bytes.
#include "discovery.h"
#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace kvtfuzz;
    if (size < 1) return 0;
    ClearTable();
    const int index = data[0] % AVAILPS_RECORDS;
    std::memset(Table.Records[index].QueueName, 'z', sizeof Table.Records[index].QueueName);
    std::vector<uint8_t> piece(data + 1, data + size);
    Exact reply(piece);
    BOOL taken = TCPTakeQueueNames(reply.bytes, reply.size, &Table.Records[index]);
    CheckTable();
    if (taken) {
        for (const QueueSlot &slot : Table.Records[index].QueueName)
            if (std::memchr(slot.Text, 0, QUEUE_BODY_TEXT_BYTES - 1) == nullptr) Broken("a queue name too long");
    }
    return 0;
}
