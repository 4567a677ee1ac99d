/*
 * The ports' registry tree.  The print server is a key and its printer ports
 * are one-character sub keys below it, so the address belongs to all ports of
 * a server while the protocol and the queue name belong to one port:
 *
 *   <root>\<MonitorName>            "Driver", "IsNOTIFY", "IsDEBUG"
 *     Ports\<server>                "IP    " (4), "Network" (4), "Node Address" (6)
 *       <digit>                     " " (1), "QueueName" (REG_SZ, digits 1-3 only)
 */
#include <windows.h>

#include <stdio.h>
#include <string.h>

#include "debuglog.h"
#include "monitor.h"
#include "portstore.h"
#include "resource.h"

WCHAR QueueNameBuffer[QUEUE_NAME_BYTES / sizeof(WCHAR)];

/* <root>\<MonitorName>, and optionally a further path below it. */
static void MonitorKeyPath(LPWSTR pOut, int cch, LPCWSTR pBelow) {
    WCHAR root[128];
    LoadStr(IDS_MONITORS_ROOT, root, 128);
    lstrcpynW(pOut, root, cch);
    if (lstrlenW(pOut) + 1 + lstrlenW(MonitorName) >= cch) return;
    lstrcatW(pOut, TEXT("\\"));
    lstrcatW(pOut, MonitorName);
    if (pBelow != NULL && lstrlenW(pOut) + 1 + lstrlenW(pBelow) < cch) {
        lstrcatW(pOut, TEXT("\\"));
        lstrcatW(pOut, pBelow);
    }
}

/* Port names match without regard to case, so "ps1-p1" names the key "1" as
 * "PS1-P1" does. */
BYTE DigitKeyFromPortName(LPCWSTR pPortName) {
    int len = lstrlenW(pPortName);
    if (len < 2) return 0;
    BYTE digit = (BYTE)pPortName[len - 1];
    WCHAR letter = pPortName[len - 2];
    return (letter == TEXT('P') || letter == TEXT('p')) ? digit : (BYTE)(digit + 3);
}

void PortNameFromKey(LPWSTR pOut, LPCWSTR pServer, WCHAR digitKey) {
    if (digitKey < TEXT('4'))
        wsprintfW(pOut, TEXT("%s-%c%c"), pServer, TEXT('P'), digitKey);
    else
        wsprintfW(pOut, TEXT("%s-%c%c"), pServer, TEXT('C'), (WCHAR)(digitKey - 3));
}

/* Splits a port name into its server (the name less its three-character
 * suffix) and the last character.  FALSE when the name has no server part. */
static BOOL SplitPortName(LPCWSTR pPortName, LPWSTR pServer, WCHAR *pLast) {
    int len = lstrlenW(pPortName);
    if (len < 4 || len - 3 >= SERVER_NAME_CHARS) return FALSE;
    lstrcpynW(pServer, pPortName, len - 3 + 1);
    *pLast = pPortName[len - 1];
    return TRUE;
}

/* Copies the text of a fixed-width field: up to its terminator, and never more
 * than the field holds with one (cchField - 1 characters), whatever the field's
 * filler left in it.  pOut has room for cchField characters. */
static void CopyField(LPWSTR pOut, LPCWSTR pField, int cchField) {
    int n = 0;
    while (n < cchField - 1 && pField[n] != 0) {
        pOut[n] = pField[n];
        ++n;
    }
    pOut[n] = 0;
}

/* Reads "QueueName" of an open digit key into pOut, cchOut characters with the
 * terminator.  A longer name is cut to cchOut - 1 characters; FALSE, with pOut
 * empty, when the value is missing or can't be read. */
