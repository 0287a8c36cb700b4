// Which descriptors the process's event loops look at.

#ifndef IPSLA_TESTS_UNIT_SUPPORT_WATCHED_SOCKETS_H_
#define IPSLA_TESTS_UNIT_SUPPORT_WATCHED_SOCKETS_H_

#include <cstddef>

namespace ipsla::test {

/// How many sockets the epoll descriptors of this process watch (proc(5), "fdinfo"), pairs of local
/// sockets included.
[[nodiscard]] std::size_t WatchedSockets();

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SUPPORT_WATCHED_SOCKETS_H_
