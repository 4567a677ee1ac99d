// Netbios as the tests call it: one command at a time, the return code read
// as the platform writes it in the background, and a wait for what comes.
#pragma once

#include <cstring>

#include "eventually.h"
#include "kvtnetbios.h"
#if __has_include("kvtps.h")
#include "kvtps.h"
#endif

namespace nbtest {

using kvttest::Eventually;

inline UCHAR Code(const NCB &ncb) { return __atomic_load_n(&ncb.ncb_retcode, __ATOMIC_ACQUIRE); }

// A command on the LANA with a name (callname for a send or a status) and a buffer.
inline UCHAR Call(UCHAR command, UCHAR lana = 0, UCHAR num = 0, const std::string &name = "",
                  const void *buffer = nullptr, size_t length = 0, NCB *ncb = nullptr) {
    NCB local{};
    NCB &n = ncb ? *ncb : local;
    n.ncb_command = command;
    n.ncb_lana_num = lana;
    n.ncb_num = num;
    const bool callname = (command & ~ASYNCH) == NCBDGSEND || command == NCBASTAT;
    std::memcpy(callname ? n.ncb_callname : n.ncb_name, kvtnb::MakeName(name).data(), NCBNAMSZ);
    n.ncb_buffer = static_cast<PUCHAR>(const_cast<void *>(buffer));
    n.ncb_length = static_cast<WORD>(length);
    return Netbios(&n);
}

// The number of a name added on the LANA; 0 when it could not be added.
inline UCHAR Add(const std::string &name, UCHAR lana = 0) {
    NCB n{};
    return Call(NCBADDNAME, lana, 0, name, nullptr, 0, &n) == NRC_GOODRET ? n.ncb_num : 0;
}

inline UCHAR Send(UCHAR num, const std::string &to, const std::string &data, UCHAR lana = 0) {
    return Call(NCBDGSEND, lana, num, to, data.data(), data.size());
}

// A receive without waiting, on a buffer filled with 0xEE.
inline UCHAR Arm(NCB &receive, UCHAR num, UCHAR *buffer, size_t length, UCHAR lana = 0) {
    std::memset(&receive, 0, sizeof receive);
    std::memset(buffer, 0xEE, length);
    return Call(NCBDGRECV | ASYNCH, lana, num, "", buffer, length, &receive);
}

inline UCHAR Cancel(NCB &receive) { return Call(NCBCANCEL, receive.ncb_lana_num, 0, "", &receive, sizeof(NCB)); }

#if __has_include("kvtps.h")
// PS1 at 127.0.0.2 (the default address), with its NetBIOS knobs, where the
// emulator is at hand.
inline kvtps::ServerConfig Ps1(const kvtps::NbFaults &netbios) {
    kvtps::ServerConfig c;
    c.name = "PS1";
    c.netbios = netbios;
    return c;
}
#endif

inline std::string Text(const void *bytes, size_t length) {
    return std::string(static_cast<const char *>(bytes), length);
}

}  // namespace nbtest
