/*
 * Dialog 550: a port's transport and LPR queue name, and for the whole
 * monitor the notice after each job.  The dialog works on the caller's
 * ConfigRecord alone; the monitor's ConfigurePort (configport.cpp) and the UI
 * library's ConfigurePortUI read and store it.
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
