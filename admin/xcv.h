/*
 * xcv.h: the monitor's transceive entries (XcvOpenPort, XcvDataPort,
 * XcvClosePort) and the layouts of the data that the UI library and the
 * monitor exchange through them.  Every layout is fixed: plain fields of
 * fixed size, the same in both builds (WCHAR is two bytes in each).
 *
 * Data names (docs/xcv.md has the table):
 *   MonitorUI         -> the UI library's file name, terminated
 *   AddPort           <- a port name, terminated: the port with automatic
 *                        address and protocol, queues lpt1..lpt3
 *   DeletePort        <- a port name, terminated
 *   KvtSearch         <- DWORD transport (0: as the dialogs choose)
 *                     -> XcvSearchHead, then Count records of AvailPSRecord
 *   KvtGetConfig      -> XcvConfig of the port the handle was opened on
 *   KvtSetConfig      <- XcvConfig for that port
 *   KvtAddPortRecord  <- PortParam: the port <ServerName>-P<n> (C<n-3>)
 *   KvtHandOver       -> XcvHandOverAnswer
 */
#ifndef KVT_XCV_H
#define KVT_XCV_H

#include <windows.h>

#include "availps.h"
#include "portstore.h"

#define XCV_MONITOR_UI TEXT("MonitorUI")
#define XCV_ADD_PORT TEXT("AddPort")
#define XCV_DELETE_PORT TEXT("DeletePort")
#define XCV_SEARCH TEXT("KvtSearch")
#define XCV_GET_CONFIG TEXT("KvtGetConfig")
#define XCV_SET_CONFIG TEXT("KvtSetConfig")
#define XCV_ADD_PORT_RECORD TEXT("KvtAddPortRecord")
#define XCV_HAND_OVER TEXT("KvtHandOver")

/* The UI library's file name, as MonitorUI gives it. */
#ifdef _WIN32
#define XCV_UI_LIBRARY TEXT("KVT64UI.DLL")
#else
#define XCV_UI_LIBRARY TEXT("libkvt64ui.so")
#endif

/* KvtSearch's answer: this head, then Count records. */
typedef struct _XCVSEARCHHEAD {
    DWORD Size;          /* sizeof(XcvSearchHead) */
    DWORD Transport;     /* the transport searched: PROTOCOL_TCPIP, _IPX or _NETBIOS */
    DWORD Offered;       /* the transports the host offers (SupportProtocol) */
    DWORD Count;         /* records that follow */
    WCHAR DeviceDesc[32];  /* the profile's device name, for the dialogs' messages */
} XcvSearchHead;
/* Room for the largest answer: a client that gives it never needs a second call. */
#define XCV_SEARCH_MAX_BYTES (sizeof(XcvSearchHead) + AVAILPS_RECORDS * sizeof(AvailPSRecord))

/* KvtGetConfig's answer and KvtSetConfig's input. */
typedef struct _XCVCONFIG {
    DWORD Protocol;      /* PROTOCOL_AUTO, _IPX, _TCPIP or _NETBIOS */
    DWORD Offered;       /* answer only: the transports the host offers */
    BYTE Notify;         /* IsNOTIFY: 0 or 1 */
    BYTE Reserved[3];    /* 0 */
    WCHAR QueueName[PORT_QUEUE_CHARS];  /* terminated within the field */
} XcvConfig;

/* KvtHandOver's answer: the way the add takes, and the transports offered
 * (the dialogs' choice of search and of buttons). */
typedef struct _XCVHANDOVERANSWER {
    DWORD Way;
    DWORD Offered;
} XcvHandOverAnswer;
#define XCV_HANDOVER_NONE 0    /* no file: the UI shows dialog 200 */
#define XCV_HANDOVER_LIST 1    /* the list file's ports are made */
#define XCV_HANDOVER_MARKER 2  /* the marker file was there: the UI shows dialog 250 */

BOOL WINAPI LocalmonXcvOpenPort(LPCWSTR pszObject, ACCESS_MASK GrantedAccess, PHANDLE phXcv);
DWORD WINAPI LocalmonXcvDataPort(HANDLE hXcv, LPCWSTR pszDataName, PBYTE pInputData, DWORD cbInputData,
                                 PBYTE pOutputData, DWORD cbOutputData, PDWORD pcbOutputNeeded);
BOOL WINAPI LocalmonXcvClosePort(HANDLE hXcv);

/* The checks of KvtAddPortRecord's and KvtSetConfig's inputs, shared with the
 * tests: TRUE when every field is in range and every text terminated. */
BOOL XcvPortParamValid(const PortParam *pParam);
BOOL XcvConfigValid(const XcvConfig *pConfig);

#endif /* KVT_XCV_H */
