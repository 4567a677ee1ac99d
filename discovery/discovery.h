/*
 * discovery.h: the searches for print servers, which fill AvailPS or a table of their own.
 */
#ifndef KVT_DISCOVERY_H
#define KVT_DISCOVERY_H

#include <winsock2.h>
#include <windows.h>

#include "availps.h"

/* ---- TCP/IP discovery (discovery/tcpsearch.cpp) ------------------------------------ */
#define TCP_SEARCH_PASSES 3
#define TCP_EEPROM_TRIES 5
#define TCP_QUEUE_NAME_TRIES 7
#define TCP_SEARCH_WAIT_MS 1500          /* every wait: for writing and for a datagram */
#define TCP_SEARCH_BUFFER 150            /* the search's receive buffer */
#define TCP_READ_BUFFER 1024             /* the EEPROM and queue-name reads' */
/* A pass that keeps receiving never ends by silence: it takes at most this
 * many datagrams, so a chattering network can't hold the thread for ever. */
#define TCP_SEARCH_PASS_DATAGRAMS 1000
/* The shortest replies that hold every byte read from them. */
#define TCP_SEARCH_REPLY_MIN (MGMT_UDP_BODY + SEARCH_AUTOPROTOCOL_OFFSET + 1)
#define TCP_EEPROM_REPLY_MIN (MGMT_UDP_BODY + EEPROM_IP_OFFSET + 4)
#define TCP_QUEUE_REPLY_MIN \
    (MGMT_UDP_BODY + QUEUE_BODY_TEXT_OFFSET + 2 * QUEUE_BODY_TEXT_STRIDE + QUEUE_BODY_TEXT_BYTES)

/* The three stages into pTable: one broadcast search in three passes, then
 * the EEPROM image and the queue names of every record of the table.  FALSE
 * only when its socket could not be set up. */
BOOL TCPSearchInto(AvailPSTable *pTable);
/* The same on AvailPS, in a table of its own (AvailPSBeginSearch), so that
 * AvailPSLock is held only while AvailPS is copied; FALSE as well when there
 * is no memory for that table, and then nothing is searched. */
BOOL TCPSearch(void);
/* Read into *pRecord; TRUE when they have run, answered or not. */
BOOL TCPReadEEPROM(const BYTE *nodeID, AvailPSRecord *pRecord);
BOOL TCPSearchQueueName(const BYTE *nodeID, AvailPSRecord *pRecord);
/* One datagram into buffer; *pcbReceived its length. */
BOOL TCPSearchRcv(SOCKET s, char *buffer, int size, struct sockaddr_in *source, int *pcbReceived);

/* What each stage takes from one datagram, on its own for the tests. */
/* A search reply: a new record, unless it is no search reply, its Type is
 * neither 0 nor 4, the name is in the table already, or the table is full. */
BOOL TCPSearchTakeReply(AvailPSTable *pTable, const BYTE *pReply, int cb);
/* An EEPROM reply: TRUE when it is one from nodeID, and *pRecord is filled. */
BOOL TCPTakeEEPROM(const BYTE *pReply, int cb, const BYTE *nodeID, AvailPSRecord *pRecord);
/* A queue-name reply: TRUE when it is one, and *pRecord has its names. */
BOOL TCPTakeQueueNames(const BYTE *pReply, int cb, AvailPSRecord *pRecord);
/* Cuts a queue-name text of len bytes as the search stores it; the new length. */
int CutQueueName(char *pText, int len);

/* ---- IPX discovery (discovery/ipxsearch.cpp) ----------------------------------------- */
#define IPX_SEARCH_BUFFER 74             /* the search's receive buffer */
#define IPX_READ_BUFFER 1024             /* the EEPROM read's */
#define IPX_EEPROM_TRIES 5
#define IPX_SEARCH_PASS_DATAGRAMS TCP_SEARCH_PASS_DATAGRAMS
#define IPX_SEARCH_REPLY_MIN (MGMT_IPX_BODY + SEARCH_AUTOPROTOCOL_OFFSET + 1)
#define IPX_EEPROM_REPLY_MIN (MGMT_IPX_BODY + EEPROM_IP_OFFSET + 4)

/* The search by IPX broadcast to socket 0x3434 into pTable: `passes` passes
 * (none for 0 or less), then with readInfo 1 the EEPROM image of every record
 * in the table.  Logs nothing.  FALSE only when its socket could not be set up. */
BOOL IPXSearchInto(AvailPSTable *pTable, int passes, int readInfo);
/* The same on AvailPS, in a table of its own, as TCPSearch does. */
BOOL IPXSearch(int passes, int readInfo);
/* Reads the image of the server at nodeID into *pRecord; TRUE when it has
 * run, answered or not. */
BOOL IPXReadInfo(const BYTE *nodeID, AvailPSRecord *pRecord);

/* A search reply from the node of its sender: a new record, unless it is no
 * search reply, the name (blanks kept) is in the table, or the table is full. */
BOOL IPXSearchTakeReply(AvailPSTable *pTable, const BYTE *pReply, int cb, const BYTE *senderNode);
/* An EEPROM reply: TRUE when it is one, and *pRecord is filled. */
BOOL IPXTakeEEPROM(const BYTE *pReply, int cb, AvailPSRecord *pRecord);

/* ---- NetBIOS discovery (discovery/nbsearch.cpp) ---------------------------------------------- */
#define NB_SEARCH_RECEIVES 10            /* pending at once, each with a buffer of its own */
#define NB_SEARCH_BUFFER 74
#define NB_READ_BUFFER 1024
#define NB_SEARCH_PASSES 3
#define NB_EEPROM_TRIES 5
#define NB_SEARCH_WAIT_MS 500            /* before each pass and try, and after the passes */
#define NB_CFG_NAME_BYTES 13             /* a short name of 8 bytes, ".CFG" and the terminator */
#define NB_SEARCH_REPLY_MIN (MGMT_NETBIOS_BODY + SEARCH_AUTOPROTOCOL_OFFSET + 1)
#define NB_EEPROM_REPLY_MIN (MGMT_NETBIOS_BODY + EEPROM_IP_OFFSET + 4)

/* The search over NetBIOS from WorkingNcb (NBStartup has succeeded) into
 * pTable: the query to the print servers' group, then the EEPROM image of each
 * server found, read by its ".CFG" name.  Logs nothing.  Always TRUE. */
BOOL NBSearchInto(AvailPSTable *pTable);
/* The same on AvailPS, in a table of its own, as TCPSearch does; FALSE only
 * without memory for that table. */
BOOL NBSearch(void);
/* Reads the image of the server with the ".CFG" name `name` into *pRecord;
 * always TRUE, answered or not. */
BOOL NBReadEEPROM(const char *name, AvailPSRecord *pRecord);

/* The ".CFG" name of a server: its short name (8 bytes at most, up to its
 * first zero byte), ".CFG" and a terminator, into pOut (NB_CFG_NAME_BYTES). */
void NBCfgName(const BYTE *pShortName, char *pOut);
/* A search reply: a new record, with its ".CFG" name at the same index of
 * cfgNames, unless it is no search reply, the name (blanks kept) is in the
 * table, or the table is full. */
BOOL NBSearchTakeReply(AvailPSTable *pTable, const BYTE *pReply, int cb, char (*cfgNames)[NB_CFG_NAME_BYTES]);
/* An EEPROM reply: TRUE when it is one, and *pRecord is filled, its node from
 * the image. */
BOOL NBTakeEEPROM(const BYTE *pReply, int cb, AvailPSRecord *pRecord);

#endif /* KVT_DISCOVERY_H */
