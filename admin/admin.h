/*
 * admin.h: port administration.  Message boxes with texts from the string
 * table, the add-port flow with its dialogs, and the configure dialog.
 */
#ifndef KVT_ADMIN_H
#define KVT_ADMIN_H

#include <windows.h>

#include "availps.h"
#include "portstore.h"

/* ---- message boxes --------------------------------------------------------- */
#define IDS_INVALID_PORT_NAME 801
#define IDS_PORT_EXISTS 802
#define IDS_INVALID_IP_ADDRESS 804
#define IDS_MESSAGE_CAPTION 832
#define IDS_TOO_MANY 836
#define IDS_NO_ZERO_ADDRESS 837
#define IDS_ADD_PORT_BUSY 838
#define IDS_DELETE_PORT 1170     /* the UI library's question before a delete */

#define MESSAGE_TEXT_BYTES 2048       /* the formatted text: 1024 wide characters */
#define MESSAGE_FORMAT_CHARS 240      /* room for the text's format */
#define MESSAGE_CAPTION_CHARS 40      /* room for the caption */
#define MESSAGE_FOREGROUND_MS 15000   /* the box comes to the front this often */

/* One per running ShowMessage, on its stack; MessageTlsSlot holds its address
 * while the box stands. */
typedef struct _MESSAGEHOOKSTATE {
    HHOOK Hook;
    HWND Window;
    UINT_PTR Timer; /* 0 while no timer runs */
} MessageHookState;

/* A box with the caption and the text of the string table, the text formatted
 * with the wide-string arguments that follow.  The box's result, or 0 when no
 * box was shown. */
int ShowMessage(HWND hWnd, UINT uType, UINT captionId, UINT textId, ...);
LRESULT CALLBACK MessageHook(int nCode, WPARAM wParam, LPARAM lParam);
void CALLBACK MessageTimer(HWND hWnd, UINT uMsg, UINT_PTR idEvent, DWORD dwTime);

/* ---- port configuration (dialog 550) ------------------------------------------ */
#define DLG_SELECT_PROTOCOL 550
#define IDC_AUTO 551
#define IDC_IPX 552
#define IDC_TCPIP 553
#define IDC_NETBEUI 554
#define IDC_NOTIFY 556
#define IDC_QUEUE_NAME 1000
#define IDC_LPR_SETTING 1009
#define IDC_QUEUE_LABEL 1010
#define IDC_CONFIG_OK 5

#define IDS_AUTO 1123
#define IDS_OK 1128
#define IDS_SELECT_PROTOCOL 1136
#define IDS_NOTIFY_USER 1137
#define IDS_QUEUE_NAME 1154
#define IDS_LPR_SETTING 1155

/* What dialog 550 works on, one record per call on its stack: the port's
 * queue name (the call's copy of what GetPrintProtocol read), its protocol in
 * the registry scheme, and the notify setting while the dialog stands.  The
 * dialog keeps the record's address as its own data (DWLP_USER), so two
 * dialogs that stand at once each read and write only their own. */
typedef struct _CONFIGRECORD {
    LPWSTR QueueNameBuffer;
    DWORD ConfigProtocol;
    BYTE NotifyChoice;
} ConfigRecord;

INT_PTR CALLBACK SelectProtocolDlg(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam);
/* What dialog 550 opens on, read into a record whose QueueNameBuffer has
 * room for PORT_QUEUE_CHARS, and the store of a record (configport.cpp):
 * NULL, or the end of the log line that says why not. */
const char *PortConfigRead(LPCWSTR pPortName, ConfigRecord *pRecord);
const char *PortConfigStore(LPCWSTR pPortName, const ConfigRecord *pRecord);

/* A dialog's title (id 0) or a control's text from the string table. */
void SetTextFromTable(HWND hDlg, int id, UINT stringId);
/* The block a dialog keeps as its own data, set at its start-up. */
void KeepDialogBlock(HWND hDlg, void *pBlock);
void *DialogBlock(HWND hDlg);

/* ---- adding ports (addport.cpp) ------------------------------------------------- */
#define IDS_CREATE_REMOTE 820
#define IDS_AUTOMATIC_IP 821
#define IDS_TCPIP_DISABLED 822
#define IDS_MARKER_FILE 1114   /* "\KVTJLPR" */
#define IDS_LIST_FILE 1115     /* "\KVTLIST.BIN" */
#define IDS_PORT 1120
#define IDS_IP_ADDRESS 1122
#define IDS_CANCEL 1129
#define IDS_PS_LIST 1131
#define IDS_CREATE 1132
#define IDS_PRINT_PORT 1133
#define IDS_ADD_PORT 1134
#define IDS_CONTINUE 1135
#define IDS_PRINTSERVER 1153

#define WINDOWS_FOLDER_CHARS 300     /* room for GetWindowsDirectoryW */
#define HANDOVER_FLAGS 0x04000080    /* FILE_FLAG_DELETE_ON_CLOSE | FILE_ATTRIBUTE_NORMAL */
#define PORT_NAME_CHARS (SERVER_NAME_CHARS + 4)  /* <server>-P1 and the terminator */

