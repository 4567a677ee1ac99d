/*
 * The monitor's contact with the spooler: the library entry point, the entry
 * table, start-up, the host's network components, and the entries that the
 * monitor does not support.
 */
#include <winsock2.h>
#include <windows.h>
#include <winspool.h>
#include <winsplp.h>
#include <wtsapi32.h>

#include <stdio.h>
#include <string.h>

#include "availps.h"
#include "debuglog.h"
#include "monitor.h"
#include "nbstartup.h"
#include "portstore.h"
#include "resource.h"
#include "xcv.h"

HINSTANCE DllInstance;
DWORD MessageTlsSlot;
HMODULE ResourceModule;
CRITICAL_SECTION PortListLock;
PINIPORT PortListHead;
std::atomic<BYTE> SupportProtocol;
std::atomic<BOOL> bStartup;
std::atomic<BOOL> AddPortBusy;
std::atomic<BYTE> IsNOTIFY;
std::atomic<BYTE> IsDEBUG;
BYTE ProfileFound;
WCHAR VendorDesc[29];
WCHAR DeviceDesc[29];
WCHAR MonitorName[32];
WCHAR WindowsPath[360];
WCHAR SystemPath[512];

static MONITOREX MonitorTable = {
    sizeof(MONITOR),
    {
        LocalmonEnumPorts,
        LocalmonOpenPort,
        NULL, /* no extended open */
        LocalmonStartDocPort,
        LocalmonWritePort,
        LocalmonReadPort,
        LocalmonEndDocPort,
        LocalmonClosePort,
        LocalmonAddPort,
        LocalmonAddPortEx,
        LocalmonConfigurePort,
        LocalmonDeletePort,
        LocalmonGetPrinterDataFromPort,
        LocalmonSetPortTimeOuts,
        LocalmonXcvOpenPort,
        LocalmonXcvDataPort,
        LocalmonXcvClosePort,
    },
};

/* A library whose file has been renamed has no module under the fixed name;
 * its strings are then loaded from the library itself. */
LPWSTR LoadStr(UINT id, LPWSTR pBuffer, int cch) {
    HMODULE module = ResourceModule != NULL ? ResourceModule : (HMODULE)DllInstance;
    if (LoadStringW(module, id, pBuffer, cch) == 0 && cch > 0) pBuffer[0] = 0;
    return pBuffer;
}

extern "C" BOOL WINAPI DllEntryPoint(HINSTANCE instance, DWORD reason, LPVOID reserved) {
    (void)reserved;
    if (reason == DLL_PROCESS_ATTACH) {
        DllInstance = instance;
        MessageTlsSlot = TlsAlloc();
        InitializeCriticalSection(&AvailPSLock);
        InitializeCriticalSection(&NBStartupLock);
    }
    return TRUE;
}

/* The C runtime's start-up calls DllMain; the work is DllEntryPoint's. */
extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved) {
    return DllEntryPoint(instance, reason, reserved);
}

/* Reads a one-byte flag of the monitor's key.  Only a query that fails (the
 * value is missing, or longer than one byte) writes the value anew as one
 * byte 0; an empty value reads as 0 and stays as it is. */
static BYTE ReadFlag(HKEY hKey, UINT nameId) {
    WCHAR name[32];
    LoadStr(nameId, name, 32);
    BYTE value = 0;
    DWORD cb = 1;
    if (RegQueryValueExW(hKey, name, NULL, NULL, &value, &cb) != ERROR_SUCCESS) {
        value = 0;
        RegSetValueExW(hKey, name, 0, REG_BINARY, &value, 1);
    } else if (cb == 0) {
        value = 0;
    }
    return value;
}

static void ReadProfile(void) {
    WCHAR profile[32], path[400];
    LoadStr(IDS_PROFILE_NAME, profile, 32);
    lstrcpynW(path, WindowsPath, 360);
    lstrcatW(path, TEXT("\\"));
    lstrcatW(path, profile);
    HANDLE file = CreateFileW(path, 0, FILE_SHARE_READ, NULL, OPEN_EXISTING, 0, NULL);
    if (file != INVALID_HANDLE_VALUE) {
        LogWideName("Open profile : %s", path);
        DebugLog(" success\n");
        ProfileFound = 1;
        CloseHandle(file);
    }

    WCHAR section[64], key[32], deflt[32];
    LoadStr(IDS_PROFILE_SECTION, section, 64);
    LoadStr(IDS_VENDORDESC_KEY, key, 32);
    GetPrivateProfileStringW(section, key, TEXT(""), VendorDesc, 29, profile);
    LoadStr(IDS_DEVICEDESC_KEY, key, 32);
    LoadStr(IDS_DEFAULT_DEVICEDESC, deflt, 32);
    GetPrivateProfileStringW(section, key, deflt, DeviceDesc, 29, profile);
    LogWideName("VendorDesc : %s\n", VendorDesc);
    LogWideName("DeviceDesc : %s\n", DeviceDesc);
}

