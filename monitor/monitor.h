/*
 * monitor.h: the port record, the monitor's global state and the operations
 * that the rest of the monitor calls.
 */
#ifndef KVT_MONITOR_H
#define KVT_MONITOR_H

#include <winsock2.h>
#include <windows.h>
#include <winspool.h>
#include <winsplp.h>
#include <nb30.h>

#include <atomic>

/* ---- status word of a port ---------------------------------------------- */
#define PP_INSTARTDOC 0x00000001u  /* a job holds the port */
#define PP_CONNECTING 0x10000000u  /* a non-blocking TCP connect is under way */
#define PP_RETRY 0x20000000u       /* the last LPR connect may be repeated */
#define PP_CONNECTED 0x40000000u   /* TCP up, LPR header still to send */
#define PP_LPRREADY 0x80000000u    /* LPR job open: data may be sent */
#define PP_LPRSTATES (PP_CONNECTING | PP_RETRY | PP_CONNECTED | PP_LPRREADY)

/* ---- protocol codes ---------------------------------------------------------
 * The registry scheme (a port's " " value, SupportProtocol, WorkProtocol):   */
#define PROTOCOL_AUTO 0
#define PROTOCOL_IPX 1
#define PROTOCOL_TCPIP 2
#define PROTOCOL_NETBIOS 4
#define PROTOCOL_ALL (PROTOCOL_IPX | PROTOCOL_TCPIP | PROTOCOL_NETBIOS)
/* The selector that PrintProtocol holds once a job has started: */
#define SELECTOR_TCPIP 0
#define SELECTOR_IPX 1
#define SELECTOR_NETBIOS 2

#define INIPORT_SIGNATURE 0x4F50

/* The port record: one allocation holding the record and its two strings. */
typedef struct _INIPORT {
    DWORD signature;
    DWORD cb;
    struct _INIPORT *pNext;
    LPWSTR pName;
    LPWSTR pDeviceDesc;
    DWORD Status;
    HANDLE hPrinter;
    DWORD JobId;
    WORD ZeroWriteCount;
    WORD PrinterStatus;
    DWORD IPAddress;   /* host byte order */
    SOCKET Socket;     /* INVALID_SOCKET when there is none */
    BYTE Lptn;         /* the digit key, '1' to '5' */
    BYTE NodeID[6];    /* all zero: no node address known */
    BYTE NetNum[4];    /* always zero: the local network */
    BYTE Tid;
    BYTE ChannelPort;
    NCB NcbCopy;
    DWORD SendSeq;
    char ServerName[20];
    DWORD PrintProtocol;
    DWORD WorkProtocol;
    /* TRUE from the claim in LocalmonStartDocPort to the job's final reset (a
     * failed job start, or the end of LocalmonEndDocPort), whatever the
     * transport does with Status meanwhile: the job's thread uses the record
     * for that whole span, so it is neither deleted nor claimed by another job.
     * Written under PortListLock. */
    BOOL JobHeld;
} IniPort, *PINIPORT;

/* ---- global state -------------------------------------------------------------- */
extern HINSTANCE DllInstance;
extern DWORD MessageTlsSlot;
extern HMODULE ResourceModule;
extern CRITICAL_SECTION PortListLock;
extern PINIPORT PortListHead;
/* Flags that any spooler thread may read while another writes them, without
 * PortListLock: each is read and written whole, in one atomic step, and is
 * otherwise a plain value (SupportProtocol is recomputed by each writer,
 * EnumPorts turns IsDEBUG off and on around its work). */
extern std::atomic<BYTE> SupportProtocol;
extern std::atomic<BOOL> bStartup;
extern std::atomic<BOOL> AddPortBusy;
extern std::atomic<BYTE> IsNOTIFY;
extern std::atomic<BYTE> IsDEBUG;
extern BYTE ProfileFound;
extern WCHAR VendorDesc[29];
extern WCHAR DeviceDesc[29];
extern WCHAR MonitorName[32];
extern WCHAR WindowsPath[360];
extern WCHAR SystemPath[512];

