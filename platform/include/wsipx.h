/*
 * wsipx.h for POSIX hosts: the IPX socket address, as Windows publishes it.
 * An IPX datagram socket is socket(AF_IPX, SOCK_DGRAM, NSPROTO_IPX); the
 * platform carries it over UDP (see winsock.cpp for the mapping).
 */
#ifndef KVT_PLATFORM_WSIPX_H
#define KVT_PLATFORM_WSIPX_H

typedef struct sockaddr_ipx {
    short sa_family;           /* AF_IPX */
    char sa_netnum[4];         /* 0: the local network */
    char sa_nodenum[6];
    unsigned short sa_socket;  /* in network byte order */
} SOCKADDR_IPX, *PSOCKADDR_IPX, *LPSOCKADDR_IPX;

#define NSPROTO_IPX 1000
#define NSPROTO_SPX 1256
#define NSPROTO_SPXII 1257

#endif /* KVT_PLATFORM_WSIPX_H */