/* MonitorName is DeviceDesc, a blank and "Network Port", cut to the 31
 * characters that the name has room for. */
static void ComposeMonitorName(void) {
    WCHAR networkPort[32], full[80];
    LoadStr(IDS_NETWORK_PORT, networkPort, 32);
    wsprintfW(full, TEXT("%s %s"), DeviceDesc, networkPort);
    lstrcpynW(MonitorName, full, 32);
}

static void ReadMonitorFlags(void) {
    WCHAR root[128], path[200];
    LoadStr(IDS_MONITORS_ROOT, root, 128);
    wsprintfW(path, TEXT("%s\\%s"), root, MonitorName);
    HKEY hKey;
    if (RegOpenKeyW(HKEY_LOCAL_MACHINE, path, &hKey) == ERROR_SUCCESS) {
        IsNOTIFY = ReadFlag(hKey, IDS_ISNOTIFY);
        IsDEBUG = ReadFlag(hKey, IDS_ISDEBUG);
        RegCloseKey(hKey);
    } else {
        DebugLog("Can't open registry:IsDEBUG\n");
        LogWideName("%s\n", path);
    }
}

extern "C" LPMONITOREX WINAPI InitializePrintMonitor(LPWSTR pRegistryRoot) {
    (void)pRegistryRoot;
    static BOOL lockMade = FALSE;
    if (!lockMade) {
        InitializeCriticalSection(&PortListLock);
        lockMade = TRUE;
    }
    EnterCriticalSection(&PortListLock);

    GetWindowsDirectoryW(WindowsPath, 359);
    UINT cchSystem = GetSystemDirectoryW(SystemPath, 511);
    if (cchSystem == 0 || cchSystem >= 511) SystemPath[0] = 0; /* no log, see DebugLog */

    /* The start-up lines are logged whatever the registry says, into a new file. */
    IsDEBUG = 1;
    if (SystemPath[0] != 0) {
        WCHAR logPath[520];
        wsprintfW(logPath, TEXT("%s\\KVTLOG"), SystemPath);
        DeleteFileW(logPath);
    }

    DebugLog("OS type : Windows NT/2000\n");
    LogWideName("Windows path : %s\n", WindowsPath);

    ResourceModule = GetModuleHandleW(TEXT("KVT64.DLL"));
    LogWideName("Load driver : %s", TEXT("KVT64.DLL"));
    DebugLog(ResourceModule != NULL ? " success\n" : " fail\n");
    DebugLog("DLL version: 4.1.0.0\n");

    ReadProfile();
    ComposeMonitorName();
    ReadMonitorFlags();

    if (IsDEBUG != 0) {
        ShowUserBox(TEXT("Starting DEBUG mode"), TEXT("DEBUG"), 0);
        DebugLog("Starting DEBUG mode\n");
    } else {
        IsDEBUG = 1;
        DebugLog("Disable DEBUG mode\n");
        IsDEBUG = 0;
    }

    EnumPServerPorts();

    WSADATA wsaData;
    if (WSAStartup(0x0101, &wsaData) != 0) {
        SetLastError(ERROR_INVALID_PRINT_MONITOR);
        DebugLog("WSAStartup ver 1.1 fail\n");
    } else {
        DebugLog("WSAStartup ver 1.1 success\n");
    }

    SupportProtocol = GetProtocol();
    DebugLog("SupportProtocol =");
    if (SupportProtocol & PROTOCOL_TCPIP) DebugLog(" [TCPIP]");
    if (SupportProtocol & PROTOCOL_IPX) DebugLog(" [IPX]");
    if (SupportProtocol & PROTOCOL_NETBIOS) DebugLog(" [NETBIOS]");

    LeaveCriticalSection(&PortListLock);
    return &MonitorTable;
}

/* In session 0 no one sees a window of the process: a box there would stand
 * unanswered, and the spooler's start or a job with it.  A session that
 * cannot be read counts as session 0, so that nothing waits. */
void ShowUserBox(LPCWSTR text, LPCWSTR caption, UINT type) {
    DWORD session = 0;
    if (ProcessIdToSessionId(GetCurrentProcessId(), &session) && session != 0) {
        MessageBoxW(NULL, text, caption, type);
        return;
    }
    DWORD console = WTSGetActiveConsoleSessionId(), response = 0;
    if (console == 0xFFFFFFFF)
        DebugLog("Session 0: box not shown, no console session\n");
    else if (WTSSendMessageW(WTS_CURRENT_SERVER_HANDLE, console, (LPWSTR)caption, lstrlenW(caption) * sizeof(WCHAR),
                             (LPWSTR)text, lstrlenW(text) * sizeof(WCHAR), type, SESSION_BOX_SECONDS, &response,
                             FALSE))
        LogPrintf("Session 0: box sent to session %u\n", (unsigned)console);
    else
        LogPrintf("Session 0: box not shown, error %u\n", (unsigned)GetLastError());
}

