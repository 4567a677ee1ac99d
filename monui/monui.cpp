/*
 * KVT64UI.DLL: the monitor's dialogs in the administrator's own process.  The
 * client side of the spooler asks the monitor for this library's name
 * (MonitorUI), loads it, and calls AddPortUI, ConfigurePortUI or
 * DeletePortUI.  The dialogs are the monitor's own, with the same procedures
 * (admin/); what they would do inside the spooler (search the network, make
 * a port, read and store a port's settings) goes to the monitor through the
 * transceive entries: OpenPrinter(",XcvMonitor <name>" or ",XcvPort <port>"),
 * XcvData and ClosePrinter.  A server name (\\server) before them reaches the
 * monitor of that machine.
 *
 * The UI library writes no log: the monitor logs every transceive call.
 */
#include <winsock2.h>
#include <windows.h>
#include <winspool.h>
#include <winsplp.h>

#include <stdarg.h>
#include <string.h>

#include "admin.h"
#include "debuglog.h"
#include "discovery.h"
#include "monitor.h"
#include "xcv.h"

/* What the shared dialog procedures read of the monitor's globals: in this
 * library they hold what the monitor answered. */
HINSTANCE DllInstance;
DWORD MessageTlsSlot;
std::atomic<BYTE> SupportProtocol;
std::atomic<BYTE> IsDEBUG;
WCHAR DeviceDesc[29];

/* The monitor's handle of the running add, and whether one runs: one add at a
 * time in a process, as in the monitor, since the dialogs share AvailPS. */
static HANDLE AddXcv;
static std::atomic<BOOL> AddRunning;

LPWSTR LoadStr(UINT id, LPWSTR pBuffer, int cch) {
    if (LoadStringW((HMODULE)DllInstance, id, pBuffer, cch) == 0 && cch > 0) pBuffer[0] = 0;
    return pBuffer;
}

/* No log in the administrator's process. */
void DebugLog(const char *text) { (void)text; }
void LogPrintf(const char *format, ...) { (void)format; }
void LogWideName(const char *format, LPCWSTR name) { (void)format, (void)name; }

extern "C" BOOL WINAPI DllEntryPoint(HINSTANCE instance, DWORD reason, LPVOID reserved) {
    (void)reserved;
    if (reason == DLL_PROCESS_ATTACH) {
        DllInstance = instance;
        MessageTlsSlot = TlsAlloc();
        InitializeCriticalSection(&AvailPSLock);
    }
    return TRUE;
}

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved) {
    return DllEntryPoint(instance, reason, reserved);
}

/* Opens the monitor's transceive handle: "[\\server\],Xcv<kind> <name>",
 * asking to administer.  NULL with the last error set. */
static HANDLE OpenXcv(PCWSTR pszServer, const WCHAR *pKind, PCWSTR pName) {
    if (pName == NULL || lstrlenW(pName) > 256 || (pszServer != NULL && lstrlenW(pszServer) > 256)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return NULL;
    }
    WCHAR object[600];
    if (pszServer != NULL && pszServer[0] != 0)
        wsprintfW(object, TEXT("%s\\,Xcv%s %s"), pszServer, pKind, pName);
    else
        wsprintfW(object, TEXT(",Xcv%s %s"), pKind, pName);
    PRINTER_DEFAULTSW defaults = {NULL, NULL, SERVER_ACCESS_ADMINISTER};
    HANDLE h = NULL;
    return OpenPrinterW(object, &h, &defaults) ? h : NULL;
}

/* XcvData, with the monitor's answer as the result (the call's own failure
 * as its last error). */
static DWORD Xcv(HANDLE h, const WCHAR *pName, const void *pIn, DWORD cbIn, void *pOut, DWORD cbOut,
                 DWORD *pcbNeeded) {
    DWORD needed = 0, status = ERROR_SUCCESS;
    if (!XcvDataW(h, pName, (PBYTE)pIn, cbIn, (PBYTE)pOut, cbOut, &needed, &status)) return GetLastError();
    if (pcbNeeded != NULL) *pcbNeeded = needed;
    return status;
}

/* ---- what the dialogs call -------------------------------------------------------- */

/* The search through the monitor into AvailPS: the records answered, each
 * name cut to its field. */
