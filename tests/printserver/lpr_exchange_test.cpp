// The LPR exchange as a well-behaved server answers it: what it stores, byte for
// byte, also when the client sends it all at once, and how it ends a bad exchange; and
// the emulator as a whole, starting and stopping.  (Many servers side by side,
// each keeping its own jobs: the monitor's stress test.)
#include <gtest/gtest.h>

#include "kvtps.h"
#include "kvtps_program.h"
#include "lpr_client.h"

using namespace kvtps;
using namespace kvtps_test;

namespace {

class LprExchange : public ::testing::Test {
protected:
    void SetUp() override {
        ServerConfig pc2 = Server("pc2", "127.0.0.3");
        pc2.storeData = false;
        std::string error;
        ASSERT_TRUE(emulator.Start({Server("pc1", "127.0.0.2"), pc2}, &error)) << error;
    }
    LprJob Job(size_t number) {
        EXPECT_TRUE(emulator.WaitForJobs("pc1", number, kPatienceMs));
        auto jobs = emulator.Jobs("pc1");
        return jobs.size() >= number ? jobs[number - 1] : LprJob{};
    }
    Emulator emulator;
};

TEST_F(LprExchange, StoresTheWholeHeaderAndTheDataExactly) {
    const auto steps = JobSteps("LPT1");
    const std::string data = Raw("%!PS\r\n\x00\x01\xff") + Pattern(5000);
    SendJob(steps, data);
    LprJob job = Job(1);
    EXPECT_EQ(job.header, Join(steps));
    EXPECT_EQ(job.data, data);
    EXPECT_EQ(job.queue, "LPT1");
    EXPECT_EQ(job.controlCommand, steps[1]);
    EXPECT_EQ(job.controlLength, 29u);
    EXPECT_EQ(job.controlFileName, "cfA007pc1");
    EXPECT_EQ(job.controlFile, steps[2]);
    EXPECT_EQ(job.controlLines, (std::vector<std::string>{"Hguest", "Jreport", "Nreport", "Hpc1"}));
    EXPECT_EQ(job.dataCommand, steps[3]);
    EXPECT_EQ(job.dataLength, "2147483647");
    EXPECT_EQ(job.dataFileName, "dfA007pc1");
    EXPECT_EQ(job.dataChecksum, Fnv1a64(data.data(), data.size()));
    EXPECT_EQ(job.totalBytes, job.header.size() + data.size());
    EXPECT_EQ(job.acks, 4);
    EXPECT_EQ(job.outcome, LprOutcome::Completed);
    EXPECT_TRUE(job.complete);

    LprCounters c = emulator.Counters("pc1");
    EXPECT_EQ(c.connectionsAccepted, 1u);
    for (int k = 1; k <= 4; ++k) EXPECT_EQ(c.acksSent[k], 1u) << "ack " << k;
    EXPECT_EQ(c.jobsCompleted, 1u);
    EXPECT_EQ(c.bytesReceived, job.totalBytes);
}

// Everything at once, without waiting for the acks: they come in order.
TEST_F(LprExchange, AcceptsTheWholeJobInOneSend) {
    const auto steps = JobSteps();
    LprClient hasty;
    ASSERT_EQ(hasty.Connect("127.0.0.2"), 0);
    ASSERT_TRUE(hasty.Send(Join(steps) + "data"));
    shutdown(hasty.fd(), SHUT_WR);
    for (int k = 1; k <= 4; ++k) EXPECT_EQ(hasty.Answer(), 0) << "ack " << k;
    EXPECT_EQ(hasty.Answer(), LprClient::kClosed);

    LprJob job = Job(1);
    EXPECT_TRUE(job.header == Join(steps) && job.data == "data" && job.complete);
}

TEST_F(LprExchange, ClientThatBreaksOffLeavesAJobThatSaysWhere) {
    const auto steps = JobSteps();
    for (size_t acked = 1; acked <= 3; ++acked) {
        SendJob({steps.begin(), steps.begin() + acked}, steps[acked].substr(0, 3));  // half a step, then gone
        LprJob job = Job(acked);
        EXPECT_EQ(job.outcome, LprOutcome::ClientClosed);
        EXPECT_EQ(job.step, static_cast<int>(acked) + 1);
        EXPECT_EQ(job.header, Join({steps.begin(), steps.begin() + acked}));
    }
    SendJob({});  // a connection without a byte is counted, not stored
    EXPECT_TRUE(Eventually([&] { return emulator.Counters("pc1").emptyConnections == 1; }));
    EXPECT_EQ(emulator.JobCount("pc1"), 3u);
}

TEST_F(LprExchange, ClosesWithoutAckOnBytesItCannotAccept) {
    const auto good = JobSteps();
    const struct {
        std::vector<std::string> steps;  // all but the last are acked
        int step;
        const char *error;
    } cases[] = {
        {{"\x01lp\n"}, 1, "step 1: expected 0x02, got 0x01"},
        {{std::string(2000, '\x02')}, 1, "step 1: no line end within 1024 bytes"},
        {{good[0], "\x02" "3x7 cfA\n"}, 2, "step 2: malformed control file command"},
        {{good[0], "\x02" "65537 cfA\n"}, 2, "step 2: control file length 65537 exceeds the limit of 65536"},
        {{good[0], "\x02" "4 cfA\n", Raw("\x02H1\n\x01")}, 3, "step 3: control file ends with 0x01, not 0x00"},
        {{good[0], good[1], good[2], "\x02" "1 dfA\n"}, 4, "step 4: expected 0x03, got 0x02"},
    };
    size_t stored = 0;
    for (const auto &bad : cases) {
        SCOPED_TRACE(bad.error);
        LprClient client;
        ASSERT_EQ(client.Connect("127.0.0.2"), 0);
        client.SendSteps({bad.steps.begin(), bad.steps.end() - 1});
        ASSERT_TRUE(client.Send(bad.steps.back()));
        EXPECT_EQ(client.Answer(), LprClient::kClosed);
        LprJob job = Job(++stored);
        EXPECT_EQ(job.outcome, LprOutcome::ProtocolError);
        EXPECT_EQ(job.step, bad.step);
        EXPECT_EQ(job.error, bad.error);
    }
    EXPECT_EQ(emulator.Counters("pc1").protocolErrors, std::size(cases));
}

// A receive-job as other LPR clients send it, beside the monitor's, whose data
// file runs to the close: each row's lines and files are acked (0x00), its
// tail is sent, then the client closes.
TEST_F(LprExchange, TakesOtherClientsReceiveJobsBesideTheMonitors) {
    const auto m = JobSteps();
    const std::string df = "\x03" "5 dfA007pc1\n", df2 = "\x03" "3 dfB007pc1\n", hi = Raw("hello\x00");
    const LprDataFile a{"dfA007pc1", 5}, b{"dfB007pc1", 3}, b2{"dfB007pc1", 2};
    using O = LprOutcome;
    const struct {
        std::vector<std::string> acked;
        std::string tail;
        O outcome;
        std::vector<LprDataFile> files;
        std::string data, error;
    } rows[] = {
        {{m[0], m[1], m[2], df, hi}, "", O::Completed, {a}, "hello", ""},  // control file first
        {{m[0], df, hi, m[1], m[2]}, "", O::Completed, {a}, "hello", ""},  // data file first
        // CUPS's lpd backend: a control file that begins with its first line.
        {{m[0], df, hi, "\x02" "22 cfA007pc1\n", Raw("Hpc1\nPuser\nldfA007pc1\n\x00")}, "", O::Completed, {a}, "hello", ""},
        {{m[0], m[1], m[2], df, hi, df2, Raw("abc\x00")}, "", O::Completed, {a, b}, "helloabc", ""},
        {{m[0], m[1], m[2], "\x01\n"}, "more", O::Aborted, {}, "", "the client aborted the job (subcommand 0x01)"},
        {{m[0], m[1], m[2], df, hi, df2}, "ab", O::ClientClosed, {a, b2}, "helloab", "the client closed the connection in step 7"},
        // The monitor's: the data runs to the close, past a 0x00 or past its count.
        {m, Raw("he\x00lo"), O::Completed, {a}, Raw("he\x00lo"), ""},
        {{m[0], m[1], m[2], "\x03" "2 dfA007pc1\n"}, "hello", O::Completed, {a}, "hello", ""},
        {{m[0], df}, "hello!", O::ProtocolError, {a}, "hello", "step 3: data file dfA007pc1 ends with 0x21, not 0x00"},
    };
    for (size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE("row " + std::to_string(i));
        SendJob(rows[i].acked, rows[i].tail);
        LprJob job = Job(i + 1);
        EXPECT_EQ(job.outcome, rows[i].outcome);
        EXPECT_EQ(job.error, rows[i].error);
        EXPECT_EQ(job.dataFiles, rows[i].files);
        EXPECT_EQ(job.data, rows[i].data);
    }
    EXPECT_NE(DescribeJob(Job(4)).find(", 2 data files \"dfA007pc1\" \"dfB007pc1\", 8 data bytes"), std::string::npos);
}

// ---- the emulator as a whole: starting and stopping, and the reasons it refuses to start ----

TEST(Emulator, StartFailsClearlyAndLeavesNothingRunning) {
    Emulator first, second;
    std::string error;
    ASSERT_TRUE(first.Start({Server("pc1", "127.0.0.2")}, &error)) << error;
    EXPECT_FALSE(second.Start({Server("pc5", "127.0.0.5"), Server("pc2", "127.0.0.2")}, &error));
    EXPECT_EQ(error, "server pc2: cannot listen on 127.0.0.2:515: Address already in use");
    EXPECT_FALSE(second.Running());
    LprClient client;  // pc5, bound before pc2 failed, was let go again
    EXPECT_EQ(client.Connect("127.0.0.5"), ECONNREFUSED);

    EXPECT_FALSE(second.Start({Server("pc5", "127.0.0.5"), Server("pc5", "127.0.0.6")}, &error));
    EXPECT_EQ(error, "server pc5 is configured twice");
    EXPECT_FALSE(second.Start({Server("pc5", "127.0.0.256")}, &error));
    EXPECT_EQ(error, "server pc5: bad IPv4 address '127.0.0.256'");
    EXPECT_FALSE(first.Start({Server("pc9", "127.0.0.9")}, &error));
    EXPECT_EQ(error, "the emulator is already running");
    ASSERT_EQ(client.Connect("127.0.0.2"), 0);  // the first never noticed
    client.SendSteps(JobSteps());
}

TEST(Emulator, StopEndsOpenConnectionsAndKeepsWhatTheyBrought) {
    Emulator emulator;
    std::string error;
    ASSERT_TRUE(emulator.Start({Server("pc1", "127.0.0.2")}, &error)) << error;
    LprClient client, idle;
    ASSERT_EQ(client.Connect("127.0.0.2"), 0);
    ASSERT_EQ(idle.Connect("127.0.0.2"), 0);
    client.SendSteps(JobSteps());
    ASSERT_TRUE(client.Send("half a job"));
    const size_t expected = Join(JobSteps()).size() + 10;
    ASSERT_TRUE(Eventually([&] {
        LprCounters c = emulator.Counters("pc1");
        return c.bytesReceived == expected && c.connectionsAccepted == 2;
    }));

    emulator.Stop();
    EXPECT_EQ(client.Answer(), LprClient::kClosed);
    EXPECT_EQ(idle.Answer(), LprClient::kClosed);
    auto jobs = emulator.Jobs("pc1");
    ASSERT_EQ(jobs.size(), 1u);
    EXPECT_EQ(jobs[0].outcome, LprOutcome::Stopped);
    EXPECT_EQ(jobs[0].step, 5);
    EXPECT_EQ(jobs[0].data, "half a job");
    LprCounters c = emulator.Counters("pc1");
    EXPECT_EQ(c.connectionsOpen, 0u);
    EXPECT_EQ(c.emptyConnections, 1u);
    EXPECT_EQ(client.Connect("127.0.0.2"), ECONNREFUSED);
}

}  // namespace
