// The NetBIOS transport against PS1 of kvtps on a host with NetBIOS alone:
// the exchange of one frame (a reply at once, silence, busy then silence,
// refused sends), the templates and names a job sends from and to, deletions
// during a job's connect and write (and over IPX, whose channel is the same),
// and the NetBIOS search's EEPROM read (the search against servers of every
// kind: integration_tests KvtmonDiscover.OverNetbios...).
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "availps.h"
#include "channel.h"
#include "discovery.h"
#include "fixture.h"
#include "nbstartup.h"
#include "netbios.h"
#include "netbios_calls.h"

namespace {

using namespace kvttest;
using nbtest::Text;

// The sends of frames (not the start-up's queries) as they were made.
std::vector<kvthost::NetbiosCall> FrameSends() {
    std::vector<kvthost::NetbiosCall> out;
    for (const auto &c : kvthost::NetbiosCalls())
        if ((c.command & ~ASYNCH) == NCBDGSEND && c.data.size() >= CHANNEL_HEADER_BYTES && c.data.rfind("PS", 0) == 0 &&
            (c.data[3] == CHANNEL_CONNECT || c.data[3] == CHANNEL_DATA || c.data[3] == CHANNEL_HANGUP))
            out.push_back(c);
    return out;
}

class NbJob : public JobTest {
protected:
    // The port PS1-P1 fixed to NetBIOS on a host with NetBIOS only, the print
    // server on NetBIOS only, and the start-up done.
    PINIPORT Start(const std::string &server, double scale) {
        PINIPORT port = StartPort({.tcpip = false, .netbios = true, .timeScale = scale}, PROTOCOL_NETBIOS);
        StartServers({With(Server(server), [](auto &c) { c.ipx = false; })});
        EXPECT_TRUE(bStartup = NBStartup());
        kvthost::RecordNetbiosCalls(true);
        return port;
    }
};

// Each operation with its own receive: a reply ends it at the first send;
// silence costs 21 sends (6 for a hang-up) and a cancel; a busy answer then
// silence is busy; sends the NetBIOS layer refuses go again at once, 20 times.
// The channel is opened at the monitor's own pace, and the case's pace set
// only once the server has answered every connect, so that no reply to it can
// come late into the frame's exchange.
TEST_F(NbJob, OneFrameAgainstARepliesSilenceBusyAndRefusals) {
    const struct {
        const char *name;
        double scale;
        bool silent;
        int busy;
        UCHAR refuse;  // the code of every send after the first
        BYTE command;
        int result;     // a connect's channel byte, or TRUE/FALSE
        size_t sends, cancels;
    } cases[] = {
        {"reply at once", 1.0, false, 0, 0, CHANNEL_DATA, TRUE, 1, 0},
        {"silent data", 0.05, true, 0, 0, CHANNEL_DATA, FALSE, 21, 1},
        {"silent hang-up", 0.05, true, 0, 0, CHANNEL_HANGUP, FALSE, 6, 1},
        {"silent connect", 0.05, true, 0, 0, CHANNEL_CONNECT, CONNECT_NO_RESPONSE, 21, 1},
        {"busy, then silent", 0.05, true, 1, 0, CHANNEL_CONNECT, CONNECT_BUSY, 21, 1},
        {"refused resends", 0.05, true, 0, NRC_ILLNN, CHANNEL_DATA, FALSE, 1 + NB_REFUSED_RESENDS + 1, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Start("PS1", 1.0);
        const BYTE channel = NBConnect(&PortNcb1, "PS1", 1);
        ASSERT_TRUE(channel >= 1 && channel <= 254);
        ASSERT_TRUE(Eventually([&] {
            const kvtps::ChannelCounters seen = emulator.NetbiosCounters("PS1").channel;
            return seen.connects == FrameSends().size() && seen.replies == seen.connects;
        }));
        kvthost::SetTimeScale(c.scale);
        ASSERT_TRUE(emulator.SetNetbiosFaults("PS1", With(kvtps::NbFaults(), [&](auto &nb) {
                                                  nb.channel.silent = c.silent, nb.channel.busyAnswers = c.busy;
                                              })));
        kvthost::SetNetbiosHook([&c, first = std::make_shared<bool>(true)](const NCB &ncb) -> uint8_t {
            if (ncb.ncb_command != NCBDGSEND || c.refuse == 0) return NRC_GOODRET;
            return std::exchange(*first, false) ? NRC_GOODRET : c.refuse;
        });
        kvthost::RecordNetbiosCalls(true);
        const BYTE data[3] = {1, 2, 3};
        int result = c.command == CHANNEL_CONNECT ? NBConnect(&PortNcb1, "PS1", 1)
                     : c.command == CHANNEL_DATA  ? NBSendDATA(&PortNcb1, "PS1", 1, channel, 0, data, 3)
                                                  : NBHangup(&PortNcb1, "PS1", 1, channel);
        kvthost::SetNetbiosHook(nullptr);
        EXPECT_EQ(result, c.result);
        EXPECT_EQ(FrameSends().size(), c.sends);
        size_t cancels = 0;
        for (const auto &call : kvthost::NetbiosCalls()) cancels += call.command == NCBCANCEL;
        EXPECT_EQ(cancels, c.cancels);
        EXPECT_EQ(kvthost::NetbiosPendingReceives(), 0u) << "no receive outlives its operation";
    }
}

// A job on a port with the digit 2 connects from PortNcb2's name with Port 2
// and writes from its copy, also after the template has changed; the call
// name is the print server's name cut to 16 bytes and filled with blanks,
// which is the name a server with a longer one holds.  Replies that come late
// (the frame was sent again) or from another name are taken all the same.
TEST_F(NbJob, AJobSendsFromItsPortsTemplateToTheServersNameCutTo16Bytes) {
    const struct {
        std::string server;
        int lateMs;
        const char *replyName;
    } cases[] = {{"PS1", 0, ""}, {"ABCDEFGHIJKLMNOP", 700, ""}, {"ABCDEFGHIJKLMNOPQRSTUVWXYZ0123", 0, "ELSEWHERE"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.server);
        PINIPORT port = Start(c.server, 0.05);
        ASSERT_TRUE(emulator.SetNetbiosFaults(c.server, With(kvtps::NbFaults(), [&](auto &nb) {
                                                  nb.replyName = c.replyName, nb.lateMs = c.lateMs;
                                              })));
        std::u16string portName(c.server.begin(), c.server.end());
        port = CreateMonitorPortEntry((portName + u"-P2").c_str(), MonitorName, kServerAddress, nullptr,
                                      port->NodeID, '2');
        ASSERT_TRUE(StartDoc(port));
        EXPECT_EQ(std::memcmp(&port->NcbCopy, &PortNcb2, sizeof(NCB)), 0);
        EXPECT_EQ(std::string(port->ServerName), c.server.substr(0, NB_SERVER_NAME_BYTES - 1));
        const NCB copy = PortNcb2;
        std::memset(PortNcb2.ncb_name, 'X', NCBNAMSZ);  // a start-up on another thread
        const std::string data(2500, 'x');
        ASSERT_TRUE(WriteAll(port, data));
        PortNcb2 = copy;
        ASSERT_TRUE(LocalmonEndDocPort(port));
        const std::vector<kvthost::NetbiosCall> sends = FrameSends();
        EXPECT_TRUE(c.lateMs == 0 || sends.size() > 5) << "connect, 3 frames, hang-up, and some sent again";
        for (const auto &s : sends) {
            EXPECT_EQ(s.callname, kvtnb::MakeName(c.server.substr(0, 16)));
            EXPECT_TRUE(Text(s.name.data(), NCBNAMSZ) == Text(copy.ncb_name, NCBNAMSZ) && s.num == copy.ncb_num &&
                        s.lana == copy.ncb_lana_num && s.data[4] == 2);
        }
        ASSERT_TRUE(Eventually([&] { return !emulator.NetbiosJobs(c.server).empty(); }));
        const kvtps::ChannelJob job = emulator.NetbiosJobs(c.server).back();
        EXPECT_TRUE(job.data == data && job.frames == 3 && job.hungUp && job.port == 2);
    }
}

// A job on an automatic port deleted while the print server is busy, just as
// it gives a channel, or during its write ends without a fall-over, over IPX
// as over NetBIOS, each job start saying so in its own words and leaving the
// last error alone; only the write's channel is hung up, and the slice whose
// frame saw the deletion isn't counted.
TEST_F(JobTest, DeletionDuringTheConnectAndTheWrite) {
    const struct {
        bool ipx;  // the host's one transport, and PS1's
        int busy, deleteAtGetJob;
        bool started;
        uint64_t connects;
    } cases[] = {{true, 3 * 21, 2, false, 2 * 21},  {true, 0, 1, false, 1},  {true, 0, 3, true, 1},
                 {false, 3 * 21, 2, false, 2 * 21}, {false, 0, 1, false, 1}, {false, 0, 3, true, 1}};
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << (c.ipx ? "IPX" : "NetBIOS") << ", deleted at GetJob " << c.deleteAtGetJob);
        PINIPORT port = StartPort({.tcpip = false, .ipx = c.ipx, .netbios = !c.ipx, .timeScale = 0.01}, PROTOCOL_AUTO);
        const BYTE node[6] = {0, 0, 0x7F, 0, 0, 2};
        std::memcpy(port->NodeID, node, 6);
        kvtps::ServerConfig server = Server();
        server.ipx = c.ipx;
        server.ipxFaults.busyAnswers = server.netbios.channel.busyAnswers = c.busy;
        StartServers({server});
        if (!c.ipx) {
            ASSERT_TRUE(bStartup = NBStartup());
        }
        kvthost::SetGetJobHook([&](DWORD jobId, int call) {
            if (call == c.deleteAtGetJob) kvthost::SetJobStatus(kPrinter, jobId, JOB_STATUS_DELETING);
        });
        EXPECT_EQ(StartDoc(port), c.started);
        if (c.started) {
            std::string data(3000, 'd');
            DWORD written = 0;
            EXPECT_TRUE(LocalmonWritePort(port, reinterpret_cast<LPBYTE>(data.data()), 3000, &written));
            EXPECT_EQ(written, 1000u) << "the frame acknowledged before the deletion was seen";
            EXPECT_TRUE(LocalmonEndDocPort(port));
        } else {
            EXPECT_EQ(GetLastError(), kSentinel);
            EXPECT_EQ(LogCount(c.ipx ? "Leave LocalmonStartDocPort - user delete job(status: 00000000)"
                                     : "Leave LocalmonStartDocPort - user delete job (status: 00000000)"), 1u);
        }
        EXPECT_EQ(LogCount("Try "), 0u);
        auto seen = [&] { return c.ipx ? emulator.IpxCountersOf("PS1") : emulator.NetbiosCounters("PS1").channel; };
        EXPECT_EQ(seen().hangups, c.started ? 1u : 0u);
        // A connect answered with a channel late is sent again: there may be a few more.
        EXPECT_TRUE(Eventually([&] {
            return seen().connects == c.connects || (c.busy == 0 && seen().connects > c.connects);
        })) << seen().connects;
        EXPECT_EQ(port->Status, 0u);
    }
}

