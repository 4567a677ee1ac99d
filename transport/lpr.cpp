/*
 * The TCP/IP transport: a shortened LPR exchange on port 515.  After the
 * connection is up the port sends a receive-job line, a small control file and
 * a data-file announcement with a fixed huge length, each answered by one byte
 * 0x00, and then streams the job's bytes raw until it closes the connection.
 *
 * A print server that refuses the connection, doesn't answer it, or closes it
 * during the header is tried again, 300 ms apart, up to 200 times, with the
 * deletion test in every attempt.  A non-zero answer byte or a socket fault
 * ends the job start at once.
 */
#include <windows.h>
#include <winsock2.h>
#include <winspool.h>

#include <stdio.h>
#include <string.h>

#include "debuglog.h"
#include "lpr.h"
#include "monitor.h"
#include "portstore.h"
#include "transport.h"

/* Writes the short host name (the machine's name up to its first dot) into
 * pOut; fetched afresh for each use.  Empty when the name can't be had. */
static void ShortHostName(char *pOut, int cbOut) {
    char name[LPR_HOSTNAME_BYTES];
    name[0] = 0;
    if (gethostname(name, sizeof name) != 0) name[0] = 0;
    name[sizeof name - 1] = 0;
    /* The first token before a dot, as strtok gives it (leading dots are
     * skipped), without strtok's hidden state: job threads run this at once. */
    const char *first = name + strspn(name, ".");
    snprintf(pOut, cbOut, "%.*s", (int)strcspn(first, "."), first);
}

/* A name from the spooler, narrowed to one byte a character and cut to what
 * its control-file line has room for.  A control character would end or open
 * a line of the control file, so it becomes a blank. */
static void NarrowName(LPCWSTR pWide, char *pOut) {
    char wide[LOG_BUFFER_SIZE];
    wide[0] = 0;
    if (WideCharToMultiByte(CP_ACP, 0, pWide, -1, wide, sizeof wide, NULL, NULL) == 0) wide[sizeof wide - 1] = 0;
    size_t len = strlen(wide);
    if (len > LPR_NAME_BYTES - 1) len = LPR_NAME_BYTES - 1;
    memcpy(pOut, wide, len);
    pOut[len] = 0;
    for (char *p = pOut; *p != 0; ++p)
        if ((unsigned char)*p < 0x20) *p = ' ';
}

static void CloseLprSocket(PINIPORT pIniPort) {
    if (pIniPort->Socket != INVALID_SOCKET) closesocket(pIniPort->Socket);
    pIniPort->Socket = INVALID_SOCKET;
}

BOOL LprTimedSend(SOCKET s, const char *pBytes, int cb, int *pSent) {
    *pSent = 0;
    fd_set fds;
    FD_ZERO(&fds);
    FD_SET(s, &fds);
    struct timeval wait = {LPR_SEND_WAIT_MS / 1000, (LPR_SEND_WAIT_MS % 1000) * 1000};
    int ready = select(0, NULL, &fds, NULL, &wait);
    if (ready == SOCKET_ERROR) {
        closesocket(s);
        return FALSE;
    }
    if (ready == 0) return TRUE;
    int n = send(s, pBytes, cb, 0);
    if (n == SOCKET_ERROR) {
        if (WSAGetLastError() == WSAEWOULDBLOCK) return TRUE;
        closesocket(s);
        return FALSE;
    }
    *pSent = n;
    return TRUE;
}

BOOL LprTimedRecv(SOCKET s, char *pBytes, int cb, int *pReceived) {
    *pReceived = 0;
    fd_set fds;
    FD_ZERO(&fds);
    FD_SET(s, &fds);
    struct timeval wait = {LPR_RECV_WAIT_MS / 1000, (LPR_RECV_WAIT_MS % 1000) * 1000};
    int ready = select(0, &fds, NULL, NULL, &wait);
    if (ready == SOCKET_ERROR) {
        DebugLog("if (Sel = select (0, &fds, 0, 0, &TimeStamp))");
        closesocket(s);
        return FALSE;
    }
    if (ready == 0) return TRUE;
    int n = recv(s, pBytes, cb, 0);
    if (n == SOCKET_ERROR) {
        DebugLog("Count = recv(Sock, pBuf, cb, 0);");
        closesocket(s);
        return FALSE;
    }
    if (n == 0) {
        *pReceived = -1;
        DebugLog("if (Count == 0)");
        closesocket(s);
        return FALSE;
    }
    *pReceived = n;
    return TRUE;
}

