// The server's side of one LPR exchange, without the socket: bytes go in as
// they arrive, in any fragmentation; the session says when a step is complete
// (its ack is due) or the bytes cannot be accepted.  The server decides what
// to answer and tells the session when an ack went out.
#pragma once

#include <string>

#include "kvtps.h"

namespace kvtps::detail {

class LprSession {
public:
    enum class Result { NeedMore, StepComplete, Error };

    explicit LprSession(bool storeData);

    // Bytes read from the connection.  In the data phase they go straight to
    // the data; before it, they wait for Parse.
    void Receive(const char *bytes, size_t size);
    // Bytes read after the server stopped answering (silent, nak): counted only.
    void Ignore(size_t size);

    // Consumes waiting bytes up to the end of the current step.  StepComplete:
    // the step (step()) is whole and its ack is due; Error: error() says why.
    // Parse must not be called again until Acknowledged.
    Result Parse();
    // The ack of the current step has been sent: on to the next step.  After
    // ack 4, bytes already waiting are the first of the data.
    void Acknowledged();

    int step() const { return step_; }
    bool inData() const { return step_ == 5; }
    size_t waitingBytes() const { return pending_.size(); }
    const std::string &error() const { return error_; }
    LprJob &job() { return job_; }

private:
    Result ParseCommandLine();
    Result ParseControlFile();
    Result Fail(std::string message);
    void Consume(size_t size);
    void AddData(const char *bytes, size_t size);

    bool storeData_;
    int step_ = 1;
    std::string pending_;     // received, not yet consumed (before the data)
    size_t scanned_ = 0;      // bytes of pending_ already searched for 0x0A
    std::string error_;
    LprJob job_;
};

}  // namespace kvtps::detail
