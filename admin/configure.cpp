/*
 * Port configuration: dialog 550 sets a port's transport and LPR queue name,
 * and for the whole monitor the notice after each job.  The choices go to the
 * registry only after the dialog has ended, in this order: protocol, queue
 * name, notify setting.  Nothing in the port record changes: the job flow
 * reads the port's protocol and queue name at every job start.
 */
#include <windows.h>

#include "admin.h"
#include "debuglog.h"
#include "monitor.h"
#include "portstore.h"
#include "resource.h"

/* The radio buttons, their protocols, and the bit of SupportProtocol that
 * offers each transport. */
static const struct {
    int id;
    DWORD protocol;
} ProtocolButtons[] = {
    {IDC_AUTO, PROTOCOL_AUTO},
    {IDC_IPX, PROTOCOL_IPX},
    {IDC_TCPIP, PROTOCOL_TCPIP},
    {IDC_NETBEUI, PROTOCOL_NETBIOS},
};
#define PROTOCOL_BUTTONS (int)(sizeof ProtocolButtons / sizeof ProtocolButtons[0])

void SetTextFromTable(HWND hDlg, int id, UINT stringId) {
    WCHAR text[64];
    LoadStr(stringId, text, 64);
    if (id == 0) SetWindowTextW(hDlg, text);
    else SetDlgItemTextW(hDlg, id, text);
}

void KeepDialogBlock(HWND hDlg, void *pBlock) { SetWindowLongPtrW(hDlg, DWLP_USER, (LONG_PTR)pBlock); }
void *DialogBlock(HWND hDlg) { return (void *)GetWindowLongPtrW(hDlg, DWLP_USER); }

static void InitSelectProtocolDlg(HWND hDlg, ConfigRecord *pRecord) {
    SetForegroundWindow(hDlg);
    SetTextFromTable(hDlg, 0, IDS_SELECT_PROTOCOL);
    SetTextFromTable(hDlg, IDC_AUTO, IDS_AUTO);
    SetTextFromTable(hDlg, IDC_NOTIFY, IDS_NOTIFY_USER);
    SetTextFromTable(hDlg, IDC_LPR_SETTING, IDS_LPR_SETTING);
    SetTextFromTable(hDlg, IDC_QUEUE_LABEL, IDS_QUEUE_NAME);
    SetTextFromTable(hDlg, IDC_CONFIG_OK, IDS_OK);
    KeepDialogBlock(hDlg, pRecord);

    /* The box holds what the buffer holds: a person sees the limit while
     * typing, and OK never reads more. */
    SendDlgItemMessageW(hDlg, IDC_QUEUE_NAME, EM_LIMITTEXT, PORT_QUEUE_CHARS - 1, 0);
    CheckRadioButton(hDlg, IDC_AUTO, IDC_NETBEUI, IDC_AUTO);
    SetDlgItemTextW(hDlg, IDC_QUEUE_NAME, pRecord->QueueNameBuffer);

    /* The stored transport, when this host offers it; a transport that the
     * host lacks can't be chosen. */
    for (int i = 1; i < PROTOCOL_BUTTONS; ++i) {
        BOOL offered = (SupportProtocol & ProtocolButtons[i].protocol) != 0;
        if (offered && pRecord->ConfigProtocol == ProtocolButtons[i].protocol) {
            CheckRadioButton(hDlg, IDC_AUTO, IDC_NETBEUI, ProtocolButtons[i].id);
            break;
        }
    }
    for (int i = 1; i < PROTOCOL_BUTTONS; ++i)
        if ((SupportProtocol & ProtocolButtons[i].protocol) == 0)
            EnableWindow(GetDlgItem(hDlg, ProtocolButtons[i].id), FALSE);
    if (pRecord->NotifyChoice == 1) CheckDlgButton(hDlg, IDC_NOTIFY, BST_CHECKED);
}

static void AcceptSelectProtocol(HWND hDlg) {
    ConfigRecord *pRecord = (ConfigRecord *)DialogBlock(hDlg);
    if (pRecord == NULL) return;
    for (int i = 0; i < PROTOCOL_BUTTONS; ++i)
        if (IsDlgButtonChecked(hDlg, ProtocolButtons[i].id) == BST_CHECKED)
            pRecord->ConfigProtocol = ProtocolButtons[i].protocol;
    /* A longer text is cut at the buffer's 31 characters. */
    GetDlgItemTextW(hDlg, IDC_QUEUE_NAME, pRecord->QueueNameBuffer, PORT_QUEUE_CHARS);
    pRecord->NotifyChoice = IsDlgButtonChecked(hDlg, IDC_NOTIFY) == BST_CHECKED ? 1 : 0;
    EndDialog(hDlg, 1);
}

INT_PTR CALLBACK SelectProtocolDlg(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam) {
    switch (uMsg) {
    case WM_INITDIALOG:
        InitSelectProtocolDlg(hDlg, (ConfigRecord *)lParam);
        return TRUE;
    case WM_COMMAND:
        if (LOWORD(wParam) == IDC_CONFIG_OK) {
            AcceptSelectProtocol(hDlg);
            return TRUE;
        }
        return FALSE;
    default:
        return FALSE;
    }
}

