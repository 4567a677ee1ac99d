/*
 * NetBIOS discovery: print servers found by a query to their group name,
 * KVTR.GROUP, from Name0 on the working LANA, its answers collected in ten
 * receives pending at once over three passes; then the EEPROM image of each
 * server found, read by the NetBIOS name it holds for that, its short name
 * and ".CFG".  The receives are the platform's to fill while they are
 * pending, so none outlives the call that armed it.  Nothing here logs.
 */
#include <windows.h>
#include <nb30.h>

#include <string.h>

#include "availps.h"
#include "discovery.h"
#include "nbstartup.h"
#include "resource.h"

void NBCfgName(const BYTE *pShortName, char *pOut) {
    int n = 0;
    while (n < SEARCH_SHORT_NAME_BYTES && pShortName[n] != 0) {
        pOut[n] = (char)pShortName[n];
        ++n;
    }
    memcpy(pOut + n, ".CFG", 5);
}

BOOL NBSearchTakeReply(AvailPSTable *pTable, const BYTE *pReply, int cb, char (*cfgNames)[NB_CFG_NAME_BYTES]) {
    if (cb < NB_SEARCH_REPLY_MIN || !IsManagementReply(MGMT_CARRIER_NETBIOS, pReply, cb, MGMT_SEARCH)) return FALSE;
    const BYTE *body = pReply + MGMT_NETBIOS_BODY;
    WCHAR name[AVAILPS_NAME_CHARS];
    WidenText(body + SEARCH_NAME_OFFSET, SEARCH_NAME_BYTES, name, AVAILPS_NAME_CHARS);
    int index;
    if (AvailPSTakeName(pTable, name, body[SEARCH_AUTOPROTOCOL_OFFSET], &index) == NULL) return FALSE;
    NBCfgName(body + SEARCH_SHORT_NAME_OFFSET, cfgNames[index]);
    return TRUE;
}

BOOL NBTakeEEPROM(const BYTE *pReply, int cb, AvailPSRecord *pRecord) {
    if (cb < NB_EEPROM_REPLY_MIN ||
        !IsManagementReply(MGMT_CARRIER_NETBIOS, pReply, cb, MGMT_READ_EEPROM))
        return FALSE;
    const BYTE *image = pReply + MGMT_NETBIOS_BODY;
    memcpy(pRecord->NodeID, image + EEPROM_NODE_OFFSET, NODE_ID_BYTES);
    AvailPSFromEEPROM(image, pRecord);
    return TRUE;
}

/* A block with Name0, its number and the working LANA, read under the
 * start-up's lock: a start-up on another thread rewrites WorkingNcb. */
static void FromWorkingNcb(NCB *pNcb) {
    memset(pNcb, 0, sizeof *pNcb);
    EnterCriticalSection(&NBStartupLock);
    pNcb->ncb_num = WorkingNcb.ncb_num;
    pNcb->ncb_lana_num = WorkingNcb.ncb_lana_num;
    memcpy(pNcb->ncb_name, WorkingNcb.ncb_name, NCBNAMSZ);
    LeaveCriticalSection(&NBStartupLock);
}

static void Arm(NCB *pReceive, BYTE *pBuffer, WORD cbBuffer) {
    pReceive->ncb_command = NCBDGRECV | ASYNCH;
    pReceive->ncb_buffer = pBuffer;
    pReceive->ncb_length = cbBuffer;
    Netbios(pReceive);
}

/* A query to the name (padded with blanks); the result of the send isn't
 * looked at.  The query stays in the caller's buffer. */
typedef struct {
    BYTE Bytes[MGMT_QUERY_MAX_BYTES];
    char Name[NCBNAMSZ + 1];
} Query;

static void MakeQuery(Query *pQuery, const char *pName, BYTE command) {
    BuildManagementQuery(MGMT_CARRIER_NETBIOS, command, NULL, pQuery->Bytes);
    int n = 0;
    for (; n < NCBNAMSZ && pName[n] != 0; ++n) pQuery->Name[n] = pName[n];
    pQuery->Name[n] = 0;
}

