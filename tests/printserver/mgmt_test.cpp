// The emulator's management side: which queries a server answers, its replies
// byte for byte, a new address while it runs, emulators that share the port,
// and the settings it refuses; its NetBIOS side, asked through the platform's
// Netbios as the monitor asks it: which name answers what, the knobs, and the
// datagrams of both sides as a standard protocol analyser reads them.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <map>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "kvtps.h"
#include "lpr_client.h"
#include "netbios_calls.h"

using namespace kvtps;
using namespace kvtps_test;
using namespace nbtest;

namespace {

const NodeId kAll = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
const NodeId kNode2 = {0x00, 0x00, 0x7F, 0x00, 0x00, 0x02};
const NodeId kOther = {0x00, 0x40, 0x26, 0x00, 0x00, 0x0B};

// A monitor's side of the datagrams: a socket on any address that broadcasts
// a query and collects the replies (by the address they came from).
class Asker {
public:
    Asker() {
        fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        int on = 1;
        setsockopt(fd_, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
        sockaddr_in any{};
        any.sin_family = AF_INET;
        bind(fd_, reinterpret_cast<sockaddr *>(&any), sizeof any);
    }
    ~Asker() { close(fd_); }

    void Send(const NodeId &node, uint8_t command) {
        SendRaw(std::string(node.begin(), node.end()) + std::string{0, char(command), char(0xFF), char(~command)});
    }
    void SendRaw(const std::string &bytes) {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(kMgmtPort);
        to.sin_addr.s_addr = htonl(INADDR_BROADCAST);
        sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    }
    // Replies until none has come for waitMs, keyed by the sender's address.
    std::multimap<std::string, std::string> Replies(int waitMs = 300) {
        std::multimap<std::string, std::string> replies;
        pollfd p{fd_, POLLIN, 0};
        while (poll(&p, 1, waitMs) == 1) {
            char buffer[2048];
            sockaddr_in from{};
            socklen_t length = sizeof from;
            ssize_t n = recvfrom(fd_, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr *>(&from), &length);
            char text[INET_ADDRSTRLEN];
            inet_ntop(AF_INET, &from.sin_addr, text, sizeof text);
            if (n >= 0) replies.emplace(text, std::string(buffer, static_cast<size_t>(n)));
        }
        return replies;
    }
    std::string OnlyReply(uint8_t command, const NodeId &node = kAll) {
        Send(node, command);
        auto replies = Replies();
        EXPECT_EQ(replies.size(), 1u);
        return replies.empty() ? "" : replies.begin()->second;
    }

private:
    int fd_ = -1;
};

std::string Head(const NodeId &node, uint8_t command) {
    return std::string(node.begin(), node.end()) + std::string{1, char(command), 0, 0};
}

class Management : public ::testing::Test {
protected:
    void Start(std::vector<ServerConfig> servers) {
        std::string error;
        ASSERT_TRUE(emulator.Start(std::move(servers), &error)) << error;
    }
    Emulator emulator;
    Asker asker;
};

TEST_F(Management, AServerAnswersItsNodeAndEveryoneButNoOtherNode) {
    Start({Server("PS1", "127.0.0.2"), Server("PS2", "127.0.0.3")});
    asker.Send(kAll, kMgmtSearch);
    auto replies = asker.Replies();
    ASSERT_EQ(replies.size(), 2u);
    EXPECT_EQ(replies.find("127.0.0.2")->second.substr(0, 10), Head(kNode2, kMgmtSearch)) << "from its own address";
    asker.Send(kNode2, kMgmtStatus);
    replies = asker.Replies();
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies.begin()->first, "127.0.0.2");
    asker.Send(kOther, kMgmtStatus);
    EXPECT_TRUE(asker.Replies(100).empty());
    asker.SendRaw("\xFF\xFF\xFF\xFF\xFF\xFF\x00\x04\xFF\xFA");  // a wrong complement
    asker.SendRaw("short");
    EXPECT_TRUE(asker.Replies(100).empty());