static BOOL ComponentPresent(LPCWSTR pKeyPath, BOOL needImagePath) {
    HKEY hKey;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, pKeyPath, 0, KEY_READ, &hKey) != ERROR_SUCCESS) return FALSE;
    BOOL present = TRUE;
    if (needImagePath) {
        BYTE image[1000];
        DWORD cb = sizeof image;
        present = RegQueryValueExW(hKey, TEXT("ImagePath"), NULL, NULL, image, &cb) == ERROR_SUCCESS;
    }
    RegCloseKey(hKey);
    return present;
}

BYTE GetProtocol(void) {
    DebugLog("\n");
    DebugLog("Entry GetProtocol\n");
    OSVERSIONINFOW version;
    memset(&version, 0, sizeof version);
    version.dwOSVersionInfoSize = sizeof version;
    if (!GetVersionExW(&version)) {
        DebugLog("Leave GetProtocol - GetVersionEX return FALSE\n");
        return 0;
    }
    BYTE protocol = 0;
    if (version.dwPlatformId == VER_PLATFORM_WIN32_WINDOWS) {
        if (ComponentPresent(TEXT("Enum\\Network\\MSTCP"), FALSE)) protocol |= PROTOCOL_TCPIP;
        if (ComponentPresent(TEXT("Enum\\Network\\NWLINK"), FALSE)) protocol |= PROTOCOL_IPX;
        if (ComponentPresent(TEXT("Enum\\Network\\NETBEUI"), FALSE)) protocol |= PROTOCOL_NETBIOS;
    } else {
        if (ComponentPresent(TEXT("SYSTEM\\CurrentControlSet\\Services\\Tcpip"), TRUE))
            protocol |= PROTOCOL_TCPIP;
        if (ComponentPresent(TEXT("SYSTEM\\CurrentControlSet\\Services\\NwlnkIpx"), FALSE))
            protocol |= PROTOCOL_IPX;
        if (ComponentPresent(TEXT("SYSTEM\\CurrentControlSet\\Services\\Nbf"), FALSE))
            protocol |= PROTOCOL_NETBIOS;
    }
    LogPrintf("Leave GetProtocol - protocol = %d\n", protocol);
    return protocol;
}

/* ---- entries the monitor does not support --------------------------------------- */

extern "C" BOOL WINAPI LocalmonReadPort(HANDLE hPort, LPBYTE pBuffer, DWORD cbBuffer, LPDWORD pcbRead) {
    (void)hPort, (void)pBuffer, (void)cbBuffer;
    if (pcbRead != NULL) *pcbRead = 0;
    DebugLog("\n");
    DebugLog("Entry LocalmonReadPort - but we no support\n");
    return TRUE;
}

extern "C" BOOL WINAPI LocalmonClosePort(HANDLE hPort) {
    (void)hPort;
    DebugLog("\n");
    DebugLog("LocalmonClosePort - close port\n");
    return TRUE;
}

extern "C" BOOL WINAPI LocalmonAddPortEx(LPWSTR pName, DWORD Level, LPBYTE lpBuffer, LPWSTR lpMonitorName) {
    (void)pName, (void)Level, (void)lpBuffer, (void)lpMonitorName;
    DebugLog("\n");
    DebugLog("Entry LocalmonAddPortEx - do nothing - return FALSE\n");
    return FALSE;
}

extern "C" BOOL WINAPI LocalmonGetPrinterDataFromPort(HANDLE hPort, DWORD ControlID, LPWSTR pValueName,
                                                      LPWSTR lpInBuffer, DWORD cbInBuffer,
                                                      LPWSTR lpOutBuffer, DWORD cbOutBuffer,
                                                      LPDWORD lpcbReturned) {
    (void)hPort, (void)ControlID, (void)pValueName, (void)lpInBuffer, (void)cbInBuffer;
    (void)lpOutBuffer, (void)cbOutBuffer, (void)lpcbReturned;
    DebugLog("\n");
    DebugLog("Entry LocalmonGetPrinterDataFromPort , we no support , return FALSE\n");
    return FALSE;
}

extern "C" BOOL WINAPI LocalmonSetPortTimeOuts(HANDLE hPort, LPCOMMTIMEOUTS lpCTO, DWORD reserved) {
    (void)hPort, (void)lpCTO, (void)reserved;
    DebugLog("\n");
    DebugLog("Entry LocalmonSetPortTimeOuts , we no support , return FALSE\n");
    return FALSE;
}
