/*
 * The print channel that IPX and NetBIOS share: frames, the acceptance of a
 * reply, and the job start, write and job end around a transport's three
 * operations.
 */
#include <windows.h>
#include <winspool.h>

#include <string.h>

#include "channel.h"
#include "debuglog.h"
#include "monitor.h"

int BuildChannelFrame(BYTE command, BYTE port, BYTE channel, DWORD sequence, const BYTE *pPayload,
                      DWORD cbPayload, BYTE *pFrame) {
    ChannelFrame *frame = (ChannelFrame *)pFrame;
    memset(frame, 0, sizeof *frame);
    frame->Magic[0] = CHANNEL_MAGIC_P;
    frame->Magic[1] = CHANNEL_MAGIC_S;
    frame->Flags = CHANNEL_REQUEST_FLAGS;
    frame->Command = command;
    frame->Port = port;
    frame->Channel = channel;
    for (int i = 0; i < 4; ++i) frame->Sequence[i] = (BYTE)(sequence >> (8 * i));
    if (cbPayload > CHANNEL_SLICE_BYTES) cbPayload = CHANNEL_SLICE_BYTES;
    if (cbPayload > 0) memcpy(pFrame + CHANNEL_HEADER_BYTES, pPayload, cbPayload);
    return CHANNEL_HEADER_BYTES + (int)cbPayload;
}

BOOL IsChannelReplyAcceptable(const BYTE *pRequest, const BYTE *pReply, int cbReply) {
    const ChannelFrame *request = (const ChannelFrame *)pRequest;
    const ChannelFrame *reply = (const ChannelFrame *)pReply;
    /* Bytes a reply did not bring are never read from what the buffer held. */
    if (cbReply < CHANNEL_HEADER_BYTES) return FALSE;
    if (reply->Magic[0] != CHANNEL_MAGIC_P || reply->Magic[1] != CHANNEL_MAGIC_S) return FALSE;
    if (reply->Flags != CHANNEL_REPLY_FLAGS) return FALSE;
    if (reply->Command != request->Command || reply->Port != request->Port) return FALSE;
    /* A connect asks with channel 255: its reply's Channel is the answer, and
     * its Sequence isn't read. */
    if (request->Channel == CHANNEL_NONE) return TRUE;
    return reply->Channel == request->Channel && memcmp(reply->Sequence, request->Sequence, 4) == 0;
}

BYTE ChannelPortOfName(LPCWSTR pName) {
    int len = pName != NULL ? lstrlenW(pName) : 0;
    if (len == 0) return 0;
    WCHAR last = pName[len - 1];
    return (last >= '1' && last <= '3') ? (BYTE)(last - '0') : 0;
}

JobStartResult ChannelJobStart(PINIPORT pIniPort, const ChannelTransport *t, BYTE *pConnectOutcome) {
    int len = lstrlenW(pIniPort->pName);
    char last = len > 0 ? (char)pIniPort->pName[len - 1] : ' ';
    BYTE port = ChannelPortOfName(pIniPort->pName);
    for (int busy = 0;;) {
        LogPrintf(t->ConnectLine, last);
        /* A name that names no printer port sends nothing and counts as busy. */
        BYTE result = port != 0 ? t->Connect(pIniPort, port) : (BYTE)CONNECT_BUSY;
        *pConnectOutcome = result;
        if (result == CONNECT_NO_RESPONSE) {
            LogPrintf("PrintServer no response , sleep %d ms\n", CHANNEL_PAUSE_MS);
            Sleep(CHANNEL_PAUSE_MS);
            break;
        }
        if (result == CONNECT_BUSY) {
            LogPrintf(t->BusyLine, CHANNEL_PAUSE_MS, busy);
            Sleep(CHANNEL_PAUSE_MS);
            if (++busy > CHANNEL_BUSY_LIMIT) break;
        }
        JobRecord job;
        if (ReadJobRecord(pIniPort, &job)) {
            DebugLog("GetJob ok\n");
            /* Deleted, even with a channel given: no hang-up follows. */
            if (job.info.Status & JOB_STATUS_DELETING) return JOB_START_DELETED;
            DebugLog("Job still printing\n");
        } else if (t->GetJobFailLine != NULL) {
            DebugLog(t->GetJobFailLine);
        }
        if (result != CONNECT_BUSY) {
            DebugLog("Connect ok\n");
            pIniPort->Tid = result;
            pIniPort->SendSeq = 0;
            pIniPort->ChannelPort = port;
            return JOB_STARTED;
        }
    }
    DebugLog("Connect fail\n");
    return JOB_START_FAILED;
}

WriteResult ChannelWrite(PINIPORT pIniPort, const ChannelTransport *t, LPBYTE pBuffer, DWORD cbBuf,
                         LPDWORD pcbWritten) {
    BYTE slice[CHANNEL_SLICE_BYTES];
    DWORD done = 0;
    do {
        DWORD cb = cbBuf - done < CHANNEL_SLICE_BYTES ? cbBuf - done : CHANNEL_SLICE_BYTES;
        if (cb > 0) memcpy(slice, pBuffer + done, cb);
        for (int retries = 0;;) {
            /* A failed frame gives its number back: its retry carries the same one. */
            BOOL acknowledged = t->SendData(pIniPort, pIniPort->SendSeq++, slice, cb);
            if (!acknowledged) {
                LogPrintf(t->SendFailLine, CHANNEL_PAUSE_MS, retries);
                pIniPort->SendSeq--;
                Sleep(CHANNEL_PAUSE_MS);
                if (++retries > CHANNEL_WRITE_LIMIT) return WRITE_FAILED;
            }
            if (IsJobDeleting(pIniPort)) return WRITE_JOB_DELETED;
            if (acknowledged) break;
        }
        *pcbWritten += cb;
        done += cb;
    } while (done < cbBuf);
    return WRITE_OK;
}

void ChannelJobEnd(PINIPORT pIniPort, const ChannelTransport *t) {
    for (int i = 0; i < CHANNEL_HANGUP_TRIES; ++i) {
        BOOL acknowledged = t->Hangup(pIniPort);
        Sleep(CHANNEL_PAUSE_MS);
        if (acknowledged) break;
    }
}
