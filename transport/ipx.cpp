/*
 * The IPX transport.  The channel protocol over IPX is not part of this build
 * yet: a job start over IPX gets no response, so the job falls over to the next
 * transport, and there is never an IPX job to write to or end.
 */
#include <windows.h>

#include "monitor.h"
#include "transport.h"

JobStartResult IPXJobStart(PINIPORT pIniPort, BYTE *pConnectOutcome) {
    (void)pIniPort;
    *pConnectOutcome = CONNECT_NO_RESPONSE;
    return JOB_START_FAILED;
}

WriteResult IPXWrite(PINIPORT pIniPort, LPBYTE pBuffer, DWORD cbBuf, LPDWORD pcbWritten) {
    (void)pIniPort, (void)pBuffer, (void)cbBuf, (void)pcbWritten;
    return WRITE_FAILED;
}

void IPXJobEnd(PINIPORT pIniPort) { (void)pIniPort; }
