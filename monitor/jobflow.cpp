/*
 * The frame of a print job: LocalmonStartDocPort chooses the transport and
 * falls over from one to the next, LocalmonWritePort hands each spooler buffer
 * to the transport that started, LocalmonEndDocPort ends the job and tells the
 * spooler and the user.
 */
#include <windows.h>
#include <winspool.h>

#include <stdio.h>
#include <string.h>

#include "debuglog.h"
#include "monitor.h"
#include "portstore.h"
#include "resource.h"
#include "lpr.h"
#include "transport.h"

/* What the frame knows of each transport. */
typedef struct {
    DWORD Bit;                 /* registry scheme */
    DWORD Selector;            /* PrintProtocol once the job has started */
    const char *UseLine;       /* logged before the job start */
    const char *NotSupported;  /* logged when the host lacks the transport */
    const char *TryLine;       /* logged before the transport is tried after another */
    const char *UsingLine;     /* logged by each write */
    const char *EndLine;       /* logged before the job end */
    DWORD Next[2];             /* fall-over order after this one fails */
} TransportInfo;

static const TransportInfo Transports[] = {
    {PROTOCOL_IPX, SELECTOR_IPX, "Printing use IPX\n", "not support IPX\n", "Try IPX protocol\n",
     "Using IPX protocol\n", "Protocol = IPX , call IPXHangup\n", {PROTOCOL_TCPIP, PROTOCOL_NETBIOS}},
    {PROTOCOL_TCPIP, SELECTOR_TCPIP, "Printing use TCPIP\n", "Not support TCPIP\n", "Try TCPIP protocol\n",
     "Using TCPIP protocol\n", "Protocol = TCPIP , call LprCloseFile\n", {PROTOCOL_IPX, PROTOCOL_NETBIOS}},
    {PROTOCOL_NETBIOS, SELECTOR_NETBIOS, "Printing use NETBIOS\n", "Not support NETBIOS\n",
     "Try NETBIOS protocol\n", "Using NETBIOS protocol\n", "Protocol = NETBIOS , call NBHangup\n",
     {PROTOCOL_IPX, PROTOCOL_TCPIP}},
};

static const TransportInfo *TransportByBit(DWORD bit) {
    for (size_t i = 0; i < sizeof Transports / sizeof Transports[0]; ++i)
        if (Transports[i].Bit == bit) return &Transports[i];
    return NULL;
}

static const TransportInfo *TransportBySelector(DWORD selector) {
    for (size_t i = 0; i < sizeof Transports / sizeof Transports[0]; ++i)
        if (Transports[i].Selector == selector) return &Transports[i];
    return NULL;
}

/* A stored protocol other than the four known codes (a list file can bring any
 * byte into the tree) is taken as automatic. */
static DWORD KnownProtocol(DWORD protocol) {
    return (protocol == PROTOCOL_IPX || protocol == PROTOCOL_TCPIP || protocol == PROTOCOL_NETBIOS) ? protocol
                                                                                                     : 0;
}

BOOL ReadJobRecord(PINIPORT pIniPort, JobRecord *pJob) {
    DWORD needed = 0;
    return GetJobW(pIniPort->hPrinter, pIniPort->JobId, 1, pJob->bytes, sizeof pJob->bytes, &needed);
}

BOOL IsJobDeleting(PINIPORT pIniPort) {
    JobRecord job;
    if (!ReadJobRecord(pIniPort, &job)) return FALSE;
    return (job.info.Status & JOB_STATUS_DELETING) != 0;
}

/* Under the lock: the port is idle again and the printer closed. */
static void ReleasePort(PINIPORT pIniPort) {
    EnterCriticalSection(&PortListLock);
    pIniPort->Status = 0;
    if (pIniPort->hPrinter != NULL) ClosePrinter(pIniPort->hPrinter);
    pIniPort->hPrinter = NULL;
    LeaveCriticalSection(&PortListLock);
}

/* The job's last touch of the record: from here on it may be deleted, so the
 * caller uses the record no more. */
