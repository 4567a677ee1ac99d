// The print channel and the IPX transport: frames and what a reply must
// carry, the resend and busy limits, jobs on each printer port, replies that
// fail the test, deletions, the search at job start, and the IPX search,
// against an emulated print server at 127.0.0.2 (node 00-00-7F-00-00-02).
#include <gtest/gtest.h>

#include "channel.h"
#include "discovery.h"
#include "discovery_fixture.h"
#include "ipx.h"
#include "job_fixture.h"

namespace {

using kvttest::Eventually;
using kvttest::LogLinesStartingWith;

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
        {connect, "50 53 80 02 02 00 00 00 00 00 00 00", true},  // busy
        {connect, "50 53 81 02 02 07 00 00 00 00 00 00", false},
        {connect, "50 53 00 02 02 07 00 00 00 00 00 00", false},
        {connect, "50 54 80 02 02 07 00 00 00 00 00 00", false},
        {connect, "50 53 80 04 02 07 00 00 00 00 00 00", false},
        {connect, "50 53 80 02 03 07 00 00 00 00 00 00", false},
        {connect, "50 53 80 02 02 07 00 00 00 00 00", false},  // 11 bytes
        {data, "50 53 80 04 02 07 AA BB 02 00 00 00", true},
        {data, "50 53 80 04 02 07 00 00 03 00 00 00", false},
        {data, "50 53 80 04 02 08 00 00 02 00 00 00", false},
        {hangup, "50 53 80 08 02 07 AA BB 00 00 00 00", true},
        {hangup, "50 53 80 08 02 07 00 00 01 00 00 00", false},
    };
    for (const auto &c : cases) {
        std::string reply = Hex(c.reply);
        EXPECT_EQ(IsChannelReplyAcceptable(c.request, reinterpret_cast<const BYTE *>(reply.data()),
                                           static_cast<int>(reply.size())),
                  c.acceptable)
            << c.reply;
    }
}

// An IPX-only host with port PS1-P<digit> (fixed to IPX unless told), and PS1 on IPX.
class IpxJob : public JobTest {
protected:
    PINIPORT Start(const kvtps::IpxFaults &faults = kvtps::IpxFaults(), char16_t digit = u'1', double scale = 0.02,
                   uint8_t protocol = PROTOCOL_IPX) {
        kvttest::HostOptions options;
        options.tcpip = false;
        options.ipx = true;
        options.timeScale = scale;
        PINIPORT port = StartPort(options, protocol, nullptr, digit);
        std::memcpy(port->NodeID, kPs1Node, 6);  // also when a search misses its short wait
        kvtps::ServerConfig config;
        config.name = "PS1";
        config.address = "127.0.0.2";
        config.ipxFaults = faults;
        std::string error;
        EXPECT_TRUE(emulator.Start({config}, &error)) << error;
        return port;
    }
    kvtps::IpxCounters Seen() { return emulator.IpxCountersOf("PS1"); }
    kvtps::IpxJob LastJob() {
        std::vector<kvtps::IpxJob> jobs = emulator.IpxJobs("PS1");
        return jobs.empty() ? kvtps::IpxJob() : jobs.back();
    }
    // The job as the spooler prints it: start, the data and a write of 0 bytes, end.
    void PrintWhole(PINIPORT port, const std::string &data) {
        ASSERT_TRUE(StartDoc(port));
        ASSERT_TRUE(WriteAll(port, data));
        DWORD written = kSentinel;
        ASSERT_TRUE(LocalmonWritePort(port, nullptr, 0, &written));
        EXPECT_EQ(written, 0u);
        ASSERT_TRUE(LocalmonEndDocPort(port));
    }
};

TEST_F(IpxJob, ASilentServerIsSentEachFrame21Or6TimesAndBusyThenSilentIsBusy) {
    kvtps::IpxFaults silent;
    silent.silent = true;
    Start(silent, u'1', 0.001);
    const BYTE payload[3] = {1, 2, 3};
    EXPECT_EQ(IPXConnect(kPs1Node, 1), CONNECT_NO_RESPONSE);
    EXPECT_FALSE(IPXSendData(kPs1Node, 1, 7, 0, payload, 3));
    EXPECT_FALSE(IPXHangup(kPs1Node, 1, 7));
    EXPECT_FALSE(IPXSendData(kPs1Node, 4, 7, 0, payload, 3)) << "no printer port 4";
    silent.busyAnswers = 1;
    emulator.SetIpxFaults("PS1", silent);
    EXPECT_EQ(IPXConnect(kPs1Node, 1), CONNECT_BUSY);
    EXPECT_TRUE(Eventually([&] { return Seen().connects == 42 && Seen().dataFrames == 21 && Seen().hangups == 6; }))
        << Seen().connects << " connects, " << Seen().dataFrames << " data frames, " << Seen().hangups << " hang-ups";
}

