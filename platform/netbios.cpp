// Netbios for POSIX hosts.  The LANAs of this host (one by default, whose
// adapter address is this process's own), the names this process holds on each
// with their numbers, and datagrams as RFC 1002 packets, broadcast to UDP port
// 138 as a B node sends them.  Each process has one socket, bound to
// 0.0.0.0:138 beside every other process's (SO_REUSEPORT: a broadcast reaches
// them all), and one thread that reads it and completes the pending receives
// of the names addressed.
//
// Every write into a pending control block happens under the lock, and the
// return code is written last: once a receive has completed or has been
// cancelled, nothing is written to it or its buffer again.
#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "clock_internal.h"
#include "kvtnetbios.h"

namespace {

using kvtnb::Name;

constexpr UCHAR kFirstNameNumber = 2;  // 1 is the adapter's permanent name on Windows
constexpr UCHAR kLastNameNumber = 254;
constexpr size_t kMaxNames = kLastNameNumber - kFirstNameNumber + 1;
constexpr size_t kMaxHeardNames = 256;  // names heard as the source of a datagram
// How long an add waits for another station to defend the name: one request,
// not RFC 1001's three of 250 ms, since the stations here are processes of one
// host, whose answer comes at once; the start-up's four names cost 100 ms.
constexpr int64_t kRegistrationWaitMs = 25;

struct HeldName {
    Name name;
    UCHAR number;
};

// A receive as it was submitted: the platform keeps its own copy of what to
// fill, and writes only these fields of the block.
struct Receive {
    PNCB ncb;
    UCHAR num;
    PUCHAR buffer;
    WORD length;
};

// A number once given to a name: the name's again whenever it is added, so
// that an old template's number never names another name, until 253 names
// have had one; then a new name takes the number given up longest ago.
struct Numbered {
    Name name;
    UCHAR number;
    uint64_t givenUp;  // when the name was last deleted or reset away; 0: never
};

struct Lana {
    UCHAR number = 0;
    kvtnb::Node address{};
    bool leadsNowhere = false;
    bool reset = false;  // NCBRESET has been issued: the LANA may be used
    std::vector<HeldName> names;
    std::vector<Numbered> numbered;
    uint64_t givenUp = 0;           // the count of names given up so far
    std::vector<Receive> receives;  // pending, oldest first
};

struct NetbiosState {
    pid_t pid = getpid();
    std::mutex lock;
    std::condition_variable completed;  // for the receives that wait
    bool lanasSet = false;
    std::vector<Lana> lanas;
    uint32_t hostAddress = INADDR_LOOPBACK;  // host order
    int fd = -1;
    int nameFd = -1;  // UDP 137: the registrations of others' names, to answer
    uint16_t nextId = 1;
    std::vector<Name> heard;  // names that stations use as their own: unique
    bool recording = false;
    std::vector<kvthost::NetbiosCall> calls;
    kvthost::NetbiosHook hook;
};

// One per process: a child made by fork starts afresh (the parent's thread
// isn't there), leaving the parent's state alone.  Never freed.
NetbiosState &State() {
    static NetbiosState *state = nullptr;
    static std::mutex made;
    std::lock_guard<std::mutex> guard(made);
    if (state == nullptr || state->pid != getpid()) state = new NetbiosState;
    return *state;
}

kvtnb::Node OwnNode(uint32_t address, pid_t pid) {
    const uint32_t p = static_cast<uint32_t>(pid);
    return {0x02, static_cast<uint8_t>(address), static_cast<uint8_t>(p >> 24), static_cast<uint8_t>(p >> 16),
            static_cast<uint8_t>(p >> 8), static_cast<uint8_t>(p)};
}

// The address this host broadcasts from: the source that a datagram socket
// connected to the limited broadcast address gets (nothing is sent).
uint32_t BroadcastSource() {
    uint32_t address = INADDR_LOOPBACK;
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int on = 1;
    sockaddr_in to{}, me{};
    socklen_t size = sizeof me;
    to.sin_family = AF_INET;
    to.sin_port = htons(kvtnb::kDatagramPort);
    to.sin_addr.s_addr = htonl(INADDR_BROADCAST);
    if (fd >= 0 && setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) == 0 &&
        connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr *>(&me), &size) == 0 && me.sin_addr.s_addr != 0)
        address = ntohl(me.sin_addr.s_addr);
    if (fd >= 0) close(fd);
    return address;
}

