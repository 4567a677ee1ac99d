#include "lpr_session.h"

#include <cstdio>

namespace kvtps::detail {
namespace {

constexpr char kReceiveJob = 0x02;      // step 1, and step 2's subcommand
constexpr char kReceiveDataFile = 0x03;  // step 4's subcommand

std::string ByteName(unsigned char byte) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02X", byte);
    return text;
}

// "<digits> <name>" of steps 2 and 4: a decimal count (at most maxDigits
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

void LprSession::Receive(const char *bytes, size_t size) {
    job_.totalBytes += size;
    if (inData()) {
        AddData(bytes, size);
    } else {
        pending_.append(bytes, size);
    }
}

void LprSession::Ignore(size_t size) {
    job_.totalBytes += size;
    job_.ignoredBytes += size;
}

void LprSession::AddData(const char *bytes, size_t size) {
    job_.dataBytes += size;
    job_.dataChecksum = Fnv1a64(bytes, size, job_.dataChecksum);
    if (storeData_) job_.data.append(bytes, size);
}

void LprSession::Consume(size_t size) {
    job_.header.append(pending_, 0, size);
    pending_.erase(0, size);
    scanned_ = 0;
}

LprSession::Result LprSession::Fail(std::string message) {
    error_ = "step " + std::to_string(step_) + ": " + message;
    return Result::Error;
}

LprSession::Result LprSession::Parse() {
    if (inData()) return Result::NeedMore;
    return step_ == 3 ? ParseControlFile() : ParseCommandLine();
}

LprSession::Result LprSession::ParseCommandLine() {
    if (pending_.empty()) return Result::NeedMore;
    // The leading byte says at once whether this is the command we wait for;
    // no need to wait for the rest of a line that cannot be accepted.
    const char expected = step_ == 4 ? kReceiveDataFile : kReceiveJob;
    if (pending_[0] != expected) {
        return Fail("expected " + ByteName(expected) + ", got " +
                    ByteName(static_cast<unsigned char>(pending_[0])));
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
    std::string body = line.substr(1, line.size() - 2);

    if (step_ == 1) {
        job_.queue = body;  // may be empty: the monitor sends the queue name it has
        return Result::StepComplete;
    }
    std::string count, name;
    if (step_ == 2) {
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
        return Result::StepComplete;
    }
    job_.dataCommand = line;
    if (!SplitCountAndName(body, 19, &count, &name)) {
        return Fail("malformed data file command");
    }
    job_.dataLength = count;
    job_.dataFileName = name;
    return Result::StepComplete;
}

// The control file is L+1 bytes: 0x02, lines ending in 0x0A, then 0x00 (which
// L does not count).
LprSession::Result LprSession::ParseControlFile() {
    const size_t size = job_.controlLength + 1;
    if (pending_.size() < size) return Result::NeedMore;
    job_.controlFile = pending_.substr(0, size);
    Consume(size);
    const std::string &file = job_.controlFile;
    if (file[0] != kReceiveJob) {
        return Fail("control file begins with " +
                    ByteName(static_cast<unsigned char>(file[0])) + ", not 0x02");
    }
    if (file[size - 1] != '\0') {
        return Fail("control file ends with " +
                    ByteName(static_cast<unsigned char>(file[size - 1])) + ", not 0x00");
    }
    size_t start = 1;
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
    return Result::StepComplete;
}

void LprSession::Acknowledged() {
    ++job_.acks;
    ++step_;
    if (inData() && !pending_.empty()) {
        // Sent ahead of ack 4: already the data.
        std::string early;
        early.swap(pending_);
        AddData(early.data(), early.size());
    }
    scanned_ = 0;
}

}  // namespace kvtps::detail
