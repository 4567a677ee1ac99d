#include <set>

#include <arpa/inet.h>

#include "kvtps.h"
#include "ipx_server.h"
#include "lpr_server.h"
#include "mgmt_server.h"
#include "netbios_server.h"

namespace kvtps {

const char *OutcomeName(LprOutcome outcome) {
    switch (outcome) {
    case LprOutcome::Completed: return "completed";
    case LprOutcome::ClientClosed: return "client-closed";
    case LprOutcome::ProtocolError: return "protocol-error";
    case LprOutcome::FaultClosed: return "fault-closed";
    case LprOutcome::Nakked: return "nakked";
    case LprOutcome::Unanswered: return "unanswered";
    case LprOutcome::Stopped: return "stopped";
    case LprOutcome::Aborted: return "aborted";
    }
    return "?";
}

bool ValidateFaults(const LprFaults &f, std::string *error) {
    auto fail = [&](const std::string &message) {
        if (error) *error = message;
        return false;
    };
    if (f.closeBeforeAck < 0 || f.closeBeforeAck > 4) return fail("close-before-ack step must be 1..4");
    if (f.nakAtStep < 0 || f.nakAtStep > 4) return fail("nak step must be 1..4");
    if (f.nakAtStep != 0 && f.nakByte == 0) return fail("a nak byte must not be 0x00");
    if (f.closeBeforeAckCount < -1 || f.nakCount < -1) return fail("a fault count must be -1 or more");
    if (f.readDelayMs < 0 || f.readDelayMs > 60000) return fail("read delay must be 0..60000 ms");
    if (f.ackDelayMs < 0 || f.ackDelayMs > 600000) return fail("ack delay must be 0..600000 ms");
    if (f.recvBufferBytes < 0) return fail("receive buffer size must not be negative");
    return true;
}

Emulator::Emulator() = default;

Emulator::~Emulator() { Stop(); }

bool Emulator::Start(std::vector<ServerConfig> configs, std::string *error) {
    std::string ignored;
    if (!error) error = &ignored;
    std::lock_guard<std::mutex> lock(mu_);
    if (running_) {
        *error = "the emulator is already running";
        return false;
    }
    std::set<std::string> names;
    for (const auto &config : configs) {
        in_addr address;
        if (config.name.empty()) {
            *error = "a server needs a name";
            return false;
        }
        if (!names.insert(config.name).second) {
            *error = "server " + config.name + " is configured twice";
            return false;
        }
        if (inet_pton(AF_INET, config.address.c_str(), &address) != 1) {
            *error = "server " + config.name + ": bad IPv4 address '" + config.address + "'";
            return false;
        }
        std::string why;
        if (!ValidateFaults(config.lpr, &why) || !ValidateManagement(config, &why) ||
            !ValidateIpxFaults(config.ipxFaults, &why) || !ValidateChannelFaults(config.netbios.channel, &why)) {
            *error = "server " + config.name + ": " + why;
            return false;
        }
    }
    auto mgmt = std::make_shared<detail::MgmtServer>(configs);
    if (!mgmt->Open(error)) return false;
    auto ipx = std::make_shared<detail::IpxServer>(configs, ipxObserver_);  // opened once LPR listens
    auto netbios = std::make_shared<detail::NbServer>(configs, netbiosObserver_);
    netbios->Open();
    std::vector<std::shared_ptr<detail::LprServer>> servers;
    for (auto &config : configs) {
        auto server = std::make_shared<detail::LprServer>(std::move(config), observer_);
        std::string why;
        if (!server->Open(&why)) {
            *error = "server " + server->name() + ": " + why;
            return false;  // the servers opened so far close as they go
        }
        servers.push_back(std::move(server));
    }
    if (!ipx->Open(error)) return false;
    for (auto &server : servers) server->Run();
    mgmt->Run();
    ipx->Run();
    netbios->Run();
    servers_ = std::move(servers);
    mgmt_ = std::move(mgmt);
    ipx_ = std::move(ipx);
    netbios_ = std::move(netbios);
    running_ = true;
    return true;
}

void Emulator::Stop() {
    std::vector<std::shared_ptr<detail::LprServer>> servers;
    std::shared_ptr<detail::MgmtServer> mgmt;
    std::shared_ptr<detail::IpxServer> ipx;
    std::shared_ptr<detail::NbServer> netbios;
    {
        std::lock_guard<std::mutex> lock(mu_);
        if (!running_) return;
        running_ = false;
        servers = servers_;
        mgmt = mgmt_;
        ipx = ipx_;
        netbios = netbios_;
    }
    // Not under mu_: an observer running on a server thread may call in.
    for (auto &server : servers) server->Stop();
    if (mgmt) mgmt->Stop();
    if (ipx) ipx->Stop();
    if (netbios) netbios->Stop();
}

bool Emulator::Running() const {
    std::lock_guard<std::mutex> lock(mu_);
    return running_;
}

void Emulator::SetJobObserver(JobObserver observer) {
    std::lock_guard<std::mutex> lock(mu_);
    observer_ = std::move(observer);
}

std::shared_ptr<detail::LprServer> Emulator::Find(const std::string &server) const {
    std::lock_guard<std::mutex> lock(mu_);
    for (const auto &s : servers_) {
        if (s->name() == server) return s;
    }
    return nullptr;
}

std::vector<std::string> Emulator::ServerNames() const {
    std::lock_guard<std::mutex> lock(mu_);
    std::vector<std::string> names;
    for (const auto &s : servers_) names.push_back(s->name());
    return names;
}

bool Emulator::HasServer(const std::string &server) const { return Find(server) != nullptr; }

uint16_t Emulator::LprPort(const std::string &server) const {
    auto s = Find(server);
    return s ? s->Port() : 0;
}

std::vector<LprJob> Emulator::Jobs(const std::string &server) const {
    auto s = Find(server);
    return s ? s->Jobs() : std::vector<LprJob>{};
}

size_t Emulator::JobCount(const std::string &server) const {
    auto s = Find(server);
    return s ? s->JobCount() : 0;
}

bool Emulator::WaitForJobs(const std::string &server, size_t count, int timeoutMs) const {
    auto s = Find(server);
    return s && s->WaitForJobs(count, timeoutMs);
}

void Emulator::ClearJobs(const std::string &server) {
    if (auto s = Find(server)) s->ClearJobs();
}

LprCounters Emulator::Counters(const std::string &server) const {
    auto s = Find(server);
    return s ? s->Counters() : LprCounters{};
}

LprFaults Emulator::Faults(const std::string &server) const {
    auto s = Find(server);
    return s ? s->Faults() : LprFaults{};
}

bool Emulator::SetLprFaults(const std::string &server, const LprFaults &faults,
                            std::string *error) {
    auto s = Find(server);
    if (!s) {
        if (error) *error = "no server named " + server;
        return false;
    }
    if (!ValidateFaults(faults, error)) return false;
    return s->SetFaults(faults, error);
}

std::shared_ptr<detail::MgmtServer> Emulator::Management() const {
    std::lock_guard<std::mutex> lock(mu_);
    return mgmt_;
}

NodeId Emulator::Node(const std::string &server) const {
    auto m = Management();
    return m ? m->Node(server) : NodeId{};
}

std::string Emulator::Address(const std::string &server) const {
    auto m = Management();
    return m ? m->Address(server) : "";
}

bool Emulator::SetAddress(const std::string &server, const std::string &address, std::string *error) {
    auto s = Find(server);
    auto m = Management();
    if (!s || !m) {
        if (error) *error = "no server named " + server;
        return false;
    }
    in_addr a;
    if (inet_pton(AF_INET, address.c_str(), &a) != 1) {
        if (error) *error = "bad IPv4 address '" + address + "'";
        return false;
    }
    if (!s->SetAddress(address, error)) return false;
    m->SetAddress(server, address);
    if (auto x = Ipx()) x->SetAddress(server, address);
    std::lock_guard<std::mutex> lock(mu_);
    if (netbios_) netbios_->SetAddress(server, address);
    return true;
}

MgmtCounters Emulator::ManagementCounters(const std::string &server) const {
    auto m = Management();
    return m ? m->Counters(server) : MgmtCounters{};
}

MgmtTraffic Emulator::ManagementTraffic() const {
    auto m = Management();
    return m ? m->Traffic() : MgmtTraffic{};
}

MgmtFaults Emulator::ManagementFaults(const std::string &server) const {
    auto m = Management();
    return m ? m->Faults(server) : MgmtFaults{};
}

bool Emulator::SetManagementFaults(const std::string &server, const MgmtFaults &faults, std::string *error) {
    auto m = Management();
    if (!m || !m->Has(server)) {
        if (error) *error = "no server named " + server;
        return false;
    }
    ServerConfig check;
    check.mgmt = faults;
    if (!ValidateManagement(check, error)) return false;
    m->SetFaults(server, faults);
    return true;
}

NbCounters Emulator::NetbiosCounters(const std::string &server) const {
    std::lock_guard<std::mutex> lock(mu_);
    return netbios_ ? netbios_->Counters(server) : NbCounters{};
}

NbTraffic Emulator::NetbiosTraffic() const {
    std::lock_guard<std::mutex> lock(mu_);
    return netbios_ ? netbios_->Traffic() : NbTraffic{};
}

bool Emulator::SetNetbiosFaults(const std::string &server, const NbFaults &faults, std::string *error) {
    std::lock_guard<std::mutex> lock(mu_);
    if (!ValidateChannelFaults(faults.channel, error)) return false;
    if (!netbios_ || !netbios_->SetFaults(server, faults)) {
        if (error) *error = "no server named " + server;
        return false;
    }
    return true;
}

void Emulator::SetNetbiosJobObserver(ChannelJobObserver observer) {
    std::lock_guard<std::mutex> lock(mu_);
    netbiosObserver_ = std::move(observer);
}

std::vector<ChannelJob> Emulator::NetbiosJobs(const std::string &server) const {
    std::lock_guard<std::mutex> lock(mu_);
    return netbios_ ? netbios_->Jobs(server) : std::vector<ChannelJob>{};
}

}  // namespace kvtps
