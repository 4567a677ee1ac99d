// NetBIOS start-up against emulated print servers: the names the monitor
// makes, the working LANA among several, the ten periods without an answer,
// the clean-up, CheckNETBIOS, and the start-up's own choices (more LANAs than
// reply buffers, a failed allocation, two threads at once).
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <thread>

#include "discovery_fixture.h"
#include "kvthost.h"
#include "kvtnetbios.h"
#include "kvtps.h"
#include "monitor.h"
#include "monitor_host.h"
#include "nbstartup.h"

using namespace kvttest;
using kvthost::NetbiosLana;

namespace {

const kvtnb::Node kAdapter = {0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E};
const std::string kName0 = "001a2b3c4d5e.ER ";

std::string Text(const UCHAR *name) { return std::string(reinterpret_cast<const char *>(name), NCBNAMSZ); }

NetbiosLana Lana(uint8_t number, bool nowhere = false) {
    NetbiosLana l;
    l.number = number;
    if (number == 0) l.address = kAdapter;
    l.leadsNowhere = nowhere;
    return l;
}

class NbStartup : public ::testing::Test {
protected:
    // Where a print server answers, the start-up waits at the monitor's own
    // pace (a time scale of 1): the answer ends it long before its periods do.
    void Start(const std::vector<NetbiosLana> &lanas, double timeScale = 1.0) {
        HostOptions o;
        o.netbios = true;
        o.timeScale = timeScale;
        host = std::make_unique<TestHost>(o);
        kvthost::SetNetbiosLanas(lanas);
        InitializePrintMonitor(nullptr);
        kvthost::RecordNetbiosCalls(true);
    }
    void Serve(const kvtps::NbFaults &faults = {}) {
        kvtps::ServerConfig c;
        c.name = "PS1";
        c.address = "127.0.0.2";
        c.netbios = faults;
        std::string error;
        ASSERT_TRUE(emulator.Start({c}, &error)) << error;
    }
    void TearDown() override {
        kvthost::SetNetbiosHook(nullptr);
        emulator.Stop();
        host.reset();
    }
    // The calls of a command (with or without ASYNCH) on a LANA; a callname
    // narrows them to those sent to it.
    static std::vector<kvthost::NetbiosCall> Calls(UCHAR command, int lana, const std::string &to = "") {
        std::vector<kvthost::NetbiosCall> out;
        for (const auto &c : kvthost::NetbiosCalls())
            if ((c.command & ~ASYNCH) == command && c.lana == lana &&
                (to.empty() || kvtnb::NameText(c.callname) == to))
                out.push_back(c);
        return out;
    }
    static std::vector<std::string> LinesFrom(const std::string &first) {
        std::vector<std::string> lines = LogLines();
        auto it = std::find(lines.begin(), lines.end(), first);
        return std::vector<std::string>(it, lines.end());
    }
    // A datagram to name from a name of the test's own on the LANA, as another
    // station's would come.
    static void Inject(UCHAR lana, const UCHAR *to, const std::string &data) {
        NCB add{}, send{};
        add.ncb_command = NCBADDNAME;
        add.ncb_lana_num = send.ncb_lana_num = lana;
        NBSetName(add.ncb_name, "STRANGER");
        Netbios(&add);
        send.ncb_command = NCBDGSEND;
        send.ncb_num = add.ncb_num;
        memcpy(send.ncb_callname, to, NCBNAMSZ);
        send.ncb_buffer = reinterpret_cast<PUCHAR>(const_cast<char *>(data.data()));
        send.ncb_length = static_cast<WORD>(data.size());
        Netbios(&send);
        EXPECT_TRUE(Eventually([] { return kvthost::NetbiosPendingReceives() == 0; }));
    }
    // The template holds the name, and the number the platform gave it on the LANA.
    static void ExpectTemplate(const NCB &t, const std::string &name, int lana) {
        EXPECT_EQ(Text(t.ncb_name), name);
        EXPECT_EQ(t.ncb_lana_num, lana);
        auto adds = Calls(NCBADDNAME, lana);
        auto added = std::find_if(adds.begin(), adds.end(), [&](const auto &c) {
            return c.name == kvtnb::MakeName(name) && c.result == NRC_GOODRET;
        });
        ASSERT_NE(added, adds.end()) << name;
        EXPECT_EQ(t.ncb_num, added->num) << name;
    }

