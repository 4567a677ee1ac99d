/*
 * netbios.h: the NetBIOS transport's constants and its three operations, each
 * one frame of the print channel in NetBIOS datagrams to the print server's
 * name, sent from the local name of a template (PortNcb1..3 or a job's copy).
 */
#ifndef KVT_NETBIOS_H
#define KVT_NETBIOS_H

#include <windows.h>
#include <nb30.h>

#define NB_PERIOD_MS 500          /* between sends of one frame: the loop polls the receive meanwhile */
/* A send that the NetBIOS layer refuses is no pass and goes again at once;
 * the 21st refusal of one operation ends it with its failure value. */
#define NB_REFUSED_RESENDS 20
#define NB_SERVER_NAME_BYTES 20   /* IniPort's ServerName, with its terminator */

/* The call name of a frame: the first 16 bytes of the print server's name
 * (a longer one is cut there), then blanks; no terminator. */
void NBSetCallName(UCHAR *pCallName, const char *pName);

/* A channel id 1..254, CONNECT_BUSY or CONNECT_NO_RESPONSE. */
BYTE NBConnect(const NCB *pTemplate, const char *pName, BYTE port);
/* TRUE when the frame was acknowledged. */
BOOL NBSendDATA(const NCB *pNcb, const char *pName, BYTE port, BYTE tid, DWORD sequence, const BYTE *pData,
                DWORD length);
BOOL NBHangup(const NCB *pNcb, const char *pName, BYTE port, BYTE tid);

#endif /* KVT_NETBIOS_H */