static void EndJobHold(PINIPORT pIniPort) {
    EnterCriticalSection(&PortListLock);
    pIniPort->JobHeld = FALSE;
    LeaveCriticalSection(&PortListLock);
}

/* Steps up to the open printer: refusals, the busy test and OpenPrinterW.
 * FALSE when the job start ends here; the last error is set. */
static BOOL ClaimPort(PINIPORT pIniPort, LPWSTR pPrinterName, DWORD JobId, DWORD Level, LPBYTE pDocInfo) {
    SupportProtocol = GetProtocol();
    LogPrintf("Get protocol: %02X\n", (unsigned)SupportProtocol);
    if (SupportProtocol == 0) {
        SetLastError(ERROR_IO_DEVICE);
        DebugLog("Leave LocalmonStartDocPort - no support any protocol\n");
        return FALSE;
    }
    pIniPort->PrintProtocol = GetPrintProtocol(pIniPort->pName);
    DWORD stored = KnownProtocol(pIniPort->PrintProtocol);
    if ((SupportProtocol & PROTOCOL_NETBIOS) && (stored == PROTOCOL_AUTO || stored == PROTOCOL_NETBIOS)) {
        DebugLog("Support NETBIOS\n");
        const LONG runs = NBStartupRuns();
        if (!bStartup) {
            bStartup = NBStartupSince(runs);
            if (!bStartup) {
                SetLastError(ERROR_IO_DEVICE);
                DebugLog("NETBOS startup fail\n");
            }
        }
    }
    if (Level == 2 && pDocInfo != NULL && ((DOC_INFO_2W *)pDocInfo)->dwMode == DI_CHANNEL) {
        SetLastError(ERROR_CANTREAD);
        DebugLog("Level = 2 , pDocInfo->dwMode = DI_CHANNEL\n");
        DebugLog("Leave LocalmonStartDocPort - can't read doc\n");
        return FALSE;
    }

    EnterCriticalSection(&PortListLock);
    LogPrintf("Status = %08X\n", (unsigned)StatusForLog(pIniPort));
    /* A job holds the record also while the LPR transport has Status at 0
     * between its attempts. */
    if (pIniPort->JobHeld) {
        DWORD status = StatusForLog(pIniPort);
        LeaveCriticalSection(&PortListLock);
        SetLastError(ERROR_BUSY);
        LogPrintf("Leave LocalmonStartDocPort - PrintServer is busy (status: %08X)\n", (unsigned)status);
        return FALSE;
    }
    pIniPort->JobHeld = TRUE;
    pIniPort->Status = PP_INSTARTDOC;
    LogPrintf("PrintServer status change to PP_INSTARTDOC (status: %08X)\n", (unsigned)pIniPort->Status);
    pIniPort->JobId = JobId;
    pIniPort->ZeroWriteCount = 0;
    pIniPort->PrinterStatus = 0;
    LogPrintf("JobID: %08x,reset Printer status to 0\n", (unsigned)JobId);
    pIniPort->hPrinter = NULL;
    if (!OpenPrinterW(pPrinterName, &pIniPort->hPrinter, NULL)) {
        pIniPort->Status &= ~PP_INSTARTDOC;
        pIniPort->hPrinter = NULL;
        pIniPort->JobHeld = FALSE;
        DWORD status = pIniPort->Status;
        LeaveCriticalSection(&PortListLock);
        SetLastError(ERROR_IO_DEVICE);
        LogPrintf("Leave LocalmonStartDocPort - open printer fail (status = %08X)\n", (unsigned)status);
        return FALSE;
    }
    LogPrintf("Open printer success (status = %08X)\n", (unsigned)pIniPort->Status);
    LeaveCriticalSection(&PortListLock);
    return TRUE;
}

/* The first transport and the mask of those not to be tried; 0 when the host
 * offers none of them any more. */
