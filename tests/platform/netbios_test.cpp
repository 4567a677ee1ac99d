// The platform's NetBIOS on its own: the datagram packets of RFC 1002 byte for
// byte, the codes of the commands, and receives that complete, are cancelled or
// end with a reset.  (The names of two processes on one host, each getting what
// is sent to its own: kvtmon's NetBIOS jobs and searches to kvtps in the test
// program, in the integration tests.)
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "kvthost.h"
#include "netbios_calls.h"

namespace {

using namespace nbtest;
using kvtnb::MakeName;

TEST(NetbiosPackets, ADatagramGoesOutAsRfc1002SaysAndComesBackWhole) {
    EXPECT_EQ(kvtnb::EncodeName(MakeName("FRED")), std::string("\x20" "EGFCEFEECACACACACACACACACACACACA", 33) + '\0');
    kvtnb::Datagram d;
    d.type = kvtnb::DatagramType::DirectGroup;
    d.id = 0x1234;
    d.sourceIp = 0x7F000001;
    d.source = MakeName("001a2b3c4d5e.ER");
    d.destination = MakeName("KVTR.GROUP");
    d.data = std::string("PS\0\0\0\x04\xFF\xFB", 8);
    const std::string packet = kvtnb::EncodeDatagram(d);
    ASSERT_EQ(packet.size(), 90u);
    EXPECT_EQ(packet.substr(0, 14), Text("\x11\x02\x12\x34\x7F\x00\x00\x01\x00\x8A\x00\x4C\x00\x00", 14));
    kvtnb::Datagram back;
    ASSERT_TRUE(kvtnb::DecodeDatagram(reinterpret_cast<const uint8_t *>(packet.data()), packet.size(), &back));
    EXPECT_EQ(kvtnb::EncodeDatagram(back), packet);

    // Anything but a whole direct datagram in one piece is refused.
    const std::vector<std::pair<size_t, char>> faults = {
        {0, 0x12} /* a broadcast datagram */, {1, 0x03} /* more fragments follow */, {1, 0x00} /* not the first */,
        {13, 1} /* at an offset */, {20, 'Q'} /* a letter past P */, {48, 0x21} /* 33 letters */, {81, 3} /* a scope */,
        {11, 0x4B} /* the length one short */};
    for (const auto &[offset, value] : faults) {
        std::string p = packet;
        p[offset] = value;
        EXPECT_FALSE(kvtnb::DecodeDatagram(reinterpret_cast<const uint8_t *>(p.data()), p.size(), &back)) << offset;
    }
    EXPECT_FALSE(kvtnb::DecodeDatagram(reinterpret_cast<const uint8_t *>(packet.data()), 81, &back));
}

class Netbios0 : public ::testing::Test {
protected:
    void SetUp() override {
        kvthost::SetNetbiosLanas({});
        ASSERT_EQ(Call(NCBADDNAME, 0, 0, "ALPHA"), NRC_ENVNOTDEF) << "LANA 0 not reset by this process";
        ASSERT_EQ(Call(NCBRESET), NRC_GOODRET);
        a = Add("ALPHA");
        ASSERT_GE(a, 2);
    }
    UCHAR a = 0;
};

TEST_F(Netbios0, EachCommandAnswersWithItsCode) {
    EXPECT_EQ(Call(NCBADDNAME, 0, 0, "ALPHA"), NRC_DUPNAME);
    EXPECT_EQ(Call(NCBADDNAME, 0, 0, "*"), NRC_NOWILD);
    EXPECT_EQ(Call(NCBRESET, 7), NRC_BRIDGE);
    UCHAR status[600];
    EXPECT_EQ(Call(NCBASTAT, 0, 0, "*", status, sizeof status), NRC_GOODRET);
    const uint32_t pid = static_cast<uint32_t>(getpid());
    const std::string own = Text("\x02\x01", 2) + char(pid >> 24) + char(pid >> 16) + char(pid >> 8) + char(pid);
    EXPECT_EQ(Text(status, 6), own) << "this process's own: 127.0.0.1's last byte and the process id";
    EXPECT_EQ(Text(kvthost::NetbiosAdapterAddress().data(), 6), own);
}

// A pending block submitted again is refused and stays pending; a cancelled
// receive is never written to again; a long datagram fills the buffer and ends
// the receive with NRC_INCOMP.
TEST_F(Netbios0, ReceivesCompleteOrAreCancelled) {
    NCB cancelled, next;
    UCHAR c[16], n[16];
    EXPECT_EQ(Arm(cancelled, a, c, sizeof c), NRC_GOODRET);
    EXPECT_EQ(Netbios(&cancelled), NRC_ILLCMD);
    EXPECT_EQ(Code(cancelled), NRC_PENDING) << "the pending block untouched";
    EXPECT_EQ(Cancel(cancelled), NRC_GOODRET) << "it was pending";
    EXPECT_EQ(Code(cancelled), NRC_CMDCAN);
    EXPECT_EQ(Cancel(cancelled), NRC_CANOCCR);
    Arm(next, a, n, sizeof n);
    EXPECT_EQ(Send(a, "ALPHA", "a datagram longer than 16 bytes"), NRC_GOODRET);
    ASSERT_TRUE(Eventually([&] { return Code(next) != NRC_PENDING; }));
    EXPECT_EQ(Code(next), NRC_INCOMP);
    EXPECT_EQ(Text(n, 16), "a datagram longe");
    EXPECT_EQ(Text(next.ncb_callname, 16), "ALPHA           ") << "the sender";
    EXPECT_EQ(Text(c, 16), std::string(16, '\xEE'));
}

// A unique name that another process holds is defended as RFC 1001 has it:
// the add answers NRC_INUSE; once that process has gone the name may be added.
TEST_F(Netbios0, ANameAnotherProcessHoldsIsDefended) {
    int ready[2], done[2];
    ASSERT_TRUE(pipe(ready) == 0 && pipe(done) == 0);
    const pid_t child = fork();
    if (child == 0) {  // a process of its own NetBIOS: it holds the name until the parent lets go
        close(done[1]);
        char c = Call(NCBRESET) == NRC_GOODRET && Add("DEFENDED") >= 2 ? 'y' : 'n';
        if (write(ready[1], &c, 1) != 1 || read(done[0], &c, 1) < 0) _exit(1);
        _exit(0);
    }
    char c = 0;
    close(done[0]);
    ASSERT_TRUE(read(ready[0], &c, 1) == 1 && c == 'y');
    kvthost::SetTimeScale(20);  // a wait of half a second for the other's answer
    EXPECT_EQ(Call(NCBADDNAME, 0, 0, "DEFENDED"), NRC_INUSE);
    close(done[1]);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_GE(Add("DEFENDED"), 2) << "no one defends it any more";
    kvthost::SetTimeScale(1);
}

// A name keeps its number for the life of the process, however often it, or
// another, is added and deleted.
TEST_F(Netbios0, AResetDropsNamesAndEndsPendingReceives) {
    const UCHAR b = Add("BETA");
    NCB onA, onB;
    UCHAR ba[8], bb[8];
    Arm(onA, a, ba, sizeof ba);
    Arm(onB, b, bb, sizeof bb);
    EXPECT_EQ(Call(NCBDELNAME, 0, 0, "BETA"), NRC_GOODRET);
    EXPECT_EQ(Code(onB), NRC_NAMERR) << "its name was deleted";
    EXPECT_EQ(Call(NCBRESET), NRC_GOODRET);
    EXPECT_EQ(Code(onA), NRC_CMDCAN);
    EXPECT_EQ(kvthost::NetbiosPendingReceives(), 0u);
    kvthost::SetTimeScale(0.01);  // each add asks the network first
    for (int i = 0; i < 300; ++i) EXPECT_TRUE(Add("GAMMA") > b && Call(NCBDELNAME, 0, 0, "GAMMA") == NRC_GOODRET);
    kvthost::SetTimeScale(1);
    EXPECT_EQ(Send(a, "ALPHA", "x"), NRC_ILLNN) << "the name number is stale, and no other name's";
    EXPECT_EQ(Add("ALPHA"), a) << "its own number again";
}

}  // namespace
