/*
 * The transceive entries: how the UI library, in the administrator's own
 * process, reaches the monitor inside the spooler.  XcvOpenPort keeps what a
 * handle was opened on (the monitor, or one port) and the access granted;
 * XcvDataPort answers the data names of xcv.h; XcvClosePort frees the handle.
 *
 * Every input is measured before it is read: a short, long or malformed one
 * gets ERROR_INVALID_PARAMETER and changes nothing, a short output buffer
 * ERROR_INSUFFICIENT_BUFFER with the size needed.  A change (add, configure,
 * delete, the hand-over files) needs SERVER_ACCESS_ADMINISTER in the granted
 * access, else ERROR_ACCESS_DENIED.  No entry shows a window: the spooler
 * runs where nobody sees one.
 */
#include <winsock2.h>
#include <windows.h>
#include <winspool.h>

#include <string.h>

#include "admin.h"
#include "debuglog.h"
#include "discovery.h"
#include "monitor.h"
#include "nbstartup.h"
#include "portstore.h"
#include "resource.h"
#include "xcv.h"

#define XCV_SIGNATURE 0x4B565843 /* "KVXC" */

/* One per open handle. */
typedef struct _XCVHANDLE {
    DWORD Signature;
    ACCESS_MASK GrantedAccess;
    BOOL OnPort;                       /* FALSE: opened on the monitor */
    WCHAR PortName[PORT_NAME_CHARS];   /* the port, when OnPort */
} XcvHandle;

static_assert(sizeof(XcvSearchHead) == 80, "KvtSearch's head is part of the interface");
static_assert(sizeof(XcvConfig) == 76, "KvtGetConfig's layout is part of the interface");
static_assert(sizeof(PortParam) == 304, "KvtAddPortRecord's layout is part of the interface");
static_assert(sizeof(AvailPSRecord) == 516, "KvtSearch's records are part of the interface");

/* The length of a terminated text within cch characters, or -1 when the
 * field holds no terminator. */
static int TextLength(const WCHAR *pText, int cch) {
    for (int i = 0; i < cch; ++i)
        if (pText[i] == 0) return i;
    return -1;
}

/* A port name given as input: terminated exactly at its end, of the form
 * <server>-P1..P3 or -C1..C2 with a server of 1 to 47 characters. */
static BOOL PortNameInput(const BYTE *pInput, DWORD cb, WCHAR *pOut /* PORT_NAME_CHARS */) {
    if (pInput == NULL || cb < 2 * sizeof(WCHAR) || cb % sizeof(WCHAR) != 0 || cb > PORT_NAME_CHARS * sizeof(WCHAR))
        return FALSE;
    memcpy(pOut, pInput, cb);
    int cch = (int)(cb / sizeof(WCHAR));
    if (TextLength(pOut, cch) != cch - 1) return FALSE;
    int len = cch - 1;
    return len >= 4 && DigitKeyFromPortName(pOut) != 0;
}

BOOL XcvPortParamValid(const PortParam *p) {
    int len = TextLength(p->ServerName, SERVER_NAME_CHARS);
    if (len < 1 || p->Lptn < '1' || p->Lptn > '5') return FALSE;
    for (int i = 0; i < len; ++i)
        if (p->ServerName[i] == '\\') return FALSE; /* a key path's separator */
    if (p->Protocol != PROTOCOL_AUTO && p->Protocol != PROTOCOL_IPX && p->Protocol != PROTOCOL_TCPIP &&
        p->Protocol != PROTOCOL_NETBIOS)
        return FALSE;
    return TextLength(p->QueueName1, PORT_QUEUE_CHARS) >= 0 && TextLength(p->QueueName2, PORT_QUEUE_CHARS) >= 0 &&
           TextLength(p->QueueName3, PORT_QUEUE_CHARS) >= 0;
}

BOOL XcvConfigValid(const XcvConfig *c) {
    if (c->Protocol != PROTOCOL_AUTO && c->Protocol != PROTOCOL_IPX && c->Protocol != PROTOCOL_TCPIP &&
        c->Protocol != PROTOCOL_NETBIOS)
        return FALSE;
    return c->Notify <= 1 && TextLength(c->QueueName, PORT_QUEUE_CHARS) >= 0;
}

