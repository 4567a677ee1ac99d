// The print channel and the IPX transport: frames and what a reply must
// carry, the resend and busy limits, jobs on each printer port, replies that
// fail the test, and the IPX search, against an emulated print server at
// 127.0.0.2 (node 00-00-7F-00-00-02); deletions during a job are
// nbtransport_test's, for both channels.
#include <gtest/gtest.h>

#include "channel.h"
#include "discovery.h"
#include "fixture.h"
#include "ipx.h"

namespace {

using namespace kvttest;

const BYTE kPs1Node[6] = {0, 0, 0x7F, 0, 0, 2};

std::string Hex(const char *text) {
    std::string bytes;
    for (unsigned byte = 0, n = 0; std::sscanf(text, "%2x%n", &byte, &n) == 1; text += n) bytes.push_back(char(byte));
    return bytes;
}

TEST(ChannelFrames, TheExampleOfAJobOnPort2AndWhatItsRepliesMustCarry) {
    BYTE connect[CHANNEL_FRAME_BYTES], data[CHANNEL_FRAME_BYTES], hangup[CHANNEL_FRAME_BYTES];
    ASSERT_EQ(BuildChannelFrame(CHANNEL_CONNECT, 2, 255, 0, nullptr, 0, connect), 12);
    ASSERT_EQ(BuildChannelFrame(CHANNEL_DATA, 2, 7, 2, reinterpret_cast<const BYTE *>("xy"), 2, data), 14);
    ASSERT_EQ(BuildChannelFrame(CHANNEL_HANGUP, 2, 7, 0, nullptr, 0, hangup), 12);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(connect), 12), Hex("50 53 00 02 02 FF 00 00 00 00 00 00"));
    EXPECT_EQ(std::string(reinterpret_cast<char *>(data), 14), Hex("50 53 00 04 02 07 00 00 02 00 00 00") + "xy");
    EXPECT_EQ(std::string(reinterpret_cast<char *>(hangup), 12), Hex("50 53 00 08 02 07 00 00 00 00 00 00"));
    const struct {
        const BYTE *request;
        const char *reply;
        bool acceptable;
    } cases[] = {
        {connect, "50 53 80 02 02 07 AA BB CC DD EE FF", true},  // a connect's Sequence isn't read
        {connect, "50 53 81 02 02 07 00 00 00 00 00 00", false},
        {connect, "50 53 80 02 02 07 00 00 00 00 00", false},  // 11 bytes
        {data, "50 53 80 04 02 07 AA BB 02 00 00 00", true},
        {data, "50 53 80 04 02 08 00 00 02 00 00 00", false},
        {hangup, "50 53 80 08 02 07 AA BB 00 00 00 00", true},
    };
    for (const auto &c : cases) {
        std::string reply = Hex(c.reply);
        EXPECT_EQ(IsChannelReplyAcceptable(c.request, reinterpret_cast<const BYTE *>(reply.data()),
                                           static_cast<int>(reply.size())),
                  c.acceptable)
            << c.reply;
    }
}

// An IPX-only host with port PS1-P<digit> fixed to IPX, and PS1 on IPX with
// the print channel's faults; the port holds PS1's node, also when a search
// misses its short wait.
class IpxJob : public JobTest {
protected:
    PINIPORT Start(const kvtps::ChannelFaults &faults = {}, char16_t digit = u'1', double scale = 0.02) {
        PINIPORT port = StartPort({.tcpip = false, .ipx = true, .timeScale = scale}, PROTOCOL_IPX, nullptr, digit);
        std::memcpy(port->NodeID, kPs1Node, 6);
        kvtps::ServerConfig config = Server();
        static_cast<kvtps::ChannelFaults &>(config.ipxFaults) = faults;
        StartServers({config});
        return port;
    }
    kvtps::IpxCounters Seen() { return emulator.IpxCountersOf("PS1"); }
};

