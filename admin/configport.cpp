/*
 * Port configuration in the monitor: the spooler's ConfigurePort entry, which
 * shows dialog 550 in the caller's process, and the reading and storing that
 * it shares with the transceive entries (KvtGetConfig, KvtSetConfig).  The
 * choices go to the registry only after the dialog has ended, in this order:
 * protocol, queue name, notify setting.  Nothing in the port record changes:
 * the job flow reads the port's protocol and queue name at every job start.
 */
#include <windows.h>

#include "admin.h"
#include "debuglog.h"
#include "monitor.h"
#include "portstore.h"
#include "resource.h"

/* Opens <root>\<MonitorName>, and below it, when pBelow is given, the path
 * Ports\<server>\<digit> of a port name: its server is the name less its last
 * three characters, its digit the last character. */
static LONG OpenConfigKey(LPCWSTR pPortName, PHKEY phKey) {
    WCHAR root[128], path[400];
    LoadStr(IDS_MONITORS_ROOT, root, 128);
    if (pPortName == NULL) {
        wsprintfW(path, TEXT("%s\\%s"), root, MonitorName);
    } else {
        int len = lstrlenW(pPortName);
        if (len < 4 || len - 3 >= SERVER_NAME_CHARS) return ERROR_INVALID_NAME;
        WCHAR ports[16], server[SERVER_NAME_CHARS], digit[2] = {pPortName[len - 1], 0};
        LoadStr(IDS_PORTS, ports, 16);
        lstrcpynW(server, pPortName, len - 3 + 1);
        wsprintfW(path, TEXT("%s\\%s\\%s\\%s\\%s"), root, MonitorName, ports, server, digit);
    }
    return RegOpenKeyW(HKEY_LOCAL_MACHINE, path, phKey);
}

/* What dialog 550 opens on, into the caller's record (QueueNameBuffer has
 * room for PORT_QUEUE_CHARS): the port's protocol and its copy of the queue
 * name, taken under PortListLock right after the lookup (a job start on
 * another thread, whose lookup refreshes QueueNameBuffer, cannot change it),
 * and the notify setting.  NULL, or the end of the log line that says why
 * not. */
const char *PortConfigRead(LPCWSTR pPortName, ConfigRecord *pRecord) {
    SupportProtocol = GetProtocol();
    if (SupportProtocol == 0) return "PC no support any protocol";
    EnterCriticalSection(&PortListLock);
    if (FindPortFromList(pPortName) == NULL) {
        LeaveCriticalSection(&PortListLock);
        return "no any printserver port find";
    }
    DebugLog("FindPortFromList ok\n");
    LeaveCriticalSection(&PortListLock);

    EnterCriticalSection(&PortListLock);
    DWORD protocol = GetPrintProtocol(pPortName);
    lstrcpynW(pRecord->QueueNameBuffer, QueueNameBuffer, PORT_QUEUE_CHARS);
    LeaveCriticalSection(&PortListLock);
    LogPrintf("PrintMethod = %d\n", (int)protocol);

    WCHAR flagName[32];
    HKEY hKey;
    if (OpenConfigKey(NULL, &hKey) != ERROR_SUCCESS) return "Open registry key fail";
    LoadStr(IDS_ISNOTIFY, flagName, 32);
    BYTE notify = 0;
    DWORD cb = 1;
    if (RegQueryValueExW(hKey, flagName, NULL, NULL, &notify, &cb) != ERROR_SUCCESS || cb == 0) notify = 0;
    RegCloseKey(hKey);
    IsNOTIFY = notify;
    pRecord->NotifyChoice = notify;
    LogPrintf("IsNotify = %d\n", notify);
    pRecord->ConfigProtocol = protocol;
    return NULL;
}

/* Stores a record: the port's protocol and queue name, then IsNOTIFY.  NULL,
 * or the end of the log line that says which key could not be opened. */
const char *PortConfigStore(LPCWSTR pPortName, const ConfigRecord *pRecord) {
    HKEY hKey;
    if (OpenConfigKey(pPortName, &hKey) != ERROR_SUCCESS) return "open registry key fail";
    WCHAR valueName[32];
    BYTE stored = (BYTE)pRecord->ConfigProtocol;
    LoadStr(IDS_PROTOCOL, valueName, 32);
    RegSetValueExW(hKey, valueName, 0, REG_BINARY, &stored, 1);
    LoadStr(IDS_QUEUENAME, valueName, 32);
    RegSetValueExW(hKey, valueName, 0, REG_SZ, (const BYTE *)pRecord->QueueNameBuffer,
                   (DWORD)(lstrlenW(pRecord->QueueNameBuffer) + 1) * sizeof(WCHAR));
    RegCloseKey(hKey);

    if (OpenConfigKey(NULL, &hKey) != ERROR_SUCCESS) return "open registry key fail";
    IsNOTIFY = pRecord->NotifyChoice;
    LoadStr(IDS_ISNOTIFY, valueName, 32);
    RegSetValueExW(hKey, valueName, 0, REG_BINARY, &pRecord->NotifyChoice, 1);
    RegCloseKey(hKey);
    return NULL;
}

/* The dialog shows and stores the call's own record; a second configure call
 * while the dialog stands has a record of its own. */
extern "C" BOOL WINAPI LocalmonConfigurePort(LPWSTR pName, HWND hWnd, LPWSTR pPortName) {
    WCHAR queueName[PORT_QUEUE_CHARS];
    queueName[0] = 0;
    ConfigRecord record = {queueName, 0, 0};
    DebugLog("\n");
    DebugLog("Entry LocalmonConfigurePort\n");
    if (pName != NULL) LogWideName("Name: %s \t", pName);
    else DebugLog("Name: NULL\t");
    if (pPortName != NULL) LogWideName("PortName: %s \n", pPortName);
    else DebugLog("PortName: NULL\n");

    const char *failure = PortConfigRead(pPortName, &record);
    if (failure == NULL &&
        DialogBoxParamW(DllInstance, MAKEINTRESOURCEW(DLG_SELECT_PROTOCOL), hWnd, SelectProtocolDlg,
                        (LPARAM)&record) == 0)
        failure = "show dialogbox fail";
    if (failure == NULL) failure = PortConfigStore(pPortName, &record);
    if (failure != NULL) {
        LogPrintf("Leave LocalmonConfigurePort - %s\n", failure);
        return FALSE;
    }
    DebugLog("Leave LocalmonConfigurePort - success\n");
    return TRUE;
}
