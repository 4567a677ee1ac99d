// The server's side of one LPR receive-job exchange, without the socket: bytes
// go in as they arrive, in any fragmentation; the session says when a step is
// complete (its ack is due) or the bytes cannot be accepted.  The server
// decides what to answer and tells the session when an ack went out.
//
// After 0x02 queue 0x0A the client sends subcommands in any order, each line
// and each file acknowledged: 0x02 count name (the control file, count bytes
// and 0x00), 0x03 count name (a data file, the same), 0x01 (abort the job).
// The monitor's own exchange sends the control file, then one data file whose
// count it never honours: the data runs until it closes the connection.  A
// session tells the two apart by what arrives (see RunsToClose).
#pragma once

#include <string>

#include "kvtps.h"

namespace kvtps::detail {

class LprSession {
public:
    enum class Result { NeedMore, StepComplete, Error };

    explicit LprSession(bool storeData);

    // Bytes read from the connection.  Inside a data file they go straight to
    // the data; otherwise they wait for Parse.  After an abort they are
    // counted only.
    void Receive(const char *bytes, size_t size);
    // Bytes read after the server stopped answering (silent, nak): counted only.
    void Ignore(size_t size);

    // Consumes waiting bytes up to the end of the current step.  StepComplete:
    // the step (step()) is whole and its ack is due; Error: error() says why.
    // Parse must not be called again until Acknowledged.
    Result Parse();
    // The ack of the current step has been sent: on to the next step.  Bytes
    // already waiting may be the first of a data file.
    void Acknowledged();
    // How the job ends when the client closes the connection now: Completed,
    // Aborted or ClientClosed, with *why for the last two.
    LprOutcome AtClose(std::string *why) const;

    // The step the exchange is in: the number of the ack it waits for.
    int step() const { return job_.acks + 1; }
    // Bytes that arrive now are a data file's.
    bool inData() const;
    size_t waitingBytes() const { return pending_.size(); }
    const std::string &error() const { return error_; }
    LprJob &job() { return job_; }

private:
    enum class State { ReceiveJob, Subcommand, ControlFile, DataFile, ToClose, Aborted };

    Result ParseCommandLine();
    Result ParseSubcommand(const std::string &line);
    Result ParseControlFile();
    Result EndDataFile();
    bool RunsToClose() const;
    Result Fail(std::string message);
    Result Complete(State next);
    void Consume(size_t size);
    size_t TakeData(const char *bytes, size_t size);
    void TakeWaitingData();

    bool storeData_;
    State state_ = State::ReceiveJob;
    State next_ = State::ReceiveJob;  // the state after the ack that is due
    bool awaitingAck_ = false;
    bool control_ = false;            // a whole control file has come
    size_t wholeDataFiles_ = 0;       // data files that came with their 0x00
    uint64_t count_ = 0;              // the count of the data file announced last
    uint64_t remaining_ = 0;          // bytes of the current data file still to come
    std::string pending_;     // received, not yet consumed (outside a data file)
    size_t scanned_ = 0;      // bytes of pending_ already searched for 0x0A
    std::string error_;
    LprJob job_;
};

}  // namespace kvtps::detail
