/*
 * The port name dialog, 200: a search of the network while it starts up, a
 * list of the print servers found, and for the selected one the port name and
 * address that the new port would get.  OK fills the caller's PortParam; the
 * port itself is made by LocalmonAddPort.  Dialog 300 adds a print server that
 * the search did not find to the table and the list.
 *
 * Three modes, one per transport, differ in their search, and TCP/IP mode
 * alone fills and reads the queue-name boxes.  A list line is the only link
 * from a selection back to the table: its item data is the length of the
 * name at its start, and the name is looked up in the table.  Each dialog
 * keeps the address of its block as its own data (DWLP_USER), never in a
 * global, so one dialog never writes into another's block.
 */
#include <winsock2.h>
#include <windows.h>

#include <stdlib.h>
#include <string.h>

#include "admin.h"
#include "debuglog.h"
#include "discovery.h"
#include "monitor.h"
#include "resource.h"

/* The three queue-name boxes, for printer ports 1 to 3. */
static WCHAR *QueueField(PortParam *pParam, int j) {
    return j == 0 ? pParam->QueueName1 : j == 1 ? pParam->QueueName2 : pParam->QueueName3;
}

BOOL ParseIPAddress(PortParam *pParam, LPCWSTR pText) {
    /* Split on a copy, so that a message can quote the text whole. */
    WCHAR copy[IP_TEXT_CHARS];
    lstrcpynW(copy, pText, IP_TEXT_CHARS);
    BOOL valid = TRUE;
    DWORD address = 0;
    WCHAR *token = wcstok(copy, TEXT("."));
    for (int i = 0; i < 4; ++i) {
        int value = 0;
        if (token == NULL) {
            valid = FALSE;
        } else {
            /* Narrowed into a buffer of a few characters: a longer part is
             * no number of an address. */
            char narrow[IP_TOKEN_CHARS];
            int n = 0;
            while (token[n] != 0 && n < IP_TOKEN_CHARS - 1) {
                narrow[n] = (char)token[n];
                ++n;
            }
            narrow[n] = 0;
            if (token[n] != 0) valid = FALSE;
            else value = atoi(narrow);
            if (value == 0 && narrow[0] != '0') valid = FALSE;
            if (value < 0 || value > 255) valid = FALSE;
            token = wcstok(NULL, TEXT("."));
        }
        address = (address << 8) | (DWORD)(value & 0xFF);
    }
    pParam->IPAddress = address;
    return valid;
}

void FullPortName(WCHAR *pOut /* PORT_NAME_CHARS */, const PortParam *pParam) {
    WCHAR server[SERVER_NAME_CHARS];
    lstrcpynW(server, pParam->ServerName, SERVER_NAME_CHARS);
    BOOL printer = pParam->Lptn <= '3';
    wsprintfW(pOut, TEXT("%s-%c%c"), server, printer ? 'P' : 'C', printer ? pParam->Lptn : pParam->Lptn - 3);
}

/* ---- dialog 300 -------------------------------------------------------------- */

void AcceptRemotePrinter(HWND hDlg) {
    PortParam *p = (PortParam *)DialogBlock(hDlg);
    if (p == NULL) return;
    WCHAR name[SERVER_NAME_CHARS], address[IP_TEXT_CHARS];
    GetDlgItemTextW(hDlg, IDC_REMOTE_NAME, name, SERVER_NAME_CHARS);
    _wcsupr(name);
    GetDlgItemTextW(hDlg, IDC_REMOTE_IP, address, IP_TEXT_CHARS);
    if (!ParseIPAddress(p, address)) {
        ShowMessage(hDlg, MB_ICONSTOP, IDS_MESSAGE_CAPTION, IDS_INVALID_IP_ADDRESS, address);
        return;
    }
    lstrcpynW(p->ServerName, name, SERVER_NAME_CHARS);
    EndDialog(hDlg, 1);
}

