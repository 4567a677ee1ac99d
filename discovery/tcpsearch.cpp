/*
 * TCP/IP discovery: print servers found by UDP broadcast to port 0x3434, in
 * three stages.  A search in three passes collects names and node addresses;
 * then each server found is asked for its EEPROM image (model, address,
 * TCP/IP flags) and for its queue names.  Every datagram goes to the limited
 * broadcast address: a read meant for one server names it by the node address
 * in the query's prefix.
 */
#include <winsock2.h>
#include <windows.h>

#include <string.h>

#include "availps.h"
#include "debuglog.h"
#include "discovery.h"

/* A datagram socket that may broadcast, non-blocking, bound to any local
 * address and port; INVALID_SOCKET when a step fails. */
static SOCKET OpenSearchSocket(void) {
    SOCKET s = socket(AF_INET, SOCK_DGRAM, 0);
    if (s == INVALID_SOCKET) return INVALID_SOCKET;
    u_long nonBlocking = 1;
    BOOL on = TRUE;
    struct sockaddr_in local;
    memset(&local, 0, sizeof local);
    local.sin_family = AF_INET;
    local.sin_port = htons(0);
    local.sin_addr.s_addr = htonl(INADDR_ANY);
    if (ioctlsocket(s, FIONBIO, &nonBlocking) == SOCKET_ERROR ||
        setsockopt(s, SOL_SOCKET, SO_BROADCAST, (const char *)&on, sizeof on) == SOCKET_ERROR ||
        bind(s, (struct sockaddr *)&local, sizeof local) != 0) {
        closesocket(s);
        return INVALID_SOCKET;
    }
    return s;
}

/* The send step: the query goes out when the socket is writable within the
 * wait; otherwise nothing is sent and the caller listens all the same. */
static void SendQuery(SOCKET s, const BYTE *pQuery) {
    fd_set fds;
    FD_ZERO(&fds);
    FD_SET(s, &fds);
    struct timeval wait = {TCP_SEARCH_WAIT_MS / 1000, (TCP_SEARCH_WAIT_MS % 1000) * 1000};
    if (select(0, NULL, &fds, NULL, &wait) <= 0 || !FD_ISSET(s, &fds)) return;
    struct sockaddr_in to;
    memset(&to, 0, sizeof to);
    to.sin_family = AF_INET;
    to.sin_port = htons(MGMT_UDP_PORT);
    to.sin_addr.s_addr = htonl(INADDR_BROADCAST);
    sendto(s, (const char *)pQuery, MGMT_UDP_PREFIX_BYTES + (int)sizeof(ManagementQuery), 0,
           (struct sockaddr *)&to, sizeof to);
}

BOOL TCPSearchRcv(SOCKET s, char *buffer, int size, struct sockaddr_in *source, int *pcbReceived) {
    *pcbReceived = 0;
    fd_set fds;
    FD_ZERO(&fds);
    FD_SET(s, &fds);
    struct timeval wait = {TCP_SEARCH_WAIT_MS / 1000, (TCP_SEARCH_WAIT_MS % 1000) * 1000};
    int ready = select(0, &fds, NULL, NULL, &wait);
    if (ready == 0) {
        DebugLog("[TCPSearchRcv()] Select Error\n");
        return FALSE;
    }
    if (ready == SOCKET_ERROR) {
        DebugLog("[TCPSearchRcv()] Socket Error\n");
        return FALSE;
    }
    if (!FD_ISSET(s, &fds)) {
        DebugLog("[TCPSearchRcv()] FD Set Error\n");
        return FALSE;
    }
    int cbSource = sizeof *source;
    int n = recvfrom(s, buffer, size, 0, (struct sockaddr *)source, &cbSource);
    if (n <= 0) {
        DebugLog("[TCPSearchRcv()] Receive Byte Error\n");
        return FALSE;
    }
    *pcbReceived = n;
    return TRUE;
}

