// Winsock for POSIX hosts, as the monitor sees it on Windows: SOCKET handles,
// Winsock's fd_set and select, Winsock error numbers in the thread's last
// error, WSAStartup before anything else.  The sockets themselves are the
// system's, reached through posix_net (this unit includes no socket header of
// the system: the Winsock names declared by <winsock2.h> are bound to kvt_ws_*
// symbols, so defining them here defines those).
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "clock_internal.h"
#include "ipx_internal.h"
#include "kvthost.h"
#include "posix_net.h"

#include <winsock2.h>
#include <wsipx.h>

namespace {

// Recv/send flags of Winsock that the header does not name.
constexpr int kWsMsgOob = 0x1;
constexpr int kWsMsgDontRoute = 0x4;
constexpr int kWsMsgWaitAll = 0x8;

// ---- handles --------------------------------------------------------------------
// A SOCKET is kHandleBase + 4 * fd: a multiple of four, as Windows' handles
// are, and never 0 or INVALID_SOCKET.  Only sockets made by socket() are known;
// any other value is WSAENOTSOCK.
constexpr SOCKET kHandleBase = 0x100;

SOCKET HandleOf(int fd) { return kHandleBase + 4 * static_cast<SOCKET>(fd); }

bool FdOf(SOCKET s, int *fd) {
    if (s < kHandleBase || ((s - kHandleBase) & 3) != 0) return false;
    SOCKET index = (s - kHandleBase) / 4;
    if (index > 0x7fffffff) return false;
    *fd = static_cast<int>(index);
    return true;
}

// Where a connection attempt stands.  Windows reports a non-blocking connect
// that failed in select's exception set, and one that succeeded in the write
// set; Linux reports both as writable, so the result is read (SO_ERROR) as soon
// as poll sees the attempt end, and kept here.
enum class Phase { Idle, UnderWay, Failed, Connected };

struct SockState {
    uint64_t serial = 0;  // tells a socket from a later one on the same fd
    int family = AF_INET;
    bool stream = true;
    bool nonBlocking = false;
    bool bound = false;
    bool reset = false;  // a reset was reported: later receives report it again
    Phase phase = Phase::Idle;
    int connectError = 0;  // Winsock number of the failed attempt, for SO_ERROR
    int sndBuf = -1;       // buffer sizes as set (Linux reports them doubled)
    int rcvBuf = -1;
};

struct Table {
    std::mutex lock;
    std::unordered_map<int, SockState> sockets;
    uint64_t nextSerial = 1;
    int startups = 0;
    std::string computerName;
};

Table &Sockets() {
    static Table *table = new Table;  // never destroyed: used until the process ends
    return *table;
}

bool Started() {
    Table &t = Sockets();
    std::lock_guard<std::mutex> guard(t.lock);
    return t.startups > 0;
}

int Fail(int error) {
    WSASetLastError(error);
    return SOCKET_ERROR;
}

// The socket behind s, copied.  Fails with the Winsock error to report.
int Find(SOCKET s, int *fd, SockState *state) {
    Table &t = Sockets();
    std::lock_guard<std::mutex> guard(t.lock);
    if (t.startups == 0) return WSANOTINITIALISED;
    if (!FdOf(s, fd)) return WSAENOTSOCK;
    auto it = t.sockets.find(*fd);
    if (it == t.sockets.end()) return WSAENOTSOCK;
    *state = it->second;
    return 0;
}

// Changes the socket's state if it is still the same socket.
template <typename F>
bool Update(int fd, uint64_t serial, F change) {
    Table &t = Sockets();
    std::lock_guard<std::mutex> guard(t.lock);
    auto it = t.sockets.find(fd);
    if (it == t.sockets.end() || it->second.serial != serial) return false;
    change(it->second);
    return true;
}

bool StillOpen(int fd, uint64_t serial) {
    return Update(fd, serial, [](SockState &) {});
}

// ---- errors -----------------------------------------------------------------------
int WsaError(int negErrno) {
    switch (-negErrno) {
    case EINTR: return WSAEINTR;
    case EBADF: return WSAENOTSOCK;
    case EACCES:
    case EPERM: return WSAEACCES;
    case EFAULT: return WSAEFAULT;
    case EINVAL: return WSAEINVAL;
    case EMFILE:
    case ENFILE: return WSAEMFILE;
    case EAGAIN:
    case EINPROGRESS: return WSAEWOULDBLOCK;
    case EALREADY: return WSAEALREADY;
    case ENOTSOCK: return WSAENOTSOCK;
    case EDESTADDRREQ: return WSAEDESTADDRREQ;
    case EMSGSIZE: return WSAEMSGSIZE;
    case EPROTOTYPE: return WSAEPROTOTYPE;
    case ENOPROTOOPT: return WSAENOPROTOOPT;
    case EPROTONOSUPPORT: return WSAEPROTONOSUPPORT;
    case ESOCKTNOSUPPORT: return WSAESOCKTNOSUPPORT;
    case EOPNOTSUPP: return WSAEOPNOTSUPP;
    case EPFNOSUPPORT: return WSAEPFNOSUPPORT;
    case EAFNOSUPPORT: return WSAEAFNOSUPPORT;
    case EADDRINUSE: return WSAEADDRINUSE;
    case EADDRNOTAVAIL: return WSAEADDRNOTAVAIL;
    case ENETDOWN: return WSAENETDOWN;
    case ENETUNREACH: return WSAENETUNREACH;
    case ENETRESET: return WSAENETRESET;
    case ECONNABORTED: return WSAECONNABORTED;
    case ECONNRESET:
    case EPIPE: return WSAECONNRESET;  // Linux's EPIPE: the connection is gone
    case ENOBUFS:
    case ENOMEM: return WSAENOBUFS;
    case EISCONN: return WSAEISCONN;
    case ENOTCONN: return WSAENOTCONN;
    case ESHUTDOWN: return WSAESHUTDOWN;
    case ETIMEDOUT: return WSAETIMEDOUT;
    case ECONNREFUSED: return WSAECONNREFUSED;
    case EHOSTDOWN: return WSAEHOSTDOWN;
    case EHOSTUNREACH: return WSAEHOSTUNREACH;
    default: return WSAEINVAL;
    }
}

// ---- addresses --------------------------------------------------------------------
// ToInet's answer for an IPX address that no host of the mapping has: a
// datagram sent there goes out and is lost, as on a network without that node.
constexpr int kNoSuchNode = -1;

// The Internet address a Winsock address stands for on this socket.  An IPX
// socket's addresses go through the mapping of ipx_internal.h.
int ToInet(const SockState &state, const struct sockaddr *name, int namelen, kvtnet::Inet *out) {
    if (name == nullptr) return WSAEFAULT;
    if (state.family == AF_IPX) {
        if (namelen < static_cast<int>(sizeof(SOCKADDR_IPX))) return WSAEFAULT;
        SOCKADDR_IPX ipx;
        std::memcpy(&ipx, name, sizeof ipx);
        if (ipx.sa_family != AF_IPX) return WSAEAFNOSUPPORT;
        switch (kvtipx::ToInet(ipx, out)) {
        case kvtipx::Place::Here: return 0;
        case kvtipx::Place::OtherNetwork: return WSAENETUNREACH;
        case kvtipx::Place::NoSuchNode: return kNoSuchNode;
        }
        return WSAEAFNOSUPPORT;
    }
    if (namelen < static_cast<int>(sizeof(struct sockaddr_in))) return WSAEFAULT;
    const struct sockaddr_in *sin = reinterpret_cast<const struct sockaddr_in *>(name);
    if (sin->sin_family != AF_INET) return WSAEAFNOSUPPORT;
    out->addr = sin->sin_addr.s_addr;
    out->port = sin->sin_port;
    return 0;
}

// Writes a sender's address in the socket's own family.
int FromInet(const SockState &state, const kvtnet::Inet &in, struct sockaddr *name, int *namelen) {
    if (state.family == AF_IPX) {
        SOCKADDR_IPX ipx;
        if (*namelen < static_cast<int>(sizeof ipx)) return WSAEFAULT;
        kvtipx::FromInet(in, &ipx);
        std::memcpy(name, &ipx, sizeof ipx);
        *namelen = sizeof ipx;
        return 0;
    }
    if (*namelen < static_cast<int>(sizeof(struct sockaddr_in))) return WSAEFAULT;
    struct sockaddr_in sin;
    std::memset(&sin, 0, sizeof sin);
    sin.sin_family = AF_INET;
    sin.sin_port = in.port;
    sin.sin_addr.s_addr = in.addr;
    std::memcpy(name, &sin, sizeof sin);
    *namelen = sizeof sin;
    return 0;
}

// Windows refuses the wildcard address and port 0 as a destination; Linux
// would take 0.0.0.0 for the local host.
bool ValidDestination(const kvtnet::Inet &to) { return to.addr != 0 && to.port != 0; }

bool MessageFlags(int flags, bool receiving, unsigned *out) {
    if (flags & ~(kWsMsgOob | MSG_PEEK | kWsMsgDontRoute | (receiving ? kWsMsgWaitAll : 0)))
        return false;
    *out = ((flags & kWsMsgOob) ? kvtnet::kMsgOob : 0) | ((flags & MSG_PEEK) ? kvtnet::kMsgPeek : 0) |
           ((flags & kWsMsgDontRoute) ? kvtnet::kMsgDontRoute : 0) |
           ((flags & kWsMsgWaitAll) ? kvtnet::kMsgWaitAll : 0);
    return true;
}

// ---- connection attempts -------------------------------------------------------------
// Reads the end of a connection attempt that poll reported (or that a call
// needs to know about now) into the socket's phase.
Phase SettleConnect(int fd, uint64_t serial, unsigned revents) {
    Phase phase = Phase::UnderWay;
    int connectError = 0;
    if (revents & (kvtnet::kPollOut | kvtnet::kPollErr | kvtnet::kPollHup)) {
        int error = 0;
        int r = kvtnet::GetOption(fd, kvtnet::Option::Error, &error);
        if (r < 0) error = -r;
        if (error != 0) {
            phase = Phase::Failed;
            connectError = WsaError(-error);
        } else {
            phase = Phase::Connected;
        }
    }
    Update(fd, serial, [&](SockState &s) {
        if (s.phase != Phase::UnderWay) return;
        s.phase = phase;
        s.connectError = connectError;
    });
    return phase;
}

Phase CheckConnect(int fd, const SockState &state) {
    if (state.phase != Phase::UnderWay) return state.phase;
    kvtnet::PollItem item{fd, kvtnet::kPollOut, 0};
    if (kvtnet::Poll(&item, 1, 0) < 0) return Phase::UnderWay;
    return SettleConnect(fd, state.serial, item.revents);
}

// ---- host names -------------------------------------------------------------------------
std::string ComputerName() {
    {
        Table &t = Sockets();
        std::lock_guard<std::mutex> guard(t.lock);
        if (!t.computerName.empty()) return t.computerName;
    }
    std::string name;
    if (kvtnet::SystemHostName(&name) < 0) name = "localhost";
    return name;
}

bool SameName(const std::string &a, const std::string &b) {
    auto lower = [](char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; };
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (lower(a[i]) != lower(b[i])) return false;
    return true;
}

// Dotted Internet address text, as inet_addr reads it: a, a.b, a.b.c or
// a.b.c.d, each part decimal, octal (leading 0) or hexadecimal (0x).
bool ParseDotted(const char *text, uint32_t *networkOrder) {
    uint32_t parts[4];
    int count = 0;
    const char *p = text;
    for (;;) {
        if (count == 4) return false;
        int base = 10;
        if (*p == '0') {
            base = 8;
            if (p[1] == 'x' || p[1] == 'X') {
                base = 16;
                p += 2;
            }
        }
        uint64_t value = 0;
        const char *start = p;
        for (;; ++p) {
            int digit;
            if (*p >= '0' && *p <= '9') digit = *p - '0';
            else if (base == 16 && *p >= 'a' && *p <= 'f') digit = *p - 'a' + 10;
            else if (base == 16 && *p >= 'A' && *p <= 'F') digit = *p - 'A' + 10;
            else break;
            if (digit >= base) return false;
            value = value * base + digit;
            if (value > 0xffffffffu) return false;
        }
        if (p == start && base != 8) return false;  // "0" alone is a valid octal zero
        parts[count++] = static_cast<uint32_t>(value);
        if (*p == '.') {
            ++p;
            continue;
        }
        break;
    }
    while (*p == ' ' || *p == '\t') ++p;
    if (*p != '\0') return false;
    uint32_t host;
    switch (count) {
    case 1: host = parts[0]; break;
    case 2:
        if (parts[0] > 0xff || parts[1] > 0xffffff) return false;
        host = parts[0] << 24 | parts[1];
        break;
    case 3:
        if (parts[0] > 0xff || parts[1] > 0xff || parts[2] > 0xffff) return false;
        host = parts[0] << 24 | parts[1] << 16 | parts[2];
        break;
    default:
        for (int i = 0; i < 4; ++i)
            if (parts[i] > 0xff) return false;
        host = parts[0] << 24 | parts[1] << 16 | parts[2] << 8 | parts[3];
        break;
    }
    *networkOrder = htonl(host);
    return true;
}

// The hostent that gethostbyname returns: one per thread, valid until the
// thread's next call, as Winsock's.
struct HostEntry {
    struct hostent entry;
    std::string name;
    std::vector<uint32_t> addresses;
    std::vector<char *> addressList;
    char *noAliases[1] = {nullptr};