/* How a step of the header ended. */
typedef enum { STEP_DONE, STEP_REFUSED, STEP_PEER_GONE, STEP_FAULT } StepResult;

/* Sends one step whole.  A print server that takes nothing for
 * LPR_HANDSHAKE_WAITS waits in a row is taken as gone, like one that closed
 * the connection: the socket is closed and the connect may be repeated. */
static StepResult SendStep(PINIPORT pIniPort, const char *pBytes, int cb) {
    int idle = 0;
    while (cb > 0) {
        int sent;
        if (!LprTimedSend(pIniPort->Socket, pBytes, cb, &sent)) return STEP_FAULT;
        if (sent == 0) {
            if (++idle >= LPR_HANDSHAKE_WAITS) {
                closesocket(pIniPort->Socket);
                return STEP_PEER_GONE;
            }
            continue;
        }
        idle = 0;
        pBytes += sent;
        cb -= sent;
    }
    return STEP_DONE;
}

/* Reads the one-byte answer of a step: 0x00 goes on, anything else refuses. */
static StepResult ReadAck(PINIPORT pIniPort) {
    for (int idle = 0; idle < LPR_HANDSHAKE_WAITS; ++idle) {
        char ack;
        int received;
        if (!LprTimedRecv(pIniPort->Socket, &ack, 1, &received))
            return received == -1 ? STEP_PEER_GONE : STEP_FAULT;
        if (received == 1) return ack == 0 ? STEP_DONE : STEP_REFUSED;
    }
    closesocket(pIniPort->Socket);
    return STEP_PEER_GONE;
}

/* Builds the control file: 0x02, the user line, the two document lines, the
 * host line, 0x00.  Returns the number of bytes built. */
static int BuildControlFile(PINIPORT pIniPort, char *pOut) {
    char name[LPR_NAME_BYTES];
    int n = 0;
    pOut[n++] = 0x02;

    WCHAR user[LPR_USER_CHARS];
    DWORD cchUser = LPR_USER_CHARS;
    if (GetUserNameW(user, &cchUser)) {
        NarrowName(user, name);
        int start = n;
        n += sprintf(pOut + n, "H%s", name);
        DebugLog(pOut + start);
        pOut[n++] = 0x0A;
    }

    union {
        JOB_INFO_1W info;
        BYTE bytes[1024];
    } job;
    DWORD needed = 0;
    if (GetJobW(pIniPort->hPrinter, pIniPort->JobId, 1, job.bytes, sizeof job.bytes, &needed)) {
        NarrowName(job.info.pDocument != NULL ? job.info.pDocument : TEXT(""), name);
        int start = n;
        n += sprintf(pOut + n, "J%s", name);
        DebugLog(pOut + start);
        pOut[n++] = 0x0A;
        start = n;
        n += sprintf(pOut + n, "N%s", name);
        DebugLog(pOut + start);
        pOut[n++] = 0x0A;
    }

    char host[LPR_HOSTNAME_BYTES];
    ShortHostName(host, sizeof host);
    int start = n;
    n += sprintf(pOut + n, "H%s", host);
    DebugLog(pOut + start);
    pOut[n++] = 0x0A;
    pOut[n++] = 0x00;
    return n;
}

/* Runs the header of the job.  TRUE: PP_LPRREADY is set and the socket stays
 * open.  FALSE: the socket is closed, and PP_RETRY says whether the connect may
 * be repeated. */
