/*
 * winsock2.h for POSIX hosts: Winsock 1.1/2 as the monitor uses it, over BSD
 * sockets.  SOCKET is a pointer-sized handle, fd_set is Winsock's (a count and
 * an array of handles), errors are Winsock's numbers (10035 for a non-blocking
 * connect under way or a send that would block), and a non-blocking connect
 * that fails is reported in select's exception set, as Windows does.
 *
 * The functions whose names the C library also uses are bound to the
 * platform's own symbols (kvt_ws_*), so that the library's socket calls are
 * never reached by the monitor by accident.  A unit that includes this header
 * must not include the system's socket headers.
 */
#ifndef KVT_PLATFORM_WINSOCK2_H
#define KVT_PLATFORM_WINSOCK2_H

#include <windows.h>

/* The C library's <sys/select.h> comes in through <stdlib.h> and friends; take
 * it first so that its guard is set, then give its names to Winsock's types. */
#include <sys/types.h>
#include <sys/select.h>
#undef FD_SETSIZE
#undef FD_SET
#undef FD_CLR
#undef FD_ISSET
#undef FD_ZERO
#define fd_set kvt_ws_fd_set
#define timeval kvt_ws_timeval

/* The same for <unistd.h> and its gethostname (size_t length), which as an
 * overload would win over Winsock's for gethostname(buf, sizeof buf): take it
 * first, then give the name to Winsock's. */
#include <unistd.h>
#define gethostname kvt_ws_gethostname_function

typedef unsigned char u_char;
typedef unsigned short u_short;
typedef unsigned int u_int;
/* Winsock's u_long is 32 bits (LLP64); the C library has a 64-bit u_long. */
typedef uint32_t kvt_ws_u_long;
#define u_long kvt_ws_u_long

#define INVALID_SOCKET ((SOCKET)(~0))
#define SOCKET_ERROR (-1)

#define FD_SETSIZE 64
typedef struct fd_set {
    u_int fd_count;
    SOCKET fd_array[FD_SETSIZE];
} fd_set;

struct timeval {
    LONG tv_sec;
    LONG tv_usec;
};

#define FD_ZERO(set) (((fd_set *)(set))->fd_count = 0)
#define FD_CLR(fd, set) kvt_ws_fd_clr((SOCKET)(fd), (fd_set *)(set))
#define FD_SET(fd, set) kvt_ws_fd_set_add((SOCKET)(fd), (fd_set *)(set))
#define FD_ISSET(fd, set) __WSAFDIsSet((SOCKET)(fd), (fd_set *)(set))

#define AF_UNSPEC 0
#define AF_INET 2
#define AF_IPX 6
#define PF_INET AF_INET
#define PF_IPX AF_IPX
#define SOCK_STREAM 1
#define SOCK_DGRAM 2
#define IPPROTO_IP 0
#define IPPROTO_TCP 6
#define IPPROTO_UDP 17

#define SOL_SOCKET 0xffff
#define SO_REUSEADDR 0x0004
#define SO_BROADCAST 0x0020
#define SO_SNDBUF 0x1001
#define SO_RCVBUF 0x1002
#define SO_ERROR 0x1007
#define TCP_NODELAY 0x0001

#define MSG_PEEK 0x2

#define IOCPARM_MASK 0x7f
#define IOC_IN 0x80000000u
#define IOC_OUT 0x40000000u
#define _IOW(x, y, t) (IOC_IN | (((long)sizeof(t) & IOCPARM_MASK) << 16) | ((x) << 8) | (y))
#define _IOR(x, y, t) (IOC_OUT | (((long)sizeof(t) & IOCPARM_MASK) << 16) | ((x) << 8) | (y))
#define FIONBIO ((long)_IOW('f', 126, u_long))
#define FIONREAD ((long)_IOR('f', 127, u_long))

#define INADDR_ANY ((u_long)0x00000000)
#define INADDR_LOOPBACK 0x7f000001
#define INADDR_BROADCAST ((u_long)0xffffffff)
#define INADDR_NONE 0xffffffff

typedef struct in_addr {
    union {
        struct { u_char s_b1, s_b2, s_b3, s_b4; } S_un_b;
        struct { u_short s_w1, s_w2; } S_un_w;
        u_long S_addr;
    } S_un;
} IN_ADDR, *PIN_ADDR, *LPIN_ADDR;
#define s_addr S_un.S_addr

struct sockaddr {
    u_short sa_family;
    char sa_data[14];
};
typedef struct sockaddr SOCKADDR, *PSOCKADDR, *LPSOCKADDR;

struct sockaddr_in {
    short sin_family;
    u_short sin_port;
    struct in_addr sin_addr;
    char sin_zero[8];
};
typedef struct sockaddr_in SOCKADDR_IN, *PSOCKADDR_IN, *LPSOCKADDR_IN;

struct hostent {
    char *h_name;
    char **h_aliases;
    short h_addrtype;
    short h_length;
    char **h_addr_list;
};
#define h_addr h_addr_list[0]
typedef struct hostent HOSTENT, *PHOSTENT, *LPHOSTENT;