// A search reply that reaches the read's receive first fails its test; the
// try sends again, and the image comes with the next.
TEST_F(NbJob, ASearchReplyDuringTheEepromReadCostsOneTry) {
    Start("PS1", 0.5);
    std::string searchReply = std::string("PS\x80\x00\x01\x04", 6) + std::string(68, '\0');
    searchReply.replace(16, 5, "OTHER");
    kvthost::SetNetbiosHook([&, sent = std::make_shared<bool>(false)](const NCB &ncb) -> uint8_t {
        if (ncb.ncb_command == NCBDGSEND && Text(ncb.ncb_callname, NCBNAMSZ) == "PS1.CFG         " &&
            !std::exchange(*sent, true)) {
            nbtest::Send(nbtest::Add("STRANGER"), Text(ncb.ncb_name, NCBNAMSZ), searchReply);
            EXPECT_TRUE(nbtest::Eventually([] { return kvthost::NetbiosPendingReceives() == 0; }));
        }
        return NRC_GOODRET;
    });
    TotalPrintServer = 0;
    EXPECT_TRUE(NBSearch());
    kvthost::SetNetbiosHook(nullptr);
    ASSERT_EQ(TotalPrintServer, 1) << "a reply to the search that comes during the read isn't listed";
    EXPECT_EQ(emulator.NetbiosCounters("PS1").cfgReadEeprom, 2u);
    const BYTE node[6] = {0, 0, 0x7F, 0, 0, 2};
    EXPECT_EQ(std::memcmp(AvailPS[0].NodeID, node, 6), 0);
    EXPECT_EQ(kvthost::NetbiosPendingReceives(), 0u);
}

