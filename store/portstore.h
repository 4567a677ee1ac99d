/*
 * portstore.h: the ports' registry tree below
 * HKEY_LOCAL_MACHINE\System\CurrentControlSet\Control\Print\Monitors\<MonitorName>.
 */
#ifndef KVT_PORTSTORE_H
#define KVT_PORTSTORE_H

#include <windows.h>

/* String ids of the tree's names (resources/strings.inc). */
#define IDS_MONITORS_ROOT 1100
#define IDS_DRIVER_FILE 1101
#define IDS_DRIVER 1106
#define IDS_PORTS 1107
#define IDS_IP 1110
#define IDS_PROTOCOL 1111
#define IDS_NETWORK 1112
#define IDS_NODE_ADDRESS 1113
#define IDS_ISNOTIFY 1116
#define IDS_ISDEBUG 1117
#define IDS_QUEUENAME 1118

#define SERVER_NAME_CHARS 48  /* a server name has at most 47 characters */
#define PORT_QUEUE_CHARS 32   /* a PortParam queue name: 31 characters and the terminator */
#define QUEUE_NAME_BYTES 64   /* the packed LPR queue name: 63 bytes and the terminator */

/* A new port's data, filled by the add-port paths and stored by CreatePortRegistry. */
typedef struct _PORTPARAM {
    WCHAR ServerName[SERVER_NAME_CHARS];
    DWORD IPAddress; /* host byte order */
    BYTE Lptn;       /* the digit key, '1' to '5' */
    BYTE NodeID[6];
    BYTE NetNum[4];
    BYTE Protocol;
    WCHAR QueueName1[PORT_QUEUE_CHARS];
    WCHAR QueueName2[PORT_QUEUE_CHARS];
    WCHAR QueueName3[PORT_QUEUE_CHARS];
} PortParam, *PPORTPARAM;

/* The LPR queue name that GetPrintProtocol read last, for the configure
 * dialog.  Written under PortListLock, under which the configure call takes
 * its own copy. */
extern WCHAR QueueNameBuffer[QUEUE_NAME_BYTES / sizeof(WCHAR)];

void EnumPServerPorts(void);
void CreatePortRegistry(const PortParam *pParam);
void DeletePortRegistry(LPCWSTR pPortName);
DWORD GetPrintProtocol(LPCWSTR pPortName);
BOOL GetPrintQueueName(LPCWSTR pPortName, char *pQueueName /* QUEUE_NAME_BYTES */);

/* Port name grammar: <server>-P1..P3 are keys "1".."3", <server>-C1, -C2 keys "4", "5". */
BYTE DigitKeyFromPortName(LPCWSTR pPortName);
void PortNameFromKey(LPWSTR pOut /* SERVER_NAME_CHARS + 4 */, LPCWSTR pServer, WCHAR digitKey);

#endif /* KVT_PORTSTORE_H */
