#include "lpr_session.h"

#include <algorithm>
#include <cstdio>

namespace kvtps::detail {
namespace {

constexpr char kAbortJob = 0x01;
constexpr char kReceiveJob = 0x02;       // the first command, and the control file's subcommand
constexpr char kReceiveDataFile = 0x03;

std::string ByteName(unsigned char byte) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02X", byte);
    return text;
}

// "<digits> <name>" of a file's subcommand: a decimal count (at most maxDigits
// digits, no sign, no spaces around it), one space, a non-empty name.
bool SplitCountAndName(const std::string &body, size_t maxDigits, std::string *count,
                       std::string *name) {
    size_t space = body.find(' ');
    if (space == std::string::npos || space == 0 || space > maxDigits) return false;
    for (size_t i = 0; i < space; ++i) {
        if (body[i] < '0' || body[i] > '9') return false;
    }
    *count = body.substr(0, space);
    *name = body.substr(space + 1);
    return !name->empty();
}

}  // namespace

LprSession::LprSession(bool storeData) : storeData_(storeData) {}

bool LprSession::inData() const {
    return state_ == State::ToClose || (state_ == State::DataFile && remaining_ > 0);
}

// The monitor's exchange: the job's first data file, after the whole control
// file, whose count is not honoured (the client closes before count bytes and
// 0x00 have come, or sends another byte than 0x00 after them).  Its data runs
// until the close, which completes the job.
bool LprSession::RunsToClose() const {
    return state_ == State::DataFile && control_ && job_.dataFiles.size() == 1;
}

void LprSession::Receive(const char *bytes, size_t size) {
    job_.totalBytes += size;
    if (state_ == State::Aborted) {
        job_.ignoredBytes += size;
        return;
    }
    const size_t taken = TakeData(bytes, size);
    pending_.append(bytes + taken, size - taken);
}

void LprSession::Ignore(size_t size) {
    job_.totalBytes += size;
    job_.ignoredBytes += size;
}

// Takes what belongs to the current data file; returns how many bytes.
size_t LprSession::TakeData(const char *bytes, size_t size) {
    if (!inData()) return 0;
    if (state_ == State::DataFile) {
        size = static_cast<size_t>(std::min<uint64_t>(size, remaining_));
        remaining_ -= size;
    }
    job_.dataBytes += size;
    job_.dataFiles.back().length += size;
    job_.dataChecksum = Fnv1a64(bytes, size, job_.dataChecksum);
    if (storeData_) job_.data.append(bytes, size);
    return size;
}

// Bytes sent ahead of an ack that are already a data file's.
void LprSession::TakeWaitingData() {
    if (pending_.empty() || !inData()) return;
    std::string early;
    early.swap(pending_);
    pending_.assign(early, TakeData(early.data(), early.size()));
}

void LprSession::Consume(size_t size) {
    job_.header.append(pending_, 0, size);
    pending_.erase(0, size);
    scanned_ = 0;
}

LprSession::Result LprSession::Fail(std::string message) {
    error_ = "step " + std::to_string(step()) + ": " + message;
    return Result::Error;
}

LprSession::Result LprSession::Complete(State next) {
    next_ = next;
    awaitingAck_ = true;
    return Result::StepComplete;
}

LprSession::Result LprSession::Parse() {
    switch (state_) {
    case State::ReceiveJob:
    case State::Subcommand: return ParseCommandLine();
    case State::ControlFile: return ParseControlFile();
    case State::DataFile: return inData() ? Result::NeedMore : EndDataFile();
    case State::ToClose:
    case State::Aborted: break;
    }
    return Result::NeedMore;
}

LprSession::Result LprSession::ParseCommandLine() {
    if (pending_.empty()) return Result::NeedMore;
    // The leading byte says at once whether this is a command we take; no
    // need to wait for the rest of a line that cannot be accepted.
    const char first = pending_[0];
    const char *expected = nullptr;
    if (state_ == State::ReceiveJob) {
        if (first != kReceiveJob) expected = "0x02";
    } else if (first == kReceiveJob && control_) {
        expected = "0x03";  // one control file per job
    } else if (first != kAbortJob && first != kReceiveJob && first != kReceiveDataFile) {
        expected = control_ ? "0x03" : "0x02 or 0x03";
    }
    if (expected) {
        return Fail(std::string("expected ") + expected + ", got " +
                    ByteName(static_cast<unsigned char>(first)));
    }
    size_t end = pending_.find('\n', scanned_);
    if (end == std::string::npos) {
        scanned_ = pending_.size();
        if (pending_.size() > kMaxCommandLine) {
            return Fail("no line end within " + std::to_string(kMaxCommandLine) + " bytes");
        }
        return Result::NeedMore;
    }
    if (end + 1 > kMaxCommandLine) {
        return Fail("line longer than " + std::to_string(kMaxCommandLine) + " bytes");
    }
    std::string line = pending_.substr(0, end + 1);
    Consume(end + 1);
    if (state_ == State::ReceiveJob) {
        job_.queue = line.substr(1, line.size() - 2);  // may be empty: the monitor sends the queue name it has
        return Complete(State::Subcommand);
    }
    return ParseSubcommand(line);
}

