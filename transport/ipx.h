/*
 * ipx.h: the IPX transport's constants and operations, and the socket steps
 * that the IPX search shares with it.
 */
#ifndef KVT_IPX_H
#define KVT_IPX_H

#include <winsock2.h>
#include <windows.h>
#include <wsipx.h>

#include "monitor.h"

#define IPX_WAIT_MS 500              /* for writability, and for a datagram */
#define IPX_CONNECT_SOCKET 0x3030    /* every connect, whatever the port */
#define IPX_SEARCHES_AT_JOB_START 5

/* The print server's socket for data and hang-up frames of a printer port:
 * 0x3131, 0x3232, 0x3535 (not 0x3333); 0 for no port. */
WORD IPXDataSocket(BYTE port);

/* A channel id 1..254, CONNECT_BUSY (also when no socket could be set up)
 * or CONNECT_NO_RESPONSE. */
BYTE IPXConnect(const BYTE *node, BYTE port);
/* TRUE when the frame was acknowledged. */
BOOL IPXSendData(const BYTE *node, BYTE port, BYTE tid, DWORD sequence, const BYTE *data, DWORD length);
BOOL IPXHangup(const BYTE *node, BYTE port, BYTE tid);

/* ---- the socket steps --------------------------------------------------------------- */
/* An IPX datagram socket, non-blocking, bound to any local node and a socket
 * number the platform picks, allowed to broadcast when asked; INVALID_SOCKET
 * (nothing left open) when a step fails. */
SOCKET IPXOpenSocket(BOOL broadcast);
/* Network 0, the node and the socket number. */
void IPXAddress(SOCKADDR_IPX *pAddress, const BYTE *node, WORD socketNumber);
/* Sends when the socket becomes writable within the wait; else nothing. */
void IPXSendStep(SOCKET s, const SOCKADDR_IPX *pTo, const BYTE *pBytes, int cb);
/* One recvfrom after a wait of up to 0.5 s for the socket to be readable:
 * TRUE when it gave more than 0 bytes (their number in *pcbReceived, the
 * sender in *pFrom unless NULL).  A time-out, an error and a datagram that
 * doesn't fit all give FALSE. */
BOOL IPXTimedRecv(SOCKET s, BYTE *pBuffer, int length, int *pcbReceived, SOCKADDR_IPX *pFrom);

#endif /* KVT_IPX_H */
