// Datagrams of the management family built by hand, at the offsets the print
// server uses, and a clean table, for the tests of the searches.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include <winsock2.h>

#include "availps.h"
#include "kvtps.h"

namespace kvttest {

using Bytes = std::string;  // raw bytes

inline Bytes Node(uint8_t a, uint8_t b, uint8_t c, uint8_t d, uint8_t e, uint8_t f) {
    return Bytes{char(a), char(b), char(c), char(d), char(e), char(f)};
}

// A list file record: name, address bytes, model, mask, queue name 1.
inline Bytes ListRecord(const std::string &name, const Bytes &ip, uint8_t model, uint8_t mask,
                        const std::string &queue1) {
    Bytes r(LIST_RECORD_BYTES, '\0');
    r.replace(LIST_NAME_OFFSET, name.size(), name);
    r.replace(LIST_IP_OFFSET, 4, ip);
    r[LIST_MODEL_OFFSET] = char(model);
    r[LIST_PORTMASK_OFFSET] = char(mask);
    r.replace(LIST_QUEUE_OFFSET, queue1.size(), queue1);
    return r;
}

// node, 01 command 00 00, then body bytes of the given length.
inline Bytes Reply(const Bytes &node, uint8_t command, size_t bodyBytes) {
    Bytes r = node;
    r += Bytes{1, char(command), 0, 0};
    r.resize(10 + bodyBytes, '\0');
    return r;
}

// A search reply: name at offset 18, Type at 68, AutoProtocol at 70.
inline Bytes SearchReply(const Bytes &node, const std::string &name, uint8_t type = 4, uint8_t autoProtocol = 1) {
    Bytes r = Reply(node, 0x04, 66);
    std::memcpy(&r[18], name.data(), std::min<size_t>(name.size(), 50));
    r[68] = char(type);
    r[70] = char(autoProtocol);
    return r;
}

// An EEPROM reply: model at 18, ps.Config at 82, ps.SupportProtocol at 499,
// the address at 508.
inline Bytes EepromReply(const Bytes &node, uint8_t model, uint8_t config, uint8_t support, const Bytes &ip) {
    Bytes r = Reply(node, 0x02, 512);
    r[18] = char(model);
    r[82] = char(config);
    r[499] = char(support);
    std::memcpy(&r[508], ip.data(), 4);
    return r;
}

// A queue-name reply: the texts at 12, 76 and 140.
inline Bytes QueueReply(const Bytes &node, const std::string &q1, const std::string &q2, const std::string &q3) {
    Bytes r = Reply(node, 0x11, 193);
    const std::string *texts[3] = {&q1, &q2, &q3};
    for (int i = 0; i < 3; ++i) std::memcpy(&r[12 + 64 * i], texts[i]->data(), std::min<size_t>(texts[i]->size(), 63));
    return r;
}

inline const BYTE *Data(const Bytes &b) { return reinterpret_cast<const BYTE *>(b.data()); }
inline int Size(const Bytes &b) { return static_cast<int>(b.size()); }

inline std::string NameOf(int index) {
    std::string s;
    for (const WCHAR *p = AvailPS[index].Name; *p != 0; ++p) s.push_back(static_cast<char>(*p));
    return s;
}

inline Bytes NodeOf(int index) { return Bytes(reinterpret_cast<const char *>(AvailPS[index].NodeID), 6); }

// Polls until done() holds or five seconds have passed: what the monitor sent
// last may still be on its way to the emulator when a search returns.
inline bool Eventually(const std::function<bool()> &done) {
    for (int i = 0; i < 500; ++i) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return done();
}

// Returns once the emulator has handled every datagram sent to it so far: a
// marker goes behind them (a datagram too short to be a query), and the
// emulator reads its socket in order.
inline void Settle(const kvtps::Emulator &emulator) {
    const uint64_t before = emulator.ManagementTraffic().malformed;
    SOCKET s = socket(AF_INET, SOCK_DGRAM, 0);
    BOOL on = TRUE;
    setsockopt(s, SOL_SOCKET, SO_BROADCAST, reinterpret_cast<const char *>(&on), sizeof on);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(0x3434);
    to.sin_addr.s_addr = htonl(INADDR_BROADCAST);
    sendto(s, "!", 1, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
    closesocket(s);
    EXPECT_TRUE(Eventually([&] { return emulator.ManagementTraffic().malformed > before; }));
}

// An empty table, as a library loaded anew has it.
inline void ClearTable() {
    std::memset(AvailPS, 0, sizeof AvailPS);
    TotalPrintServer = 0;
}

}  // namespace kvttest
