/*
 * nb30.h for POSIX hosts: the NetBIOS control block and command numbers.
 */
#ifndef KVT_PLATFORM_NB30_H
#define KVT_PLATFORM_NB30_H

#include <windows.h>

#define NCBNAMSZ 16
#define MAX_LANA 254

typedef struct _NCB {
    UCHAR ncb_command;
    UCHAR ncb_retcode;
    UCHAR ncb_lsn;
    UCHAR ncb_num;
    PUCHAR ncb_buffer;
    WORD ncb_length;
    UCHAR ncb_callname[NCBNAMSZ];
    UCHAR ncb_name[NCBNAMSZ];
    UCHAR ncb_rto;
    UCHAR ncb_sto;
    void(CALLBACK *ncb_post)(struct _NCB *);
    UCHAR ncb_lana_num;
    UCHAR ncb_cmd_cplt;
    UCHAR ncb_reserve[18];
    HANDLE ncb_event;
} NCB, *PNCB;

typedef struct _LANA_ENUM {
    UCHAR length;
    UCHAR lana[MAX_LANA + 1];
} LANA_ENUM, *PLANA_ENUM;

#define NCBCALL 0x10
#define NCBLISTEN 0x11
#define NCBHANGUP 0x12
#define NCBSEND 0x14
#define NCBRECV 0x15
#define NCBDGSEND 0x20
#define NCBDGRECV 0x21
#define NCBDGSENDBC 0x22
#define NCBDGRECVBC 0x23
#define NCBADDNAME 0x30
#define NCBDELNAME 0x31
#define NCBRESET 0x32
#define NCBASTAT 0x33
#define NCBCANCEL 0x35
#define NCBADDGRNAME 0x36
#define NCBENUM 0x37
#define ASYNCH 0x80

#define NRC_GOODRET 0x00
#define NRC_BUFLEN 0x01
#define NRC_ILLCMD 0x03
#define NRC_CMDTMO 0x05
#define NRC_INCOMP 0x06
#define NRC_CMDCAN 0x0b
#define NRC_DUPNAME 0x0d
#define NRC_NAMTFUL 0x0e
#define NRC_NOWILD 0x15
#define NRC_INUSE 0x16
#define NRC_NAMERR 0x17
#define NRC_BRIDGE 0x23
#define NRC_PENDING 0xff

#ifdef __cplusplus
extern "C" {
#endif
UCHAR WINAPI Netbios(PNCB pncb);
#ifdef __cplusplus
}
#endif

#endif /* KVT_PLATFORM_NB30_H */