BOOL LprHandshake(PINIPORT pIniPort) {
    DebugLog("\n");
    DebugLog("Entry LprHandshake\n");
    char line[LPR_LINE_BYTES];
    char control[LPR_CONTROL_BYTES];
    char host[LPR_HOSTNAME_BYTES];

    char queue[QUEUE_NAME_BYTES];
    memset(queue, 0, sizeof queue);
    if (!GetPrintQueueName(pIniPort->pName, queue)) snprintf(queue, sizeof queue, "%s%c", "lpt", pIniPort->Lptn);

    StepResult step;
    int cb = snprintf(line, sizeof line, "\x02%s\n", queue);
    step = SendStep(pIniPort, line, cb);
    if (step == STEP_DONE) step = ReadAck(pIniPort);

    int cbControl = 0;
    if (step == STEP_DONE) {
        cbControl = BuildControlFile(pIniPort, control);
        ShortHostName(host, sizeof host);
        cb = snprintf(line, sizeof line, "\x02%d cfA%03i%s\n", cbControl - 1, (int)pIniPort->JobId, host);
        step = SendStep(pIniPort, line, cb);
        if (step == STEP_DONE) step = ReadAck(pIniPort);
    }
    if (step == STEP_DONE) {
        step = SendStep(pIniPort, control, cbControl);
        if (step == STEP_DONE) step = ReadAck(pIniPort);
    }
    if (step == STEP_DONE) {
        ShortHostName(host, sizeof host);
        cb = snprintf(line, sizeof line, "\x03%li dfA%03i%s\n", (long)LPR_DATA_FILE_LENGTH, (int)pIniPort->JobId,
                      host);
        step = SendStep(pIniPort, line, cb);
        if (step == STEP_DONE) step = ReadAck(pIniPort);
    }

    switch (step) {
    case STEP_DONE:
        pIniPort->Status = (pIniPort->Status & ~PP_LPRSTATES) | PP_LPRREADY;
        DebugLog("Leave LprHandshake - success\n");
        return TRUE;
    case STEP_REFUSED:
        CloseLprSocket(pIniPort);
        DebugLog("Leave LprHandshake - acknowledgement is not 0\n");
        return FALSE;
    case STEP_PEER_GONE:
        pIniPort->Socket = INVALID_SOCKET; /* closed on the way */
        pIniPort->Status |= PP_RETRY;
        DebugLog("Leave LprHandshake - connection closed\n");
        return FALSE;
    case STEP_FAULT:
    default:
        pIniPort->Socket = INVALID_SOCKET; /* closed by the timed call */
        DebugLog("Leave LprHandshake - socket error\n");
        return FALSE;
    }
}

/* One look at a connect under way. */
BOOL LprPollConnect(PINIPORT pIniPort) {
    fd_set writable, failed;
    FD_ZERO(&writable);
    FD_ZERO(&failed);
    FD_SET(pIniPort->Socket, &writable);
    FD_SET(pIniPort->Socket, &failed);
    struct timeval wait = {LPR_POLL_WAIT_MS / 1000, (LPR_POLL_WAIT_MS % 1000) * 1000};
    int ready = select(0, NULL, &writable, &failed, &wait);
    if (ready == SOCKET_ERROR) {
        CloseLprSocket(pIniPort);
        pIniPort->Status &= ~(PP_CONNECTING | PP_RETRY);
        return FALSE;
    }
    if (ready > 0 && FD_ISSET(pIniPort->Socket, &writable)) {
        pIniPort->Status = (pIniPort->Status & ~(PP_CONNECTING | PP_RETRY)) | PP_CONNECTED;
        return TRUE;
    }
    /* Refused (the exception set) or no answer within the wait: try again. */
    CloseLprSocket(pIniPort);
    pIniPort->Status = (pIniPort->Status & ~PP_CONNECTING) | PP_RETRY;
    return FALSE;
}

/* Ends LprOpenFile with one of its error lines. */
static BOOL OpenFailed(PINIPORT pIniPort, int error) {
    CloseLprSocket(pIniPort);
    pIniPort->Status &= ~PP_LPRSTATES;
    LogPrintf("Entry LprOpenFile() error %d\n", error);
    return FALSE;
}

BOOL LprOpenFile(PINIPORT pIniPort) {
    DebugLog("\n");
    DebugLog("Entry LprOpenFile()\n");
    for (int attempt = 0;;) {
        if (IsJobDeleting(pIniPort)) return OpenFailed(pIniPort, 1);

        pIniPort->Socket = socket(AF_INET, SOCK_STREAM, 0);
        if (pIniPort->Socket == INVALID_SOCKET) return OpenFailed(pIniPort, 2);

        char name[512];
        if (gethostname(name, sizeof name) != 0) name[0] = 0;
        name[sizeof name - 1] = 0;
        if (gethostbyname(name) == NULL) return OpenFailed(pIniPort, 3);

        u_long nonBlocking = 1;
        if (ioctlsocket(pIniPort->Socket, FIONBIO, &nonBlocking) != 0) return OpenFailed(pIniPort, 4);

        pIniPort->Status = PP_CONNECTING;
        struct sockaddr_in server;
        memset(&server, 0, sizeof server);
        server.sin_family = AF_INET;
        server.sin_port = htons(LPR_PORT);
        server.sin_addr.s_addr = htonl(pIniPort->IPAddress);
        BOOL retry = FALSE;
        if (connect(pIniPort->Socket, (struct sockaddr *)&server, sizeof server) == 0) {
            pIniPort->Status = (pIniPort->Status & ~PP_CONNECTING) | PP_CONNECTED;
        } else if (WSAGetLastError() != WSAEWOULDBLOCK) {
            CloseLprSocket(pIniPort);
            pIniPort->Status &= ~PP_CONNECTING;
            Sleep(LPR_PAUSE_MS);
            retry = TRUE;
        }

        if (!retry && (pIniPort->Status & PP_CONNECTING)) {
            Sleep(LPR_PAUSE_MS);
            if (!LprPollConnect(pIniPort)) {
                if (pIniPort->Status != PP_RETRY) return OpenFailed(pIniPort, 5);
                pIniPort->Status = 0;
                Sleep(LPR_PAUSE_MS);
                retry = TRUE;
            }
        }

        if (!retry && (pIniPort->Status & PP_CONNECTED)) {
            if (LprHandshake(pIniPort)) {
                pIniPort->Status = PP_LPRREADY;
                DebugLog("Leave LprOpenFile()\n");
                return TRUE;
            }
            if (!(pIniPort->Status & PP_RETRY)) return OpenFailed(pIniPort, 6);
            pIniPort->Status &= ~(PP_RETRY | PP_CONNECTED);
            Sleep(LPR_PAUSE_MS);
        }

        if (++attempt >= LPR_CONNECT_ATTEMPTS) return OpenFailed(pIniPort, 7);
    }
}