void SetLanasLocked(NetbiosState &nb, const std::vector<kvthost::NetbiosLana> &given) {
    nb.hostAddress = BroadcastSource();
    nb.lanas.clear();
    std::vector<kvthost::NetbiosLana> list = given;
    if (list.empty()) list.push_back(kvthost::NetbiosLana{});
    for (const auto &g : list) {
        Lana lana;
        lana.number = g.number;
        lana.address = g.address ? *g.address : OwnNode(nb.hostAddress, nb.pid);
        lana.leadsNowhere = g.leadsNowhere;
        nb.lanas.push_back(std::move(lana));
    }
    nb.lanasSet = true;
}

Lana *FindLana(NetbiosState &nb, UCHAR number) {
    if (!nb.lanasSet) SetLanasLocked(nb, {});
    for (auto &lana : nb.lanas)
        if (lana.number == number) return &lana;
    return nullptr;
}

HeldName *FindName(Lana &lana, UCHAR number) {
    for (auto &held : lana.names)
        if (held.number == number) return &held;
    return nullptr;
}

bool SameName(const UCHAR *a, const Name &b) { return std::memcmp(a, b.data(), b.size()) == 0; }

Name NameOf(const UCHAR *bytes) {
    Name name;
    std::memcpy(name.data(), bytes, name.size());
    return name;
}

// Ends a pending receive with code; the code goes in last.
void Complete(NetbiosState &nb, const Receive &r, UCHAR code) {
    __atomic_store_n(&r.ncb->ncb_cmd_cplt, code, __ATOMIC_RELEASE);
    __atomic_store_n(&r.ncb->ncb_retcode, code, __ATOMIC_RELEASE);
    nb.completed.notify_all();
}

// Ends every pending receive of the LANA for which drop holds.
template <typename Predicate>
void EndReceives(NetbiosState &nb, Lana &lana, UCHAR code, Predicate drop) {
    std::vector<Receive> kept;
    for (const Receive &r : lana.receives) {
        if (drop(r)) Complete(nb, r, code);
        else kept.push_back(r);
    }
    lana.receives.swap(kept);
}

// A datagram from the network: the oldest pending receive of its destination
// name takes it, on every LANA that leads somewhere and holds the name.
void Deliver(NetbiosState &nb, const kvtnb::Datagram &d) {
    std::lock_guard<std::mutex> guard(nb.lock);
    if (std::find(nb.heard.begin(), nb.heard.end(), d.source) == nb.heard.end()) {
        if (nb.heard.size() == kMaxHeardNames) nb.heard.erase(nb.heard.begin());
        nb.heard.push_back(d.source);
    }
    for (Lana &lana : nb.lanas) {
        if (lana.leadsNowhere || !lana.reset) continue;
        auto held = std::find_if(lana.names.begin(), lana.names.end(),
                                 [&](const HeldName &h) { return h.name == d.destination; });
        if (held == lana.names.end()) continue;
        auto it = std::find_if(lana.receives.begin(), lana.receives.end(),
                               [&](const Receive &r) { return r.num == held->number; });
        if (it == lana.receives.end()) continue;
        Receive r = *it;
        lana.receives.erase(it);
        const size_t n = std::min<size_t>(d.data.size(), r.length);
        if (n > 0) std::memcpy(r.buffer, d.data.data(), n);
        r.ncb->ncb_length = static_cast<WORD>(n);
        std::memcpy(r.ncb->ncb_callname, d.source.data(), NCBNAMSZ);
        Complete(nb, r, n < d.data.size() ? NRC_INCOMP : NRC_GOODRET);
    }
}

void ReadLoop(NetbiosState *nb, int fd) {
    std::vector<uint8_t> packet(65536);
    for (;;) {
        ssize_t n = recv(fd, packet.data(), packet.size(), 0);
        if (n < 0 && errno != EINTR) {
            pollfd p{fd, POLLIN, 0};
            poll(&p, 1, 100);  // an ICMP error reported, or a shortage: go on reading
            continue;
        }
        kvtnb::Datagram d;
        if (n > 0 && kvtnb::DecodeDatagram(packet.data(), static_cast<size_t>(n), &d)) Deliver(*nb, d);
    }
}

