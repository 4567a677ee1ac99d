// kvtmon discover as a user runs it against emulated print servers, and
// kvtmon demo, which finds its print servers the same way before it prints.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "kvtmon_run.h"
#include "kvtps.h"

namespace {

using CommandRun = kvttest::KvtmonRun;
using kvttest::Slurp;

class KvtmonDiscover : public ::testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/kvt-discover-XXXXXX";
        dir_ = mkdtemp(dir);
    }
    void TearDown() override {
        emulator_.Stop();
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }

    void StartServers(const std::vector<kvtps::ServerConfig> &servers) {
        std::string error;
        ASSERT_TRUE(emulator_.Start(servers, &error)) << error;
    }

    // kvtmon with a prefix of this test's own and the monitor's waits shrunk.
    CommandRun Kvtmon(std::vector<std::string> args) { return kvttest::RunKvtmon(std::move(args), dir_, "0.1"); }

    static kvtps::ServerConfig Server(const std::string &name, const std::string &address) {
        kvtps::ServerConfig c;
        c.name = name;
        c.address = address;
        return c;
    }

    std::string dir_;
    kvtps::Emulator emulator_;
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
    EXPECT_NE(table.out.find("NAME"), std::string::npos);
    EXPECT_NE(table.out.find("PS1                  127.0.0.2        00-00-7F-00-00-02 0x03  3     4    1    lp, raw, text"),
              std::string::npos)
        << table.out;
    EXPECT_NE(table.out.find("PS2                  Automatic IP     00-00-7F-00-00-03 0x01  1     0    0"),
              std::string::npos)
        << table.out;
    EXPECT_NE(table.out.find("PS3                  TCP/IP Disabled  00-40-26-12-34-56"), std::string::npos)
        << table.out;
    EXPECT_EQ(table.err, "") << "no progress line off a terminal";

    CommandRun json = Kvtmon({"discover", "--json"});
    ASSERT_EQ(json.status, 0) << json.err;
    EXPECT_EQ(json.out.front(), '[');
    EXPECT_NE(json.out.find("{\"name\": \"PS2\", \"address\": \"Automatic IP\", \"ipAddress\": \"0.0.0.0\", "
                            "\"node\": \"00-00-7F-00-00-03\", \"model\": 1, \"ports\": 1, \"flags\": 5, "
                            "\"queues\": [\"lpt1\", \"lpt2\", \"lpt3\"], \"type\": 0, \"autoProtocol\": 0}"),
              std::string::npos)
        << json.out;
    for (const char *name : {"PS1", "PS2", "PS3"}) EXPECT_EQ(emulator_.ManagementCounters(name).search, 6u) << name;
}

TEST_F(KvtmonDiscover, AQuietNetworkListsNothingAndAMissingPrefixIsNamed) {
    CommandRun none = Kvtmon({"discover"});
    EXPECT_EQ(none.status, 2);
    EXPECT_NE(none.err.find("make one with `kvtmon init`"), std::string::npos) << none.err;

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
    EXPECT_NE(json.out.find("{\"name\": \"PS2\", \"address\": \"127.0.0.3\", \"ipAddress\": \"127.0.0.3\", "
                            "\"node\": \"00-00-7F-00-00-03\", \"model\": 1, \"ports\": 1, \"flags\": 5, "
                            "\"queues\": [\"\", \"\", \"\"], \"type\": 0, \"autoProtocol\": 1}"),
              std::string::npos)
        << json.out;
    EXPECT_NE(json.out.find("\"name\": \"PS1\", \"address\": \"TCP/IP Disabled\", \"ipAddress\": \"0.0.0.0\", "
                            "\"node\": \"00-00-7F-00-00-22\", \"model\": 0"),
              std::string::npos)
        << json.out;
    EXPECT_EQ(emulator_.ManagementCounters("PS2").search, 0u) << "nothing over UDP";
}

TEST_F(KvtmonDiscover, WithDebugTheSearchIsInTheLog) {
    ASSERT_EQ(Kvtmon({"init"}).status, 0);
    StartServers({Server("PS1", "127.0.0.2")});
    ASSERT_EQ(Kvtmon({"discover", "--debug"}).status, 0);
    std::string log = Kvtmon({"log"}).out;
    EXPECT_NE(log.find("[TCPReadEEPROM] Enter\n"), std::string::npos) << log;
    EXPECT_NE(log.find("Receive NodeID:00-00-7F-00-00-02\n"), std::string::npos) << log;
    EXPECT_NE(log.find("enter search Queuename receive ok\n"), std::string::npos) << log;
}

// The demo runs its own private network inside this test's.
TEST(KvtmonDemo, FindsItsPrintServersAndPrintsToAPortMadeFromWhatItFound) {
    const char *kvtmon = std::getenv("KVTMON");
    std::string command = std::string(kvtmon != nullptr ? kvtmon : KVT_BIN_DIR "/kvtmon") + " demo 2>&1";
    setenv("KVT_TIMESCALE", "0.1", 1);
    FILE *p = popen(command.c_str(), "r");
    ASSERT_NE(p, nullptr);
    std::string out;
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, p)) > 0;) out.append(buffer, n);
    int status = pclose(p);
    unsetenv("KVT_TIMESCALE");
    EXPECT_EQ(WEXITSTATUS(status), 0) << out;
    EXPECT_NE(out.find("  PS2                  127.0.0.3        00-00-7F-00-00-03 0x03  3     4    1    lpt1, lpt2, lpt3"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("    added PS1-P1\nadding every printer port found"), std::string::npos) << out;
    EXPECT_NE(out.find("PS1 received job dfA007"), std::string::npos) << out;
    EXPECT_NE(out.find("on queue \"lp\" at 127.0.0.12"), std::string::npos) << out;
    for (const char *line : {"PS2 received it over IPX on channel 1 of printer port 2: 256.0 KiB in 264 frames, identical",
                             "Try IPX protocol", "    added PS2-P2", "PS2-P2: transport IPX (1)",
                             "PS3 received it over IPX on channel 1 of printer port 1: 64.0 KiB in 66 frames, identical"})
        EXPECT_NE(out.find(line), std::string::npos) << out;
    EXPECT_NE(out.find("demo ok"), std::string::npos) << out;
}

}  // namespace
