#include "lpr_server.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "lpr_session.h"

namespace kvtps::detail {
namespace {

constexpr size_t kReadBuffer = 256 * 1024;
// Bytes a connection may hold unparsed before the server stops reading it: a
// whole control file at its limit and a command line on either side fit.
constexpr size_t kMaxWaiting = kMaxControlFileLength + 4 * kMaxCommandLine;
constexpr int kListenBacklog = 64;
constexpr int kAcceptsPerTurn = 64;
// SetFaults waits this long for the thread to apply a change; the thread only
// takes long when the machine is very busy.
constexpr int kApplyWaitMs = 10000;

std::string Errno(const char *what) { return std::string(what) + ": " + std::strerror(errno); }

std::string AddressText(const sockaddr_in &a) {
    char text[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &a.sin_addr, text, sizeof text);
    return std::string(text) + ":" + std::to_string(ntohs(a.sin_port));
}

}  // namespace

struct LprServer::Connection {
    Connection(int f, uint64_t n, std::string from, bool storeData)
        : fd(f), id(n), peer(std::move(from)), session(storeData) {}
    int fd;
    uint64_t id;
    std::string peer;
    LprSession session;
    // After a withheld ack or a nak the server answers nothing more: it reads
    // and drops until the client closes, which ends the job with holdOutcome.
    bool holding = false;
    LprOutcome holdOutcome = LprOutcome::Unanswered;
    std::string holdReason;
    // An answer decided but waiting for the ack delay.
    bool answerDue = false;
    Answer answer = Answer::Ack;
    uint8_t nakByte = 0;
    Clock::time_point answerAt{};
    Clock::time_point readyAt{};  // slow reading: no read before this
};

LprServer::LprServer(ServerConfig config, JobObserver observer)
    : config_(std::move(config)), observer_(std::move(observer)), buffer_(kReadBuffer) {
    faults_ = config_.lpr;
    live_ = faults_;
    closeRemaining_ = faults_.closeBeforeAckCount;
    nakRemaining_ = faults_.nakCount;
    port_ = config_.lprPort;
    address_.sin_family = AF_INET;
    inet_pton(AF_INET, config_.address.c_str(), &address_.sin_addr);
}

LprServer::~LprServer() {
    Stop();
    if (wakeFd_ >= 0) close(wakeFd_);
}

bool LprServer::Open(std::string *error) {
    wakeFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeFd_ < 0) {
        *error = Errno("eventfd");
        return false;
    }
    std::lock_guard<std::mutex> lock(mu_);
    return faults_.refuse || OpenListener(error);
}

bool LprServer::OpenListener(std::string *error) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        counters_.listenError = Errno("socket");
        *error = counters_.listenError;
        return false;
    }
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    // Set before listen, so that the window a connection starts with is small too.
    if (faults_.recvBufferBytes > 0) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &faults_.recvBufferBytes,
                   sizeof faults_.recvBufferBytes);
    }
    sockaddr_in a = address_;
    a.sin_port = htons(port_);
    if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
        listen(fd, kListenBacklog) != 0) {
        counters_.listenError = "cannot listen on " + AddressText(a) + ": " + std::strerror(errno);
        *error = counters_.listenError;
        close(fd);
        return false;
    }
    socklen_t len = sizeof a;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0) port_ = ntohs(a.sin_port);
    listenFd_ = fd;
    listenRcvBuf_ = faults_.recvBufferBytes;
    counters_.listenError.clear();
    return true;
}

void LprServer::CloseListener() {
    if (listenFd_ >= 0) close(listenFd_);
    listenFd_ = -1;
}

void LprServer::Run() {
    {
        std::lock_guard<std::mutex> lock(mu_);
        threadRunning_ = true;
    }
    thread_ = std::thread([this] { Loop(); });
}

void LprServer::Stop() {
    {
        std::lock_guard<std::mutex> lock(mu_);
        stopping_ = true;
        if (!threadRunning_) CloseListener();
    }
    Wake();
    if (thread_.joinable()) thread_.join();
}

void LprServer::Wake() {
    if (wakeFd_ < 0) return;
    uint64_t one = 1;
    // A full counter already means "wake up"; nothing to do if the write fails.
    [[maybe_unused]] ssize_t n = write(wakeFd_, &one, sizeof one);
}