static BOOL ReadQueueName(HKEY hKey, LPWSTR pOut, int cchOut) {
    WCHAR name[32];
    LoadStr(IDS_QUEUENAME, name, 32);
    pOut[0] = 0;
    DWORD cb = (DWORD)cchOut * sizeof(WCHAR);
    BYTE *data = (BYTE *)LocalAlloc(LPTR, cb + sizeof(WCHAR));
    if (data == NULL) return FALSE;
    LONG status = RegQueryValueExW(hKey, name, NULL, NULL, data, &cb);
    if (status == ERROR_MORE_DATA) {
        /* Longer than the room: read it whole, then cut it. */
        LocalFree(data);
        data = (BYTE *)LocalAlloc(LPTR, cb + sizeof(WCHAR));
        if (data == NULL) return FALSE;
        status = RegQueryValueExW(hKey, name, NULL, NULL, data, &cb);
    }
    if (status == ERROR_SUCCESS) {
        /* The allocation is zero-filled behind the value, so the text ends. */
        LPCWSTR text = (LPCWSTR)data;
        int n = 0;
        while (n < cchOut - 1 && (DWORD)n < cb / sizeof(WCHAR) && text[n] != 0) {
            pOut[n] = text[n];
            ++n;
        }
        pOut[n] = 0;
    }
    LocalFree(data);
    return status == ERROR_SUCCESS;
}

/* Opens Ports\<server>\<sub key> below the monitor's key. */
static LONG OpenPortKey(LPCWSTR pServer, WCHAR subKey, PHKEY phKey) {
    WCHAR portsName[16];
    LoadStr(IDS_PORTS, portsName, 16);
    WCHAR below[SERVER_NAME_CHARS + 32];
    wsprintfW(below, TEXT("%s\\%s\\%c"), portsName, pServer, subKey);
    WCHAR path[400];
    MonitorKeyPath(path, 400, below);
    return RegOpenKeyW(HKEY_LOCAL_MACHINE, path, phKey);
}

void EnumPServerPorts(void) {
    WCHAR portsName[16];
    LoadStr(IDS_PORTS, portsName, 16);
    WCHAR path[400];
    MonitorKeyPath(path, 400, portsName);

    HKEY hPorts;
    if (RegOpenKeyW(HKEY_LOCAL_MACHINE, path, &hPorts) == ERROR_SUCCESS) {
        WCHAR ipName[16], nodeName[32];
        LoadStr(IDS_IP, ipName, 16);
        LoadStr(IDS_NODE_ADDRESS, nodeName, 32);
        WCHAR server[SERVER_NAME_CHARS];
        DWORD cch = SERVER_NAME_CHARS;
        for (DWORD i = 0; RegEnumKeyExW(hPorts, i, server, &cch, NULL, NULL, NULL, NULL) == ERROR_SUCCESS;
             ++i, cch = SERVER_NAME_CHARS) {
            HKEY hServer;
            if (RegOpenKeyW(hPorts, server, &hServer) != ERROR_SUCCESS) continue;

            BYTE ip[80] = {0};
            DWORD cb = sizeof ip;
            RegQueryValueExW(hServer, ipName, NULL, NULL, ip, &cb);
            DWORD address;
            memcpy(&address, ip, sizeof address); /* stored little-endian, host order */
            BYTE node[6] = {0};
            cb = sizeof node;
            RegQueryValueExW(hServer, nodeName, NULL, NULL, node, &cb);
            BYTE netNum[4] = {0};

            WCHAR digit[80];
            DWORD cchDigit = 80;
            for (DWORD j = 0;
                 RegEnumKeyExW(hServer, j, digit, &cchDigit, NULL, NULL, NULL, NULL) == ERROR_SUCCESS;
                 ++j, cchDigit = 80) {
                WCHAR portName[SERVER_NAME_CHARS + 8];
                PortNameFromKey(portName, server, digit[0]);
                /* A start-up that runs again keeps the records it made the
                 * first time (a job or a handle may use them) and adds only
                 * what the tree has that the list lacks. */
                if (FindPortFromList(portName) != NULL) continue;
                CreateMonitorPortEntry(portName, MonitorName, address, netNum, node, (BYTE)digit[0]);
            }
            RegCloseKey(hServer);
        }
        RegCloseKey(hPorts);
    }
    DebugLog("Leave EnumPServerPorts\n");
}

static void SetString(HKEY hKey, UINT nameId, LPCWSTR text) {
    WCHAR name[32];
    LoadStr(nameId, name, 32);
    RegSetValueExW(hKey, name, 0, REG_SZ, (const BYTE *)text, (DWORD)(lstrlenW(text) * 2 + 2));
}

