// The frame of a job: which transport goes first, the fall-over order, the
// refusals before any transport runs, the final last errors, and the end of
// the job with its notice.
#include <gtest/gtest.h>

#include "fixture.h"
#include "transport.h"

namespace {

using kvttest::HostOptions;
using kvttest::LogCount;

// The transports tried, in order, as the log tells them.
std::vector<std::string> TransportsTried() {
    std::vector<std::string> tried;
    for (const auto &line : kvttest::LogLines())
        if (line.rfind("Printing use ", 0) == 0) tried.push_back(line.substr(13));
    return tried;
}

HostOptions Host(bool tcpip, bool ipx, bool netbios) { return {.tcpip = tcpip, .ipx = ipx, .netbios = netbios}; }

struct ChoiceCase {
    const char *name;
    HostOptions host;
    uint8_t stored;      // the port's " " value
    DWORD workProtocol;  // what last worked on the port
    std::vector<std::string> tried;
    DWORD workAfter;
    std::vector<std::string> said;  // the lines of the connects, the fall-over and the lacks; the job start's last
};

class TransportChoiceTest : public JobTest, public ::testing::WithParamInterface<ChoiceCase> {};

// No print server answers anywhere: every transport that is tried fails, so
// the log shows the whole walk.
TEST_P(TransportChoiceTest, WalksTheTransportsInTheirOrder) {
    const ChoiceCase &c = GetParam();
    PINIPORT port = StartPort(c.host, c.stored);
    StartServer({.refuse = true}, false);
    port->WorkProtocol = c.workProtocol;
    EXPECT_FALSE(StartDoc(port));
    EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
    EXPECT_EQ(TransportsTried(), c.tried);
    EXPECT_EQ(port->WorkProtocol, c.workAfter);
    EXPECT_TRUE(port->Status == 0 && port->hPrinter == nullptr && kvthost::OpenPrinterHandles() == 0);
    const std::vector<std::string> lines = kvttest::LogLines();
    std::vector<std::string> said;
    for (const std::string &l : lines)
        for (const char *prefix :
             {"Entry LprOpenFile", "Try ", "not support", "Not support", "Leave LocalmonStartDocPort"})
            if (l.rfind(prefix, 0) == 0) said.push_back(l);
    EXPECT_EQ(said, c.said);
    // NetBIOS is started before the port is claimed when the job may use it:
    // on a host with NetBIOS, for a port on automatic or fixed to NetBIOS.
    auto first = [&](const char *prefix) {
        return std::find_if(lines.begin(), lines.end(), [&](const std::string &l) { return l.rfind(prefix, 0) == 0; });
    };
    bool mayUseNetbios = c.host.netbios && (c.stored == 0 || c.stored == 3 || c.stored == 4);
    EXPECT_EQ(first("Support NETBIOS") < first("Status = "), mayUseNetbios);
}

const std::vector<std::string> kTcpIpxNb = {"TCPIP", "IPX", "NETBIOS"};
// The job start's last line after LPR, IPX or NetBIOS failed it, each in its own words.
const std::string kLpr = "Leave LocalmonStartDocPort - ERROR_IO_DEVICE (status: 00000000)",
                  kIpx = "Leave LocalmonStartDocPort - ERROR_IO_DEVICE tid = 0xFF (status: 00000000)",
                  kNb = "Leave LocalmonStartDocPort - ERROR_IO_DEVICE (tid = 0xFF status: 00000000";
const std::string kLprOpen = "Entry LprOpenFile()", kRefused = "Entry LprOpenFile() error 7";

INSTANTIATE_TEST_SUITE_P(
    JobFlow, TransportChoiceTest,
    ::testing::Values(
        ChoiceCase{"AutomaticStartsWithTcpip", Host(true, true, true), 0, 0, kTcpIpxNb, 0,
                   {kLprOpen, kRefused, "Try IPX protocol", "Try NETBIOS protocol", kNb}},
        ChoiceCase{"AutomaticStartsWithWhatLastWorked", Host(true, true, true), 0, 1, {"IPX", "TCPIP", "NETBIOS"}, 1,
                   {"Try TCPIP protocol", kLprOpen, kRefused, "Try NETBIOS protocol", kNb}},
        ChoiceCase{"NetbiosFallsOverToIpxThenTcpip", Host(true, true, true), 0, 4, {"NETBIOS", "IPX", "TCPIP"}, 4,
                   {"Try IPX protocol", "Try TCPIP protocol", kLprOpen, kRefused, kLpr}},
        ChoiceCase{"FixedTcpipNeverFallsOver", Host(true, true, true), 2, 0, {"TCPIP"}, 2, {kLprOpen, kRefused, kLpr}},
        ChoiceCase{"FixedIpxNeverFallsOver", Host(true, true, true), 1, 0, {"IPX"}, 1, {kIpx}},
        // A port fixed to a transport the host lacks: no connect ever answered.
        ChoiceCase{"FixedIpxOnAHostWithoutIpx", Host(true, false, false), 1, 0, {"IPX"}, 1, {"not support IPX", kIpx}},
        ChoiceCase{"FixedNetbiosNeverFallsOver", Host(true, true, true), 4, 2, {"NETBIOS"}, 4, {kNb}},
        // A host without TCP/IP skips it only when nothing has worked yet.
        ChoiceCase{"IpxHostStartsWithIpxAndMasksTcpip", Host(false, true, true), 0, 0, {"IPX", "NETBIOS"}, 0,
                   {"Try NETBIOS protocol", kNb}},
        ChoiceCase{"NetbiosOnlyHostTriesNetbiosAlone", Host(false, false, true), 0, 0, {"NETBIOS"}, 0, {kNb}},
        // Tried, and said to be missing: no connect without TCP/IP.
        ChoiceCase{"LastWorkedStillTriedOnAHostThatLostIt", Host(false, false, true), 0, 2, kTcpIpxNb, 2,
                   {"Not support TCPIP", "Try IPX protocol", "not support IPX", "Try NETBIOS protocol", kNb}},
        // A stored code that names no transport counts as automatic.
        ChoiceCase{"UnknownStoredProtocolIsAutomatic", Host(true, true, true), 3, 0, kTcpIpxNb, 0,
                   {kLprOpen, kRefused, "Try IPX protocol", "Try NETBIOS protocol", kNb}}),
    [](const ::testing::TestParamInfo<ChoiceCase> &info) { return std::string(info.param.name); });

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

// Refusals before any transport runs, the port left free: on a host without
// protocols before the port is touched, of a channel job (level 2) before the
// status is, and when the printer does not open.
TEST_F(JobTest, AJobStartIsRefusedBeforeAnyTransportRuns) {
    DOC_INFO_2W channel{};
    channel.dwMode = DI_CHANNEL;
    const struct {
        HostOptions host;
        DWORD level;
        const char16_t *printer;
        DWORD error;
        bool spoolerUntouched;
    } cases[] = {{Host(false, false, false), 1, kPrinter, ERROR_IO_DEVICE, true},
                 {Host(true, false, false), 2, kPrinter, ERROR_CANTREAD, true},
                 {Host(true, false, false), 1, u"No such printer", ERROR_IO_DEVICE, false}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.error);
        PINIPORT port = StartPort(c.host);
        EXPECT_FALSE(StartDoc(port, c.level, reinterpret_cast<LPBYTE>(&channel), c.printer));
        EXPECT_EQ(GetLastError(), c.error);
        EXPECT_TRUE(port->Status == 0 && port->hPrinter == nullptr);
        EXPECT_TRUE(!c.spoolerUntouched || kvthost::SpoolerCalls().empty());
        EXPECT_EQ(LogCount("Leave LocalmonStartDocPort - no support any protocol"), c.host.tcpip ? 0u : 1u);
    }
    // The same mode at level 1 is no channel job.
    PINIPORT port = StartPort();
    StartServer();
    EXPECT_TRUE(StartDoc(port, 1, reinterpret_cast<LPBYTE>(&channel)));
    LocalmonEndDocPort(port);
}