INT_PTR CALLBACK RemotePrinterDlg(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam) {
    if (uMsg == WM_INITDIALOG) {
        SetForegroundWindow(hDlg);
        KeepDialogBlock(hDlg, (PortParam *)lParam);
        WCHAR first[32], second[32], title[64];
        wsprintfW(title, TEXT("%s %s"), LoadStr(IDS_CREATE_REMOTE, first, 32), LoadStr(IDS_PRINTSERVER, second, 32));
        SetWindowTextW(hDlg, title);
        SetTextFromTable(hDlg, IDC_REMOTE_LABEL, IDS_PRINTSERVER);
        SetTextFromTable(hDlg, IDC_PORT_OK, IDS_OK);
        SetTextFromTable(hDlg, IDC_PORT_CANCEL, IDS_CANCEL);
        /* A person sees where the name ends: it is read with room for 47. */
        SendDlgItemMessageW(hDlg, IDC_REMOTE_NAME, EM_LIMITTEXT, SERVER_NAME_CHARS - 1, 0);
        return TRUE;
    }
    if (uMsg != WM_COMMAND) return FALSE;
    switch (LOWORD(wParam)) {
    case IDOK:
    case IDC_PORT_OK: AcceptRemotePrinter(hDlg); return TRUE;
    case IDCANCEL:
    case IDC_PORT_CANCEL: EndDialog(hDlg, 0); return TRUE;
    default: return FALSE;
    }
}

/* ---- dialog 200 ---------------------------------------------------------------- */

/* The list line of a record, with its name's length as item data. */
static void AddServerLine(HWND hDlg, const AvailPSRecord *pEntry) {
    WCHAR line[LIST_LINE_CHARS], column[32];
    const BYTE *ip = (const BYTE *)&pEntry->IPAddress;
    if ((pEntry->Flags & PS_FLAG_TCPIP_ENABLED) == 0)
        wsprintfW(line, TEXT("%-10s %s"), pEntry->Name, LoadStr(IDS_TCPIP_DISABLED, column, 32));
    else if (pEntry->IPAddress == 0)
        wsprintfW(line, TEXT("%-10s %s"), pEntry->Name, LoadStr(IDS_AUTOMATIC_IP, column, 32));
    else
        wsprintfW(line, TEXT("%-10s %i.%i.%i.%i"), pEntry->Name, ip[0], ip[1], ip[2], ip[3]);
    LRESULT at = SendDlgItemMessageW(hDlg, IDC_PS_LIST, LB_ADDSTRING, 0, (LPARAM)line);
    SendDlgItemMessageW(hDlg, IDC_PS_LIST, LB_SETITEMDATA, (WPARAM)at, (LPARAM)lstrlenW(pEntry->Name));
}

static void InitPortNameDlgOf(AddPortMode mode, HWND hDlg, PortParam *pParam) {
    static const struct {
        int id;
        UINT text;
    } texts[] = {{0, IDS_ADD_PORT},          {IDC_PS_LIST_LABEL, IDS_PS_LIST}, {IDC_CREATE, IDS_CREATE},
                 {IDC_PORT_OK, IDS_OK},      {IDC_PORT_CANCEL, IDS_CANCEL},  {IDC_PORT_LABEL, IDS_PORT},
                 {IDC_IP_LABEL, IDS_IP_ADDRESS}, {IDC_PRINT_PORT_LABEL, IDS_PRINT_PORT},
                 {IDC_QUEUE_GROUP, IDS_QUEUE_NAME}};
    SetForegroundWindow(hDlg);
    KeepDialogBlock(hDlg, pParam);
    for (size_t i = 0; i < sizeof texts / sizeof texts[0]; ++i) SetTextFromTable(hDlg, texts[i].id, texts[i].text);
    if (mode != MODE_TCPIP && (SupportProtocol & PROTOCOL_TCPIP) == 0)
        EnableWindow(GetDlgItem(hDlg, IDC_CREATE), FALSE);

    if (mode == MODE_TCPIP) TCPSearch();
    else if (mode == MODE_IPX) IPXSearch(3, 1);
    else NBSearch();
    int total = AvailPSCount();
    if (total == 0) return;
    for (int i = 0; i < total; ++i) {
        AvailPSRecord entry;
        if (CopyAvailPS(i, &entry)) AddServerLine(hDlg, &entry);
    }
    SendDlgItemMessageW(hDlg, IDC_PS_LIST, LB_SETCURSEL, 0, 0);
    if (mode == MODE_TCPIP) ShowPortSelection(hDlg, 0, IDC_PS_LIST);
    else ShowPortSelection2(hDlg, 0, IDC_PS_LIST);
    CheckRadioButton(hDlg, IDC_LPT1, IDC_COM2, IDC_LPT1);
}

void InitPortNameDlg(HWND hDlg, PortParam *pParam) { InitPortNameDlgOf(MODE_TCPIP, hDlg, pParam); }
void IPXInitPortNameDlg(HWND hDlg, PortParam *pParam) { InitPortNameDlgOf(MODE_IPX, hDlg, pParam); }
void NBInitPortNameDlg(HWND hDlg, PortParam *pParam) { InitPortNameDlgOf(MODE_NETBIOS, hDlg, pParam); }

