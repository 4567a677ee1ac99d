/*
 * lpr.h: the LPR transport's constants and inner operations.
 */
#ifndef KVT_LPR_H
#define KVT_LPR_H

#include <windows.h>

#include "monitor.h"

#define LPR_PORT 515
#define LPR_CONNECT_ATTEMPTS 200
#define LPR_PAUSE_MS 300          /* before a poll, and between attempts */
#define LPR_POLL_WAIT_MS 1000     /* one poll of a connect */
#define LPR_SEND_WAIT_MS 1000     /* writability: header and job data */
#define LPR_RECV_WAIT_MS 1500     /* one read of an acknowledgement */
#define LPR_SLICE_BYTES 4096      /* largest send of job data */
#define LPR_ZERO_WRITE_LIMIT 1000 /* empty sends in a row before a pause */
#define LPR_ZERO_WRITE_PAUSE_MS 100
#define LPR_CLOSE_PAUSE_MS 2000   /* after the close of the connection */
#define LPR_DATA_FILE_LENGTH 2147483647L
/* A header step that moves nothing for this many waits in a row (30 seconds
 * for an acknowledgement) counts as a connection the print server closed. */
#define LPR_HANDSHAKE_WAITS 20

#define LPR_NAME_BYTES 257      /* a user or document name with its terminator */
#define LPR_USER_CHARS 256      /* GetUserNameW's room, in wide characters */
#define LPR_HOSTNAME_BYTES 60   /* the short host name's buffer */
#define LPR_LINE_BYTES 400
#define LPR_CONTROL_BYTES (1 + 3 * (1 + LPR_NAME_BYTES) + (1 + LPR_HOSTNAME_BYTES + 1) + 1)

BOOL LprOpenFile(PINIPORT pIniPort);
BOOL LprPollConnect(PINIPORT pIniPort);
BOOL LprHandshake(PINIPORT pIniPort);
BOOL LprTimedSend(SOCKET s, const char *pBytes, int cb, int *pSent);
BOOL LprTimedRecv(SOCKET s, char *pBytes, int cb, int *pReceived);

#endif /* KVT_LPR_H */
