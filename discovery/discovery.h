/*
 * discovery.h: the searches for print servers, which fill AvailPS.
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

/* The three stages: one broadcast search in three passes, then the EEPROM
 * image and the queue names of every server found.  FALSE only when its
 * socket could not be set up. */
BOOL TCPSearch(void);
/* Read into record index; TRUE when they have run, answered or not. */
BOOL TCPReadEEPROM(const BYTE *nodeID, int index);
BOOL TCPSearchQueueName(const BYTE *nodeID, int index);
/* One datagram into buffer; *pcbReceived its length. */
BOOL TCPSearchRcv(SOCKET s, char *buffer, int size, struct sockaddr_in *source, int *pcbReceived);

/* What each stage takes from one datagram, on its own for the tests. */
/* A search reply: a new record, unless it is no search reply, its Type is
 * neither 0 nor 4, the name is in the table already, or the table is full. */
BOOL TCPSearchTakeReply(const BYTE *pReply, int cb);
/* An EEPROM reply: TRUE when it is one from nodeID, and record index is filled. */
BOOL TCPTakeEEPROM(const BYTE *pReply, int cb, const BYTE *nodeID, int index);
/* A queue-name reply: TRUE when it is one, and record index has its names. */
BOOL TCPTakeQueueNames(const BYTE *pReply, int cb, int index);
/* Cuts a queue-name text of len bytes as the search stores it; the new length. */
int CutQueueName(char *pText, int len);

/* ---- IPX discovery (discovery/ipxsearch.cpp) ----------------------------------------- */
#define IPX_SEARCH_BUFFER 74             /* the search's receive buffer */
#define IPX_READ_BUFFER 1024             /* the EEPROM read's */
#define IPX_EEPROM_TRIES 5
#define IPX_SEARCH_PASS_DATAGRAMS TCP_SEARCH_PASS_DATAGRAMS
#define IPX_SEARCH_REPLY_MIN (MGMT_IPX_BODY + SEARCH_AUTOPROTOCOL_OFFSET + 1)
#define IPX_EEPROM_REPLY_MIN (MGMT_IPX_BODY + EEPROM_IP_OFFSET + 4)

/* The search by IPX broadcast to socket 0x3434: `passes` passes (none for 0
 * or less), then with readInfo 1 the EEPROM image of every record in the
 * table.  Holds AvailPSLock for its whole run and logs nothing.  FALSE only
 * when its socket could not be set up. */
BOOL IPXSearch(int passes, int readInfo);
/* Reads the image of the server at nodeID into record index; TRUE when it
 * has run, answered or not.  Called by IPXSearch, under its lock. */
BOOL IPXReadInfo(const BYTE *nodeID, int index);

/* A search reply from the node of its sender: a new record, unless it is no
 * search reply, the name (blanks kept) is in the table, or the table is full. */
BOOL IPXSearchTakeReply(const BYTE *pReply, int cb, const BYTE *senderNode);
/* An EEPROM reply: TRUE when it is one, and record index is filled. */
BOOL IPXTakeEEPROM(const BYTE *pReply, int cb, int index);

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

/* The search over NetBIOS from WorkingNcb (NBStartup has succeeded): the query
 * to the print servers' group, then the EEPROM image of each server found, read
 * by its ".CFG" name.  Holds AvailPSLock for its whole run and logs nothing.
 * Always TRUE. */
BOOL NBSearch(void);
/* Reads the image of the server with the ".CFG" name `name` into record
 * index; always TRUE, answered or not.  Called by NBSearch, under its lock. */
BOOL NBReadEEPROM(const char *name, int index);

/* The ".CFG" name of a server: its short name (8 bytes at most, up to its
 * first zero byte), ".CFG" and a terminator, into pOut (NB_CFG_NAME_BYTES). */
void NBCfgName(const BYTE *pShortName, char *pOut);
/* A search reply: a new record, with its ".CFG" name at the same index of
 * cfgNames, unless it is no search reply, the name (blanks kept) is in the
 * table, or the table is full. */
BOOL NBSearchTakeReply(const BYTE *pReply, int cb, char (*cfgNames)[NB_CFG_NAME_BYTES]);
/* An EEPROM reply: TRUE when it is one, and record index is filled, its node
 * from the image. */
BOOL NBTakeEEPROM(const BYTE *pReply, int cb, int index);

#endif /* KVT_DISCOVERY_H */
