/*
 * The Add Port list dialog, 250: the add-everything way.  While it starts up
 * it searches the network, makes a port for every printer port of every
 * print server found and lists each one; the person reads the report and
 * presses Continue.  By the time the dialog shows, every port stands.
 */
#include <winsock2.h>
#include <windows.h>

#include <string.h>

#include "admin.h"
#include "debuglog.h"
#include "discovery.h"
#include "monitor.h"
#include "resource.h"

void QueueNameFromSlot(WCHAR *pField, const QueueSlot *pSlot, BOOL wide) {
    if (wide) lstrcpynW(pField, pSlot->Wide, PORT_QUEUE_CHARS);
    else WidenText((const BYTE *)pSlot->Text, AVAILPS_QUEUE_TEXT_BYTES, pField, PORT_QUEUE_CHARS);
}

static void InitAddPortDlgOf(AddPortMode mode, HWND hDlg) {
    SetForegroundWindow(hDlg);
    SetTextFromTable(hDlg, 0, IDS_ADD_PORT);
    SetTextFromTable(hDlg, IDC_ADD_ALL_LABEL, IDS_PS_LIST);
    SetTextFromTable(hDlg, IDC_CONTINUE, IDS_CONTINUE);
    if (mode == MODE_TCPIP) TCPSearch();
    else if (mode == MODE_IPX) IPXSearch(3, 1);
    else NBSearch();
    int total = AvailPSCount();
    if (total == 0) return;

    PortParam param;
    memset(&param, 0, sizeof param);
    for (int i = 0; i < total; ++i) {
        AvailPSRecord entry;
        if (!CopyAvailPS(i, &entry)) break;
        WCHAR port[PORT_NAME_CHARS], address[32], line[LIST_LINE_CHARS];
        int digit = wsprintfW(port, TEXT("%s-P1"), entry.Name) - 1;
        const BYTE *ip = (const BYTE *)&entry.IPAddress;
        if (entry.IPAddress == 0) LoadStr(IDS_AUTOMATIC_IP, address, 32);
        else wsprintfW(address, TEXT("%i.%i.%i.%i"), ip[0], ip[1], ip[2], ip[3]);
        param.Protocol = entry.AutoProtocol == 0 ? PROTOCOL_TCPIP : PROTOCOL_AUTO;
        for (int j = 0; j < (entry.ModelType & PS_MODEL_PORT_MASK); ++j) {
            port[digit] = (WCHAR)('1' + j);
            if (mode == MODE_TCPIP) wsprintfW(line, TEXT("%-13s %s"), port, address);
            else wsprintfW(line, TEXT("%-13s"), port);
            SendDlgItemMessageW(hDlg, IDC_ADD_ALL_LIST, LB_ADDSTRING, 0, (LPARAM)line);

            param.IPAddress = ntohl(entry.IPAddress);
            lstrcpynW(param.ServerName, entry.Name, SERVER_NAME_CHARS);
            param.Lptn = (BYTE)('1' + j);
            memcpy(param.NodeID, entry.NodeID, NODE_ID_BYTES);
            if (mode == MODE_TCPIP) {
                WCHAR *fields[3] = {param.QueueName1, param.QueueName2, param.QueueName3};
                for (int k = 0; k < 3; ++k) {
                    if (entry.Type == PS_TYPE_QUEUE_NAMES) QueueNameFromSlot(fields[k], &entry.QueueName[k], FALSE);
                    else wsprintfW(fields[k], TEXT("lpt%d"), k + 1);
                }
            }
            CreateNewPort(port, &param);
        }
    }
}

void InitAddPortDlg(HWND hDlg) { InitAddPortDlgOf(MODE_TCPIP, hDlg); }
void IPXInitAddPortDlg(HWND hDlg) { InitAddPortDlgOf(MODE_IPX, hDlg); }
void NBInitAddPortDlg(HWND hDlg) { InitAddPortDlgOf(MODE_NETBIOS, hDlg); }

/* No way to cancel: Continue, or command 1, ends the dialog with 1. */
static INT_PTR AddPortDlgOf(AddPortMode mode, HWND hDlg, UINT uMsg, WPARAM wParam) {
    if (uMsg == WM_INITDIALOG) {
        InitAddPortDlgOf(mode, hDlg);
        return TRUE;
    }
    if (uMsg == WM_COMMAND && (LOWORD(wParam) == IDOK || LOWORD(wParam) == IDC_CONTINUE)) {
        EndDialog(hDlg, 1);
        return TRUE;
    }
    return FALSE;
}

INT_PTR CALLBACK AddPortDlg(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam) {
    (void)lParam;
    return AddPortDlgOf(MODE_TCPIP, hDlg, uMsg, wParam);
}
INT_PTR CALLBACK IPXAddPortDlg(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam) {
    (void)lParam;
    return AddPortDlgOf(MODE_IPX, hDlg, uMsg, wParam);
}
INT_PTR CALLBACK NBAddPortDlg(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam) {
    (void)lParam;
    return AddPortDlgOf(MODE_NETBIOS, hDlg, uMsg, wParam);
}

static BOOL GetPortName2Of(const char *pName, DLGPROC proc, HWND hWnd) {
    DebugLog("\n");
    LogPrintf("Entry %s\n", pName);
    INT_PTR result = DialogBoxParamW(DllInstance, MAKEINTRESOURCEW(DLG_ADD_ALL), hWnd, proc, 0);
    LogPrintf("Leave %s - dialog ended with %d\n", pName, (int)result);
    return result == 1;
}

BOOL GetPortName2(HWND hWnd) { return GetPortName2Of("GetPortName2", AddPortDlg, hWnd); }
BOOL IPXGetPortName2(HWND hWnd) { return GetPortName2Of("IPXGetPortName2", IPXAddPortDlg, hWnd); }
BOOL NBGetPortName2(HWND hWnd) { return GetPortName2Of("NBGetPortName2", NBAddPortDlg, hWnd); }