    struct hostent *Fill(const std::string &hostName, const std::vector<uint32_t> &list) {
        name = hostName;
        addresses = list;
        addressList.clear();
        for (uint32_t &a : addresses) addressList.push_back(reinterpret_cast<char *>(&a));
        addressList.push_back(nullptr);
        entry.h_name = name.data();
        entry.h_aliases = noAliases;
        entry.h_addrtype = AF_INET;
        entry.h_length = 4;
        entry.h_addr_list = addressList.data();
        return &entry;
    }
};

// Sockets bigger than an fd_set can't be in a select; the poll list holds
// every distinct socket of the three sets.
constexpr size_t kMaxSelect = 3 * FD_SETSIZE;

}  // namespace

namespace kvthost {

void SetComputerName(const std::string &name) {
    Table &t = Sockets();
    std::lock_guard<std::mutex> guard(t.lock);
    t.computerName = name;
}

}  // namespace kvthost

extern "C" {

// ---- start-up and errors ---------------------------------------------------------------
int WINAPI WSAStartup(WORD wVersionRequested, LPWSADATA lpWSAData) {
    BYTE major = wVersionRequested & 0xff;
    BYTE minor = wVersionRequested >> 8;
    if (major < 1) return WSAVERNOTSUPPORTED;
    if (lpWSAData == nullptr) return WSAEFAULT;
    WORD version = (major > 2 || (major == 2 && minor > 2)) ? MAKEWORD(2, 2) : wVersionRequested;
    std::memset(lpWSAData, 0, sizeof *lpWSAData);
    lpWSAData->wVersion = version;
    lpWSAData->wHighVersion = MAKEWORD(2, 2);
    if (major == 1) {  // the limits that Winsock 1.1 callers read
        lpWSAData->iMaxSockets = 32767;
        lpWSAData->iMaxUdpDg = 65467;
    }
    std::strcpy(lpWSAData->szDescription, "WinSock 2.0");
    std::strcpy(lpWSAData->szSystemStatus, "Running");
    Table &t = Sockets();
    std::lock_guard<std::mutex> guard(t.lock);
    ++t.startups;
    return 0;
}

int WINAPI WSACleanup(void) {
    std::vector<int> orphans;
    {
        Table &t = Sockets();
        std::lock_guard<std::mutex> guard(t.lock);
        if (t.startups == 0) return Fail(WSANOTINITIALISED);
        if (--t.startups == 0) {
            // The last cleanup closes the sockets still open, as Windows does.
            for (auto &entry : t.sockets) orphans.push_back(entry.first);
            t.sockets.clear();
        }
    }
    for (int fd : orphans) kvtnet::Close(fd);
    return 0;
}

// The thread's last error is the one GetLastError reports.
int WINAPI WSAGetLastError(void) { return static_cast<int>(GetLastError()); }

void WINAPI WSASetLastError(int iError) { SetLastError(static_cast<DWORD>(iError)); }

// ---- fd_set --------------------------------------------------------------------------------
int WINAPI __WSAFDIsSet(SOCKET fd, fd_set *set) {
    for (u_int i = 0; i < set->fd_count && i < FD_SETSIZE; ++i)
        if (set->fd_array[i] == fd) return 1;
    return 0;
}

void kvt_ws_fd_set_add(SOCKET fd, fd_set *set) {
    if (__WSAFDIsSet(fd, set) || set->fd_count >= FD_SETSIZE) return;
    set->fd_array[set->fd_count++] = fd;
}

void kvt_ws_fd_clr(SOCKET fd, fd_set *set) {
    for (u_int i = 0; i < set->fd_count && i < FD_SETSIZE; ++i) {
        if (set->fd_array[i] != fd) continue;
        for (u_int j = i + 1; j < set->fd_count; ++j) set->fd_array[j - 1] = set->fd_array[j];
        --set->fd_count;
        return;
    }
}

// ---- sockets --------------------------------------------------------------------------------
SOCKET WINAPI socket(int af, int type, int protocol) {
    if (!Started()) {
        WSASetLastError(WSANOTINITIALISED);
        return INVALID_SOCKET;
    }
    bool stream;
    if (af == AF_IPX) {
        // IPX datagrams (protocol NSPROTO_IPX plus the packet type) ride on
        // UDP, where nothing reports an unreachable port: IPX has no such
        // report.  SPX is not offered.
        if (type != SOCK_DGRAM) {
            WSASetLastError(WSAESOCKTNOSUPPORT);
            return INVALID_SOCKET;
        }
        if (protocol < NSPROTO_IPX || protocol > NSPROTO_IPX + 255) {
            WSASetLastError(WSAEPROTONOSUPPORT);
            return INVALID_SOCKET;
        }
        stream = false;
    } else if (af != AF_INET) {
        WSASetLastError(WSAEAFNOSUPPORT);
        return INVALID_SOCKET;
    } else if (type == SOCK_STREAM && (protocol == 0 || protocol == IPPROTO_TCP)) {
        stream = true;
    } else if (type == SOCK_DGRAM && (protocol == 0 || protocol == IPPROTO_UDP)) {
        stream = false;
    } else {
        WSASetLastError((type == SOCK_STREAM || type == SOCK_DGRAM) ? WSAEPROTONOSUPPORT
                                                                    : WSAESOCKTNOSUPPORT);
        return INVALID_SOCKET;
    }
    int fd = kvtnet::OpenInet(stream, af == AF_IPX ? 0 : protocol, af != AF_IPX);
    if (fd < 0) {
        WSASetLastError(WsaError(fd));
        return INVALID_SOCKET;
    }
    Table &t = Sockets();
    std::lock_guard<std::mutex> guard(t.lock);
    SockState state;
    state.serial = t.nextSerial++;
    state.family = af;
    state.stream = stream;
    t.sockets[fd] = state;
    return HandleOf(fd);
}

int WINAPI closesocket(SOCKET s) {
    int fd;
    {
        Table &t = Sockets();
        std::lock_guard<std::mutex> guard(t.lock);
        if (t.startups == 0) return Fail(WSANOTINITIALISED);
        if (!FdOf(s, &fd) || t.sockets.erase(fd) == 0) return Fail(WSAENOTSOCK);
    }
    int r = kvtnet::Close(fd);
    return r < 0 ? Fail(WsaError(r)) : 0;
}

int WINAPI ioctlsocket(SOCKET s, long cmd, u_long *argp) {
    int fd;
    SockState state;
    if (int e = Find(s, &fd, &state)) return Fail(e);
    if (argp == nullptr) return Fail(WSAEFAULT);
    if (cmd == FIONBIO) {
        bool on = *argp != 0;
        int r = kvtnet::SetNonBlocking(fd, on);
        if (r < 0) return Fail(WsaError(r));
        Update(fd, state.serial, [&](SockState &st) { st.nonBlocking = on; });
        return 0;
    }
    if (cmd == FIONREAD) {
        int n = kvtnet::BytesReadable(fd);
        if (n == -EINVAL) n = 0;  // not connected: nothing to read
        if (n < 0) return Fail(WsaError(n));
        *argp = static_cast<u_long>(n);
        return 0;
    }
    return Fail(WSAEINVAL);
}

int WINAPI setsockopt(SOCKET s, int level, int optname, const char *optval, int optlen) {
    int fd;
    SockState state;
    if (int e = Find(s, &fd, &state)) return Fail(e);
    kvtnet::Option option;
    bool isBool = true;
    if (level == SOL_SOCKET) {
        switch (optname) {
        case SO_REUSEADDR: option = kvtnet::Option::ReuseAddr; break;
        case SO_BROADCAST: option = kvtnet::Option::Broadcast; break;
        case SO_SNDBUF: option = kvtnet::Option::SndBuf; isBool = false; break;
        case SO_RCVBUF: option = kvtnet::Option::RcvBuf; isBool = false; break;
        default: return Fail(WSAENOPROTOOPT);  // SO_ERROR can only be read
        }
    } else if (level == IPPROTO_TCP) {
        if (optname != TCP_NODELAY) return Fail(WSAENOPROTOOPT);
        if (!state.stream) return Fail(WSAENOPROTOOPT);
        option = kvtnet::Option::TcpNoDelay;
    } else {
        return Fail(WSAEINVAL);
    }
    if (optval == nullptr || optlen <= 0) return Fail(WSAEFAULT);
    int value = 0;
    if (optlen >= static_cast<int>(sizeof(int))) std::memcpy(&value, optval, sizeof value);
    else if (isBool) value = optval[0] != 0;  // Windows takes a one-byte BOOL too
    else return Fail(WSAEFAULT);
    int r = kvtnet::SetOption(fd, option, isBool ? (value != 0) : value);
    if (r < 0) return Fail(WsaError(r));
    if (option == kvtnet::Option::SndBuf || option == kvtnet::Option::RcvBuf) {
        Update(fd, state.serial, [&](SockState &st) {
            (option == kvtnet::Option::SndBuf ? st.sndBuf : st.rcvBuf) = value;
        });
    }
    return 0;
}

int WINAPI getsockopt(SOCKET s, int level, int optname, char *optval, int *optlen) {
    int fd;
    SockState state;
    if (int e = Find(s, &fd, &state)) return Fail(e);
    kvtnet::Option option;
    if (level == SOL_SOCKET) {
        switch (optname) {
        case SO_REUSEADDR: option = kvtnet::Option::ReuseAddr; break;
        case SO_BROADCAST: option = kvtnet::Option::Broadcast; break;
        case SO_SNDBUF: option = kvtnet::Option::SndBuf; break;
        case SO_RCVBUF: option = kvtnet::Option::RcvBuf; break;
        case SO_ERROR: option = kvtnet::Option::Error; break;
        default: return Fail(WSAENOPROTOOPT);
        }
    } else if (level == IPPROTO_TCP) {
        if (optname != TCP_NODELAY || !state.stream) return Fail(WSAENOPROTOOPT);
        option = kvtnet::Option::TcpNoDelay;
    } else {
        return Fail(WSAEINVAL);
    }
    if (optval == nullptr || optlen == nullptr || *optlen < static_cast<int>(sizeof(int)))
        return Fail(WSAEFAULT);
    int value = 0;
    if (option == kvtnet::Option::Error) {
        // A Winsock number, cleared by reading, as on Windows.
        Phase phase = CheckConnect(fd, state);
        bool fromAttempt = false;
        Update(fd, state.serial, [&](SockState &st) {
            if (phase == Phase::Failed && st.connectError != 0) {
                value = st.connectError;
                st.connectError = 0;
                fromAttempt = true;
            }
        });
        if (!fromAttempt) {
            int pending = 0;
            int r = kvtnet::GetOption(fd, option, &pending);
            if (r < 0) return Fail(WsaError(r));
            value = pending == 0 ? 0 : WsaError(-pending);
        }
    } else if (option == kvtnet::Option::SndBuf && state.sndBuf >= 0) {
        value = state.sndBuf;
    } else if (option == kvtnet::Option::RcvBuf && state.rcvBuf >= 0) {
        value = state.rcvBuf;
    } else {
        int r = kvtnet::GetOption(fd, option, &value);
        if (r < 0) return Fail(WsaError(r));
    }
    std::memcpy(optval, &value, sizeof value);
    *optlen = sizeof value;
    return 0;
}

int WINAPI bind(SOCKET s, const struct sockaddr *name, int namelen) {
    int fd;
    SockState state;
    if (int e = Find(s, &fd, &state)) return Fail(e);
    kvtnet::Inet address;
    if (int e = ToInet(state, name, namelen, &address))
        return Fail(e == kNoSuchNode || e == WSAENETUNREACH ? WSAEADDRNOTAVAIL : e);
    // IPX socket number 0 asks for a dynamic one, from IPX's own range.
    int r = state.family == AF_IPX && address.port == 0 ? kvtipx::BindDynamic(fd, address)
                                                         : kvtnet::Bind(fd, address);
    if (r < 0) return Fail(WsaError(r));
    Update(fd, state.serial, [](SockState &st) { st.bound = true; });
    return 0;
}

int WINAPI connect(SOCKET s, const struct sockaddr *name, int namelen) {
    int fd;
    SockState state;
    if (int e = Find(s, &fd, &state)) return Fail(e);
    kvtnet::Inet address;
    if (int e = ToInet(state, name, namelen, &address))
        return Fail(e == kNoSuchNode || e == WSAENETUNREACH ? WSAEADDRNOTAVAIL : e);
    if (!state.stream && address.addr == 0 && address.port == 0) {
        // A datagram socket "connected" to the zero address is disconnected.
        int r = kvtnet::Disconnect(fd);
        return r < 0 ? Fail(WsaError(r)) : 0;
    }
    if (!ValidDestination(address)) return Fail(WSAEADDRNOTAVAIL);
    if (state.stream) {
        switch (CheckConnect(fd, state)) {
        case Phase::UnderWay: return Fail(WSAEALREADY);
        case Phase::Connected: return Fail(WSAEISCONN);
        case Phase::Failed:
            // Windows lets a failed attempt be followed by another on the same
            // socket; Linux first wants the failed one ended.
            kvtnet::Disconnect(fd);
            break;
        case Phase::Idle: break;
        }
    }
    int r = kvtnet::Connect(fd, address);
    if (state.stream && state.nonBlocking && (r == -EINPROGRESS || r == -ECONNREFUSED)) {
        // Under way, as Windows always says of a non-blocking connect; a refusal
        // that Linux already knows is reported the way Windows reports it, by
        // select's exception set.
        Update(fd, state.serial, [&](SockState &st) {
            st.phase = r == -EINPROGRESS ? Phase::UnderWay : Phase::Failed;
            st.connectError = r == -EINPROGRESS ? 0 : WSAECONNREFUSED;
            st.bound = true;
            st.reset = false;
        });
        return Fail(WSAEWOULDBLOCK);
    }
    if (r < 0) {
        if (state.stream) Update(fd, state.serial, [](SockState &st) { st.phase = Phase::Idle; });
        return Fail(WsaError(r));
    }
    Update(fd, state.serial, [&](SockState &st) {
        st.phase = state.stream ? Phase::Connected : Phase::Idle;
        st.bound = true;
        st.reset = false;
    });
    return 0;
}

int WINAPI send(SOCKET s, const char *buf, int len, int flags) {
    int fd;
    SockState state;
    if (int e = Find(s, &fd, &state)) return Fail(e);
    unsigned how;
    if (!MessageFlags(flags, false, &how)) return Fail(WSAEOPNOTSUPP);
    if (len < 0 || (buf == nullptr && len > 0)) return Fail(WSAEFAULT);
    Phase phase = state.stream ? CheckConnect(fd, state) : Phase::Idle;
    if (phase == Phase::UnderWay || phase == Phase::Failed) return Fail(WSAENOTCONN);
    long n = kvtnet::Send(fd, buf, static_cast<size_t>(len), how);
    if (n >= 0) return static_cast<int>(n);
    if (n == -EDESTADDRREQ) return Fail(WSAENOTCONN);
    // Linux's EPIPE: never connected, or the connection is gone (reset).
    if (n == -EPIPE && phase != Phase::Connected) return Fail(WSAENOTCONN);
    if (n == -EPIPE || n == -ECONNRESET)
        Update(fd, state.serial, [](SockState &st) { st.reset = true; });
    return Fail(WsaError(static_cast<int>(n)));
}

int WINAPI sendto(SOCKET s, const char *buf, int len, int flags, const struct sockaddr *to, int tolen) {
    int fd;
    SockState state;
    if (int e = Find(s, &fd, &state)) return Fail(e);
    if (state.stream) return send(s, buf, len, flags);  // the address is ignored
    unsigned how;
    if (!MessageFlags(flags, false, &how)) return Fail(WSAEOPNOTSUPP);
    if (len < 0 || (buf == nullptr && len > 0)) return Fail(WSAEFAULT);
    kvtnet::Inet address;
    if (int e = ToInet(state, to, tolen, &address)) return e == kNoSuchNode ? len : Fail(e);
    if (!ValidDestination(address)) return Fail(WSAEADDRNOTAVAIL);
    if (state.family == AF_IPX && !state.bound) {
        // The first send of an unbound IPX socket takes a dynamic socket number.
        int r = kvtipx::BindDynamic(fd, kvtnet::Inet{});
        if (r < 0) return Fail(WsaError(r));
    }
    long n = kvtnet::SendTo(fd, buf, static_cast<size_t>(len), how, address);
    if (n < 0) return Fail(WsaError(static_cast<int>(n)));
    if (!state.bound) Update(fd, state.serial, [](SockState &st) { st.bound = true; });
    return static_cast<int>(n);
}

int WINAPI recvfrom(SOCKET s, char *buf, int len, int flags, struct sockaddr *from, int *fromlen) {
    int fd;
    SockState state;
    if (int e = Find(s, &fd, &state)) return Fail(e);
    unsigned how;
    if (!MessageFlags(flags, true, &how)) return Fail(WSAEOPNOTSUPP);
    if (len < 0 || (buf == nullptr && len > 0)) return Fail(WSAEFAULT);
    if (!state.stream) {
        const int room = state.family == AF_IPX ? sizeof(SOCKADDR_IPX) : sizeof(struct sockaddr_in);
        if (from != nullptr && (fromlen == nullptr || *fromlen < room)) return Fail(WSAEFAULT);
        if (!state.bound) return Fail(WSAEINVAL);  // Windows: receive on an unbound socket
    } else {
        Phase phase = CheckConnect(fd, state);
        if (phase == Phase::UnderWay || phase == Phase::Failed) return Fail(WSAENOTCONN);
    }
    kvtnet::Inet sender;
    bool hasFrom = false, truncated = false;
    long n;
    for (;;) {
        n = kvtnet::Receive(fd, buf, static_cast<size_t>(len), how, !state.stream, &sender, &hasFrom, &truncated);
        SOCKADDR_IPX ignored;
        if (state.family != AF_IPX || n < 0 || !hasFrom || kvtipx::FromInet(sender, &ignored)) break;
        // A UDP datagram from no IPX socket is none of this socket's: it is
        // taken off the queue (a peek leaves it there) and the next is read.
        if (how & kvtnet::kMsgPeek) kvtnet::Receive(fd, nullptr, 0, 0, true, &sender, &hasFrom, &truncated);
    }
    if (n <= 0 && !StillOpen(fd, state.serial)) return Fail(WSAEINTR);  // closed meanwhile
    if (n < 0) {
        int error = WsaError(static_cast<int>(n));
        // An ICMP "port unreachable" for an earlier datagram: Windows reports it
        // by this receive as WSAECONNRESET.
        if (!state.stream && n == -ECONNREFUSED) error = WSAECONNRESET;
        if (state.stream && error == WSAECONNRESET)
            Update(fd, state.serial, [](SockState &st) { st.reset = true; });
        return Fail(error);
    }
    // Linux reports a reset once and then an orderly end; Windows goes on
    // reporting the reset.
    if (n == 0 && state.stream && len > 0 && state.reset) return Fail(WSAECONNRESET);
    if (!state.stream && from != nullptr && hasFrom) {
        if (int e = FromInet(state, sender, from, fromlen)) return Fail(e);
    }
    if (truncated) return Fail(WSAEMSGSIZE);  // the buffer holds the datagram's start
    return static_cast<int>(n);
}

int WINAPI recv(SOCKET s, char *buf, int len, int flags) {
    return recvfrom(s, buf, len, flags, nullptr, nullptr);
}

// ---- names and addresses ----------------------------------------------------------------------
int WINAPI gethostname(char *name, int namelen) {
    if (!Started()) return Fail(WSANOTINITIALISED);
    if (name == nullptr) return Fail(WSAEFAULT);
    std::string own = ComputerName();
    if (namelen < 0 || own.size() + 1 > static_cast<size_t>(namelen)) return Fail(WSAEFAULT);
    std::memcpy(name, own.c_str(), own.size() + 1);
    return 0;
}

// Windows answers for its own computer name (whole, or the part before the
// first dot, in any case) and for "localhost" itself, without asking DNS: the
// own name gives the addresses of the machine's adapters, or 127.0.0.1 when it
// has none but loopback (as inside the private network); "localhost" gives
// 127.0.0.1.  Dotted addresses stand for themselves.  Other names go to the
// resolver.
struct hostent *WINAPI gethostbyname(const char *name) {
    if (!Started()) {
        WSASetLastError(WSANOTINITIALISED);
        return nullptr;
    }
    static thread_local HostEntry entry;
    const uint32_t loopback = htonl(INADDR_LOOPBACK);
    std::string own = ComputerName();
    std::string asked = (name == nullptr || *name == '\0') ? own : std::string(name);
    std::string shortOwn = own.substr(0, own.find('.'));
    if (SameName(asked, own) || SameName(asked, shortOwn)) {
        std::vector<uint32_t> addresses = kvtnet::InterfaceAddresses();
        if (addresses.empty()) addresses.push_back(loopback);
        return entry.Fill(own, addresses);
    }
    if (SameName(asked, "localhost")) return entry.Fill("localhost", {loopback});
    uint32_t address;
    if (ParseDotted(asked.c_str(), &address)) return entry.Fill(asked, {address});
    std::string canonical;
    std::vector<uint32_t> addresses;
    switch (kvtnet::Resolve(asked, &canonical, &addresses)) {
    case kvtnet::Lookup::Ok: return entry.Fill(canonical, addresses);
    case kvtnet::Lookup::NotFound: WSASetLastError(WSAHOST_NOT_FOUND); break;
    case kvtnet::Lookup::TryAgain: WSASetLastError(WSATRY_AGAIN); break;
    case kvtnet::Lookup::NoData: WSASetLastError(WSANO_DATA); break;
    case kvtnet::Lookup::NoRecovery: WSASetLastError(WSANO_RECOVERY); break;
    }
    return nullptr;
}

unsigned long WINAPI inet_addr(const char *cp) {
    uint32_t address;
    if (cp == nullptr || !ParseDotted(cp, &address)) return INADDR_NONE;
    return address;
}

char *WINAPI inet_ntoa(struct in_addr in) {
    static thread_local char text[16];
    const u_char *b = reinterpret_cast<const u_char *>(&in.s_addr);
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
    return text;
}

#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
u_short WINAPI htons(u_short hostshort) { return hostshort; }
u_short WINAPI ntohs(u_short netshort) { return netshort; }
u_long WINAPI htonl(u_long hostlong) { return hostlong; }
u_long WINAPI ntohl(u_long netlong) { return netlong; }
#else
u_short WINAPI htons(u_short hostshort) { return __builtin_bswap16(hostshort); }
u_short WINAPI ntohs(u_short netshort) { return __builtin_bswap16(netshort); }
u_long WINAPI htonl(u_long hostlong) { return __builtin_bswap32(hostlong); }
u_long WINAPI ntohl(u_long netlong) { return __builtin_bswap32(netlong); }
#endif

}  // extern "C"

