// The calls of libkvtsearch.so beside start-up: the TCP/IP, IPX and NetBIOS
// searches, as the add-port flow runs them (TotalPrintServer set to 0 first,
// the table read afterwards), with the records copied into the host's own form.
#include <string.h>

#include "availps.h"
#include "discovery.h"
#include "kvtsearch.h"
#include "monitor.h"
#include "nbstartup.h"

// Runs the search from an empty table under the table's lock and copies out
// what it found; -1 when the search could not set up its socket.
static int SearchAndCopy(BOOL (*search)(void), KvtFoundServer *out, int max) {
    EnterCriticalSection(&AvailPSLock);
    TotalPrintServer = 0;
    if (!search()) {
        LeaveCriticalSection(&AvailPSLock);
        return -1;
    }
    int found = TotalPrintServer;
    for (int i = 0; i < found && i < max; ++i) {
        const AvailPSRecord &r = AvailPS[i];
        KvtFoundServer &s = out[i];
        memset(&s, 0, sizeof s);
        static_assert(sizeof s.name == sizeof r.Name, "names have one size");
        memcpy(s.name, r.Name, sizeof s.name);
        s.name[KVT_SEARCH_NAME_CHARS - 1] = 0;
        s.ipAddress = r.IPAddress;
        s.flags = r.Flags;
        s.model = r.ModelType;
        memcpy(s.node, r.NodeID, sizeof s.node);
        s.autoProtocol = r.AutoProtocol;
        s.type = r.Type;
        for (int q = 0; q < 3; ++q) {
            memcpy(s.queues[q], r.QueueName[q].Text, KVT_SEARCH_QUEUE_BYTES);
            s.queues[q][KVT_SEARCH_QUEUE_BYTES - 1] = 0;
        }
    }
    LeaveCriticalSection(&AvailPSLock);
    return found;
}

// The IPX dialogs' search: three passes, then every server's EEPROM image.
static BOOL IpxDialogSearch(void) { return IPXSearch(3, 1); }

// The NetBIOS dialogs' search, after the start-up that finds the working
// LANA; without one there is no Name0 to ask from, and nothing is found.
static BOOL NetbiosDialogSearch(void) {
    if (!bStartup) bStartup = NBStartup();
    return !bStartup || NBSearch();
}

extern "C" int KvtSearchTcpip(KvtFoundServer *out, int max) { return SearchAndCopy(TCPSearch, out, max); }

extern "C" int KvtSearchIpx(KvtFoundServer *out, int max) { return SearchAndCopy(IpxDialogSearch, out, max); }

extern "C" int KvtSearchNetbios(KvtFoundServer *out, int max) { return SearchAndCopy(NetbiosDialogSearch, out, max); }
