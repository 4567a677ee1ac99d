/*
 * availps.h: the table of print servers found on the network (AvailPS), the
 * list file record that can fill it without a search, and the management
 * datagrams by which the monitor talks to a print server outside a job.
 */
#ifndef KVT_AVAILPS_H
#define KVT_AVAILPS_H

#include <windows.h>

/* ---- the table ------------------------------------------------------------------- */
#define AVAILPS_RECORDS 100
#define AVAILPS_NAME_CHARS 48     /* with the terminator: a name has at most 47 characters */
#define AVAILPS_RESERVED_BYTES 16
#define AVAILPS_PRINTER_PORTS 3
#define AVAILPS_QUEUE_SLOT_BYTES 128
#define AVAILPS_QUEUE_TEXT_BYTES 64   /* the 8-bit form: text and terminator in the first 64 bytes */
#define NODE_ID_BYTES 6

/* Flags */
#define PS_FLAG_TCPIP_SUPPORTED 0x01
#define PS_FLAG_TCPIP_ENABLED 0x04

/* ModelType: the two low bits are the number of printer ports. */
#define PS_MODEL_PORT_MASK 0x03

/* Type: with this value the TCP/IP dialogs take the record's queue names. */
#define PS_TYPE_PLAIN 0
#define PS_TYPE_QUEUE_NAMES 4

/* A queue-name slot holds 8-bit text after a search or a manual add, and wide
 * text after the list file; each path reads only the form it wrote. */
typedef union _QUEUESLOT {
    char Text[AVAILPS_QUEUE_SLOT_BYTES];
    WCHAR Wide[AVAILPS_QUEUE_SLOT_BYTES / sizeof(WCHAR)];
} QueueSlot;

typedef struct _AVAILPS {
    WCHAR Name[AVAILPS_NAME_CHARS];
    DWORD IPAddress;  /* network byte order; 0: "Automatic IP" */
    BYTE Flags;
    BYTE Reserved[AVAILPS_RESERVED_BYTES];
    BYTE ModelType;
    BYTE NodeID[NODE_ID_BYTES];
    BYTE AutoProtocol;
    BYTE PortMask;     /* list file only: bit values 1, 2, 4 for printer ports 1, 2, 3 */
    BYTE PortProtocol[AVAILPS_PRINTER_PORTS];  /* list file only: registry scheme */
    QueueSlot QueueName[AVAILPS_PRINTER_PORTS];
    BYTE Type;
} AvailPSRecord;

/* The used records are the first TotalPrintServer ones, in the order found.
 * Nothing is ever written at index AVAILPS_RECORDS or beyond: a server found
 * when the table is full is left out (see AvailPSNextIndex). */
extern AvailPSRecord AvailPS[AVAILPS_RECORDS];
extern int TotalPrintServer;

/* The table's own lock (made at load, re-entrant).  Whoever writes AvailPS or
 * TotalPrintServer holds it while it writes, whoever reads records while it
 * reads.  No search holds it over the network: a search fills a table of its
 * own and takes the lock only to copy AvailPS in and back. */
extern CRITICAL_SECTION AvailPSLock;

/* A table that one search fills: records and count, as AvailPS has them. */
typedef struct _AVAILPSTABLE {
    AvailPSRecord Records[AVAILPS_RECORDS];
    int Count;
} AvailPSTable;

/* A search's table, a copy of AvailPS and its count taken under the lock;
 * NULL without memory for it.  AvailPSEndSearch puts the table back into
 * AvailPS under the lock and frees it (NULL: nothing happens). */
AvailPSTable *AvailPSBeginSearch(void);
/* An empty, zeroed table for a search that never touches AvailPS (free it
 * with LocalFree); NULL without memory. */
AvailPSTable *AvailPSNewTable(void);
void AvailPSEndSearch(AvailPSTable *pTable);

/* The index at which the next record goes behind count records, or -1 when
 * the table is full (logged, with the server that is left out).  The writer
 * fills the record at that index and then makes the count the index plus one. */
int AvailPSNextIndex(int count, LPCWSTR pName);
/* A search's answer from a print server not yet in the table: a record with
 * its name and AutoProtocol, counted in pTable->Count; NULL for a name the
 * table holds already, or a full table. */
AvailPSRecord *AvailPSTakeName(AvailPSTable *pTable, LPCWSTR pName, BYTE autoProtocol, int *pIndex);

/* Reads of the table under AvailPSLock, for the dialogs and the silent add:
 * the count; a copy of record index, FALSE when it is no used record; a copy
 * of the first record whose Name equals pName character for character,
 * FALSE when there is none. */
int AvailPSCount(void);
BOOL CopyAvailPS(int index, AvailPSRecord *pOut);
BOOL FindAvailPS(LPCWSTR pName, AvailPSRecord *pOut);

/* 8-bit text from the network or the list file, widened byte by byte: from
 * pText up to its first zero byte, but never beyond cbField bytes, and at most
 * cchOut - 1 characters, always terminated.  Returns the characters written. */
int WidenText(const BYTE *pText, int cbField, WCHAR *pOut, int cchOut);

