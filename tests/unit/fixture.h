// The unit tests' ground: a host with the monitor over it and the emulated
// print servers; a port with a printer and a job for the tests of the job
// flow and the transports; and datagrams of the management family built by
// hand, at the offsets the print server uses, for the tests of the searches.
#pragma once

#include <gtest/gtest.h>

#include <winsock2.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include "availps.h"
#include "emulated.h"
#include "kvthost.h"
#include "kvtps.h"
#include "monitor.h"
#include "monitor_host.h"

constexpr DWORD kServerAddress = 0x7F000002;  // 127.0.0.2, host order
constexpr DWORD kSentinel = 0xdeadbeef;
inline const char16_t kPrinter[] = u"Office";

namespace kvttest {

// A value with what set changes in it: With(Server(), [](auto &c) { c.model = 3; }).
template <typename T, typename F>
T With(T value, F set) {
    set(value);
    return value;
}

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

// A record's name and node, of AvailPS unless another table is named.
inline std::string NameOf(int index, const AvailPSRecord *records = AvailPS) {
    return kvthost::Narrow(records[index].Name);
}

inline Bytes NodeOf(int index, const AvailPSRecord *records = AvailPS) {
    return Bytes(reinterpret_cast<const char *>(records[index].NodeID), 6);
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

}  // namespace kvttest

// A host with the monitor started over it, and the emulator; both go when the
// test ends.
class MonitorTest : public ::testing::Test {
protected:
    void TearDown() override {
        emulator.Stop();
        host.reset();
    }
    // A fresh host, what first puts in it, and the monitor started over it.  The
    // old host puts the clock and the globals back when it goes, so it goes first.
    void StartHost(const kvttest::HostOptions &options = {}, const std::function<void()> &first = nullptr) {
        host.reset();
        host = std::make_unique<kvttest::TestHost>(options);
        if (first) first();
        InitializePrintMonitor(nullptr);
    }
    // These print servers, in place of any that run.
    void StartServers(const std::vector<kvtps::ServerConfig> &servers) {
        emulator.Stop();
        std::string error;
        ASSERT_TRUE(emulator.Start(servers, &error)) << error;
    }

    std::unique_ptr<kvttest::TestHost> host;
    kvtps::Emulator emulator;
};

// A port of the monitor, a printer with a job, and PS1 at 127.0.0.2, for the
// tests of the job flow and the transports.
class JobTest : public MonitorTest {
protected:
    // The host, a port PS1-P<digit> (or -C) and the monitor started over them;
    // job 7, "report" of guest, on the printer; no print server yet.
    PINIPORT StartPort(const kvttest::HostOptions &options = kvttest::HostOptions(), uint8_t protocol = 0,
                       const char16_t *queue = nullptr, char16_t digitKey = u'1') {
        emulator.Stop();
        StartHost(options, [&] { kvttest::MakePortKeys(u"PS1", digitKey, kServerAddress, protocol, queue); });
        EXPECT_NE(PortListHead, nullptr);
        AddJob(7);
        kvthost::ImpersonateUser(u"guest");
        kvthost::SetComputerName("pc1.lan");
        return PortListHead;
    }
    static void AddJob(DWORD jobId, const std::u16string &document = u"report") {
        kvthost::AddJob({kPrinter, jobId, document, u"guest", u"", 0});
    }

    // PS1, on IPX and NetBIOS unless told otherwise.
    void StartServer(const kvtps::LprFaults &faults = kvtps::LprFaults(), bool channels = true) {
        kvtps::ServerConfig config = kvttest::Server();
        config.lpr = faults;
        config.ipx = config.netbios.enabled = channels;
        StartServers({config});
    }

    // LocalmonStartDocPort as the spooler calls it, last error seeded.
    BOOL StartDoc(PINIPORT port, DWORD level = 1, LPBYTE docInfo = nullptr, const char16_t *printer = kPrinter,
                  DWORD jobId = 7) {
        SetLastError(kSentinel);
        return LocalmonStartDocPort(port, const_cast<LPWSTR>(printer), jobId, level, docInfo);
    }

    // Writes the whole of data as the spooler does, calling again after a
    // short write.  False when a write fails.
    bool WriteAll(PINIPORT port, const std::string &data) {
        size_t done = 0;
        int calls = 0;
        while (done < data.size() && calls++ < 1000000) {
            DWORD written = kSentinel;
            if (!LocalmonWritePort(port, reinterpret_cast<LPBYTE>(const_cast<char *>(data.data() + done)),
                                   static_cast<DWORD>(data.size() - done), &written))
                return false;
            done += written;
        }
        return done == data.size();
    }

    // A whole job of these bytes on the port, as PS1 stored it over LPR.
    kvtps::LprJob Print(PINIPORT port, const std::string &data = "", DWORD jobId = 7) {
        EXPECT_TRUE(StartDoc(port, 1, nullptr, kPrinter, jobId));
        EXPECT_TRUE(WriteAll(port, data));
        EXPECT_TRUE(LocalmonEndDocPort(port));
        EXPECT_TRUE(emulator.WaitForJobs("PS1", 1, 10000));
        return emulator.Jobs("PS1").empty() ? kvtps::LprJob() : emulator.Jobs("PS1").front();
    }
};
