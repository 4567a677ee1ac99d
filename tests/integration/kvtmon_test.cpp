// kvtmon print as a user runs it: a job to an emulated print server, a job
// that cannot go out, and command lines that make no sense.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "kvtmon_run.h"
#include "kvtps.h"

namespace {

using ProgramRun = kvttest::KvtmonRun;
using kvttest::Slurp;

class KvtmonPrint : public ::testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/kvt-kvtmon-XXXXXX";
        dir_ = mkdtemp(dir);
        job_ = dir_ + "/job.prn";
        std::ofstream(job_, std::ios::binary) << std::string(100000, 'k') << "end of job";
        ProgramRun init = Command({"init"});
        ASSERT_EQ(init.status, 0) << init.err;
    }
    void TearDown() override {
        emulator_.Stop();
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }

    void StartServer(const kvtps::LprFaults &faults = kvtps::LprFaults()) {
        kvtps::ServerConfig config;
        config.name = "PS9";
        config.address = "127.0.0.9";
        config.lpr = faults;
        std::string error;
        ASSERT_TRUE(emulator_.Start({config}, &error)) << error;
    }

    ProgramRun Kvtmon(std::vector<std::string> args) {
        args.insert(args.begin(), "print");
        return Command(args);
    }

    ProgramRun Command(std::vector<std::string> args) { return kvttest::RunKvtmon(std::move(args), dir_, "0.01"); }

    std::string dir_, job_;
    kvtps::Emulator emulator_;
};

TEST_F(KvtmonPrint, PrintsAFileAndTheServerGetsItWhole) {
    StartServer();
    ProgramRun run = Kvtmon({"PS9-P1", job_, "--server", "127.0.0.9", "--document", "Quarterly report", "--job-id", "5",
                      "--user", "alice", "--queue", "fast"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("printed"), std::string::npos);
    ASSERT_TRUE(emulator_.WaitForJobs("PS9", 1, 10000));
    kvtps::LprJob job = emulator_.Jobs("PS9").front();
    EXPECT_EQ(job.queue, "fast");
    EXPECT_EQ(job.controlLines[0], "Halice");
    EXPECT_EQ(job.controlLines[1], "JQuarterly report");
    EXPECT_EQ(job.controlFileName.substr(0, 6), "cfA005");
    EXPECT_EQ(job.data, Slurp(job_));
}

TEST_F(KvtmonPrint, AJobThatCannotGoOutSaysWhyWithTheLastError) {
    kvtps::LprFaults faults;
    faults.nakAtStep = 2;
    StartServer(faults);
    ProgramRun run = Kvtmon({"PS9-P1", job_, "--server", "127.0.0.9", "--protocol", "2"});
    EXPECT_NE(run.status, 0);
    EXPECT_NE(run.err.find("1117 (ERROR_IO_DEVICE)"), std::string::npos) << run.err;
}

TEST_F(KvtmonPrint, NonsenseOnTheCommandLineIsRefusedClearly) {
    struct Case {
        std::vector<std::string> args;
        std::string message;
    };
    std::vector<Case> cases = {
        {{"PS9-P1", job_, "--job-id", "seven"}, "--job-id takes a number"},
        {{"PS9-P1", job_, "--job-id", "0"}, "--job-id takes a number"},
        {{"PS9-P1", job_, "--protocol", "3"}, "--protocol takes 0, 1, 2 or 4"},
        {{"PS9-P1", job_, "--server", "999.1.1.1"}, "not an IPv4 address"},
        {{"PS9-X1", job_, "--server", "127.0.0.9"}, "is not a port name"},
        {{"PS9-P1", dir_ + "/missing.prn"}, "cannot read"},
        {{"PS9-P1", job_, "--frobnicate"}, "unknown option"},
        {{"PS9-P1", job_, "--document"}, "needs a value"},
        {{"PS9-P1"}, "usage"},
    };
    for (const auto &c : cases) {
        ProgramRun run = Kvtmon(c.args);
        EXPECT_EQ(run.status, 2) << c.message;
        EXPECT_NE(run.err.find(c.message), std::string::npos) << run.err;
    }
}

// A port on IPX prints while the host offers IPX, and fails once init has
// taken IPX away.
TEST_F(KvtmonPrint, AJobGoesByIpxOrNetbiosWhileInitOffersThem) {
    StartServer();
    ProgramRun run = Kvtmon({"PS9-P2", job_, "--server", "127.0.0.9", "--protocol", "1"});
    ASSERT_EQ(run.status, 0) << run.err;
    std::vector<kvtps::IpxJob> jobs = emulator_.IpxJobs("PS9");
    ASSERT_EQ(jobs.size(), 1u);
    EXPECT_EQ(jobs[0].port, 2);
    EXPECT_EQ(jobs[0].data, Slurp(job_));
    EXPECT_EQ(emulator_.Counters("PS9").connectionsAccepted, 0u);
    run = Kvtmon({"PS9-P3", job_, "--server", "127.0.0.9", "--protocol", "4"});
    ASSERT_EQ(run.status, 0) << run.err;
    std::vector<kvtps::ChannelJob> nbJobs = emulator_.NetbiosJobs("PS9");
    ASSERT_EQ(nbJobs.size(), 1u);
    EXPECT_TRUE(nbJobs[0].port == 3 && nbJobs[0].data == Slurp(job_));

    ProgramRun init = Command({"init", "--transports", "tcpip"});
    ASSERT_EQ(init.status, 0) << init.err;
    EXPECT_NE(init.out.find(": TCP/IP offered"), std::string::npos) << init.out;
    run = Kvtmon({"PS9-P2", job_});
    EXPECT_EQ(run.status, 3);
    EXPECT_NE(run.err.find("1117 (ERROR_IO_DEVICE)"), std::string::npos) << run.err;
    EXPECT_EQ(emulator_.IpxJobs("PS9").size(), 1u);
    for (const char *list : {"tcpip,appletalk", ""}) EXPECT_EQ(Command({"init", "--transports", list}).status, 2);
}

TEST_F(KvtmonPrint, AnUnknownPortIsNamed) {
    ProgramRun run = Kvtmon({"Nowhere-P1", job_});
    EXPECT_EQ(run.status, 3);
    EXPECT_NE(run.err.find("no port 'Nowhere-P1'"), std::string::npos) << run.err;
}

}  // namespace