BOOL LocalmonAddPort2(LPWSTR pName, HWND hWnd, LPWSTR pMonitorName);
BOOL LocalmonAddPort3(LPWSTR pName, HWND hWnd, LPWSTR pMonitorName);
BOOL AddPortFromFile(void);
/* Empties AvailPS and fills it with the list file's records, under its lock. */
void ReadListFileIntoTable(HANDLE hFile);
/* Opens <Windows folder>\SysWOW64 and the file name of string nameId (the
 * list file or the marker file), to be deleted when the handle closes;
 * INVALID_HANDLE_VALUE when it can't be opened, for whatever reason. */
HANDLE OpenHandOverFile(UINT nameId, DWORD access);
/* The full port name of a block: <server>-P<digit> up to "3", -C<digit - 3> above. */
void FullPortName(WCHAR *pOut /* PORT_NAME_CHARS */, const PortParam *pParam);
/* Sets or clears AddPortBusy under PortListLock. */
void SetAddPortBusy(BOOL busy);
/* Makes port pName from the block unless the list has a port of that name:
 * its record first, then its keys.  FALSE when it exists or no record could
 * be made. */
BOOL CreateNewPort(LPCWSTR pName, const PortParam *pParam);
/* A queue name of the table, in either of its forms, into a PortParam field:
 * its first 31 characters and the terminator. */
void QueueNameFromSlot(WCHAR *pField, const QueueSlot *pSlot, BOOL wide);

/* ---- the port name dialog, 200, and dialog 300 (portname.cpp) ---------------------- */
#define DLG_PORT_NAME 200
#define DLG_REMOTE_SERVER 300
#define IDC_PORT_NAME 201
#define IDC_PS_LIST 203
#define IDC_IP_ADDRESS 205
#define IDC_CREATE 206
#define IDC_LPT1 207   /* then LPT2, LPT3, COM1, COM2 */
#define IDC_COM2 211
#define IDC_PS_LIST_LABEL 219
#define IDC_QUEUE1 1002  /* then 1003, 1004 */
#define IDC_PORT_LABEL 1005
#define IDC_IP_LABEL 1006
#define IDC_PRINT_PORT_LABEL 1007
#define IDC_QUEUE_GROUP 1008
#define IDC_PORT_OK 5
#define IDC_PORT_CANCEL 4
#define IDC_REMOTE_NAME 301
#define IDC_REMOTE_IP 302
#define IDC_REMOTE_LABEL 309

#define IP_TEXT_CHARS 48      /* an address as typed: 47 characters and the terminator */
#define IP_TOKEN_CHARS 8      /* one part of an address, narrowed: 7 characters and the terminator */
#define LIST_LINE_CHARS 128   /* a line of the lists: the name, blanks, the address */

/* The search and the dialog of each transport. */
typedef enum { MODE_TCPIP, MODE_IPX, MODE_NETBIOS } AddPortMode;

BOOL GetPortName(HWND hWnd, PortParam *pParam);
BOOL IPXGetPortName(HWND hWnd, PortParam *pParam);
BOOL NBGetPortName(HWND hWnd, PortParam *pParam);
INT_PTR CALLBACK PortNameDlg(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam);
INT_PTR CALLBACK IPXPortNameDlg(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam);
INT_PTR CALLBACK NBPortNameDlg(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam);
void InitPortNameDlg(HWND hDlg, PortParam *pParam);
void IPXInitPortNameDlg(HWND hDlg, PortParam *pParam);
void NBInitPortNameDlg(HWND hDlg, PortParam *pParam);
void ShowPortSelection(HWND hDlg, int index, int id);
void ShowPortSelection2(HWND hDlg, int index, int id);
void AcceptPortName(HWND hDlg);
void AcceptPortName2(HWND hDlg);
void CreateRemoteServer(HWND hDlg);
INT_PTR CALLBACK RemotePrinterDlg(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam);
void AcceptRemotePrinter(HWND hDlg);
/* Dotted text to IPAddress in the block, first part in the highest byte;
 * TRUE when the text is a valid address.  IPAddress is written in any case. */
BOOL ParseIPAddress(PortParam *pParam, LPCWSTR pText);

/* ---- the Add Port list dialog, 250 (addall.cpp) ------------------------------------- */
#define DLG_ADD_ALL 250
#define IDC_CONTINUE 3
#define IDC_ADD_ALL_LIST 253
#define IDC_ADD_ALL_LABEL 259

BOOL GetPortName2(HWND hWnd);
BOOL IPXGetPortName2(HWND hWnd);
BOOL NBGetPortName2(HWND hWnd);
INT_PTR CALLBACK AddPortDlg(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam);
INT_PTR CALLBACK IPXAddPortDlg(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam);
INT_PTR CALLBACK NBAddPortDlg(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam);
void InitAddPortDlg(HWND hDlg);
void IPXInitAddPortDlg(HWND hDlg);
void NBInitAddPortDlg(HWND hDlg);

#endif /* KVT_ADMIN_H */
