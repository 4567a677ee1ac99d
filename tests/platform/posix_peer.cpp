#include "posix_peer.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace peer {

namespace {
bool Wait(int fd, int timeoutMs) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, timeoutMs) == 1;
}
}  // namespace

int Listen(const char *ip, uint16_t port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int on = 1, small = 4096;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(port);
    inet_pton(AF_INET, ip, &sin.sin_addr);
    if (bind(fd, reinterpret_cast<sockaddr *>(&sin), sizeof sin) != 0 || listen(fd, 8) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int Accept(int listener, int timeoutMs, std::string *fromIp) {
    if (!Wait(listener, timeoutMs)) return -1;
    sockaddr_in sin{};
    socklen_t length = sizeof sin;
    int fd = accept4(listener, reinterpret_cast<sockaddr *>(&sin), &length, SOCK_CLOEXEC);
    if (fd >= 0 && fromIp != nullptr) {
        char text[INET_ADDRSTRLEN];
        *fromIp = inet_ntop(AF_INET, &sin.sin_addr, text, sizeof text);
    }
    return fd;
}

long Send(int fd, const void *data, size_t length) { return send(fd, data, length, MSG_NOSIGNAL); }

long Receive(int fd, void *buffer, size_t length, int timeoutMs) {
    if (!Wait(fd, timeoutMs)) return -1;
    return recv(fd, buffer, length, 0);
}

void Close(int fd) { close(fd); }

void Abort(int fd) {
    linger l{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
    close(fd);
}

std::string SystemHostName() {
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    return name;
}

std::string Interfaces() {
    std::string names;
    struct if_nameindex *list = if_nameindex();
    for (struct if_nameindex *i = list; i != nullptr && i->if_index != 0; ++i)
        names += std::string(names.empty() ? "" : " ") + i->if_name;
    if (list != nullptr) if_freenameindex(list);
    return names;
}

}  // namespace peer
