// What the emulator's tests share: its servers, the steps of a job, and a plain
// LPR client on the private network's loopback.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "emulated.h"

namespace kvtps_test {

constexpr int kPatienceMs = 10000;  // only a broken server makes a test wait this long

template <size_t N>
std::string Raw(const char (&text)[N]) {  // a literal's bytes, zeros included
    return std::string(text, N - 1);
}

// The four header steps of a usual job.  (Built by appending: "literal" +
// std::string&& trips a false -Wrestrict in GCC 12 at -O2.)
inline std::vector<std::string> JobSteps(const std::string &queue = "lp") {
    std::string q = "\x02", cf = Raw("\x02Hguest\nJreport\nNreport\nHpc1\n\x00"), c = "\x02";
    return {q.append(queue).append("\n"), c.append("29 cfA007pc1\n"), cf,
            "\x03" "2147483647 dfA007pc1\n"};
}

using kvttest::Eventually;
using kvttest::Server;

inline std::string Pattern(size_t size, uint32_t seed = 1) {
    std::string bytes(size, '\0');
    for (auto &b : bytes) b = static_cast<char>((seed = seed * 1664525u + 1013904223u) >> 24);
    return bytes;
}

class LprClient {
public:
    static constexpr int kClosed = -1, kNoAnswer = -2;
    ~LprClient() { Close(); }

    int Connect(const std::string &address, uint16_t port = 515) {  // 0 or the errno
        Close();
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        int on = 1;
        setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        inet_pton(AF_INET, address.c_str(), &a.sin_addr);
        if (connect(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0) return 0;
        int error = errno;
        Close();
        return error;
    }
    bool Send(const std::string &bytes) {
        for (size_t done = 0; done < bytes.size();) {
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
        return recv(fd_, &byte, 1, 0) == 1 ? byte : kClosed;
    }
    void SendSteps(const std::vector<std::string> &steps) {  // each acked with 0x00
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

// A client's whole exchange: steps each acked, then tail, then the close.
inline void SendJob(const std::vector<std::string> &steps, const std::string &tail = "",
                    const std::string &address = "127.0.0.2", uint16_t port = 515) {
    LprClient client;
    ASSERT_EQ(client.Connect(address, port), 0);
    client.SendSteps(steps);
    ASSERT_TRUE(client.Send(tail));
}


inline std::string Join(const std::vector<std::string> &parts) {
    std::string all;
    for (const auto &p : parts) all += p;
    return all;
}

}  // namespace kvtps_test
