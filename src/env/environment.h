// The daemon's place in the operating system: privileges, CPUs, network namespaces (VRFs),
// interfaces, socket options.

#ifndef IPSLA_ENV_ENVIRONMENT_H_
#define IPSLA_ENV_ENVIRONMENT_H_

#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

struct cJSON;

namespace ipsla {

/// The name under which the daemon's own network namespace is registered (see ip-netns(8)), and the
/// key under which tables hold the VRF of a task that names none.
inline constexpr const char* kDefaultVrf = "1";

/// `vrf`, or "1" when it is empty: the key of that VRF in every table.
[[nodiscard]] std::string VrfKey(const std::string& vrf);

/// 1 when the real user id is 0, else -1.
[[nodiscard]] int CheckRootPriv();

/// Pins `thread` to `cpu`. 0, or -1 after logging "set thread affinity failed".
int SetCpuNum(pthread_t thread, std::uint8_t cpu);

/// The stack of every thread of the daemon: 131072 bytes rounded up to whole pages (more in a
/// sanitizer build, whose instrumented frames and thread-local storage do not fit).
[[nodiscard]] std::size_t ThreadStackBytes();

/// Moves the calling thread into the network namespace registered as `name` below "/var/run/netns/"
/// (setns(2)). Throws std::runtime_error. Prefer NetworkNamespaceScope: a thread must never be left
/// in a VRF.
void SetNetworkNamespace(const std::string& name);

/// Runs the rest of a block in the VRF `name`; an empty name means the daemon's own namespace and
/// does nothing.
///
/// Leave() returns to the namespace registered as "1". When that fails the thread returns through a
/// descriptor of the namespace it came from, so it is back in any case, and Leave() throws what
/// SetNetworkNamespace threw. A scope that ends without Leave() (an exception on the way) returns
/// in the same manner but silently. Threads: affects the calling thread only; create and end it on
/// one thread.
class NetworkNamespaceScope {
 public:
  /// Enters. Throws std::runtime_error and leaves the thread where it was.
  explicit NetworkNamespaceScope(const std::string& name);
  ~NetworkNamespaceScope();
  NetworkNamespaceScope(const NetworkNamespaceScope&) = delete;
  NetworkNamespaceScope& operator=(const NetworkNamespaceScope&) = delete;

  /// Returns now; a second call does nothing.
  void Leave();

 private:
  int origin_ =
      -1;  // descriptor of the namespace the thread came from, -1 when there is nothing to leave
};

/// What GetIfaceData found out about a source interface.
struct InterfaceAddress {
  sockaddr_in address{};  ///< its IPv4 address, all zero when it has none
  std::uint32_t index =
      0;  ///< if_nametoindex(3); 0 when there is no such interface or nothing was looked up
  std::string name;  ///< the configured name
};

/// Status values of GetIfaceData.
enum : std::int32_t {
  kInterfaceFound = 0,
  kInterfaceEnvironmentFailed = 1,
  kInterfaceNotConfigured = 2
};

/// Looks up the phase object's "src-interface" inside `vrf` (empty: the daemon's namespace). Never
/// throws. `status`: 0 the lookup ran (an unknown interface gives index 0 and a zero address), 1
/// the environment failed (logged), 2 the phase has no usable "src-interface" (logged).
[[nodiscard]] InterfaceAddress GetIfaceData(const std::string& vrf, const cJSON* phase,
                                            std::int32_t* status);

/// setsockopt(2). Throws std::runtime_error "Failed to set sockoption <name>: %m" ("%m" stays as it
/// is).
int SetSockOpt(int fd, int level, int option, const void* value, socklen_t length,
               const std::string& name);

/// Asks the kernel to stamp every datagram of this socket when it arrives (SO_TIMESTAMPNS,
/// socket(7)). Best effort: without it ReceiveStamped reads the clock.
void EnableReceiveStamps(int fd);

/// Makes room in the socket's receive buffer for `datagrams` of `bytes` each, so that replies that
/// arrive while the test's thread is busy are not lost and then counted as lost. Best effort, at
/// most 8 MiB; never shrinks the buffer.
void ReserveReceiveBuffer(int fd, std::size_t datagrams, std::size_t bytes);

/// One datagram taken by ReceiveStamped.
struct StampedDatagram {
  std::size_t bytes = 0;  ///< bytes stored in the buffer (a longer datagram is cut)
  timespec arrival{};  ///< real-time clock at arrival: the kernel's stamp, or the clock read after
                       ///< receiving
  sockaddr_in source{};  ///< where it came from, for IPv4 sockets
};

/// Receives one datagram without waiting (recvmsg(2)). Nothing when there is none or on an error;
/// `error` is then the errno value (EAGAIN: nothing there), else 0. Repeats EINTR.
[[nodiscard]] std::optional<StampedDatagram> ReceiveStamped(int fd, void* buffer, std::size_t size,
                                                            int* error);

}  // namespace ipsla

#endif  // IPSLA_ENV_ENVIRONMENT_H_
