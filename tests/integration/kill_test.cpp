// kvtmon killed (SIGKILL) at any moment of a job, an add, a configure or a delete: the
// port tree that the next start-up reads is whole, old or new, never torn; the
// print server holds of each job the bytes it was sent, in order, and a channel
// job that it holds whole was hung up.
#include <sstream>

#include "kvtmon_run.h"

namespace {

using kvttest::KvtmonRun;

class KillAnyMoment : public kvttest::KvtmonTest {
protected:
    KillAnyMoment() { timeScale_ = "0.02"; }
    void SetUp() override {
        KvtmonTest::SetUp();
        job_ = std::string(1 << 20, '\0');
        for (size_t i = 0; i < job_.size(); ++i) job_[i] = static_cast<char>('a' + (i * 7 + i / 1000) % 26);
        std::ofstream(dir_ + "/job.prn", std::ios::binary) << job_;
        ASSERT_EQ(Kvtmon({"init"}).status, 0);
        kvtps::ServerConfig c = kvttest::Server("PS9", "127.0.0.9");
        c.model = 3;
        StartServers({c});
        // Three ports, one per transport: PS9-P1 over LPR, -P2 over IPX, -P3 over NetBIOS.
        const char *protocols[] = {"2", "1", "4"};
        for (int d = 1; d <= 3; ++d)
            ASSERT_EQ(Print(d, protocols[d - 1]).status, 0) << d;
    }

    KvtmonRun Print(int digit, const char *protocol = nullptr, int killAfterMs = -1) {
        std::vector<std::string> args = {"print", "PS9-P" + std::to_string(digit), dir_ + "/job.prn", "--quiet"};
        if (protocol != nullptr) args.insert(args.end(), {"--server", "127.0.0.9", "--protocol", protocol});
        return Kvtmon(args, killAfterMs);
    }

    // The tree as the next start-up reads it: every line of kvtmon ports, and
    // no complaint about the hive.
    std::string Tree() {
        KvtmonRun ports = Kvtmon({"ports"});
        EXPECT_EQ(ports.status, 0) << ports.err;
        EXPECT_EQ(ports.err.find("cannot be read"), std::string::npos) << ports.err;
        return ports.out;
    }

    std::string job_;
};

TEST_F(KillAnyMoment, AJobLeavesTheServerItsFirstBytesAndTheTreeWhole) {
    const std::string before = Tree();
    for (int digit = 1; digit <= 3; ++digit)
        for (int ms : {0, 5, 20, 60, 150}) {
            SCOPED_TRACE("PS9-P" + std::to_string(digit) + " killed after " + std::to_string(ms) + " ms");
            Print(digit, nullptr, ms);
            EXPECT_EQ(Tree(), before);
        }
    // Open channels and connections are stored as they stand.  What PS9 holds
    // of each job is the job's first bytes; a channel job it holds whole was
    // hung up, and one hung up is whole.
    emulator_.Stop();
    for (const auto &j : emulator_.Jobs("PS9"))
        EXPECT_EQ(j.data, job_.substr(0, j.data.size())) << "LPR job of " << j.data.size() << " bytes";
    std::vector<kvtps::ChannelJob> channels = emulator_.IpxJobs("PS9");
    for (const auto &j : emulator_.NetbiosJobs("PS9")) channels.push_back(j);
    for (const auto &j : channels) {
        EXPECT_EQ(j.data, job_.substr(0, j.data.size())) << "channel job " << j.channel;
        EXPECT_EQ(j.hungUp, j.data.size() == job_.size()) << "channel job " << j.channel;
    }
}

TEST_F(KillAnyMoment, AConfigureOrADeleteLeavesTheOldTreeOrTheNew) {
    // A configure's stores (protocol, queue name) reach the hive together.
    auto fields = [](const std::string &tree) {
        std::istringstream line(tree.substr(tree.find("PS9-P1")));
        std::string port, transport, queue;
        line >> port >> transport >> queue;
        return std::make_pair(transport, queue);
    };
    for (int ms : {0, 2, 5, 10, 20, 40}) {
        SCOPED_TRACE("killed after " + std::to_string(ms) + " ms");
        const std::string before = Tree();
        const std::string transport = ms % 4 == 0 ? "IPX" : "TCP/IP", queue = "q" + std::to_string(ms);
        Kvtmon({"configure", "PS9-P1", "--protocol", ms % 4 == 0 ? "ipx" : "tcpip", "--queue", queue}, ms);
        const std::string after = Tree();
        const auto [t0, q0] = fields(before);
        const auto [t1, q1] = fields(after);
        EXPECT_TRUE((t1 == t0 && q1 == q0) || (t1 == transport && q1 == queue)) << after;
        EXPECT_EQ(after.substr(after.find("PS9-P2")), before.substr(before.find("PS9-P2")));
    }
    for (int ms : {0, 2, 5, 10, 20, 40}) {
        SCOPED_TRACE("delete killed after " + std::to_string(ms) + " ms");
        const std::string old = Tree();
        Kvtmon({"delete", "PS9-P2"}, ms);
        const std::string now = Tree();
        std::string without = old;
        const size_t at = without.find("PS9-P2");
        if (at != std::string::npos) without.erase(without.rfind('\n', at) + 1, without.find('\n', at) - without.rfind('\n', at));
        EXPECT_TRUE(now == old || now == without) << now;
        if (at != std::string::npos && now == without) {
            ASSERT_EQ(Print(2, "1").status, 0) << "made again";
        }
    }
}

TEST_F(KillAnyMoment, AnAddLeavesTheOldTreeOrTheNew) {
    // Five ports of two print servers from a list file, made one by one.
    std::ofstream(dir_ + "/list.txt") << "PSA 127.0.0.20 model=3 queue1=a queue3=c\nPSB 127.0.0.21 model=2 queue2=b\n";
    ASSERT_EQ(Kvtmon({"listfile", "make", dir_ + "/list.txt", dir_ + "/list.bin"}).status, 0);
    const char *made[] = {"PSA-P1", "PSA-P2", "PSA-P3", "PSB-P1", "PSB-P2"};
    auto undo = [&] {
        for (const char *port : made) Kvtmon({"delete", port});
    };
    const std::string before = Tree();
    ASSERT_EQ(Kvtmon({"add", "--list", dir_ + "/list.bin"}).status, 0);
    const std::string after = Tree();
    ASSERT_NE(after, before);
    undo();
    ASSERT_EQ(Tree(), before);
    for (int ms : {0, 2, 5, 10, 20, 40, 80}) {
        SCOPED_TRACE("add killed after " + std::to_string(ms) + " ms");
        Kvtmon({"add", "--list", dir_ + "/list.bin"}, ms);
        const std::string now = Tree();
        EXPECT_TRUE(now == before || now == after) << now;
        if (now == after) undo();
    }
}

}  // namespace
