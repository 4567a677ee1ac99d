/*
 * NetBIOS start-up.  Not part of this build yet: NetBIOS never starts, so a
 * host without NetBIOS names behaves as one whose start-up failed.
 */
#include <windows.h>

#include "debuglog.h"
#include "monitor.h"
#include "transport.h"

BOOL NBStartup(void) {
    DebugLog("\n");
    DebugLog("Entry NBStartup\n");
    DebugLog("Leave NBStartup - NetBIOS not available\n");
    return FALSE;
}