static DWORD ChooseTransport(PINIPORT pIniPort, DWORD *pTriedMask) {
    DWORD print = KnownProtocol(pIniPort->PrintProtocol);
    DWORD work = KnownProtocol(pIniPort->WorkProtocol);
    *pTriedMask = 0;
    if (print == 0 && work != 0) return work;
    if (print != 0) {
        *pTriedMask = PROTOCOL_ALL - print;
        pIniPort->WorkProtocol = print;
        return print;
    }
    if (SupportProtocol & PROTOCOL_TCPIP) return PROTOCOL_TCPIP;
    if (SupportProtocol & PROTOCOL_IPX) {
        *pTriedMask = PROTOCOL_TCPIP;
        return PROTOCOL_IPX;
    }
    if (SupportProtocol & PROTOCOL_NETBIOS) {
        *pTriedMask = PROTOCOL_TCPIP | PROTOCOL_IPX;
        return PROTOCOL_NETBIOS;
    }
    return 0;
}

static JobStartResult RunJobStart(PINIPORT pIniPort, const TransportInfo *t, BYTE *pConnectOutcome) {
    DebugLog(t->UseLine);
    pIniPort->Status |= PP_INSTARTDOC;
    BOOL offered = (SupportProtocol & t->Bit) != 0;
    if (!offered) DebugLog(t->NotSupported);
    switch (t->Bit) {
    case PROTOCOL_IPX:
        return offered ? IPXJobStart(pIniPort, pConnectOutcome) : JOB_START_FAILED;
    case PROTOCOL_TCPIP:
        return TcpJobStart(pIniPort); /* it sees for itself that TCP/IP is missing */
    default:
        return NBJobStart(pIniPort, pConnectOutcome);
    }
}

static void ReportFinalFailure(PINIPORT pIniPort, DWORD failedLast, BYTE outcome) {
    ReleasePort(pIniPort);
    DWORD status = pIniPort->Status;
    if (failedLast == PROTOCOL_TCPIP) {
        SetLastError(ERROR_IO_DEVICE);
        LogPrintf("Leave LocalmonStartDocPort - ERROR_IO_DEVICE (status: %08X)\n", (unsigned)status);
    } else if (failedLast == PROTOCOL_IPX) {
        SetLastError(outcome == CONNECT_NO_RESPONSE ? ERROR_IO_DEVICE : ERROR_BUSY);
        if (outcome == CONNECT_NO_RESPONSE)
            LogPrintf("Leave LocalmonStartDocPort - ERROR_IO_DEVICE tid = 0x%X (status: %08X)\n", outcome,
                      (unsigned)status);
        else
            LogPrintf("Leave LocalmonStartDocPort - ERROR_BUSY tid = 0x%X (status: %08X)\n", outcome,
                      (unsigned)status);
    } else {
        SetLastError(outcome == CONNECT_NO_RESPONSE ? ERROR_IO_DEVICE : ERROR_BUSY);
        if (outcome == CONNECT_NO_RESPONSE)
            LogPrintf("Leave LocalmonStartDocPort - ERROR_IO_DEVICE (tid = 0x%X status: %08X\n", outcome,
                      (unsigned)status);
        else
            LogPrintf("Leave LocalmonStartDocPort - ERROR_BUSY (tid = 0x%X status: %08X)\n", outcome,
                      (unsigned)status);
    }
}

