// The responder: one control socket, one socket per measurement address and port, one loop.

#ifndef IPSLA_TOOLS_RESPONDER_RESPONDER_H_
#define IPSLA_TOOLS_RESPONDER_RESPONDER_H_

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "responder/request_check.h"
#include "responder/session_table.h"
#include "responder/udp_socket.h"

namespace ipsla::responder {

struct ResponderOptions {
  in_addr bind{};  ///< 0.0.0.0: every address of the host
  std::uint16_t control_port = 50000;
  std::uint16_t lowest_port = 1024;  ///< measurement ports, both included
  std::uint16_t highest_port = 65535;
  std::size_t max_sessions = 4096;
  bool verbose = false;
  AuthPolicy policy;
};

/// Answers requests and probes until it is stopped.
///
/// Output: one line per ended session through `print`, and with `verbose` one per request.
/// Threads: all of it on one thread, but for Stop and Reload, which may also be called from signal
/// handlers.
class Responder {
 public:
  using Print = std::function<void(const std::string& line)>;

  /// Opens the control socket. Throws std::system_error.
  Responder(ResponderOptions options, Print print);

  /// Prints "listening on ADDRESS:PORT" and serves until Stop. A reload asks `load` for the new
  /// keys; nothing keeps the old ones.
  void Run(const std::function<std::optional<AuthPolicy>()>& load);

  /// Has Run end its sessions and return.
  void Stop() { Wake(kStop); }

  /// Has Run load the keys anew.
  void Reload() { Wake(kReload); }

  /// The port of the control socket (of the system's choice when 0 was asked for).
  [[nodiscard]] std::uint16_t ControlPort() const { return control_port_; }

 private:
  // A socket on which sessions receive their probes, open as long as there is one.
  struct MeasurementSocket {
    Descriptor socket;
    std::size_t sessions = 0;
  };
  using Sockets = std::map<Endpoint, MeasurementSocket>;

  // What the eventfd's counter holds: reload requests in the lower half, stop requests in the
  // upper.
  static constexpr std::uint64_t kReload = 1;
  static constexpr std::uint64_t kStop = std::uint64_t{1} << 32U;

  void Wake(std::uint64_t what) const;
  void Watch(int fd) const;
  [[nodiscard]] int TimeoutMs() const;
  [[nodiscard]] bool IsOurs(in_addr address) const;

  void ReceiveRequests();
  void HandleRequest(const ReceivedRequest& request);
  std::optional<Session> OpenSession(const ReceivedRequest& request, CheckedRequest* checked);
  std::uint16_t ChoosePort(const SessionKey& key, SlaControlStatus* fault);
  MeasurementSocket* SocketFor(const SessionKey& key, SlaControlStatus* fault);
  void ReceiveProbes(int fd);
  void Close(const Session& session, const std::string& reason);

  const ResponderOptions options_;
  const Print print_;
  AuthPolicy policy_;
  Descriptor poll_;
  Descriptor wake_;
  Descriptor control_;
  std::uint16_t control_port_ = 0;
  SessionTable sessions_;
  Sockets sockets_;
  std::map<int, Endpoint> endpoints_;  // of the measurement sockets by descriptor
  std::vector<std::uint8_t> buffer_;
  std::uint64_t ignored_requests_ = 0;  // never answered
  std::uint64_t refused_requests_ = 0;  // answered with a fault
  std::uint64_t stray_probes_ = 0;      // of no session
};

}  // namespace ipsla::responder

#endif  // IPSLA_TOOLS_RESPONDER_RESPONDER_H_