BOOL WINAPI LocalmonXcvOpenPort(LPCWSTR pszObject, ACCESS_MASK GrantedAccess, PHANDLE phXcv) {
    DebugLog("\n");
    DebugLog("Entry LocalmonXcvOpenPort\n");
    if (pszObject != NULL) LogWideName("Object: %s \n", pszObject);
    else DebugLog("Object: NULL\n");
    if (phXcv == NULL) {
        SetLastError(ERROR_INVALID_PARAMETER);
        DebugLog("Leave LocalmonXcvOpenPort - no handle to fill\n");
        return FALSE;
    }
    *phXcv = NULL;
    /* The monitor is opened by no name or by its own ("XcvMonitor NAME"). */
    BOOL onPort = pszObject != NULL && pszObject[0] != 0 && lstrcmpiW(pszObject, MonitorName) != 0;
    if (onPort && TextLength(pszObject, PORT_NAME_CHARS) < 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        DebugLog("Leave LocalmonXcvOpenPort - name too long\n");
        return FALSE;
    }
    if (onPort) {
        EnterCriticalSection(&PortListLock);
        BOOL found = FindPortFromList(pszObject) != NULL;
        LeaveCriticalSection(&PortListLock);
        if (!found) {
            SetLastError(ERROR_UNKNOWN_PORT);
            DebugLog("Leave LocalmonXcvOpenPort - no such port\n");
            return FALSE;
        }
    }
    XcvHandle *h = (XcvHandle *)LocalAlloc(LPTR, sizeof(XcvHandle));
    if (h == NULL) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        DebugLog("Leave LocalmonXcvOpenPort - no memory\n");
        return FALSE;
    }
    h->Signature = XCV_SIGNATURE;
    h->GrantedAccess = GrantedAccess;
    h->OnPort = onPort;
    if (onPort) lstrcpynW(h->PortName, pszObject, PORT_NAME_CHARS);
    *phXcv = (HANDLE)h;
    LogPrintf("Leave LocalmonXcvOpenPort - success (access %08X)\n", (unsigned)GrantedAccess);
    return TRUE;
}

BOOL WINAPI LocalmonXcvClosePort(HANDLE hXcv) {
    DebugLog("\n");
    DebugLog("Entry LocalmonXcvClosePort\n");
    XcvHandle *h = (XcvHandle *)hXcv;
    if (h == NULL || h->Signature != XCV_SIGNATURE) {
        SetLastError(ERROR_INVALID_HANDLE);
        DebugLog("Leave LocalmonXcvClosePort - invalid handle\n");
        return FALSE;
    }
    h->Signature = 0;
    LocalFree(h);
    DebugLog("Leave LocalmonXcvClosePort\n");
    return TRUE;
}

/* ---- the data names ------------------------------------------------------------- */

/* Writes cb bytes of pData as the answer, or says how many are needed. */
static DWORD Answer(const void *pData, DWORD cb, PBYTE pOut, DWORD cbOut, PDWORD pcbNeeded) {
    *pcbNeeded = cb;
    if (cbOut < cb || (cb > 0 && pOut == NULL)) return ERROR_INSUFFICIENT_BUFFER;
    if (cb > 0) memcpy(pOut, pData, cb);
    return ERROR_SUCCESS;
}

/* The transport of a search: the one asked for when the host offers it, or
 * with 0 the one the dialogs take (TCP/IP, else IPX, else NetBIOS); 0 when
 * there is none. */
static DWORD SearchTransport(DWORD asked, BYTE offered) {
    if (asked != 0) return (asked == PROTOCOL_TCPIP || asked == PROTOCOL_IPX || asked == PROTOCOL_NETBIOS) &&
                                   (offered & asked) != 0
                               ? asked
                               : 0;
    return (offered & PROTOCOL_TCPIP) ? PROTOCOL_TCPIP : (offered & PROTOCOL_IPX) ? PROTOCOL_IPX
                                                       : (offered & PROTOCOL_NETBIOS) ? PROTOCOL_NETBIOS : 0;
}

/* NetBIOS started up, now or before; a start-up that another thread finished
 * meanwhile counts. */