    std::unique_ptr<TestHost> host;
    kvtps::Emulator emulator;
};

TEST_F(NbStartup, TheAdapterAddressNamesTheMonitorAndItsFourTemplates) {
    Start({Lana(0)});
    Serve();
    char base[NB_UNIQUENAME_BYTES];
    ASSERT_TRUE(GetUniquename(base));
    EXPECT_STREQ(base, "001a2b3c4d5e");
    ASSERT_TRUE(NBStartup());
    EXPECT_EQ(LinesFrom("Entry NBStartup"),
              (std::vector<std::string>{"Entry NBStartup", "Entry GetUniquename", "Leave GetUniquename - success",
                                        "Name0 = 001a2b3c4d5e.ER", "Add name0 success",
                                        "Send data to Lana[0] success\r", "Receive data from Lana[0]",
                                        "Working Lana number find : Lana[0]", "Add name1 : 001a2b3c4d5e.E1 success",
                                        "Add name2 : 001a2b3c4d5e.E2 success",
                                        "Add name3 : 001a2b3c4d5e.E3 success"}));
    ExpectTemplate(WorkingNcb, kName0, 0);
    ExpectTemplate(PortNcb1, "001a2b3c4d5e.E1 ", 0);
    ExpectTemplate(PortNcb2, "001a2b3c4d5e.E2 ", 0);
    ExpectTemplate(PortNcb3, "001a2b3c4d5e.E3 ", 0);
    EXPECT_EQ(Calls(NCBDGSEND, 0, "KVTR.GROUP")[0].data, std::string("PS\0\0\0\x04\xFF\xFB", 8));
    EXPECT_EQ(kvthost::NetbiosPendingReceives(), 0u);
}

struct LanaCase {
    const char *name;
    std::vector<NetbiosLana> lanas;
    kvtps::NbFaults server;
    bool name0Refused;   // NCBADDNAME of Name0 fails on every LANA
    BOOL result;
    int working;         // the working LANA
    int queries;         // queries to the group on each LANA that holds Name0 (-1: not counted)
    size_t cancels;      // receives cancelled (and Name0 deleted) in the clean-up
};

class NbStartupLanas : public NbStartup, public ::testing::WithParamInterface<LanaCase> {};

TEST_P(NbStartupLanas, TheFirstAnswerChoosesTheWorkingLana) {
    const LanaCase &c = GetParam();
    Start(c.lanas, c.result ? 1.0 : 0.001);
    Serve(c.server);
    if (c.name0Refused)
        kvthost::SetNetbiosHook([](const NCB &ncb) -> uint8_t {
            return ncb.ncb_command == NCBADDNAME && Text(ncb.ncb_name) == kName0 ? NRC_NAMTFUL : NRC_GOODRET;
        });
    const DWORD before = GetTickCount();
    EXPECT_EQ(NBStartup(), c.result);
    if (c.result) {
        ExpectTemplate(WorkingNcb, kName0, c.working);  // the name of LANA 0's address, wherever it works
        ExpectTemplate(PortNcb3, "001a2b3c4d5e.E3 ", c.working);
        EXPECT_EQ(LogLinesStartingWith("Working Lana"),
                  std::vector<std::string>{"Working Lana number find : Lana[" + std::to_string(c.working) + "]"});
    } else {
        EXPECT_GE(GetTickCount() - before, static_cast<DWORD>(NB_STARTUP_PERIODS * NB_STARTUP_PERIOD_MS));
        EXPECT_EQ(LogLinesStartingWith("Working Lana"), std::vector<std::string>{"Working Lana number is not found"});
        EXPECT_EQ(Text(WorkingNcb.ncb_name), std::string(NCBNAMSZ, '\0')) << "the templates stay as they were";
    }
    size_t cancels = 0;
    for (const auto &lana : c.lanas) {
        if (c.queries >= 0) {
            EXPECT_EQ(Calls(NCBDGSEND, lana.number, "KVTR.GROUP").size(), size_t(c.queries)) << int(lana.number);
        }
        cancels += Calls(NCBCANCEL, lana.number).size();
        EXPECT_EQ(Calls(NCBCANCEL, lana.number).size(), Calls(NCBDELNAME, lana.number).size());
    }
    EXPECT_EQ(cancels, c.cancels);
    EXPECT_EQ(kvthost::NetbiosPendingReceives(), 0u) << "no receive outlives the start-up";
}

kvtps::NbFaults Knobs(bool enabled, const std::string &replyName = "") {
    kvtps::NbFaults f;
    f.enabled = enabled;
    f.replyName = replyName;
    return f;
}

INSTANTIATE_TEST_SUITE_P(
    , NbStartupLanas,
    ::testing::Values(
        LanaCase{"TheSecondLeadsSomewhere", {Lana(0, true), Lana(1)}, {}, false, TRUE, 1, -1, 1},
        LanaCase{"TheFirstLeadsSomewhere", {Lana(0), Lana(1, true)}, {}, false, TRUE, 0, -1, 1},
        LanaCase{"AnAnswerFromAnotherNameCounts", {Lana(0)}, Knobs(true, "SOMEONE"), false, TRUE, 0, -1, 0},
        LanaCase{"NoPrintServerElevenQueriesPerLana", {Lana(0), Lana(1, true)}, Knobs(false), false, FALSE, -1, 11,
                 2},
        LanaCase{"Name0OnNoLanaStillTenPeriods", {Lana(0), Lana(1)}, {}, true, FALSE, -1, 0, 0}),
    [](const auto &info) { return std::string(info.param.name); });

// Both receives have the answer before the first pass looks: the earlier in
// NCBENUM's list wins, whatever its number.
TEST_F(NbStartup, InOnePassTheEarlierLanaWins) {
    Start({Lana(4), Lana(2)});
    bool sent = false;
    kvthost::SetNetbiosHook([&](const NCB &ncb) -> uint8_t {
        if (ncb.ncb_command == NCBDGSEND && ncb.ncb_lana_num == 2 && !sent) {
            sent = true;
            Inject(ncb.ncb_lana_num, ncb.ncb_name, std::string("PS\x80\x00\x01\x04", 6));
        }
        return NRC_GOODRET;
    });
    ASSERT_TRUE(NBStartup());
    EXPECT_EQ(WorkingNcb.ncb_lana_num, 4);
    EXPECT_EQ(Calls(NCBCANCEL, 2).size(), 0u) << "LANA 2's receive had ended";
}

// A datagram to Name0 that is no search reply re-arms the receive; the late
// reply (after the first period) is then taken.
TEST_F(NbStartup, AForeignDatagramRearmsTheReceive) {
    Start({Lana(0)}, 0.2);
    kvtps::NbFaults late;
    late.lateMs = 600;
    Serve(late);
    bool sent = false;
    kvthost::SetNetbiosHook([&](const NCB &ncb) -> uint8_t {
        if (ncb.ncb_command == NCBDGSEND && !sent) {
            sent = true;
            Inject(ncb.ncb_lana_num, ncb.ncb_name, std::string("PS\x80\x00\x01\x02", 6));  // an EEPROM reply's head
        }
        return NRC_GOODRET;
    });
    ASSERT_TRUE(NBStartup());
    EXPECT_EQ(Calls(NCBDGRECV, 0).size(), 2u) << "armed, and re-armed once";
    EXPECT_GE(Calls(NCBDGSEND, 0, "KVTR.GROUP").size(), 2u) << "the reply came after the first period";
    auto lines = LinesFrom("Send data to Lana[0] success\r");
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[1], "Receive data from Lana[0]");
}