// Brings the listener and the thread's copy of the faults in line with faults_.
void LprServer::ApplyFaults() {
    std::lock_guard<std::mutex> lock(mu_);
    if (appliedGeneration_ == faultGeneration_) return;
    live_ = faults_;
    if (listenFd_ >= 0 && (faults_.refuse || faults_.recvBufferBytes != listenRcvBuf_ || rebind_)) {
        CloseListener();
    }
    rebind_ = false;
    std::string ignored;  // kept in counters_.listenError
    if (!faults_.refuse && listenFd_ < 0) OpenListener(&ignored);
    appliedGeneration_ = faultGeneration_;
    changed_.notify_all();
}

bool LprServer::SetFaults(const LprFaults &faults, std::string *error) {
    std::unique_lock<std::mutex> lock(mu_);
    faults_ = faults;
    closeRemaining_ = faults.closeBeforeAckCount;
    nakRemaining_ = faults.nakCount;
    const uint64_t generation = ++faultGeneration_;
    if (!threadRunning_) {
        // Not running (before Run or after Stop): nothing to listen for.
        live_ = faults_;
        appliedGeneration_ = generation;
        return true;
    }
    return WaitApplied(lock, generation, error);
}

// Lets the thread apply a change of faults or address, and says whether the
// listener is open again where it should be.
bool LprServer::WaitApplied(std::unique_lock<std::mutex> &lock, uint64_t generation, std::string *error) {
    lock.unlock();
    Wake();
    lock.lock();
    bool applied = changed_.wait_for(lock, std::chrono::milliseconds(kApplyWaitMs), [&] {
        return appliedGeneration_ >= generation || !threadRunning_;
    });
    if (!applied) {
        if (error) *error = "server " + config_.name + " did not apply the faults in time";
        return false;
    }
    if (!faults_.refuse && listenFd_ < 0 && threadRunning_) {
        if (error) *error = counters_.listenError;
        return false;
    }
    return true;
}

bool LprServer::SetAddress(const std::string &address, std::string *error) {
    std::unique_lock<std::mutex> lock(mu_);
    if (inet_pton(AF_INET, address.c_str(), &address_.sin_addr) != 1) {
        if (error) *error = "bad IPv4 address '" + address + "'";
        return false;
    }
    config_.address = address;
    rebind_ = true;
    const uint64_t generation = ++faultGeneration_;
    if (!threadRunning_) {
        appliedGeneration_ = generation;
        rebind_ = false;
        return true;
    }
    return WaitApplied(lock, generation, error);
}

LprFaults LprServer::Faults() const {
    std::lock_guard<std::mutex> lock(mu_);
    return faults_;
}

uint16_t LprServer::Port() const {
    std::lock_guard<std::mutex> lock(mu_);
    return port_;
}

std::vector<LprJob> LprServer::Jobs() const {
    std::lock_guard<std::mutex> lock(mu_);
    return jobs_;
}

size_t LprServer::JobCount() const {
    std::lock_guard<std::mutex> lock(mu_);
    return jobs_.size();
}

bool LprServer::WaitForJobs(size_t count, int timeoutMs) const {
    std::unique_lock<std::mutex> lock(mu_);
    return changed_.wait_for(lock, std::chrono::milliseconds(std::max(timeoutMs, 0)),
                             [&] { return jobs_.size() >= count; });
}

void LprServer::ClearJobs() {
    std::lock_guard<std::mutex> lock(mu_);
    jobs_.clear();
}

LprCounters LprServer::Counters() const {
    std::lock_guard<std::mutex> lock(mu_);
    LprCounters c = counters_;
    c.listening = listenFd_ >= 0;
    return c;
}

// ---- the thread -------------------------------------------------------------------

bool LprServer::WantsRead(const Connection &c) const {
    return c.fd >= 0 && (c.holding || c.session.inData() || c.session.waitingBytes() < kMaxWaiting);
}

int LprServer::PollTimeout(const std::vector<std::unique_ptr<Connection>> &conns,
                           Clock::time_point now) const {
    auto next = Clock::time_point::max();
    for (const auto &c : conns) {
        if (c->answerDue) next = std::min(next, c->answerAt);
        if (WantsRead(*c) && c->readyAt > now) next = std::min(next, c->readyAt);
    }
    if (next == Clock::time_point::max()) return -1;
    auto ms = std::chrono::ceil<std::chrono::milliseconds>(next - now).count();
    return static_cast<int>(std::clamp<decltype(ms)>(ms, 0, 60000));
}