extern "C" BOOL WINAPI LocalmonStartDocPort(HANDLE hPort, LPWSTR pPrinterName, DWORD JobId, DWORD Level,
                                            LPBYTE pDocInfo) {
    PINIPORT pIniPort = (PINIPORT)hPort;
    DebugLog("\n");
    DebugLog("Entry LocalmonStartDocPort\n");
    if (pPrinterName != NULL) LogWideName("PrinterName: %s\n", pPrinterName);
    else DebugLog("PrinterName: NULL\n");
    LogPrintf("JobID: %08X \t Level: %08X\n", (unsigned)JobId, (unsigned)Level);
    if (pIniPort == NULL) {
        SetLastError(ERROR_INVALID_HANDLE);
        DebugLog("Leave LocalmonStartDocPort - no port\n");
        return FALSE;
    }

    if (!ClaimPort(pIniPort, pPrinterName, JobId, Level, pDocInfo)) return FALSE;

    pIniPort->PrintProtocol = GetPrintProtocol(pIniPort->pName);
    LogPrintf("Get Print Protocol: %d\n", (int)pIniPort->PrintProtocol);
    LogPrintf("pIniPort->WorkProtocol: %d\n", (int)pIniPort->WorkProtocol);

    DWORD tried = 0;
    DWORD current = ChooseTransport(pIniPort, &tried);
    if (current == 0) {
        ReleasePort(pIniPort);
        SetLastError(ERROR_IO_DEVICE);
        LogPrintf("Leave LocalmonStartDocPort - ERROR_IO_DEVICE (status = %08X)\n", (unsigned)pIniPort->Status);
        EndJobHold(pIniPort);
        return FALSE;
    }

    /* No IPX or NetBIOS connect has answered yet: a port fixed to a transport
     * that the host lacks ends as "no response". */
    BYTE outcome = CONNECT_NO_RESPONSE;
    for (;;) {
        const TransportInfo *t = TransportByBit(current);
        JobStartResult result = RunJobStart(pIniPort, t, &outcome);
        if (result == JOB_STARTED) {
            pIniPort->PrintProtocol = t->Selector;
            pIniPort->WorkProtocol = t->Bit;
            DebugLog("Leave LocalmonStartDocPort - success\n");
            return TRUE;
        }
        if (result == JOB_START_DELETED) {
            ReleasePort(pIniPort);
            LogPrintf(t->Bit == PROTOCOL_IPX ? "Leave LocalmonStartDocPort - user delete job(status: %08X)\n"
                                             : "Leave LocalmonStartDocPort - user delete job (status: %08X)\n",
                      (unsigned)pIniPort->Status);
            EndJobHold(pIniPort);
            return FALSE;
        }
        tried |= current;
        DWORD next = 0;
        for (int i = 0; i < 2 && next == 0; ++i)
            if (!(tried & t->Next[i])) next = t->Next[i];
        if (next == 0) {
            ReportFinalFailure(pIniPort, current, outcome);
            EndJobHold(pIniPort);
            return FALSE;
        }
        DebugLog(TransportByBit(next)->TryLine);
        current = next;
    }
}

extern "C" BOOL WINAPI LocalmonWritePort(HANDLE hPort, LPBYTE pBuffer, DWORD cbBuf, LPDWORD pcbWritten) {
    PINIPORT pIniPort = (PINIPORT)hPort;
    DebugLog("Entry LocalmonWritePort\n");
    DWORD ignored;
    if (pcbWritten == NULL) pcbWritten = &ignored;
    *pcbWritten = 0;
    const TransportInfo *t = pIniPort != NULL ? TransportBySelector(pIniPort->PrintProtocol) : NULL;
    if (t == NULL) {
        DebugLog("Leave LocalmonWritePort - (return = FALSE)\n");
        return FALSE;
    }
    DebugLog(t->UsingLine);
    if (t->Bit != PROTOCOL_TCPIP && pIniPort->Tid == 0) {
        DebugLog(t->Bit == PROTOCOL_IPX ? "Leave LocalmonWritePort - (tid = 0x00 , return = FALSE)\n"
                                        : "Leave LocalmonWritePort - (return = FALSE)\n");
        return FALSE;
    }

    WriteResult result;
    if (t->Bit == PROTOCOL_TCPIP) result = LprWrite(pIniPort, pBuffer, cbBuf, pcbWritten);
    else if (t->Bit == PROTOCOL_IPX) result = IPXWrite(pIniPort, pBuffer, cbBuf, pcbWritten);
    else result = NBWrite(pIniPort, pBuffer, cbBuf, pcbWritten);

    if (result == WRITE_OK) {
        DebugLog(t->Bit == PROTOCOL_TCPIP ? "Leave LocalmonWritePort - (return = 1)\n"
                                          : "Leave LocalmonWritePort - (return = TRUE)\n");
        return TRUE;
    }
    if (result == WRITE_JOB_DELETED) {
        /* Status and the printer stay for LocalmonEndDocPort. */
        DebugLog("Leave LocalmonWritePort - (job = JOB_STATUS_DELETING)\n");
        return TRUE;
    }
    SetLastError(ERROR_WRITE_FAULT);
    EnterCriticalSection(&PortListLock);
    /* An LPR port keeps PP_LPRREADY, and so stays busy, until LocalmonEndDocPort
     * closes the connection; a channel port is idle at once. */
    if (t->Bit == PROTOCOL_TCPIP) pIniPort->Status &= ~PP_INSTARTDOC;
    else pIniPort->Status = 0;
    if (pIniPort->hPrinter != NULL) ClosePrinter(pIniPort->hPrinter);
    pIniPort->hPrinter = NULL;
    LeaveCriticalSection(&PortListLock);
    if (t->Bit == PROTOCOL_TCPIP) {
        DebugLog("LprWrite fail\n");
        DebugLog("Leave LocalmonWritePort - (return = 0)\n");
    } else {
        DebugLog("Leave LocalmonWritePort - (return = FALSE)\n");
    }
    return FALSE;
}

