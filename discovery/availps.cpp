/*
 * The table of found print servers, the list file record and the management
 * datagrams that the three searches share.
 */
#include <windows.h>

#include <string.h>

#include "availps.h"
#include "debuglog.h"

AvailPSRecord AvailPS[AVAILPS_RECORDS];
int TotalPrintServer;
CRITICAL_SECTION AvailPSLock;

/* The list file's three queue names lie one behind the other. */
static const int ListQueueOffsets[AVAILPS_PRINTER_PORTS] = {LIST_QUEUE_OFFSET, LIST_QUEUE_OFFSET + LIST_QUEUE_BYTES,
                                                            LIST_QUEUE_OFFSET + 2 * LIST_QUEUE_BYTES};

int AvailPSNextIndex(int count, LPCWSTR pName) {
    int index = count < 0 ? 0 : count;
    if (index < AVAILPS_RECORDS) return index;
    LogWideName("AvailPS full, left out: %s\n", pName);
    return -1;
}

void AvailPSFromEEPROM(const BYTE *pImage, AvailPSRecord *pEntry) {
    pEntry->ModelType = pImage[EEPROM_MODEL_OFFSET];
    memcpy(&pEntry->IPAddress, pImage + EEPROM_IP_OFFSET, sizeof pEntry->IPAddress);
    pEntry->Flags = 0;
    if (pImage[EEPROM_SUPPORTPROTOCOL_OFFSET] & EEPROM_SUPPORT_TCPIP) pEntry->Flags |= PS_FLAG_TCPIP_SUPPORTED;
    if (pImage[EEPROM_CONFIG_OFFSET] & EEPROM_CONFIG_TCPIP_ENABLED) pEntry->Flags |= PS_FLAG_TCPIP_ENABLED;
}

AvailPSRecord *AvailPSTakeName(AvailPSTable *pTable, LPCWSTR pName, BYTE autoProtocol, int *pIndex) {
    for (int i = 0; i < pTable->Count && i < AVAILPS_RECORDS; ++i)
        if (lstrcmpW(pTable->Records[i].Name, pName) == 0) return NULL;
    int index = AvailPSNextIndex(pTable->Count, pName);
    if (index < 0) return NULL;
    AvailPSRecord *record = &pTable->Records[index];
    lstrcpynW(record->Name, pName, AVAILPS_NAME_CHARS);
    record->AutoProtocol = autoProtocol;
    pTable->Count = index + 1;
    if (pIndex != NULL) *pIndex = index;
    return record;
}

AvailPSTable *AvailPSBeginSearch(void) {
    AvailPSTable *table = (AvailPSTable *)LocalAlloc(LMEM_FIXED, sizeof(AvailPSTable));
    if (table == NULL) return NULL;
    EnterCriticalSection(&AvailPSLock);
    memcpy(table->Records, AvailPS, sizeof AvailPS);
    table->Count = TotalPrintServer;
    LeaveCriticalSection(&AvailPSLock);
    return table;
}

AvailPSTable *AvailPSNewTable(void) { return (AvailPSTable *)LocalAlloc(LPTR, sizeof(AvailPSTable)); }

void AvailPSEndSearch(AvailPSTable *pTable) {
    if (pTable == NULL) return;
    EnterCriticalSection(&AvailPSLock);
    memcpy(AvailPS, pTable->Records, sizeof AvailPS);
    TotalPrintServer = pTable->Count;
    LeaveCriticalSection(&AvailPSLock);
    LocalFree(pTable);
}

int AvailPSCount(void) {
    EnterCriticalSection(&AvailPSLock);
    int count = TotalPrintServer < 0 ? 0 : (TotalPrintServer > AVAILPS_RECORDS ? AVAILPS_RECORDS : TotalPrintServer);
    LeaveCriticalSection(&AvailPSLock);
    return count;
}

BOOL CopyAvailPS(int index, AvailPSRecord *pOut) {
    EnterCriticalSection(&AvailPSLock);
    BOOL used = index >= 0 && index < TotalPrintServer && index < AVAILPS_RECORDS;
    if (used) *pOut = AvailPS[index];
    LeaveCriticalSection(&AvailPSLock);
    return used;
}

/* Character for character: lstrcmpW of Windows compares by the language's
 * rules, and a dialog looks a name up exactly. */
static BOOL SameName(LPCWSTR a, LPCWSTR b) {
    while (*a != 0 && *a == *b) ++a, ++b;
    return *a == *b;
}

BOOL FindAvailPS(LPCWSTR pName, AvailPSRecord *pOut) {
    BOOL found = FALSE;
    EnterCriticalSection(&AvailPSLock);
    for (int i = 0; !found && i < TotalPrintServer && i < AVAILPS_RECORDS; ++i)
        if (SameName(AvailPS[i].Name, pName)) {
            *pOut = AvailPS[i];
            found = TRUE;
        }
    LeaveCriticalSection(&AvailPSLock);
    return found;
}

