/*
 * NetBIOS start-up.  The monitor names itself after the first adapter address
 * a LANA gives, adds that name (Name0) on every LANA, asks the print servers'
 * group name on all of them at once, and takes the LANA of the first answer as
 * the working one.  There it adds one name per printer port.  The four
 * templates that result are what the NetBIOS search and transport start from.
 */
#include <windows.h>
#include <nb30.h>

#include <atomic>
#include <stdio.h>
#include <string.h>

#include "availps.h"
#include "debuglog.h"
#include "monitor.h"
#include "nbstartup.h"
#include "resource.h"

NCB WorkingNcb, PortNcb1, PortNcb2, PortNcb3;
CRITICAL_SECTION NBStartupLock;

/* Start-ups finished so far, and the result of the last: written under the
 * lock, the count last, after bStartup; a caller that took the count before it
 * tested bStartup and finds it changed takes the result. */
static std::atomic<LONG> StartupRuns;
static BOOL StartupResult;

void NBSetName(UCHAR *pField, const char *pText) {
    size_t len = strlen(pText);
    memset(pField, ' ', NCBNAMSZ);
    memcpy(pField, pText, len < NCBNAMSZ ? len : NCBNAMSZ);
}

/* Read afresh each time, with acquire order: once a receive is seen complete,
 * its buffer, length and caller's name, written before the code, are seen
 * whole, and the block may be freed. */
UCHAR NBRetCode(const NCB *pNcb) { return __atomic_load_n(&pNcb->ncb_retcode, __ATOMIC_ACQUIRE); }

void LoadNarrow(UINT id, char *pOut, int cb) {
    WCHAR wide[32];
    LoadStr(id, wide, 32);
    if (WideCharToMultiByte(0, 0, wide, -1, pOut, cb, NULL, NULL) == 0) pOut[0] = 0;
    pOut[cb - 1] = 0;
}

/* NCBENUM into a zeroed LANA_ENUM (256 bytes); Netbios' result. */
static UCHAR EnumerateLanas(NCB *pNcb, LANA_ENUM *pLanas) {
    memset(pLanas, 0, sizeof *pLanas);
    memset(pNcb, 0, sizeof *pNcb);
    pNcb->ncb_command = NCBENUM;
    pNcb->ncb_buffer = (PUCHAR)pLanas;
    pNcb->ncb_length = NB_ENUM_BYTES;
    return Netbios(pNcb);
}

BOOL GetUniquename(char *out) {
    DebugLog("\n");
    DebugLog("Entry GetUniquename\n");
    LANA_ENUM lanas;
    NCB ncb;
    EnumerateLanas(&ncb, &lanas);
    for (int i = 0; i < lanas.length; ++i) {
        memset(&ncb, 0, sizeof ncb);
        ncb.ncb_command = NCBRESET;
        ncb.ncb_lana_num = lanas.lana[i];
        if (Netbios(&ncb) != NRC_GOODRET) continue;
        BYTE status[NB_ASTAT_BYTES];
        memset(&ncb, 0, sizeof ncb);
        ncb.ncb_command = NCBASTAT;
        ncb.ncb_lana_num = lanas.lana[i];
        NBSetName(ncb.ncb_callname, "*");
        ncb.ncb_buffer = status;
        ncb.ncb_length = sizeof status;
        if (Netbios(&ncb) != NRC_GOODRET) continue;
        for (int k = 0; k < 6; ++k) snprintf(out + 2 * k, 3, "%02x", status[k]);
        DebugLog("Leave GetUniquename - success\n");
        return TRUE;
    }
    DebugLog("Leave GetUniquename - fail\n");
    return FALSE;
}

/* The receive of a LANA, (re-)armed on its reply buffer without waiting. */
static void ArmReceive(NCB *pReceive, BYTE *pReply) {
    pReceive->ncb_command = NCBDGRECV | ASYNCH;
    pReceive->ncb_buffer = pReply;
    pReceive->ncb_length = NB_REPLY_BYTES;
    Netbios(pReceive);
}

/* The search query from Name0 to the group name; TRUE unless it was refused. */
static BOOL SendQuery(NCB *pSend) {
    pSend->ncb_command = NCBDGSEND;
    return Netbios(pSend) == NRC_GOODRET || pSend->ncb_retcode == NRC_GOODRET;
}

void NBCancel(NCB *pReceive) {
    NCB cancel;
    memset(&cancel, 0, sizeof cancel);
    cancel.ncb_command = NCBCANCEL;
    cancel.ncb_lana_num = pReceive->ncb_lana_num;
    cancel.ncb_buffer = (PUCHAR)pReceive;
    cancel.ncb_length = sizeof(NCB);
    Netbios(&cancel);
}

/* Ends a pending receive and takes Name0 off its LANA. */
static void CancelAndDelete(NCB *pReceive) {
    NBCancel(pReceive);
    pReceive->ncb_command = NCBDELNAME;
    Netbios(pReceive);
}