/* The first n characters of text are those of prefix; a shorter text is not. */
static BOOL StartsWith(const WCHAR *text, const WCHAR *prefix, int n) {
    for (int i = 0; i < n; ++i)
        if (text[i] != prefix[i] || text[i] == 0) return FALSE;
    return TRUE;
}

static void SelectionOf(AddPortMode mode, HWND hDlg, int index, int id) {
    int n = 1;
    for (int radio = IDC_LPT1 + 1; radio <= IDC_COM2; ++radio)
        if (IsDlgButtonChecked(hDlg, radio) == BST_CHECKED) n = radio - IDC_LPT1 + 1;
    if (id == IDC_PS_LIST) n = 1;
    CheckRadioButton(hDlg, IDC_LPT1, IDC_COM2, IDC_LPT1 + n - 1);

    WCHAR line[LIST_LINE_CHARS];
    LRESULT length = SendDlgItemMessageW(hDlg, IDC_PS_LIST, LB_GETTEXTLEN, (WPARAM)index, 0);
    if (length < 0 || length >= LIST_LINE_CHARS) return;
    SendDlgItemMessageW(hDlg, IDC_PS_LIST, LB_GETTEXT, (WPARAM)index, (LPARAM)line);
    LRESULT nameLength = SendDlgItemMessageW(hDlg, IDC_PS_LIST, LB_GETITEMDATA, (WPARAM)index, 0);
    if (nameLength < 0 || nameLength > length || nameLength >= SERVER_NAME_CHARS) return;

    /* The first word behind the name is the address column. */
    WCHAR *word = line + nameLength;
    while (*word == ' ') ++word;
    WCHAR *end = word;
    while (*end != 0 && *end != ' ') ++end;
    *end = 0;
    WCHAR automatic[32];
    LoadStr(IDS_AUTOMATIC_IP, automatic, 32);
    if (StartsWith(word, automatic, 4) || StartsWith(word, TEXT("TCP"), 3))
        word = (WCHAR *)TEXT("0.0.0.0");
    line[nameLength] = 0;

    WCHAR port[PORT_NAME_CHARS];
    wsprintfW(port, TEXT("%s-%c%d"), line, n <= 3 ? 'P' : 'C', n <= 3 ? n : n - 3);
    SetDlgItemTextW(hDlg, IDC_PORT_NAME, port);
    SetDlgItemTextW(hDlg, IDC_IP_ADDRESS, word);
    for (int radio = IDC_LPT1; radio <= IDC_COM2; ++radio)
        EnableWindow(GetDlgItem(hDlg, radio), radio < IDC_LPT1 + 3);

    AvailPSRecord entry;
    if (!FindAvailPS(line, &entry)) return;
    if (mode == MODE_TCPIP) {
        static const WCHAR *const plain[3] = {TEXT("lpt1"), TEXT("lpt2"), TEXT("lpt3")};
        for (int j = 0; j < 3; ++j) {
            WCHAR queue[AVAILPS_QUEUE_TEXT_BYTES];
            if (entry.Type == PS_TYPE_QUEUE_NAMES)
                WidenText((const BYTE *)entry.QueueName[j].Text, AVAILPS_QUEUE_TEXT_BYTES, queue,
                          AVAILPS_QUEUE_TEXT_BYTES);
            else
                lstrcpyW(queue, j == 0 || entry.ModelType == 3 ? plain[j] : TEXT(""));
            SetDlgItemTextW(hDlg, IDC_QUEUE1 + j, queue);
            if (j > 0) EnableWindow(GetDlgItem(hDlg, IDC_QUEUE1 + j), entry.ModelType != 1);
        }
    }
    if (entry.ModelType == 1) {
        EnableWindow(GetDlgItem(hDlg, IDC_LPT1 + 1), FALSE);
        EnableWindow(GetDlgItem(hDlg, IDC_LPT1 + 2), FALSE);
    }
}

void ShowPortSelection(HWND hDlg, int index, int id) { SelectionOf(MODE_TCPIP, hDlg, index, id); }
void ShowPortSelection2(HWND hDlg, int index, int id) { SelectionOf(MODE_IPX, hDlg, index, id); }

/* The Port box's text, read with room for the longest port name, into pName
 * less its suffix, and the digit key of the suffix; FALSE, after message 801,
 * for a text of fewer than three characters. */