BOOL TCPSearchTakeReply(AvailPSTable *pTable, const BYTE *pReply, int cb) {
    if (cb < TCP_SEARCH_REPLY_MIN || !IsManagementReply(MGMT_CARRIER_UDP, pReply, cb, MGMT_SEARCH)) return FALSE;
    const BYTE *body = pReply + MGMT_UDP_BODY;
    BYTE type = body[SEARCH_TYPE_OFFSET];
    if (type != PS_TYPE_PLAIN && type != PS_TYPE_QUEUE_NAMES) return FALSE;

    /* The name ends at its first zero byte, at the end of its field, or where
     * the record has no more room, whichever comes first. */
    WCHAR name[AVAILPS_NAME_CHARS];
    int len = WidenText(body + SEARCH_NAME_OFFSET, SEARCH_NAME_BYTES, name, AVAILPS_NAME_CHARS);
    while (len > 0 && name[len - 1] == ' ') name[--len] = 0;

    AvailPSRecord *record = AvailPSTakeName(pTable, name, body[SEARCH_AUTOPROTOCOL_OFFSET], NULL);
    if (record == NULL) return FALSE;
    record->Type = type;
    memcpy(record->NodeID, pReply, NODE_ID_BYTES);
    return TRUE;
}

BOOL TCPSearchInto(AvailPSTable *pTable) {
    SOCKET s = OpenSearchSocket();
    if (s == INVALID_SOCKET) return FALSE;
    BYTE query[MGMT_QUERY_MAX_BYTES];
    BuildManagementQuery(MGMT_CARRIER_UDP, MGMT_SEARCH, NULL, query);

    char reply[TCP_SEARCH_BUFFER];
    for (int pass = 0; pass < TCP_SEARCH_PASSES; ++pass) {
        SendQuery(s, query);
        for (int datagrams = 0; datagrams < TCP_SEARCH_PASS_DATAGRAMS; ++datagrams) {
            struct sockaddr_in source;
            int cb;
            if (!TCPSearchRcv(s, reply, sizeof reply, &source, &cb)) break;
            TCPSearchTakeReply(pTable, (const BYTE *)reply, cb);
        }
    }
    closesocket(s);

    for (int i = 0; i < pTable->Count && i < AVAILPS_RECORDS; ++i)
        TCPReadEEPROM(pTable->Records[i].NodeID, &pTable->Records[i]);
    for (int i = 0; i < pTable->Count && i < AVAILPS_RECORDS; ++i)
        TCPSearchQueueName(pTable->Records[i].NodeID, &pTable->Records[i]);
    return TRUE;
}

BOOL TCPSearch(void) {
    AvailPSTable *table = AvailPSBeginSearch();
    if (table == NULL) return FALSE;
    BOOL result = TCPSearchInto(table);
    AvailPSEndSearch(table);
    return result;
}

BOOL TCPTakeEEPROM(const BYTE *pReply, int cb, const BYTE *nodeID, AvailPSRecord *pRecord) {
    if (cb < TCP_EEPROM_REPLY_MIN ||
        !IsManagementReply(MGMT_CARRIER_UDP, pReply, cb, MGMT_READ_EEPROM) ||
        memcmp(pReply, nodeID, NODE_ID_BYTES) != 0)
        return FALSE;
    const BYTE *image = pReply + MGMT_UDP_BODY;
    AvailPSFromEEPROM(image, pRecord);
    const BYTE *ip = image + EEPROM_IP_OFFSET;
    LogPrintf("IP Address:%d.%d.%d.%d\n", ip[0], ip[1], ip[2], ip[3]);
    LogPrintf("ps.SupportProtocol(1):%d\n", image[EEPROM_SUPPORTPROTOCOL_OFFSET]);
    LogPrintf("ps.Config(4):%d\n", image[EEPROM_CONFIG_OFFSET]);
    if (pRecord->Flags & PS_FLAG_TCPIP_SUPPORTED) DebugLog("Support TCPIP\n");
    if (pRecord->Flags & PS_FLAG_TCPIP_ENABLED) DebugLog("TCPIP Enable\n");
    return TRUE;
}

