// The dynamic address lookup: the status query by node address before an LPR
// job, the replies it takes and refuses, the lines it logs, and the job that
// follows a print server to its new address or falls over without one.
#include <gtest/gtest.h>

#include <algorithm>

#include "fixture.h"
#include "dynip.h"
#include "transport.h"

using namespace kvttest;

namespace {

const BYTE kNode[6] = {0x00, 0x00, 0x7F, 0x00, 0x00, 0x02};  // PS1 at 127.0.0.2

class StatusLookup : public JobTest {
protected:
    // A port of PS1 that knows its node, and PS1 with these management faults.
    PINIPORT Start(const kvtps::MgmtFaults &faults = kvtps::MgmtFaults(), double timeScale = 0.2) {
        kvttest::HostOptions options;
        options.timeScale = timeScale;
        emulator.Stop();
        host.reset();  // the old host puts the clock and the globals back when it goes
        PINIPORT port = StartPort(options);
        std::memcpy(port->NodeID, kNode, 6);
        port->IPAddress = 0x7F000009;
        StartServer();
        std::string error;
        EXPECT_TRUE(emulator.SetManagementFaults("PS1", faults, &error)) << error;
        return port;
    }
    uint64_t Queries() {
        Settle(emulator);
        return emulator.ManagementCounters("PS1").status;
    }
    std::vector<std::string> LookupLines() {
        std::vector<std::string> lines = LogLines(), out;
        bool in = false;
        for (const auto &l : lines) {
            in = in || l == "Entry DynamicGetIP";
            if (in) out.push_back(l);
            if (l.rfind("Leave DynamicGetIP", 0) == 0) break;
        }
        return out;
    }
};

TEST_F(StatusLookup, AReplyInTheFirstPassIsOneQueryAndSetsTheAddress) {
    PINIPORT port = Start();
    EXPECT_TRUE(DynamicGetIP(port));
    EXPECT_EQ(port->IPAddress, 0x7F000002u) << "host byte order";
    EXPECT_EQ(Queries(), 1u);
    EXPECT_EQ(LookupLines(), (std::vector<std::string>{"Entry DynamicGetIP", "Entter GetPServerStatus()",
                                                       "Try TCPIP protocol", "GetPServerStatus OK",
                                                       "Leave GetPServerStatus()", "Leave DynamicGetIP - success"}));
}

TEST_F(StatusLookup, AnyPrintServersReplyCountsThePrefixOnlySelects) {
    kvtps::MgmtFaults faults;
    faults.foreignNode = true;
    faults.replyNode = kvtps::NodeId{0x00, 0x40, 0x26, 0x00, 0x00, 0x0B};
    PINIPORT port = Start(faults);
    EXPECT_TRUE(DynamicGetIP(port));
    EXPECT_EQ(port->IPAddress, 0x7F000002u);
}

TEST_F(StatusLookup, AReplyNaming0000FailsAndLeavesTheZero) {
    kvtps::MgmtFaults faults;
    faults.statusAddress = "0.0.0.0";
    PINIPORT port = Start(faults);
    EXPECT_FALSE(DynamicGetIP(port));
    EXPECT_EQ(port->IPAddress, 0u);
    EXPECT_EQ(LookupLines().back(), "Leave DynamicGetIP - IPAddress = 0");
}

// 66 bytes end the reading; a reply too short to hold the address, or with
// another head, ends the lookup without a second query.
TEST_F(StatusLookup, AReplyWithoutTheAddressOrWithAnotherHeadIsNotRetried) {
    kvtps::MgmtFaults cut66, cut71, otherHead;
    cut66.cutReplyTo = 66;
    cut71.cutReplyTo = 71;
    otherHead.replyCommand = 0x04;
    for (const kvtps::MgmtFaults &faults : {cut66, cut71, otherHead}) {
        SCOPED_TRACE(faults.cutReplyTo ? "cut to " + std::to_string(faults.cutReplyTo) : "head 01 04");
        PINIPORT port = Start(faults);
        EXPECT_FALSE(DynamicGetIP(port));
        EXPECT_EQ(port->IPAddress, 0x7F000009u) << "kept";
        EXPECT_EQ(Queries(), 1u);
        EXPECT_EQ(LookupLines(), (std::vector<std::string>{"Entry DynamicGetIP", "Entter GetPServerStatus()",
                                                           "Try TCPIP protocol", "GetPServerStatus failed",
                                                           "Leave GetPServerStatus()",
                                                           "Leave DynamicGetIP - call GetPServerStatus return FALSE"}));
        emulator.Stop();
    }
    kvtps::MgmtFaults cut72;
    cut72.cutReplyTo = 72;
    EXPECT_TRUE(DynamicGetIP(Start(cut72))) << "72 bytes hold the address";
}

TEST_F(StatusLookup, ASilentNetworkCostsFivePassesThenTimeout) {
    kvtps::MgmtFaults silent;
    silent.silent = true;
    PINIPORT port = Start(silent, 0.01);
    EXPECT_FALSE(DynamicGetIP(port));
    EXPECT_EQ(Queries(), 5u);
    EXPECT_EQ(LogLinesStartingWith("Timeout"), std::vector<std::string>{"Timeout"});
    EXPECT_EQ(port->IPAddress, 0x7F000009u);
}

// ---- the lookup in a job -----------------------------------------------------------------

TEST_F(StatusLookup, AJobFollowsItsPrintServerToANewAddress) {
    PINIPORT port = Start(kvtps::MgmtFaults(), 0.05);
    port->IPAddress = 0x7F000002;
    std::string error;
    ASSERT_TRUE(emulator.SetAddress("PS1", "127.0.0.5", &error)) << error;
    ASSERT_TRUE(StartDoc(port));
    EXPECT_EQ(port->IPAddress, 0x7F000005u);
    ASSERT_TRUE(WriteAll(port, "moved job"));
    ASSERT_TRUE(LocalmonEndDocPort(port));
    ASSERT_TRUE(emulator.WaitForJobs("PS1", 1, 10000));
    EXPECT_EQ(emulator.Jobs("PS1").front().data, "moved job");
    EXPECT_EQ(Queries(), 1u);
    EXPECT_EQ(LogLinesStartingWith("DynamicGetIP"), std::vector<std::string>{"DynamicGetIP ok"});
}

TEST_F(StatusLookup, AFailedLookupFallsOverBeforeAnyConnect) {
    kvttest::HostOptions options;
    options.ipx = true;
    PINIPORT port = StartPort(options);
    std::memcpy(port->NodeID, kNode, 6);
    kvtps::ServerConfig config;
    config.name = "PS1";
    config.address = "127.0.0.2";
    config.mgmt.silent = true;
    config.ipx = false;
    std::string error;
    ASSERT_TRUE(emulator.Start({config}, &error)) << error;

    EXPECT_FALSE(StartDoc(port));
    EXPECT_EQ(emulator.Counters("PS1").connectionsAccepted, 0u) << "the stored address isn't tried";
    std::vector<std::string> lines = LogLines();
    auto at = [&](const std::string &line) { return std::find(lines.begin(), lines.end(), line) - lines.begin(); };
    EXPECT_LT(at("DynamicGetIP fail"), at("Try IPX protocol"));
    EXPECT_EQ(Queries(), 5u);
}

TEST_F(StatusLookup, APortWithoutANodeUsesItsStoredAddress) {
    PINIPORT port = StartPort();
    StartServer();
    ASSERT_TRUE(StartDoc(port));
    ASSERT_TRUE(LocalmonEndDocPort(port));
    EXPECT_EQ(port->IPAddress, 0x7F000002u);
    EXPECT_EQ(Queries(), 0u);
    EXPECT_TRUE(LogLinesStartingWith("Entry DynamicGetIP").empty());
}

}  // namespace
