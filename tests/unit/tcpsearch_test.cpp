// TCP/IP discovery: what each stage takes from a datagram (names, duplicates,
// Type, the EEPROM image, queue-name cuts), and whole searches against
// emulated print servers, counted by what the servers were asked.
#include <gtest/gtest.h>

#include <memory>

#include "discovery.h"
#include "fixture.h"
#include "kvtps.h"
#include "monitor.h"
#include "monitor_host.h"

using namespace kvttest;

namespace {

const Bytes kNodeA = Node(0x00, 0x40, 0x26, 0x00, 0x00, 0x0A);
const Bytes kNodeB = Node(0x00, 0x40, 0x26, 0x00, 0x00, 0x0B);

// The monitor started over a fresh host, its table empty.
class Discovery : public ::testing::Test {
protected:
    void StartHost(double timeScale = 0.2) {
        HostOptions options;
        options.timeScale = timeScale;
        host.reset();  // the old host puts the clock and the globals back when it goes
        host = std::make_unique<TestHost>(options);
        InitializePrintMonitor(nullptr);
    }
    void SetUp() override { StartHost(); }
    void TearDown() override {
        emulator.Stop();
        host.reset();
    }

    static kvtps::ServerConfig Server(const std::string &name, const std::string &address) {
        kvtps::ServerConfig c;
        c.name = name;
        c.address = address;
        return c;
    }
    void StartServers(const std::vector<kvtps::ServerConfig> &servers) {
        std::string error;
        ASSERT_TRUE(emulator.Start(servers, &error)) << error;
    }
    int Find(const std::string &name) {
        for (int i = 0; i < TotalPrintServer; ++i)
            if (NameOf(i) == name) return i;
        return -1;
    }
    size_t Lines(const std::string &prefix) { return LogLinesStartingWith(prefix).size(); }

