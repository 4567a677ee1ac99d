// The list file: any bytes, read 278 at a time into one buffer as the file's
// reader does (a short last piece keeps the bytes of the record before),
// behind a table that already holds up to 100 records.
#include "availps.h"
#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace kvtfuzz;
    if (size < 1) return 0;
    ClearTable();
    FillTable(data[0] % (AVAILPS_RECORDS + 1));
    BYTE record[LIST_RECORD_BYTES] = {};
    for (size_t at = 1; at < size; at += LIST_RECORD_BYTES) {
        size_t n = size - at < LIST_RECORD_BYTES ? size - at : LIST_RECORD_BYTES;
        std::memcpy(record, data + at, n);
        const int count = TotalPrintServer;
        if (AddListRecord(record) != (TotalPrintServer == count + 1)) Broken("a record added without TRUE");
        CheckTable();
    }
    for (int i = 0; i < TotalPrintServer; ++i)
        for (const QueueSlot &slot : AvailPS[i].QueueName)
            NameLength(slot.Wide, AVAILPS_QUEUE_SLOT_BYTES / static_cast<int>(sizeof(WCHAR)));
    return 0;
}