// 21, 21 and 6 sends to a silent server; busy, then silent, is busy; a job
// start costs five searches and keeps the stored node.
TEST_F(IpxJob, ASilentServerIsSentEachFrame21Or6TimesAndSearchedFiveTimes) {
    PINIPORT port = Start({.silent = true}, u'1', 0.001);
    const BYTE payload[3] = {1, 2, 3};
    EXPECT_EQ(IPXConnect(kPs1Node, 1), CONNECT_NO_RESPONSE);
    EXPECT_FALSE(IPXSendData(kPs1Node, 1, 7, 0, payload, 3));
    EXPECT_FALSE(IPXHangup(kPs1Node, 1, 7));
    EXPECT_FALSE(IPXSendData(kPs1Node, 4, 7, 0, payload, 3)) << "no printer port 4";
    port->NodeID[5] = 0x22;
    EXPECT_FALSE(StartDoc(port));
    EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
    EXPECT_EQ(port->NodeID[5], 0x22);
    emulator.SetIpxFaults("PS1", With(kvtps::IpxFaults(), [](auto &f) { f.silent = true, f.busyAnswers = 1; }));
    EXPECT_EQ(IPXConnect(kPs1Node, 1), CONNECT_BUSY);
    EXPECT_TRUE(Eventually([&] {
        return Seen().connects == 42 && Seen().dataFrames == 21 && Seen().hangups == 6 && Seen().search == 5;
    }));
}

// Every printer port on its own socket (port 3 on 0x3535), a stale node
// refreshed by the search, the table put back for the dialog that shows it, a
// write of 0 bytes as one empty frame, one hang-up and its pause.
TEST_F(IpxJob, AJobGoesWholeToEachPrinterPort) {
    const std::string data = std::string(2000, 'j') + "tail";
    for (char16_t digit : {u'1', u'2', u'3'}) {
        PINIPORT port = Start({}, digit);
        port->NodeID[5] = 0x22;
        TotalPrintServer = 1;
        lstrcpyW(AvailPS[0].Name, u"Shown by a dialog");
        ASSERT_TRUE(StartDoc(port));
        ASSERT_TRUE(WriteAll(port, data));
        DWORD written = kSentinel;
        ASSERT_TRUE(LocalmonWritePort(port, nullptr, 0, &written));
        EXPECT_EQ(written, 0u);
        EXPECT_EQ(port->SendSeq, 4u);
        DWORD before = GetTickCount();
        ASSERT_TRUE(LocalmonEndDocPort(port));
        EXPECT_GE(GetTickCount() - before, 500u) << "the pause after the hang-up";
        EXPECT_EQ(port->NodeID[5], 2);
        EXPECT_EQ(TotalPrintServer, 1);
        EXPECT_EQ(kvthost::Narrow(AvailPS[0].Name), "Shown by a dialog");
        std::vector<kvtps::IpxJob> jobs = emulator.IpxJobs("PS1");
        ASSERT_EQ(jobs.size(), 1u);
        EXPECT_EQ(jobs[0].port, digit - u'0');
        EXPECT_EQ(jobs[0].data, data);
        EXPECT_EQ(jobs[0].frames, 4u) << "three slices and the empty frame";
        EXPECT_TRUE(jobs[0].hungUp);
        EXPECT_EQ(Seen().hangups, 1u);
    }
}

// A reply that fails the test is dropped, and the frame goes again byte for
// byte with the same number; a connect's reply may carry any Sequence.
TEST_F(IpxJob, RepliesThatFailTheTestAreIgnored) {
    const unsigned data = kvtps::kIpxReplyData;
    const struct {
        kvtps::ChannelFaults faults;
        uint64_t resent;
        size_t failedCalls;
    } cases[] = {{{.replyFlags = 0x00, .faultReplies = data, .faultCount = 3}, 3, 0},
                 {{.otherPort = true, .faultReplies = data, .faultCount = 3}, 3, 0},
                 {{.wrongSequence = true, .faultReplies = data, .faultCount = 42}, 42, 2},  // three calls for one slice
                 {{.wrongSequence = true, .faultReplies = kvtps::kIpxReplyConnect}, 0, 0}};
    for (const auto &c : cases) {
        PINIPORT port = Start(c.faults);
        ASSERT_TRUE(StartDoc(port));
        ASSERT_TRUE(WriteAll(port, std::string(1500, 'r')));
        EXPECT_EQ(port->SendSeq, 2u);
        ASSERT_TRUE(LocalmonEndDocPort(port));
        kvtps::IpxJob job = emulator.IpxJobs("PS1").back();
        EXPECT_EQ(job.data, std::string(1500, 'r'));
        EXPECT_GE(job.duplicates, c.resent);
        EXPECT_EQ(job.changedRepeats, 0u);
        EXPECT_EQ(Seen().unanswered, 0u) << "no frame with a number out of turn";
        EXPECT_EQ(Seen().connects, 1u);
        EXPECT_EQ(LogCount("IPXSebdData = FALSE"), c.failedCalls);
    }
}

