/*
 * Adding ports: the spooler's AddPort entry and its three ways.  Two files
 * that a tool outside the monitor lays in the Windows folder's SysWOW64
 * choose the way: the list file makes its ports silently, the marker file
 * makes every port of every print server found (dialog 250), and without
 * either a person picks one port in dialog 200.  Each file is opened so that
 * it is deleted when its handle closes: it serves one call.
 */
#include <winsock2.h>
#include <windows.h>

#include <string.h>

#include "admin.h"
#include "debuglog.h"
#include "monitor.h"
#include "nbstartup.h"
#include "portstore.h"
#include "resource.h"

void SetAddPortBusy(BOOL busy) {
    EnterCriticalSection(&PortListLock);
    AddPortBusy = busy;
    LeaveCriticalSection(&PortListLock);
}

/* The test and the set of AddPortBusy in one hold of the lock, so that of two
 * adds that start at the same moment only one goes on. */
static BOOL ClaimAddPort(void) {
    EnterCriticalSection(&PortListLock);
    BOOL free = !AddPortBusy;
    if (free) AddPortBusy = TRUE;
    LeaveCriticalSection(&PortListLock);
    return free;
}

HANDLE OpenHandOverFile(UINT nameId, DWORD access) {
    WCHAR path[WINDOWS_FOLDER_CHARS + 64], name[32];
    UINT len = GetWindowsDirectoryW(path, WINDOWS_FOLDER_CHARS);
    if (len == 0 || len >= WINDOWS_FOLDER_CHARS) return INVALID_HANDLE_VALUE;
    lstrcatW(path, TEXT("\\SysWOW64"));
    lstrcatW(path, LoadStr(nameId, name, 32));
    return CreateFileW(path, access, FILE_SHARE_READ, NULL, OPEN_EXISTING, HANDOVER_FLAGS, NULL);
}

BOOL CreateNewPort(LPCWSTR pName, const PortParam *pParam) {
    EnterCriticalSection(&PortListLock);
    BOOL exists = FindPortFromList(pName) != NULL;
    LeaveCriticalSection(&PortListLock);
    if (exists) return FALSE;
    if (CreateMonitorPortEntry(pName, MonitorName, pParam->IPAddress, pParam->NetNum, pParam->NodeID,
                               pParam->Lptn) == NULL)
        return FALSE;
    CreatePortRegistry(pParam);
    return TRUE;
}

void ReadListFileIntoTable(HANDLE hFile) {
    EnterCriticalSection(&AvailPSLock);
    TotalPrintServer = 0;
    ReadListRecords(hFile);
    LeaveCriticalSection(&AvailPSLock);
}

BOOL AddPortFromFile(void) {
    DebugLog("\n");
    DebugLog("Entry AddPortFromFile\n");
    int total = AvailPSCount();
    LogPrintf("Total PrintServer = %d\n", total);
    PortParam param;
    memset(&param, 0, sizeof param);
    for (int i = 0; i < total; ++i) {
        AvailPSRecord entry;
        if (!CopyAvailPS(i, &entry)) break;
        WCHAR port[PORT_NAME_CHARS];
        int digit = wsprintfW(port, TEXT("%s-P1"), entry.Name) - 1;
        LogPrintf(" AvailPS[%d].ModelType = %x\n", i, (unsigned)entry.ModelType);
        for (int j = 0; j < (entry.ModelType & PS_MODEL_PORT_MASK); ++j) {
            if ((entry.PortMask & (1 << j)) == 0) continue;
            param.Protocol = entry.PortProtocol[j];
            port[digit] = (WCHAR)('1' + j);
            param.IPAddress = ntohl(entry.IPAddress);
            lstrcpynW(param.ServerName, entry.Name, SERVER_NAME_CHARS);
            param.Lptn = (BYTE)('1' + j);
            memcpy(param.NodeID, entry.NodeID, NODE_ID_BYTES);
            QueueNameFromSlot(param.QueueName1, &entry.QueueName[0], TRUE);
            QueueNameFromSlot(param.QueueName2, &entry.QueueName[1], TRUE);
            QueueNameFromSlot(param.QueueName3, &entry.QueueName[2], TRUE);
            CreateNewPort(port, &param);
        }
    }
    DebugLog("Leave AddPortFromFile - return TRUE\n");
    return TRUE;
}

BOOL LocalmonAddPort3(LPWSTR pName, HWND hWnd, LPWSTR pMonitorName) {
    (void)pName, (void)hWnd, (void)pMonitorName;
    DebugLog("\n");
    DebugLog("Entry LocalmonAddPort3\n");
    SetAddPortBusy(TRUE);
    AddPortFromFile();
    SetAddPortBusy(FALSE);
    DebugLog("Leave LocalmonAddPort3 - success\n");
    return TRUE;
}

