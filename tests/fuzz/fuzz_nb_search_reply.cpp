// The NetBIOS search's take of replies (as its 74-byte receives hold them)
// behind a table that already holds up to 100 records, with the ".CFG" name
// of each record added, and the EEPROM read's take of each into an index of
// the input.  Names stay unique and terminated, every ".CFG" name ends in
// ".CFG" within its 13 bytes, nothing is written past the table.
#include "discovery.h"
#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace kvtfuzz;
    if (size < 2) return 0;
    ClearTable();
    FillTable(data[0] % (AVAILPS_RECORDS + 1));
    const int index = data[1] % AVAILPS_RECORDS;
    static char cfgNames[AVAILPS_RECORDS][NB_CFG_NAME_BYTES];
    std::memset(cfgNames, 0, sizeof cfgNames);
    Pieces pieces(data + 2, size - 2);
    std::vector<uint8_t> piece;
    while (pieces.Next(&piece, NB_READ_BUFFER)) {
        Exact reply(piece);
        const int count = Table.Count;
        BOOL taken = NBSearchTakeReply(&Table, reply.bytes, reply.size < NB_SEARCH_BUFFER ? reply.size : NB_SEARCH_BUFFER,
                                       cfgNames);
        CheckTable();
        if (taken != (Table.Count == count + 1) || (!taken && Table.Count != count))
            Broken("a record added without TRUE, or TRUE without a record");
        if (taken) {
            const char *cfg = cfgNames[count];
            size_t n = strnlen(cfg, NB_CFG_NAME_BYTES);
            if (n == NB_CFG_NAME_BYTES || n < 4 || std::memcmp(cfg + n - 4, ".CFG", 4) != 0)
                Broken("a .CFG name without its ending or terminator");
            for (int k = 0; k < count; ++k)
                if (lstrcmpW(Table.Records[k].Name, Table.Records[count].Name) == 0) Broken("a name listed twice");
        }
        NBTakeEEPROM(reply.bytes, reply.size, &Table.Records[index]);
        CheckTable();
    }
    return 0;
}
