// The NetBIOS transport against PS1 of kvtps on a host with NetBIOS alone:
// the exchange of one frame (a reply at once, silence, busy then silence,
// refused sends), the templates and names a job sends from and to, and
// deletions during its connect and write.
#include <gtest/gtest.h>

#include "channel.h"
#include "discovery_fixture.h"
#include "job_fixture.h"
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
        {"silent data", 0.01, true, 0, 0, CHANNEL_DATA, FALSE, 21, 1},
        {"silent hang-up", 0.01, true, 0, 0, CHANNEL_HANGUP, FALSE, 6, 1},
        {"silent connect", 0.01, true, 0, 0, CHANNEL_CONNECT, CONNECT_NO_RESPONSE, 21, 1},
        {"busy, then silent", 0.01, true, 1, 0, CHANNEL_CONNECT, CONNECT_BUSY, 21, 1},
        {"refused resends", 0.01, true, 0, NRC_ILLNN, CHANNEL_DATA, FALSE, 1 + NB_REFUSED_RESENDS + 1, 1},
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
// which is the name a server with a longer one holds.
TEST_F(NbJob, AJobSendsFromItsPortsTemplateToTheServersNameCutTo16Bytes) {
    const std::string names[] = {"PS1", "ABCDEFGHIJKLMNOP", "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123"};
    for (const std::string &server : names) {
        SCOPED_TRACE(server);
        PINIPORT port = Start({server}, 0.05);
        std::u16string portName(server.begin(), server.end());
        port = CreateMonitorPortEntry((portName + u"-P2").c_str(), MonitorName, kServerAddress,
                                      nullptr, port->NodeID, '2');
        ASSERT_TRUE(StartDoc(port));
        EXPECT_EQ(std::memcmp(&port->NcbCopy, &PortNcb2, sizeof(NCB)), 0);
        EXPECT_EQ(std::string(port->ServerName), server.substr(0, NB_SERVER_NAME_BYTES - 1));
        const NCB copy = PortNcb2;
        std::memset(PortNcb2.ncb_name, 'X', NCBNAMSZ);  // a start-up on another thread
        ASSERT_TRUE(WriteAll(port, "page"));
        PortNcb2 = copy;
        ASSERT_TRUE(LocalmonEndDocPort(port));
        const std::vector<kvthost::NetbiosCall> sends = FrameSends();
        ASSERT_EQ(sends.size(), 3u) << "connect, data, hang-up";
        for (const auto &s : sends) {
            EXPECT_EQ(Text(s.callname.data(), NCBNAMSZ), Text(kvtnb::MakeName(server.substr(0, 16)).data(), NCBNAMSZ));
            EXPECT_TRUE(Text(s.name.data(), NCBNAMSZ) == Text(copy.ncb_name, NCBNAMSZ) && s.num == copy.ncb_num &&
                        s.lana == copy.ncb_lana_num);
            EXPECT_EQ(s.data[4], 2) << "printer port 2";
        }
        EXPECT_TRUE(Eventually([&] { return !emulator.NetbiosJobs(server).empty(); }));
        EXPECT_EQ(emulator.NetbiosJobs(server).back().data, "page");
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

}  // namespace
