// The kvt backend's DEVICE_URI: any text is refused with a message or read
// into a server of 1 to 47 characters without control characters, a port of
// 1 to 3 and a queue of 1 to 31; the URI made again from what was read reads
// back to the same server and port.
#include <string>

#include "fuzz_common.h"
#include "kvt_uri.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    kvtcups::DeviceUri uri;
    std::string error;
    if (!kvtcups::ParseDeviceUri(text, &uri, &error)) {
        if (error.empty()) kvtfuzz::Broken("refused without a message");
        return 0;
    }
    if (uri.server.empty() || uri.server.size() > 47 || uri.port < 1 || uri.port > 3 ||
        (uri.queue && (uri.queue->empty() || uri.queue->size() > 31)))
        kvtfuzz::Broken("a URI read into values out of range");
    for (unsigned char c : uri.server + uri.queue.value_or(""))
        if (c < 0x20 || c == 0x7F) kvtfuzz::Broken("a control character taken");
    kvtcups::DeviceUri again;
    if (!kvtcups::ParseDeviceUri(kvtcups::DeviceUriFor(uri.server, uri.port), &again, &error) ||
        again.server != uri.server || again.port != uri.port)
        kvtfuzz::Broken("the URI made from a server and port does not read back");
    if (kvtcups::DeviceField(uri.server).find_first_of("\"\\") != std::string::npos)
        kvtfuzz::Broken("a quote left in a device line's field");
    return 0;
}
