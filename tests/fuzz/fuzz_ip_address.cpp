// The address parser of dialogs 200 and 300: any text of up to a box's 47
// characters.  A valid address written out again parses to itself.
#include "admin.h"
#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    WCHAR text[IP_TEXT_CHARS] = {};
    for (size_t i = 0; i < size && i < IP_TEXT_CHARS - 1; ++i) text[i] = data[i];
    PortParam p{};
    if (!ParseIPAddress(&p, text)) return 0;
    DWORD a = p.IPAddress;
    WCHAR again[IP_TEXT_CHARS];
    wsprintfW(again, TEXT("%d.%d.%d.%d"), (int)(a >> 24), (int)(a >> 16 & 255), (int)(a >> 8 & 255), (int)(a & 255));
    PortParam q{};
    if (!ParseIPAddress(&q, again) || q.IPAddress != a) kvtfuzz::Broken("a valid address that doesn't parse to itself");
    return 0;
}
