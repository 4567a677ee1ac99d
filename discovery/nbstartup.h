/*
 * nbstartup.h: the NetBIOS start-up.  The monitor's names on the one LANA
 * through which print servers answer, and the four templates from which the
 * NetBIOS search and transport take their local name, its number and the LANA.
 */
#ifndef KVT_NBSTARTUP_H
#define KVT_NBSTARTUP_H

#include <windows.h>
#include <nb30.h>

#define NB_ENUM_BYTES 256          /* NCBENUM's buffer */
#define NB_ASTAT_BYTES 600         /* NCBASTAT's buffer: the adapter address comes first */
#define NB_UNIQUENAME_BYTES 32     /* GetUniquename's out: twelve digits and a terminator */
#define NB_REPLY_BUFFERS 10        /* one per LANA: the LANAs that take part */
#define NB_REPLY_BYTES 128
#define NB_STARTUP_PERIOD_MS 500   /* the query goes out again after each period */
#define NB_STARTUP_PERIODS 10
#define NB_CHECK_BYTES 48          /* CheckNETBIOS's datagram: "TEST" and zeros */

/* After a successful NBStartup: Name0 (WorkingNcb) and the names of printer
 * ports 1 to 3, with their numbers, on the working LANA.  All zero until
 * NBStartup has run; bStartup (monitor.h) says that they are valid. */
extern NCB WorkingNcb, PortNcb1, PortNcb2, PortNcb3;

/* Keeps start-ups apart (made at load): one that comes while another runs
 * waits for it and takes its result. */
extern CRITICAL_SECTION NBStartupLock;

/* The twelve lower-case hexadecimal digits of the first adapter address that
 * a LANA gives, with a terminator, into out (NB_UNIQUENAME_BYTES).  FALSE
 * when no LANA gives one. */
BOOL GetUniquename(char *out);
/* Brings the four templates up; FALSE when no print server answered, or a
 * name could not be added.  The result is in bStartup before the start-up
 * counts as finished; each caller stores it there too. */
BOOL NBStartup(void);
/* The start-ups finished so far.  A caller that starts up when bStartup is
 * FALSE takes this count before it tests bStartup and hands it to
 * NBStartupSince: a start-up that another thread finished in between is then
 * taken (its result returned) rather than run again over the names it added. */
LONG NBStartupRuns(void);
BOOL NBStartupSince(LONG seen);
/* Sends through PortNcb1; a stale name number (NRC_ILLNN) starts over. */
void CheckNETBIOS(void);

/* A 16-byte NetBIOS name from text: the text, then blanks; no terminator. */
void NBSetName(UCHAR *pField, const char *pText);
/* A string of the table in 8-bit text (code page 0), cut to cb - 1 bytes:
 * the names' endings and the group name. */
void LoadNarrow(UINT id, char *pOut, int cb);
/* ncb_retcode as it stands now: the platform writes it in the background. */
UCHAR NBRetCode(const NCB *pNcb);
/* NCBCANCEL of the receive, on its LANA. */
void NBCancel(NCB *pReceive);

#endif /* KVT_NBSTARTUP_H */
