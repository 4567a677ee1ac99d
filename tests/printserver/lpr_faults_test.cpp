// Each fault knob, seen from the client: what it gets instead of an ack, what
// the server stored, and that the server behaves again once the knob is off.
#include <gtest/gtest.h>

#include <cstring>

#include <fcntl.h>

#include "kvtps.h"
#include "lpr_client.h"

using namespace kvtps;
using namespace kvtps_test;

namespace {

// How long a test waits to be sure that something does not come.
constexpr int kQuietMs = 300;

class LprFaultsTest : public ::testing::Test {
protected:
    void StartServer(const LprFaults &faults = {}) {
        ServerConfig config;
        config.name = "pc1";
        config.lpr = faults;
        std::string error;
        ASSERT_TRUE(emulator.Start({config}, &error)) << error;
    }
    void SetFaults(const LprFaults &faults) {
        std::string error;
        ASSERT_TRUE(emulator.SetLprFaults("pc1", faults, &error)) << error;
    }
    LprJob LastJob(size_t count) {
        EXPECT_TRUE(emulator.WaitForJobs("pc1", count, kPatienceMs));
        auto jobs = emulator.Jobs("pc1");
        return jobs.size() >= count ? jobs[count - 1] : LprJob{};
    }
    void CompleteJob() {
        LprClient client;
        ASSERT_EQ(client.Connect("127.0.0.2"), 0);
        client.SendSteps(JobSteps());
        ASSERT_TRUE(client.Send("data"));
    }
    Emulator emulator;
};

TEST_F(LprFaultsTest, RefusingServerListensAgainWhenTold) {
    LprFaults refuse;
    refuse.refuse = true;
    StartServer(refuse);
    LprClient client;
    EXPECT_EQ(client.Connect("127.0.0.2"), ECONNREFUSED);
    EXPECT_FALSE(emulator.Counters("pc1").listening);

    SetFaults({});
    EXPECT_TRUE(emulator.Counters("pc1").listening);
    CompleteJob();
    EXPECT_TRUE(LastJob(1).complete);

    SetFaults(refuse);
    EXPECT_EQ(client.Connect("127.0.0.2"), ECONNREFUSED);
    EXPECT_EQ(emulator.Counters("pc1").connectionsAccepted, 1u);
}

TEST_F(LprFaultsTest, SilentServerReadsButNeverAnswers) {
    LprFaults silent;
    silent.silent = true;
    StartServer(silent);
    const auto steps = JobSteps();
    LprClient client;
    ASSERT_EQ(client.Connect("127.0.0.2"), 0);
    ASSERT_TRUE(client.Send(steps[0]));
    EXPECT_EQ(client.Answer(kQuietMs), LprClient::kNoAnswer);
    ASSERT_TRUE(client.Send(steps[1]));  // the rest is read and dropped
    EXPECT_EQ(client.Answer(kQuietMs), LprClient::kNoAnswer);
    client.Close();

    LprJob job = LastJob(1);
    EXPECT_EQ(job.outcome, LprOutcome::Unanswered);
    EXPECT_EQ(job.step, 1);
    EXPECT_EQ(job.queue, "lp");
    EXPECT_EQ(job.acks, 0);
    EXPECT_EQ(job.totalBytes, steps[0].size() + steps[1].size());
    LprCounters c = emulator.Counters("pc1");
    EXPECT_EQ(c.acksSent[1], 0u);
    EXPECT_EQ(c.unanswered, 1u);
}

TEST_F(LprFaultsTest, CloseBeforeAckEndsTheConnectionAtThatStep) {
    StartServer();
    const auto steps = JobSteps();
    for (int k = 1; k <= 4; ++k) {
        SCOPED_TRACE("close before ack " + std::to_string(k));
        LprFaults faults;
        faults.closeBeforeAck = k;
        SetFaults(faults);
        LprClient client;
        ASSERT_EQ(client.Connect("127.0.0.2"), 0);
        client.SendSteps({steps.begin(), steps.begin() + k - 1});
        ASSERT_TRUE(client.Send(steps[k - 1]));
        EXPECT_EQ(client.Answer(), LprClient::kClosed);
        LprJob job = LastJob(k);
        EXPECT_EQ(job.outcome, LprOutcome::FaultClosed);
        EXPECT_EQ(job.step, k);
        EXPECT_EQ(job.acks, k - 1);
    }
    EXPECT_EQ(emulator.Counters("pc1").faultCloses, 4u);
}

TEST_F(LprFaultsTest, CountedCloseLetsTheLaterConnectionsThrough) {
    LprFaults faults;
    faults.closeBeforeAck = 2;
    faults.closeBeforeAckCount = 2;
    StartServer(faults);
    const auto steps = JobSteps();
    for (int attempt = 1; attempt <= 2; ++attempt) {
        LprClient client;
        ASSERT_EQ(client.Connect("127.0.0.2"), 0);
        client.SendSteps({steps[0]});
        ASSERT_TRUE(client.Send(steps[1]));
        EXPECT_EQ(client.Answer(), LprClient::kClosed) << "attempt " << attempt;
    }
    CompleteJob();
    CompleteJob();
    ASSERT_TRUE(emulator.WaitForJobs("pc1", 4, kPatienceMs));
    auto jobs = emulator.Jobs("pc1");
    EXPECT_EQ(jobs[0].outcome, LprOutcome::FaultClosed);
    EXPECT_EQ(jobs[1].outcome, LprOutcome::FaultClosed);
    EXPECT_TRUE(jobs[2].complete);
    EXPECT_TRUE(jobs[3].complete);

    // Setting the faults again starts the count afresh.
    SetFaults(faults);
    LprClient client;
    ASSERT_EQ(client.Connect("127.0.0.2"), 0);
    client.SendSteps({steps[0]});
    ASSERT_TRUE(client.Send(steps[1]));
    EXPECT_EQ(client.Answer(), LprClient::kClosed);
}

TEST_F(LprFaultsTest, NakAnswersTheStepWithItsByteAndKeepsTheConnection) {
    StartServer();
    const auto steps = JobSteps();
    const uint8_t bytes[] = {0x01, 0x02, 0x7f, 0xff};
    for (int k = 1; k <= 4; ++k) {
        SCOPED_TRACE("nak at step " + std::to_string(k));
        LprFaults faults;
        faults.nakAtStep = k;
        if (k > 1) faults.nakByte = bytes[k - 1];  // step 1 keeps the default 0x01
        SetFaults(faults);
        LprClient client;
        ASSERT_EQ(client.Connect("127.0.0.2"), 0);
        client.SendSteps({steps.begin(), steps.begin() + k - 1});
        ASSERT_TRUE(client.Send(steps[k - 1]));
        EXPECT_EQ(client.Answer(), bytes[k - 1]);
        // Still open: the server waits for the client to close.
        EXPECT_EQ(client.Answer(kQuietMs), LprClient::kNoAnswer);
        ASSERT_TRUE(client.Send("more"));
        client.Close();
        LprJob job = LastJob(k);
        EXPECT_EQ(job.outcome, LprOutcome::Nakked);
        EXPECT_EQ(job.step, k);
        EXPECT_EQ(job.acks, k - 1);
        EXPECT_EQ(job.ignoredBytes, 4u);
    }
    EXPECT_EQ(emulator.Counters("pc1").naksSent, 4u);
}

TEST_F(LprFaultsTest, SlowReadingMakesTheClientWait) {
    LprFaults slow;
    slow.readChunk = 512;
    slow.readDelayMs = 2;
    slow.recvBufferBytes = 4096;
    StartServer(slow);
    LprClient client;
    ASSERT_EQ(client.Connect("127.0.0.2"), 0);
    int small = 4096;
    setsockopt(client.fd(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    client.SendSteps(JobSteps());

    const std::string data = Pattern(64 * 1024, 3);
    fcntl(client.fd(), F_SETFL, fcntl(client.fd(), F_GETFL) | O_NONBLOCK);
    size_t sent = 0;
    int wouldBlock = 0;
    while (sent < data.size()) {
        ssize_t n = send(client.fd(), data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (n < 0) {
            ASSERT_TRUE(errno == EAGAIN || errno == EWOULDBLOCK) << std::strerror(errno);
            ++wouldBlock;
            pollfd p{client.fd(), POLLOUT, 0};
            ASSERT_EQ(poll(&p, 1, kPatienceMs), 1);
            continue;
        }
        sent += static_cast<size_t>(n);
    }
    client.Close();
    EXPECT_GT(wouldBlock, 0);

    LprJob job = LastJob(1);
    EXPECT_TRUE(job.complete);
    EXPECT_TRUE(job.data == data);
    LprCounters c = emulator.Counters("pc1");
    EXPECT_LE(c.largestRead, 512u);
    EXPECT_GE(c.reads, job.totalBytes / 512);
}

TEST_F(LprFaultsTest, AckDelayHoldsEachAnswerBack) {
    LprFaults delayed;
    delayed.ackDelayMs = 60;
    delayed.nakAtStep = 4;
    delayed.nakCount = 1;
    StartServer(delayed);
    auto started = std::chrono::steady_clock::now();
    LprClient nakked;
    ASSERT_EQ(nakked.Connect("127.0.0.2"), 0);
    const auto steps = JobSteps();
    nakked.SendSteps({steps[0], steps[1], steps[2]});
    ASSERT_TRUE(nakked.Send(steps[3]));
    EXPECT_EQ(nakked.Answer(), 0x01);
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(4 * 60));
    nakked.Close();
    CompleteJob();  // the one nak is used up
    EXPECT_TRUE(LastJob(2).complete);
}

TEST_F(LprFaultsTest, InvalidFaultsAreRejected) {
    StartServer();
    LprFaults bad;
    bad.closeBeforeAck = 5;
    std::string error;
    EXPECT_FALSE(emulator.SetLprFaults("pc1", bad, &error));
    EXPECT_NE(error.find("1..4"), std::string::npos) << error;
    bad = {};
    bad.nakAtStep = 2;
    bad.nakByte = 0;
    EXPECT_FALSE(emulator.SetLprFaults("pc1", bad, &error));
    EXPECT_FALSE(emulator.SetLprFaults("nobody", {}, &error));
    EXPECT_EQ(error, "no server named nobody");
}

}  // namespace
