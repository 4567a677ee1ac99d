// kvtmon print as a user runs it: a job to an emulated print server over each
// transport, a job that cannot go out, command lines that make no sense; and
// kvtmon ports, delete and log on the tree and log the jobs left.
#include <filesystem>
#include <thread>

#include "kvtmon_run.h"

namespace {

using kvttest::KvtmonRun;
using kvttest::Slurp;

class KvtmonPrint : public kvttest::KvtmonTest {
protected:
    void SetUp() override {
        KvtmonTest::SetUp();
        job_ = dir_ + "/job.prn";
        std::ofstream(job_, std::ios::binary) << std::string(100000, 'k') << "end of job";
        KvtmonRun init = Kvtmon({"init"});
        ASSERT_EQ(init.status, 0) << init.err;
    }
    void StartServer() { StartServers({kvttest::Server("PS9", "127.0.0.9")}); }
    KvtmonRun Print(std::vector<std::string> args) {
        args.insert(args.begin(), "print");
        return Kvtmon(args);
    }

    std::string job_;
};

TEST_F(KvtmonPrint, PrintsAFileAndTheServerGetsItWhole) {
    StartServer();
    KvtmonRun run = Print({"PS9-P1", job_, "--server", "127.0.0.9", "--document", "Quarterly report", "--job-id", "5",
                           "--user", "alice", "--queue", "fast"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(kvttest::Holds(run.out, "printed"));
    ASSERT_TRUE(emulator_.WaitForJobs("PS9", 1, 10000));
    kvtps::LprJob job = emulator_.Jobs("PS9").front();
    EXPECT_EQ(job.queue, "fast");
    EXPECT_EQ(job.controlLines[0], "Halice");
    EXPECT_EQ(job.controlLines[1], "JQuarterly report");
    EXPECT_EQ(job.controlFileName.substr(0, 6), "cfA005");
    EXPECT_EQ(job.data, Slurp(job_));
}

TEST_F(KvtmonPrint, NonsenseOnTheCommandLineIsRefusedClearly) {
    const struct {
        std::vector<std::string> args;
        int status;
        std::string message;
    } cases[] = {
        {{"PS9-P1", job_, "--job-id", "seven"}, 2, "--job-id takes a number"},
        {{"PS9-P1", job_, "--job-id", "0"}, 2, "--job-id takes a number"},
        {{"PS9-P1", job_, "--protocol", "3"}, 2, "--protocol takes 0, 1, 2 or 4"},
        {{"PS9-P1", job_, "--server", "999.1.1.1"}, 2, "not an IPv4 address"},
        {{"PS9-X1", job_, "--server", "127.0.0.9"}, 2, "is not a port name"},
        {{"PS9-P1", dir_ + "/missing.prn"}, 2, "cannot read"},
        {{"PS9-P1", job_, "--frobnicate"}, 2, "unknown option"},
        {{"PS9-P1", job_, "--document"}, 2, "needs a value"},
        {{"PS9-P1"}, 2, "usage"},
        {{"Nowhere-P1", job_}, 3, "no port 'Nowhere-P1'"},
    };
    for (const auto &c : cases) {
        KvtmonRun run = Print(c.args);
        EXPECT_EQ(run.status, c.status) << c.message;
        EXPECT_TRUE(kvttest::Holds(run.err, c.message));
    }
}

// A port on IPX prints while the host offers it, and fails with the monitor's
// last error once init has taken IPX away (NetBIOS: TwoProcessesPrintOverNetbiosAtOnce).
TEST_F(KvtmonPrint, AJobGoesByIpxWhileInitOffersIt) {
    StartServer();
    KvtmonRun run = Print({"PS9-P2", job_, "--server", "127.0.0.9", "--protocol", "1"});
    ASSERT_EQ(run.status, 0) << run.err;
    std::vector<kvtps::IpxJob> jobs = emulator_.IpxJobs("PS9");
    ASSERT_EQ(jobs.size(), 1u);
    EXPECT_EQ(jobs[0].port, 2);
    EXPECT_EQ(jobs[0].data, Slurp(job_));
    EXPECT_EQ(emulator_.Counters("PS9").connectionsAccepted, 0u);

    KvtmonRun init = Kvtmon({"init", "--transports", "tcpip"});
    ASSERT_EQ(init.status, 0) << init.err;
    EXPECT_TRUE(kvttest::Holds(init.out, ": TCP/IP offered"));
    run = Print({"PS9-P2", job_});
    EXPECT_EQ(run.status, 3);
    EXPECT_TRUE(kvttest::Holds(run.err, "1117 (ERROR_IO_DEVICE)"));
    EXPECT_EQ(emulator_.IpxJobs("PS9").size(), 1u);
    for (const char *list : {"tcpip,appletalk", ""}) EXPECT_EQ(Kvtmon({"init", "--transports", list}).status, 2);
}

// Two processes print over NetBIOS at once to port 1 of two print servers that
// lose every fourth data frame, as two machines would: each holds names of its
// own, so neither takes the other's replies for its own, and each lost frame
// goes again until its own server has it: each job arrives whole.
TEST_F(KvtmonPrint, TwoProcessesPrintOverNetbiosAtOnce) {
    auto lossy = [](const char *name, const char *address) {
        kvtps::ServerConfig c = kvttest::Server(name, address);
        c.netbios.channel.dropDataEvery = 4;
        return c;
    };
    StartServers({lossy("PS9", "127.0.0.9"), lossy("PS8", "127.0.0.8")});
    const std::string other = dir_ + "/other.prn";
    std::ofstream(other, std::ios::binary) << std::string(100000, 'o') << "end of the other";
    KvtmonRun a;
    std::thread thread([&] { a = Print({"PS8-P1", other, "--server", "127.0.0.8", "--protocol", "4"}); });
    KvtmonRun b = Print({"PS9-P1", job_, "--server", "127.0.0.9", "--protocol", "4"});
    thread.join();
    ASSERT_TRUE(a.status == 0 && b.status == 0) << a.err << b.err;
    for (const auto &[server, file] : {std::pair{"PS8", other}, std::pair{"PS9", job_}}) {
        const std::vector<kvtps::ChannelJob> jobs = emulator_.NetbiosJobs(server);
        ASSERT_EQ(jobs.size(), 1u) << server;
        EXPECT_TRUE(jobs[0].data == Slurp(file) && jobs[0].hungUp) << server << ": " << jobs[0].data.size();
    }
}

TEST_F(KvtmonPrint, PortsListsWhatTheTreeHoldsAndDeleteRemovesIt) {
    StartServer();
    ASSERT_EQ(Print({"PS9-P2", job_, "--server", "127.0.0.9", "--queue", "fast", "--protocol", "2"}).status, 0);
    KvtmonRun ports = Kvtmon({"ports", "--json"});
    ASSERT_EQ(ports.status, 0) << ports.err;
    EXPECT_TRUE(kvttest::Holds(ports.out, "{\"port\": \"PS9-P2\", \"description\": \"PrintServer Network Port\", "
                                          "\"transport\": \"TCP/IP\", \"protocol\": 2, \"queue\": \"fast\", "
                                          "\"address\": \"127.0.0.9\""));
    EXPECT_TRUE(kvttest::Holds(Kvtmon({"ports"}).out, "PS9-P2"));

    KvtmonRun deleted = Kvtmon({"delete", "ps9-p2"});
    EXPECT_EQ(deleted.status, 0) << deleted.err;
    EXPECT_EQ(Kvtmon({"ports"}).out, "no ports\n");
    KvtmonRun again = Kvtmon({"delete", "PS9-P2"});
    EXPECT_EQ(again.status, 3);
    EXPECT_TRUE(kvttest::Holds(again.err, "no port 'PS9-P2'"));

    // Through the UI library and the transceive entries, or with --legacy the
    // monitor's own DeletePort: the log tells which.
    for (const std::vector<std::string> &args : {std::vector<std::string>{"delete", "PS9-P2"},
                                                 {"delete", "PS9-P2", "--legacy"}}) {
        ASSERT_EQ(Print({"PS9-P2", job_, "--server", "127.0.0.9", "--debug"}).status, 0);
        ASSERT_EQ(Kvtmon(args).status, 0);
        const std::string log = Kvtmon({"log"}).out;
        EXPECT_EQ(kvttest::Holds(log, "Entry LocalmonXcvDataPort"), args.size() == 2) << log;
        EXPECT_EQ(kvttest::Holds(log, "Entry LocalmonDeletePort"), args.size() == 3) << log;
    }
}

TEST_F(KvtmonPrint, TheLogShowsTheLastStartUpsLines) {
    StartServer();
    ASSERT_EQ(Print({"PS9-P1", job_, "--server", "127.0.0.9", "--debug"}).status, 0);
    KvtmonRun log = Kvtmon({"log"});
    ASSERT_EQ(log.status, 0) << log.err;
    EXPECT_EQ(log.out.rfind("OS type : Windows NT/2000\n", 0), 0u);
    EXPECT_TRUE(kvttest::Holds(log.out, "Leave LocalmonStartDocPort - success"));
}

TEST_F(KvtmonPrint, AMissingPrefixOrAnUnreadableHiveIsNamed) {
    std::string hive = dir_ + "/prefix/system.reg";
    std::string before = Slurp(hive) + "[HKEY_LOCAL_MACHINE\\Broken\n";
    std::ofstream(hive, std::ios::binary) << before;
    for (std::vector<std::string> args : {std::vector<std::string>{"ports"}, {"delete", "PS9-P1"},
                                          {"print", "PS9-P1", job_}}) {
        KvtmonRun run = Kvtmon(args);
        EXPECT_EQ(run.status, 2) << args[0];
        EXPECT_TRUE(kvttest::Holds(run.err, "cannot be read")) << args[0];
    }
    EXPECT_EQ(Slurp(hive), before) << "a hive that can't be read is never written over";

    std::filesystem::remove_all(dir_ + "/prefix");
    KvtmonRun run = Kvtmon({"ports"});
    EXPECT_EQ(run.status, 2);
    EXPECT_TRUE(kvttest::Holds(run.err, "kvtmon init"));
}

// A hand-over file that kvtmon add laid and the add did not take goes, and
// kvtmon says so; the next add then opens its dialog as asked.
TEST_F(KvtmonPrint, AddTakesBackAHandOverFileTheMonitorLeft) {
    const std::string folder = dir_ + "/prefix/drive_c/Windows/SysWOW64/", list = dir_ + "/list.bin";
    std::string record(278, '\0');
    record.replace(0, 3, "LST"), record[69] = 1, record[77] = 1;
    std::ofstream(list, std::ios::binary) << record;
    const std::string hive = Slurp(dir_ + "/prefix/system.reg");
    const struct {
        const char *what, *transports;  // "-": no network component at all
        std::vector<std::string> args, env;
        bool listFirst;  // a list file lies there before kvtmon add
        int status;
        const char *left;  // the file kvtmon says it removed; "" none
    } cases[] = {
        {"the monitor not loaded", "tcpip", {"--all"}, {"KVT64_SO=" + dir_ + "/none.so"}, false, 2, "KVTJLPR"},
        {"no transport offered", "-", {"--list", list}, {}, false, 1, "KVTLIST.BIN"},
        {"the NetBIOS start-up failed", "netbios", {"--all"}, {}, false, 1, "KVTJLPR"},
        {"a list file lay there first", "tcpip", {"--all"}, {}, true, 0, "KVTJLPR"},
        {"taken", "tcpip", {"--list", list}, {}, false, 0, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        if (*c.transports == '-') std::ofstream(dir_ + "/prefix/system.reg", std::ios::binary)
            << hive.substr(0, hive.find("[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services"));
        else ASSERT_EQ(Kvtmon({"init", "--transports", c.transports}).status, 0);
        if (c.listFirst) std::ofstream(folder + "KVTLIST.BIN", std::ios::binary) << record;
        std::vector<std::string> args = c.args;
        args.insert(args.begin(), "add");
        KvtmonRun run = Kvtmon(args, -1, c.env);
        EXPECT_EQ(run.status, c.status) << run.err;
        EXPECT_FALSE(std::ifstream(folder + "KVTJLPR").good() || std::ifstream(folder + "KVTLIST.BIN").good());
        const std::string said = std::string("the monitor did not take ") + c.left + "; removed it";
        EXPECT_EQ(run.err.find(said) != std::string::npos, *c.left != 0) << run.err;
    }
}

}  // namespace
