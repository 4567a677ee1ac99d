/*
 * channel.h: the print channel, the stop-and-wait protocol over datagrams by
 * which a job goes to a print server over IPX and over NetBIOS.  The monitor
 * asks for a channel on a printer port, sends the job as numbered 1000-byte
 * frames, each answered by the print server, and gives the channel back.
 *
 * What the two channel transports share is here: the 12-byte ChannelFrame,
 * what makes a reply acceptable, the limits, and the job start, write and job
 * end loops.  A transport brings its three operations (connect, data,
 * hang-up: how one frame travels and is resent) and its own log lines in a
 * ChannelTransport; see ipx.cpp for one.
 *
 *   static const ChannelTransport NetbiosChannel = {NBConnectOp, NBSendDataOp, NBHangupOp,
 *       "NBConnect port %c\n", "PrintServer still busy , sleep %d ms (timeout = %d)\n",
 *       NULL, "NBSendDATA return FALSE , sleep %d ms (timeout = %d)\n"};
 *   JobStartResult NBJobStart(PINIPORT p, BYTE *o) { ...; return ChannelJobStart(p, &NetbiosChannel, o); }
 *
 * ChannelJobStart sets Tid, SendSeq and ChannelPort when it reports started;
 * anything else a transport keeps for the job (NetBIOS: NcbCopy, ServerName)
 * it sets itself afterwards.
 */
#ifndef KVT_CHANNEL_H
#define KVT_CHANNEL_H

#include <windows.h>

#include "monitor.h"
#include "transport.h"

/* ---- the frame -------------------------------------------------------------------- */
#define CHANNEL_CONNECT 2
#define CHANNEL_DATA 4
#define CHANNEL_HANGUP 8

#define CHANNEL_MAGIC_P 0x50
#define CHANNEL_MAGIC_S 0x53
#define CHANNEL_REQUEST_FLAGS 0x00
#define CHANNEL_REPLY_FLAGS 0x80
#define CHANNEL_NONE 255          /* Channel of a connect request: none yet */

#define CHANNEL_HEADER_BYTES 12   /* a whole reply; a request's header */
#define CHANNEL_SLICE_BYTES 1000  /* payload of one data frame at most */
#define CHANNEL_FRAME_BYTES (CHANNEL_HEADER_BYTES + CHANNEL_SLICE_BYTES)

/* On the wire, in this order; Sequence least significant byte first. */
typedef struct _CHANNELFRAME {
    BYTE Magic[2];
    BYTE Flags;
    BYTE Command;
    BYTE Port;
    BYTE Channel;
    BYTE Reserved[2];
    BYTE Sequence[4];
} ChannelFrame;

/* ---- limits ------------------------------------------------------------------------------ */
#define CHANNEL_CONNECT_RESENDS 20  /* after the first send: 21 sends in all */
#define CHANNEL_DATA_RESENDS 20
#define CHANNEL_HANGUP_RESENDS 5    /* 6 sends */
#define CHANNEL_PAUSE_MS 500        /* after a busy answer, a lost frame, a hang-up */
#define CHANNEL_BUSY_LIMIT 60       /* the 61st busy answer ends the job start */
#define CHANNEL_WRITE_LIMIT 60      /* the 61st failed data operation ends the write */
#define CHANNEL_HANGUP_TRIES 2

/* Builds a request into pFrame (room for CHANNEL_FRAME_BYTES): Magic, Flags
 * 0x00, the command, port, channel and sequence, then the payload of a data
 * frame (cbPayload at most CHANNEL_SLICE_BYTES).  Returns its length. */
int BuildChannelFrame(BYTE command, BYTE port, BYTE channel, DWORD sequence, const BYTE *pPayload,
                      DWORD cbPayload, BYTE *pFrame);

/* TRUE when the cbReply bytes at pReply are an acceptable reply to the
 * request: Magic, Flags exactly 0x80, the request's Command and Port, and
 * unless the request's Channel is 255 (a connect) its Channel and Sequence.  A
 * reply shorter than CHANNEL_HEADER_BYTES is never acceptable. */
BOOL IsChannelReplyAcceptable(const BYTE *pRequest, const BYTE *pReply, int cbReply);

/* The printer port that a port name asks for, by its last character: "1",
 * "2" and "3" give 1, 2 and 3; anything else 0, for which no connect is sent. */
BYTE ChannelPortOfName(LPCWSTR pName);

/* ---- a channel transport ---------------------------------------------------------------- */
typedef struct _CHANNELTRANSPORT {
    /* One operation each, blocking until settled (its sends and resends):
     * the channel id 1..254, CONNECT_BUSY or CONNECT_NO_RESPONSE; TRUE when the
     * frame was acknowledged.  Data and hang-up take NodeID, ChannelPort and
     * Tid (or their kin) from the record. */
    BYTE (*Connect)(PINIPORT pIniPort, BYTE port);
    BOOL (*SendData)(PINIPORT pIniPort, DWORD sequence, const BYTE *pData, DWORD cbData);
    BOOL (*Hangup)(PINIPORT pIniPort);
    const char *ConnectLine;     /* before each connect, with the name's last character */
    const char *BusyLine;        /* after a busy answer, with the pause and the busy count */
    const char *GetJobFailLine;  /* when the deletion test can't read the job; NULL: nothing */
    const char *SendFailLine;    /* after a data frame that failed, with the pause and the count */
} ChannelTransport;

/* Asks for a channel until one is given, the print server stays silent, the
 * busy limit is passed, or the job is deleted; the last connect result goes
 * to *pConnectOutcome.  Holds no lock. */
JobStartResult ChannelJobStart(PINIPORT pIniPort, const ChannelTransport *pTransport, BYTE *pConnectOutcome);

/* Sends the buffer in slices of 1000 bytes (a buffer of 0 bytes as one empty
 * slice), each retried up to the write limit with the same sequence number;
 * *pcbWritten grows by each slice acknowledged. */
WriteResult ChannelWrite(PINIPORT pIniPort, const ChannelTransport *pTransport, LPBYTE pBuffer, DWORD cbBuf,
                         LPDWORD pcbWritten);

/* Hangs the channel up: at most two operations, each followed by the pause. */
void ChannelJobEnd(PINIPORT pIniPort, const ChannelTransport *pTransport);

#endif /* KVT_CHANNEL_H */