/* ---- entry table ---------------------------------------------------------------- */
extern "C" {
LPMONITOREX WINAPI InitializePrintMonitor(LPWSTR pRegistryRoot);
BOOL WINAPI DllEntryPoint(HINSTANCE instance, DWORD reason, LPVOID reserved);
BOOL WINAPI LocalmonEnumPorts(LPWSTR pName, DWORD Level, LPBYTE pPorts, DWORD cbBuf,
                              LPDWORD pcbNeeded, LPDWORD pcReturned);
BOOL WINAPI LocalmonOpenPort(LPWSTR pName, PHANDLE pHandle);
BOOL WINAPI LocalmonStartDocPort(HANDLE hPort, LPWSTR pPrinterName, DWORD JobId, DWORD Level,
                                 LPBYTE pDocInfo);
BOOL WINAPI LocalmonWritePort(HANDLE hPort, LPBYTE pBuffer, DWORD cbBuf, LPDWORD pcbWritten);
BOOL WINAPI LocalmonReadPort(HANDLE hPort, LPBYTE pBuffer, DWORD cbBuffer, LPDWORD pcbRead);
BOOL WINAPI LocalmonEndDocPort(HANDLE hPort);
BOOL WINAPI LocalmonClosePort(HANDLE hPort);
BOOL WINAPI LocalmonAddPort(LPWSTR pName, HWND hWnd, LPWSTR pMonitorName);
BOOL WINAPI LocalmonAddPortEx(LPWSTR pName, DWORD Level, LPBYTE lpBuffer, LPWSTR lpMonitorName);
BOOL WINAPI LocalmonConfigurePort(LPWSTR pName, HWND hWnd, LPWSTR pPortName);
BOOL WINAPI LocalmonDeletePort(LPWSTR pName, HWND hWnd, LPWSTR pPortName);
BOOL WINAPI LocalmonGetPrinterDataFromPort(HANDLE hPort, DWORD ControlID, LPWSTR pValueName,
                                           LPWSTR lpInBuffer, DWORD cbInBuffer, LPWSTR lpOutBuffer,
                                           DWORD cbOutBuffer, LPDWORD lpcbReturned);
BOOL WINAPI LocalmonSetPortTimeOuts(HANDLE hPort, LPCOMMTIMEOUTS lpCTO, DWORD reserved);
}

/* ---- port list ---------------------------------------------------------------------- */
PINIPORT FindPortFromList(LPCWSTR pName);
PINIPORT CreateMonitorPortEntry(LPCWSTR pName, LPCWSTR pDeviceDesc, DWORD IPAddress,
                                const BYTE *NetNum, const BYTE *NodeID, BYTE Lptn);
BOOL DeleteMonitorPortEntry(LPCWSTR pPortName);
/* Status as another thread sees it, for a log line only: a port that a job
 * holds is refused on JobHeld alone, while the job's thread may be changing
 * Status outside the lock (an aligned DWORD, read whole). */
DWORD StatusForLog(const IniPort *pIniPort);

/* ---- host facts ------------------------------------------------------------------------- */
BYTE GetProtocol(void);
/* A box for the person at the machine: the start-up debug box, the notice
 * after a job.  Shown as MessageBoxW on a desktop; from session 0 (the
 * spooler as a service) sent to the active console session instead, with a
 * time-out of SESSION_BOX_SECONDS, never waited on. */
#define SESSION_BOX_SECONDS 60
void ShowUserBox(LPCWSTR text, LPCWSTR caption, UINT type);

/* ---- job flow ------------------------------------------------------------------------------ */
/* The job record, level 1, read as the deletion test and the job end read it:
 * into 512 bytes; a record that does not fit is not read. */
#define JOB_RECORD_BYTES 512
typedef union {
    JOB_INFO_1W info;
    BYTE bytes[JOB_RECORD_BYTES];
} JobRecord;
BOOL ReadJobRecord(PINIPORT pIniPort, JobRecord *pJob);
/* The deletion test: TRUE when the spooler marks the port's job as being deleted. */
BOOL IsJobDeleting(PINIPORT pIniPort);

#endif /* KVT_MONITOR_H */