static BOOL NetBIOSReady(void) {
    if (!bStartup) {
        const LONG runs = NBStartupRuns();
        if (!bStartup) bStartup = NBStartupSince(runs);
    }
    return bStartup;
}

/* KvtSearch: the search into a table of its own (AvailPS is the dialogs'),
 * its records behind the head. */
static DWORD XcvSearch(const BYTE *pIn, DWORD cbIn, PBYTE pOut, DWORD cbOut, PDWORD pcbNeeded) {
    DWORD asked;
    if (pIn == NULL || cbIn != sizeof asked) return ERROR_INVALID_PARAMETER;
    memcpy(&asked, pIn, sizeof asked);
    SupportProtocol = GetProtocol();
    DWORD transport = SearchTransport(asked, SupportProtocol);
    if (transport == 0) return asked == 0 ? ERROR_NOT_SUPPORTED : ERROR_INVALID_PARAMETER;
    if (cbOut < sizeof(XcvSearchHead) || pOut == NULL) {
        *pcbNeeded = (DWORD)XCV_SEARCH_MAX_BYTES;
        return ERROR_INSUFFICIENT_BUFFER;
    }
    if (transport == PROTOCOL_NETBIOS && !NetBIOSReady()) return ERROR_NOT_READY;
    AvailPSTable *table = AvailPSNewTable();
    if (table == NULL) return ERROR_NOT_ENOUGH_MEMORY;
    if (transport == PROTOCOL_TCPIP) TCPSearchInto(table);
    else if (transport == PROTOCOL_IPX) IPXSearchInto(table, 3, 1);
    else NBSearchInto(table);
    LogPrintf("KvtSearch by %d found %d\n", (int)transport, table->Count);

    XcvSearchHead head;
    memset(&head, 0, sizeof head);
    head.Size = sizeof head;
    head.Transport = transport;
    head.Offered = SupportProtocol;
    lstrcpynW(head.DeviceDesc, DeviceDesc, 32);
    DWORD room = (DWORD)((cbOut - sizeof head) / sizeof(AvailPSRecord));
    head.Count = (DWORD)table->Count < room ? (DWORD)table->Count : room;
    DWORD needed = (DWORD)(sizeof head + (DWORD)table->Count * sizeof(AvailPSRecord));
    memcpy(pOut, &head, sizeof head);
    memcpy(pOut + sizeof head, table->Records, head.Count * sizeof(AvailPSRecord));
    LocalFree(table);
    *pcbNeeded = needed;
    return needed <= cbOut ? ERROR_SUCCESS : ERROR_INSUFFICIENT_BUFFER;
}

/* AddPort: a port by its name alone, as a person would type it into the
 * platform's own Add Port box: automatic address, automatic protocol, the
 * print server's default queue names. */
static DWORD XcvAddPortByName(const WCHAR *pName) {
    PortParam param;
    memset(&param, 0, sizeof param);
    int len = lstrlenW(pName);
    if (len - 3 >= SERVER_NAME_CHARS) return ERROR_INVALID_PARAMETER;
    lstrcpynW(param.ServerName, pName, len - 3 + 1);
    param.Lptn = DigitKeyFromPortName(pName);
    lstrcpyW(param.QueueName1, TEXT("lpt1"));
    lstrcpyW(param.QueueName2, TEXT("lpt2"));
    lstrcpyW(param.QueueName3, TEXT("lpt3"));
    _wcsupr(param.ServerName);
    WCHAR full[PORT_NAME_CHARS];
    FullPortName(full, &param);
    if (!XcvPortParamValid(&param) || lstrcmpiW(full, pName) != 0) return ERROR_INVALID_PARAMETER;
    return CreateNewPort(full, &param) ? ERROR_SUCCESS : ERROR_ALREADY_EXISTS;
}

static DWORD XcvAddPortRecord(const BYTE *pIn, DWORD cbIn) {
    PortParam param;
    if (pIn == NULL || cbIn != sizeof param) return ERROR_INVALID_PARAMETER;
    memcpy(&param, pIn, sizeof param);
    if (!XcvPortParamValid(&param)) return ERROR_INVALID_PARAMETER;
    WCHAR port[PORT_NAME_CHARS];
    FullPortName(port, &param);
    return CreateNewPort(port, &param) ? ERROR_SUCCESS : ERROR_ALREADY_EXISTS;
}

