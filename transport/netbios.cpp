/*
 * The NetBIOS transport: the print channel in NetBIOS datagrams to the print
 * server's name, from the local name of the printer port in use (the names
 * and templates that the NetBIOS start-up made).  Each operation arms a
 * receive of its own before its first send, sends the frame every 500 ms and
 * polls the receive in between, without sleeping, so that a reply is seen at
 * once; none returns with its receive pending.
 */
#include <windows.h>
#include <nb30.h>

#include <string.h>

#include "channel.h"
#include "debuglog.h"
#include "monitor.h"
#include "nbstartup.h"
#include "netbios.h"
#include "transport.h"

void NBSetCallName(UCHAR *pCallName, const char *pName) {
    memset(pCallName, ' ', NCBNAMSZ);
    for (int i = 0; i < NCBNAMSZ && pName[i] != 0; ++i) pCallName[i] = (UCHAR)pName[i];
}

/* A block of the operation's own, with the template's local name, its
 * number and LANA. */
static void FromTemplate(NCB *pNcb, const NCB *pTemplate) {
    memset(pNcb, 0, sizeof *pNcb);
    pNcb->ncb_num = pTemplate->ncb_num;
    pNcb->ncb_lana_num = pTemplate->ncb_lana_num;
    memcpy(pNcb->ncb_name, pTemplate->ncb_name, NCBNAMSZ);
}

static void ArmReceive(NCB *pReceive, BYTE *pReply) {
    pReceive->ncb_command = NCBDGRECV | ASYNCH;
    pReceive->ncb_buffer = pReply;
    pReceive->ncb_length = CHANNEL_HEADER_BYTES;
    Netbios(pReceive);
}

/* TRUE unless the NetBIOS layer refused the send. */
static BOOL SendFrame(NCB *pSend, const char *pName) {
    NBSetCallName(pSend->ncb_callname, pName);
    pSend->ncb_command = NCBDGSEND;
    return Netbios(pSend) == NRC_GOODRET || pSend->ncb_retcode == NRC_GOODRET;
}

/* Sends the frame, then again every 500 ms, `resends` times more, polling the
 * receive meanwhile; the reply to the last resend isn't waited for.  TRUE
 * when an acceptable reply ended the exchange, its Channel in *pChannel: for
 * a connect only a nonzero one ends it, a zero one (busy) sets *pBusy.  A
 * receive that ends in an error isn't armed again. */
static BOOL Exchange(const NCB *pTemplate, const char *pName, const BYTE *pFrame, int cbFrame, int resends,
                     BYTE *pChannel, BOOL *pBusy) {
    const BOOL connect = ((const ChannelFrame *)pFrame)->Command == CHANNEL_CONNECT;
    NCB send, receive;
    BYTE reply[CHANNEL_HEADER_BYTES];
    FromTemplate(&send, pTemplate);
    FromTemplate(&receive, pTemplate);
    ArmReceive(&receive, reply);  /* pending before the first send */
    send.ncb_buffer = (PUCHAR)pFrame;
    send.ncb_length = (WORD)cbFrame;
    SendFrame(&send, pName);
    DWORD sent = GetTickCount();
    for (int passes = 0, refused = 0;;) {
        if (NBRetCode(&receive) == NRC_GOODRET) {
            if (IsChannelReplyAcceptable(pFrame, reply, receive.ncb_length)) {
                if (!connect || reply[5] != 0) {
                    *pChannel = reply[5];
                    return TRUE;  /* the receive has completed: nothing is pending */
                }
                *pBusy = TRUE;
            }
            ArmReceive(&receive, reply);
        }
        DWORD now = GetTickCount();
        if (now - sent < NB_PERIOD_MS) {
            /* No pause: the processor goes to the thread that completes the
             * receive, which on a small machine would otherwise wait for this one. */
            Sleep(0);
            continue;
        }
        if (!SendFrame(&send, pName)) {
            /* No pass: the send goes again at once, up to the bound. */
            if (++refused > NB_REFUSED_RESENDS) break;
            continue;
        }
        sent = now;
        if (++passes == resends) break;
    }
    if (NBRetCode(&receive) == NRC_PENDING) NBCancel(&receive);
    return FALSE;
}

BYTE NBConnect(const NCB *pTemplate, const char *pName, BYTE port) {
    BYTE frame[CHANNEL_HEADER_BYTES];
    int cb = BuildChannelFrame(CHANNEL_CONNECT, port, CHANNEL_NONE, 0, NULL, 0, frame);
    BYTE channel = CONNECT_NO_RESPONSE;
    BOOL busy = FALSE;
    if (Exchange(pTemplate, pName, frame, cb, CHANNEL_CONNECT_RESENDS, &channel, &busy)) return channel;
    return busy ? CONNECT_BUSY : CONNECT_NO_RESPONSE;
}