#define WSADESCRIPTION_LEN 256
#define WSASYS_STATUS_LEN 128
typedef struct WSAData {
    WORD wVersion;
    WORD wHighVersion;
    unsigned short iMaxSockets;
    unsigned short iMaxUdpDg;
    char *lpVendorInfo;
    char szDescription[WSADESCRIPTION_LEN + 1];
    char szSystemStatus[WSASYS_STATUS_LEN + 1];
} WSADATA, *LPWSADATA;

#define MAKEWORD(a, b) ((WORD)(((BYTE)(a)) | ((WORD)((BYTE)(b))) << 8))

/* Winsock error numbers */
#define WSABASEERR 10000
#define WSAEINTR 10004
#define WSAEBADF 10009
#define WSAEACCES 10013
#define WSAEFAULT 10014
#define WSAEINVAL 10022
#define WSAEMFILE 10024
#define WSAEWOULDBLOCK 10035
#define WSAEINPROGRESS 10036
#define WSAEALREADY 10037
#define WSAENOTSOCK 10038
#define WSAEDESTADDRREQ 10039
#define WSAEMSGSIZE 10040
#define WSAEPROTOTYPE 10041
#define WSAENOPROTOOPT 10042
#define WSAEPROTONOSUPPORT 10043
#define WSAESOCKTNOSUPPORT 10044
#define WSAEOPNOTSUPP 10045
#define WSAEPFNOSUPPORT 10046
#define WSAEAFNOSUPPORT 10047
#define WSAEADDRINUSE 10048
#define WSAEADDRNOTAVAIL 10049
#define WSAENETDOWN 10050
#define WSAENETUNREACH 10051
#define WSAENETRESET 10052
#define WSAECONNABORTED 10053
#define WSAECONNRESET 10054
#define WSAENOBUFS 10055
#define WSAEISCONN 10056
#define WSAENOTCONN 10057
#define WSAESHUTDOWN 10058
#define WSAETIMEDOUT 10060
#define WSAECONNREFUSED 10061
#define WSAEHOSTDOWN 10064
#define WSAEHOSTUNREACH 10065
#define WSASYSNOTREADY 10091
#define WSAVERNOTSUPPORTED 10092
#define WSANOTINITIALISED 10093
#define WSAHOST_NOT_FOUND 11001
#define WSATRY_AGAIN 11002
#define WSANO_RECOVERY 11003
#define WSANO_DATA 11004

#ifdef __cplusplus
extern "C" {
#endif

int WINAPI WSAStartup(WORD wVersionRequested, LPWSADATA lpWSAData);
int WINAPI WSACleanup(void);
int WINAPI WSAGetLastError(void);
void WINAPI WSASetLastError(int iError);
int WINAPI __WSAFDIsSet(SOCKET fd, fd_set *set);
void kvt_ws_fd_set_add(SOCKET fd, fd_set *set);
void kvt_ws_fd_clr(SOCKET fd, fd_set *set);

SOCKET WINAPI socket(int af, int type, int protocol) __asm__("kvt_ws_socket");
int WINAPI closesocket(SOCKET s);
int WINAPI ioctlsocket(SOCKET s, long cmd, u_long *argp);
int WINAPI setsockopt(SOCKET s, int level, int optname, const char *optval, int optlen)
    __asm__("kvt_ws_setsockopt");
int WINAPI getsockopt(SOCKET s, int level, int optname, char *optval, int *optlen)
    __asm__("kvt_ws_getsockopt");
int WINAPI bind(SOCKET s, const struct sockaddr *name, int namelen) __asm__("kvt_ws_bind");
int WINAPI connect(SOCKET s, const struct sockaddr *name, int namelen) __asm__("kvt_ws_connect");
int WINAPI send(SOCKET s, const char *buf, int len, int flags) __asm__("kvt_ws_send");
int WINAPI recv(SOCKET s, char *buf, int len, int flags) __asm__("kvt_ws_recv");
int WINAPI sendto(SOCKET s, const char *buf, int len, int flags, const struct sockaddr *to,
                  int tolen) __asm__("kvt_ws_sendto");
int WINAPI recvfrom(SOCKET s, char *buf, int len, int flags, struct sockaddr *from, int *fromlen)
    __asm__("kvt_ws_recvfrom");
int WINAPI gethostname(char *name, int namelen) __asm__("kvt_ws_gethostname");
struct hostent *WINAPI gethostbyname(const char *name) __asm__("kvt_ws_gethostbyname");
u_short WINAPI htons(u_short hostshort) __asm__("kvt_ws_htons");
u_short WINAPI ntohs(u_short netshort) __asm__("kvt_ws_ntohs");
u_long WINAPI htonl(u_long hostlong) __asm__("kvt_ws_htonl");
u_long WINAPI ntohl(u_long netlong) __asm__("kvt_ws_ntohl");
unsigned long WINAPI inet_addr(const char *cp) __asm__("kvt_ws_inet_addr");
char *WINAPI inet_ntoa(struct in_addr in) __asm__("kvt_ws_inet_ntoa");

#ifdef __cplusplus
}
#endif

/* Declared with C++ linkage: <sys/select.h>, included above, declares the C
 * library's select; this one is an overload on Winsock's fd_set and timeval. */
int WINAPI select(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds,
                  const struct timeval *timeout) __asm__("kvt_ws_select");

#endif /* KVT_PLATFORM_WINSOCK2_H */