void LprServer::Loop() {
    std::vector<pollfd> fds;
    for (;;) {
        ApplyFaults();
        {
            std::lock_guard<std::mutex> lock(mu_);
            if (stopping_) break;
        }
        auto now = Clock::now();
        fds.clear();
        fds.push_back({wakeFd_, POLLIN, 0});
        for (const auto &c : connections_) {
            bool read = WantsRead(*c) && c->readyAt <= now;
            fds.push_back({c->fd, static_cast<short>(read ? POLLIN : 0), 0});
        }
        const int listenFd = listenFd_;  // only this thread changes it while running
        if (listenFd >= 0) fds.push_back({listenFd, POLLIN, 0});

        if (poll(fds.data(), fds.size(), PollTimeout(connections_, now)) < 0 && errno != EINTR) {
            break;  // cannot happen with valid descriptors; Stop still cleans up
        }
        if (fds[0].revents & POLLIN) {
            uint64_t count;
            [[maybe_unused]] ssize_t n = read(wakeFd_, &count, sizeof count);
        }
        const size_t known = connections_.size();
        for (size_t i = 0; i < known; ++i) {
            // Hang-ups and errors are read even when not asked for, or poll
            // would report them again at once.
            if (fds[i + 1].revents & (POLLIN | POLLHUP | POLLERR)) ReadFrom(*connections_[i]);
        }
        now = Clock::now();
        for (size_t i = 0; i < known; ++i) {
            Connection &c = *connections_[i];
            if (c.fd >= 0 && c.answerDue && c.answerAt <= now) {
                c.answerDue = false;
                SendAnswer(c, c.answer);
                Advance(c);
            }
        }
        if (listenFd >= 0 && (fds.back().revents & POLLIN)) AcceptAll();
        std::erase_if(connections_, [](const auto &c) { return c->fd < 0; });
    }
    for (auto &c : connections_) End(*c, LprOutcome::Stopped, "the emulator stopped");
    connections_.clear();
    std::lock_guard<std::mutex> lock(mu_);
    CloseListener();
    threadRunning_ = false;
    changed_.notify_all();
}

void LprServer::AcceptAll() {
    for (int i = 0; i < kAcceptsPerTurn; ++i) {
        sockaddr_in peer{};
        socklen_t len = sizeof peer;
        int fd = accept4(listenFd_, reinterpret_cast<sockaddr *>(&peer), &len,
                         SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == ECONNABORTED || errno == EINTR) continue;
            return;  // EAGAIN: no more; anything else: try again next turn
        }
        int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        if (live_.recvBufferBytes > 0) {
            setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &live_.recvBufferBytes,
                       sizeof live_.recvBufferBytes);
        }
        {
            std::lock_guard<std::mutex> lock(mu_);
            ++counters_.connectionsAccepted;
            ++counters_.connectionsOpen;
        }
        connections_.push_back(std::make_unique<Connection>(fd, nextConnection_++,
                                                            AddressText(peer), config_.storeData));
    }
}

void LprServer::ReadFrom(Connection &c) {
    if (c.fd < 0) return;
    size_t want = buffer_.size();
    if (live_.readChunk > 0) want = std::min(want, live_.readChunk);
    ssize_t n = recv(c.fd, buffer_.data(), want, 0);
    if (n < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return;
        std::string why = Errno("recv");
        End(c, c.holding ? c.holdOutcome : LprOutcome::ClientClosed,
            c.holding ? c.holdReason + "; " + why : why);
        return;
    }
    if (n == 0) {
        if (c.holding) {
            End(c, c.holdOutcome, c.holdReason);
        } else {
            std::string why;
            const LprOutcome outcome = c.session.AtClose(&why);
            End(c, outcome, std::move(why));
        }
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mu_);
        counters_.bytesReceived += n;
        ++counters_.reads;
        counters_.largestRead = std::max<uint64_t>(counters_.largestRead, n);
    }
    if (live_.readDelayMs > 0) {
        c.readyAt = Clock::now() + std::chrono::milliseconds(live_.readDelayMs);
    }
    if (c.holding) {
        c.session.Ignore(n);
        return;
    }
    c.session.Receive(buffer_.data(), n);
    Advance(c);
    if (c.fd >= 0 && live_.closeAfterBytes > 0 && c.session.job().dataBytes >= live_.closeAfterBytes) {
        {
            std::lock_guard<std::mutex> lock(mu_);
            ++counters_.faultCloses;
        }
        End(c, LprOutcome::FaultClosed, "closed after " + std::to_string(live_.closeAfterBytes) + " data bytes");
    }
}