/* ---- the list file, KVTLIST.BIN ------------------------------------------------------ */
#define LIST_RECORD_BYTES 278
#define LIST_NAME_OFFSET 0
#define LIST_NAME_BYTES 48
#define LIST_IP_OFFSET 48
#define LIST_MODEL_OFFSET 69
#define LIST_NODE_OFFSET 70
#define LIST_AUTOPROTOCOL_OFFSET 76
#define LIST_PORTMASK_OFFSET 77
#define LIST_PORTPROTOCOL_OFFSET 78
#define LIST_QUEUE_OFFSET 81     /* then 145 and 209 */
#define LIST_QUEUE_BYTES 64

/* Fills the record's fields that a list file record carries: Name, IPAddress,
 * ModelType, NodeID, AutoProtocol, PortMask, PortProtocol and the three
 * QueueName slots in wide form.  The others stay as they are. */
void AvailPSFromListRecord(const BYTE *pRecord /* LIST_RECORD_BYTES */, AvailPSRecord *pEntry);
/* What an EEPROM image says of a print server: its model, its address and
 * whether TCP/IP is supported and enabled. */
void AvailPSFromEEPROM(const BYTE *pImage, AvailPSRecord *pEntry);

/* Takes one record of the list file into the table at TotalPrintServer.
 * FALSE when the table is full and the record is left out. */
BOOL AddListRecord(const BYTE *pRecord /* LIST_RECORD_BYTES */);

/* Reads the list file from its current position to its end, 278 bytes at a
 * time, into the table behind the records it has.  A read that delivers fewer
 * bytes (the file's last piece) still makes a record: the bytes it did not
 * deliver are those of the record before.  Returns the number of records read,
 * including any left out because the table was full. */
int ReadListRecords(HANDLE hFile);

/* ---- management datagrams -------------------------------------------------------------- */
#define MGMT_READ_EEPROM 0x02
#define MGMT_SEARCH 0x04
#define MGMT_STATUS 0x05
#define MGMT_QUEUE_NAMES 0x11

#define MGMT_UDP_PORT 0x3434
#define MGMT_IPX_SOCKET 0x3434

typedef enum { MGMT_CARRIER_UDP, MGMT_CARRIER_IPX, MGMT_CARRIER_NETBIOS } MgmtCarrier;

/* The 4-byte request and the reply head, behind the carrier's prefix. */
typedef struct _MANAGEMENTQUERY {
    BYTE Zero;       /* 0x00 */
    BYTE Command;
    BYTE Ff;         /* 0xFF */
    BYTE Complement; /* ones' complement of Command */
} ManagementQuery;

typedef struct _MANAGEMENTREPLY {
    BYTE One;        /* 0x01 */
    BYTE Command;    /* the command answered */
    BYTE Unread[2];
} ManagementReply;

#define MGMT_QUERY_MAX_BYTES 10    /* the longest query: UDP */
#define MGMT_UDP_PREFIX_BYTES 6    /* the node address */
#define MGMT_NETBIOS_PREFIX_BYTES 4
#define MGMT_REPLY_HEAD_BYTES 4

/* Where a reply's body starts on each carrier. */
#define MGMT_UDP_BODY 10
#define MGMT_IPX_BODY 4
#define MGMT_NETBIOS_BODY 8

/* The search body. */
#define SEARCH_SHORT_NAME_OFFSET 0
#define SEARCH_SHORT_NAME_BYTES 8
#define SEARCH_NAME_OFFSET 8
#define SEARCH_NAME_BYTES 50
#define SEARCH_TYPE_OFFSET 58
#define SEARCH_AUTOPROTOCOL_OFFSET 60
#define SEARCH_BODY_BYTES 66

/* The EEPROM image. */
#define EEPROM_IMAGE_BYTES 512
#define EEPROM_NODE_OFFSET 2
#define EEPROM_MODEL_OFFSET 8
#define EEPROM_CONFIG_OFFSET 72             /* ps.Config */
#define EEPROM_SUPPORTPROTOCOL_OFFSET 489   /* ps.SupportProtocol */
#define EEPROM_IP_OFFSET 498
#define EEPROM_CONFIG_TCPIP_ENABLED 0x04
#define EEPROM_SUPPORT_TCPIP 0x01

/* The queue-name body (UDP only). */
#define QUEUE_BODY_TEXT_OFFSET 2            /* then 66 and 130 */
#define QUEUE_BODY_TEXT_STRIDE 64
#define QUEUE_BODY_TEXT_BYTES 63

/* The status body (UDP only): the address, most significant byte first. */
#define STATUS_BODY_IP_OFFSET 58

/* Builds the query for a command on a carrier into pQuery (room for
 * MGMT_QUERY_MAX_BYTES) and returns its length: 10 over UDP, 4 over IPX, 8
 * over NetBIOS.  pNodeID names the target over UDP; NULL addresses all. */
int BuildManagementQuery(MgmtCarrier carrier, BYTE command, const BYTE *pNodeID, BYTE *pQuery);

/* TRUE when the cb bytes at pReply begin with the carrier's reply prefix and
 * the head of a reply to command.  The node prefix over UDP is not compared. */
BOOL IsManagementReply(MgmtCarrier carrier, const BYTE *pReply, int cb, BYTE command);

/* The byte offset at which a carrier's reply body starts. */
int ManagementBodyOffset(MgmtCarrier carrier);

#endif /* KVT_AVAILPS_H */
