/*
 * transport.h: the seam between the job flow and the three transports.  Each
 * offers a job start, a write and a job end; the job flow knows nothing else
 * of them.
 */
#ifndef KVT_TRANSPORT_H
#define KVT_TRANSPORT_H

#include <windows.h>

#include "monitor.h"

typedef enum { JOB_STARTED, JOB_START_FAILED, JOB_START_DELETED } JobStartResult;
typedef enum { WRITE_OK, WRITE_FAILED, WRITE_JOB_DELETED } WriteResult;

/* Connect outcome of an IPX or NetBIOS job start: 0 busy, 255 no response,
 * anything else the print server's channel id. */
#define CONNECT_BUSY 0
#define CONNECT_NO_RESPONSE 255

/* TCP/IP (transport/lpr.cpp) */
JobStartResult TcpJobStart(PINIPORT pIniPort);
WriteResult LprWrite(PINIPORT pIniPort, LPBYTE pBuffer, DWORD cbBuf, LPDWORD pcbWritten);
void LprCloseFile(PINIPORT pIniPort);

/* IPX (transport/ipx.cpp) */
JobStartResult IPXJobStart(PINIPORT pIniPort, BYTE *pConnectOutcome);
WriteResult IPXWrite(PINIPORT pIniPort, LPBYTE pBuffer, DWORD cbBuf, LPDWORD pcbWritten);
void IPXJobEnd(PINIPORT pIniPort);

/* NetBIOS (transport/netbios.cpp) */
JobStartResult NBJobStart(PINIPORT pIniPort, BYTE *pConnectOutcome);
WriteResult NBWrite(PINIPORT pIniPort, LPBYTE pBuffer, DWORD cbBuf, LPDWORD pcbWritten);
void NBJobEnd(PINIPORT pIniPort);

/* NetBIOS start-up (discovery/nbstartup.cpp, see nbstartup.h) */
BOOL NBStartup(void);
LONG NBStartupRuns(void);
BOOL NBStartupSince(LONG seen);

/* Dynamic address lookup (transport/dynip.cpp) */
BOOL IsNullEthernetID(const BYTE *pNodeID);
BOOL DynamicGetIP(PINIPORT pIniPort);

#endif /* KVT_TRANSPORT_H */
