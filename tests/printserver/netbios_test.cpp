// The emulator's NetBIOS side, asked through the platform's Netbios as the
// monitor asks it: which name answers what, the knobs, and the datagrams of
// both sides as a standard protocol analyser reads them.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

#include "netbios_calls.h"

using namespace kvtps;
using namespace nbtest;

namespace {

// A name of this process with a receive armed on it, that asks by datagram.
struct Asker {
    explicit Asker(const std::string &name) { Arm(receive, Add(name), reply, sizeof reply); }
    ~Asker() { Cancel(receive); }
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
    Asker asker("ASKER"), marker("MARKER");
    asker.Ask(c.to, c.command);
    marker.Ask(kNbGroupName, kMgmtSearch);
    ASSERT_TRUE(Soon([&] { return marker.Answered(); }));
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
        Asker monitor("001a2b3c4d5e.ER"), port("001a2b3c4d5e.E1");
        monitor.Ask(kNbGroupName, kMgmtSearch);
        ASSERT_TRUE(Soon([&] { return monitor.Answered(); }));
        port.Ask("PS1", kMgmtSearch);
        ASSERT_TRUE(Soon([&] { return port.Answered(); }));
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
