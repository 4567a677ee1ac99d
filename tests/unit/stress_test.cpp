// Many spooler threads at once: jobs on nine ports of three print servers over
// LPR, IPX and NetBIOS, while other threads list the ports, configure, delete
// and add (from a list file) spare ones, try to delete ports whose job runs, and search on every
// carrier.  Every job must arrive once and whole where its transport took it.
// Run under the thread sanitizer by make tsan.
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "discovery.h"
#include "fixture.h"
#include "nbstartup.h"
#include "admin.h"

namespace {

using namespace kvttest;
constexpr int kServers = 3, kJobsPerPort = 3;
constexpr uint8_t kProtocols[] = {PROTOCOL_AUTO, PROTOCOL_TCPIP, PROTOCOL_IPX, PROTOCOL_NETBIOS};

struct PortRun {
    std::u16string name;
    std::string server;
    uint8_t protocol = 0;
    std::mutex endGate;            // held by a deleter that needs the job to go on running
    std::atomic<bool> inJob{false};  // between a job start that worked and its end
    std::vector<std::string> sent;
};

class Stress : public JobTest {};

TEST_F(Stress, JobsOnEveryTransportWhileOthersListConfigureDeleteAndSearch) {
    StartPort({.ipx = true, .netbios = true, .timeScale = 0.02});  // the start-up's polls need time to be answered
    std::vector<kvtps::ServerConfig> configs;
    std::vector<std::unique_ptr<PortRun>> ports;
    for (int s = 0; s < kServers; ++s) {
        const std::string name = "PS" + std::to_string(s + 1);
        configs.push_back(With(Server(name, "127.0.0." + std::to_string(s + 2)), [](auto &c) { c.model = 3; }));
        for (int d = 1; d <= 3; ++d) {
            PortRun &p = *ports.emplace_back(std::make_unique<PortRun>());
            p.server = name, p.protocol = kProtocols[(s + d) % 4];
            p.name = kvthost::Widen(name + "-P" + std::to_string(d));
            MakePortKeys(kvthost::Widen(name), static_cast<char16_t>(u'0' + d), 0x7F000002 + s, p.protocol, u"lp");
        }
    }
    for (char16_t d : {u'1', u'2', u'3'}) MakePortKeys(u"SPARE", d, 0x7F000009, 0, nullptr);
    ResetMonitor();
    InitializePrintMonitor(nullptr);
    StartServers(configs);
    ASSERT_TRUE(bStartup = NBStartup()) << "a start-up during a NetBIOS job would end that job";

    // The dialog 550 is answered OK, and so is any box (the log's, when two
    // threads open it at once).
    kvthost::SetUiDriver([](HWND w, int) { kvthost::AnswerBox(w, IDOK) || kvthost::Click(w, IDC_CONFIG_OK); });
    std::atomic<bool> done{false};
    std::atomic<int> failures{0}, busyRefusals{0};
    std::vector<std::thread> jobs, others;
    for (size_t i = 0; i < ports.size(); ++i) {
        jobs.emplace_back([&, i] {
            PortRun &p = *ports[i];
            std::mt19937 random(static_cast<unsigned>(i));
            const std::u16string printer = u"Printer" + kvthost::Widen(std::to_string(i));
            kvthost::ImpersonateUser(u"guest");
            HANDLE port = nullptr;
            LocalmonOpenPort(const_cast<LPWSTR>(p.name.c_str()), &port);
            for (int j = 0; j < kJobsPerPort && port != nullptr; ++j) {
                const DWORD id = static_cast<DWORD>(100 * i + j + 1);
                kvthost::AddJob({printer, id, u"doc", u"guest", u"", 0});
                std::string data = "job " + std::to_string(id) + ":";
                data.resize(data.size() + random() % 30000, static_cast<char>('a' + random() % 26));
                if (!LocalmonStartDocPort(port, const_cast<LPWSTR>(printer.c_str()), id, 1, nullptr)) {
                    ++failures;
                    continue;
                }
                p.inJob = true;
                bool written = WriteAll(static_cast<PINIPORT>(port), data);
                // The first job waits for a delete to come while it runs, however
                // the threads are scheduled.
                if (i == 0 && j == 0) Eventually([&] { return busyRefusals > 0; });
                std::lock_guard<std::mutex> gate(p.endGate);
                p.inJob = false;
                if (!LocalmonEndDocPort(port) || !written) ++failures;
                else p.sent.push_back(data);
            }
        });
    }
    others.emplace_back([&] {  // lists the ports: the nine with jobs are always there
        while (!done) {
            for (DWORD level : {1u, 2u}) {
                DWORD needed = 0, count = 0;
                LocalmonEnumPorts(nullptr, level, nullptr, 0, &needed, &count);
                std::vector<BYTE> buffer(needed + 512);
                const DWORD size = static_cast<DWORD>(buffer.size());
                if (LocalmonEnumPorts(nullptr, level, buffer.data(), size, &needed, &count) && count < ports.size())
                    ++failures;
            }
        }
    });
    others.emplace_back([&] {  // deletes a port while its job runs: refused
        for (size_t i = 0; !done; i = (i + 1) % ports.size()) {
            std::lock_guard<std::mutex> gate(ports[i]->endGate);
            if (!ports[i]->inJob) continue;
            if (LocalmonDeletePort(nullptr, nullptr, const_cast<LPWSTR>(ports[i]->name.c_str())) ||
                GetLastError() != ERROR_BUSY)
                ++failures;
            else ++busyRefusals;
        }
    });
    others.emplace_back([&] {  // configures the spare ports, deletes them, adds them again from a list file
        const std::string list = kvthost::MapPath(u"C:\\Windows\\SysWOW64\\KVTLIST.BIN");
        for (int round = 0; round < 3 && !done; ++round) {
            for (const char16_t *spare : {u"SPARE-P1", u"SPARE-P2", u"SPARE-P3"}) {
                if (!LocalmonConfigurePort(nullptr, nullptr, const_cast<LPWSTR>(spare))) ++failures;
                if (!LocalmonDeletePort(nullptr, nullptr, const_cast<LPWSTR>(spare))) ++failures;
            }
            std::ofstream(list, std::ios::binary) << ListRecord("SPARE", {127, 0, 0, 9}, 3, 7, "");
            if (!LocalmonAddPort(nullptr, nullptr, const_cast<LPWSTR>(MonitorName))) ++failures;
        }
    });
    others.emplace_back([&] {  // searches on every carrier
        while (!done) {
            TCPSearch();
            IPXSearch(1, 1);
            NBSearch();
        }
    });
    for (auto &t : jobs) t.join();
    done = true;
    for (auto &t : others) t.join();

    EXPECT_EQ(failures, 0);
    EXPECT_GT(busyRefusals, 0) << "no delete came while a job ran";
    EXPECT_NE(FindPortFromList(u"SPARE-P2"), nullptr) << "added again";
    std::map<std::string, size_t> lprJobs;  // LPR jobs are stored when the server sees the close
    for (const auto &p : ports)
        if (p->protocol != PROTOCOL_IPX && p->protocol != PROTOCOL_NETBIOS) lprJobs[p->server] += p->sent.size();
    for (const auto &[server, count] : lprJobs) EXPECT_TRUE(emulator.WaitForJobs(server, count, 20000)) << server;
    for (const auto &p : ports) {
        ASSERT_EQ(p->sent.size(), size_t{kJobsPerPort}) << kvthost::Narrow(p->name);
        std::vector<std::string> stored;
        auto keep = [&](const auto &jobs) { for (const auto &j : jobs) stored.push_back(j.data); };
        if (p->protocol == PROTOCOL_IPX) keep(emulator.IpxJobs(p->server));
        else if (p->protocol == PROTOCOL_NETBIOS) keep(emulator.NetbiosJobs(p->server));
        else keep(emulator.Jobs(p->server));
        for (const std::string &data : p->sent)
            EXPECT_EQ(std::count(stored.begin(), stored.end(), data), 1)
                << kvthost::Narrow(p->name) << ": " << data.substr(0, data.find(':'));
    }
}

}  // namespace