static BOOL ReadPortName(HWND hDlg, WCHAR *pName /* PORT_NAME_CHARS */, BYTE *pLptn, BOOL upper) {
    GetDlgItemTextW(hDlg, IDC_PORT_NAME, pName, PORT_NAME_CHARS);
    int length = lstrlenW(pName);
    if (length < 3) {
        ShowMessage(hDlg, MB_ICONSTOP, IDS_MESSAGE_CAPTION, IDS_INVALID_PORT_NAME, pName);
        return FALSE;
    }
    if (upper) _wcsupr(pName);
    WCHAR letter = pName[length - 2], digit = pName[length - 1];
    pName[length - 3] = 0;
    *pLptn = (BYTE)(letter == 'P' ? digit : digit + 3);
    return TRUE;
}

void AcceptPortName(HWND hDlg) {
    PortParam *p = (PortParam *)DialogBlock(hDlg);
    if (p == NULL) return;
    WCHAR name[PORT_NAME_CHARS], address[IP_TEXT_CHARS];
    BYTE lptn;
    if (!ReadPortName(hDlg, name, &lptn, TRUE)) return;
    GetDlgItemTextW(hDlg, IDC_IP_ADDRESS, address, IP_TEXT_CHARS);
    if (!ParseIPAddress(p, address)) {
        ShowMessage(hDlg, MB_ICONSTOP, IDS_MESSAGE_CAPTION, IDS_INVALID_IP_ADDRESS, address);
        return;
    }
    lstrcpynW(p->ServerName, name, SERVER_NAME_CHARS);
    p->Lptn = lptn;
    AvailPSRecord entry;
    if (FindAvailPS(p->ServerName, &entry)) {
        for (int j = 0; j < 3; ++j) {
            if (entry.Type == PS_TYPE_QUEUE_NAMES)  /* a longer text is cut at the field's 31 characters */
                GetDlgItemTextW(hDlg, IDC_QUEUE1 + j, QueueField(p, j), PORT_QUEUE_CHARS);
            else
                lstrcpyW(QueueField(p, j), j == 0 ? TEXT("lpt1")
                                           : entry.ModelType != 3 ? TEXT("")
                                           : j == 1 ? TEXT("lpt2") : TEXT("lpt3"));
        }
        if (entry.AutoProtocol == 0) p->Protocol = PROTOCOL_TCPIP;
        memcpy(p->NodeID, entry.NodeID, NODE_ID_BYTES);
    }
    EndDialog(hDlg, 1);
}

/* What the table's record of that name gives a port of IPX or NetBIOS mode:
 * Protocol, the address in host order and NodeID; without a record they stay
 * as they are. */
static void TakeFromTable(PortParam *p) {
    AvailPSRecord entry;
    if (!FindAvailPS(p->ServerName, &entry)) return;
    if (entry.AutoProtocol == 0) p->Protocol = PROTOCOL_TCPIP;
    p->IPAddress = ntohl(entry.IPAddress);
    memcpy(p->NodeID, entry.NodeID, NODE_ID_BYTES);
}

void AcceptPortName2(HWND hDlg) {
    PortParam *p = (PortParam *)DialogBlock(hDlg);
    if (p == NULL) return;
    WCHAR name[PORT_NAME_CHARS];
    if (!ReadPortName(hDlg, name, &p->Lptn, FALSE)) return;
    lstrcpynW(p->ServerName, name, SERVER_NAME_CHARS);
    TakeFromTable(p);
    EndDialog(hDlg, 1);
}

