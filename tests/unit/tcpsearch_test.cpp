// TCP/IP discovery: what each stage takes from a datagram (names, duplicates,
// Type, the EEPROM image, queue-name cuts), and whole searches against
// emulated print servers that share a name or answer less, counted by what
// the servers were asked (what a search finds of each kind of server:
// integration_tests KvtmonDiscover.ShowsEachServerAsTheMonitorFoundIt).
#include <gtest/gtest.h>

#include "discovery.h"
#include "fixture.h"

using namespace kvttest;

namespace {

const Bytes kNodeA = Node(0x00, 0x40, 0x26, 0x00, 0x00, 0x0A);
const Bytes kNodeB = Node(0x00, 0x40, 0x26, 0x00, 0x00, 0x0B);

// The monitor started over a fresh host, its table empty, and an empty
// table of a search's own for what each stage takes.
class Discovery : public MonitorTest {
protected:
    void SetUp() override { StartHost({.timeScale = 0.2}); }
    AvailPSTable t{};
};

// ---- what the search takes from a reply ---------------------------------------------------

using SearchReplies = Discovery;

// Names differ in case; trailing blanks go (blanks only is the empty name),
// and a name that fills its field ends inside it and inside its record.
TEST_F(SearchReplies, ANameAlreadyListedKeepsItsFirstNodeAndTrailingBlanksGo) {
    const struct {
        const Bytes &node;
        std::string name;
        bool taken;
    } replies[] = {{kNodeA, "PS1", true},   {kNodeB, "PS1", false},       {kNodeA, "PS1", false},
                   {kNodeB, "ps1", true},   {kNodeA, "Office  PS   ", true}, {kNodeB, "Office  PS", false},
                   {kNodeA, "   ", true},   {kNodeB, "", false},          {kNodeB, std::string(50, 'x'), true}};
    for (const auto &r : replies)
        EXPECT_EQ(TCPSearchTakeReply(&t, Data(SearchReply(r.node, r.name)), 76), r.taken) << r.name;
    ASSERT_EQ(t.Count, 5);
    const std::string names[] = {"PS1", "ps1", "Office  PS", "", std::string(47, 'x')};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(NameOf(i, t.Records), names[i]);
    EXPECT_EQ(NodeOf(0, t.Records), kNodeA);
    EXPECT_EQ(NodeOf(1, t.Records), kNodeB);
}

// Only Type 0 and 4 reach the table; another command, a query's head or a
// reply without AutoProtocol is dropped.
TEST_F(SearchReplies, OnlyType0And4ReachTheTableAndOtherRepliesAreDropped) {
    for (uint8_t type : {0, 4, 1, 2, 5, 0xFF})
        TCPSearchTakeReply(&t, Data(SearchReply(kNodeA, "T" + std::to_string(type), type, type == 0 ? 0 : 1)), 76);
    ASSERT_EQ(t.Count, 2);
    EXPECT_TRUE(NameOf(0, t.Records) == "T0" && t.Records[0].Type == 0 && t.Records[0].AutoProtocol == 0);
    EXPECT_TRUE(NameOf(1, t.Records) == "T4" && t.Records[1].Type == 4 && t.Records[1].AutoProtocol == 1);
    Bytes reply = SearchReply(kNodeA, "PS1"), other = reply, query = reply;
    other[7] = 0x05, query[6] = 0x00;
    EXPECT_FALSE(TCPSearchTakeReply(&t, Data(reply), 70)) << "AutoProtocol not in it";
    EXPECT_FALSE(TCPSearchTakeReply(&t, Data(other), 76));
    EXPECT_FALSE(TCPSearchTakeReply(&t, Data(query), 76));
    EXPECT_EQ(t.Count, 2);
    EXPECT_TRUE(TCPSearchTakeReply(&t, Data(reply), 71)) << "everything read is there";
}

TEST_F(SearchReplies, TheHundredAndFirstServerIsLeftOut) {
    for (int i = 1; i <= 101; ++i) TCPSearchTakeReply(&t, Data(SearchReply(kNodeA, "S" + std::to_string(i))), 76);
    EXPECT_EQ(t.Count, AVAILPS_RECORDS);
    EXPECT_EQ(NameOf(99, t.Records), "S100");
    EXPECT_FALSE(TCPSearchTakeReply(&t, Data(SearchReply(kNodeA, "S1")), 76)) << "a duplicate, not a 101st";
    EXPECT_EQ(LogLinesStartingWith("AvailPS full"), std::vector<std::string>{"AvailPS full, left out: S101"});
}

// ---- the EEPROM image ----------------------------------------------------------------------

using EepromReplies = Discovery;

// The image fills model, address and both flags, each read clearing the
// flags first (other bits of the two bytes mean nothing here); one from
// another node, cut short or for no record fills nothing.
TEST_F(EepromReplies, OnlyAWholeImageFromItsNodeFillsModelAddressAndBothFlags) {
    const Bytes ip("\x0A\x00\x00\x07", 4), good = EepromReply(kNodeA, 0x83, 0x04, 0x01, ip);
    t.Records[3].Flags = 0xFF;
    EXPECT_TRUE(TCPTakeEEPROM(Data(good), 522, Data(kNodeA), &t.Records[3]));
    EXPECT_EQ(t.Records[3].ModelType, 0x83);
    EXPECT_EQ(Bytes(reinterpret_cast<char *>(&t.Records[3].IPAddress), 4), ip);
    EXPECT_EQ(t.Records[3].Flags, PS_FLAG_TCPIP_SUPPORTED | PS_FLAG_TCPIP_ENABLED);
    EXPECT_EQ(LogLinesStartingWith("IP Address:"), std::vector<std::string>{"IP Address:10.0.0.7"});
    for (const char *line : {"ps.SupportProtocol(1):1", "ps.Config(4):4", "Support TCPIP", "TCPIP Enable"})
        EXPECT_EQ(LogCount(line), 1u) << line;
    EXPECT_TRUE(TCPTakeEEPROM(Data(EepromReply(kNodeA, 1, 0xFB, 0xFE, Bytes(4, '\0'))), 522, Data(kNodeA), &t.Records[3]));
    EXPECT_EQ(t.Records[3].Flags, 0);

    t.Records[0].ModelType = 0x42;
    EXPECT_FALSE(TCPTakeEEPROM(Data(EepromReply(kNodeB, 3, 4, 1, Bytes(4, '\x01'))), 522, Data(kNodeA), &t.Records[0]));
    EXPECT_FALSE(TCPTakeEEPROM(Data(good), 511, Data(kNodeA), &t.Records[0])) << "the address's last byte missing";
    EXPECT_EQ(t.Records[0].ModelType, 0x42);
    EXPECT_TRUE(TCPTakeEEPROM(Data(good), 512, Data(kNodeA), &t.Records[0]));
}

// ---- queue names ------------------------------------------------------------------------------

TEST_F(Discovery, QueueNamesAreCutByTwoBytesAndOneBlank) {
    const Bytes reply = QueueReply(kNodeB, "abcdefgh", "abcdef xy", "abcdef  xy");
    EXPECT_TRUE(TCPTakeQueueNames(Data(reply), 203, &t.Records[5])) << "the node isn't compared";
    EXPECT_STREQ(t.Records[5].QueueName[0].Text, "abcdef");
    EXPECT_STREQ(t.Records[5].QueueName[1].Text, "abcdef");
    EXPECT_STREQ(t.Records[5].QueueName[2].Text, "abcdef ");
    EXPECT_EQ(LogLinesStartingWith("show search Qname"), std::vector<std::string>{"show search Qname sizeof of wcslen 8"});
    EXPECT_EQ(LogCount("6162636465666768"), 1u) << "port 1's first eight bytes before the cut";
    EXPECT_EQ(LogCount("6162636465660068"), 1u) << "and after it: the cut writes one terminator";

    // Texts of fewer than two bytes become empty; a text filling its field has no terminator.
    std::memset(t.Records[5].QueueName, 'z', sizeof t.Records[5].QueueName);
    EXPECT_TRUE(TCPTakeQueueNames(Data(QueueReply(kNodeB, "a", "", std::string(63, 'q'))), 203, &t.Records[5]));
    EXPECT_STREQ(t.Records[5].QueueName[0].Text, "");
    EXPECT_STREQ(t.Records[5].QueueName[1].Text, "");
    EXPECT_EQ(std::string(t.Records[5].QueueName[2].Text), std::string(61, 'q'));
    EXPECT_EQ(t.Records[5].QueueName[2].Text[62], 'z') << "nothing written past the cut text";

    EXPECT_FALSE(TCPTakeQueueNames(Data(reply), 202, &t.Records[5])) << "port 3's field cut off";
    Bytes status = reply;
    status[7] = 0x05;
    EXPECT_FALSE(TCPTakeQueueNames(Data(status), 203, &t.Records[5]));
}

// ---- whole searches ----------------------------------------------------------------------------

using TcpSearch = Discovery;

// A server of another type beside them is neither listed nor read.
TEST_F(TcpSearch, ServersThatShareANameShareOneRecordAndOnlyTheFirstIsRead) {
    kvtps::ServerConfig a = Server("A", "127.0.0.2"), b = Server("B", "127.0.0.3"), typed = Server("T", "127.0.0.4");
    a.deviceName = b.deviceName = "Shared";
    typed.type = 1;
    StartServers({a, b, typed});
    EXPECT_TRUE(TCPSearch());
    ASSERT_EQ(TotalPrintServer, 1);
    EXPECT_EQ(NameOf(0), "Shared");
    const std::string first = NodeOf(0) == Node(0, 0, 127, 0, 0, 2) ? "A" : "B", second = first == "A" ? "B" : "A";
    Settle(emulator);
    EXPECT_GE(emulator.ManagementCounters(first).readEeprom, 1u);
    EXPECT_EQ(emulator.ManagementCounters(second).readEeprom, 0u) << "its node isn't in the table";
    EXPECT_EQ(emulator.ManagementCounters(second).search, 3u) << "it answered all the same";
    EXPECT_EQ(emulator.ManagementCounters("T").readEeprom, 0u);
}

// A silent network costs three passes, each ending by its wait, and no read;
// a server that answers nothing but the search costs every try of each read
// (five and seven), and its record keeps what it held.  No case awaits a
// reply: the reads go to the server's node from a record made by hand, so
// that the waits can be short and no reply is ever late.
TEST_F(TcpSearch, ASilentServerCostsThreePassesOrEveryTryOfItsReads) {
    const struct {
        bool silent;  // or answers the search alone, and only the reads run
        uint64_t searches, eepromReads, queueReads;
        std::vector<std::pair<const char *, size_t>> lines;
    } cases[] = {{true, 3, 0, 0, {{"[TCPSearchRcv()] Select Error", 3}, {"[TCPReadEEPROM]", 0}}},
                 {false, 0, 5, 7,
                  {{"[TCPReadEEPROM] Received Error", 5}, {"enter search Queuename before receive ok", 7},
                   {"enter search Queuename receive ok", 0}}}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.silent);
        StartHost({.timeScale = 0.02});
        AvailPS[0].ModelType = 0x42;
        std::strcpy(AvailPS[0].QueueName[0].Text, "old");
        StartServers({With(Server(), [&](auto &s) { s.mgmt.silent = c.silent, s.mgmt.answers = kvtps::kAnswerSearch; })});
        if (c.silent) {
            EXPECT_TRUE(TCPSearch());
            EXPECT_EQ(TotalPrintServer, 0);
        } else {
            const BYTE node[NODE_ID_BYTES] = {0, 0, 0x7F, 0, 0, 2};
            EXPECT_TRUE(TCPReadEEPROM(node, &AvailPS[0]) && TCPSearchQueueName(node, &AvailPS[0]));
        }
        EXPECT_TRUE(AvailPS[0].ModelType == 0x42 && std::string(AvailPS[0].QueueName[0].Text) == "old");
        Settle(emulator);
        const kvtps::MgmtCounters seen = emulator.ManagementCounters("PS1");
        EXPECT_TRUE(seen.search == c.searches && seen.readEeprom == c.eepromReads && seen.queueNames == c.queueReads)
            << seen.search << " searches, " << seen.readEeprom << " and " << seen.queueNames << " reads";
        for (const auto &[line, count] : c.lines) EXPECT_EQ(LogCount(line), count) << line;
    }
}

TEST_F(TcpSearch, AStrayOrShortEepromReplyCostsATry) {
    for (bool foreign : {true, false}) {
        SCOPED_TRACE(foreign ? "another node" : "cut to 511 bytes");
        StartHost({.timeScale = 0.2});
        StartServers({With(Server(), [&](auto &c) {
            c.mgmt.foreignNode = foreign, c.mgmt.replyNode = {0x00, 0x40, 0x26, 0x00, 0x00, 0x0B};
            c.mgmt.cutReplyTo = foreign ? 0 : 511, c.mgmt.faultCommands = kvtps::kAnswerReadEeprom;
        })});
        EXPECT_TRUE(TCPSearch());
        ASSERT_EQ(TotalPrintServer, 1);
        EXPECT_EQ(AvailPS[0].ModelType, 0) << "never filled";
        EXPECT_STREQ(AvailPS[0].QueueName[0].Text, "lpt1") << "the queue names are read all the same";
        Settle(emulator);
        EXPECT_EQ(emulator.ManagementCounters("PS1").readEeprom, 5u);
        EXPECT_GE(LogCount("[TC{PReadEEPROM] Received data check error"), 1u);
    }
}

}  // namespace