    MgmtCounters c = emulator.ManagementCounters("PS1");
    EXPECT_EQ(c.search, 1u);
    EXPECT_EQ(c.status, 1u);
    EXPECT_EQ(c.replies, 2u);
    EXPECT_EQ(emulator.ManagementCounters("PS2").status, 0u);
    MgmtTraffic t = emulator.ManagementTraffic();
    EXPECT_EQ(t.datagrams, 5u);
    EXPECT_EQ(t.malformed, 2u);
    EXPECT_EQ(t.unaddressed, 1u);
}

// Each reply's length, its names and node, a full queue-name field and the
// status's address.  The model, the bytes of the flags, Type, AutoProtocol,
// the EEPROM's address and the queue-name texts are held where the monitor
// reads them from kvtps (TcpSearch.FindsEachServerWithItsImageAndQueueNames).
TEST_F(Management, RepliesCarryEachFieldWhereTheMonitorReadsIt) {
    ServerConfig c = Server("PS1", "127.0.0.2");
    c.deviceName = "Front office";
    c.shortName = "FRONT";
    c.node = kOther;
    c.eepromAddress = "10.1.2.3";
    c.queueTexts = {"lp P1", std::string(63, 'q'), ""};
    Start({c});

    std::string search = asker.OnlyReply(kMgmtSearch);
    ASSERT_EQ(search.size(), 76u);
    EXPECT_EQ(search.substr(0, 10), Head(kOther, kMgmtSearch));
    EXPECT_EQ(search.substr(10, 8), Raw("FRONT\0\0\0"));
    EXPECT_EQ(search.substr(18, 13), Raw("Front office\0"));

    std::string image = asker.OnlyReply(kMgmtReadEeprom, kOther);
    ASSERT_EQ(image.size(), 522u);
    EXPECT_EQ(image.substr(12, 6), std::string(kOther.begin(), kOther.end()));

    std::string queues = asker.OnlyReply(kMgmtQueueNames, kOther);
    ASSERT_EQ(queues.size(), 203u);
    EXPECT_EQ(queues.substr(76, 63), std::string(63, 'q')) << "a full field has no terminator";
    EXPECT_EQ(queues[139], 0);
    EXPECT_EQ(queues[140], 0);

    std::string status = asker.OnlyReply(kMgmtStatus, kOther);
    ASSERT_EQ(status.size(), 72u);
    EXPECT_EQ(status.substr(68, 4), Raw("\x7F\x00\x00\x02")) << "its address, not the EEPROM's";
}

TEST_F(Management, EmulatorsShareThePortAndServersMayShareAName) {
    ServerConfig a = Server("A", "127.0.0.2"), b = Server("B", "127.0.0.3"), quiet = Server("Q", "127.0.0.4");
    a.deviceName = b.deviceName = "Twin";
    quiet.management = false;
    Start({a, quiet});
    Emulator second;
    std::string error;
    ASSERT_TRUE(second.Start({b}, &error)) << error;
    asker.Send(kAll, kMgmtSearch);
    auto replies = asker.Replies();
    ASSERT_EQ(replies.size(), 2u) << "both emulators, not the server without management";
    for (const auto &[from, reply] : replies) EXPECT_EQ(reply.substr(18, 5), Raw("Twin\0")) << from;
    EXPECT_EQ(emulator.ManagementCounters("Q").search, 0u);
}

TEST(ManagementConfig, NodesAndBadSettingsAreRefusedWithAReason) {
    NodeId node;
    EXPECT_TRUE(ParseNode("00:40:26:0a:0B:ff", &node));
    EXPECT_EQ(NodeText(node), "00-40-26-0a-0b-ff");
    EXPECT_FALSE(ParseNode("00-40-26-0a-0b", &node));
    EXPECT_FALSE(ParseNode("00-40-26-0a-0b-fg", &node));
    EXPECT_EQ(NodeFromAddress("10.1.2.3"), (NodeId{0, 0, 10, 1, 2, 3}));

    Emulator emulator;
    std::string error;
    ServerConfig c = Server("PS1", "127.0.0.2");
    c.shortName = "TOOLONGNAME";
    EXPECT_FALSE(emulator.Start({c}, &error));
    EXPECT_EQ(error, "server PS1: a short name has at most 8 bytes");
    c = Server("PS1", "127.0.0.2");
    c.queueTexts[2] = std::string(64, 'q');
    EXPECT_FALSE(emulator.Start({c}, &error));
    EXPECT_EQ(error, "server PS1: a queue-name text has at most 63 bytes");
    ASSERT_TRUE(emulator.Start({Server("PS1", "127.0.0.2")}, &error)) << error;
    MgmtFaults f;
    f.statusAddress = "300.1.1.1";
    EXPECT_FALSE(emulator.SetManagementFaults("PS1", f, &error));
    EXPECT_EQ(error, "bad status address '300.1.1.1'");
    EXPECT_FALSE(emulator.SetManagementFaults("PS9", MgmtFaults(), &error));
}

// ---- the NetBIOS side, asked through the platform's Netbios as the monitor asks it ----

// A name of this process with a receive armed on it, that asks by datagram.
struct NbAsker {
    explicit NbAsker(const std::string &name) { Arm(receive, Add(name), reply, sizeof reply); }
    ~NbAsker() { Cancel(receive); }
    void Ask(const std::string &to, uint8_t command) {
        Send(receive.ncb_num, to, std::string{'P', 'S', 0, 0, 0, char(command), char(0xFF), char(~command)});
    }
    bool Answered() const { return Code(receive) == NRC_GOODRET; }
    NCB receive;
    UCHAR reply[1024];
};

class NetbiosSide : public ::testing::Test {
protected:
    void Serve(const NbFaults &faults = {}) {
        kvthost::SetNetbiosLanas({});
        ASSERT_EQ(Call(NCBRESET), NRC_GOODRET);
        std::string error;
        ASSERT_TRUE(emulator.Start({Ps1(faults)}, &error)) << error;
    }
    Emulator emulator;
};

struct AskCase {
    const char *name;
    NbFaults faults;
    const char *to;
    uint8_t command;
    const char *from;  // the name the reply comes from; nullptr: no reply
};

class NetbiosAnswers : public NetbiosSide, public ::testing::WithParamInterface<AskCase> {};

// A marker query to the group, which is always answered, goes behind the one
// under test: the server answers in order, so once the marker's reply is in,
// the first's would be.
TEST_P(NetbiosAnswers, EachNameAnswersItsOwnQuery) {
    const AskCase &c = GetParam();
    Serve(c.faults);
    NbAsker asker("ASKER"), marker("MARKER");
    asker.Ask(c.to, c.command);
    marker.Ask(kNbGroupName, kMgmtSearch);
    ASSERT_TRUE(Eventually([&] { return marker.Answered(); }));
    ASSERT_EQ(asker.Answered(), c.from != nullptr);
    if (c.from == nullptr) return;
    EXPECT_EQ(Text(asker.receive.ncb_callname, 16), Text(kvtnb::MakeName(c.from).data(), 16));
    EXPECT_EQ(asker.receive.ncb_length, 8 + (c.command == kMgmtSearch ? kSearchBodyBytes : kEepromBytes));
    EXPECT_EQ(Text(asker.reply, 6), Text("PS\x80\x00\x01", 5) + char(c.command));
}

INSTANTIATE_TEST_SUITE_P(
    , NetbiosAnswers,
    ::testing::Values(AskCase{"SearchToItsName", {}, "PS1", kMgmtSearch, "PS1"},
                      AskCase{"EepromReadToItsCfgName", {}, "PS1.CFG", kMgmtReadEeprom, "PS1"},
                      AskCase{"GroupOnlyLeavesItsName", {true, true, "", 0, {}}, "PS1", kMgmtSearch, nullptr},
                      AskCase{"FromAnotherName", {true, false, "ELSEWHERE", 0, {}}, kNbGroupName, kMgmtSearch, "ELSEWHERE"}),
    [](const auto &info) { return std::string(info.param.name); });

// Captured on the private network's loopback.  The group's name may be
// anyone's: direct group (17).  PS1, once heard as a sender, is one station's
// own: direct unique (16).
TEST_F(NetbiosSide, TsharkReadsTheDatagramsOfBothSidesWithTheirNames) {
    if (std::system("tshark -v >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "tshark is not installed (Debian: tshark), so no analyser reads the datagrams";
    FILE *tshark = popen("tshark -i lo -l -c 4 -a duration:30 -f 'udp port 138' -T fields -E separator=,"
                         " -e nbdgm.type -e nbdgm.src.ip -e nbdgm.source_name -e nbdgm.destination_name 2>&1",
                         "r");
    char line[256];
    while (fgets(line, sizeof line, tshark) && !std::strstr(line, "Capture started")) {
    }
    Serve();
    {
        NbAsker monitor("001a2b3c4d5e.ER"), port("001a2b3c4d5e.E1");
        monitor.Ask(kNbGroupName, kMgmtSearch);
        ASSERT_TRUE(Eventually([&] { return monitor.Answered(); }));
        port.Ask("PS1", kMgmtSearch);
        ASSERT_TRUE(Eventually([&] { return port.Answered(); }));
    }
    std::string text;
    while (fgets(line, sizeof line, tshark))
        if (line[0] == '1') text += line;
    pclose(tshark);
    EXPECT_EQ(text,
              "17,127.0.0.1,001a2b3c4d5e.ER<20>,KVTR.GROUP<20>\n"
              "16,127.0.0.2,PS1<20>,001a2b3c4d5e.ER<20>\n"
              "16,127.0.0.1,001a2b3c4d5e.E1<20>,PS1<20>\n"
              "16,127.0.0.2,PS1<20>,001a2b3c4d5e.E1<20>\n");
}

}  // namespace
