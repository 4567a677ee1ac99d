// The IPX search's take of replies, each from a sender node of the input,
// behind a table that already holds up to 100 records, and the EEPROM read's
// take of each into an index of the input.  Names stay unique and terminated
// (their blanks kept), each record's node is its sender's, nothing is
// written past the table.
#include "discovery.h"
#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace kvtfuzz;
    if (size < 2) return 0;
    ClearTable();
    FillTable(data[0] % (AVAILPS_RECORDS + 1));
    const int index = data[1] % AVAILPS_RECORDS;
    Pieces pieces(data + 2, size - 2);
    std::vector<uint8_t> piece;
    while (pieces.Next(&piece, IPX_READ_BUFFER + NODE_ID_BYTES)) {
        if (piece.size() < NODE_ID_BYTES) continue;
        const std::vector<uint8_t> node(piece.begin(), piece.begin() + NODE_ID_BYTES);
        Exact reply(std::vector<uint8_t>(piece.begin() + NODE_ID_BYTES, piece.end()));
        const int count = Table.Count;
        BOOL taken = IPXSearchTakeReply(&Table, reply.bytes, reply.size, node.data());
        CheckTable();
        if (taken != (Table.Count == count + 1) || (!taken && Table.Count != count))
            Broken("a record added without TRUE, or TRUE without a record");
        if (taken && std::memcmp(Table.Records[count].NodeID, node.data(), NODE_ID_BYTES) != 0)
            Broken("a node that isn't the sender's");
        for (int k = 0; taken && k < count; ++k)
            if (lstrcmpW(Table.Records[k].Name, Table.Records[count].Name) == 0) Broken("a name listed twice");
        IPXTakeEEPROM(reply.bytes, reply.size, &Table.Records[index]);
        CheckTable();
    }
    return 0;
}