// A registration of a name that this process holds, from another station:
// the negative response goes back to the asker, as the holder defends a
// unique name.  Every name of the platform is unique.
void DefendLoop(NetbiosState *nb, int fd) {
    std::vector<uint8_t> packet(1024);
    for (;;) {
        sockaddr_in from{};
        socklen_t size = sizeof from;
        ssize_t n = recvfrom(fd, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr *>(&from), &size);
        kvtnb::Registration r;
        if (n <= 0 || !kvtnb::DecodeRegistration(packet.data(), static_cast<size_t>(n), &r) || r.response) continue;
        bool held = false;
        {
            std::lock_guard<std::mutex> guard(nb->lock);
            for (const Lana &lana : nb->lanas)
                for (const HeldName &h : lana.names) held = held || (!lana.leadsNowhere && h.name == r.name);
            r.address = nb->hostAddress;
        }
        if (!held) continue;
        r.response = true;
        const std::string answer = kvtnb::EncodeRegistration(r);
        sendto(fd, answer.data(), answer.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr *>(&from), sizeof from);
    }
}

// A datagram socket on port (any port: 0), which may broadcast; -1 on failure.
int OpenUdp(uint16_t port) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int on = 1;
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_port = htons(port);
    any.sin_addr.s_addr = htonl(INADDR_ANY);
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on) != 0 ||
        setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0 ||
        bind(fd, reinterpret_cast<sockaddr *>(&any), sizeof any) != 0) {
        if (fd >= 0) close(fd);
        return -1;
    }
    return fd;
}

// The process's sockets and their reading threads, made at the first reset:
// datagrams on port 138; registrations on 137, where a host that lets no one
// else use it leaves the names undefended.
bool OpenSocketLocked(NetbiosState &nb) {
    if (nb.fd >= 0) return true;
    int fd = OpenUdp(kvtnb::kDatagramPort);
    if (fd < 0) return false;
    nb.fd = fd;
    std::thread(ReadLoop, &nb, fd).detach();
    nb.nameFd = OpenUdp(kvtnb::kNamePort);
    if (nb.nameFd >= 0) std::thread(DefendLoop, &nb, nb.nameFd).detach();
    return true;
}

// Whether another station holds the unique name that this process is about to
// add: one registration broadcast, and a negative response within
// kRegistrationWaitMs (of the monitor's time) says so.  Not locked.
bool HeldElsewhere(const kvtnb::Name &name, uint16_t id, uint32_t address) {
    int fd = OpenUdp(0);
    if (fd < 0) return false;
    kvtnb::Registration r;
    r.id = id, r.name = name, r.address = address;
    const std::string request = kvtnb::EncodeRegistration(r);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(kvtnb::kNamePort);
    to.sin_addr.s_addr = htonl(INADDR_BROADCAST);
    bool held = false;
    if (sendto(fd, request.data(), request.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr *>(&to), sizeof to) ==
        static_cast<ssize_t>(request.size())) {
        const int64_t end = KvtRealNowNs() + KvtScaledWaitNs(kRegistrationWaitMs * 1000000LL);
        std::vector<uint8_t> packet(1024);
        for (int64_t left; !held && (left = end - KvtRealNowNs()) > 0;) {
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, static_cast<int>((left + 999999) / 1000000)) != 1) continue;
            ssize_t n = recv(fd, packet.data(), packet.size(), 0);
            kvtnb::Registration answer;
            held = n > 0 && kvtnb::DecodeRegistration(packet.data(), static_cast<size_t>(n), &answer) &&
                   answer.response && answer.id == id && answer.name == name;
        }
    }
    close(fd);
    return held;
}

// NCBADDNAME of a name that this process holds on no LANA, on one that leads
// somewhere: NRC_INUSE when another station defends it, else NRC_GOODRET and
// the command goes on.  The lock is not held over the wait.
UCHAR Register(NetbiosState &nb, const NCB *ncb) {
    kvtnb::Name name;
    uint16_t id;
    uint32_t address;
    {
        std::lock_guard<std::mutex> guard(nb.lock);
        Lana *lana = FindLana(nb, ncb->ncb_lana_num);
        if (lana == nullptr || !lana->reset || lana->leadsNowhere || nb.nameFd < 0 || ncb->ncb_name[0] == 0 ||
            ncb->ncb_name[0] == '*')
            return NRC_GOODRET;
        name = NameOf(ncb->ncb_name);
        // This process's own on some LANA: no one else may hold it, and this
        // process would answer its own request (on this LANA NRC_DUPNAME follows).
        for (const Lana &any : nb.lanas)
            for (const HeldName &held : any.names)
                if (held.name == name) return NRC_GOODRET;
        id = nb.nextId++, address = nb.hostAddress;
    }
    return HeldElsewhere(name, id, address) ? NRC_INUSE : NRC_GOODRET;
}

