// kvtmon discover as a user runs it against emulated print servers, and
// kvtmon demo, which finds its print servers the same way before it prints.
#include "kvtmon_run.h"

namespace {

using CommandRun = kvttest::KvtmonRun;
using kvttest::Holds;
using kvttest::Server;

class KvtmonDiscover : public kvttest::KvtmonTest {
protected:
    KvtmonDiscover() { timeScale_ = "0.1"; }
};

TEST_F(KvtmonDiscover, ShowsEachServerAsTheMonitorFoundIt) {
    ASSERT_EQ(Kvtmon({"init"}).status, 0);
    kvtps::ServerConfig ps1 = Server("PS1", "127.0.0.2"), ps2 = Server("PS2", "127.0.0.3"),
                        ps3 = Server("PS3", "127.0.0.4");
    ps1.queueTexts = {"lp P1", "raw P2", "text P3"};
    ps1.model = 3;
    ps2.eepromAddress = "0.0.0.0";
    ps2.type = 0;
    ps2.autoProtocol = 0;
    ps3.psConfig = 0;
    ps3.node = kvtps::NodeId{0x00, 0x40, 0x26, 0x12, 0x34, 0x56};
    StartServers({ps1, ps2, ps3});

    CommandRun table = Kvtmon({"discover"});
    ASSERT_EQ(table.status, 0) << table.err;
    for (const char *line :
         {"NAME", "PS1                  127.0.0.2        00-00-7F-00-00-02 0x03  3     4    1    lp, raw, text",
          "PS2                  Automatic IP     00-00-7F-00-00-03 0x01  1     0    0",
          "PS3                  TCP/IP Disabled  00-40-26-12-34-56"})
        EXPECT_TRUE(Holds(table.out, line));
    EXPECT_EQ(table.err, "") << "no progress line off a terminal";

    CommandRun json = Kvtmon({"discover", "--json", "--debug"});
    ASSERT_EQ(json.status, 0) << json.err;
    EXPECT_EQ(json.out.front(), '[');
    EXPECT_TRUE(Holds(json.out, "{\"name\": \"PS2\", \"address\": \"Automatic IP\", \"ipAddress\": \"0.0.0.0\", "
                                "\"node\": \"00-00-7F-00-00-03\", \"model\": 1, \"ports\": 1, \"flags\": 5, "
                                "\"queues\": [\"lpt1\", \"lpt2\", \"lpt3\"], \"type\": 0, \"autoProtocol\": 0}"));
    for (const char *name : {"PS1", "PS2", "PS3"}) EXPECT_EQ(emulator_.ManagementCounters(name).search, 6u) << name;
    const std::string log = Kvtmon({"log"}).out;  // with --debug the search is in the log
    for (const char *line : {"[TCPReadEEPROM] Enter\n", "Receive NodeID:00-00-7F-00-00-02\n",
                             "enter search Queuename receive ok\n"})
        EXPECT_TRUE(Holds(log, line));
}

TEST_F(KvtmonDiscover, AQuietNetworkListsNothingAndAMissingPrefixIsNamed) {
    CommandRun none = Kvtmon({"discover"});
    EXPECT_EQ(none.status, 2);
    EXPECT_TRUE(Holds(none.err, "make one with `kvtmon init`"));

    ASSERT_EQ(Kvtmon({"init"}).status, 0);
    none = Kvtmon({"discover"});
    EXPECT_EQ(none.status, 0) << none.err;
    EXPECT_EQ(none.out, "no print server answered\n");
    CommandRun json = Kvtmon({"discover", "--json"});
    EXPECT_EQ(json.out, "[]\n");
    EXPECT_EQ(Kvtmon({"discover", "--tsv"}).status, 2);
}

TEST_F(KvtmonDiscover, OverIpxTheNodeIsTheSendersAndNoQueueNamesAreRead) {
    ASSERT_EQ(Kvtmon({"init"}).status, 0);
    kvtps::ServerConfig ps1 = Server("PS1", "127.0.0.2");
    ps1.ipxFaults.replyNode = kvtps::NodeId{0, 0, 0x7F, 0, 0, 0x22};  // the EEPROM read goes there: nobody
    StartServers({ps1, Server("PS2", "127.0.0.3")});
    CommandRun json = Kvtmon({"discover", "--transport", "ipx", "--json"});
    ASSERT_EQ(json.status, 0) << json.err;
    EXPECT_TRUE(Holds(json.out, "{\"name\": \"PS2\", \"address\": \"127.0.0.3\", \"ipAddress\": \"127.0.0.3\", "
                                "\"node\": \"00-00-7F-00-00-03\", \"model\": 1, \"ports\": 1, \"flags\": 5, "
                                "\"queues\": [\"\", \"\", \"\"], \"type\": 0, \"autoProtocol\": 1}"));
    EXPECT_TRUE(Holds(json.out, "\"name\": \"PS1\", \"address\": \"TCP/IP Disabled\", \"ipAddress\": \"0.0.0.0\", "
                                "\"node\": \"00-00-7F-00-00-22\", \"model\": 0"));
    EXPECT_EQ(emulator_.ManagementCounters("PS2").search, 0u) << "nothing over UDP";
}

// Over NetBIOS, after the start-up (one query to the group, answered at
// once): the query to the group four times; each
// server listed once, whether it answers on time, late, from another name or
// on the group only, and read by its ".CFG" name (of a short name of 8, 6 or
// 0 bytes), five times more when the read goes unanswered; no queue names.
TEST_F(KvtmonDiscover, OverNetbiosEachServerIsListedOnceAndReadByItsCfgName) {
    ASSERT_EQ(Kvtmon({"init"}).status, 0);
    const struct {
        const char *name, *shortName, *replyName;
        int lateMs;  // after the first period of 50 ms
        bool groupOnly;
        uint64_t minReads, maxReads;
    } cases[] = {{"PS8", "ABCDEFGH", "", 0, false, 1, 1},
                 {"PS6", "ABCDEF", "", 75, false, 2, 3},
                 {"PS0", "", "ELSEWHERE", 0, false, 1, 1},
                 {"PSG", "PSG", "", 0, true, 6, 6}};
    std::vector<kvtps::ServerConfig> configs;
    for (const auto &c : cases) {
        configs.push_back(Server(c.name, "127.0.0." + std::to_string(2 + configs.size())));
        configs.back().shortName = *c.shortName ? c.shortName : std::string(1, '\0');
        configs.back().netbios.replyName = c.replyName;
        configs.back().netbios.lateMs = c.lateMs;
        configs.back().netbios.groupOnly = c.groupOnly;
    }
    StartServers(configs);
    CommandRun json = Kvtmon({"discover", "--transport", "netbios", "--json"});
    ASSERT_EQ(json.status, 0) << json.err;
    EXPECT_TRUE(Holds(json.out, "{\"name\": \"PS8\", \"address\": \"127.0.0.2\", \"ipAddress\": \"127.0.0.2\", "
                                "\"node\": \"00-00-7F-00-00-02\", \"model\": 1, \"ports\": 1, \"flags\": 5, "
                                "\"queues\": [\"\", \"\", \"\"], \"type\": 0, \"autoProtocol\": 1}"));
    for (const auto &c : cases) {
        const kvtps::NbCounters seen = emulator_.NetbiosCounters(c.name);
        EXPECT_TRUE(seen.groupSearch == 1 + 4 && seen.cfgReadEeprom >= c.minReads && seen.cfgReadEeprom <= c.maxReads)
            << c.name << ": " << seen.groupSearch << " searches, " << seen.cfgReadEeprom << " reads";
        const bool read = c.maxReads < 6;
        EXPECT_TRUE(Holds(json.out, std::string("\"name\": \"") + c.name + "\", \"address\": \"" +
                                        (read ? "127.0.0." : "TCP/IP Disabled")));
    }
}

// The demo runs its own private network inside this test's.
TEST_F(KvtmonDiscover, TheDemoFindsItsPrintServersAndPrintsToAPortMadeFromWhatItFound) {
    kvttest::KvtmonRun demo = kvttest::RunProgram({kvttest::KvtmonPath(), "demo"}, {"KVT_TIMESCALE=0.1"});
    EXPECT_EQ(demo.status, 0) << demo.out << demo.err;
    for (const char *line :
         {"  PS2                  127.0.0.3        00-00-7F-00-00-03 0x03  3     4    1    lpt1, lpt2, lpt3",
          "    added PS1-P1\nadding every printer port found", "PS1 received job dfA007", "on queue \"lp\" at 127.0.0.12",
          "PS2 received it over IPX on channel 1 of printer port 2: 256.0 KiB in 264 frames, identical",
          "Try IPX protocol", "    added PS2-P2", "PS2-P2: transport IPX (1)",
          "PS3 received it over IPX on channel 1 of printer port 1: 64.0 KiB in 66 frames, identical", "demo ok"})
        EXPECT_TRUE(Holds(demo.out, line));
}

}  // namespace