static void SetBinary(HKEY hKey, UINT nameId, const void *data, DWORD cb) {
    WCHAR name[32];
    LoadStr(nameId, name, 32);
    RegSetValueExW(hKey, name, 0, REG_BINARY, (const BYTE *)data, cb);
}

void CreatePortRegistry(const PortParam *pParam) {
    DebugLog("\n");
    DebugLog("Entry CreatePortRegistry\n");
    WCHAR root[128];
    LoadStr(IDS_MONITORS_ROOT, root, 128);

    if (ProfileFound == 0) {
        HKEY hRoot, hMonitor;
        if (RegOpenKeyW(HKEY_LOCAL_MACHINE, root, &hRoot) == ERROR_SUCCESS) {
            if (RegCreateKeyW(hRoot, MonitorName, &hMonitor) == ERROR_SUCCESS) {
                WCHAR driver[32];
                LoadStr(IDS_DRIVER_FILE, driver, 32);
                SetString(hMonitor, IDS_DRIVER, driver);
                RegCloseKey(hMonitor);
            }
            RegCloseKey(hRoot);
        }
    }

    /* Each field is taken within its own width, terminated or not. */
    WCHAR server[SERVER_NAME_CHARS], queue[PORT_QUEUE_CHARS];
    CopyField(server, pParam->ServerName, SERVER_NAME_CHARS);
    const WCHAR *queueField = pParam->Lptn == '1'   ? pParam->QueueName1
                              : pParam->Lptn == '2' ? pParam->QueueName2
                              : pParam->Lptn == '3' ? pParam->QueueName3
                                                    : NULL;
    if (queueField != NULL) CopyField(queue, queueField, PORT_QUEUE_CHARS);

    WCHAR path[400];
    MonitorKeyPath(path, 400, NULL);
    WCHAR portsName[16];
    LoadStr(IDS_PORTS, portsName, 16);
    WCHAR digit[2] = {(WCHAR)pParam->Lptn, 0};
    HKEY hMonitor, hPorts, hServer, hDigit;
    if (RegOpenKeyW(HKEY_LOCAL_MACHINE, path, &hMonitor) == ERROR_SUCCESS) {
        if (RegCreateKeyW(hMonitor, portsName, &hPorts) == ERROR_SUCCESS) {
            if (RegCreateKeyW(hPorts, server, &hServer) == ERROR_SUCCESS) {
                if (RegCreateKeyW(hServer, digit, &hDigit) == ERROR_SUCCESS) {
                    SetBinary(hDigit, IDS_PROTOCOL, &pParam->Protocol, 1);
                    if (queueField != NULL) SetString(hDigit, IDS_QUEUENAME, queue);
                    RegCloseKey(hDigit);
                }
                DWORD zero = 0;
                SetBinary(hServer, IDS_IP, &pParam->IPAddress, 4);
                SetBinary(hServer, IDS_NETWORK, &zero, 4);
                SetBinary(hServer, IDS_NODE_ADDRESS, pParam->NodeID, 6);
                RegCloseKey(hServer);
            }
            RegCloseKey(hPorts);
        }
        RegCloseKey(hMonitor);
    }
    DebugLog("Leave CreatePortRegistry\n");
}

void DeletePortRegistry(LPCWSTR pPortName) {
    DebugLog("\n");
    DebugLog("Entry DeletePortRegistry\n");
    if (pPortName == NULL) {
        DebugLog("PortName = NULL\n");
        DebugLog("Leave DeletePortRegistry\n");
        return;
    }
    LogWideName("PortName = %s\n", pPortName);

    WCHAR server[SERVER_NAME_CHARS];
    WCHAR last;
    if (SplitPortName(pPortName, server, &last)) {
        WCHAR digit[2] = {(WCHAR)DigitKeyFromPortName(pPortName), 0};
        WCHAR portsName[16];
        LoadStr(IDS_PORTS, portsName, 16);
        WCHAR below[SERVER_NAME_CHARS + 24];
        wsprintfW(below, TEXT("%s\\%s"), portsName, server);
        WCHAR path[400];
        MonitorKeyPath(path, 400, below);

        HKEY hServer;
        if (RegOpenKeyW(HKEY_LOCAL_MACHINE, path, &hServer) == ERROR_SUCCESS) {
            RegDeleteKeyW(hServer, digit);
            WCHAR remaining[300];
            DWORD cch = 300;
            LONG more = RegEnumKeyExW(hServer, 0, remaining, &cch, NULL, NULL, NULL, NULL);
            RegCloseKey(hServer);
            if (more != ERROR_SUCCESS) {
                HKEY hPorts;
                MonitorKeyPath(path, 400, portsName);
                if (RegOpenKeyW(HKEY_LOCAL_MACHINE, path, &hPorts) == ERROR_SUCCESS) {
                    RegDeleteKeyW(hPorts, server);
                    RegCloseKey(hPorts);
                }
            }
        }
    }
    DebugLog("Leave DeletePortRegistry\n");
}

