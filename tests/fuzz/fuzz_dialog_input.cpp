// Dialog 550 under the platform's dialog engine, driven by any input as a
// person's clicks and keys: whatever is typed, the queue name stays within its
// 31 characters and terminator, and OK takes only a transport the host offers.
#include "admin.h"
#include "fuzz_common.h"
#include "kvthost.h"
#include "monitor.h"
#include "portstore.h"

extern const kvthost::ResourceTable kvt_module_resources;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace kvtfuzz;
    static char base;
    static bool registered = (kvthost::RegisterModule(&base, &kvt_module_resources), true);
    (void)registered;
    if (size < 3) return 0;
    DllInstance = reinterpret_cast<HINSTANCE>(&base);
    SupportProtocol = data[0] & PROTOCOL_ALL;
    NotifyChoice = data[1];
    ConfigRecord record = {QueueNameBuffer, data[2]};
    QueueNameBuffer[0] = 0;
    static const int kControls[] = {IDC_AUTO, IDC_IPX, IDC_TCPIP, IDC_NETBEUI, IDC_NOTIFY, IDC_QUEUE_NAME,
                                    IDC_LPR_SETTING, IDC_QUEUE_LABEL, IDC_CONFIG_OK, 0};
    size_t at = 3;
    kvthost::SetUiDriver([&](HWND dialog, int) {
        if (at + 2 > size) {
            kvthost::Click(dialog, IDC_CONFIG_OK);
            return;
        }
        uint8_t op = data[at++], arg = data[at++];
        if (op % 3 == 0) kvthost::Click(dialog, kControls[arg % (sizeof kControls / sizeof kControls[0])]);
        else if (op % 3 == 1) kvthost::TypeKey(dialog, IDC_QUEUE_NAME, static_cast<char16_t>(arg | (op & 0x80) << 1));
        else SetDlgItemTextW(dialog, arg % 2 ? IDC_QUEUE_NAME : IDC_AUTO, u"a text the program sets, longer than 31");
    });
    INT_PTR result = DialogBoxParamW(DllInstance, MAKEINTRESOURCEW(DLG_SELECT_PROTOCOL), nullptr, SelectProtocolDlg,
                                     reinterpret_cast<LPARAM>(&record));
    kvthost::SetUiDriver(nullptr);
    if (result != 1) Broken("dialog 550 did not end with 1");
    NameLength(QueueNameBuffer, PORT_QUEUE_CHARS);
    DWORD p = record.ConfigProtocol;
    if (p != PROTOCOL_AUTO && (p & SupportProtocol) == 0) Broken("a transport the host lacks was stored");
    if (p != PROTOCOL_AUTO && p != PROTOCOL_IPX && p != PROTOCOL_TCPIP && p != PROTOCOL_NETBIOS)
        Broken("no protocol code");
    if (NotifyChoice > 1) Broken("NotifyChoice is neither 0 nor 1");
    return 0;
}
