/*
 * The dynamic address lookup: a port that knows its print server's node
 * address asks for the server's current IP address before each LPR job.  The
 * status query carries the node address in its prefix and goes to the limited
 * broadcast address; the print server with that node answers with its
 * address at reply offset 68.
 */
#include <winsock2.h>
#include <windows.h>

#include <string.h>

#include "availps.h"
#include "debuglog.h"
#include "dynip.h"
#include "lpr.h"
#include "monitor.h"
#include "transport.h"

BOOL IsNullEthernetID(const BYTE *pNodeID) {
    for (int i = 0; i < NODE_ID_BYTES; ++i)
        if (pNodeID[i] != 0) return FALSE;
    return TRUE;
}

BOOL StatusReplyAddress(const BYTE *pReply, int cb, DWORD *pAddress) {
    if (cb < STATUS_REPLY_MIN || !IsManagementReply(MGMT_CARRIER_UDP, pReply, cb, MGMT_STATUS)) return FALSE;
    const BYTE *a = pReply + STATUS_REPLY_ADDRESS;
    *pAddress = ((DWORD)a[0] << 24) | ((DWORD)a[1] << 16) | ((DWORD)a[2] << 8) | (DWORD)a[3];
    return TRUE;
}

BOOL UDPTimedBroadcast(SOCKET s, const char *pBytes, int cb, int *pSent) {
    *pSent = 0;
    fd_set fds;
    FD_ZERO(&fds);
    FD_SET(s, &fds);
    struct timeval wait = {STATUS_SEND_WAIT_MS / 1000, (STATUS_SEND_WAIT_MS % 1000) * 1000};
    int ready = select(0, NULL, &fds, NULL, &wait);
    if (ready == SOCKET_ERROR) {
        closesocket(s);
        return FALSE;
    }
    if (ready == 0) return TRUE;

    struct sockaddr_in to;
    memset(&to, 0, sizeof to);
    to.sin_family = AF_INET;
    to.sin_port = htons(MGMT_UDP_PORT);
    to.sin_addr.s_addr = htonl(INADDR_BROADCAST);
    int n = sendto(s, pBytes, cb, 0, (struct sockaddr *)&to, sizeof to);
    if (n == SOCKET_ERROR) {
        if (WSAGetLastError() == WSAEWOULDBLOCK) return TRUE;
        closesocket(s);
        return FALSE;
    }
    *pSent = n;
    return TRUE;
}

/* How one pass of the lookup ended. */
typedef enum { PASS_REPLY, PASS_NOTHING, PASS_SOCKET_GONE } PassResult;

/* One pass: the query, sent whole in up to STATUS_SEND_ATTEMPTS sends, then up
 * to STATUS_READ_ATTEMPTS reads, each arrival behind the last, until enough
 * bytes have come.  *pReceived: the bytes of this pass. */
static PassResult StatusPass(SOCKET s, BYTE *buffer, const BYTE *node, int *pReceived) {
    *pReceived = 0;
    /* Anew for each pass: a reply overwrites the buffer. */
    BuildManagementQuery(MGMT_CARRIER_UDP, MGMT_STATUS, node, buffer);
    int sent = 0;
    for (int attempt = 0; attempt < STATUS_SEND_ATTEMPTS && sent < STATUS_QUERY_BYTES; ++attempt) {
        int n;
        if (!UDPTimedBroadcast(s, (const char *)buffer + sent, STATUS_QUERY_BYTES - sent, &n))
            return PASS_SOCKET_GONE;
        sent += n;
    }
    if (sent < STATUS_QUERY_BYTES) return PASS_NOTHING;

    int received = 0;
    for (int attempt = 0; attempt < STATUS_READ_ATTEMPTS; ++attempt) {
        int n;
        if (!LprTimedRecv(s, (char *)buffer + received, STATUS_REPLY_BUFFER - received, &n))
            return PASS_SOCKET_GONE;
        received += n;
        if (received >= STATUS_REPLY_ENOUGH || received >= STATUS_REPLY_BUFFER) {
            *pReceived = received;
            return PASS_REPLY;
        }
    }
    return PASS_NOTHING;
}

static BOOL LeaveStatus(const char *line) {
    DebugLog(line);
    DebugLog("Leave GetPServerStatus()\n");
    return FALSE;
}

BOOL GetPServerStatus(BYTE *buffer, const BYTE *node) {
    DebugLog("Entter GetPServerStatus()\n");
    SOCKET s = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (s == INVALID_SOCKET) return LeaveStatus("Invalid socket\n");
    u_long nonBlocking = 1;
    if (ioctlsocket(s, FIONBIO, &nonBlocking) != 0) {
        closesocket(s);
        return LeaveStatus("Set socket error\n");
    }
    DebugLog("Try TCPIP protocol\n");
    BOOL on = TRUE;
    if (setsockopt(s, SOL_SOCKET, SO_BROADCAST, (const char *)&on, sizeof on) != 0) {
        closesocket(s);
        return LeaveStatus("UDP broadcast error\n");
    }

    int received = 0;
    PassResult result = PASS_NOTHING;
    for (int pass = 0; pass < STATUS_PASSES && result == PASS_NOTHING; ++pass)
        result = StatusPass(s, buffer, node, &received);
    /* A failed send or read has closed the socket already: no pass after it
     * could succeed. */
    if (result != PASS_REPLY) {
        if (result == PASS_NOTHING) closesocket(s);
        return LeaveStatus("Timeout\n");
    }

    closesocket(s);
    /* A reply that ended the reading with 66 to 71 bytes holds no address:
     * it is no status reply, as one with another head. */
    DWORD address;
    if (!StatusReplyAddress(buffer, received, &address)) return LeaveStatus("GetPServerStatus failed\n");
    DebugLog("GetPServerStatus OK\n");
    DebugLog("Leave GetPServerStatus()\n");
    return TRUE;
}

BOOL DynamicGetIP(PINIPORT pIniPort) {
    DebugLog("\n");
    DebugLog("Entry DynamicGetIP\n");
    BYTE reply[STATUS_REPLY_BUFFER];
    if (!GetPServerStatus(reply, pIniPort->NodeID)) {
        DebugLog("Leave DynamicGetIP - call GetPServerStatus return FALSE\n");
        return FALSE;
    }
    DWORD address = 0;
    StatusReplyAddress(reply, STATUS_REPLY_MIN, &address);
    pIniPort->IPAddress = address;
    if (pIniPort->IPAddress == 0) {
        DebugLog("Leave DynamicGetIP - IPAddress = 0\n");
        return FALSE;
    }
    DebugLog("Leave DynamicGetIP - success\n");
    return TRUE;
}
