/*
 * IPX discovery: print servers found by IPX broadcast to socket 0x3434 on the
 * local network, in a number of passes that the caller gives, each answer
 * from the node that sent it; then, when asked, the EEPROM image of each
 * server found.  The add-port dialogs ask for three passes and the images;
 * the IPX job start for one pass, to learn a server's node.  Nothing here logs.
 */
#include <winsock2.h>
#include <windows.h>
#include <wsipx.h>

#include <string.h>

#include "availps.h"
#include "discovery.h"
#include "ipx.h"

static const BYTE BroadcastNode[NODE_ID_BYTES] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

BOOL IPXSearchTakeReply(AvailPSTable *pTable, const BYTE *pReply, int cb, const BYTE *senderNode) {
    if (cb < IPX_SEARCH_REPLY_MIN || !IsManagementReply(MGMT_CARRIER_IPX, pReply, cb, MGMT_SEARCH)) return FALSE;
    const BYTE *body = pReply + MGMT_IPX_BODY;
    /* Trailing blanks stay: the job start compares the name with its port's. */
    WCHAR name[AVAILPS_NAME_CHARS];
    WidenText(body + SEARCH_NAME_OFFSET, SEARCH_NAME_BYTES, name, AVAILPS_NAME_CHARS);
    AvailPSRecord *record = AvailPSTakeName(pTable, name, body[SEARCH_AUTOPROTOCOL_OFFSET], NULL);
    if (record == NULL) return FALSE;
    memcpy(record->NodeID, senderNode, NODE_ID_BYTES);
    return TRUE;
}

BOOL IPXSearchInto(AvailPSTable *pTable, int passes, int readInfo) {
    SOCKET s = IPXOpenSocket(TRUE);
    if (s == INVALID_SOCKET) return FALSE;
    BYTE query[MGMT_QUERY_MAX_BYTES];
    int cbQuery = BuildManagementQuery(MGMT_CARRIER_IPX, MGMT_SEARCH, NULL, query);
    SOCKADDR_IPX to;
    IPXAddress(&to, BroadcastNode, MGMT_IPX_SOCKET);

    BYTE reply[IPX_SEARCH_BUFFER];
    for (int pass = 0; pass < passes; ++pass) {
        IPXSendStep(s, &to, query, cbQuery);
        for (int datagrams = 0; datagrams < IPX_SEARCH_PASS_DATAGRAMS; ++datagrams) {
            SOCKADDR_IPX from;
            int cb;
            if (!IPXTimedRecv(s, reply, sizeof reply, &cb, &from)) break;
            IPXSearchTakeReply(pTable, reply, cb, (const BYTE *)from.sa_nodenum);
        }
    }
    closesocket(s);

    if (readInfo == 1)
        for (int i = 0; i < pTable->Count && i < AVAILPS_RECORDS; ++i)
            IPXReadInfo(pTable->Records[i].NodeID, &pTable->Records[i]);
    return TRUE;
}

BOOL IPXSearch(int passes, int readInfo) {
    AvailPSTable *table = AvailPSBeginSearch();
    if (table == NULL) return FALSE;
    BOOL result = IPXSearchInto(table, passes, readInfo);
    AvailPSEndSearch(table);
    return result;
}

BOOL IPXTakeEEPROM(const BYTE *pReply, int cb, AvailPSRecord *pRecord) {
    if (cb < IPX_EEPROM_REPLY_MIN ||
        !IsManagementReply(MGMT_CARRIER_IPX, pReply, cb, MGMT_READ_EEPROM))
        return FALSE;
    AvailPSFromEEPROM(pReply + MGMT_IPX_BODY, pRecord);
    return TRUE;
}

BOOL IPXReadInfo(const BYTE *nodeID, AvailPSRecord *pRecord) {
    SOCKET s = IPXOpenSocket(FALSE);
    if (s == INVALID_SOCKET) return FALSE;
    BYTE query[MGMT_QUERY_MAX_BYTES];
    int cbQuery = BuildManagementQuery(MGMT_CARRIER_IPX, MGMT_READ_EEPROM, NULL, query);
    SOCKADDR_IPX to;
    IPXAddress(&to, nodeID, MGMT_IPX_SOCKET);
    BYTE reply[IPX_READ_BUFFER];
    for (int attempt = 0; attempt < IPX_EEPROM_TRIES; ++attempt) {
        IPXSendStep(s, &to, query, cbQuery);
        int cb;
        /* The sender isn't compared; a stray datagram costs a try. */
        if (IPXTimedRecv(s, reply, sizeof reply, &cb, NULL) && IPXTakeEEPROM(reply, cb, pRecord)) break;
    }
    closesocket(s);
    return TRUE;
}