/* Adds the names of printer ports 1 to 3 on the working LANA. */
static BOOL AddPortNames(const char *pBaseName, UCHAR lana) {
    NCB *templates[3] = {&PortNcb1, &PortNcb2, &PortNcb3};
    for (int port = 1; port <= 3; ++port) memset(templates[port - 1], 0, sizeof(NCB));
    for (int port = 1; port <= 3; ++port) {
        NCB *t = templates[port - 1];
        char suffix[8], name[NB_UNIQUENAME_BYTES + 8];
        LoadNarrow(IDS_NB_NAME1_SUFFIX + port - 1, suffix, sizeof suffix);
        snprintf(name, sizeof name, "%s%s", pBaseName, suffix);
        t->ncb_command = NCBADDNAME;
        t->ncb_lana_num = lana;
        NBSetName(t->ncb_name, name);
        if (Netbios(t) != NRC_GOODRET) {
            LogPrintf("Add name%d : %s fail\n", port, name);
            return FALSE;
        }
        LogPrintf("Add name%d : %s success\n", port, name);
    }
    return TRUE;
}

/* Step 8 and 9: polls without sleeping until a LANA has the answer, sending
 * the query again after each period.  The index of the working LANA, or -1
 * after the last period. */
static int PollForAnswer(int count, NCB *sends, NCB *receives, BYTE (*replies)[NB_REPLY_BYTES], const BOOL *armed) {
    DWORD start = GetTickCount();
    for (int periods = 0;;) {
        for (int i = 0; i < count; ++i) {
            if (!armed[i] || NBRetCode(&receives[i]) != NRC_GOODRET) continue;
            if (IsManagementReply(MGMT_CARRIER_NETBIOS, replies[i], receives[i].ncb_length, MGMT_SEARCH)) return i;
            ArmReceive(&receives[i], replies[i]);
        }
        DWORD now = GetTickCount();
        if (now - start < NB_STARTUP_PERIOD_MS) continue;
        for (int i = 0; i < count; ++i)
            if (armed[i]) SendQuery(&sends[i]);
        start = now;
        if (++periods == NB_STARTUP_PERIODS) return -1;
    }
}

/* Steps 4 to 13, with the two arrays, which it frees. */
static BOOL FindWorkingLana(const char *pBaseName, const LANA_ENUM *pLanas, NCB *sends, NCB *receives) {
    char suffix[8], name0[NB_UNIQUENAME_BYTES + 8], group[NCBNAMSZ + 1];
    BYTE replies[NB_REPLY_BUFFERS][NB_REPLY_BYTES];
    BYTE query[MGMT_QUERY_MAX_BYTES];
    BOOL armed[NB_REPLY_BUFFERS] = {FALSE};  /* the LANA holds Name0 and has a receive block in use */
    const int cbQuery = BuildManagementQuery(MGMT_CARRIER_NETBIOS, MGMT_SEARCH, NULL, query);
    /* One reply buffer per LANA: LANAs beyond the buffers take no part. */
    const int count = pLanas->length < NB_REPLY_BUFFERS ? pLanas->length : NB_REPLY_BUFFERS;

    for (int i = 0; i < count; ++i) {
        memset(&sends[i], 0, sizeof(NCB));
        sends[i].ncb_command = NCBRESET;
        sends[i].ncb_lana_num = pLanas->lana[i];
        Netbios(&sends[i]);
    }
    LoadNarrow(IDS_NB_NAME0_SUFFIX, suffix, sizeof suffix);
    snprintf(name0, sizeof name0, "%s%s", pBaseName, suffix);
    LoadNarrow(IDS_NB_GROUP_NAME, group, sizeof group);
    LogPrintf("Name0 = %s\n", name0);

    for (int i = 0; i < count; ++i) {
        NCB *s = &sends[i], *r = &receives[i];
        NBSetName(s->ncb_name, name0);
        s->ncb_command = NCBADDNAME;
        if (Netbios(s) != NRC_GOODRET) {
            DebugLog("Add name0 fail\n");
            continue;
        }
        DebugLog("Add name0 success\n");
        memset(r, 0, sizeof(NCB));
        r->ncb_num = s->ncb_num;
        r->ncb_lana_num = s->ncb_lana_num;
        memcpy(r->ncb_name, s->ncb_name, NCBNAMSZ);
        ArmReceive(r, replies[i]);
        armed[i] = TRUE;
        NBSetName(s->ncb_callname, group);
        s->ncb_buffer = query;
        s->ncb_length = (WORD)cbQuery;
        LogPrintf(SendQuery(s) ? "Send data to Lana[%d] success\r\n" : "Send data to Lana[%d] fail\r\n",
                  s->ncb_lana_num);
    }

    const int working = PollForAnswer(count, sends, receives, replies, armed);
    if (working < 0) {
        for (int i = 0; i < count; ++i)
            if (armed[i] && NBRetCode(&receives[i]) == NRC_PENDING) CancelAndDelete(&receives[i]);
        DebugLog("Working Lana number is not found\n");
        GlobalFree(sends);
        GlobalFree(receives);
        return FALSE;
    }
    const UCHAR lana = receives[working].ncb_lana_num;
    LogPrintf("Receive data from Lana[%d]\n", lana);
    GlobalFree(sends);
    LogPrintf("Working Lana number find : Lana[%d]\n", lana);
    memset(&WorkingNcb, 0, sizeof WorkingNcb);
    WorkingNcb.ncb_num = receives[working].ncb_num;
    WorkingNcb.ncb_lana_num = lana;
    memcpy(WorkingNcb.ncb_name, receives[working].ncb_name, NCBNAMSZ);
    for (int i = 0; i < count; ++i)
        if (i != working && armed[i] && NBRetCode(&receives[i]) == NRC_PENDING) CancelAndDelete(&receives[i]);
    GlobalFree(receives);
    return AddPortNames(pBaseName, lana);
}