BOOL TCPReadEEPROM(const BYTE *nodeID, AvailPSRecord *pRecord) {
    DebugLog("[TCPReadEEPROM] Enter\n");
    SOCKET s = OpenSearchSocket();
    if (s == INVALID_SOCKET) return FALSE;
    BYTE query[MGMT_QUERY_MAX_BYTES];
    BuildManagementQuery(MGMT_CARRIER_UDP, MGMT_READ_EEPROM, nodeID, query);

    char reply[TCP_READ_BUFFER];
    memset(reply, 0, sizeof reply);
    for (int attempt = 0; attempt < TCP_EEPROM_TRIES; ++attempt) {
        SendQuery(s, query);
        DebugLog("[TCPReadEEPROM] Before Receive\n");
        struct sockaddr_in source;
        int cb;
        if (!TCPSearchRcv(s, reply, sizeof reply, &source, &cb)) {
            DebugLog("[TCPReadEEPROM] Received Error\n");
            continue;
        }
        DebugLog("[TCPReadEEPROM] Received\n");
        const BYTE *from = (const BYTE *)reply;
        LogPrintf("to NodeID:%02X-%02X-%02X-%02X-%02X-%02X\n", nodeID[0], nodeID[1], nodeID[2], nodeID[3],
                  nodeID[4], nodeID[5]);
        LogPrintf("Receive NodeID:%02X-%02X-%02X-%02X-%02X-%02X\n", from[0], from[1], from[2], from[3], from[4],
                  from[5]);
        /* A stray datagram costs a try, as silence does. */
        if (TCPTakeEEPROM(from, cb, nodeID, pRecord)) break;
        DebugLog("[TC{PReadEEPROM] Received data check error");
    }
    closesocket(s);
    return TRUE;
}

int CutQueueName(char *pText, int len) {
    /* A text of fewer than two bytes loses what it has and becomes empty. */
    len = len >= 2 ? len - 2 : 0;
    pText[len] = 0;
    if (len > 0 && pText[len - 1] == ' ') pText[--len] = 0;
    return len;
}

static void LogEightBytes(const char *pText) {
    const BYTE *b = (const BYTE *)pText;
    LogPrintf("\n%02x%02x%02x%02x%02x%02x%02x%02x\n", b[0], b[1], b[2], b[3], b[4], b[5], b[6], b[7]);
}

BOOL TCPTakeQueueNames(const BYTE *pReply, int cb, AvailPSRecord *pRecord) {
    if (cb < TCP_QUEUE_REPLY_MIN ||
        !IsManagementReply(MGMT_CARRIER_UDP, pReply, cb, MGMT_QUEUE_NAMES))
        return FALSE;
    for (int port = 0; port < AVAILPS_PRINTER_PORTS; ++port) {
        const BYTE *field = pReply + MGMT_UDP_BODY + QUEUE_BODY_TEXT_OFFSET + port * QUEUE_BODY_TEXT_STRIDE;
        char text[AVAILPS_QUEUE_TEXT_BYTES];
        memset(text, 0, sizeof text);
        int len = 0;
        while (len < QUEUE_BODY_TEXT_BYTES && field[len] != 0) {
            text[len] = (char)field[len];
            ++len;
        }
        if (port == 0) {
            LogPrintf("show search Qname sizeof of wcslen %d\n", len);
            LogEightBytes(text);
        }
        len = CutQueueName(text, len);
        if (port == 0) LogEightBytes(text);
        memcpy(pRecord->QueueName[port].Text, text, (size_t)len + 1);
    }
    return TRUE;
}

BOOL TCPSearchQueueName(const BYTE *nodeID, AvailPSRecord *pRecord) {
    DebugLog("enter search Queuename\n");
    SOCKET s = OpenSearchSocket();
    if (s == INVALID_SOCKET) return FALSE;
    BYTE query[MGMT_QUERY_MAX_BYTES];
    BuildManagementQuery(MGMT_CARRIER_UDP, MGMT_QUEUE_NAMES, nodeID, query);

    char reply[TCP_READ_BUFFER];
    memset(reply, 0, sizeof reply);
    for (int attempt = 0; attempt < TCP_QUEUE_NAME_TRIES; ++attempt) {
        SendQuery(s, query);
        struct sockaddr_in source;
        int cb;
        BOOL received = TCPSearchRcv(s, reply, sizeof reply, &source, &cb);
        DebugLog("enter search Queuename before receive ok\n");
        if (!received) continue;
        DebugLog("enter search Queuename receive ok\n");
        /* The node prefix isn't compared here. */
        if (TCPTakeQueueNames((const BYTE *)reply, cb, pRecord)) break;
    }
    closesocket(s);
    return TRUE;
}