// Parses as far as the bytes at hand go, answering each step that completes.
void LprServer::Advance(Connection &c) {
    while (c.fd >= 0 && !c.holding && !c.answerDue && !c.session.inData()) {
        switch (c.session.Parse()) {
        case LprSession::Result::NeedMore:
            return;
        case LprSession::Result::Error: {
            std::lock_guard<std::mutex> lock(mu_);
            ++counters_.protocolErrors;
        }
            End(c, LprOutcome::ProtocolError, c.session.error());
            return;
        case LprSession::Result::StepComplete:
            StepComplete(c);
            break;
        }
    }
}

LprServer::Answer LprServer::Decide(int step, uint8_t *nakByte) {
    std::lock_guard<std::mutex> lock(mu_);
    if (faults_.silent) {
        ++counters_.unanswered;
        return Answer::Withhold;
    }
    if (faults_.closeBeforeAck == step && closeRemaining_ != 0) {
        if (closeRemaining_ > 0) --closeRemaining_;
        return Answer::Close;
    }
    if (faults_.nakAtStep == step && nakRemaining_ != 0) {
        if (nakRemaining_ > 0) --nakRemaining_;
        *nakByte = faults_.nakByte;
        return Answer::Nak;
    }
    return Answer::Ack;
}

void LprServer::StepComplete(Connection &c) {
    const int step = c.session.step();
    Answer answer = Decide(step, &c.nakByte);
    if (answer == Answer::Withhold) {
        c.holding = true;
        c.holdOutcome = LprOutcome::Unanswered;
        c.holdReason = "ack " + std::to_string(step) + " withheld (silent)";
        return;
    }
    if (live_.ackDelayMs > 0) {
        c.answerDue = true;
        c.answer = answer;
        c.answerAt = Clock::now() + std::chrono::milliseconds(live_.ackDelayMs);
        return;
    }
    SendAnswer(c, answer);
}

void LprServer::SendAnswer(Connection &c, Answer answer) {
    const int step = c.session.step();
    if (answer == Answer::Close) {
        {
            std::lock_guard<std::mutex> lock(mu_);
            ++counters_.faultCloses;
        }
        End(c, LprOutcome::FaultClosed, "closed instead of ack " + std::to_string(step));
        return;
    }
    const uint8_t byte = answer == Answer::Nak ? c.nakByte : 0;
    if (send(c.fd, &byte, 1, MSG_NOSIGNAL) != 1) {
        End(c, LprOutcome::ClientClosed, Errno("send"));
        return;
    }
    std::lock_guard<std::mutex> lock(mu_);
    if (answer == Answer::Nak) {
        ++counters_.naksSent;
        char text[48];
        std::snprintf(text, sizeof text, "ack %d answered 0x%02X", step, byte);
        c.holding = true;
        c.holdOutcome = LprOutcome::Nakked;
        c.holdReason = text;
    } else {
        ++counters_.acksSent[std::min<size_t>(step, std::size(counters_.acksSent) - 1)];
        c.session.Acknowledged();
    }
}

void LprServer::End(Connection &c, LprOutcome outcome, std::string error) {
    if (c.fd < 0) return;
    close(c.fd);
    c.fd = -1;
    c.answerDue = false;
    LprJob job = std::move(c.session.job());
    job.server = config_.name;
    job.connection = c.id;
    job.peer = c.peer;
    job.step = c.session.step();
    job.outcome = outcome;
    job.complete = outcome == LprOutcome::Completed;
    job.error = std::move(error);
    const bool store = job.totalBytes > 0;
    // The observer sees the job before waiters do, so that what it writes
    // (a spool file, a line) is there when a waiter wakes.
    if (store && observer_) observer_(job);
    std::lock_guard<std::mutex> lock(mu_);
    --counters_.connectionsOpen;
    if (!store) {
        ++counters_.emptyConnections;
        return;
    }
    ++(job.complete ? counters_.jobsCompleted : counters_.jobsBrokenOff);
    jobs_.push_back(std::move(job));
    changed_.notify_all();
}

}  // namespace kvtps::detail
