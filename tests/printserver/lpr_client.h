// A plain LPR client for the emulator's tests: blocking TCP on the private
// network's loopback, each answer read with a time-out.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kvtps_test {

// Generous: only a broken server waits this long.
constexpr int kPatienceMs = 10000;

// A literal's bytes, zeros included.
template <size_t N>
std::string Raw(const char (&text)[N]) {
    return std::string(text, N - 1);
}

// The steps of the exchange as the monitor sends them.  (Built by appending:
// "literal" + std::string&& trips a false -Wrestrict in GCC 12 at -O2.)
inline std::string QueueLine(const std::string &queue) {
    std::string line = "\x02";
    return line.append(queue).append("\n");
}
inline std::string ControlFile(const std::vector<std::string> &lines) {
    std::string file = "\x02";
    for (const auto &line : lines) file.append(line).append("\n");
    return file.append(1, '\0');
}
inline std::string ControlLine(const std::string &controlFile, const std::string &name) {
    std::string line = "\x02";
    return line.append(std::to_string(controlFile.size() - 1)).append(" ").append(name).append("\n");
}
inline std::string DataLine(const std::string &name) {
    std::string line = "\x03" "2147483647 ";
    return line.append(name).append("\n");
}

// The four header steps of a usual job, in order.
inline std::vector<std::string> JobSteps(const std::string &queue = "lp") {
    std::string cf = ControlFile({"Hguest", "Jreport", "Nreport", "Hpc1"});
    return {QueueLine(queue), ControlLine(cf, "cfA007pc1"), cf, DataLine("dfA007pc1")};
}

inline std::string Pattern(size_t size, uint32_t seed = 1) {
    std::string bytes(size, '\0');
    uint32_t x = seed;
    for (auto &b : bytes) {
        x = x * 1664525u + 1013904223u;
        b = static_cast<char>(x >> 24);
    }
    return bytes;
}

class LprClient {
public:
    static constexpr int kClosed = -1;
    static constexpr int kNoAnswer = -2;

    ~LprClient() { Close(); }

    // 0 on success, else the errno of the connect.
    int Connect(const std::string &address, uint16_t port = 515) {
        Close();
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        int on = 1;
        setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        inet_pton(AF_INET, address.c_str(), &a.sin_addr);
        if (connect(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
            int error = errno;
            Close();
            return error;
        }
        return 0;
    }

    bool Send(const std::string &bytes) {
        size_t done = 0;
        while (done < bytes.size()) {
            ssize_t n = send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (n <= 0) return false;
            done += static_cast<size_t>(n);
        }
        return true;
    }

    // The server's next byte, kClosed on close or reset, kNoAnswer on time-out.
    int Answer(int timeoutMs = kPatienceMs) {
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, timeoutMs) == 0) return kNoAnswer;
        unsigned char byte;
        ssize_t n = recv(fd_, &byte, 1, 0);
        return n == 1 ? byte : kClosed;
    }

    // Sends each step and expects its 0x00 ack.
    void SendSteps(const std::vector<std::string> &steps) {
        for (size_t i = 0; i < steps.size(); ++i) {
            ASSERT_TRUE(Send(steps[i])) << "step " << i + 1;
            ASSERT_EQ(Answer(), 0) << "ack " << i + 1;
        }
    }

    void Close() {
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
    }
    int fd() const { return fd_; }

private:
    int fd_ = -1;
};

// Polls a condition that a server thread makes true; false after timeoutMs.
inline bool Eventually(const std::function<bool()> &condition, int timeoutMs = kPatienceMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace kvtps_test
