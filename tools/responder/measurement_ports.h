// The sockets on which probes arrive: one for each address and port, open as long as a session
// holds it.

#ifndef IPSLA_TOOLS_RESPONDER_MEASUREMENT_PORTS_H_
#define IPSLA_TOOLS_RESPONDER_MEASUREMENT_PORTS_H_

#include <cstddef>
#include <cstdint>
#include <map>

#include "responder/control_desk.h"
#include "responder/udp_socket.h"

namespace ipsla::responder {

/// An open measurement port.
struct MeasurementSocket {
  Descriptor socket;
  Endpoint local;
  std::size_t sessions = 0;   ///< that hold it
  std::uint32_t dropped = 0;  ///< by the kernel, as far as it is counted
};

/// Single-threaded. A port that cannot be opened, for whatever reason, costs its session and
/// nothing else.
class MeasurementPorts : public Ports {
 public:
  /// Ports from `lowest` to `highest` are opened. Their sockets are registered with the epoll
  /// instance `poll`, with a pointer to the MeasurementSocket as its data.
  MeasurementPorts(std::uint16_t lowest, std::uint16_t highest, int poll)
      : lowest_(lowest), highest_(highest), poll_(poll) {}

  [[nodiscard]] SlaControlStatus Hold(const Endpoint& local) override;
  /// The highest free port of the range.
  [[nodiscard]] SlaControlStatus HoldAny(Endpoint* local) override;
  /// Closes the socket, and with it what points there, after the last session.
  void Release(const Endpoint& local) override;

 private:
  // By address and port.
  using Sockets = std::map<Endpoint, MeasurementSocket>;

  int Open(const Endpoint& local);

  // The range, both included, and who watches the sockets.
  const std::uint16_t lowest_;
  const std::uint16_t highest_;
  const int poll_;
  // Those that somebody holds.
  Sockets sockets_;
};

}  // namespace ipsla::responder

#endif  // IPSLA_TOOLS_RESPONDER_MEASUREMENT_PORTS_H_