static BOOL SearchThroughMonitor(DWORD transport) {
    BYTE *answer = (BYTE *)LocalAlloc(LPTR, XCV_SEARCH_MAX_BYTES);
    if (answer == NULL) return FALSE;
    DWORD needed = 0;
    DWORD status = Xcv(AddXcv, XCV_SEARCH, &transport, sizeof transport, answer, (DWORD)XCV_SEARCH_MAX_BYTES,
                       &needed);
    XcvSearchHead head;
    memcpy(&head, answer, sizeof head);
    BOOL good = status == ERROR_SUCCESS && needed >= sizeof head && head.Size == sizeof head &&
                head.Count <= AVAILPS_RECORDS && needed == sizeof head + head.Count * sizeof(AvailPSRecord);
    if (good) {
        EnterCriticalSection(&AvailPSLock);
        memcpy(AvailPS, answer + sizeof head, head.Count * sizeof(AvailPSRecord));
        for (DWORD i = 0; i < head.Count; ++i) AvailPS[i].Name[AVAILPS_NAME_CHARS - 1] = 0;
        TotalPrintServer = (int)head.Count;
        LeaveCriticalSection(&AvailPSLock);
        head.DeviceDesc[28] = 0;
        lstrcpynW(DeviceDesc, head.DeviceDesc, 29);
        SupportProtocol = (BYTE)(head.Offered & PROTOCOL_ALL);
    }
    LocalFree(answer);
    return good;
}

BOOL TCPSearch(void) { return SearchThroughMonitor(PROTOCOL_TCPIP); }
BOOL IPXSearch(int passes, int readInfo) {
    (void)passes, (void)readInfo;
    return SearchThroughMonitor(PROTOCOL_IPX);
}
BOOL NBSearch(void) { return SearchThroughMonitor(PROTOCOL_NETBIOS); }

/* Dialog 250's ports, made by the monitor; FALSE when it has one of that name. */
BOOL CreateNewPort(LPCWSTR pName, const PortParam *pParam) {
    (void)pName;
    return Xcv(AddXcv, XCV_ADD_PORT_RECORD, pParam, sizeof *pParam, NULL, 0, NULL) == ERROR_SUCCESS;
}

/* ---- the three entries ---------------------------------------------------------------- */

/* Ends an entry: FALSE with the error, or TRUE. */
static BOOL Done(DWORD error) {
    SetLastError(error);
    return error == ERROR_SUCCESS;
}

/* The dialogs of an add by the transport the monitor's host offers: dialog 200
 * (and 300 from it), or with the marker file dialog 250.  The error. */
static DWORD AddThroughDialogs(HWND hWnd, const XcvHandOverAnswer *pWay, PWSTR *ppszPortNameOut) {
    SupportProtocol = (BYTE)(pWay->Offered & PROTOCOL_ALL);
    AddPortMode mode = (SupportProtocol & PROTOCOL_TCPIP) ? MODE_TCPIP
                       : (SupportProtocol & PROTOCOL_IPX) ? MODE_IPX
                                                          : MODE_NETBIOS;
    EnterCriticalSection(&AvailPSLock);
    TotalPrintServer = 0;
    LeaveCriticalSection(&AvailPSLock);
    if (pWay->Way == XCV_HANDOVER_MARKER) {
        BOOL shown = mode == MODE_TCPIP ? GetPortName2(hWnd) : mode == MODE_IPX ? IPXGetPortName2(hWnd)
                                                                                : NBGetPortName2(hWnd);
        return shown ? ERROR_SUCCESS : ERROR_CANCELLED;
    }
    PortParam param;
    BOOL chosen = mode == MODE_TCPIP ? GetPortName(hWnd, &param)
                  : mode == MODE_IPX ? IPXGetPortName(hWnd, &param)
                                     : NBGetPortName(hWnd, &param);
    if (!chosen || param.ServerName[0] == 0) return ERROR_CANCELLED;
    WCHAR port[PORT_NAME_CHARS];
    FullPortName(port, &param);
    DWORD status = Xcv(AddXcv, XCV_ADD_PORT_RECORD, &param, sizeof param, NULL, 0, NULL);
    if (status == ERROR_ALREADY_EXISTS) {
        ShowMessage(hWnd, MB_ICONSTOP, IDS_MESSAGE_CAPTION, IDS_PORT_EXISTS, DeviceDesc, port);
        return ERROR_CANCELLED;
    }
    if (status != ERROR_SUCCESS) return status;
    if (ppszPortNameOut != NULL) {
        *ppszPortNameOut = (PWSTR)LocalAlloc(LPTR, sizeof port);
        if (*ppszPortNameOut != NULL) lstrcpyW(*ppszPortNameOut, port);
    }
    return ERROR_SUCCESS;
}