/* Opens <root>\<MonitorName>, and below it, when pBelow is given, the path
 * Ports\<server>\<digit> of a port name: its server is the name less its last
 * three characters, its digit the last character. */
static LONG OpenConfigKey(LPCWSTR pPortName, PHKEY phKey) {
    WCHAR root[128], path[400];
    LoadStr(IDS_MONITORS_ROOT, root, 128);
    if (pPortName == NULL) {
        wsprintfW(path, TEXT("%s\\%s"), root, MonitorName);
    } else {
        int len = lstrlenW(pPortName);
        if (len < 4 || len - 3 >= SERVER_NAME_CHARS) return ERROR_INVALID_NAME;
        WCHAR ports[16], server[SERVER_NAME_CHARS], digit[2] = {pPortName[len - 1], 0};
        LoadStr(IDS_PORTS, ports, 16);
        lstrcpynW(server, pPortName, len - 3 + 1);
        wsprintfW(path, TEXT("%s\\%s\\%s\\%s\\%s"), root, MonitorName, ports, server, digit);
    }
    return RegOpenKeyW(HKEY_LOCAL_MACHINE, path, phKey);
}

/* The dialog shows and stores the call's own record: its copy of the queue
 * name, taken under PortListLock right after the lookup (a job start on
 * another thread, whose lookup refreshes QueueNameBuffer, cannot change it),
 * the protocol and the notify setting.  A second configure call while the
 * dialog stands has a record of its own. */
extern "C" BOOL WINAPI LocalmonConfigurePort(LPWSTR pName, HWND hWnd, LPWSTR pPortName) {
    WCHAR queueName[QUEUE_NAME_BYTES / sizeof(WCHAR)];
    queueName[0] = 0;
    ConfigRecord record = {queueName, 0, 0};
    DebugLog("\n");
    DebugLog("Entry LocalmonConfigurePort\n");
    if (pName != NULL) LogWideName("Name: %s \t", pName);
    else DebugLog("Name: NULL\t");
    if (pPortName != NULL) LogWideName("PortName: %s \n", pPortName);
    else DebugLog("PortName: NULL\n");

    SupportProtocol = GetProtocol();
    if (SupportProtocol == 0) {
        DebugLog("Leave LocalmonConfigurePort - PC no support any protocol\n");
        return FALSE;
    }
    EnterCriticalSection(&PortListLock);
    if (FindPortFromList(pPortName) == NULL) {
        LeaveCriticalSection(&PortListLock);
        DebugLog("Leave LocalmonConfigurePort - no any printserver port find\n");
        return FALSE;
    }
    DebugLog("FindPortFromList ok\n");
    LeaveCriticalSection(&PortListLock);

    EnterCriticalSection(&PortListLock);
    DWORD protocol = GetPrintProtocol(pPortName);
    lstrcpynW(queueName, QueueNameBuffer, PORT_QUEUE_CHARS);
    LeaveCriticalSection(&PortListLock);
    LogPrintf("PrintMethod = %d\n", (int)protocol);

    WCHAR flagName[32];
    HKEY hKey;
    if (OpenConfigKey(NULL, &hKey) != ERROR_SUCCESS) {
        DebugLog("Leave LocalmonConfigurePort - Open registry key fail\n");
        return FALSE;
    }
    LoadStr(IDS_ISNOTIFY, flagName, 32);
    BYTE notify = 0;
    DWORD cb = 1;
    if (RegQueryValueExW(hKey, flagName, NULL, NULL, &notify, &cb) != ERROR_SUCCESS || cb == 0) notify = 0;
    RegCloseKey(hKey);
    IsNOTIFY = notify;
    record.NotifyChoice = notify;
    LogPrintf("IsNotify = %d\n", notify);

    record.ConfigProtocol = protocol;
    if (DialogBoxParamW(DllInstance, MAKEINTRESOURCEW(DLG_SELECT_PROTOCOL), hWnd, SelectProtocolDlg,
                        (LPARAM)&record) == 0) {
        DebugLog("Leave LocalmonConfigurePort - show dialogbox fail\n");
        return FALSE;
    }

    if (OpenConfigKey(pPortName, &hKey) != ERROR_SUCCESS) {
        DebugLog("Leave LocalmonConfigurePort - open registry key fail\n");
        return FALSE;
    }
    WCHAR valueName[32];
    BYTE stored = (BYTE)record.ConfigProtocol;
    LoadStr(IDS_PROTOCOL, valueName, 32);
    RegSetValueExW(hKey, valueName, 0, REG_BINARY, &stored, 1);
    LoadStr(IDS_QUEUENAME, valueName, 32);
    RegSetValueExW(hKey, valueName, 0, REG_SZ, (const BYTE *)record.QueueNameBuffer,
                   (DWORD)(lstrlenW(record.QueueNameBuffer) + 1) * sizeof(WCHAR));
    RegCloseKey(hKey);

    if (OpenConfigKey(NULL, &hKey) != ERROR_SUCCESS) {
        DebugLog("Leave LocalmonConfigurePort - open registry key fail\n");
        return FALSE;
    }
    IsNOTIFY = record.NotifyChoice;
    RegSetValueExW(hKey, flagName, 0, REG_BINARY, &record.NotifyChoice, 1);
    RegCloseKey(hKey);
    DebugLog("Leave LocalmonConfigurePort - success\n");
    return TRUE;
}