JobStartResult TcpJobStart(PINIPORT pIniPort) {
    pIniPort->PrintProtocol = SELECTOR_TCPIP;
    if (!IsNullEthernetID(pIniPort->NodeID)) {
        DebugLog("IsNullEthernetID return FALSE, user defined\n");
        if (!DynamicGetIP(pIniPort)) {
            DebugLog("DynamicGetIP fail\n");
            return JOB_START_FAILED;
        }
        DebugLog("DynamicGetIP ok\n");
    }
    if (!(SupportProtocol & PROTOCOL_TCPIP)) return JOB_START_FAILED;
    if (!LprOpenFile(pIniPort)) {
        DebugLog("LprOpenFile fail\n");
        return JOB_START_FAILED;
    }
    DebugLog("LprOpenFile ok\n");
    return JOB_STARTED;
}

/* Hands the buffer over in slices of at most 4096 bytes, one send a slice.  A
 * short or empty send ends the call with what has gone; the spooler calls
 * again with the rest. */
WriteResult LprWrite(PINIPORT pIniPort, LPBYTE pBuffer, DWORD cbBuf, LPDWORD pcbWritten) {
    for (;;) {
        DWORD slice = cbBuf < LPR_SLICE_BYTES ? cbBuf : LPR_SLICE_BYTES;
        if (pIniPort->Socket == INVALID_SOCKET) return WRITE_FAILED;
        int sent = 0;
        if (pIniPort->Status & PP_LPRREADY) {
            fd_set fds;
            FD_ZERO(&fds);
            FD_SET(pIniPort->Socket, &fds);
            struct timeval wait = {LPR_SEND_WAIT_MS / 1000, (LPR_SEND_WAIT_MS % 1000) * 1000};
            int ready = select(0, NULL, &fds, NULL, &wait);
            if (ready == SOCKET_ERROR) {
                CloseLprSocket(pIniPort);
                return WRITE_FAILED;
            }
            if (ready > 0) {
                sent = send(pIniPort->Socket, (const char *)pBuffer, (int)slice, 0);
                if (sent == SOCKET_ERROR) {
                    if (WSAGetLastError() != WSAEWOULDBLOCK) {
                        CloseLprSocket(pIniPort);
                        return WRITE_FAILED;
                    }
                    sent = 0;
                }
            }
        }
        DebugLog("LprWrite ok\n");
        if (sent == 0) {
            if (++pIniPort->ZeroWriteCount > LPR_ZERO_WRITE_LIMIT) {
                pIniPort->ZeroWriteCount = 0;
                Sleep(LPR_ZERO_WRITE_PAUSE_MS);
            }
        } else {
            pIniPort->ZeroWriteCount = 0;
        }
        *pcbWritten += (DWORD)sent;
        pBuffer += sent;
        cbBuf -= (DWORD)sent;
        if ((DWORD)sent != slice || cbBuf == 0) return WRITE_OK;
    }
}

/* The close is the only end-of-job mark that the print server gets. */
void LprCloseFile(PINIPORT pIniPort) {
    CloseLprSocket(pIniPort);
    pIniPort->Status = 0;
    Sleep(LPR_CLOSE_PAUSE_MS);
}
