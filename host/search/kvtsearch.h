// The C interface of libkvtsearch.so, the monitor built for `kvtmon discover`:
// the host loads it instead of libkvt64.so, starts it with
// InitializePrintMonitor and calls KvtSearchTcpip, KvtSearchIpx or
// KvtSearchNetbios, which run the monitor's search from an empty table and copy out what it
// found.
#pragma once

#include <stdint.h>

#define KVT_SEARCH_NAME_CHARS 48
#define KVT_SEARCH_QUEUE_BYTES 64

typedef struct KvtFoundServer {
    char16_t name[KVT_SEARCH_NAME_CHARS];  // terminated
    uint32_t ipAddress;                    // network byte order
    uint8_t flags;                         // 1: TCP/IP supported, 4: TCP/IP enabled
    uint8_t model;
    uint8_t node[6];
    uint8_t autoProtocol;
    uint8_t type;
    char queues[3][KVT_SEARCH_QUEUE_BYTES];  // 8-bit, terminated
} KvtFoundServer;

// Fills up to max records; returns how many the search found, or -1 when its
// socket could not be set up.  KvtSearchIpx runs IPXSearch(3, 1), and
// KvtSearchNetbios NBStartup (unless it has run) and NBSearch: they leave no
// queue names and Type 0.
typedef int (*KvtSearchTcpipFn)(KvtFoundServer *out, int max);  // every search
#define KVT_SEARCH_FUNCTION "KvtSearchTcpip"
#define KVT_SEARCH_IPX_FUNCTION "KvtSearchIpx"
#define KVT_SEARCH_NETBIOS_FUNCTION "KvtSearchNetbios"
