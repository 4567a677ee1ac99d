// The frame of a job: which transport goes first, the fall-over order, the
// refusals before any transport runs, the final last errors, and the end of
// the job with its notice.
#include <gtest/gtest.h>

#include "fixture.h"
#include "transport.h"

namespace {

using kvttest::HostOptions;
using kvttest::LogLinesStartingWith;

// The transports tried, in order, as the log tells them.
std::vector<std::string> TransportsTried() {
    std::vector<std::string> tried;
    for (const auto &line : kvttest::LogLines())
        if (line.rfind("Printing use ", 0) == 0) tried.push_back(line.substr(13));
    return tried;
}

HostOptions Host(bool tcpip, bool ipx, bool netbios) {
    HostOptions o;
    o.tcpip = tcpip;
    o.ipx = ipx;
    o.netbios = netbios;
    return o;
}

struct ChoiceCase {
    const char *name;
    HostOptions host;
    uint8_t stored;        // the port's " " value
    DWORD workProtocol;    // what last worked on the port
    std::vector<std::string> tried;
    DWORD workAfter;
    DWORD lastError;
};

class TransportChoiceTest : public JobTest, public ::testing::WithParamInterface<ChoiceCase> {};

// No print server answers anywhere: every transport that is tried fails, so
// the log shows the whole walk.
TEST_P(TransportChoiceTest, WalksTheTransportsInTheirOrder) {
    const ChoiceCase &c = GetParam();
    PINIPORT port = StartPort(c.host, c.stored);
    kvtps::LprFaults faults;
    faults.refuse = true;
    StartServer(faults, false);
    port->WorkProtocol = c.workProtocol;
    EXPECT_FALSE(StartDoc(port));
    EXPECT_EQ(GetLastError(), c.lastError);
    EXPECT_EQ(TransportsTried(), c.tried);
    EXPECT_EQ(port->WorkProtocol, c.workAfter);
    EXPECT_EQ(port->Status, 0u);
    EXPECT_EQ(port->hPrinter, nullptr);
    EXPECT_EQ(kvthost::OpenPrinterHandles(), 0);
    // NetBIOS is started before the port is claimed when the job may use it:
    // on a host with NetBIOS, for a port on automatic or fixed to NetBIOS.
    std::vector<std::string> lines = kvttest::LogLines();
    auto first = [&](const std::string &prefix) {
        for (size_t i = 0; i < lines.size(); ++i)
            if (lines[i].rfind(prefix, 0) == 0) return i;
        return lines.size();
    };
    bool mayUseNetbios = c.host.netbios && (c.stored == 0 || c.stored == 3 || c.stored == 4);
    EXPECT_EQ(first("Support NETBIOS") < first("Status = "), mayUseNetbios);
}

const std::vector<std::string> kTcpIpxNb = {"TCPIP", "IPX", "NETBIOS"};

INSTANTIATE_TEST_SUITE_P(
    JobFlow, TransportChoiceTest,
    ::testing::Values(
        ChoiceCase{"AutomaticStartsWithTcpip", Host(true, true, true), 0, 0, kTcpIpxNb, 0, ERROR_IO_DEVICE},
        ChoiceCase{"AutomaticStartsWithWhatLastWorked", Host(true, true, true), 0, 1,
                   {"IPX", "TCPIP", "NETBIOS"}, 1, ERROR_IO_DEVICE},
        ChoiceCase{"NetbiosFallsOverToIpxThenTcpip", Host(true, true, true), 0, 4, {"NETBIOS", "IPX", "TCPIP"}, 4,
                   ERROR_IO_DEVICE},
        ChoiceCase{"FixedTcpipNeverFallsOver", Host(true, true, true), 2, 0, {"TCPIP"}, 2, ERROR_IO_DEVICE},
        ChoiceCase{"FixedIpxNeverFallsOver", Host(true, true, true), 1, 0, {"IPX"}, 1, ERROR_IO_DEVICE},
        // A port fixed to a transport the host lacks: no connect ever answered.
        ChoiceCase{"FixedIpxOnAHostWithoutIpx", Host(true, false, false), 1, 0, {"IPX"}, 1, ERROR_IO_DEVICE},
        ChoiceCase{"FixedNetbiosNeverFallsOver", Host(true, true, true), 4, 2, {"NETBIOS"}, 4, ERROR_IO_DEVICE},
        // A host without TCP/IP skips it only when nothing has worked yet.
        ChoiceCase{"IpxHostStartsWithIpxAndMasksTcpip", Host(false, true, true), 0, 0, {"IPX", "NETBIOS"}, 0,
                   ERROR_IO_DEVICE},
        ChoiceCase{"NetbiosOnlyHostTriesNetbiosAlone", Host(false, false, true), 0, 0, {"NETBIOS"}, 0,
                   ERROR_IO_DEVICE},
        ChoiceCase{"LastWorkedStillTriedOnAHostThatLostIt", Host(false, false, true), 0, 2, {"TCPIP", "IPX", "NETBIOS"},
                   2, ERROR_IO_DEVICE},
        // A stored code that names no transport counts as automatic.
        ChoiceCase{"UnknownStoredProtocolIsAutomatic", Host(true, true, true), 3, 0, kTcpIpxNb, 0,
                   ERROR_IO_DEVICE}),
    [](const ::testing::TestParamInfo<ChoiceCase> &info) { return std::string(info.param.name); });

TEST_F(JobTest, FallOverIsLoggedBeforeEachNextTransport) {
    PINIPORT port = StartPort(Host(true, true, true));
    kvtps::LprFaults faults;
    faults.refuse = true;
    StartServer(faults, false);
    EXPECT_FALSE(StartDoc(port));
    std::vector<std::string> lines;
    for (const auto &l : kvttest::LogLines())
        if (l.rfind("Printing use", 0) == 0 || l.rfind("Try ", 0) == 0 || l.rfind("not support", 0) == 0 ||
            l.rfind("Not support", 0) == 0 || l.rfind("Leave LocalmonStartDocPort", 0) == 0)
            lines.push_back(l);
    std::vector<std::string> expected = {
        "Printing use TCPIP", "Try IPX protocol", "Printing use IPX", "Try NETBIOS protocol",
        "Printing use NETBIOS", "Leave LocalmonStartDocPort - ERROR_IO_DEVICE (tid = 0xFF status: 00000000"};
    EXPECT_EQ(lines, expected);
}

TEST_F(JobTest, TransportsTheHostLacksAreSaidSo) {
    PINIPORT port = StartPort(Host(false, false, true), 0);
    port->WorkProtocol = PROTOCOL_TCPIP;
    EXPECT_FALSE(StartDoc(port));
    EXPECT_EQ(LogLinesStartingWith("Not support TCPIP").size(), 1u);
    EXPECT_EQ(LogLinesStartingWith("not support IPX").size(), 1u);
    EXPECT_TRUE(LogLinesStartingWith("Entry LprOpenFile").empty()) << "no connect without TCP/IP";
}

TEST_F(JobTest, AJobThatStartsRecordsItsTransport) {
    PINIPORT port = StartPort(Host(true, true, true));
    StartServer(kvtps::LprFaults(), false);
    port->WorkProtocol = PROTOCOL_IPX;  // IPX is tried first and fails
    ASSERT_TRUE(StartDoc(port));
    EXPECT_EQ(port->PrintProtocol, static_cast<DWORD>(SELECTOR_TCPIP));
    EXPECT_EQ(port->WorkProtocol, static_cast<DWORD>(PROTOCOL_TCPIP));
    EXPECT_EQ(TransportsTried(), (std::vector<std::string>{"IPX", "TCPIP"}));
    EXPECT_TRUE(LocalmonEndDocPort(port));
}

TEST_F(JobTest, AHostWithoutProtocolsRefusesBeforeTouchingThePort) {
    PINIPORT port = StartPort(Host(false, false, false));
    EXPECT_FALSE(StartDoc(port));
    EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
    EXPECT_EQ(LogLinesStartingWith("Leave LocalmonStartDocPort - no support any protocol").size(), 1u);
    EXPECT_EQ(port->Status, 0u);
    EXPECT_TRUE(kvthost::SpoolerCalls().empty());
}

TEST_F(JobTest, AChannelJobIsRefusedBeforeTheStatusIsTouched) {
    PINIPORT port = StartPort();
    DOC_INFO_2W info{};
    info.dwMode = DI_CHANNEL;
    EXPECT_FALSE(StartDoc(port, 2, reinterpret_cast<LPBYTE>(&info)));
    EXPECT_EQ(GetLastError(), ERROR_CANTREAD);
    EXPECT_EQ(port->Status, 0u);
    EXPECT_TRUE(kvthost::SpoolerCalls().empty());
    // The same mode at level 1 is no channel job.
    StartServer();
    EXPECT_TRUE(StartDoc(port, 1, reinterpret_cast<LPBYTE>(&info)));
    LocalmonEndDocPort(port);
}

TEST_F(JobTest, ASecondJobOnABusyPortIsRefusedAndTheFirstGoesOn) {
    PINIPORT port = StartPort();
    StartServer();
    ASSERT_TRUE(StartDoc(port));
    SOCKET socket = port->Socket;
    EXPECT_FALSE(StartDoc(port));
    EXPECT_EQ(GetLastError(), ERROR_BUSY);
    EXPECT_EQ(port->Status, PP_LPRREADY);
    EXPECT_EQ(port->Socket, socket);
    EXPECT_EQ(port->JobId, 7u);
    ASSERT_TRUE(WriteAll(port, "still printing"));
    LocalmonEndDocPort(port);
    ASSERT_TRUE(emulator.WaitForJobs("PS1", 1, 10000));
    EXPECT_EQ(emulator.Jobs("PS1").front().data, "still printing");
    EXPECT_EQ(emulator.Counters("PS1").connectionsAccepted, 1u);
}

TEST_F(JobTest, APrinterThatDoesNotOpenEndsTheStart) {
    PINIPORT port = StartPort();
    EXPECT_FALSE(StartDoc(port, 1, nullptr, u"No such printer"));
    EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
    EXPECT_EQ(port->Status, 0u);
    EXPECT_EQ(port->hPrinter, nullptr);
}

TEST_F(JobTest, EndingAJobTellsTheSpoolerAndFreesThePort) {
    PINIPORT port = StartPort();
    StartServer();
    ASSERT_TRUE(StartDoc(port));
    EXPECT_TRUE(LocalmonEndDocPort(port));
    EXPECT_EQ(port->Status, 0u);
    EXPECT_EQ(port->hPrinter, nullptr);
    EXPECT_EQ(kvthost::OpenPrinterHandles(), 0);
    EXPECT_NE(kvthost::JobStatus(kPrinter, 7) & JOB_STATUS_PRINTED, 0u);
    bool sentToPrinter = false, printerStatus = false;
    for (const auto &call : kvthost::SpoolerCalls()) {
        if (call.function == "SetJobW" && call.command == JOB_CONTROL_SENT_TO_PRINTER && call.jobId == 7)
            sentToPrinter = true;
        if (call.function == "SetPrinterW" && call.command == PRINTER_CONTROL_SET_STATUS) printerStatus = true;
    }
    EXPECT_TRUE(sentToPrinter);
    EXPECT_TRUE(printerStatus);
    EXPECT_TRUE(kvthost::MessageBoxes().size() <= 1) << "only the start-up box; no notice";
}

TEST_F(JobTest, EndingAnIdlePortDoesNothing) {
    PINIPORT port = StartPort();
    EXPECT_TRUE(LocalmonEndDocPort(port));
    EXPECT_TRUE(kvthost::SpoolerCalls().empty());
}

TEST_F(JobTest, TheNoticeFollowsAJobOnlyWhenIsNotifyIsOne) {
    for (int notify : {0, 1, 2}) {
        SCOPED_TRACE(notify);
        HostOptions options;
        options.notify = notify;
        PINIPORT port = StartPort(options);
        StartServer();
        ASSERT_TRUE(StartDoc(port));
        kvthost::ClearMessageBoxes();
        LocalmonEndDocPort(port);
        auto boxes = kvthost::MessageBoxes();
        if (notify == 1) {
            ASSERT_EQ(boxes.size(), 1u);
            EXPECT_EQ(boxes[0].text, u"report printing success !!");
            EXPECT_EQ(boxes[0].caption, kPrinter);
            EXPECT_EQ(boxes[0].type, static_cast<unsigned>(MB_ICONINFORMATION));
        } else {
            EXPECT_TRUE(boxes.empty());
        }
        emulator.Stop();
        host.reset();
    }
}

// The job end reads the job record into 512 bytes, as the deletion test does:
// a record that doesn't fit (a long document name) is not read, and the notice
// then names no document.
TEST_F(JobTest, TheNoticeOfAJobWhoseRecordDoesNotFitNamesNoDocument) {
    HostOptions options;
    options.notify = 1;
    PINIPORT port = StartPort(options);
    kvthost::JobSpec job;
    job.printer = kPrinter;
    job.jobId = 7;
    job.document = std::u16string(300, u'd');
    kvthost::AddJob(job);
    StartServer();
    ASSERT_TRUE(StartDoc(port));
    kvthost::ClearMessageBoxes();
    LocalmonEndDocPort(port);
    auto boxes = kvthost::MessageBoxes();
    ASSERT_EQ(boxes.size(), 1u);
    EXPECT_EQ(boxes[0].text, u" printing success !!");
    EXPECT_EQ(boxes[0].caption, u"PS1-P1");
}

TEST_F(JobTest, ClosingThePortLeavesARunningJobAlone) {
    PINIPORT port = StartPort();
    StartServer();
    ASSERT_TRUE(StartDoc(port));
    EXPECT_TRUE(LocalmonClosePort(port));
    EXPECT_EQ(port->Status, PP_LPRREADY);
    ASSERT_TRUE(WriteAll(port, "after close"));
    LocalmonEndDocPort(port);
}

}  // namespace