/* The new port's name, when one dialog made one, is in *ppszPortNameOut (the
 * caller frees it with LocalFree). */
static BOOL WINAPI UiAddPort(PCWSTR pszServer, HWND hWnd, PCWSTR pszMonitorNameIn, PWSTR *ppszPortNameOut) {
    if (ppszPortNameOut != NULL) *ppszPortNameOut = NULL;
    if (hWnd == NULL) return Done(ERROR_CANCELLED);
    BOOL expected = FALSE;
    if (!AddRunning.compare_exchange_strong(expected, TRUE)) {
        ShowMessage(hWnd, MB_ICONSTOP, IDS_MESSAGE_CAPTION, IDS_ADD_PORT_BUSY);
        return Done(ERROR_CANCELLED);
    }
    HANDLE h = OpenXcv(pszServer, TEXT("Monitor"), pszMonitorNameIn);
    if (h == NULL) {
        DWORD error = GetLastError();
        AddRunning = FALSE;
        return Done(error);
    }
    AddXcv = h;
    XcvHandOverAnswer way = {XCV_HANDOVER_NONE, 0};
    DWORD error = Xcv(h, XCV_HAND_OVER, NULL, 0, &way, sizeof way, NULL);
    if (error == ERROR_SUCCESS && way.Way != XCV_HANDOVER_LIST) error = AddThroughDialogs(hWnd, &way, ppszPortNameOut);
    AddXcv = NULL;
    ClosePrinter(h);
    AddRunning = FALSE;
    return Done(error);
}

static BOOL WINAPI UiConfigurePort(PCWSTR pName, HWND hWnd, PCWSTR pPortName) {
    if (hWnd == NULL) return Done(ERROR_CANCELLED);
    HANDLE h = OpenXcv(pName, TEXT("Port"), pPortName);
    if (h == NULL) return FALSE;
    XcvConfig config;
    memset(&config, 0, sizeof config);
    DWORD error = Xcv(h, XCV_GET_CONFIG, NULL, 0, &config, sizeof config, NULL);
    if (error == ERROR_SUCCESS) {
        config.QueueName[PORT_QUEUE_CHARS - 1] = 0;
        SupportProtocol = (BYTE)(config.Offered & PROTOCOL_ALL);
        ConfigRecord record = {config.QueueName, config.Protocol, config.Notify};
        if (DialogBoxParamW(DllInstance, MAKEINTRESOURCEW(DLG_SELECT_PROTOCOL), hWnd, SelectProtocolDlg,
                            (LPARAM)&record) <= 0) {
            error = ERROR_CANCELLED;
        } else {
            config.Protocol = record.ConfigProtocol;
            config.Notify = record.NotifyChoice;
            config.Offered = 0;
            error = Xcv(h, XCV_SET_CONFIG, &config, sizeof config, NULL, 0, NULL);
        }
    }
    ClosePrinter(h);
    return Done(error);
}

static BOOL WINAPI UiDeletePort(PCWSTR pszServer, HWND hWnd, PCWSTR pszPortName) {
    if (hWnd == NULL || pszPortName == NULL) return Done(hWnd == NULL ? ERROR_CANCELLED : ERROR_INVALID_PARAMETER);
    /* Opened first: a port that is not there is said so without a question. */
    HANDLE h = OpenXcv(pszServer, TEXT("Port"), pszPortName);
    if (h == NULL) return FALSE;
    DWORD error = ERROR_CANCELLED;
    if (ShowMessage(hWnd, MB_YESNO | MB_ICONQUESTION, IDS_MESSAGE_CAPTION, IDS_DELETE_PORT, pszPortName) == IDYES)
        error = Xcv(h, XCV_DELETE_PORT, pszPortName, (DWORD)(lstrlenW(pszPortName) + 1) * sizeof(WCHAR), NULL, 0,
                    NULL);
    ClosePrinter(h);
    return Done(error);
}

static MONITORUI MonitorUiTable = {sizeof(MONITORUI), UiAddPort, UiConfigurePort, UiDeletePort};

extern "C" PMONITORUI WINAPI InitializePrintMonitorUI(void) { return &MonitorUiTable; }
