/*
 * The NetBIOS transport.  The channel protocol over NetBIOS datagrams is not
 * part of this build yet: a job start over NetBIOS gets no response, so the
 * job falls over to the next transport, and there is never a NetBIOS job to
 * write to or end.
 */
#include <windows.h>

#include "monitor.h"
#include "transport.h"

JobStartResult NBJobStart(PINIPORT pIniPort, BYTE *pConnectOutcome) {
    (void)pIniPort;
    *pConnectOutcome = CONNECT_NO_RESPONSE;
    return JOB_START_FAILED;
}

WriteResult NBWrite(PINIPORT pIniPort, LPBYTE pBuffer, DWORD cbBuf, LPDWORD pcbWritten) {
    (void)pIniPort, (void)pBuffer, (void)cbBuf, (void)pcbWritten;
    return WRITE_FAILED;
}

void NBJobEnd(PINIPORT pIniPort) { (void)pIniPort; }
