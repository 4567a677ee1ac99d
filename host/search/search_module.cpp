// The calls of libkvtsearch.so beside start-up: the TCP/IP, IPX and NetBIOS
// searches, as the add-port flow runs them (from an empty table, read
// afterwards), with the records copied into the host's own form.
#include <string.h>

#include "availps.h"
#include "discovery.h"
#include "kvtsearch.h"
#include "monitor.h"
#include "nbstartup.h"

// Runs the search into an empty, zeroed table of its own and copies out what it
// found; -1 when the search could not set up its socket or had no table.
static int SearchAndCopy(BOOL (*search)(AvailPSTable *), KvtFoundServer *out, int max) {
    AvailPSTable *table = AvailPSNewTable();
    if (table == NULL) return -1;
    table->Count = 0;
    int found = search(table) ? table->Count : -1;
    for (int i = 0; i < found && i < max; ++i) {
        const AvailPSRecord &r = table->Records[i];
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
    LocalFree(table);
    return found;
}

// The IPX dialogs' search: three passes, then every server's EEPROM image.
static BOOL IpxDialogSearch(AvailPSTable *table) { return IPXSearchInto(table, 3, 1); }

// The NetBIOS dialogs' search, after the start-up that finds the working
// LANA; without one there is no Name0 to ask from, and nothing is found.
static BOOL NetbiosDialogSearch(AvailPSTable *table) {
    const LONG runs = NBStartupRuns();
    if (!bStartup) bStartup = NBStartupSince(runs);
    return !bStartup || NBSearchInto(table);
}

extern "C" int KvtSearchTcpip(KvtFoundServer *out, int max) { return SearchAndCopy(TCPSearchInto, out, max); }

extern "C" int KvtSearchIpx(KvtFoundServer *out, int max) { return SearchAndCopy(IpxDialogSearch, out, max); }

extern "C" int KvtSearchNetbios(KvtFoundServer *out, int max) { return SearchAndCopy(NetbiosDialogSearch, out, max); }
