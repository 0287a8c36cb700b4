// The socket that probes leave from and replies come to, for both kinds of test.

#ifndef IPSLA_SENDER_MEASUREMENT_SOCKET_H_
#define IPSLA_SENDER_MEASUREMENT_SOCKET_H_

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>

#include "env/descriptor.h"
#include "env/packet_stamps.h"

namespace ipsla {

/// An IPv4 socket, raw or datagram, on the worker context. Threads: one at a time; its test's mutex
/// is what makes that true. What is set up throws boost::system::system_error naming the operation
/// ("open", "bind", "connect", "close"), or what SetSockOpt throws.
///
/// The context learns of the socket only when something waits for it: until then nothing that
/// happens to it (a datagram, a stamp of departure) wakes a thread.
class MeasurementSocket {
 public:
  explicit MeasurementSocket(boost::asio::io_context& worker) : watched_(worker) {}

  /// Opens it (socket(2)) in the network namespace of the calling thread.
  void Open(int type, int protocol);

  /// Sets time to live, type of service and "may be fragmented".
  void SetSendOptions(int ttl, int type_of_service);

  /// Keeps the traffic to one interface; an empty name does nothing.
  void BindToDevice(const std::string& name);

  /// Has the kernel stamp replies and probes (EnableProbeStamps), and makes room for the replies of
  /// a run of so many probes of `bytes` each.
  void PrepareForReplies(std::size_t probes, std::size_t bytes);

  /// bind(2) and connect(2); address and port in network byte order.
  void Bind(const sockaddr_in& address);
  void Connect(const sockaddr_in& address);

  /// Local port in host order. Throws system_error "local_endpoint".
  [[nodiscard]] std::uint16_t LocalPort();

  /// Closes it, if it is open.
  void Close();

  /// The descriptor, -1 when closed.
  [[nodiscard]] int Fd();

  /// Sends without waiting. 0, or the errno value (EAGAIN: the send buffer is full). `to` may be
  /// null for a connected socket.
  [[nodiscard]] int Send(std::span<const std::uint8_t> bytes, const sockaddr_in* to);

  /// Calls `handler(error_code)` on the worker context once something can be received, or sent.
  /// Throws system_error "assign" when the context cannot watch the socket.
  template <typename Handler>
  void WaitToReceive(Handler&& handler) {
    Watch();
    watched_.async_wait(Watched::wait_read, std::forward<Handler>(handler));
  }
  template <typename Handler>
  void WaitToSend(Handler&& handler) {
    Watch();
    watched_.async_wait(Watched::wait_write, std::forward<Handler>(handler));
  }

 private:
  using Watched = boost::asio::posix::stream_descriptor;

  // Makes the socket known to the worker context, if it is not.
  void Watch();

  // The open socket is the one's until Watch(), then the other's.
  Descriptor unwatched_;
  Watched watched_;
};

}  // namespace ipsla

#endif  // IPSLA_SENDER_MEASUREMENT_SOCKET_H_
