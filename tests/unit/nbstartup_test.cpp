// NetBIOS start-up against emulated print servers: the names the monitor
// makes, the working LANA among several, the ten periods without an answer,
// the clean-up, CheckNETBIOS, and the start-up's own choices (more LANAs than
// reply buffers, a failed allocation, two threads at once).
#include <gtest/gtest.h>

#include <memory>

#include "fixture.h"
#include "nbstartup.h"
#include "netbios_calls.h"

using namespace kvttest;
using namespace nbtest;
using kvthost::NetbiosLana;

namespace {

const std::string kName0 = "001a2b3c4d5e.ER ";

// LANAs 0 and 4, which come first in the lists below, have the adapter
// address 00 1A 2B 3C 4D 5E; the others the host's node.
NetbiosLana Lana(uint8_t number, bool nowhere = false) {
    const kvtnb::Node adapter = {0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E};
    return {number, number == 0 || number == 4 ? std::optional(adapter) : std::nullopt, nowhere};
}

class NbStartup : public MonitorTest {
protected:
    // The monitor over the LANAs, and PS1 at 127.0.0.2.  Where a print server
    // answers, the start-up runs at the monitor's own pace (a time scale of 1):
    // the answer ends it long before its periods would.
    void Start(const std::vector<NetbiosLana> &lanas, const kvtps::NbFaults &server = {}, double timeScale = 1.0) {
        StartHost({.netbios = true, .timeScale = timeScale}, [&] { kvthost::SetNetbiosLanas(lanas); });
        kvthost::RecordNetbiosCalls(true);
        StartServers({Ps1(server)});
    }
    // The calls of a command (with or without ASYNCH) on a LANA, or only those sent to a name.
    static std::vector<kvthost::NetbiosCall> Calls(UCHAR command, int lana, const std::string &to = "") {
        std::vector<kvthost::NetbiosCall> out;
        for (const auto &c : kvthost::NetbiosCalls())
            if ((c.command & ~ASYNCH) == command && c.lana == lana && (to.empty() || kvtnb::NameText(c.callname) == to))
                out.push_back(c);
        return out;
    }
    // Right before the first query on the LANA goes out, a datagram to Name0
    // from another name, as another station's would come; the query goes on
    // once it has ended every pending receive.
    static void InjectAtQuery(UCHAR lana, const std::string &data) {
        kvthost::SetNetbiosHook([lana, data, sent = std::make_shared<bool>(false)](const NCB &ncb) -> uint8_t {
            if (ncb.ncb_command == NCBDGSEND && ncb.ncb_lana_num == lana && !*sent) {
                *sent = true;
                Send(Add("STRANGER", lana), Text(ncb.ncb_name, NCBNAMSZ), data, lana);
                EXPECT_TRUE(Eventually([] { return kvthost::NetbiosPendingReceives() == 0; }));
            }
            return NRC_GOODRET;
        });
    }
    // The template holds the name on the LANA, with the number the platform gave it.
    static void ExpectTemplate(const NCB &t, const std::string &name, int lana) {
        UCHAR num = 0;
        for (const auto &c : Calls(NCBADDNAME, lana))
            if (c.name == kvtnb::MakeName(name) && c.result == NRC_GOODRET) num = c.num;
        EXPECT_EQ(Text(t.ncb_name, NCBNAMSZ), name);
        EXPECT_TRUE(t.ncb_lana_num == lana && num != 0 && t.ncb_num == num) << name << " on LANA " << lana;
    }
};

// The whole start-up on one LANA with the adapter address 00 1A 2B 3C 4D 5E.
const std::vector<std::string> kOneLanaLog = {
    "Entry NBStartup", "Entry GetUniquename", "Leave GetUniquename - success", "Name0 = 001a2b3c4d5e.ER",
    "Add name0 success", "Send data to Lana[0] success\r", "Receive data from Lana[0]",
    "Working Lana number find : Lana[0]", "Add name1 : 001a2b3c4d5e.E1 success", "Add name2 : 001a2b3c4d5e.E2 success",
    "Add name3 : 001a2b3c4d5e.E3 success"};

struct LanaCase {
    const char *name;
    std::vector<NetbiosLana> lanas;
    kvtps::NbFaults server;
    bool name0Refused;   // NCBADDNAME of Name0 fails on every LANA
    int injectAt = -1;   // right before the first query on this LANA, a datagram to Name0 ...
    std::string inject;  // ... with these bytes, from another name
    int working = -1;    // the working LANA; -1: none, the start-up fails
    int queries = -1;    // queries to the group on each LANA (-1: not counted; -2: more than one)
    size_t cancels = 0;  // receives cancelled (and Name0 deleted) in the clean-up
    int receives = -1;   // receives issued on the first LANA (-1: not counted)
};

class NbStartupLanas : public NbStartup, public ::testing::WithParamInterface<LanaCase> {};

TEST_P(NbStartupLanas, TheFirstAnswerChoosesTheWorkingLana) {
    const LanaCase &c = GetParam();
    Start(c.lanas, c.server, c.working < 0 ? 0.001 : 1.0);
    if (c.injectAt >= 0) InjectAtQuery(static_cast<UCHAR>(c.injectAt), c.inject);
    if (c.name0Refused)
        kvthost::SetNetbiosHook([](const NCB &ncb) -> uint8_t {
            return ncb.ncb_command == NCBADDNAME && Text(ncb.ncb_name, NCBNAMSZ) == kName0 ? NRC_NAMTFUL : NRC_GOODRET;
        });
    const DWORD before = GetTickCount();
    EXPECT_EQ(NBStartup(), c.working >= 0);
    if (c.working >= 0) {
        ExpectTemplate(WorkingNcb, kName0, c.working);  // the name of LANA 0's address, wherever it works
        ExpectTemplate(PortNcb3, "001a2b3c4d5e.E3 ", c.working);
        const std::vector<std::string> lines = LogLines();
        const std::string received = "Receive data from Lana[" + std::to_string(c.working) + "]";
        EXPECT_EQ(lines.end() - std::find(lines.begin(), lines.end(), received), 5);
        if (c.lanas.size() == 1) {
            EXPECT_EQ(std::vector<std::string>(std::find(lines.begin(), lines.end(), "Entry NBStartup"), lines.end()),
                      kOneLanaLog);
        }
    } else {
        EXPECT_GE(GetTickCount() - before, static_cast<DWORD>(NB_STARTUP_PERIODS * NB_STARTUP_PERIOD_MS));
        EXPECT_EQ(LogLinesStartingWith("Working Lana"), std::vector<std::string>{"Working Lana number is not found"});
        EXPECT_EQ(Text(WorkingNcb.ncb_name, NCBNAMSZ), std::string(NCBNAMSZ, '\0')) << "the templates stay as they were";
    }
    size_t cancels = 0;
    for (const auto &lana : c.lanas) {
        const size_t queries = Calls(NCBDGSEND, lana.number, "KVTR.GROUP").size();
        EXPECT_TRUE(c.queries == -1 || (c.queries == -2 ? queries > 1 : queries == size_t(c.queries))) << queries;
        cancels += Calls(NCBCANCEL, lana.number).size();
        EXPECT_EQ(Calls(NCBCANCEL, lana.number).size(), Calls(NCBDELNAME, lana.number).size());
    }
    EXPECT_EQ(cancels, c.cancels);
    EXPECT_TRUE(c.receives < 0 || Calls(NCBDGRECV, c.lanas[0].number).size() == size_t(c.receives));
    EXPECT_EQ(kvthost::NetbiosPendingReceives(), 0u) << "no receive outlives the start-up";
}

const std::string kSearchHead("PS\x80\x00\x01\x04", 6), kEepromHead("PS\x80\x00\x01\x02", 6);
const kvtps::NbFaults kNoNetbios{false, false, "", 0, {}}, kLate{true, false, "", 1200, {}};

INSTANTIATE_TEST_SUITE_P(
    , NbStartupLanas,
    ::testing::Values(
        LanaCase{"TheSecondLeadsSomewhere", {Lana(0, true), Lana(1)}, {}, false, -1, "", 1, -1, 1},
        LanaCase{"TheFirstLeadsSomewhere", {Lana(0), Lana(1, true)}, {}, false, -1, "", 0, -1, 1},
        LanaCase{"OneLana", {Lana(0)}, {}, false, -1, "", 0},
        // Both receives have the answer before the first pass looks: the
        // earlier in NCBENUM's list wins, whatever its number.
        LanaCase{"InOnePassTheEarlierLanaWins", {Lana(4), Lana(2)}, kNoNetbios, false, 2, kSearchHead, 4},
        // No search reply: the receive is armed again, and nothing else
        // changes; the reply that comes late (after two periods) is taken.
        LanaCase{"AForeignDatagramRearmsTheReceive", {Lana(0)}, kLate, false, 0, kEepromHead, 0, -2, 0, 2},
        LanaCase{"NoPrintServerElevenQueriesPerLana", {Lana(0), Lana(1, true)}, kNoNetbios, false, -1, "", -1, 11, 2},
        LanaCase{"Name0OnNoLanaStillTenPeriods", {Lana(0), Lana(1)}, {}, true, -1, "", -1, 0, 0}),
    [](const auto &info) { return std::string(info.param.name); });

// CheckNETBIOS through templates with good names, with a send the interface
// refuses, and after a reset took the names: only the stale name number
// starts over.
TEST_F(NbStartup, CheckNetbiosStartsOverOnlyOnAStaleNameNumber) {
    Start({Lana(0)});
    ASSERT_TRUE(bStartup = NBStartup());
    const struct { bool resetLana; uint8_t sendCode; const char *line; size_t startups; } cases[] = {
        {false, 0, "nRet == NRC_GOODRET", 1}, {false, NRC_IFBUSY, "nRet != NRC_GOODRET , nRet = 33", 1},
        {true, 0, "nRet != NRC_GOODRET and nRet == 0x13 , call NBStartup", 2}};
    for (const auto &c : cases) {
        if (c.resetLana) Call(NCBRESET);
        kvthost::SetNetbiosHook([code = c.sendCode](const NCB &ncb) -> uint8_t {
            return ncb.ncb_command == NCBDGSEND && Text(ncb.ncb_callname, NCBNAMSZ) == "TEST            " ? code : 0;
        });
        CheckNETBIOS();
        const std::vector<std::string> lines = LogLines();
        EXPECT_EQ(*std::find(lines.rbegin(), lines.rend(), "Entry CheckNETBIOS").base(), c.line);
        EXPECT_EQ(LogCount("Entry NBStartup"), c.startups);
        EXPECT_TRUE(lines.back() == "Leave CheckNETBIOS" && bStartup) << c.line;
    }
}

// ---- the start-up's own choices ---------------------------------------------------------

TEST_F(NbStartup, LanasBeyondTheTenReplyBuffersTakeNoPart) {
    std::vector<NetbiosLana> lanas;
    for (uint8_t n = 0; n < 12; ++n) lanas.push_back(Lana(n));
    Start(lanas);
    ASSERT_TRUE(NBStartup());
    EXPECT_FALSE(Calls(NCBADDNAME, 9).empty()) << "the tenth takes part (and may be the working one)";
    for (int lana : {10, 11}) EXPECT_TRUE(Calls(NCBRESET, lana).empty() && Calls(NCBADDNAME, lana).empty()) << lana;
}

TEST_F(NbStartup, AFailedAllocationTouchesNoLana) {
    Start({Lana(0)});
    ASSERT_TRUE(NBStartup());
    kvthost::RecordNetbiosCalls(true);
    kvthost::SetGlobalAllocFails(true);
    EXPECT_FALSE(NBStartup());
    kvthost::SetGlobalAllocFails(false);
    EXPECT_EQ(LastLogLine(), "Leave NBStartup - GlobalAlloc fail");
    EXPECT_TRUE(kvthost::NetbiosCalls().empty()) << "the names of the first start-up stay";
}

// A second start-up that comes while one runs waits for it and takes its
// result: it resets nothing under the names just added.  So does a caller
// that took the count of start-ups before one finished (and before it could
// see bStartup, which the start-up sets itself).
TEST_F(NbStartup, TwoThreadsAtOnceRunOneStartUp) {
    Start({Lana(0)});
    const LONG seen = NBStartupRuns();
    std::thread second;
    BOOL secondResult = FALSE;
    kvthost::SetNetbiosHook([&](const NCB &ncb) -> uint8_t {
        if (ncb.ncb_command == NCBENUM && !second.joinable()) {
            second = std::thread([&] { secondResult = NBStartup(); });
            EXPECT_TRUE(Eventually([] { return LogCount("Entry NBStartup") == 2; }));
        }
        return NRC_GOODRET;
    });
    EXPECT_TRUE(NBStartup());
    second.join();
    EXPECT_TRUE(secondResult && bStartup && NBStartupSince(seen));
    EXPECT_EQ(LogLinesStartingWith("Leave NBStartup"),
              std::vector<std::string>(2, "Leave NBStartup - done by another thread (TRUE)"));
    EXPECT_EQ(Calls(NCBRESET, 0).size(), 2u) << "the resets of one start-up";
}

}  // namespace