// select has C++ linkage (the C library declares its own under this name); its
// symbol is still kvt_ws_select.
int WINAPI select(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds,
                  const struct timeval *timeout) {
    (void)nfds;  // ignored, as by Winsock
    if (!Started()) return Fail(WSANOTINITIALISED);
    fd_set *sets[3] = {readfds, writefds, exceptfds};
    u_int total = 0;
    for (fd_set *set : sets) {
        if (set == nullptr) continue;
        if (set->fd_count > FD_SETSIZE) return Fail(WSAEINVAL);
        total += set->fd_count;
    }
    if (total == 0) return Fail(WSAEINVAL);  // Windows: nothing to wait for is an error
    int64_t waitNs = -1;
    if (timeout != nullptr) {
        if (timeout->tv_sec < 0 || timeout->tv_usec < 0) return Fail(WSAEINVAL);
        int64_t monitorNs =
            static_cast<int64_t>(timeout->tv_sec) * 1000000000 + static_cast<int64_t>(timeout->tv_usec) * 1000;
        waitNs = KvtScaledWaitNs(monitorNs);
    }

    struct Entry {
        SOCKET handle;
        int fd;
        SockState state;
        bool in[3];
        bool ready[3];
        bool muted;  // poll keeps reporting something select can't report
    };
    Entry entries[kMaxSelect];
    size_t count = 0;
    for (int k = 0; k < 3; ++k) {
        if (sets[k] == nullptr) continue;
        for (u_int i = 0; i < sets[k]->fd_count; ++i) {
            SOCKET h = sets[k]->fd_array[i];
            size_t j = 0;
            while (j < count && entries[j].handle != h) ++j;
            if (j == count) {
                Entry &e = entries[count++];
                e = Entry{};
                e.handle = h;
                if (int error = Find(h, &e.fd, &e.state)) return Fail(error);
            }
            entries[j].in[k] = true;
        }
    }

    const int64_t deadline = waitNs < 0 ? -1 : KvtRealNowNs() + waitNs;
    kvtnet::PollItem items[kMaxSelect];
    int ready = 0;
    for (;;) {
        bool immediate = false;
        for (size_t j = 0; j < count; ++j) {
            Entry &e = entries[j];
            unsigned events = (e.in[0] ? kvtnet::kPollIn : 0) | (e.in[1] ? kvtnet::kPollOut : 0) |
                              (e.in[2] ? kvtnet::kPollPri : 0);
            if (e.state.phase == Phase::UnderWay) events |= kvtnet::kPollOut;  // to see it end
            if (e.state.phase == Phase::Failed) {
                events = 0;
                immediate = immediate || e.in[2];
            }
            bool skip = e.muted || e.state.phase == Phase::Failed;
            items[j] = kvtnet::PollItem{skip ? -1 : e.fd, events, 0};
        }
        int64_t pollNs = deadline < 0 ? -1 : std::max<int64_t>(0, deadline - KvtRealNowNs());
        if (immediate) pollNs = 0;
        int r = kvtnet::Poll(items, count, pollNs);
        if (r < 0 && r != -EINTR) return Fail(WsaError(r));
        if (r < 0) continue;
        ready = 0;
        for (size_t j = 0; j < count; ++j) {
            Entry &e = entries[j];
            unsigned rev = items[j].revents;
            if (rev & kvtnet::kPollNval) return Fail(WSAENOTSOCK);
            e.ready[0] = e.ready[1] = e.ready[2] = false;
            Phase before = e.state.phase;
            if (e.state.phase == Phase::UnderWay) {
                e.state.phase = SettleConnect(e.fd, e.state.serial, rev);
                if (e.state.phase == Phase::Connected) {
                    e.ready[1] = e.in[1];
                    e.ready[0] = e.in[0] && (rev & kvtnet::kPollIn);
                }
            } else if (e.state.phase != Phase::Failed) {
                e.ready[0] = e.in[0] && (rev & (kvtnet::kPollIn | kvtnet::kPollHup | kvtnet::kPollErr));
                e.ready[1] = e.in[1] && (rev & (kvtnet::kPollOut | kvtnet::kPollErr));
                e.ready[2] = e.in[2] && (rev & kvtnet::kPollPri);
            }
            if (e.state.phase == Phase::Failed) e.ready[2] = e.in[2];
            ready += e.ready[0] + e.ready[1] + e.ready[2];
            // Hang-up and error stay: poll would return at once again and again.
            if (rev != 0 && e.state.phase == before) e.muted = true;
        }
        if (ready > 0 || (deadline >= 0 && KvtRealNowNs() >= deadline)) break;
    }

    // Each set keeps its ready sockets, in their order.
    for (int k = 0; k < 3; ++k) {
        fd_set *set = sets[k];
        if (set == nullptr) continue;
        u_int kept = 0;
        for (u_int i = 0; i < set->fd_count; ++i) {
            SOCKET h = set->fd_array[i];
            for (size_t j = 0; j < count; ++j) {
                if (entries[j].handle == h) {
                    if (entries[j].ready[k]) set->fd_array[kept++] = h;
                    break;
                }
            }
        }
        set->fd_count = kept;
    }
    return ready;
}