    std::unique_ptr<TestHost> host;
    kvtps::Emulator emulator;
};

// ---- what the search takes from a reply ---------------------------------------------------

using SearchReplies = Discovery;

TEST_F(SearchReplies, ANameAlreadyListedKeepsItsFirstNode) {
    EXPECT_TRUE(TCPSearchTakeReply(Data(SearchReply(kNodeA, "PS1")), 76));
    EXPECT_FALSE(TCPSearchTakeReply(Data(SearchReply(kNodeB, "PS1")), 76)) << "another server, the same name";
    EXPECT_FALSE(TCPSearchTakeReply(Data(SearchReply(kNodeA, "PS1")), 76)) << "the next pass";
    EXPECT_TRUE(TCPSearchTakeReply(Data(SearchReply(kNodeB, "ps1")), 76)) << "names differ in case";
    ASSERT_EQ(TotalPrintServer, 2);
    EXPECT_EQ(NodeOf(0), kNodeA);
    EXPECT_EQ(NodeOf(1), kNodeB);
}

TEST_F(SearchReplies, TrailingBlanksGoAndANameEndsInsideItsFieldAndItsRecord) {
    EXPECT_TRUE(TCPSearchTakeReply(Data(SearchReply(kNodeA, "Office  PS   ")), 76));
    EXPECT_FALSE(TCPSearchTakeReply(Data(SearchReply(kNodeB, "Office  PS")), 76)) << "the same name once trimmed";
    EXPECT_TRUE(TCPSearchTakeReply(Data(SearchReply(kNodeA, "   ")), 76));
    EXPECT_FALSE(TCPSearchTakeReply(Data(SearchReply(kNodeB, "")), 76)) << "blanks only is the empty name";
    Bytes unterminated = SearchReply(kNodeB, std::string(50, 'x'));
    EXPECT_TRUE(TCPSearchTakeReply(Data(unterminated), 76));
    ASSERT_EQ(TotalPrintServer, 3);
    EXPECT_EQ(NameOf(0), "Office  PS");
    EXPECT_EQ(NameOf(1), "");
    EXPECT_EQ(NameOf(2), std::string(47, 'x'));
}

TEST_F(SearchReplies, OnlyType0And4ReachTheTable) {
    const uint8_t types[] = {0, 4, 1, 2, 5, 0xFF};
    for (uint8_t type : types)
        TCPSearchTakeReply(Data(SearchReply(kNodeA, "T" + std::to_string(type), type, type == 0 ? 0 : 1)), 76);
    ASSERT_EQ(TotalPrintServer, 2);
    EXPECT_EQ(NameOf(0), "T0");
    EXPECT_EQ(AvailPS[0].Type, 0);
    EXPECT_EQ(AvailPS[0].AutoProtocol, 0);
    EXPECT_EQ(NameOf(1), "T4");
    EXPECT_EQ(AvailPS[1].Type, 4);
    EXPECT_EQ(AvailPS[1].AutoProtocol, 1);
}

TEST_F(SearchReplies, OtherCommandsAndShortRepliesAreDropped) {
    Bytes reply = SearchReply(kNodeA, "PS1");
    EXPECT_FALSE(TCPSearchTakeReply(Data(reply), 70)) << "AutoProtocol not in it";
    Bytes other = reply;
    other[7] = 0x05;
    EXPECT_FALSE(TCPSearchTakeReply(Data(other), 76));
    other = reply;
    other[6] = 0x00;
    EXPECT_FALSE(TCPSearchTakeReply(Data(other), 76));
    EXPECT_EQ(TotalPrintServer, 0);
    EXPECT_TRUE(TCPSearchTakeReply(Data(reply), 71)) << "everything read is there";
}

TEST_F(SearchReplies, TheHundredAndFirstServerIsLeftOut) {
    for (int i = 1; i <= 101; ++i) TCPSearchTakeReply(Data(SearchReply(kNodeA, "S" + std::to_string(i))), 76);
    EXPECT_EQ(TotalPrintServer, AVAILPS_RECORDS);
    EXPECT_EQ(NameOf(99), "S100");
    EXPECT_FALSE(TCPSearchTakeReply(Data(SearchReply(kNodeA, "S1")), 76)) << "a duplicate, not a 101st";
    EXPECT_EQ(LogLinesStartingWith("AvailPS full"), std::vector<std::string>{"AvailPS full, left out: S101"});
}

// ---- the EEPROM image ----------------------------------------------------------------------

using EepromReplies = Discovery;

TEST_F(EepromReplies, FillModelAddressAndBothFlags) {
    AvailPS[3].Flags = 0xFF;
    EXPECT_TRUE(TCPTakeEEPROM(Data(EepromReply(kNodeA, 0x83, 0x04, 0x01, Bytes("\x0A\x00\x00\x07", 4))), 522,
                              Data(kNodeA), 3));
    EXPECT_EQ(AvailPS[3].ModelType, 0x83);
    EXPECT_EQ(Bytes(reinterpret_cast<char *>(&AvailPS[3].IPAddress), 4), Bytes("\x0A\x00\x00\x07", 4));
    EXPECT_EQ(AvailPS[3].Flags, PS_FLAG_TCPIP_SUPPORTED | PS_FLAG_TCPIP_ENABLED);
    EXPECT_EQ(LogLinesStartingWith("IP Address:"), std::vector<std::string>{"IP Address:10.0.0.7"});
    EXPECT_EQ(Lines("ps.SupportProtocol(1):1"), 1u);
    EXPECT_EQ(Lines("ps.Config(4):4"), 1u);
    EXPECT_EQ(Lines("Support TCPIP"), 1u);
    EXPECT_EQ(Lines("TCPIP Enable"), 1u);

    // Each read clears the flags first; other bits of the two bytes mean nothing here.
    EXPECT_TRUE(TCPTakeEEPROM(Data(EepromReply(kNodeA, 1, 0xFB, 0xFE, Bytes(4, '\0'))), 522, Data(kNodeA), 3));
    EXPECT_EQ(AvailPS[3].Flags, 0);
}

TEST_F(EepromReplies, FromAnotherNodeOrCutShortTheyFillNothing) {
    AvailPS[0].ModelType = 0x42;
    const Bytes good = EepromReply(kNodeA, 3, 4, 1, Bytes("\x0A\x00\x00\x07", 4));
    EXPECT_FALSE(TCPTakeEEPROM(Data(EepromReply(kNodeB, 3, 4, 1, Bytes(4, '\x01'))), 522, Data(kNodeA), 0));
    EXPECT_FALSE(TCPTakeEEPROM(Data(good), 511, Data(kNodeA), 0)) << "the address's last byte missing";
    EXPECT_FALSE(TCPTakeEEPROM(Data(good), 522, Data(kNodeA), AVAILPS_RECORDS)) << "no such record";
    EXPECT_EQ(AvailPS[0].ModelType, 0x42);
    EXPECT_TRUE(TCPTakeEEPROM(Data(good), 512, Data(kNodeA), 0));
}

// ---- queue names ------------------------------------------------------------------------------

TEST_F(Discovery, QueueNamesAreCutByTwoBytesAndOneBlank) {
    const Bytes reply = QueueReply(kNodeB, "abcdefgh", "abcdef xy", "abcdef  xy");
    EXPECT_TRUE(TCPTakeQueueNames(Data(reply), 203, 5)) << "the node isn't compared";
    EXPECT_STREQ(AvailPS[5].QueueName[0].Text, "abcdef");
    EXPECT_STREQ(AvailPS[5].QueueName[1].Text, "abcdef");
    EXPECT_STREQ(AvailPS[5].QueueName[2].Text, "abcdef ");
    EXPECT_EQ(LogLinesStartingWith("show search Qname"), std::vector<std::string>{"show search Qname sizeof of wcslen 8"});
    EXPECT_EQ(Lines("6162636465666768"), 1u) << "port 1's first eight bytes before the cut";
    EXPECT_EQ(Lines("6162636465660068"), 1u) << "and after it: the cut writes one terminator";

    // Texts of fewer than two bytes become empty; a text filling its field has no terminator.
    std::memset(AvailPS[5].QueueName, 'z', sizeof AvailPS[5].QueueName);
    EXPECT_TRUE(TCPTakeQueueNames(Data(QueueReply(kNodeB, "a", "", std::string(63, 'q'))), 203, 5));
    EXPECT_STREQ(AvailPS[5].QueueName[0].Text, "");
    EXPECT_STREQ(AvailPS[5].QueueName[1].Text, "");
    EXPECT_EQ(std::string(AvailPS[5].QueueName[2].Text), std::string(61, 'q'));
    EXPECT_EQ(AvailPS[5].QueueName[2].Text[62], 'z') << "nothing written past the cut text";

    EXPECT_FALSE(TCPTakeQueueNames(Data(reply), 202, 5)) << "port 3's field cut off";
    Bytes status = reply;
    status[7] = 0x05;
    EXPECT_FALSE(TCPTakeQueueNames(Data(status), 203, 5));
}

// ---- whole searches ----------------------------------------------------------------------------

using TcpSearch = Discovery;

TEST_F(TcpSearch, FindsEachServerWithItsImageAndQueueNames) {
    kvtps::ServerConfig ps1 = Server("PS1", "127.0.0.2");
    ps1.queueTexts = {"lp P1", "raw  P2", "x"};
    kvtps::ServerConfig ps2 = Server("PS2", "127.0.0.3");
    ps2.node = kvtps::NodeId{0x00, 0x40, 0x26, 0x00, 0x00, 0x0B};
    ps2.model = 0x83;
    ps2.type = 0;
    ps2.autoProtocol = 0;
    ps2.eepromAddress = "0.0.0.0";
    ps2.psConfig = 0;
    StartServers({ps1, ps2});

    EXPECT_TRUE(TCPSearch());
    ASSERT_EQ(TotalPrintServer, 2);
    const int a = Find("PS1"), b = Find("PS2");
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    EXPECT_EQ(NodeOf(a), Node(0, 0, 127, 0, 0, 2)) << "derived from the address";
    EXPECT_EQ(Bytes(reinterpret_cast<char *>(&AvailPS[a].IPAddress), 4), Bytes("\x7F\x00\x00\x02", 4));
    EXPECT_EQ(AvailPS[a].Flags, 5);
    EXPECT_EQ(AvailPS[a].ModelType, 1);
    EXPECT_EQ(AvailPS[a].Type, 4);
    EXPECT_EQ(AvailPS[a].AutoProtocol, 1);
    EXPECT_STREQ(AvailPS[a].QueueName[0].Text, "lp");
    EXPECT_STREQ(AvailPS[a].QueueName[1].Text, "raw ");
    EXPECT_STREQ(AvailPS[a].QueueName[2].Text, "");

    EXPECT_EQ(NodeOf(b), kNodeB);
    EXPECT_EQ(AvailPS[b].IPAddress, 0u) << "Automatic IP";
    EXPECT_EQ(AvailPS[b].Flags, PS_FLAG_TCPIP_SUPPORTED) << "TCP/IP disabled";
    EXPECT_EQ(AvailPS[b].ModelType, 0x83);
    EXPECT_EQ(AvailPS[b].Type, 0);
    EXPECT_EQ(AvailPS[b].AutoProtocol, 0);
    EXPECT_STREQ(AvailPS[b].QueueName[0].Text, "lpt1");

    Settle(emulator);
    for (const char *name : {"PS1", "PS2"}) {
        kvtps::MgmtCounters seen = emulator.ManagementCounters(name);
        EXPECT_EQ(seen.search, 3u) << name << ": three passes, whatever they found";
        EXPECT_GE(seen.readEeprom, 1u) << name;
        EXPECT_GE(seen.queueNames, 1u) << name;
    }
}

TEST_F(TcpSearch, ServersThatShareANameShareOneRecordAndOnlyTheFirstIsRead) {
    kvtps::ServerConfig a = Server("A", "127.0.0.2"), b = Server("B", "127.0.0.3");
    a.deviceName = b.deviceName = "Shared";
    StartServers({a, b});
    EXPECT_TRUE(TCPSearch());
    ASSERT_EQ(TotalPrintServer, 1);
    EXPECT_EQ(NameOf(0), "Shared");
    const std::string first = NodeOf(0) == Node(0, 0, 127, 0, 0, 2) ? "A" : "B", second = first == "A" ? "B" : "A";
    Settle(emulator);
    EXPECT_GE(emulator.ManagementCounters(first).readEeprom, 1u);
    EXPECT_EQ(emulator.ManagementCounters(second).readEeprom, 0u) << "its node isn't in the table";
    EXPECT_EQ(emulator.ManagementCounters(second).search, 3u) << "it answered all the same";
}

TEST_F(TcpSearch, AServerOfAnotherTypeIsNeitherListedNorRead) {
    kvtps::ServerConfig typed = Server("PS1", "127.0.0.2");
    typed.type = 1;
    StartServers({typed});
    EXPECT_TRUE(TCPSearch());
    EXPECT_EQ(TotalPrintServer, 0);
    Settle(emulator);
    EXPECT_EQ(emulator.ManagementCounters("PS1").readEeprom, 0u);
}

TEST_F(TcpSearch, ASilentNetworkTakesThreePassesAndNoRead) {
    StartHost(0.02);
    kvtps::ServerConfig silent = Server("PS1", "127.0.0.2");
    silent.mgmt.silent = true;
    StartServers({silent});
    EXPECT_TRUE(TCPSearch());
    EXPECT_EQ(TotalPrintServer, 0);
    Settle(emulator);
    kvtps::MgmtCounters seen = emulator.ManagementCounters("PS1");
    EXPECT_EQ(seen.search, 3u);
    EXPECT_EQ(seen.readEeprom + seen.queueNames, 0u);
    EXPECT_EQ(Lines("[TCPSearchRcv()] Select Error"), 3u) << "each pass ends by its wait";
    EXPECT_EQ(Lines("[TCPReadEEPROM]"), 0u);
}

// Waits of 150 ms: the search's reply comes within one on a loaded machine.
TEST_F(TcpSearch, AServerSilentAfterTheSearchCostsEveryTryAndKeepsTheSlot) {
    StartHost(0.1);
    AvailPS[0].ModelType = 0x42;
    std::strcpy(AvailPS[0].QueueName[0].Text, "old");
    kvtps::ServerConfig mute = Server("PS1", "127.0.0.2");
    mute.mgmt.answers = kvtps::kAnswerSearch;
    StartServers({mute});
    EXPECT_TRUE(TCPSearch());
    ASSERT_EQ(TotalPrintServer, 1);
    EXPECT_EQ(NameOf(0), "PS1");
    EXPECT_EQ(AvailPS[0].ModelType, 0x42) << "what the slot held before";
    EXPECT_STREQ(AvailPS[0].QueueName[0].Text, "old");
    Settle(emulator);
    kvtps::MgmtCounters seen = emulator.ManagementCounters("PS1");
    EXPECT_EQ(seen.readEeprom, 5u);
    EXPECT_EQ(seen.queueNames, 7u);
    EXPECT_EQ(Lines("[TCPReadEEPROM] Received Error"), 5u);
    EXPECT_EQ(Lines("enter search Queuename before receive ok"), 7u);
    EXPECT_EQ(Lines("enter search Queuename receive ok"), 0u);
}

TEST_F(TcpSearch, AStrayOrShortEepromReplyCostsATry) {
    kvtps::MgmtFaults fromElsewhere;
    fromElsewhere.foreignNode = true;
    fromElsewhere.replyNode = kvtps::NodeId{0x00, 0x40, 0x26, 0x00, 0x00, 0x0B};
    kvtps::MgmtFaults cut;
    cut.cutReplyTo = 511;
    for (kvtps::MgmtFaults faults : {fromElsewhere, cut}) {
        SCOPED_TRACE(faults.foreignNode ? "another node" : "cut to 511 bytes");
        StartHost();
        kvtps::ServerConfig server = Server("PS1", "127.0.0.2");
        faults.faultCommands = kvtps::kAnswerReadEeprom;
        server.mgmt = faults;
        StartServers({server});
        EXPECT_TRUE(TCPSearch());
        ASSERT_EQ(TotalPrintServer, 1);
        EXPECT_EQ(AvailPS[0].ModelType, 0) << "never filled";
        EXPECT_STREQ(AvailPS[0].QueueName[0].Text, "lpt1") << "the queue names are read all the same";
        Settle(emulator);
        EXPECT_EQ(emulator.ManagementCounters("PS1").readEeprom, 5u);
        EXPECT_GE(Lines("[TC{PReadEEPROM] Received data check error"), 1u);
        emulator.Stop();
    }
}

}  // namespace