// Every printer port on its own socket (port 3 on 0x3535), a stale node
// refreshed by the search, a write of 0 bytes as one empty frame, and one
// hang-up followed by its pause.
TEST_F(IpxJob, AJobGoesWholeToEachPrinterPort) {
    const std::string data = std::string(2000, 'j') + "tail";
    for (char16_t digit : {u'1', u'2', u'3'}) {
        SCOPED_TRACE(static_cast<char>(digit));
        PINIPORT port = Start(kvtps::IpxFaults(), digit);
        port->NodeID[5] = 0x22;  // stale
        TotalPrintServer = 1;
        lstrcpyW(AvailPS[0].Name, u"Shown by a dialog");
        PrintWhole(port, data.substr(0, 1000));
        ASSERT_TRUE(StartDoc(port));
        ASSERT_TRUE(WriteAll(port, data));
        DWORD before = GetTickCount();
        ASSERT_TRUE(LocalmonEndDocPort(port));
        EXPECT_GE(GetTickCount() - before, 500u) << "the pause after the hang-up";
        EXPECT_EQ(std::string(reinterpret_cast<char *>(port->NodeID), 6), std::string("\0\0\x7F\0\0\x02", 6));
        EXPECT_EQ(port->SendSeq, 3u);
        EXPECT_EQ(TotalPrintServer, 1) << "the table as the dialog showed it";
        EXPECT_EQ(kvthost::Narrow(AvailPS[0].Name), "Shown by a dialog");
        std::vector<kvtps::IpxJob> jobs = emulator.IpxJobs("PS1");
        ASSERT_EQ(jobs.size(), 2u);
        EXPECT_EQ(jobs[0].frames, 2u) << "1000 bytes, then the empty frame";
        EXPECT_EQ(jobs[0].data, data.substr(0, 1000));
        EXPECT_EQ(jobs[1].port, digit - u'0');
        EXPECT_EQ(jobs[1].data, data);
        EXPECT_TRUE(jobs[1].hungUp);
        EXPECT_EQ(Seen().hangups, 2u) << "one a job";
        emulator.Stop();
    }
}

struct ReplyCase {
    const char *name;
    kvtps::IpxFaults faults;
    uint64_t resent;  // frames sent again at least
    size_t failedCalls;
};

kvtps::IpxFaults Faulty(int flags, bool sequence, bool port, unsigned replies, int count) {
    kvtps::IpxFaults f;
    f.replyFlags = flags;
    f.wrongSequence = sequence;
    f.otherPort = port;
    f.faultReplies = replies;
    f.faultCount = count;
    return f;
}

class IpxReplies : public IpxJob, public ::testing::WithParamInterface<ReplyCase> {};

// A reply that fails the test is dropped, and the frame goes again byte for
// byte with the same number; a connect's reply may carry any Sequence.
TEST_P(IpxReplies, AreIgnoredUnlessAcceptable) {
    const ReplyCase &c = GetParam();
    PINIPORT port = Start(c.faults);
    const std::string data = std::string(1500, 'r');
    ASSERT_TRUE(StartDoc(port));
    ASSERT_TRUE(WriteAll(port, data));
    EXPECT_EQ(port->SendSeq, 2u);
    ASSERT_TRUE(LocalmonEndDocPort(port));
    kvtps::IpxJob job = LastJob();
    EXPECT_EQ(job.data, data);
    EXPECT_GE(job.duplicates, c.resent);
    EXPECT_EQ(job.changedRepeats, 0u);
    EXPECT_EQ(Seen().unanswered, 0u) << "no frame with a number out of turn";
    EXPECT_EQ(Seen().connects, 1u);
    EXPECT_EQ(LogLinesStartingWith("IPXSebdData = FALSE").size(), c.failedCalls);
}

