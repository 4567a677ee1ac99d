/*
 * The IPX transport: the print channel in IPX datagrams to the print server's
 * node.  Every frame travels on a socket of its own, made, bound and closed
 * for it: connects go to socket 0x3030, data and hang-ups to the socket of
 * the printer port.  Each job start first looks the print server up by name
 * (five one-pass searches at most, under PortListLock) and takes its node.
 */
#include <winsock2.h>
#include <windows.h>
#include <wsipx.h>

#include <string.h>

#include "availps.h"
#include "channel.h"
#include "debuglog.h"
#include "discovery.h"
#include "ipx.h"
#include "monitor.h"
#include "transport.h"

/* ---- the socket steps ------------------------------------------------------------------ */

SOCKET IPXOpenSocket(BOOL broadcast) {
    SOCKET s = socket(AF_IPX, SOCK_DGRAM, NSPROTO_IPX);
    if (s == INVALID_SOCKET) return INVALID_SOCKET;
    u_long nonBlocking = 1;
    BOOL on = TRUE;
    SOCKADDR_IPX local;
    memset(&local, 0, sizeof local);
    local.sa_family = AF_IPX;
    if (ioctlsocket(s, FIONBIO, &nonBlocking) == SOCKET_ERROR ||
        (broadcast && setsockopt(s, SOL_SOCKET, SO_BROADCAST, (const char *)&on, sizeof on) == SOCKET_ERROR) ||
        bind(s, (struct sockaddr *)&local, sizeof local) != 0) {
        closesocket(s);
        return INVALID_SOCKET;
    }
    return s;
}

void IPXAddress(SOCKADDR_IPX *pAddress, const BYTE *node, WORD socketNumber) {
    memset(pAddress, 0, sizeof *pAddress);
    pAddress->sa_family = AF_IPX;
    memcpy(pAddress->sa_nodenum, node, sizeof pAddress->sa_nodenum);
    pAddress->sa_socket = htons(socketNumber);
}

void IPXSendStep(SOCKET s, const SOCKADDR_IPX *pTo, const BYTE *pBytes, int cb) {
    fd_set fds;
    FD_ZERO(&fds);
    FD_SET(s, &fds);
    struct timeval wait = {IPX_WAIT_MS / 1000, (IPX_WAIT_MS % 1000) * 1000};
    if (select(0, NULL, &fds, NULL, &wait) <= 0 || !FD_ISSET(s, &fds)) return;
    sendto(s, (const char *)pBytes, cb, 0, (const struct sockaddr *)pTo, sizeof *pTo);
}

BOOL IPXTimedRecv(SOCKET s, BYTE *pBuffer, int length, int *pcbReceived, SOCKADDR_IPX *pFrom) {
    *pcbReceived = 0;
    fd_set fds;
    FD_ZERO(&fds);
    FD_SET(s, &fds);
    struct timeval wait = {IPX_WAIT_MS / 1000, (IPX_WAIT_MS % 1000) * 1000};
    if (select(0, &fds, NULL, NULL, &wait) <= 0 || !FD_ISSET(s, &fds)) return FALSE;
    SOCKADDR_IPX from;
    int cbFrom = sizeof from;
    int n = recvfrom(s, (char *)pBuffer, length, 0, (struct sockaddr *)&from, &cbFrom);
    if (n <= 0) return FALSE;
    *pcbReceived = n;
    if (pFrom != NULL) *pFrom = from;
    return TRUE;
}

/* ---- the three operations --------------------------------------------------------------- */

WORD IPXDataSocket(BYTE port) {
    switch (port) {
    case 1: return 0x3131;
    case 2: return 0x3232;
    case 3: return 0x3535;
    default: return 0;
    }
}

/* Sends the frame, then resends it up to `resends` times, each send followed
 * by a wait of up to 0.5 s for a reply; the reply to the last resend is read
 * and not looked at.  TRUE when an acceptable reply ended the exchange, its
 * Channel in *pChannel: for a connect only a nonzero one ends it, a zero one
 * (busy) sets *pBusy.  A connect pauses after every reply whose byte 5 is 0,
 * acceptable or not. */
static BOOL Exchange(SOCKET s, const SOCKADDR_IPX *pTo, const BYTE *pFrame, int cbFrame, int resends,
                     BYTE *pChannel, BOOL *pBusy) {
    const BOOL connect = ((const ChannelFrame *)pFrame)->Command == CHANNEL_CONNECT;
    BYTE reply[CHANNEL_HEADER_BYTES];
    int cbReply = 0;
    IPXSendStep(s, pTo, pFrame, cbFrame);
    BOOL inHand = IPXTimedRecv(s, reply, sizeof reply, &cbReply, NULL);
    for (int i = 0; i < resends; ++i) {
        if (inHand && IsChannelReplyAcceptable(pFrame, reply, cbReply)) {
            if (!connect || reply[5] != 0) {
                *pChannel = reply[5];
                return TRUE;
            }
            *pBusy = TRUE;
        }
        if (connect && inHand && cbReply > 5 && reply[5] == 0) Sleep(CHANNEL_PAUSE_MS);
        IPXSendStep(s, pTo, pFrame, cbFrame);
        inHand = IPXTimedRecv(s, reply, sizeof reply, &cbReply, NULL);
    }
    return FALSE;
}