static DWORD XcvDeletePort(const WCHAR *pName) {
    EnterCriticalSection(&PortListLock);
    BOOL deleted = DeleteMonitorPortEntry(pName);
    DWORD error = deleted ? ERROR_SUCCESS : GetLastError();
    if (deleted) DeletePortRegistry(pName);
    LeaveCriticalSection(&PortListLock);
    return deleted ? ERROR_SUCCESS : error == ERROR_BUSY ? ERROR_BUSY : ERROR_UNKNOWN_PORT;
}

static DWORD XcvGetConfig(const XcvHandle *h, PBYTE pOut, DWORD cbOut, PDWORD pcbNeeded) {
    XcvConfig config;
    memset(&config, 0, sizeof config);
    ConfigRecord record = {config.QueueName, 0, 0};
    const char *failure = PortConfigRead(h->PortName, &record);
    if (failure != NULL) {
        LogPrintf("KvtGetConfig - %s\n", failure);
        return SupportProtocol == 0 ? ERROR_NOT_SUPPORTED : ERROR_UNKNOWN_PORT;
    }
    config.Protocol = record.ConfigProtocol;
    config.Offered = SupportProtocol;
    config.Notify = record.NotifyChoice;
    return Answer(&config, sizeof config, pOut, cbOut, pcbNeeded);
}

static DWORD XcvSetConfig(const XcvHandle *h, const BYTE *pIn, DWORD cbIn) {
    XcvConfig config;
    if (pIn == NULL || cbIn != sizeof config) return ERROR_INVALID_PARAMETER;
    memcpy(&config, pIn, sizeof config);
    if (!XcvConfigValid(&config)) return ERROR_INVALID_PARAMETER;
    EnterCriticalSection(&PortListLock);
    BOOL found = FindPortFromList(h->PortName) != NULL;
    LeaveCriticalSection(&PortListLock);
    if (!found) return ERROR_UNKNOWN_PORT;
    ConfigRecord record = {config.QueueName, config.Protocol, config.Notify};
    const char *failure = PortConfigStore(h->PortName, &record);
    if (failure != NULL) LogPrintf("KvtSetConfig - %s\n", failure);
    return failure == NULL ? ERROR_SUCCESS : ERROR_UNKNOWN_PORT;
}

/* KvtHandOver: the list file's ports are made as the monitor's own add makes
 * them; the marker file is taken (closing deletes it) and the UI shows the
 * add-everything dialog. */
static DWORD XcvHandOver(PBYTE pOut, DWORD cbOut, PDWORD pcbNeeded) {
    XcvHandOverAnswer answer = {XCV_HANDOVER_NONE, 0};
    *pcbNeeded = sizeof answer;
    if (cbOut < sizeof answer || pOut == NULL) return ERROR_INSUFFICIENT_BUFFER;
    SupportProtocol = GetProtocol();
    answer.Offered = SupportProtocol;
    if (SupportProtocol == 0) return ERROR_NOT_SUPPORTED;
    HANDLE hFile = OpenHandOverFile(IDS_LIST_FILE, GENERIC_READ);
    if (hFile != INVALID_HANDLE_VALUE) {
        ReadListFileIntoTable(hFile);
        AddPortFromFile();
        CloseHandle(hFile);
        answer.Way = XCV_HANDOVER_LIST;
    } else {
        /* A NetBIOS host starts NetBIOS up before the marker file is taken, as
         * the monitor's own add does: a failed start-up leaves the file. */
        if ((SupportProtocol & (PROTOCOL_TCPIP | PROTOCOL_IPX)) == 0 && !NetBIOSReady()) return ERROR_NOT_READY;
        if ((hFile = OpenHandOverFile(IDS_MARKER_FILE, 0)) != INVALID_HANDLE_VALUE) {
            CloseHandle(hFile);
            answer.Way = XCV_HANDOVER_MARKER;
        }
    }
    memcpy(pOut, &answer, sizeof answer);
    return ERROR_SUCCESS;
}