int WidenText(const BYTE *pText, int cbField, WCHAR *pOut, int cchOut) {
    int n = 0;
    if (cchOut <= 0) return 0;
    while (n < cbField && n < cchOut - 1 && pText[n] != 0) {
        pOut[n] = (WCHAR)pText[n];
        ++n;
    }
    pOut[n] = 0;
    return n;
}

void AvailPSFromListRecord(const BYTE *pRecord, AvailPSRecord *pEntry) {
    WidenText(pRecord + LIST_NAME_OFFSET, LIST_NAME_BYTES, pEntry->Name, AVAILPS_NAME_CHARS);
    memcpy(&pEntry->IPAddress, pRecord + LIST_IP_OFFSET, sizeof pEntry->IPAddress);
    pEntry->ModelType = pRecord[LIST_MODEL_OFFSET];
    memcpy(pEntry->NodeID, pRecord + LIST_NODE_OFFSET, NODE_ID_BYTES);
    pEntry->AutoProtocol = pRecord[LIST_AUTOPROTOCOL_OFFSET];
    pEntry->PortMask = pRecord[LIST_PORTMASK_OFFSET];
    memcpy(pEntry->PortProtocol, pRecord + LIST_PORTPROTOCOL_OFFSET, AVAILPS_PRINTER_PORTS);
    for (int i = 0; i < AVAILPS_PRINTER_PORTS; ++i) {
        QueueSlot *slot = &pEntry->QueueName[i];
        WidenText(pRecord + ListQueueOffsets[i], LIST_QUEUE_BYTES, slot->Wide,
                  (int)(sizeof slot->Wide / sizeof slot->Wide[0]));
    }
}

BOOL AddListRecord(const BYTE *pRecord) {
    WCHAR name[AVAILPS_NAME_CHARS];
    WidenText(pRecord + LIST_NAME_OFFSET, LIST_NAME_BYTES, name, AVAILPS_NAME_CHARS);
    int index = AvailPSNextIndex(TotalPrintServer, name);
    if (index < 0) return FALSE;
    AvailPSFromListRecord(pRecord, &AvailPS[index]);
    TotalPrintServer = index + 1;
    return TRUE;
}

int ReadListRecords(HANDLE hFile) {
    /* One buffer for the whole file: a short last read leaves the bytes of the
     * record before it behind its own. */
    BYTE record[LIST_RECORD_BYTES];
    memset(record, 0, sizeof record);
    int records = 0;
    EnterCriticalSection(&AvailPSLock);
    for (;;) {
        DWORD got = 0;
        if (!ReadFile(hFile, record, sizeof record, &got, NULL) || got == 0) break;
        AddListRecord(record);
        ++records;
    }
    LeaveCriticalSection(&AvailPSLock);
    return records;
}

int BuildManagementQuery(MgmtCarrier carrier, BYTE command, const BYTE *pNodeID, BYTE *pQuery) {
    int prefix = 0;
    memset(pQuery, 0, MGMT_QUERY_MAX_BYTES);
    switch (carrier) {
    case MGMT_CARRIER_UDP:
        prefix = MGMT_UDP_PREFIX_BYTES;
        if (pNodeID != NULL) memcpy(pQuery, pNodeID, MGMT_UDP_PREFIX_BYTES);
        else memset(pQuery, 0xFF, MGMT_UDP_PREFIX_BYTES);
        break;
    case MGMT_CARRIER_NETBIOS:
        prefix = MGMT_NETBIOS_PREFIX_BYTES;
        pQuery[0] = 'P';
        pQuery[1] = 'S';
        break;
    case MGMT_CARRIER_IPX:
    default:
        break;
    }
    ManagementQuery *query = (ManagementQuery *)(pQuery + prefix);
    query->Zero = 0x00;
    query->Command = command;
    query->Ff = 0xFF;
    query->Complement = (BYTE)~command;
    return prefix + (int)sizeof(ManagementQuery);
}

int ManagementBodyOffset(MgmtCarrier carrier) {
    switch (carrier) {
    case MGMT_CARRIER_UDP: return MGMT_UDP_BODY;
    case MGMT_CARRIER_NETBIOS: return MGMT_NETBIOS_BODY;
    case MGMT_CARRIER_IPX:
    default: return MGMT_IPX_BODY;
    }
}

BOOL IsManagementReply(MgmtCarrier carrier, const BYTE *pReply, int cb, BYTE command) {
    int head = 0;
    switch (carrier) {
    case MGMT_CARRIER_UDP:
        head = MGMT_UDP_PREFIX_BYTES;
        break;
    case MGMT_CARRIER_NETBIOS:
        head = MGMT_NETBIOS_PREFIX_BYTES;
        if (cb < head || pReply[0] != 'P' || pReply[1] != 'S' || pReply[2] != 0x80 || pReply[3] != 0x00)
            return FALSE;
        break;
    case MGMT_CARRIER_IPX:
    default:
        break;
    }
    if (cb < head + 2) return FALSE;
    const ManagementReply *reply = (const ManagementReply *)(pReply + head);
    return reply->One == 0x01 && reply->Command == command;
}
