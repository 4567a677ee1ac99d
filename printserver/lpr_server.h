// One virtual print server's LPR side: a listener on its address, one thread
// that polls the listener and every connection, the jobs it stored and its
// counters.  Everything but the thread's own connection state is guarded by mu_.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <netinet/in.h>

#include "kvtps.h"

namespace kvtps::detail {

class LprServer {
public:
    LprServer(ServerConfig config, JobObserver observer);
    ~LprServer();
    LprServer(const LprServer &) = delete;
    LprServer &operator=(const LprServer &) = delete;

    const std::string &name() const { return config_.name; }

    // Open binds the listener (unless refusing); Run starts the thread.
    bool Open(std::string *error);
    void Run();
    void Stop();

    uint16_t Port() const;
    std::vector<LprJob> Jobs() const;
    size_t JobCount() const;
    bool WaitForJobs(size_t count, int timeoutMs) const;
    void ClearJobs();
    LprCounters Counters() const;
    LprFaults Faults() const;
    bool SetFaults(const LprFaults &faults, std::string *error);
    // Moves the listener to another address, keeping its port; open
    // connections stay.  A refusing server only remembers the address.
    bool SetAddress(const std::string &address, std::string *error);

private:
    using Clock = std::chrono::steady_clock;
    struct Connection;
    enum class Answer { Ack, Withhold, Nak, Close };

    void Loop();
    bool OpenListener(std::string *error);  // with mu_ held
    bool WaitApplied(std::unique_lock<std::mutex> &lock, uint64_t generation, std::string *error);
    void CloseListener();                   // with mu_ held
    void ApplyFaults();                     // on the thread
    void Wake();
    void AcceptAll();
    void ReadFrom(Connection &c);
    void Advance(Connection &c);
    void StepComplete(Connection &c);
    void SendAnswer(Connection &c, Answer answer);
    void End(Connection &c, LprOutcome outcome, std::string error);
    Answer Decide(int step, uint8_t *nakByte);
    bool WantsRead(const Connection &c) const;
    int PollTimeout(const std::vector<std::unique_ptr<Connection>> &conns,
                    Clock::time_point now) const;

    ServerConfig config_;
    JobObserver observer_;
    sockaddr_in address_{};
    int wakeFd_ = -1;
    std::thread thread_;
    std::vector<char> buffer_;
    std::vector<std::unique_ptr<Connection>> connections_;  // the thread's own
    uint64_t nextConnection_ = 1;
    LprFaults live_;  // the thread's copy of faults_, taken in ApplyFaults

    mutable std::mutex mu_;
    mutable std::condition_variable changed_;
    int listenFd_ = -1;
    int listenRcvBuf_ = 0;     // SO_RCVBUF the open listener was made with
    uint16_t port_ = 0;        // the bound port, kept across a refuse
    bool stopping_ = false;
    bool threadRunning_ = false;
    LprFaults faults_;
    int closeRemaining_ = -1;  // connections left for closeBeforeAck (-1: all)
    int nakRemaining_ = -1;
    bool rebind_ = false;      // the address changed: the listener opens anew
    uint64_t faultGeneration_ = 0;
    uint64_t appliedGeneration_ = 0;
    std::vector<LprJob> jobs_;
    LprCounters counters_;
};

}  // namespace kvtps::detail