// A NetBIOS search holds no lock that a job start or the port list needs: while
// it waits on a server's read, an IPX job start (which searches under the port
// list's lock) connects, and the ports are listed at once.
TEST_F(JobTest, ANetbiosSearchHoldsUpNeitherAnIpxJobStartNorTheListOfPorts) {
    PINIPORT port = StartPort({.tcpip = false, .ipx = true, .netbios = true, .timeScale = 0.5}, PROTOCOL_IPX);
    StartServers({Server("PS1")});
    ASSERT_TRUE(bStartup = NBStartup());
    std::atomic<bool> reading{false}, release{false};
    std::atomic<int> started{-1};
    kvthost::SetNetbiosHook([&](const NCB &ncb) -> uint8_t {
        if (ncb.ncb_command == NCBDGSEND && Text(ncb.ncb_callname, 7) == "PS1.CFG" && !reading.exchange(true))
            while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return NRC_GOODRET;
    });
    std::thread search([] { NBSearch(); }), job;
    if (Eventually([&] { return reading.load(); })) job = std::thread([&] { started = StartDoc(port); });
    // Else, or if the job start waits for the search, the port list's lock is held until it ends.
    EXPECT_TRUE(Eventually([&] { return started >= 0; }, 20)) << "the job start waits for the search";
    if (started >= 0) {
        DWORD needed = 0, returned = 0, before = GetTickCount();
        EXPECT_FALSE(LocalmonEnumPorts(nullptr, 1, nullptr, 0, &needed, &returned));
        EXPECT_TRUE(GetTickCount() - before < 100 && needed > 0);
    }
    release = true;
    search.join();
    if (job.joinable()) job.join();
    kvthost::SetNetbiosHook(nullptr);
    EXPECT_TRUE(started == TRUE && LocalmonEndDocPort(port));
}

}  // namespace
