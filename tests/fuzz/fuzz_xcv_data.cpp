// The transceive entries' inputs: any data name (or an unknown one), on the
// monitor's handle with or without the right to administer or on a port's,
// any input bytes and any output room.  The answer is one of the errors the
// entries give, a short output says the size it needs, and a handle without
// the right changes no port.  The host offers no transport, so nothing goes
// to a network: the searches are refused after their input is measured.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include <string>

#include "fuzz_common.h"
#include "kvthost.h"
#include "monitor.h"
#include "xcv.h"

extern "C" LPMONITOREX WINAPI InitializePrintMonitor(LPWSTR pRegistryRoot);
extern "C" BOOL WINAPI DllEntryPoint(HINSTANCE instance, DWORD reason, LPVOID reserved);
extern const kvthost::ResourceTable kvt_module_resources;

namespace {

const WCHAR *const kNames[] = {XCV_MONITOR_UI, XCV_ADD_PORT,  XCV_DELETE_PORT,     XCV_SEARCH,
                               XCV_GET_CONFIG, XCV_SET_CONFIG, XCV_ADD_PORT_RECORD, XCV_HAND_OVER,
                               TEXT("PortExists")};

std::u16string Ports() {
    std::u16string s;
    for (PINIPORT p = PortListHead; p != nullptr; p = p->pNext) s += std::u16string(p->pName) + u" ";
    return s;
}

const MONITOR *Monitor() {
    static const MONITOR *m = [] {
        char dir[] = "/tmp/kvt-fuzz-xcv.XXXXXX";
        if (mkdtemp(dir) == nullptr) kvtfuzz::Broken("no folder for the prefix");
        static std::string made = dir;
        std::atexit([] { std::filesystem::remove_all(made); });
        kvthost::SetPrefix(dir);
        std::string error;
        if (!kvthost::MakePrefix(&error)) kvtfuzz::Broken("no prefix");
        // Loaded as the DLL is: its resources under its base, then its entry point.
        static char base;
        kvthost::RegisterModule(&base, &kvt_module_resources);
        DllEntryPoint(reinterpret_cast<HINSTANCE>(&base), DLL_PROCESS_ATTACH, nullptr);
        LPMONITOREX table = InitializePrintMonitor(nullptr);
        return table != nullptr ? &table->Monitor : nullptr;
    }();
    return m;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const MONITOR *m = Monitor();
    if (m == nullptr || size < 3) return 0;
    HANDLE admin = nullptr, reader = nullptr, port = nullptr;
    m->pfnXcvOpenPort(u"", SERVER_ACCESS_ADMINISTER, &admin);
    m->pfnXcvOpenPort(u"", SERVER_ACCESS_ENUMERATE, &reader);
    DWORD needed = 0;
    m->pfnXcvDataPort(admin, XCV_ADD_PORT, (PBYTE)u"PS1-P1", 14, nullptr, 0, &needed);
    m->pfnXcvOpenPort(u"PS1-P1", data[1] & 0x80 ? SERVER_ACCESS_ADMINISTER : 0, &port);
    HANDLE h = data[1] % 3 == 0 ? admin : data[1] % 3 == 1 ? reader : port;

    const std::u16string before = Ports();
    std::vector<BYTE> in(data + 3, data + size), out(data[2]);
    const DWORD result = m->pfnXcvDataPort(h, kNames[data[0] % 9], in.empty() ? nullptr : in.data(),
                                           static_cast<DWORD>(in.size()), out.empty() ? nullptr : out.data(),
                                           static_cast<DWORD>(out.size()), &needed);
    switch (result) {
    case ERROR_SUCCESS: case ERROR_ACCESS_DENIED: case ERROR_NOT_SUPPORTED: case ERROR_INVALID_PARAMETER:
    case ERROR_ALREADY_EXISTS: case ERROR_UNKNOWN_PORT: case ERROR_BUSY: break;
    case ERROR_INSUFFICIENT_BUFFER:
        if (needed <= out.size()) kvtfuzz::Broken("a short buffer that did not say the size it needs");
        break;
    default: kvtfuzz::Broken("an error the entries do not give");
    }
    if ((h == reader || (h == port && !(data[1] & 0x80))) && Ports() != before)
        kvtfuzz::Broken("a change without the right to administer");
    if (result != ERROR_SUCCESS && Ports() != before) kvtfuzz::Broken("a failed call that changed the ports");

    // Back to PS1-P1 alone, for the next input.
    for (PINIPORT p = PortListHead; p != nullptr;) {
        std::u16string name = p->pName;
        p = p->pNext;
        if (name != u"PS1-P1")
            m->pfnXcvDataPort(admin, XCV_DELETE_PORT, (PBYTE)name.c_str(), 2 * (DWORD)(name.size() + 1), nullptr, 0,
                              &needed);
    }
    for (HANDLE x : {admin, reader, port})
        if (x != nullptr) m->pfnXcvClosePort(x);
    return 0;
}