/* The start-up itself, under the lock.  The arrays come first: without them
 * no LANA is reset, and the names of an earlier start-up stay as they are. */
static BOOL RunStartup(void) {
    NCB *sends = (NCB *)GlobalAlloc(GMEM_FIXED, NB_REPLY_BUFFERS * sizeof(NCB));
    NCB *receives = (NCB *)GlobalAlloc(GMEM_FIXED, NB_REPLY_BUFFERS * sizeof(NCB));
    if (sends == NULL || receives == NULL) {
        if (sends != NULL) GlobalFree(sends);
        if (receives != NULL) GlobalFree(receives);
        DebugLog("Leave NBStartup - GlobalAlloc fail\n");
        return FALSE;
    }
    char baseName[NB_UNIQUENAME_BYTES];
    LANA_ENUM lanas;
    NCB enumNcb;
    if (!GetUniquename(baseName)) {
        DebugLog("Leave NBStartup - GetUniquename fail\n");
    } else if (EnumerateLanas(&enumNcb, &lanas) != NRC_GOODRET && enumNcb.ncb_retcode != NRC_GOODRET) {
        DebugLog("Leave NBStartup - EnumerateLANA fail\n");
    } else {
        return FindWorkingLana(baseName, &lanas, sends, receives);
    }
    GlobalFree(sends);
    GlobalFree(receives);
    return FALSE;
}

LONG NBStartupRuns(void) { return StartupRuns.load(); }

BOOL NBStartupSince(LONG seen) {
    DebugLog("\n");
    DebugLog("Entry NBStartup\n");
    EnterCriticalSection(&NBStartupLock);
    if (StartupRuns.load() != seen) {
        /* Another thread's start-up ran since the caller looked: its names are
         * fresh, and a second reset would take them from under its caller. */
        BOOL result = StartupResult;
        LeaveCriticalSection(&NBStartupLock);
        LogPrintf("Leave NBStartup - done by another thread (%s)\n", result ? "TRUE" : "FALSE");
        return result;
    }
    StartupResult = RunStartup();
    bStartup = StartupResult;
    StartupRuns.store(seen + 1);
    BOOL result = StartupResult;
    LeaveCriticalSection(&NBStartupLock);
    return result;
}

BOOL NBStartup(void) { return NBStartupSince(StartupRuns.load()); }

void CheckNETBIOS(void) {
    /* The template keeps pointing here after the call. */
    static BYTE test[NB_CHECK_BYTES];
    DebugLog("\n");
    DebugLog("Entry CheckNETBIOS\n");
    /* Under the start-up's lock: PortNcb1 is sent through, and a start-up on
     * another thread rewrites it. */
    EnterCriticalSection(&NBStartupLock);
    memset(test, 0, sizeof test);
    memcpy(test, "TEST", 4);
    NBSetName(PortNcb1.ncb_callname, "TEST");
    PortNcb1.ncb_buffer = test;
    PortNcb1.ncb_length = sizeof test;
    PortNcb1.ncb_command = NCBDGSEND;
    UCHAR ret = Netbios(&PortNcb1);
    if (ret != NRC_GOODRET && PortNcb1.ncb_retcode != NRC_GOODRET) {
        if (ret == NRC_ILLNN) {
            DebugLog("nRet != NRC_GOODRET and nRet == 0x13 , call NBStartup\n");
            bStartup = NBStartup();
        } else {
            LogPrintf("nRet != NRC_GOODRET , nRet = %d\n", ret);
        }
    } else {
        DebugLog("nRet == NRC_GOODRET\n");
    }
    LeaveCriticalSection(&NBStartupLock);
    DebugLog("Leave CheckNETBIOS\n");
}