// 61 busy answers end the job start (each connect sends 21 times), 60 do
// not; a name without a printer port sends no connect and waits as if busy.
TEST_F(IpxJob, TheBusyLimitAndANameWithoutAPrinterPort) {
    const struct {
        int busyConnects;
        bool noPort, started;
        uint64_t connects;
    } cases[] = {{61, false, false, 61 * 21}, {60, false, true, 60 * 21 + 1}, {0, true, false, 0}};
    for (const auto &c : cases) {
        PINIPORT port = Start({.busyAnswers = c.busyConnects * 21}, u'1', 0.002);
        if (c.noPort) {
            port = CreateMonitorPortEntry(u"PS1-P9", MonitorName, kServerAddress, nullptr, port->NodeID, '9');
            port->WorkProtocol = PROTOCOL_IPX;
        }
        EXPECT_EQ(StartDoc(port), c.started);
        EXPECT_TRUE(c.noPort || c.started || GetLastError() == ERROR_BUSY) << GetLastError();
        EXPECT_EQ(c.started && LocalmonEndDocPort(port), c.started);
        EXPECT_EQ(Seen().hangups, c.started ? 1u : 0u);
        std::vector<std::string> busyLines = LogLinesStartingWith("PrintServer response still busy");
        ASSERT_EQ(busyLines.size(), c.started ? 60u : 61u);
        EXPECT_EQ(busyLines.back(), std::string("PrintServer response still busy , sleep 500 ms (timeout=") +
                                        (c.started ? "59)" : "60)"));
        // A name without a printer port falls over to NetBIOS, which fails it as well.
        EXPECT_EQ(LogCount("Connect fail"), c.started ? 0u : c.noPort ? 2u : 1u);
        // A connect answered with a channel late is sent again: there may be a few more.
        EXPECT_TRUE(Eventually([&] {
            return Seen().connects == c.connects || (c.started && Seen().connects > c.connects);
        })) << Seen().connects;
        EXPECT_EQ(port->Status, 0u);
    }
}

// Two servers of one name, its blanks kept, share a record; one whose replies
// come from another node is listed with that node and never read;
// IPXSearch(0, 1) only reads what the table holds.
TEST_F(IpxJob, TheSearchListsEachNameOnceFromItsSendersNode) {
    Start({}, u'1', 0.05);
    kvtps::ServerConfig a = Server("A"), b = Server("B", "127.0.0.3"), c = Server("C", "127.0.0.4");
    a.deviceName = b.deviceName = "Shared ";
    a.model = b.model = 3;
    c.ipxFaults.replyNode = kvtps::NodeId{0, 0, 0x7F, 0, 0, 9};
    StartServers({a, b, c});
    for (auto &record : AvailPS) record.ModelType = 0x42;
    EXPECT_TRUE(IPXSearch(3, 1));
    ASSERT_EQ(TotalPrintServer, 2);
    const int shared = NameOf(0) == "Shared " ? 0 : 1;
    EXPECT_EQ(NameOf(1 - shared), "C");
    EXPECT_EQ(NodeOf(1 - shared), std::string("\0\0\x7F\0\0\x09", 6));
    EXPECT_EQ(AvailPS[1 - shared].ModelType, 0x42) << "no answer to its read: the slot keeps what it held";
    EXPECT_EQ(AvailPS[shared].ModelType, 3);
    EXPECT_EQ(AvailPS[shared].Flags, PS_FLAG_TCPIP_SUPPORTED | PS_FLAG_TCPIP_ENABLED);
    auto reads = [&](const char *server) { return emulator.IpxCountersOf(server).readEeprom; };
    EXPECT_TRUE(Eventually([&] {
        return emulator.IpxCountersOf("A").search == 3 && emulator.IpxCountersOf("C").search == 3 &&
               reads("A") + reads("B") >= 1 && std::min(reads("A"), reads("B")) == 0 && reads("C") == 0;
    }));
    AvailPS[shared].ModelType = 0;
    EXPECT_TRUE(IPXSearch(0, 1));
    EXPECT_EQ(AvailPS[shared].ModelType, 3);
    EXPECT_EQ(TotalPrintServer, 2);
    EXPECT_EQ(emulator.IpxCountersOf("A").search, 3u) << "no pass, no search";
}

}  // namespace