void CreateRemoteServer(HWND hDlg) {
    if (AvailPSCount() >= AVAILPS_RECORDS) {
        ShowMessage(hDlg, MB_ICONSTOP, IDS_MESSAGE_CAPTION, IDS_TOO_MANY, DeviceDesc);
        return;
    }
    PortParam block;
    memset(&block, 0, sizeof block);
    if (DialogBoxParamW(DllInstance, MAKEINTRESOURCEW(DLG_REMOTE_SERVER), hDlg, RemotePrinterDlg,
                        (LPARAM)&block) != 1)
        return;
    if (block.IPAddress == 0) {
        ShowMessage(hDlg, MB_ICONSTOP, IDS_MESSAGE_CAPTION, IDS_NO_ZERO_ADDRESS, DeviceDesc);
        return;
    }
    EnterCriticalSection(&AvailPSLock);
    int index = AvailPSNextIndex(TotalPrintServer, block.ServerName);
    if (index >= 0) {
        AvailPSRecord *entry = &AvailPS[index];
        lstrcpynW(entry->Name, block.ServerName, AVAILPS_NAME_CHARS);
        entry->IPAddress = htonl(block.IPAddress);
        entry->Flags = PS_FLAG_TCPIP_SUPPORTED | PS_FLAG_TCPIP_ENABLED;
        for (int j = 0; j < 3; ++j) {
            memset(entry->QueueName[j].Text, 0, AVAILPS_QUEUE_TEXT_BYTES);
            memcpy(entry->QueueName[j].Text, "lpt", 3);
            entry->QueueName[j].Text[3] = (char)('1' + j);
        }
        memset(entry->Reserved, 0, sizeof entry->Reserved);
        memset(entry->NodeID, 0, sizeof entry->NodeID);
        TotalPrintServer = index + 1;
    }
    LeaveCriticalSection(&AvailPSLock);
    if (index < 0) return;

    WCHAR line[LIST_LINE_CHARS];
    DWORD a = block.IPAddress;
    wsprintfW(line, TEXT("%-10s %i.%i.%i.%i"), block.ServerName, (int)(a >> 24), (int)((a >> 16) & 0xFF),
              (int)((a >> 8) & 0xFF), (int)(a & 0xFF));
    LRESULT at = SendDlgItemMessageW(hDlg, IDC_PS_LIST, LB_ADDSTRING, 0, (LPARAM)line);
    SendDlgItemMessageW(hDlg, IDC_PS_LIST, LB_SETITEMDATA, (WPARAM)at, (LPARAM)lstrlenW(block.ServerName));
}

static INT_PTR PortNameDlgOf(AddPortMode mode, HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam) {
    if (uMsg == WM_INITDIALOG) {
        InitPortNameDlgOf(mode, hDlg, (PortParam *)lParam);
        return TRUE;
    }
    if (uMsg != WM_COMMAND) return FALSE;
    int id = LOWORD(wParam);
    switch (id) {
    case IDOK:
    case IDC_PORT_OK:
        if (mode == MODE_TCPIP) AcceptPortName(hDlg);
        else AcceptPortName2(hDlg);
        return TRUE;
    case IDCANCEL:
    case IDC_PORT_CANCEL: EndDialog(hDlg, 0); return TRUE;
    case IDC_CREATE: CreateRemoteServer(hDlg); return TRUE;
    default:
        if (id != IDC_PS_LIST && (id < IDC_LPT1 || id > IDC_COM2)) return FALSE;
        {
            LRESULT selected = SendDlgItemMessageW(hDlg, IDC_PS_LIST, LB_GETCURSEL, 0, 0);
            if (selected < 0) return TRUE;
            if (mode == MODE_TCPIP) ShowPortSelection(hDlg, (int)selected, id);
            else ShowPortSelection2(hDlg, (int)selected, id);
        }
        return TRUE;
    }
}

INT_PTR CALLBACK PortNameDlg(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam) {
    return PortNameDlgOf(MODE_TCPIP, hDlg, uMsg, wParam, lParam);
}
INT_PTR CALLBACK IPXPortNameDlg(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam) {
    return PortNameDlgOf(MODE_IPX, hDlg, uMsg, wParam, lParam);
}
INT_PTR CALLBACK NBPortNameDlg(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam) {
    return PortNameDlgOf(MODE_NETBIOS, hDlg, uMsg, wParam, lParam);
}

static BOOL GetPortNameOf(const char *pName, DLGPROC proc, HWND hWnd, PortParam *pParam) {
    DebugLog("\n");
    LogPrintf("Entry %s\n", pName);
    memset(pParam, 0, sizeof *pParam);
    INT_PTR result = DialogBoxParamW(DllInstance, MAKEINTRESOURCEW(DLG_PORT_NAME), hWnd, proc, (LPARAM)pParam);
    LogPrintf("Leave %s - dialog ended with %d\n", pName, (int)result);
    return result == 1;
}

BOOL GetPortName(HWND hWnd, PortParam *pParam) { return GetPortNameOf("GetPortName", PortNameDlg, hWnd, pParam); }
BOOL IPXGetPortName(HWND hWnd, PortParam *pParam) {
    return GetPortNameOf("IPXGetPortName", IPXPortNameDlg, hWnd, pParam);
}
BOOL NBGetPortName(HWND hWnd, PortParam *pParam) {
    return GetPortNameOf("NBGetPortName", NBPortNameDlg, hWnd, pParam);
}
