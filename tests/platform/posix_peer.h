// The far end of the Winsock tests: plain POSIX sockets, as a print server on
// the private network would hold them.  Plain types only, so that the tests,
// which see Winsock's headers, can use it.  Ports in host byte order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace peer {

// A listening TCP socket on ip:port with a small receive buffer; -1 on failure.
int Listen(const char *ip, uint16_t port);
// Accepts within timeoutMs; -1 otherwise.  *fromIp gets the client's address.
int Accept(int listener, int timeoutMs, std::string *fromIp = nullptr);
long Send(int fd, const void *data, size_t length);
// Receives within timeoutMs; -1 when nothing came.
long Receive(int fd, void *buffer, size_t length, int timeoutMs);
void Close(int fd);
// Closes with a reset (SO_LINGER 0) instead of an orderly end.
void Abort(int fd);
std::string SystemHostName();
// The names of the network interfaces this process sees.
std::string Interfaces();

}  // namespace peer
