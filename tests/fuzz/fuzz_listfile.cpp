// kvtmon listfile: any description (text or JSON) is refused with a message
// or gives records that read back as the same servers, and its text form
// gives the same records again; any bytes are refused as a list file or read
// as whole records.
#include "fuzz_common.h"
#include "listfile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace kvtmon;
    const std::string input(reinterpret_cast<const char *>(data), size);
    std::vector<ListServer> servers, back;
    std::vector<std::string> notes;
    std::string error;
    if (DecodeListFile(input, &back, &error) && back.size() * kListRecordBytes != size)
        kvtfuzz::Broken("a list file read into other than whole records");
    if (!ParseListDescription(input, &servers, &notes, &error)) {
        if (error.empty()) kvtfuzz::Broken("a description refused without a message");
        return 0;
    }
    const std::string records = EncodeListFile(servers);
    if (records.size() != servers.size() * kListRecordBytes || !DecodeListFile(records, &back, &error))
        kvtfuzz::Broken("records that don't read back");
    for (const std::string &shown : {ListDescriptionText(back), ListDescriptionJson(back)})
        if (!ParseListDescription(shown, &servers, &notes, &error) || EncodeListFile(servers) != records)
            kvtfuzz::Broken("what show prints doesn't make the same records");
    return 0;
}
