/*
 * The port list as a whole: enumeration into the spooler's buffer (records
 * from the front, their strings from the back) and removal of a port.
 */
#include <windows.h>
#include <winspool.h>

#include <stddef.h>
#include <string.h>

#include "debuglog.h"
#include "monitor.h"
#include "portstore.h"

/* The strings of each level's record: where each goes in the output record. */
static const DWORD PortInfo1Strings[] = {offsetof(PORT_INFO_1W, pName), (DWORD)-1};
static const DWORD PortInfo2Strings[] = {offsetof(PORT_INFO_2W, pPortName), offsetof(PORT_INFO_2W, pMonitorName),
                                         offsetof(PORT_INFO_2W, pDescription), (DWORD)-1};

static DWORD PortSize(PINIPORT pIniPort, DWORD Level) {
    if (Level == 1) return sizeof(PORT_INFO_1W) + (DWORD)(lstrlenW(pIniPort->pName) + 1) * sizeof(WCHAR);
    if (Level == 2)
        return sizeof(PORT_INFO_2W) + (DWORD)(lstrlenW(pIniPort->pName) + lstrlenW(pIniPort->pDeviceDesc) +
                                              lstrlenW(MonitorName) + 3) *
                                          sizeof(WCHAR);
    return 0;
}

LPBYTE CopyIniPortToPort(PINIPORT pIniPort, DWORD Level, LPBYTE pEntry, LPBYTE pEnd) {
    LPCWSTR sources[3];
    const DWORD *offsets;
    if (Level == 1) {
        offsets = PortInfo1Strings;
        sources[0] = pIniPort->pName;
    } else if (Level == 2) {
        offsets = PortInfo2Strings;
        sources[0] = pIniPort->pName;
        sources[1] = MonitorName;
        sources[2] = pIniPort->pDeviceDesc;
        PORT_INFO_2W *info = (PORT_INFO_2W *)pEntry;
        info->fPortType = PORT_TYPE_WRITE;
        info->Reserved = 0;
    } else {
        LogPrintf("Leave CopyIniPortToPort - Level error (level = %d)\n", (int)Level);
        return pEnd;
    }
    for (int i = 0; offsets[i] != (DWORD)-1; ++i) {
        LPWSTR *field = (LPWSTR *)(pEntry + offsets[i]);
        if (sources[i] == NULL) {
            *field = NULL;
            continue;
        }
        DWORD cb = (DWORD)(lstrlenW(sources[i]) + 1) * sizeof(WCHAR);
        pEnd -= cb;
        memcpy(pEnd, sources[i], cb);
        *field = (LPWSTR)pEnd;
    }
    return pEnd;
}

extern "C" BOOL WINAPI LocalmonEnumPorts(LPWSTR pName, DWORD Level, LPBYTE pPorts, DWORD cbBuf,
                                         LPDWORD pcbNeeded, LPDWORD pcReturned) {
    (void)pName;
    /* The log is off for the whole call: the spooler asks often. */
    BYTE savedDebug = IsDEBUG;
    IsDEBUG = 0;
    if (Level > 2) {
        SetLastError(ERROR_INVALID_LEVEL);
        IsDEBUG = savedDebug;
        return FALSE;
    }
    EnterCriticalSection(&PortListLock);
    DWORD cbNeeded = 0, count = 0;
    for (PINIPORT p = PortListHead; p != NULL; p = p->pNext) {
        cbNeeded += PortSize(p, Level);
        ++count;
    }
    if (pcbNeeded != NULL) *pcbNeeded = cbNeeded;
    if (cbNeeded > cbBuf || pcReturned == NULL || (cbNeeded > 0 && pPorts == NULL)) {
        LeaveCriticalSection(&PortListLock);
        SetLastError(cbNeeded > cbBuf ? ERROR_INSUFFICIENT_BUFFER : ERROR_INVALID_PARAMETER);
        IsDEBUG = savedDebug;
        return FALSE;
    }
    *pcReturned = 0;
    if (Level == 0) {
        /* Nothing to copy at level 0: the count of ports alone. */
        *pcReturned = count;
    } else {
        DWORD cbRecord = Level == 1 ? sizeof(PORT_INFO_1W) : sizeof(PORT_INFO_2W);
        LPBYTE pEntry = pPorts;
        LPBYTE pEnd = pPorts + cbBuf;
        for (PINIPORT p = PortListHead; p != NULL; p = p->pNext) {
            pEnd = CopyIniPortToPort(p, Level, pEntry, pEnd);
            pEntry += cbRecord;
            ++*pcReturned;
        }
    }
    LeaveCriticalSection(&PortListLock);
    IsDEBUG = savedDebug;
    return TRUE;
}

extern "C" BOOL WINAPI LocalmonDeletePort(LPWSTR pName, HWND hWnd, LPWSTR pPortName) {
    (void)hWnd;
    EnterCriticalSection(&PortListLock);
    DebugLog("\n");
    DebugLog("Entry LocalmonDeletePort\n");
    if (pName != NULL) LogWideName("Name: %s \t", pName);
    else DebugLog("Name: NULL \t");
    if (pPortName != NULL) LogWideName("PortName: %s\n", pPortName);
    else DebugLog("PortName: NULL\n");
    DebugLog("Call DeleteMonitorPortEntry\n");
    BOOL result = DeleteMonitorPortEntry(pPortName);
    if (result) {
        DebugLog("DeleteMonitorPortEntry return TRUE , call DeletePortRegistry\n");
        DeletePortRegistry(pPortName);
    } else {
        DebugLog("DeleteMonitorPortEntry return FALSE\n");
    }
    LeaveCriticalSection(&PortListLock);
    LogPrintf("Leave LocalmonDeletePort (return = %d)\n", result);
    return result;
}