struct CheckCase {
    const char *name;
    bool resetLana;      // the names are gone: PortNcb1 holds a stale number
    uint8_t sendCode;    // the code the send fails with otherwise (0: it doesn't)
    const char *line;
    size_t startups;
};

class NbCheck : public NbStartup, public ::testing::WithParamInterface<CheckCase> {};

TEST_P(NbCheck, OnlyAStaleNameNumberStartsOver) {
    const CheckCase &c = GetParam();
    Start({Lana(0)});
    Serve();
    ASSERT_TRUE(bStartup = NBStartup());
    if (c.resetLana) {
        NCB reset{};
        reset.ncb_command = NCBRESET;
        ASSERT_EQ(Netbios(&reset), NRC_GOODRET);
    }
    const uint8_t code = c.sendCode;
    kvthost::SetNetbiosHook([code](const NCB &ncb) -> uint8_t {
        return ncb.ncb_command == NCBDGSEND && Text(ncb.ncb_callname) == "TEST            " ? code : NRC_GOODRET;
    });
    CheckNETBIOS();
    EXPECT_EQ(LinesFrom("Entry CheckNETBIOS")[1], c.line);
    EXPECT_EQ(LogLinesStartingWith("Entry NBStartup").size(), c.startups);
    EXPECT_EQ(LogLines().back(), "Leave CheckNETBIOS");
    EXPECT_TRUE(bStartup);
    kvthost::SetNetbiosHook(nullptr);
    CheckNETBIOS();
    EXPECT_EQ(LogLines().end()[-2], "nRet == NRC_GOODRET") << "PortNcb1 is valid afterwards";
}