UCHAR Enumerate(NetbiosState &nb, NCB *ncb) {
    if (!nb.lanasSet) SetLanasLocked(nb, {});
    if (ncb->ncb_buffer == nullptr || ncb->ncb_length < 1 + nb.lanas.size()) return NRC_BUFLEN;
    ncb->ncb_buffer[0] = static_cast<UCHAR>(nb.lanas.size());
    for (size_t i = 0; i < nb.lanas.size(); ++i) ncb->ncb_buffer[1 + i] = nb.lanas[i].number;
    return NRC_GOODRET;
}

// The name's number is no longer held.
void GiveUp(Lana &lana, UCHAR number) {
    for (Numbered &n : lana.numbered)
        if (n.number == number) n.givenUp = ++lana.givenUp;
}

// Names and pending commands of this process on the LANA are gone; an old
// number stays unknown until its own name is added again.
UCHAR Reset(NetbiosState &nb, Lana &lana) {
    if (!lana.leadsNowhere && !OpenSocketLocked(nb)) return NRC_SYSTEM;
    EndReceives(nb, lana, NRC_CMDCAN, [](const Receive &) { return true; });
    for (const HeldName &held : lana.names) GiveUp(lana, held.number);
    lana.names.clear();
    lana.reset = true;
    return NRC_GOODRET;
}

// The local adapter's status only ("*"); the platform asks no other station.
UCHAR AdapterStatus(Lana &lana, NCB *ncb) {
    if (ncb->ncb_callname[0] != '*') return NRC_ILLCMD;
    if (ncb->ncb_buffer == nullptr || ncb->ncb_length < sizeof(ADAPTER_STATUS)) return NRC_BUFLEN;
    ADAPTER_STATUS status{};
    std::memcpy(status.adapter_address, lana.address.data(), 6);
    status.rev_major = 3;
    status.adapter_type = 0xFE;  // Ethernet
    status.max_dgram_size = static_cast<WORD>(std::min<size_t>(kvtnb::kMaxDatagramData, 0xFFFF));
    status.name_count = static_cast<WORD>(lana.names.size());
    std::vector<UCHAR> out(sizeof status);
    std::memcpy(out.data(), &status, sizeof status);
    for (const HeldName &held : lana.names) {
        NAME_BUFFER entry{};
        std::memcpy(entry.name, held.name.data(), NCBNAMSZ);
        entry.name_num = held.number;
        entry.name_flags = UNIQUE_NAME | REGISTERED;
        const UCHAR *bytes = reinterpret_cast<const UCHAR *>(&entry);
        out.insert(out.end(), bytes, bytes + sizeof entry);
    }
    const size_t n = std::min<size_t>(out.size(), ncb->ncb_length);
    std::memcpy(ncb->ncb_buffer, out.data(), n);
    ncb->ncb_length = static_cast<WORD>(n);
    return n < out.size() ? NRC_INCOMP : NRC_GOODRET;
}

UCHAR AddName(Lana &lana, NCB *ncb) {
    if (ncb->ncb_name[0] == 0 || ncb->ncb_name[0] == '*') return NRC_NOWILD;
    for (const HeldName &held : lana.names)
        if (SameName(ncb->ncb_name, held.name)) return NRC_DUPNAME;
    if (lana.names.size() >= kMaxNames) return NRC_NAMTFUL;
    const Name name = NameOf(ncb->ncb_name);
    auto own = std::find_if(lana.numbered.begin(), lana.numbered.end(), [&](const Numbered &n) { return n.name == name; });
    if (own == lana.numbered.end() && lana.numbered.size() < kMaxNames) {
        lana.numbered.push_back({name, static_cast<UCHAR>(kFirstNameNumber + lana.numbered.size()), 0});
        own = lana.numbered.end() - 1;
    } else if (own == lana.numbered.end()) {  // every number has had a name: the one given up longest ago
        for (auto n = lana.numbered.begin(); n != lana.numbered.end(); ++n)
            if (FindName(lana, n->number) == nullptr && (own == lana.numbered.end() || n->givenUp < own->givenUp))
                own = n;
        own->name = name;
    }
    const UCHAR number = own->number;
    lana.names.push_back({name, number});
    ncb->ncb_num = number;
    return NRC_GOODRET;
}