namespace {

TEST_F(KvtmonPrint, PortsListsWhatTheTreeHoldsAndDeleteRemovesIt) {
    StartServer();
    ASSERT_EQ(Kvtmon({"PS9-P2", job_, "--server", "127.0.0.9", "--queue", "fast", "--protocol", "2"}).status, 0);
    ProgramRun ports = Command({"ports", "--json"});
    ASSERT_EQ(ports.status, 0) << ports.err;
    EXPECT_NE(ports.out.find("{\"port\": \"PS9-P2\", \"description\": \"PrintServer Network Port\", \"transport\": "
                             "\"TCP/IP\", \"protocol\": 2, \"queue\": \"fast\", \"address\": \"127.0.0.9\""),
              std::string::npos)
        << ports.out;
    ProgramRun table = Command({"ports"});
    EXPECT_NE(table.out.find("PS9-P2"), std::string::npos);

    ProgramRun deleted = Command({"delete", "ps9-p2"});
    EXPECT_EQ(deleted.status, 0) << deleted.err;
    EXPECT_EQ(Command({"ports"}).out, "no ports\n");
    ProgramRun again = Command({"delete", "PS9-P2"});
    EXPECT_EQ(again.status, 3);
    EXPECT_NE(again.err.find("no port 'PS9-P2'"), std::string::npos);
}

TEST_F(KvtmonPrint, TheLogShowsTheLastStartUpsLines) {
    StartServer();
    ASSERT_EQ(Kvtmon({"PS9-P1", job_, "--server", "127.0.0.9", "--debug"}).status, 0);
    ProgramRun log = Command({"log"});
    ASSERT_EQ(log.status, 0) << log.err;
    EXPECT_EQ(log.out.rfind("OS type : Windows NT/2000\n", 0), 0u);
    EXPECT_NE(log.out.find("Leave LocalmonStartDocPort - success"), std::string::npos);
}

TEST_F(KvtmonPrint, AMissingPrefixOrAnUnreadableHiveIsNamed) {
    std::string hive = dir_ + "/prefix/system.reg";
    std::string before = Slurp(hive) + "[HKEY_LOCAL_MACHINE\\Broken\n";
    std::ofstream(hive, std::ios::binary) << before;
    for (std::vector<std::string> args : {std::vector<std::string>{"ports"}, {"delete", "PS9-P1"},
                                          {"print", "PS9-P1", job_}}) {
        ProgramRun run = Command(args);
        EXPECT_EQ(run.status, 2) << args[0];
        EXPECT_NE(run.err.find("cannot be read"), std::string::npos) << run.err;
    }
    EXPECT_EQ(Slurp(hive), before) << "a hive that can't be read is never written over";

    std::filesystem::remove_all(dir_ + "/prefix");
    ProgramRun run = Command({"ports"});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("kvtmon init"), std::string::npos) << run.err;
}

}  // namespace
