// The search's take of a reply: any datagrams, behind a table that already
// holds up to 100 records.  Names stay unique, trimmed and terminated; only
// Type 0 and 4 get in; nothing is written past the table.
#include "discovery.h"
#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace kvtfuzz;
    if (size < 1) return 0;
    ClearTable();
    FillTable(data[0] % (AVAILPS_RECORDS + 1));
    const int before = Table.Count;
    Pieces pieces(data + 1, size - 1);
    std::vector<uint8_t> piece;
    while (pieces.Next(&piece, TCP_SEARCH_BUFFER)) {
        Exact reply(piece);
        const int count = Table.Count;
        BOOL taken = TCPSearchTakeReply(&Table, reply.bytes, reply.size);
        CheckTable();
        if (taken != (Table.Count == count + 1) || (!taken && Table.Count != count))
            Broken("a record added without TRUE, or TRUE without a record");
    }
    for (int i = before; i < Table.Count; ++i) {
        const AvailPSRecord &r = Table.Records[i];
        if (r.Type != PS_TYPE_PLAIN && r.Type != PS_TYPE_QUEUE_NAMES) Broken("a record of another Type");
        int len = NameLength(r.Name, AVAILPS_NAME_CHARS);
        if (len > 0 && r.Name[len - 1] == ' ') Broken("a trailing blank");
        for (int k = 0; k < i; ++k)
            if (lstrcmpW(Table.Records[k].Name, r.Name) == 0) Broken("a name listed twice");
    }
    return 0;
}