/* The data names, what each is opened on, and whether it changes anything. */
enum { ON_MONITOR = 1, ON_PORT = 2, ON_EITHER = 3 };
static const struct {
    const WCHAR *Name;
    int On;
    BOOL Change;
} DataNames[] = {
    {XCV_MONITOR_UI, ON_EITHER, FALSE},   {XCV_ADD_PORT, ON_EITHER, TRUE},
    {XCV_DELETE_PORT, ON_EITHER, TRUE},   {XCV_SEARCH, ON_EITHER, FALSE},
    {XCV_GET_CONFIG, ON_PORT, FALSE},     {XCV_SET_CONFIG, ON_PORT, TRUE},
    {XCV_ADD_PORT_RECORD, ON_EITHER, TRUE}, {XCV_HAND_OVER, ON_EITHER, TRUE},
};
#define DATA_NAMES (int)(sizeof DataNames / sizeof DataNames[0])

static DWORD XcvDispatch(const XcvHandle *h, int which, PBYTE pIn, DWORD cbIn, PBYTE pOut, DWORD cbOut,
                         PDWORD pcbNeeded) {
    WCHAR name[PORT_NAME_CHARS];
    switch (which) {
    case 0: return Answer(XCV_UI_LIBRARY, sizeof XCV_UI_LIBRARY, pOut, cbOut, pcbNeeded);
    case 1: return PortNameInput(pIn, cbIn, name) ? XcvAddPortByName(name) : ERROR_INVALID_PARAMETER;
    case 2: return PortNameInput(pIn, cbIn, name) ? XcvDeletePort(name) : ERROR_INVALID_PARAMETER;
    case 3: return XcvSearch(pIn, cbIn, pOut, cbOut, pcbNeeded);
    case 4: return cbIn == 0 ? XcvGetConfig(h, pOut, cbOut, pcbNeeded) : ERROR_INVALID_PARAMETER;
    case 5: return XcvSetConfig(h, pIn, cbIn);
    case 6: return XcvAddPortRecord(pIn, cbIn);
    default: return cbIn == 0 ? XcvHandOver(pOut, cbOut, pcbNeeded) : ERROR_INVALID_PARAMETER;
    }
}

DWORD WINAPI LocalmonXcvDataPort(HANDLE hXcv, LPCWSTR pszDataName, PBYTE pInputData, DWORD cbInputData,
                                 PBYTE pOutputData, DWORD cbOutputData, PDWORD pcbOutputNeeded) {
    DebugLog("\n");
    DebugLog("Entry LocalmonXcvDataPort\n");
    const XcvHandle *h = (const XcvHandle *)hXcv;
    if (h == NULL || h->Signature != XCV_SIGNATURE) {
        DebugLog("Leave LocalmonXcvDataPort - invalid handle\n");
        return ERROR_INVALID_HANDLE;
    }
    DWORD unused = 0;
    if (pcbOutputNeeded == NULL) pcbOutputNeeded = &unused;
    *pcbOutputNeeded = 0;
    int which = -1;
    BOOL named = pszDataName != NULL && TextLength(pszDataName, 32) >= 0;
    for (int i = 0; named && i < DATA_NAMES && which < 0; ++i)
        if (lstrcmpW(pszDataName, DataNames[i].Name) == 0) which = i;
    if (which < 0 || (cbInputData > 0 && pInputData == NULL)) {
        DebugLog("Leave LocalmonXcvDataPort - unknown data name\n");
        return ERROR_INVALID_PARAMETER;
    }
    LogWideName("DataName: %s \n", pszDataName);
    if ((DataNames[which].On & (h->OnPort ? ON_PORT : ON_MONITOR)) == 0) {
        DebugLog("Leave LocalmonXcvDataPort - not for this handle\n");
        return ERROR_INVALID_PARAMETER;
    }
    if (DataNames[which].Change && (h->GrantedAccess & SERVER_ACCESS_ADMINISTER) == 0) {
        DebugLog("Leave LocalmonXcvDataPort - access denied\n");
        return ERROR_ACCESS_DENIED;
    }
    DWORD result = XcvDispatch(h, which, pInputData, cbInputData, pOutputData, cbOutputData, pcbOutputNeeded);
    LogPrintf("Leave LocalmonXcvDataPort (return = %u)\n", (unsigned)result);
    return result;
}