// The receives still pending for the name end with NRC_NAMERR.
UCHAR DeleteName(NetbiosState &nb, Lana &lana, NCB *ncb) {
    auto it = std::find_if(lana.names.begin(), lana.names.end(),
                           [&](const HeldName &h) { return SameName(ncb->ncb_name, h.name); });
    if (it == lana.names.end()) return NRC_NOWILD;
    const UCHAR number = it->number;
    lana.names.erase(it);
    GiveUp(lana, number);
    EndReceives(nb, lana, NRC_NAMERR, [&](const Receive &r) { return r.num == number; });
    return NRC_GOODRET;
}

// A name heard as a datagram's source is one station's own: the datagram
// goes to it as direct unique.  Any other name may be a group's, and without
// a name service the platform can't tell: direct group.
UCHAR SendDatagram(NetbiosState &nb, Lana &lana, NCB *ncb) {
    HeldName *from = FindName(lana, ncb->ncb_num);
    if (from == nullptr) return NRC_ILLNN;
    if (ncb->ncb_length > kvtnb::kMaxDatagramData || (ncb->ncb_length > 0 && ncb->ncb_buffer == nullptr))
        return NRC_BUFLEN;
    if (lana.leadsNowhere) return NRC_GOODRET;
    kvtnb::Datagram d;
    d.destination = NameOf(ncb->ncb_callname);
    const bool unique = std::find(nb.heard.begin(), nb.heard.end(), d.destination) != nb.heard.end();
    d.type = unique ? kvtnb::DatagramType::DirectUnique : kvtnb::DatagramType::DirectGroup;
    d.id = nb.nextId++;
    d.sourceIp = nb.hostAddress;
    d.source = from->name;
    d.data.assign(reinterpret_cast<const char *>(ncb->ncb_buffer), ncb->ncb_length);
    const std::string packet = kvtnb::EncodeDatagram(d);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(kvtnb::kDatagramPort);
    to.sin_addr.s_addr = htonl(INADDR_BROADCAST);
    if (sendto(nb.fd, packet.data(), packet.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr *>(&to), sizeof to) !=
        static_cast<ssize_t>(packet.size()))
        return NRC_SYSTEM;
    return NRC_GOODRET;
}

bool Pending(const NetbiosState &nb, const NCB *ncb) {
    for (const Lana &lana : nb.lanas)
        for (const Receive &r : lana.receives)
            if (r.ncb == ncb) return true;
    return false;
}

// Queues the receive; NRC_PENDING when it is pending.
UCHAR SubmitReceive(Lana &lana, NCB *ncb) {
    if (FindName(lana, ncb->ncb_num) == nullptr) return NRC_ILLNN;
    if (ncb->ncb_length > 0 && ncb->ncb_buffer == nullptr) return NRC_BUFLEN;
    ncb->ncb_cmd_cplt = NRC_PENDING;
    __atomic_store_n(&ncb->ncb_retcode, NRC_PENDING, __ATOMIC_RELEASE);
    lana.receives.push_back({ncb, ncb->ncb_num, ncb->ncb_buffer, ncb->ncb_length});
    return NRC_PENDING;
}

UCHAR Cancel(NetbiosState &nb, Lana &lana, NCB *ncb) {
    if (ncb->ncb_buffer == nullptr) return NRC_BUFLEN;
    const NCB *target = reinterpret_cast<const NCB *>(ncb->ncb_buffer);
    bool found = false;
    EndReceives(nb, lana, NRC_CMDCAN, [&](const Receive &r) {
        found = found || r.ncb == target;
        return r.ncb == target;
    });
    return found ? NRC_GOODRET : NRC_CANOCCR;
}

