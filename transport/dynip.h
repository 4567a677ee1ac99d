/*
 * dynip.h: the dynamic address lookup's constants and inner operations.  A
 * port that knows its print server's node address asks for the server's
 * current IP address by a UDP status query before each LPR job.
 */
#ifndef KVT_DYNIP_H
#define KVT_DYNIP_H

#include <winsock2.h>
#include <windows.h>

#define STATUS_QUERY_BYTES 10
#define STATUS_REPLY_BUFFER 494   /* the 6-byte prefix and 488 bytes behind it */
#define STATUS_REPLY_ENOUGH 66    /* reading of a pass ends with this many bytes */
#define STATUS_REPLY_ADDRESS 68   /* the address, most significant byte first */
#define STATUS_REPLY_MIN 72       /* a reply that holds the address */
#define STATUS_PASSES 5
#define STATUS_SEND_ATTEMPTS 5
#define STATUS_READ_ATTEMPTS 5
#define STATUS_SEND_WAIT_MS 2000

/* TRUE: buffer (room for STATUS_REPLY_BUFFER bytes) holds a status reply of
 * the print server with that node address, long enough to hold its address. */
BOOL GetPServerStatus(BYTE *buffer, const BYTE *node);

/* Waits for the socket to be writable, then sends once to 255.255.255.255,
 * port 0x3434.  TRUE with *pSent the bytes taken (0 after the wait ran out or
 * a send that would block); FALSE, with the socket closed, on a fault. */
BOOL UDPTimedBroadcast(SOCKET s, const char *pBytes, int cb, int *pSent);

/* The server's IP address in host byte order, from a status reply of cb
 * bytes.  FALSE when the reply isn't one or is too short to hold it. */
BOOL StatusReplyAddress(const BYTE *pReply, int cb, DWORD *pAddress);

#endif /* KVT_DYNIP_H */