BYTE IPXConnect(const BYTE *node, BYTE port) {
    SOCKET s = IPXOpenSocket(FALSE);
    if (s == INVALID_SOCKET) return CONNECT_BUSY;
    SOCKADDR_IPX to;
    IPXAddress(&to, node, IPX_CONNECT_SOCKET);
    BYTE frame[CHANNEL_HEADER_BYTES];
    int cb = BuildChannelFrame(CHANNEL_CONNECT, port, CHANNEL_NONE, 0, NULL, 0, frame);
    BYTE channel = CONNECT_NO_RESPONSE;
    BOOL busy = FALSE;
    BOOL answered = Exchange(s, &to, frame, cb, CHANNEL_CONNECT_RESENDS, &channel, &busy);
    closesocket(s);
    if (answered) return channel;
    return busy ? CONNECT_BUSY : CONNECT_NO_RESPONSE;
}

/* A data or hang-up frame to the printer port's socket. */
static BOOL SendOnPort(const BYTE *node, BYTE port, BYTE command, BYTE tid, DWORD sequence, const BYTE *data,
                       DWORD length, int resends) {
    SOCKET s = IPXOpenSocket(FALSE);
    if (s == INVALID_SOCKET) return FALSE;
    WORD socketNumber = IPXDataSocket(port);
    if (socketNumber == 0) {
        closesocket(s);
        return FALSE;
    }
    SOCKADDR_IPX to;
    IPXAddress(&to, node, socketNumber);
    BYTE frame[CHANNEL_FRAME_BYTES];
    int cb = BuildChannelFrame(command, port, tid, sequence, data, length, frame);
    BYTE channel;
    BOOL busy = FALSE;
    BOOL acknowledged = Exchange(s, &to, frame, cb, resends, &channel, &busy);
    closesocket(s);
    return acknowledged;
}

BOOL IPXSendData(const BYTE *node, BYTE port, BYTE tid, DWORD sequence, const BYTE *data, DWORD length) {
    return SendOnPort(node, port, CHANNEL_DATA, tid, sequence, data, length, CHANNEL_DATA_RESENDS);
}

BOOL IPXHangup(const BYTE *node, BYTE port, BYTE tid) {
    return SendOnPort(node, port, CHANNEL_HANGUP, tid, 0, NULL, 0, CHANNEL_HANGUP_RESENDS);
}

/* ---- the job ------------------------------------------------------------------------------- */

static BYTE IpxConnectOp(PINIPORT pIniPort, BYTE port) { return IPXConnect(pIniPort->NodeID, port); }

static BOOL IpxSendDataOp(PINIPORT pIniPort, DWORD sequence, const BYTE *pData, DWORD cbData) {
    return IPXSendData(pIniPort->NodeID, pIniPort->ChannelPort, pIniPort->Tid, sequence, pData, cbData);
}

static BOOL IpxHangupOp(PINIPORT pIniPort) {
    return IPXHangup(pIniPort->NodeID, pIniPort->ChannelPort, pIniPort->Tid);
}

static const ChannelTransport IpxChannel = {
    IpxConnectOp,
    IpxSendDataOp,
    IpxHangupOp,
    "IPXConnect port %c\n",
    "PrintServer response still busy , sleep %d ms (timeout=%d)\n",
    "GetJob fail\n",
    "IPXSebdData = FALSE , sleep %d ms (timeout = %d)\n",
};

/* Finds the print server by name, up to five one-pass searches, and takes
 * its node into the record; without a match the stored node stays.  Holds
 * PortListLock throughout.  The searches fill a table of the job start's own,
 * so that an add-port dialog keeps the table it shows and a search of
 * AvailPS on another thread never holds this one up; without memory for that
 * table nothing is searched, and the stored node is used. */
static void RefreshNode(PINIPORT pIniPort) {
    /* The print server's name: the port name without its "-P1" suffix.  One
     * too long for a record's Name can match no record. */
    WCHAR name[AVAILPS_NAME_CHARS];
    int len = lstrlenW(pIniPort->pName) - 3;
    BOOL nameFits = len >= 0 && len < AVAILPS_NAME_CHARS;
    if (nameFits) {
        memcpy(name, pIniPort->pName, (size_t)len * sizeof(WCHAR));
        name[len] = 0;
    }

    AvailPSTable *table = AvailPSNewTable();
    if (table == NULL) return;
    EnterCriticalSection(&PortListLock);
    for (int search = 0; search < IPX_SEARCHES_AT_JOB_START; ++search) {
        table->Count = 0;
        IPXSearchInto(table, 1, 0);
        int found = -1;
        for (int i = 0; nameFits && found < 0 && i < table->Count && i < AVAILPS_RECORDS; ++i)
            if (lstrcmpW(table->Records[i].Name, name) == 0) found = i;
        if (found >= 0) {
            memcpy(pIniPort->NodeID, table->Records[found].NodeID, sizeof pIniPort->NodeID);
            break;
        }
    }
    LeaveCriticalSection(&PortListLock);
    LocalFree(table);
}

JobStartResult IPXJobStart(PINIPORT pIniPort, BYTE *pConnectOutcome) {
    RefreshNode(pIniPort);
    return ChannelJobStart(pIniPort, &IpxChannel, pConnectOutcome);
}

WriteResult IPXWrite(PINIPORT pIniPort, LPBYTE pBuffer, DWORD cbBuf, LPDWORD pcbWritten) {
    return ChannelWrite(pIniPort, &IpxChannel, pBuffer, cbBuf, pcbWritten);
}

void IPXJobEnd(PINIPORT pIniPort) { ChannelJobEnd(pIniPort, &IpxChannel); }