INSTANTIATE_TEST_SUITE_P(
    IpxJob, IpxReplies,
    ::testing::Values(ReplyCase{"Flags81", Faulty(0x81, false, false, kvtps::kIpxReplyData, 3), 3, 0},
                      ReplyCase{"Flags00", Faulty(0x00, false, false, kvtps::kIpxReplyData, 3), 3, 0},
                      ReplyCase{"OtherPort", Faulty(-1, false, true, kvtps::kIpxReplyData, 3), 3, 0},
                      ReplyCase{"OtherSequence", Faulty(-1, true, false, kvtps::kIpxReplyData, 3), 3, 0},
                      // 42 replies lost: the first slice needs three calls, all with sequence 0.
                      ReplyCase{"ThreeCallsForOneSlice", Faulty(-1, true, false, kvtps::kIpxReplyData, 42), 42, 2},
                      ReplyCase{"AnySequenceForAConnect", Faulty(-1, true, false, kvtps::kIpxReplyConnect, -1), 0, 0}),
    [](const ::testing::TestParamInfo<ReplyCase> &info) { return std::string(info.param.name); });

// 61 busy answers end the job start (each connect resends 21 times), 60 do
// not; a name without a printer port sends no connect and waits as if busy.
TEST_F(IpxJob, TheBusyLimitAndANameWithoutAPrinterPort) {
    const struct {
        int busyConnects;
        bool noPort;
        bool started;
        uint64_t connects;
    } cases[] = {{61, false, false, 61 * 21}, {60, false, true, 60 * 21 + 1}, {0, true, false, 0}};
    for (const auto &c : cases) {
        kvtps::IpxFaults busy;
        busy.busyAnswers = c.busyConnects * 21;
        PINIPORT port = Start(busy, u'1', 0.002);
        if (c.noPort) {
            EnterCriticalSection(&PortListLock);
            port = CreateMonitorPortEntry(u"PS1-P9", MonitorName, kServerAddress, nullptr, port->NodeID, '9');
            LeaveCriticalSection(&PortListLock);
            port->WorkProtocol = PROTOCOL_IPX;
        }
        EXPECT_EQ(StartDoc(port), c.started);
        EXPECT_TRUE(c.noPort || c.started || GetLastError() == ERROR_BUSY) << GetLastError();
        std::vector<std::string> busyLines = LogLinesStartingWith("PrintServer response still busy");
        ASSERT_EQ(busyLines.size(), c.started ? 60u : 61u);
        EXPECT_EQ(busyLines.back(), c.started ? "PrintServer response still busy , sleep 500 ms (timeout=59)"
                                              : "PrintServer response still busy , sleep 500 ms (timeout=60)");
        EXPECT_EQ(LogLinesStartingWith("Connect fail").size(), c.started ? 0u : 1u);
        // A connect answered late is sent again: a started job may have a few more.
        EXPECT_TRUE(Eventually([&] { return Seen().connects == c.connects || (c.started && Seen().connects > c.connects); }))
            << Seen().connects;
        if (c.started) LocalmonEndDocPort(port);
        emulator.Stop();
    }
}

// Deleted while the print server is busy, just as it gives a channel, or
// during a write: the job on an automatic port ends without a fall-over to
// NetBIOS, and only the write's channel is hung up.
TEST_F(IpxJob, ADeletedJobEndsWithoutAFallOverAndHangsUpOnlyAfterAWrite) {
    const struct {
        int busyConnects;
        int deleteAtGetJob;
        bool started;
    } cases[] = {{3, 2, false}, {0, 1, false}, {0, 3, true}};
    for (const auto &c : cases) {
        kvtps::IpxFaults busy;
        busy.busyAnswers = c.busyConnects * 21;
        PINIPORT port = Start(busy, u'1', 0.002, PROTOCOL_AUTO);
        kvthost::SetGetJobHook([&](DWORD jobId, int call) {
            if (call == c.deleteAtGetJob) kvthost::SetJobStatus(kPrinter, jobId, JOB_STATUS_DELETING);
        });
        EXPECT_EQ(StartDoc(port), c.started);
        if (c.started) {
            DWORD written = 0;
            std::string data(3000, 'd');
            EXPECT_TRUE(LocalmonWritePort(port, reinterpret_cast<LPBYTE>(data.data()), 3000, &written));
            EXPECT_EQ(written, 1000u) << "the frame acknowledged before the deletion was seen";
            EXPECT_TRUE(LocalmonEndDocPort(port));
        } else {
            EXPECT_EQ(GetLastError(), kSentinel);
            EXPECT_EQ(LogLinesStartingWith("Leave LocalmonStartDocPort - user delete job(status: 00000000)").size(), 1u);
        }
        EXPECT_TRUE(LogLinesStartingWith("Try ").empty());
        EXPECT_EQ(Seen().hangups, c.started ? 1u : 0u);
        EXPECT_EQ(port->Status, 0u);
        kvthost::SetGetJobHook(nullptr);
        emulator.Stop();
    }
}

