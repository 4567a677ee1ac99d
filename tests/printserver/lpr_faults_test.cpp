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

constexpr int kQuietMs = 300;  // how long a test waits to be sure nothing comes

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
    LprJob Job(size_t number) {
        EXPECT_TRUE(emulator.WaitForJobs("pc1", number, kPatienceMs));
        auto jobs = emulator.Jobs("pc1");
        return jobs.size() >= number ? jobs[number - 1] : LprJob{};
    }
    // Steps 1..k-1 acked, step k sent: the answer to step k.
    int AnswerToStep(LprClient &client, int k) {
        EXPECT_EQ(client.Connect("127.0.0.2"), 0);
        client.SendSteps({steps.begin(), steps.begin() + k - 1});
        EXPECT_TRUE(client.Send(steps[k - 1]));
        return client.Answer();
    }
    Emulator emulator;
    const std::vector<std::string> steps = JobSteps();
};

TEST_F(LprFaultsTest, RefusingServerListensAgainWhenTold) {
    LprFaults refuse;
    refuse.refuse = true;
    StartServer(refuse);
    LprClient client;
    EXPECT_EQ(client.Connect("127.0.0.2"), ECONNREFUSED);
    EXPECT_FALSE(emulator.Counters("pc1").listening);
    SetFaults({});
    EXPECT_EQ(AnswerToStep(client, 1), 0);
    SetFaults(refuse);
    EXPECT_EQ(client.Connect("127.0.0.2"), ECONNREFUSED);
    EXPECT_EQ(emulator.Counters("pc1").connectionsAccepted, 1u);
}

TEST_F(LprFaultsTest, SilentServerReadsButNeverAnswers) {
    LprFaults silent;
    silent.silent = true;
    StartServer(silent);
    LprClient client;
    ASSERT_EQ(client.Connect("127.0.0.2"), 0);
    ASSERT_TRUE(client.Send(steps[0]));
    EXPECT_EQ(client.Answer(kQuietMs), LprClient::kNoAnswer);
    ASSERT_TRUE(client.Send(steps[1]));  // read and dropped
    EXPECT_EQ(client.Answer(kQuietMs), LprClient::kNoAnswer);
    client.Close();
    LprJob job = Job(1);
    EXPECT_EQ(job.outcome, LprOutcome::Unanswered);
    EXPECT_EQ(job.step, 1);
    EXPECT_EQ(job.queue, "lp");
    EXPECT_EQ(job.totalBytes, steps[0].size() + steps[1].size());
    EXPECT_EQ(emulator.Counters("pc1").acksSent[1], 0u);
}

TEST_F(LprFaultsTest, CloseBeforeAckEndsTheConnectionAtThatStep) {
    StartServer();
    for (int k = 1; k <= 4; ++k) {
        LprFaults faults;
        faults.closeBeforeAck = k;
        SetFaults(faults);
        LprClient client;
        EXPECT_EQ(AnswerToStep(client, k), LprClient::kClosed) << "ack " << k;
        LprJob job = Job(k);
        EXPECT_EQ(job.outcome, LprOutcome::FaultClosed) << "ack " << k;
        EXPECT_EQ(job.step, k);
        EXPECT_EQ(job.acks, k - 1);
    }
    // Counted: the first two connections only, then as usual; counted afresh
    // each time the faults are set.
    LprFaults twice;
    twice.closeBeforeAck = 2;
    twice.closeBeforeAckCount = 2;
    SetFaults(twice);
    const int expected[] = {LprClient::kClosed, LprClient::kClosed, 0, 0};
    for (int answer : expected) {
        LprClient client;
        EXPECT_EQ(AnswerToStep(client, 2), answer);
    }
    SetFaults(twice);
    LprClient client;
    EXPECT_EQ(AnswerToStep(client, 2), LprClient::kClosed);
    EXPECT_EQ(emulator.Counters("pc1").faultCloses, 7u);
}

TEST_F(LprFaultsTest, NakAnswersTheStepWithItsByteAndKeepsTheConnection) {
    StartServer();
    const uint8_t bytes[] = {0x01, 0x02, 0x7f, 0xff};
    for (int k = 1; k <= 4; ++k) {
        LprFaults faults;
        faults.nakAtStep = k;
        if (k > 1) faults.nakByte = bytes[k - 1];  // step 1 keeps the default 0x01
        SetFaults(faults);
        LprClient client;
        EXPECT_EQ(AnswerToStep(client, k), bytes[k - 1]) << "step " << k;
        EXPECT_EQ(client.Answer(kQuietMs), LprClient::kNoAnswer);  // still open
        ASSERT_TRUE(client.Send("more"));
        client.Close();
        LprJob job = Job(k);
        EXPECT_EQ(job.outcome, LprOutcome::Nakked);
        EXPECT_EQ(job.step, k);
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
    client.SendSteps(steps);
    const std::string data = Pattern(64 * 1024, 3);
    fcntl(client.fd(), F_SETFL, fcntl(client.fd(), F_GETFL) | O_NONBLOCK);
    int wouldBlock = 0;
    for (size_t sent = 0; sent < data.size();) {
        ssize_t n = send(client.fd(), data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (n >= 0) {
            sent += static_cast<size_t>(n);
            continue;
        }
        ASSERT_EQ(errno, EAGAIN) << std::strerror(errno);
        ++wouldBlock;
        pollfd p{client.fd(), POLLOUT, 0};
        ASSERT_EQ(poll(&p, 1, kPatienceMs), 1);
    }
    client.Close();
    EXPECT_GT(wouldBlock, 0);
    EXPECT_TRUE(Job(1).data == data);
    LprCounters c = emulator.Counters("pc1");
    EXPECT_LE(c.largestRead, 512u);
    EXPECT_GE(c.reads, data.size() / 512);
}

TEST_F(LprFaultsTest, AckDelayHoldsEachAnswerBack) {
    LprFaults delayed;
    delayed.ackDelayMs = 60;
    delayed.nakAtStep = 4;
    delayed.nakCount = 1;
    StartServer(delayed);
    auto started = std::chrono::steady_clock::now();
    LprClient client;
    EXPECT_EQ(AnswerToStep(client, 4), 0x01);
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(4 * 60));
    EXPECT_EQ(AnswerToStep(client, 4), 0);  // the one nak is used up

    delayed.closeBeforeAck = 5;  // and a change that makes no sense is refused
    std::string error;
    EXPECT_FALSE(emulator.SetLprFaults("pc1", delayed, &error));
    EXPECT_EQ(error, "close-before-ack step must be 1..4");
}

}  // namespace
