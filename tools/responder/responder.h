// The responder's loop: one control socket, one socket for each measurement address and port.

#ifndef IPSLA_TOOLS_RESPONDER_RESPONDER_H_
#define IPSLA_TOOLS_RESPONDER_RESPONDER_H_

#include <netinet/in.h>
#include <sys/epoll.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "responder/control_desk.h"
#include "responder/local_addresses.h"
#include "responder/measurement_ports.h"
#include "responder/report.h"
#include "responder/udp_socket.h"

namespace ipsla::responder {

/// What the command line asks for.
struct ResponderOptions {
  in_addr bind{};  ///< 0.0.0.0: every address of the host
  std::uint16_t control_port = 50000;
  std::uint16_t lowest_port = 50001;  ///< measurement ports, both included
  std::uint16_t highest_port = 50100;
  SessionLimits limits;
  bool dscp_reflect = true;  ///< replies carry the DSCP of their probes
  bool verbose = false;
  AuthPolicy policy;
};

/// Answers requests and probes until it is stopped.
///
/// Output: one line per ended session through `print`, with `verbose` one per request, and the
/// statistics on demand and at the end.
/// Threads: all of it on one thread, but for Stop, Reload and PrintStatistics, which may also be
/// called from signal handlers.
class Responder {
 public:
  /// Opens the control socket. Throws std::system_error.
  Responder(ResponderOptions options, Print print);

  /// Prints "listening on ADDRESS:PORT" and serves until Stop. A reload asks `load` for the new
  /// keys; nothing keeps the old ones.
  void Run(const std::function<std::optional<AuthPolicy>()>& load);

  /// Has Run end its sessions and return.
  void Stop() { Wish(kStop); }

  /// Has Run load the keys anew.
  void Reload() { Wish(kReload); }

  /// Has Run print the statistics.
  void PrintStatistics() { Wish(kStatistics); }

  /// The port of the control socket (of the system's choice when 0 was asked for).
  [[nodiscard]] std::uint16_t ControlPort() const { return control_port_; }

 private:
  // Wishes, as bits.
  static constexpr unsigned kReload = 1;
  static constexpr unsigned kStatistics = 2;
  static constexpr unsigned kStop = 4;

  // How the loop is woken, and for how long it sleeps.
  void Wish(unsigned what);
  void Watch(int fd, void* data) const;
  [[nodiscard]] int TimeoutMs();
  [[nodiscard]] bool IsOurs(in_addr address);

  // What it does with what woke it.
  [[nodiscard]] bool HandleEvents(std::span<const epoll_event> events);
  void AnswerRequest();
  void ReceiveProbes(MeasurementSocket* measurement);
  void TellTotals();

  ResponderOptions options_;  // the keys are the desk's
  // In the order in which they need each other.
  Report report_;
  Descriptor poll_;
  Descriptor wake_;
  Descriptor control_;
  std::uint16_t control_port_ = 0;
  LocalAddresses addresses_;
  MeasurementPorts ports_;
  ControlDesk desk_;
  std::vector<std::uint8_t> buffer_;
  std::atomic<unsigned> wishes_{0};
};

}  // namespace ipsla::responder

#endif  // IPSLA_TOOLS_RESPONDER_RESPONDER_H_