TEST_F(IpxJob, ASilentServerCostsFiveSearchesAndTheNodeStays) {
    kvtps::IpxFaults silent;
    silent.silent = true;
    PINIPORT port = Start(silent, u'1', 0.001);
    const BYTE stored[6] = {0, 0, 0x7F, 0, 0, 0x22};
    std::memcpy(port->NodeID, stored, 6);
    EXPECT_FALSE(StartDoc(port));
    EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
    EXPECT_EQ(std::memcmp(port->NodeID, stored, 6), 0);
    EXPECT_TRUE(Eventually([&] { return Seen().search == 5; })) << Seen().search;
    EXPECT_EQ(Seen().connects, 0u) << "the connects went to the stored node";
}

// ---- the IPX search ---------------------------------------------------------------------------

using kvttest::NameOf;
using kvttest::NodeOf;

TEST(IpxSearchReplies, NamesKeepTheirBlanksAndTheFirstNodeOfANameStays) {
    kvttest::TestHost host;
    kvttest::ClearTable();
    IsDEBUG = 1;
    auto reply = [](const std::string &name) {
        std::string r = Hex("01 04 00 00") + std::string(66, '\0');
        r.replace(12, name.size(), name);
        r[64] = 7;
        return r;
    };
    auto take = [&](const std::string &name, const char *node, int cb = 70) {
        return IPXSearchTakeReply(reinterpret_cast<const BYTE *>(reply(name).data()), cb,
                                  reinterpret_cast<const BYTE *>(node));
    };
    EXPECT_TRUE(take("Office  ", "\0\0\x7F\0\0\x02"));
    EXPECT_FALSE(take("Office  ", "\0\0\x7F\0\0\x03")) << "the same name from another node";
    EXPECT_TRUE(take("Office", "\0\0\x7F\0\0\x03")) << "no trimming: another name";
    EXPECT_FALSE(take("Short", "\0\0\x7F\0\0\x04", 64)) << "AutoProtocol not in it";
    ASSERT_EQ(TotalPrintServer, 2);
    EXPECT_EQ(NameOf(0), "Office  ");
    EXPECT_EQ(NodeOf(0), std::string("\0\0\x7F\0\0\x02", 6));
    EXPECT_EQ(AvailPS[0].AutoProtocol, 7);
    for (int i = 2; i <= AVAILPS_RECORDS; ++i) take("S" + std::to_string(i), "\0\0\x7F\0\0\x05");
    EXPECT_EQ(TotalPrintServer, AVAILPS_RECORDS);
    EXPECT_EQ(LogLinesStartingWith("AvailPS full"), std::vector<std::string>{"AvailPS full, left out: S100"});
}

// Two servers of one name share a record; one whose replies come from
// another node is listed with that node and never read; IPXSearch(0, 1)
// only reads what the table holds.
TEST_F(IpxJob, TheSearchListsEachNameOnceFromItsSendersNode) {
    Start(kvtps::IpxFaults(), u'1', 0.05);
    emulator.Stop();
    kvtps::ServerConfig a, b, c;
    a.name = "A", b.name = "B", c.name = "C";
    a.address = "127.0.0.2", b.address = "127.0.0.3", c.address = "127.0.0.4";
    a.deviceName = b.deviceName = "Shared ";
    a.model = b.model = 3;
    c.ipxFaults.replyNode = kvtps::NodeId{0, 0, 0x7F, 0, 0, 9};
    std::string error;
    ASSERT_TRUE(emulator.Start({a, b, c}, &error)) << error;
    kvttest::ClearTable();
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