// Carries out one command under the lock.
UCHAR Run(NetbiosState &nb, NCB *ncb) {
    const UCHAR command = ncb->ncb_command & ~ASYNCH;
    if (command == NCBENUM) return Enumerate(nb, ncb);
    Lana *lana = FindLana(nb, ncb->ncb_lana_num);
    if (lana == nullptr) return NRC_BRIDGE;
    if (command == NCBRESET) return Reset(nb, *lana);
    if (!lana->reset) return NRC_ENVNOTDEF;
    switch (command) {
    case NCBASTAT: return AdapterStatus(*lana, ncb);
    case NCBADDNAME: return AddName(*lana, ncb);
    case NCBDELNAME: return DeleteName(nb, *lana, ncb);
    case NCBDGSEND: return SendDatagram(nb, *lana, ncb);
    case NCBDGRECV: return SubmitReceive(*lana, ncb);
    case NCBCANCEL: return Cancel(nb, *lana, ncb);
    default: return NRC_ILLCMD;
    }
}

void Record(NetbiosState &nb, const NCB *ncb, UCHAR result) {
    if (!nb.recording) return;
    kvthost::NetbiosCall call;
    call.command = ncb->ncb_command;
    call.lana = ncb->ncb_lana_num;
    call.num = ncb->ncb_num;
    call.callname = NameOf(ncb->ncb_callname);
    call.name = NameOf(ncb->ncb_name);
    if ((ncb->ncb_command & ~ASYNCH) == NCBDGSEND && ncb->ncb_buffer != nullptr)
        call.data.assign(reinterpret_cast<const char *>(ncb->ncb_buffer), ncb->ncb_length);
    call.result = result;
    nb.calls.push_back(std::move(call));
}

}  // namespace

namespace kvthost {

void SetNetbiosLanas(const std::vector<NetbiosLana> &lanas) {
    NetbiosState &nb = State();
    std::lock_guard<std::mutex> guard(nb.lock);
    SetLanasLocked(nb, lanas);
    nb.heard.clear();
}

kvtnb::Node NetbiosAdapterAddress() { return OwnNode(BroadcastSource(), getpid()); }

size_t NetbiosPendingReceives() {
    NetbiosState &nb = State();
    std::lock_guard<std::mutex> guard(nb.lock);
    size_t pending = 0;
    for (const Lana &lana : nb.lanas) pending += lana.receives.size();
    return pending;
}

void RecordNetbiosCalls(bool on) {
    NetbiosState &nb = State();
    std::lock_guard<std::mutex> guard(nb.lock);
    nb.recording = on;
    nb.calls.clear();
}

std::vector<NetbiosCall> NetbiosCalls() {
    NetbiosState &nb = State();
    std::lock_guard<std::mutex> guard(nb.lock);
    return nb.calls;
}

void SetNetbiosHook(NetbiosHook hook) {
    NetbiosState &nb = State();
    std::lock_guard<std::mutex> guard(nb.lock);
    nb.hook = std::move(hook);
}

}  // namespace kvthost

extern "C" UCHAR WINAPI Netbios(PNCB ncb) {
    if (ncb == nullptr) return NRC_INVADDRESS;
    NetbiosState &nb = State();
    kvthost::NetbiosHook hook;
    {
        std::lock_guard<std::mutex> guard(nb.lock);
        hook = nb.hook;
    }
    // The hook runs outside the lock: it may send, or wait for a delivery.
    UCHAR result = hook ? hook(*ncb) : NRC_GOODRET;
    if (result == NRC_GOODRET && (ncb->ncb_command & ~ASYNCH) == NCBADDNAME) result = Register(nb, ncb);
    std::unique_lock<std::mutex> guard(nb.lock);
    // A block still pending is the platform's: it is refused, and nothing of
    // it is written, so its receive ends as it would have.
    if (Pending(nb, ncb)) return NRC_ILLCMD;
    if (result == NRC_GOODRET) result = Run(nb, ncb);
    Record(nb, ncb, result);
    if (result == NRC_PENDING) {
        if (ncb->ncb_command & ASYNCH) return NRC_GOODRET;
        // Without the no-wait bit the caller waits for the datagram or a cancel.
        nb.completed.wait(guard, [&] { return ncb->ncb_retcode != NRC_PENDING; });
        return ncb->ncb_retcode;
    }
    ncb->ncb_cmd_cplt = result;
    ncb->ncb_retcode = result;
    return result;
}
