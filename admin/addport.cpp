/*
 * Adding ports through the dialogs.  The add-port dialogs are not part of
 * this build yet: the entry refuses with ERROR_NOT_SUPPORTED, and ports are
 * made in the registry tree instead.
 */
#include <windows.h>

#include "debuglog.h"
#include "monitor.h"

extern "C" BOOL WINAPI LocalmonAddPort(LPWSTR pName, HWND hWnd, LPWSTR pMonitorName) {
    (void)pName, (void)hWnd, (void)pMonitorName;
    DebugLog("\n");
    DebugLog("Entry LocalmonAddPort\n");
    DebugLog("Leave LocalmonAddPort - not available\n");
    SetLastError(ERROR_NOT_SUPPORTED);
    return FALSE;
}