BOOL NBSendDATA(const NCB *pNcb, const char *pName, BYTE port, BYTE tid, DWORD sequence, const BYTE *pData,
                DWORD length) {
    BYTE frame[CHANNEL_FRAME_BYTES];
    int cb = BuildChannelFrame(CHANNEL_DATA, port, tid, sequence, pData, length, frame);
    BYTE channel;
    BOOL busy = FALSE;
    return Exchange(pNcb, pName, frame, cb, CHANNEL_DATA_RESENDS, &channel, &busy);
}

BOOL NBHangup(const NCB *pNcb, const char *pName, BYTE port, BYTE tid) {
    BYTE frame[CHANNEL_HEADER_BYTES];
    int cb = BuildChannelFrame(CHANNEL_HANGUP, port, tid, 0, NULL, 0, frame);
    BYTE channel;
    BOOL busy = FALSE;
    return Exchange(pNcb, pName, frame, cb, CHANNEL_HANGUP_RESENDS, &channel, &busy);
}

/* ---- the job ------------------------------------------------------------------------------- */

/* The print server's name: the port name without its "-P1" suffix, the low
 * byte of each character.  ServerName keeps at most 19 bytes of it and its
 * terminator; only the first 16 reach the call name. */
static void ServerNameOf(PINIPORT pIniPort, char *pOut /* NB_SERVER_NAME_BYTES */) {
    int len = lstrlenW(pIniPort->pName) - 3;
    int i = 0;
    for (; i < len && i < NB_SERVER_NAME_BYTES - 1; ++i) pOut[i] = (char)(BYTE)pIniPort->pName[i];
    pOut[i] = 0;
}

/* The printer port's template, read under the start-up's lock: a start-up on
 * another thread rewrites the templates. */
static void TakeTemplate(BYTE port, NCB *pOut) {
    const NCB *templates[3] = {&PortNcb1, &PortNcb2, &PortNcb3};
    EnterCriticalSection(&NBStartupLock);
    *pOut = *templates[port - 1];
    LeaveCriticalSection(&NBStartupLock);
}

/* Each connect takes the template afresh into NcbCopy and sends from it, so
 * that the job's later frames go from the very name its channel was opened
 * from. */
static BYTE NbConnectOp(PINIPORT pIniPort, BYTE port) {
    ServerNameOf(pIniPort, pIniPort->ServerName);
    TakeTemplate(port, &pIniPort->NcbCopy);
    return NBConnect(&pIniPort->NcbCopy, pIniPort->ServerName, port);
}

static BOOL NbSendDataOp(PINIPORT pIniPort, DWORD sequence, const BYTE *pData, DWORD cbData) {
    return NBSendDATA(&pIniPort->NcbCopy, pIniPort->ServerName, pIniPort->ChannelPort, pIniPort->Tid, sequence, pData,
                      cbData);
}

static BOOL NbHangupOp(PINIPORT pIniPort) {
    return NBHangup(&pIniPort->NcbCopy, pIniPort->ServerName, pIniPort->ChannelPort, pIniPort->Tid);
}

static const ChannelTransport NetbiosChannel = {
    NbConnectOp,
    NbSendDataOp,
    NbHangupOp,
    "NBConnect port %c\n",
    "PrintServer still busy , sleep %d ms (timeout = %d)\n",
    NULL,
    "NBSendDATA return FALSE , sleep %d ms (timeout = %d)\n",
};

/* Runs on a host without NetBIOS too (the job flow has logged "Not support
 * NETBIOS" then): the names are tested and the connects go all the same. */
JobStartResult NBJobStart(PINIPORT pIniPort, BYTE *pConnectOutcome) {
    if (SupportProtocol & PROTOCOL_NETBIOS) {
        DebugLog("Support NETBIOS\n");
        const LONG runs = NBStartupRuns();
        if (!bStartup) {
            DebugLog("bStartup = FALSE , call NBStartup again\n");
            bStartup = NBStartupSince(runs);
            DebugLog(bStartup ? "bStartup = TRUE\n" : "bStartup = FALSE again\n");
        } else {
            DebugLog("bStartup = TRUE\n");
        }
    }
    DebugLog("call CheckNETBIOS\n");
    CheckNETBIOS();
    return ChannelJobStart(pIniPort, &NetbiosChannel, pConnectOutcome);
}

WriteResult NBWrite(PINIPORT pIniPort, LPBYTE pBuffer, DWORD cbBuf, LPDWORD pcbWritten) {
    return ChannelWrite(pIniPort, &NetbiosChannel, pBuffer, cbBuf, pcbWritten);
}

void NBJobEnd(PINIPORT pIniPort) { ChannelJobEnd(pIniPort, &NetbiosChannel); }
