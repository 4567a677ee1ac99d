// The NetBIOS transport against PS1 of kvtps on a host with NetBIOS alone:
// the exchange of one frame (a reply at once, silence, busy then silence,
// refused sends), the templates and names a job sends from and to, and
// deletions during its connect and write; and the NetBIOS search's EEPROM read
// (the search against servers of every kind: integration_tests
// KvtmonDiscover.OverNetbios...).
#include <gtest/gtest.h>

#include "availps.h"
#include "channel.h"
#include "discovery.h"
#include "fixture.h"
#include "nbstartup.h"
#include "netbios.h"
#include "netbios_calls.h"

namespace {

using kvttest::Eventually;
using kvttest::LogLinesStartingWith;
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
    // The port PS1-P<digit> (protocol as given) on a host with NetBIOS only,
    // the print servers on NetBIOS only, and the start-up done.
    PINIPORT Start(std::vector<std::string> servers, double scale, uint8_t protocol = PROTOCOL_NETBIOS,
                   char16_t digit = u'1') {
        PINIPORT port = StartPort(kvttest::HostOptions{false, false, true, true, 0, true, scale}, protocol, nullptr,
                                  digit);
        std::vector<kvtps::ServerConfig> configs;
        for (const std::string &name : servers) {
            kvtps::ServerConfig c;
            c.name = name;
            c.ipx = false;
            configs.push_back(c);
        }
        std::string error;
        EXPECT_TRUE(emulator.Start(configs, &error)) << error;
        EXPECT_TRUE(bStartup = NBStartup());
        kvthost::RecordNetbiosCalls(true);
        return port;
    }
    void SetChannelFaults(const kvtps::ChannelFaults &faults) {
        kvtps::NbFaults nb;
        nb.channel = faults;
        ASSERT_TRUE(emulator.SetNetbiosFaults("PS1", nb));
    }
};

// Each operation with its own receive: a reply ends it at the first send;
// silence costs 21 sends (6 for a hang-up) and a cancel; a busy answer then
// silence is busy; sends the NetBIOS layer refuses go again at once, 20 times.
// Periods of 25 ms at the least, so that a reply is not late on a loaded machine.
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
        Start({"PS1"}, c.scale);
        const BYTE channel = NBConnect(&PortNcb1, "PS1", 1);
        ASSERT_TRUE(channel >= 1 && channel <= 254);
        kvtps::ChannelFaults faults;
        faults.silent = c.silent;
        faults.busyAnswers = c.busy;
        SetChannelFaults(faults);
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
        emulator.Stop();
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
        PINIPORT port = Start({c.server}, 0.05);
        kvtps::NbFaults nb;
        nb.lateMs = c.lateMs;
        nb.replyName = c.replyName;
        ASSERT_TRUE(emulator.SetNetbiosFaults(c.server, nb));
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
        emulator.Stop();
    }
}

// A job on an automatic port deleted while the print server is busy, or
// during its write, ends without a fall-over, and only the write's channel
// is hung up; the slice whose frame saw the deletion isn't counted.
TEST_F(NbJob, DeletionDuringTheConnectAndTheWrite) {
    const struct {
        int busy, deleteAtGetJob;
        bool started;
    } cases[] = {{3 * 21, 2, false}, {0, 1, false}, {0, 3, true}};  // a busy connect is answered busy 21 times
    for (const auto &c : cases) {
        SCOPED_TRACE(c.deleteAtGetJob);
        PINIPORT port = Start({"PS1"}, 0.01, PROTOCOL_AUTO);
        kvtps::ChannelFaults busy;
        busy.busyAnswers = c.busy;
        SetChannelFaults(busy);
        kvthost::SetGetJobHook([&](DWORD jobId, int call) {
            if (call == c.deleteAtGetJob) kvthost::SetJobStatus(kPrinter, jobId, JOB_STATUS_DELETING);
        });
        EXPECT_EQ(StartDoc(port), c.started);
        DWORD written = 0;
        std::string data(3000, 'd');
        if (c.started) {
            EXPECT_TRUE(LocalmonWritePort(port, reinterpret_cast<LPBYTE>(data.data()), 3000, &written));
            EXPECT_EQ(written, 1000u);
            EXPECT_TRUE(LocalmonEndDocPort(port));
        } else {
            EXPECT_EQ(LogLinesStartingWith("Leave LocalmonStartDocPort - user delete job (status: 00000000)").size(),
                      1u);
        }
        EXPECT_TRUE(LogLinesStartingWith("Try ").empty());
        EXPECT_EQ(emulator.NetbiosCounters("PS1").channel.hangups, c.started ? 1u : 0u);
        EXPECT_EQ(port->Status, 0u);
        kvthost::SetGetJobHook(nullptr);
        emulator.Stop();
    }
}

// A search reply that reaches the read's receive first fails its test; the
// try sends again, and the image comes with the next.
TEST_F(NbJob, ASearchReplyDuringTheEepromReadCostsOneTry) {
    Start({"PS1"}, 0.5);
    std::string searchReply = std::string("PS\x80\x00\x01\x04", 6) + std::string(68, '\0');
    searchReply.replace(16, 5, "OTHER");
    kvthost::SetNetbiosHook([&, sent = std::make_shared<bool>(false)](const NCB &ncb) -> uint8_t {
        if (ncb.ncb_command == NCBDGSEND && Text(ncb.ncb_callname, NCBNAMSZ) == "PS1.CFG         " &&
            !std::exchange(*sent, true)) {
            nbtest::Send(nbtest::Add("STRANGER"), Text(ncb.ncb_name, NCBNAMSZ), searchReply);
            EXPECT_TRUE(nbtest::Soon([] { return kvthost::NetbiosPendingReceives() == 0; }));
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

}  // namespace
