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

kvtps::MgmtFaults Faults(void (*set)(kvtps::MgmtFaults &)) { return With(kvtps::MgmtFaults(), set); }

class StatusLookup : public JobTest {
protected:
    // A port of PS1 that knows its node, and PS1 with these management faults.
    PINIPORT Start(const kvtps::MgmtFaults &faults = kvtps::MgmtFaults(), double timeScale = 0.2) {
        PINIPORT port = StartPort({.timeScale = timeScale});
        std::memcpy(port->NodeID, kNode, 6);
        port->IPAddress = 0x7F000009;
        kvtps::ServerConfig config = Server();
        config.mgmt = faults;
        StartServers({config});
        return port;
    }
    uint64_t Queries() {
        Settle(emulator);
        return emulator.ManagementCounters("PS1").status;
    }
};

// Any print server's reply counts (the prefix only selects); one naming
// 0.0.0.0 fails and leaves the zero; 66 bytes end the reading, and a reply too
// short to hold the address (72 bytes do), or with another head, ends the
// lookup without a second query; silence costs five passes.
TEST_F(StatusLookup, AReplyInTheFirstPassEndsTheLookupAndSilenceCostsFivePasses) {
    const char *ok = "GetPServerStatus OK", *failed = "GetPServerStatus failed";
    const char *none = "call GetPServerStatus return FALSE";
    const struct {
        const char *name;
        kvtps::MgmtFaults faults;
        double scale;
        BOOL found;
        DWORD address;  // host byte order
        uint64_t queries;
        const char *status, *leave;  // the lookup's lines
    } cases[] = {
        {"reply", {}, 0.2, TRUE, 0x7F000002, 1, ok, "success"},
        {"another node", Faults([](auto &f) { f.foreignNode = true, f.replyNode = {0, 0x40, 0x26, 0, 0, 0x0B}; }),
         0.2, TRUE, 0x7F000002, 1, ok, "success"},
        {"0.0.0.0", Faults([](auto &f) { f.statusAddress = "0.0.0.0"; }), 0.2, FALSE, 0, 1, ok, "IPAddress = 0"},
        {"cut to 66", Faults([](auto &f) { f.cutReplyTo = 66; }), 0.2, FALSE, 0x7F000009, 1, failed, none},
        {"cut to 71", Faults([](auto &f) { f.cutReplyTo = 71; }), 0.2, FALSE, 0x7F000009, 1, failed, none},
        {"cut to 72", Faults([](auto &f) { f.cutReplyTo = 72; }), 0.2, TRUE, 0x7F000002, 1, ok, "success"},
        {"head 01 04", Faults([](auto &f) { f.replyCommand = 0x04; }), 0.2, FALSE, 0x7F000009, 1, failed, none},
        {"silent", Faults([](auto &f) { f.silent = true; }), 0.01, FALSE, 0x7F000009, 5, "Timeout", none},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        PINIPORT port = Start(c.faults, c.scale);
        EXPECT_EQ(DynamicGetIP(port), c.found);
        EXPECT_EQ(port->IPAddress, c.address);
        EXPECT_EQ(Queries(), c.queries);
        std::vector<std::string> lines = LogLines();
        lines.erase(lines.begin(), std::find(lines.begin(), lines.end(), "Entry DynamicGetIP"));
        EXPECT_EQ(lines, (std::vector<std::string>{"Entry DynamicGetIP", "Entter GetPServerStatus()",
                                                    "Try TCPIP protocol", c.status, "Leave GetPServerStatus()",
                                                    std::string("Leave DynamicGetIP - ") + c.leave}));
    }
}

// ---- the lookup in a job -----------------------------------------------------------------

TEST_F(StatusLookup, AJobFollowsItsPrintServerToANewAddress) {
    PINIPORT port = Start(kvtps::MgmtFaults(), 0.05);
    port->IPAddress = 0x7F000002;
    std::string error;
    ASSERT_TRUE(emulator.SetAddress("PS1", "127.0.0.5", &error)) << error;
    EXPECT_EQ(Print(port, "moved job").data, "moved job");
    EXPECT_EQ(port->IPAddress, 0x7F000005u);
    EXPECT_EQ(Queries(), 1u);
    EXPECT_EQ(LogLinesStartingWith("DynamicGetIP"), std::vector<std::string>{"DynamicGetIP ok"});
}

TEST_F(StatusLookup, AFailedLookupFallsOverBeforeAnyConnect) {
    PINIPORT port = StartPort({.ipx = true});
    std::memcpy(port->NodeID, kNode, 6);
    StartServers({With(Server(), [](auto &c) { c.mgmt.silent = true, c.ipx = false; })});

    EXPECT_FALSE(StartDoc(port));
    EXPECT_EQ(emulator.Counters("PS1").connectionsAccepted, 0u) << "the stored address isn't tried";
    std::vector<std::string> lines = LogLines();
    auto at = [&](const std::string &line) { return std::find(lines.begin(), lines.end(), line) - lines.begin(); };
    EXPECT_LT(at("DynamicGetIP fail"), at("Try IPX protocol"));
    EXPECT_EQ(Queries(), 5u);
}

}  // namespace
