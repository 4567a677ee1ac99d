// The platform's reading of a name registration from port 137, or of the
// negative response to one: any bytes, in a buffer of exactly their length.
// What it takes, written out again, is the same packet.
#include "fuzz_common.h"
#include "kvtnetbios.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace kvtfuzz;
    Exact packet(std::vector<uint8_t>(data, data + size));
    kvtnb::Registration r;
    if (!kvtnb::DecodeRegistration(packet.bytes, size, &r)) return 0;
    std::string again = kvtnb::EncodeRegistration(r);
    // The TTL and NB_FLAGS are not read: the decoder takes any.
    for (size_t at : {size - 12, size - 11, size - 10, size - 9, size - 6, size - 5})
        if (at < again.size()) again[at] = static_cast<char>(data[at]);
    if (again.size() != size || std::memcmp(again.data(), data, size) != 0) Broken("read and written differ");
    return 0;
}
