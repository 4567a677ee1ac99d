// The platform's reading of a NetBIOS datagram packet from port 138: any
// bytes, in a buffer of exactly their length.  What it takes is a whole
// direct datagram, and written out again it is the same packet but for the
// source's node type.
#include "fuzz_common.h"
#include "kvtnetbios.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace kvtfuzz;
    Exact packet(std::vector<uint8_t>(data, data + size));
    kvtnb::Datagram d;
    if (!kvtnb::DecodeDatagram(packet.bytes, size, &d)) return 0;
    if (d.data.size() + kvtnb::kDatagramOverhead != size) Broken("the data is not the rest of the packet");
    std::string again = kvtnb::EncodeDatagram(d);
    again[1] = static_cast<char>(data[1]);
    if (again.size() != size || std::memcmp(again.data(), data, size) != 0) Broken("read and written differ");
    return 0;
}
