// The profile reader: an INI file from the input, read for a section and key
// that the input's first bytes name, into a buffer of the size they name.  The
// count returned fits the buffer and the text ends where it says.
#include <cstdint>
#include <cstdlib>
#include <string>

#include <unistd.h>

#include "kvthost.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const std::string prefix = [] {
        char dir[] = "/dev/shm/kvt-fuzz-profile.XXXXXX";
        std::string made = mkdtemp(dir) != nullptr ? dir : "/tmp";
        kvthost::SetPrefix(made);
        std::string error;
        kvthost::MakePrefix(&error);
        return made;
    }();
    if (size < 2) return 0;
    const size_t appLength = data[0] % 8, keyLength = data[1] % 8;
    if (size < 2 + appLength + keyLength) return 0;
    std::u16string app, key;
    for (size_t i = 0; i < appLength; ++i) app.push_back(static_cast<char16_t>(data[2 + i]));
    for (size_t i = 0; i < keyLength; ++i) key.push_back(static_cast<char16_t>(data[2 + appLength + i]));
    const size_t body = 2 + appLength + keyLength;
    static const std::string path = [] {
        WCHAR folder[MAX_PATH];
        UINT n = GetWindowsDirectoryW(folder, MAX_PATH);
        return kvthost::MapPath(std::u16string(folder, n) + u"\\fuzz.ini");
    }();
    FILE *f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) return 0;
    std::fwrite(data + body, 1, size - body, f);
    std::fclose(f);
    const DWORD room = 1 + (data[0] >> 3) * 9 + (data[1] >> 3) % 9;  // 1 to 288
    WCHAR out[300];
    for (WCHAR &c : out) c = 0xEEEE;
    DWORD n = GetPrivateProfileStringW(app.c_str(), key.c_str(), u"none", out, room, u"fuzz.ini");
    if (n >= room) std::abort();            // more than fits, terminator included
    if (out[n] != 0) std::abort();          // the text ends where the count says
    if (out[room] != 0xEEEE) std::abort();  // nothing written past the buffer
    return 0;
}
