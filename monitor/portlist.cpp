/*
 * The port list: records in creation order, each one allocation holding the
 * record and its two strings.  A port handle is the record's address.
 */
#include <windows.h>

#include <string.h>

#include "debuglog.h"
#include "monitor.h"

/* The last record, so that appending doesn't walk the whole list: start-up
 * makes every port of the tree one after the other.  Kept by the two
 * operations that change the list; it means nothing while the list is empty. */
static PINIPORT PortListTail;

PINIPORT FindPortFromList(LPCWSTR pName) {
    if (pName == NULL || *pName == 0) return NULL;
    for (PINIPORT p = PortListHead; p != NULL; p = p->pNext)
        if (_wcsicmp(p->pName, pName) == 0) return p;
    return NULL;
}

PINIPORT CreateMonitorPortEntry(LPCWSTR pName, LPCWSTR pDeviceDesc, DWORD IPAddress, const BYTE *NetNum,
                                const BYTE *NodeID, BYTE Lptn) {
    (void)NetNum; /* ports are always on the local network */
    DebugLog("\n");
    DebugLog("Entry CreateMonitorPortEntry\n");
    if (pName != NULL) LogWideName("PortName: %s\n", pName);
    else DebugLog("PortName: NULL\n");
    if (pDeviceDesc != NULL) LogWideName("DeviceDesc: %s\n", pDeviceDesc);
    else DebugLog("DeviceDesc: NULL\n");
    LogPrintf("IPAddress: %08X \t Lptn: %c\n", (unsigned)IPAddress, Lptn);

    DWORD cbName = (DWORD)(lstrlenW(pName) + 1) * sizeof(WCHAR);
    DWORD cbDesc = (DWORD)(lstrlenW(pDeviceDesc) + 1) * sizeof(WCHAR);
    DWORD cb = sizeof(IniPort) + cbName + cbDesc;
    PINIPORT pIniPort = (PINIPORT)LocalAlloc(LPTR, cb);
    if (pIniPort == NULL) {
        DebugLog("Leave CreateMonitorPortEntry\n");
        return NULL;
    }
    pIniPort->pName = (LPWSTR)(pIniPort + 1);
    pIniPort->pDeviceDesc = (LPWSTR)((LPBYTE)pIniPort->pName + cbName);
    if (pName != NULL) memcpy(pIniPort->pName, pName, cbName);
    if (pDeviceDesc != NULL) memcpy(pIniPort->pDeviceDesc, pDeviceDesc, cbDesc);
    pIniPort->cb = cb;
    pIniPort->signature = INIPORT_SIGNATURE;
    pIniPort->pNext = NULL;
    pIniPort->Lptn = Lptn;
    pIniPort->IPAddress = IPAddress;
    if (NodeID != NULL) memcpy(pIniPort->NodeID, NodeID, sizeof pIniPort->NodeID);
    pIniPort->Socket = INVALID_SOCKET;
    memset(pIniPort->NetNum, 0, sizeof pIniPort->NetNum);
    LogPrintf("AllocSplMem success ( %d bytes)\n", (int)cb);

    EnterCriticalSection(&PortListLock);
    if (PortListHead == NULL) {
        PortListHead = pIniPort;
    } else {
        PortListTail->pNext = pIniPort;
    }
    PortListTail = pIniPort;
    LeaveCriticalSection(&PortListLock);
    DebugLog("Leave CreateMonitorPortEntry\n");
    return pIniPort;
}

/* A log line reads the Status of a port that another thread's job may be
 * changing outside PortListLock (the LPR job start, the transports).  The
 * decision to refuse rests on JobHeld, which is written under the lock; the
 * aligned DWORD is read whole, and only the number in the log line can be a
 * moment old.  The thread sanitizer is told not to watch this one read. */
#if defined(__SANITIZE_THREAD__)
__attribute__((noinline, no_sanitize_thread))
#else
__attribute__((noinline))
#endif
DWORD StatusForLog(const IniPort *pIniPort) {
    return *(const volatile DWORD *)&pIniPort->Status;
}

/* The caller holds PortListLock.  A port that a job holds is not removed: its
 * record stays valid for the job's thread from the job start's claim to the
 * end of LocalmonEndDocPort, also while the LPR transport has Status at 0
 * between attempts, and the delete fails with ERROR_BUSY. */
BOOL DeleteMonitorPortEntry(LPCWSTR pPortName) {
    DebugLog("\n");
    DebugLog("Entry DeleteMonitorPortEntry\n");
    PINIPORT prev = NULL;
    for (PINIPORT p = PortListHead; p != NULL && pPortName != NULL; prev = p, p = p->pNext) {
        if (_wcsicmp(p->pName, pPortName) != 0) continue;
        /* Status is not 0 only while a job holds the record. */
        if (p->JobHeld) {
            LogPrintf("Leave DeleteMonitorPortEntry - port in use (status: %08X)\n", (unsigned)StatusForLog(p));
            SetLastError(ERROR_BUSY);
            return FALSE;
        }
        if (prev == NULL) PortListHead = p->pNext;
        else prev->pNext = p->pNext;
        if (p == PortListTail) PortListTail = prev;
        LocalFree(p);
        DebugLog("Leave DeleteMonitorPortEntry - success\n");
        return TRUE;
    }
    DebugLog("Leave DeleteMonitorPortEntry - not found\n");
    SetLastError(ERROR_UNKNOWN_PORT);
    return FALSE;
}

extern "C" BOOL WINAPI LocalmonOpenPort(LPWSTR pName, PHANDLE pHandle) {
    EnterCriticalSection(&PortListLock);
    DebugLog("\n");
    DebugLog("Entry LocalmonOpenPort\n");
    if (pName != NULL) LogWideName("Open port name: %s\n", pName);
    else DebugLog("Open port name: NULL\n");
    PINIPORT pIniPort = FindPortFromList(pName);
    if (pIniPort != NULL && pHandle != NULL) *pHandle = (HANDLE)pIniPort;
    LeaveCriticalSection(&PortListLock);
    DebugLog(pIniPort != NULL ? "Leave LocalmonOpenPort - success\n" : "Leave LocalmonOpenPort - not found\n");
    return pIniPort != NULL ? TRUE : FALSE;
}