/* The notice after a job: the document's name, a blank and "printing
 * success !!", captioned with the printer's name.  Without a job record the
 * document's name is left out and the port's name is the caption.  The text
 * is cut to the 151 characters it has room for. */
static void ShowNotice(PINIPORT pIniPort, const JOB_INFO_1W *pJob) {
    WCHAR success[64], text[152];
    LoadStr(IDS_PRINTING_SUCCESS, success, 64);
    LPCWSTR document = (pJob != NULL && pJob->pDocument != NULL) ? pJob->pDocument : TEXT("");
    LPCWSTR caption = (pJob != NULL && pJob->pPrinterName != NULL) ? pJob->pPrinterName : pIniPort->pName;
    int room = 151 - 1 - lstrlenW(success);
    WCHAR cut[152];
    lstrcpynW(cut, document, room > 0 ? room + 1 : 1);
    wsprintfW(text, TEXT("%s %s"), cut, success);
    ShowUserBox(text, caption, MB_ICONINFORMATION);
}

extern "C" BOOL WINAPI LocalmonEndDocPort(HANDLE hPort) {
    PINIPORT pIniPort = (PINIPORT)hPort;
    DebugLog("\n");
    if (pIniPort == NULL) {
        DebugLog("Leave LocalmonEndDocPort - status = 0\n");
        return TRUE;
    }
    LogPrintf("Entry LocalmonEndDocPort (status = %08X)\n", (unsigned)pIniPort->Status);
    if (pIniPort->Status == 0) {
        /* A channel job whose write failed is idle already; its end is the
         * end of the job's hold on the record all the same. */
        EndJobHold(pIniPort);
        DebugLog("Leave LocalmonEndDocPort - status = 0\n");
        return TRUE;
    }

    JobRecord job;
    BOOL haveJob = ReadJobRecord(pIniPort, &job);

    SetPrinterW(pIniPort->hPrinter, 0, NULL, PRINTER_CONTROL_SET_STATUS);

    const TransportInfo *t = TransportBySelector(pIniPort->PrintProtocol);
    if (t != NULL) {
        DebugLog(t->EndLine);
        if (t->Bit == PROTOCOL_TCPIP) LprCloseFile(pIniPort);
        else if (t->Bit == PROTOCOL_IPX) IPXJobEnd(pIniPort);
        else NBJobEnd(pIniPort);
    }

    if (pIniPort->hPrinter != NULL) {
        SetJobW(pIniPort->hPrinter, pIniPort->JobId, 0, NULL, JOB_CONTROL_SENT_TO_PRINTER);
        ClosePrinter(pIniPort->hPrinter);
    }

    EnterCriticalSection(&PortListLock);
    pIniPort->Status = 0;
    pIniPort->PrinterStatus = 0;
    pIniPort->ZeroWriteCount = 0;
    pIniPort->hPrinter = NULL;
    LeaveCriticalSection(&PortListLock);
    DebugLog("Reset Status and PrinterStatus to 0\n");

    if (IsNOTIFY == 1) {
        DebugLog("Show notify to user\n");
        ShowNotice(pIniPort, haveJob ? &job.info : NULL);
    }
    DebugLog("Leave LocalmonEndDocPort - success\n");
    EndJobHold(pIniPort);
    return TRUE;
}