BOOL LocalmonAddPort2(LPWSTR pName, HWND hWnd, LPWSTR pMonitorName) {
    (void)pName, (void)pMonitorName;
    DebugLog("\n");
    DebugLog("Entry LocalmonAddPort2\n");
    SupportProtocol = GetProtocol();
    if (SupportProtocol == 0) {
        SetAddPortBusy(FALSE);
        DebugLog("Leave LocalmonAddPort2 - no support protocol\n");
        return FALSE;
    }
    SetAddPortBusy(TRUE);
    BOOL shown;
    if (SupportProtocol & PROTOCOL_TCPIP) {
        DebugLog("Call GetPortName2 to enter a port name\n");
        shown = GetPortName2(hWnd);
    } else if (SupportProtocol & PROTOCOL_IPX) {
        DebugLog("Support IPX , call IPXGetPortName2\n");
        shown = IPXGetPortName2(hWnd);
    } else {
        DebugLog("Support NETBIOS , call NBGetPortName2\n");
        shown = NBGetPortName2(hWnd);
    }
    SetAddPortBusy(FALSE);
    if (shown) {
        DebugLog("Leave LocalmonAddPort2 - success\n");
        return TRUE;
    }
    SetLastError(ERROR_CANCELLED);
    DebugLog("Leave LocalmonAddPort2 - ERROR_CANCELLED\n");
    return FALSE;
}

extern "C" BOOL WINAPI LocalmonAddPort(LPWSTR pName, HWND hWnd, LPWSTR pMonitorName) {
    PortParam param;
    memset(&param, 0, sizeof param);
    DebugLog("\n");
    DebugLog("Entry LocalmonAddPort\n");
    if (pName != NULL) LogWideName("Name: %s \t", pName);
    else DebugLog("Name: NULL \t");
    if (pMonitorName != NULL) LogWideName("MonitorName: %s \n", pMonitorName);
    else DebugLog("MonitorName: NULL\n");

    SupportProtocol = GetProtocol();
    LogPrintf("[LocalmonAddPort]Support protocol = %d\n", (int)SupportProtocol);
    if (SupportProtocol == 0) {
        DebugLog("Leave LocalmonAddPort - PC no support any protocol\n");
        return FALSE;
    }
    if (!ClaimAddPort()) {
        ShowMessage(hWnd, MB_ICONSTOP, IDS_MESSAGE_CAPTION, IDS_ADD_PORT_BUSY);
        SetLastError(ERROR_CANCELLED);
        DebugLog("Leave LocalmonAddPort - System already under add port\n");
        return FALSE;
    }

    /* The list file: its records fill the table, and its ports are made
     * without a word.  Closing it deletes it. */
    HANDLE hFile = OpenHandOverFile(IDS_LIST_FILE, GENERIC_READ);
    if (hFile != INVALID_HANDLE_VALUE) {
        ReadListFileIntoTable(hFile);
        BOOL result = LocalmonAddPort3(pName, hWnd, pMonitorName);
        CloseHandle(hFile);
        LogPrintf("Leave LocalmonAddPort - call AddPort3 ( return = %d )\n", result);
        return result;
    }

    EnterCriticalSection(&AvailPSLock);
    TotalPrintServer = 0;
    LeaveCriticalSection(&AvailPSLock);
    AddPortMode mode;
    if (SupportProtocol & PROTOCOL_TCPIP) {
        DebugLog("Support TCPIP\n");
        mode = MODE_TCPIP;
    } else if (SupportProtocol & PROTOCOL_IPX) {
        DebugLog("Support IPX\n");
        mode = MODE_IPX;
    } else {
        DebugLog("Support NETBIOS\n");
        mode = MODE_NETBIOS;
        const LONG runs = NBStartupRuns();
        if (!bStartup) {
            DebugLog("bStartup = FALSE , call NBStartup again\n");
            bStartup = NBStartupSince(runs);
            if (!bStartup) {
                SetAddPortBusy(FALSE);
                DebugLog("Leave LocalmonAddPort - NBStartup fail\n");
                return FALSE;
            }
        }
    }

    /* The marker file: every port of every print server found. */
    hFile = OpenHandOverFile(IDS_MARKER_FILE, 0);
    if (hFile != INVALID_HANDLE_VALUE) {
        BOOL result = LocalmonAddPort2(pName, hWnd, pMonitorName);
        CloseHandle(hFile);
        LogPrintf("Leave LocalmonAddPort - call AddPort2 ( return = %d )\n", result);
        return result;
    }

    BOOL chosen = mode == MODE_TCPIP ? GetPortName(hWnd, &param)
                  : mode == MODE_IPX ? IPXGetPortName(hWnd, &param)
                                     : NBGetPortName(hWnd, &param);
    SetAddPortBusy(FALSE);
    if (!chosen) {
        SetLastError(ERROR_CANCELLED);
        DebugLog("Leave LocalmonAddPort - Get Port Name fail\n");
        return TRUE;
    }
    if (param.ServerName[0] != 0) {
        WCHAR port[PORT_NAME_CHARS];
        FullPortName(port, &param);
        EnterCriticalSection(&PortListLock);
        BOOL exists = FindPortFromList(port) != NULL;
        LeaveCriticalSection(&PortListLock);
        if (exists) {
            SetLastError(ERROR_CANCELLED);
            ShowMessage(hWnd, MB_ICONSTOP, IDS_MESSAGE_CAPTION, IDS_PORT_EXISTS, DeviceDesc, port);
            SetLastError(ERROR_CANCELLED);
            DebugLog("Leave LocalmonAddPort - port already exist\n");
            return FALSE;
        }
        if (CreateMonitorPortEntry(port, MonitorName, param.IPAddress, param.NetNum, param.NodeID, param.Lptn) !=
            NULL) {
            CreatePortRegistry(&param);
            DebugLog("Leave LocalmonAddPort - Add port success\n");
            return TRUE;
        }
    }
    SetLastError(ERROR_CANCELLED);
    DebugLog("Leave LocalmonAddPort - Add port fail\n");
    return TRUE;
}