static void SendQuery(NCB *pSend, Query *pQuery) {
    NBSetName(pSend->ncb_callname, pQuery->Name);
    pSend->ncb_command = NCBDGSEND;
    pSend->ncb_buffer = pQuery->Bytes;
    pSend->ncb_length = MGMT_NETBIOS_PREFIX_BYTES + sizeof(ManagementQuery);
    Netbios(pSend);
}

static void CancelIfPending(NCB *pReceive) {
    if (NBRetCode(pReceive) == NRC_PENDING) NBCancel(pReceive);
}

BOOL NBReadEEPROM(const char *name, AvailPSRecord *pRecord) {
    NCB send, receive;
    BYTE reply[NB_READ_BUFFER];
    Query query;
    MakeQuery(&query, name, MGMT_READ_EEPROM);
    FromWorkingNcb(&send);
    FromWorkingNcb(&receive);
    Arm(&receive, reply, sizeof reply);
    SendQuery(&send, &query);
    for (int attempt = 0; attempt < NB_EEPROM_TRIES; ++attempt) {
        Sleep(NB_SEARCH_WAIT_MS);
        if (NBRetCode(&receive) == NRC_GOODRET) {
            /* A reply of another command, or one too short, costs a try. */
            if (NBTakeEEPROM(reply, receive.ncb_length, pRecord)) return TRUE;
            Arm(&receive, reply, sizeof reply);
        }
        SendQuery(&send, &query);
    }
    CancelIfPending(&receive);
    return TRUE;
}

BOOL NBSearchInto(AvailPSTable *pTable) {
    NCB send, receives[NB_SEARCH_RECEIVES];
    BYTE buffers[NB_SEARCH_RECEIVES][NB_SEARCH_BUFFER];
    /* A record that the table held before the search has no entry, and no read. */
    char cfgNames[AVAILPS_RECORDS][NB_CFG_NAME_BYTES];
    char group[NCBNAMSZ + 1];
    Query query;
    memset(cfgNames, 0, sizeof cfgNames);
    LoadNarrow(IDS_NB_GROUP_NAME, group, sizeof group);
    MakeQuery(&query, group, MGMT_SEARCH);
    FromWorkingNcb(&send);
    for (int i = 0; i < NB_SEARCH_RECEIVES; ++i) {
        FromWorkingNcb(&receives[i]);
        Arm(&receives[i], buffers[i], NB_SEARCH_BUFFER);
    }
    SendQuery(&send, &query);
    for (int pass = 0; pass < NB_SEARCH_PASSES; ++pass) {
        Sleep(NB_SEARCH_WAIT_MS);
        /* A block that ended in an error takes no further part. */
        for (int i = 0; i < NB_SEARCH_RECEIVES; ++i) {
            if (NBRetCode(&receives[i]) != NRC_GOODRET) continue;
            NBSearchTakeReply(pTable, buffers[i], receives[i].ncb_length, cfgNames);
            Arm(&receives[i], buffers[i], NB_SEARCH_BUFFER);
        }
        SendQuery(&send, &query);
    }
    for (int i = 0; i < NB_SEARCH_RECEIVES; ++i) CancelIfPending(&receives[i]);
    Sleep(NB_SEARCH_WAIT_MS);
    for (int i = 0; i < pTable->Count && i < AVAILPS_RECORDS; ++i)
        if (cfgNames[i][0] != 0) NBReadEEPROM(cfgNames[i], &pTable->Records[i]);
    return TRUE;
}

BOOL NBSearch(void) {
    AvailPSTable *table = AvailPSBeginSearch();
    if (table == NULL) return FALSE;
    NBSearchInto(table);
    AvailPSEndSearch(table);
    return TRUE;
}