// Ending a job tells the spooler and frees the port; ending an idle port does nothing.
TEST_F(JobTest, EndingAJobTellsTheSpoolerAndFreesThePort) {
    PINIPORT port = StartPort();
    EXPECT_TRUE(LocalmonEndDocPort(port));
    EXPECT_TRUE(kvthost::SpoolerCalls().empty());
    StartServer();
    ASSERT_TRUE(StartDoc(port));
    EXPECT_TRUE(LocalmonEndDocPort(port));
    EXPECT_TRUE(port->Status == 0 && port->hPrinter == nullptr && kvthost::OpenPrinterHandles() == 0);
    EXPECT_NE(kvthost::JobStatus(kPrinter, 7) & JOB_STATUS_PRINTED, 0u);
    const std::vector<kvthost::SpoolerCall> calls = kvthost::SpoolerCalls();
    EXPECT_TRUE(std::any_of(calls.begin(), calls.end(), [](const auto &c) {
        return c.function == "SetJobW" && c.command == JOB_CONTROL_SENT_TO_PRINTER && c.jobId == 7;
    }));
    EXPECT_TRUE(std::any_of(calls.begin(), calls.end(), [](const auto &c) {
        return c.function == "SetPrinterW" && c.command == PRINTER_CONTROL_SET_STATUS;
    }));
}

// The notice follows a job only when IsNOTIFY is 1.  The job end reads the job
// record into 512 bytes, as the deletion test does: a record that doesn't fit
// (a long document name) is not read, and the notice then names no document.
TEST_F(JobTest, TheNoticeFollowsAJobOnlyWhenIsNotifyIsOne) {
    const struct {
        int notify;
        std::u16string document, shown;  // text|caption|icon of the box
    } cases[] = {{0, u"report", u""}, {2, u"report", u""}, {1, u"report", u"report printing success !!|Office|i"},
                 {1, std::u16string(300, u'd'), u" printing success !!|PS1-P1|i"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.notify);
        PINIPORT port = StartPort({.notify = c.notify});
        AddJob(7, c.document);
        StartServer();
        ASSERT_TRUE(StartDoc(port));
        kvthost::ClearMessageBoxes();
        LocalmonEndDocPort(port);
        std::u16string shown;
        for (const auto &box : kvthost::MessageBoxes())
            shown += box.text + u"|" + box.caption + (box.type == MB_ICONINFORMATION ? u"|i" : u"|?");
        EXPECT_EQ(shown, c.shown);
    }
}

// From the services' session the notice goes to the console session; the
// job's end never waits on it.
TEST_F(JobTest, TheNoticeOfAServiceGoesToTheConsoleSession) {
    PINIPORT port = StartPort({.notify = 1});
    kvthost::SetSessions(0, 3);
    AddJob(7, u"report");
    StartServer();
    ASSERT_TRUE(StartDoc(port));
    kvthost::ClearMessageBoxes();
    EXPECT_TRUE(LocalmonEndDocPort(port));
    auto boxes = kvthost::MessageBoxes();
    ASSERT_EQ(boxes.size(), 1u);
    EXPECT_TRUE(boxes[0].text == u"report printing success !!" && boxes[0].caption == u"Office");
    EXPECT_TRUE(boxes[0].session == 3 && !boxes[0].waited && boxes[0].type == MB_ICONINFORMATION);
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
