/*
 * winsplp.h for POSIX hosts: the monitor's entry table as the spooler reads it.
 */
#ifndef KVT_PLATFORM_WINSPLP_H
#define KVT_PLATFORM_WINSPLP_H

#include <windows.h>
#include <winspool.h>

typedef struct _MONITOR {
    BOOL(WINAPI *pfnEnumPorts)(LPWSTR pName, DWORD Level, LPBYTE pPorts, DWORD cbBuf,
                               LPDWORD pcbNeeded, LPDWORD pcReturned);
    BOOL(WINAPI *pfnOpenPort)(LPWSTR pName, PHANDLE pHandle);
    BOOL(WINAPI *pfnOpenPortEx)(LPWSTR pPortName, LPWSTR pPrinterName, PHANDLE pHandle,
                                struct _MONITOR *pMonitor);
    BOOL(WINAPI *pfnStartDocPort)(HANDLE hPort, LPWSTR pPrinterName, DWORD JobId, DWORD Level,
                                  LPBYTE pDocInfo);
    BOOL(WINAPI *pfnWritePort)(HANDLE hPort, LPBYTE pBuffer, DWORD cbBuf, LPDWORD pcbWritten);
    BOOL(WINAPI *pfnReadPort)(HANDLE hPort, LPBYTE pBuffer, DWORD cbBuffer, LPDWORD pcbRead);
    BOOL(WINAPI *pfnEndDocPort)(HANDLE hPort);
    BOOL(WINAPI *pfnClosePort)(HANDLE hPort);
    BOOL(WINAPI *pfnAddPort)(LPWSTR pName, HWND hWnd, LPWSTR pMonitorName);
    BOOL(WINAPI *pfnAddPortEx)(LPWSTR pName, DWORD Level, LPBYTE lpBuffer, LPWSTR lpMonitorName);
    BOOL(WINAPI *pfnConfigurePort)(LPWSTR pName, HWND hWnd, LPWSTR pPortName);
    BOOL(WINAPI *pfnDeletePort)(LPWSTR pName, HWND hWnd, LPWSTR pPortName);
    BOOL(WINAPI *pfnGetPrinterDataFromPort)(HANDLE hPort, DWORD ControlID, LPWSTR pValueName,
                                            LPWSTR lpInBuffer, DWORD cbInBuffer,
                                            LPWSTR lpOutBuffer, DWORD cbOutBuffer,
                                            LPDWORD lpcbReturned);
    BOOL(WINAPI *pfnSetPortTimeOuts)(HANDLE hPort, LPCOMMTIMEOUTS lpCTO, DWORD reserved);
    BOOL(WINAPI *pfnXcvOpenPort)(LPCWSTR pszObject, ACCESS_MASK GrantedAccess, PHANDLE phXcv);
    DWORD(WINAPI *pfnXcvDataPort)(HANDLE hXcv, LPCWSTR pszDataName, PBYTE pInputData,
                                  DWORD cbInputData, PBYTE pOutputData, DWORD cbOutputData,
                                  PDWORD pcbOutputNeeded);
    BOOL(WINAPI *pfnXcvClosePort)(HANDLE hXcv);
} MONITOR, *LPMONITOR;

/* A port monitor UI library's table, from its InitializePrintMonitorUI. */
typedef struct _MONITORUI {
    DWORD dwMonitorUISize;
    BOOL(WINAPI *pfnAddPortUI)(PCWSTR pszServer, HWND hWnd, PCWSTR pszMonitorNameIn, PWSTR *ppszPortNameOut);
    BOOL(WINAPI *pfnConfigurePortUI)(PCWSTR pName, HWND hWnd, PCWSTR pPortName);
    BOOL(WINAPI *pfnDeletePortUI)(PCWSTR pszServer, HWND hWnd, PCWSTR pszPortName);
} MONITORUI, *PMONITORUI;

typedef struct _MONITOREX {
    DWORD dwMonitorSize;
    MONITOR Monitor;
} MONITOREX, *LPMONITOREX;

#endif /* KVT_PLATFORM_WINSPLP_H */
