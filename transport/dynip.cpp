/*
 * The dynamic address lookup: a port that knows its print server's node
 * address asks for the server's current IP address before each LPR job.
 */
#include <windows.h>

#include "debuglog.h"
#include "monitor.h"
#include "transport.h"

BOOL IsNullEthernetID(const BYTE *pNodeID) {
    for (int i = 0; i < 6; ++i)
        if (pNodeID[i] != 0) return FALSE;
    return TRUE;
}

/* The lookup by UDP status query is not part of this build yet: a port with a
 * node address finds no address and the job falls over to the next transport. */
BOOL DynamicGetIP(PINIPORT pIniPort) {
    (void)pIniPort;
    DebugLog("\n");
    DebugLog("Entry DynamicGetIP\n");
    DebugLog("Leave DynamicGetIP - no address lookup\n");
    return FALSE;
}
