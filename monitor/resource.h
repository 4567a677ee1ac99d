/*
 * resource.h: string ids of the monitor's string table (resources/strings.inc)
 * and the one call that loads them.
 */
#ifndef KVT_RESOURCE_H
#define KVT_RESOURCE_H

#include <windows.h>

#define IDS_PRINTING_SUCCESS 833
#define IDS_NB_NAME0_SUFFIX 900    /* ".ER" */
#define IDS_NB_NAME1_SUFFIX 901    /* ".E1", then ".E2" and ".E3" */
#define IDS_NB_GROUP_NAME 904      /* "KVTR.GROUP" */
#define IDS_PROFILE_SECTION 1000
#define IDS_VENDORDESC_KEY 1002
#define IDS_DEVICEDESC_KEY 1004
#define IDS_PROFILE_NAME 1005
#define IDS_DEFAULT_DEVICEDESC 1006
#define IDS_NETWORK_PORT 1103

/* Loads string id from the monitor's own string table (ResourceModule) into
 * pBuffer of cch characters; an empty string when there is none. */
LPWSTR LoadStr(UINT id, LPWSTR pBuffer, int cch);

#endif /* KVT_RESOURCE_H */
