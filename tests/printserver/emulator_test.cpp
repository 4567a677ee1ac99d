// The emulator as a whole: starting and stopping, and the reasons it refuses
// to start.  (Many servers side by side, each keeping its own jobs: the
// monitor's stress test.)
#include <gtest/gtest.h>

#include "kvtps.h"
#include "lpr_client.h"

using namespace kvtps;
using namespace kvtps_test;

namespace {

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

TEST(Emulator, StartsAndStopsAgainAndAgain) {
    Emulator emulator;
    std::vector<std::string> seen;
    emulator.SetJobObserver([&](const LprJob &job) { seen.push_back(job.queue); });
    for (int round = 0; round < 20; ++round) {
        // Port 515, or in some rounds any free port, which a refuse and back keeps.
        const bool anyPort = round % 5 == 4;
        std::string error;
        ASSERT_TRUE(emulator.Start({Server("pc1", "127.0.0.2", anyPort ? 0 : 515)}, &error)) << error;
        const uint16_t port = emulator.LprPort("pc1");
        ASSERT_TRUE(!anyPort || (emulator.SetLprFaults("pc1", LprFaults{.refuse = true}) &&
                                 emulator.SetLprFaults("pc1", {})));
        SendJob(JobSteps(std::to_string(round)), "", "127.0.0.2", port);
        ASSERT_TRUE(emulator.WaitForJobs("pc1", 1, kPatienceMs));
        emulator.Stop();
        EXPECT_EQ(emulator.JobCount("pc1"), 1u);  // each run starts empty
    }
    ASSERT_EQ(seen.size(), 20u);
    EXPECT_EQ(seen.back(), "19");
}

}  // namespace
