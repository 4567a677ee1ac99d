// The LPR exchange as a well-behaved server answers it: what it stores, byte for
// byte, however the client cuts its sends, and how it ends a bad exchange.
#include <gtest/gtest.h>

#include "kvtps.h"
#include "lpr_client.h"

using namespace kvtps;
using namespace kvtps_test;

namespace {

class LprExchange : public ::testing::Test {
protected:
    void StartServer(bool storeData = true) {
        ServerConfig config;
        config.name = "pc1";
        config.storeData = storeData;
        std::string error;
        ASSERT_TRUE(emulator.Start({config}, &error)) << error;
    }
    LprJob OnlyJob() {
        EXPECT_TRUE(emulator.WaitForJobs("pc1", 1, kPatienceMs));
        auto jobs = emulator.Jobs("pc1");
        EXPECT_EQ(jobs.size(), 1u);
        return jobs.empty() ? LprJob{} : jobs[0];
    }
    Emulator emulator;
};

std::string Join(const std::vector<std::string> &parts) {
    std::string all;
    for (const auto &p : parts) all += p;
    return all;
}

TEST_F(LprExchange, StoresTheWholeHeaderAndTheDataExactly) {
    StartServer();
    const auto steps = JobSteps("LPT1");
    const std::string data = Raw("%!PS\r\n\x00\x01\x02\xff binary") + Pattern(5000);
    LprClient client;
    ASSERT_EQ(client.Connect("127.0.0.2"), 0);
    client.SendSteps(steps);
    ASSERT_TRUE(client.Send(data));
    client.Close();

    LprJob job = OnlyJob();
    EXPECT_EQ(job.header, Join(steps));
    EXPECT_EQ(job.data, data);
    EXPECT_EQ(job.queue, "LPT1");
    EXPECT_EQ(job.controlCommand, Raw("\x02" "29 cfA007pc1\n"));
    EXPECT_EQ(job.controlLength, 29u);
    EXPECT_EQ(job.controlFileName, "cfA007pc1");
    EXPECT_EQ(job.controlFile, steps[2]);
    EXPECT_EQ(job.controlFile.size(), 30u);
    EXPECT_EQ(job.controlLines, (std::vector<std::string>{"Hguest", "Jreport", "Nreport", "Hpc1"}));
    EXPECT_EQ(job.dataCommand, steps[3]);
    EXPECT_EQ(job.dataLength, "2147483647");
    EXPECT_EQ(job.dataFileName, "dfA007pc1");
    EXPECT_EQ(job.dataBytes, data.size());
    EXPECT_EQ(job.dataChecksum, Fnv1a64(data.data(), data.size()));
    EXPECT_EQ(job.totalBytes, job.header.size() + data.size());
    EXPECT_EQ(job.acks, 4);
    EXPECT_EQ(job.step, 5);
    EXPECT_TRUE(job.complete);
    EXPECT_EQ(job.outcome, LprOutcome::Completed);
    EXPECT_EQ(job.server, "pc1");
    EXPECT_EQ(job.connection, 1u);

    LprCounters c = emulator.Counters("pc1");
    EXPECT_EQ(c.connectionsAccepted, 1u);
    for (int k = 1; k <= 4; ++k) EXPECT_EQ(c.acksSent[k], 1u) << "ack " << k;
    EXPECT_EQ(c.jobsCompleted, 1u);
    EXPECT_EQ(c.jobsBrokenOff, 0u);
    EXPECT_EQ(c.bytesReceived, job.totalBytes);
}

TEST_F(LprExchange, AcceptsOneByteSendsAndTheWholeJobInOneSend) {
    StartServer();
    const auto steps = JobSteps();
    const std::string data = "one byte at a time";

    LprClient slow;
    ASSERT_EQ(slow.Connect("127.0.0.2"), 0);
    for (const auto &step : steps) {
        for (char byte : step) {
            ASSERT_TRUE(slow.Send(std::string(1, byte)));
            // Let each byte travel alone, so the server sees the split lines.
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        ASSERT_EQ(slow.Answer(), 0);
    }
    for (char byte : data) ASSERT_TRUE(slow.Send(std::string(1, byte)));
    slow.Close();
    ASSERT_TRUE(emulator.WaitForJobs("pc1", 1, kPatienceMs));

    // Everything at once, without waiting for the acks: they come in order.
    LprClient hasty;
    ASSERT_EQ(hasty.Connect("127.0.0.2"), 0);
    ASSERT_TRUE(hasty.Send(Join(steps) + data));
    shutdown(hasty.fd(), SHUT_WR);
    for (int k = 1; k <= 4; ++k) EXPECT_EQ(hasty.Answer(), 0) << "ack " << k;
    EXPECT_EQ(hasty.Answer(), LprClient::kClosed);
    ASSERT_TRUE(emulator.WaitForJobs("pc1", 2, kPatienceMs));

    for (const LprJob &job : emulator.Jobs("pc1")) {
        EXPECT_EQ(job.header, Join(steps)) << "connection " << job.connection;
        EXPECT_EQ(job.data, data) << "connection " << job.connection;
        EXPECT_TRUE(job.complete) << "connection " << job.connection;
    }
}

TEST_F(LprExchange, CountOnlyServerKeepsTheChecksumOfAMegabyte) {
    ServerConfig stored, counted;
    stored.name = "pc1";
    counted.name = "pc2";
    counted.address = "127.0.0.3";
    counted.storeData = false;
    std::string error;
    ASSERT_TRUE(emulator.Start({stored, counted}, &error)) << error;
    const std::string data = Pattern(1 << 20, 7);
    for (const char *address : {"127.0.0.2", "127.0.0.3"}) {
        LprClient client;
        ASSERT_EQ(client.Connect(address), 0);
        client.SendSteps(JobSteps());
        ASSERT_TRUE(client.Send(data));
    }
    ASSERT_TRUE(emulator.WaitForJobs("pc1", 1, kPatienceMs));
    ASSERT_TRUE(emulator.WaitForJobs("pc2", 1, kPatienceMs));
    LprJob full = emulator.Jobs("pc1")[0], count = emulator.Jobs("pc2")[0];
    EXPECT_TRUE(full.data == data);
    EXPECT_TRUE(count.data.empty());
    EXPECT_EQ(count.dataBytes, data.size());
    EXPECT_EQ(count.dataChecksum, Fnv1a64(data.data(), data.size()));
    EXPECT_EQ(full.dataChecksum, count.dataChecksum);
    EXPECT_TRUE(count.complete);
}

TEST_F(LprExchange, ClientThatBreaksOffLeavesAJobThatSaysWhere) {
    StartServer();
    const auto steps = JobSteps();
    for (size_t stepsSent = 1; stepsSent <= 3; ++stepsSent) {
        LprClient client;
        ASSERT_EQ(client.Connect("127.0.0.2"), 0);
        client.SendSteps({steps.begin(), steps.begin() + stepsSent});
        // Half of the next step, then gone.
        ASSERT_TRUE(client.Send(steps[stepsSent].substr(0, 3)));
        client.Close();
        ASSERT_TRUE(emulator.WaitForJobs("pc1", stepsSent, kPatienceMs));
        LprJob job = emulator.Jobs("pc1").back();
        EXPECT_EQ(job.outcome, LprOutcome::ClientClosed);
        EXPECT_FALSE(job.complete);
        EXPECT_EQ(job.step, static_cast<int>(stepsSent) + 1);
        EXPECT_EQ(job.acks, static_cast<int>(stepsSent));
        EXPECT_EQ(job.header, Join({steps.begin(), steps.begin() + stepsSent}));
    }
    // A connection without a byte is counted, not stored.
    LprClient idle;
    ASSERT_EQ(idle.Connect("127.0.0.2"), 0);
    idle.Close();
    EXPECT_TRUE(Eventually([&] { return emulator.Counters("pc1").emptyConnections == 1; }));
    EXPECT_EQ(emulator.JobCount("pc1"), 3u);
    EXPECT_EQ(emulator.Counters("pc1").jobsBrokenOff, 3u);
}

struct BadExchange {
    const char *what;
    std::vector<std::string> steps;  // all but the last are acked
    int step;
    const char *error;
};

TEST_F(LprExchange, ClosesWithoutAckOnBytesItCannotAccept) {
    StartServer();
    const auto good = JobSteps();
    const std::string endless(2000, 'q');
    const BadExchange cases[] = {
        {"another command", {"\x01lp\n"}, 1, "expected 0x02, got 0x01"},
        {"empty queue", {"\x02\n"}, 1, "empty queue name"},
        {"queue line without end", {"\x02" + endless}, 1, "no line end within 1024"},
        {"subcommand", {good[0], "\x03" "37 cfA007pc1\n"}, 2, "expected 0x02, got 0x03"},
        {"length not a number", {good[0], "\x02" "3x7 cfA007pc1\n"}, 2, "malformed"},
        {"no file name", {good[0], "\x02" "37 \n"}, 2, "malformed"},
        {"length over the limit", {good[0], "\x02" "65537 cfA007pc1\n"}, 2, "exceeds the limit"},
        {"control file without 0x00",
         {good[0], "\x02" "4 cfA\n", Raw("\x02H1\n\x01")}, 3, "ends with 0x01, not 0x00"},
        {"control file without 0x02",
         {good[0], "\x02" "4 cfA\n", Raw("H12\n\x00")}, 3, "begins with 0x48"},
        {"data subcommand", {good[0], good[1], good[2], "\x02" "2147483647 dfA007pc1\n"}, 4,
         "expected 0x03, got 0x02"},
        {"data count", {good[0], good[1], good[2], "\x03-1 dfA007pc1\n"}, 4, "malformed"},
    };
    size_t stored = 0;
    for (const auto &bad : cases) {
        SCOPED_TRACE(bad.what);
        LprClient client;
        ASSERT_EQ(client.Connect("127.0.0.2"), 0);
        client.SendSteps({bad.steps.begin(), bad.steps.end() - 1});
        ASSERT_TRUE(client.Send(bad.steps.back()));
        EXPECT_EQ(client.Answer(), LprClient::kClosed);
        ASSERT_TRUE(emulator.WaitForJobs("pc1", ++stored, kPatienceMs));
        LprJob job = emulator.Jobs("pc1").back();
        EXPECT_EQ(job.outcome, LprOutcome::ProtocolError);
        EXPECT_EQ(job.step, bad.step);
        EXPECT_NE(job.error.find(bad.error), std::string::npos) << job.error;
    }
    EXPECT_EQ(emulator.Counters("pc1").protocolErrors, std::size(cases));
}

TEST_F(LprExchange, ControlLinesKeepTheirBytesAndALastLineWithoutEnd) {
    StartServer();
    const std::string cf = Raw("\x02Hgu est\n\n\x7fJ\xe9t\xe9\nlast\x00");
    LprClient client;
    ASSERT_EQ(client.Connect("127.0.0.2"), 0);
    client.SendSteps({QueueLine("q"), ControlLine(cf, "cfA1h"), cf, DataLine("dfA1h")});
    client.Close();
    LprJob job = OnlyJob();
    EXPECT_EQ(job.controlLines,
              (std::vector<std::string>{"Hgu est", "", "\x7fJ\xe9t\xe9", "last"}));
    EXPECT_TRUE(job.complete);
    EXPECT_EQ(job.dataBytes, 0u);
}

}  // namespace