INSTANTIATE_TEST_SUITE_P(
    , NbCheck,
    ::testing::Values(CheckCase{"Sent", false, 0, "nRet == NRC_GOODRET", 1},
                      CheckCase{"StaleNameNumber", true, 0, "nRet != NRC_GOODRET and nRet == 0x13 , call NBStartup", 2},
                      CheckCase{"InterfaceBusy", false, NRC_IFBUSY, "nRet != NRC_GOODRET , nRet = 33", 1}),
    [](const auto &info) { return std::string(info.param.name); });

// ---- the start-up's own choices ---------------------------------------------------------

TEST_F(NbStartup, LanasBeyondTheTenReplyBuffersTakeNoPart) {
    std::vector<NetbiosLana> lanas;
    for (uint8_t n = 0; n < 12; ++n) lanas.push_back(Lana(n));
    Start(lanas);
    Serve();
    ASSERT_TRUE(NBStartup());
    EXPECT_EQ(Calls(NCBADDNAME, 9).size(), 1u);
    for (int lana : {10, 11}) EXPECT_TRUE(Calls(NCBRESET, lana).empty() && Calls(NCBADDNAME, lana).empty()) << lana;
}

TEST_F(NbStartup, AFailedAllocationEndsItBeforeAnyLanaIsTouched) {
    Start({Lana(0)});
    Serve();
    ASSERT_TRUE(NBStartup());
    const NCB before = PortNcb2;
    kvthost::RecordNetbiosCalls(true);
    kvthost::SetGlobalAllocFails(true);
    EXPECT_FALSE(NBStartup());
    kvthost::SetGlobalAllocFails(false);
    EXPECT_EQ(LogLines().back(), "Leave NBStartup - GlobalAlloc fail");
    EXPECT_TRUE(Calls(NCBADDNAME, 0).empty());
    EXPECT_EQ(memcmp(&before, &PortNcb2, sizeof before), 0);
}

// A second start-up that comes while one runs waits for it and takes its
// result: it resets nothing under the names just added.
TEST_F(NbStartup, TwoThreadsAtOnceRunOneStartUp) {
    Start({Lana(0)});
    Serve();
    std::thread second;
    BOOL secondResult = FALSE;
    kvthost::SetNetbiosHook([&](const NCB &ncb) -> uint8_t {
        if (ncb.ncb_command == NCBENUM && !second.joinable()) {
            second = std::thread([&] { secondResult = NBStartup(); });
            EXPECT_TRUE(Eventually([] { return LogLinesStartingWith("Entry NBStartup").size() == 2; }));
        }
        return NRC_GOODRET;
    });
    EXPECT_TRUE(NBStartup());
    second.join();
    EXPECT_TRUE(secondResult);
    EXPECT_EQ(LogLinesStartingWith("Leave NBStartup"),
              std::vector<std::string>{"Leave NBStartup - done by another thread (TRUE)"});
    EXPECT_EQ(Calls(NCBRESET, 0).size(), 2u) << "the resets of one start-up";
}

}  // namespace
