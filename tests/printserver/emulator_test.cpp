// The emulator as a whole: many servers side by side, starting and stopping,
// and the reasons it refuses to start.
#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "kvtps.h"
#include "lpr_client.h"

using namespace kvtps;
using namespace kvtps_test;

namespace {

ServerConfig Server(const std::string &name, const std::string &address) {
    ServerConfig config;
    config.name = name;
    config.address = address;
    return config;
}

TEST(Emulator, ServersOnTheirOwnAddressesKeepTheirOwnJobs) {
    Emulator emulator;
    std::string error;
    ASSERT_TRUE(emulator.Start({Server("pc1", "127.0.0.2"), Server("pc2", "127.0.0.3"),
                                Server("pc3", "127.0.0.4")},
                               &error))
        << error;
    EXPECT_EQ(emulator.ServerNames(), (std::vector<std::string>{"pc1", "pc2", "pc3"}));
    // Two jobs to each server, from clients running at the same time.
    std::vector<std::thread> clients;
    for (int i = 0; i < 6; ++i) {
        clients.emplace_back([i] {
            LprClient client;
            const std::string address = "127.0.0.";
            ASSERT_EQ(client.Connect(address + std::to_string(2 + i % 3)), 0);
            client.SendSteps(JobSteps("queue" + std::to_string(i)));
            ASSERT_TRUE(client.Send(Pattern(20000, i)));
        });
    }
    for (auto &t : clients) t.join();
    for (int s = 0; s < 3; ++s) {
        const std::string name = "pc" + std::to_string(s + 1);
        ASSERT_TRUE(emulator.WaitForJobs(name, 2, kPatienceMs)) << name;
        std::set<std::string> queues;
        for (const LprJob &job : emulator.Jobs(name)) {
            queues.insert(job.queue);
            const int i = std::stoi(job.queue.substr(5));
            EXPECT_EQ(i % 3, s) << name << " got " << job.queue;
            EXPECT_TRUE(job.data == Pattern(20000, i)) << name << " " << job.queue;
            EXPECT_EQ(job.server, name);
        }
        EXPECT_EQ(queues.size(), 2u) << name;
        EXPECT_EQ(emulator.Counters(name).connectionsAccepted, 2u) << name;
    }
}

TEST(Emulator, StartFailsClearlyAndLeavesNothingRunning) {
    Emulator first;
    std::string error;
    ASSERT_TRUE(first.Start({Server("pc1", "127.0.0.2")}, &error)) << error;

    Emulator second;
    EXPECT_FALSE(second.Start({Server("pc5", "127.0.0.5"), Server("pc2", "127.0.0.2")}, &error));
    EXPECT_EQ(error, "server pc2: cannot listen on 127.0.0.2:515: Address already in use");
    EXPECT_FALSE(second.Running());
    // pc5, bound before pc2 failed, was let go again.
    LprClient client;
    EXPECT_EQ(client.Connect("127.0.0.5"), ECONNREFUSED);

    const struct {
        std::vector<ServerConfig> servers;
        const char *error;
    } bad[] = {
        {{Server("", "127.0.0.5")}, "a server needs a name"},
        {{Server("pc5", "127.0.0.5"), Server("pc5", "127.0.0.6")}, "server pc5 is configured twice"},
        {{Server("pc5", "127.0.0.256")}, "server pc5: bad IPv4 address '127.0.0.256'"},
        {{Server("pc5", "localhost")}, "server pc5: bad IPv4 address 'localhost'"},
    };
    for (const auto &b : bad) {
        EXPECT_FALSE(second.Start(b.servers, &error));
        EXPECT_EQ(error, b.error);
    }
    EXPECT_FALSE(first.Start({Server("pc9", "127.0.0.9")}, &error));
    EXPECT_EQ(error, "the emulator is already running");
    // The first emulator never noticed.
    ASSERT_EQ(client.Connect("127.0.0.2"), 0);
    client.SendSteps(JobSteps());
}

TEST(Emulator, StopEndsOpenConnectionsAndKeepsWhatTheyBrought) {
    Emulator emulator;
    std::string error;
    ASSERT_TRUE(emulator.Start({Server("pc1", "127.0.0.2")}, &error)) << error;
    LprClient client, idle;
    ASSERT_EQ(client.Connect("127.0.0.2"), 0);
    ASSERT_EQ(idle.Connect("127.0.0.2"), 0);
    const auto steps = JobSteps();
    client.SendSteps(steps);
    ASSERT_TRUE(client.Send("half a job"));
    size_t expected = steps[0].size() + steps[1].size() + steps[2].size() + steps[3].size() + 10;
    ASSERT_TRUE(Eventually([&] { return emulator.Counters("pc1").bytesReceived == expected; }));
    ASSERT_TRUE(Eventually([&] { return emulator.Counters("pc1").connectionsAccepted == 2; }));

    emulator.Stop();
    EXPECT_FALSE(emulator.Running());
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
    EXPECT_FALSE(c.listening);
    EXPECT_EQ(client.Connect("127.0.0.2"), ECONNREFUSED);
}

TEST(Emulator, StartsAndStopsAgainAndAgainOnTheSamePort) {
    Emulator emulator;
    std::vector<std::string> seen;
    emulator.SetJobObserver([&](const LprJob &job) { seen.push_back(job.queue); });
    for (int round = 0; round < 20; ++round) {
        std::string error;
        ASSERT_TRUE(emulator.Start({Server("pc1", "127.0.0.2")}, &error))
            << "round " << round << ": " << error;
        LprClient client;
        ASSERT_EQ(client.Connect("127.0.0.2"), 0);
        client.SendSteps(JobSteps("round" + std::to_string(round)));
        client.Close();
        ASSERT_TRUE(emulator.WaitForJobs("pc1", 1, kPatienceMs));
        emulator.Stop();
        EXPECT_EQ(emulator.JobCount("pc1"), 1u);  // each run starts empty
    }
    ASSERT_EQ(seen.size(), 20u);
    EXPECT_EQ(seen.back(), "round19");
}

TEST(Emulator, AnyFreePortWhenTheConfigurationSaysZero) {
    Emulator emulator;
    ServerConfig config = Server("pc1", "127.0.0.2");
    config.lprPort = 0;
    std::string error;
    ASSERT_TRUE(emulator.Start({config}, &error)) << error;
    const uint16_t port = emulator.LprPort("pc1");
    ASSERT_NE(port, 0);
    LprClient client;
    ASSERT_EQ(client.Connect("127.0.0.2", port), 0);
    client.SendSteps(JobSteps());
    // A refuse and back keeps the port the clients know.
    LprFaults refuse;
    refuse.refuse = true;
    ASSERT_TRUE(emulator.SetLprFaults("pc1", refuse, &error)) << error;
    ASSERT_TRUE(emulator.SetLprFaults("pc1", {}, &error)) << error;
    EXPECT_EQ(emulator.LprPort("pc1"), port);
    LprClient again;
    EXPECT_EQ(again.Connect("127.0.0.2", port), 0);
}

}  // namespace
