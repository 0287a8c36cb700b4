// Options of the measurement sockets.

#ifndef IPSLA_ENV_SOCKET_OPTIONS_H_
#define IPSLA_ENV_SOCKET_OPTIONS_H_

#include <sys/socket.h>

#include <cstddef>
#include <string>

namespace ipsla {

/// setsockopt(2). Throws std::runtime_error "Failed to set sockoption <name>: %m" ("%m" stays as it
/// is).
int SetSockOpt(int fd, int level, int option, const void* value, socklen_t length,
               const std::string& name);

/// Makes room in the socket's receive buffer for `datagrams` of `bytes` each, so that replies that
/// arrive while the test's thread is busy are not lost and then counted as lost. Best effort, at
/// most 8 MiB; never shrinks the buffer.
void ReserveReceiveBuffer(int fd, std::size_t datagrams, std::size_t bytes);

}  // namespace ipsla

#endif  // IPSLA_ENV_SOCKET_OPTIONS_H_