LprSession::Result LprSession::ParseSubcommand(const std::string &line) {
    if (line[0] == kAbortJob) return Complete(State::Aborted);
    const std::string body = line.substr(1, line.size() - 2);
    std::string count, name;
    if (line[0] == kReceiveJob) {
        job_.controlCommand = line;
        // Seven digits are more than the limit needs, and few enough to convert.
        if (!SplitCountAndName(body, 7, &count, &name)) {
            return Fail("malformed control file command");
        }
        size_t length = std::stoul(count);
        job_.controlLength = length;
        job_.controlFileName = name;
        if (length == 0) return Fail("control file length 0");
        if (length > kMaxControlFileLength) {
            return Fail("control file length " + count + " exceeds the limit of " +
                        std::to_string(kMaxControlFileLength));
        }
        return Complete(State::ControlFile);
    }
    const bool first = job_.dataCommand.empty();
    if (first) job_.dataCommand = line;
    // Nineteen digits always fit 64 bits.
    if (!SplitCountAndName(body, 19, &count, &name)) {
        return Fail("malformed data file command");
    }
    if (first) {
        job_.dataLength = count;
        job_.dataFileName = name;
    }
    job_.dataFiles.push_back({name, 0});
    count_ = std::stoull(count);
    return Complete(State::DataFile);
}

// The control file is L+1 bytes: (the monitor's 0x02,) lines ending in 0x0A,
// then 0x00 (which L does not count).
LprSession::Result LprSession::ParseControlFile() {
    const size_t size = job_.controlLength + 1;
    if (pending_.size() < size) return Result::NeedMore;
    job_.controlFile = pending_.substr(0, size);
    Consume(size);
    const std::string &file = job_.controlFile;
    // The monitor's control file begins with 0x02; another client's begins with
    // its first line (RFC 1179), which is a command letter, never a control byte.
    const bool monitors = file[0] == kReceiveJob;
    if (!monitors && static_cast<unsigned char>(file[0]) < 0x20) {
        return Fail("control file begins with " +
                    ByteName(static_cast<unsigned char>(file[0])) + ", neither 0x02 nor a line");
    }
    if (file[size - 1] != '\0') {
        return Fail("control file ends with " +
                    ByteName(static_cast<unsigned char>(file[size - 1])) + ", not 0x00");
    }
    size_t start = monitors ? 1 : 0;
    const size_t end = size - 1;
    while (start < end) {
        size_t newline = file.find('\n', start);
        if (newline == std::string::npos || newline >= end) {
            // A last line without its 0x0A: kept, since the bytes are all there.
            job_.controlLines.push_back(file.substr(start, end - start));
            break;
        }
        job_.controlLines.push_back(file.substr(start, newline - start));
        start = newline + 1;
    }
    control_ = true;
    return Complete(State::Subcommand);
}

// A data file's count of bytes has come: a 0x00 ends it, anything else makes
// it the monitor's data that runs to the close (or, where that cannot be, an
// error).
LprSession::Result LprSession::EndDataFile() {
    if (pending_.empty()) return Result::NeedMore;
    if (pending_[0] == '\0') {
        Consume(1);
        ++wholeDataFiles_;
        return Complete(State::Subcommand);
    }
    if (!RunsToClose()) {
        return Fail("data file " + job_.dataFiles.back().name + " ends with " +
                    ByteName(static_cast<unsigned char>(pending_[0])) + ", not 0x00");
    }
    state_ = State::ToClose;
    TakeWaitingData();
    return Result::NeedMore;
}

void LprSession::Acknowledged() {
    ++job_.acks;
    awaitingAck_ = false;
    state_ = next_;
    scanned_ = 0;
    if (state_ == State::DataFile) {
        remaining_ = count_;
        TakeWaitingData();
    }
}

LprOutcome LprSession::AtClose(std::string *why) const {
    if (state_ == State::Aborted) {
        *why = "the client aborted the job (subcommand 0x01)";
        return LprOutcome::Aborted;
    }
    const bool between = !awaitingAck_ && pending_.empty();
    if (between && (state_ == State::ToClose || RunsToClose() ||
                    (state_ == State::Subcommand && control_ && wholeDataFiles_ > 0))) {
        return LprOutcome::Completed;
    }
    *why = "the client closed the connection in step " + std::to_string(step());
    return LprOutcome::ClientClosed;
}

}  // namespace kvtps::detail
