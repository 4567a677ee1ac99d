/*
 * admin.h: port administration.  Message boxes with texts from the string
 * table, and the configure dialog.
 */
#ifndef KVT_ADMIN_H
#define KVT_ADMIN_H

#include <windows.h>

/* ---- message boxes --------------------------------------------------------- */
#define IDS_INVALID_PORT_NAME 801
#define IDS_PORT_EXISTS 802
#define IDS_INVALID_IP_ADDRESS 804
#define IDS_MESSAGE_CAPTION 832
#define IDS_TOO_MANY 836
#define IDS_NO_ZERO_ADDRESS 837
#define IDS_ADD_PORT_BUSY 838

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

/* What dialog 550 works on: the port's queue name (the buffer that
 * GetPrintProtocol fills) and its protocol in the registry scheme. */
typedef struct _CONFIGRECORD {
    LPWSTR QueueNameBuffer;
    DWORD ConfigProtocol;
} ConfigRecord;

/* Valid from a configure call's start to its end, on its own thread: two
 * configure calls at once each have their own. */
extern thread_local ConfigRecord ConfigData;
extern thread_local BYTE NotifyChoice;

INT_PTR CALLBACK SelectProtocolDlg(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam);

#endif /* KVT_ADMIN_H */