DWORD GetPrintProtocol(LPCWSTR pPortName) {
    DebugLog("\n");
    DebugLog("Entry GetPrintProtocol\n");
    WCHAR server[SERVER_NAME_CHARS];
    WCHAR last;
    HKEY hKey;
    if (pPortName == NULL || !SplitPortName(pPortName, server, &last)) {
        DebugLog("Leave GetPrintProtocol - not a port name of the tree\n");
        return 0;
    }
    if (OpenPortKey(server, last, &hKey) != ERROR_SUCCESS) {
        DebugLog("Leave GetPrintProtocol - RegOpenKey error\n");
        return 0;
    }
    WCHAR name[32];
    BYTE protocol = 0;
    DWORD cb = 1;
    LoadStr(IDS_PROTOCOL, name, 32);
    if (RegQueryValueExW(hKey, name, NULL, NULL, &protocol, &cb) != ERROR_SUCCESS || cb == 0) protocol = 0;

    /* Every lookup refreshes the queue name that the configure dialog shows:
     * empty when there is none, cut to the buffer when it is longer. */
    EnterCriticalSection(&PortListLock);
    ReadQueueName(hKey, QueueNameBuffer, PORT_QUEUE_CHARS);
    LeaveCriticalSection(&PortListLock);

    RegCloseKey(hKey);
    LogPrintf("Leave GetPrintProtocol - protocol = %d\n", protocol);
    return protocol;
}

static void LogEightBytes(const char *label, const BYTE *p) {
    LogPrintf("%s:%02x%02x%02x%02x%02x%02x%02x%02x\n", label, p[0], p[1], p[2], p[3], p[4], p[5], p[6],
              p[7]);
}

BOOL GetPrintQueueName(LPCWSTR pPortName, char *pQueueName) {
    DebugLog("\n");
    DebugLog("Entry GetPrintQueueName\n");
    WCHAR server[SERVER_NAME_CHARS];
    WCHAR last;
    HKEY hKey;
    if (pPortName == NULL || !SplitPortName(pPortName, server, &last)) {
        DebugLog("Leave GetPrintQueueName - not a port name of the tree\n");
        return FALSE;
    }
    if (OpenPortKey(server, last, &hKey) != ERROR_SUCCESS) {
        DebugLog("Leave GetPrintQueueName - RegOpenKey error\n");
        return FALSE;
    }
    /* Room for the 63 characters that the packed name holds: a longer name is
     * cut there. */
    WCHAR wide[QUEUE_NAME_BYTES];
    memset(wide, 0, sizeof wide);
    BOOL found = ReadQueueName(hKey, wide, QUEUE_NAME_BYTES);
    RegCloseKey(hKey);
    if (!found) {
        /* A digit key without a readable queue name is taken as one with none
         * stored: the caller falls back to "lpt" and the port digit. */
        DebugLog("Leave GetPrintQueueName - QueueName not found\n");
        return FALSE;
    }
    LogEightBytes("getPrintQueueName", (const BYTE *)wide);
    LogEightBytes("getPrintQueueName_1", (const BYTE *)pQueueName);
    int i = 0;
    for (; i < QUEUE_NAME_BYTES - 1 && (BYTE)wide[i] != 0; ++i) pQueueName[i] = (char)(BYTE)wide[i];
    pQueueName[i] = 0;
    LogEightBytes("getPrintQueueName_after pack", (const BYTE *)pQueueName);
    DebugLog("Leave GetPrintQueueName - success\n");
    return TRUE;
}
