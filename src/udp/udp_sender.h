// UDP tests: "udp-echo", "udp-jitter" and "udp-jitter-ntp". Each run first agrees with the
// responder on a session in a control phase, then sends its probes to the port that the responder
// named.

#ifndef IPSLA_UDP_UDP_SENDER_H_
#define IPSLA_UDP_UDP_SENDER_H_

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/udp.hpp>
#include <boost/system/error_code.hpp>

#include "log/error_limiter.h"
#include "sender/sender.h"
#include "udp/control_phase_message.h"

namespace ipsla {

/// One UDP test. Threads, locks and lifetime: see Sender.
///
/// A run: StartTest opens both sockets and calls ControlPhase, which sends the request and waits.
/// The response (ControlResponse) either starts the measurement or fails the run; so do a refusal
/// and the control time-out. Probes go out from SendPacket, replies come in through ReceivePacket,
/// and the last reply or TestStop ends the run.
class UdpSender final : public Sender {
 public:
  /// Builds the control request, fetches the key and prepares the probe. Throws std::runtime_error
  /// "Unknown UDP sla sender type" or "Get auth key failed for test <id>", and what Sender's
  /// constructor throws. Use CreateSender.
  UdpSender(boost::asio::io_context& worker, const SlaTaskConfig& task,
            const SenderContext& context);

 private:
  using Socket = boost::asio::ip::udp::socket;
  using Endpoint = boost::asio::ip::udp::endpoint;

  // Ends a control phase that was not answered.
  static const TimerHandler kControlPhaseTimer;
  // SendNextProbe and TakeReply.
  static const ProbeCalls kCalls;

  void StartTest() override IPSLA_REQUIRES(mutex_);
  void CalcTestMetric() override IPSLA_UNCHECKED_LOCKING;
  [[nodiscard]] SlaTaskMetrics GetMetrics(const std::list<SlaTaskMetrics>& history) const override;
  void CloseSockets() override IPSLA_REQUIRES(mutex_);

  // Steps of a start.
  void OpenSockets() IPSLA_REQUIRES(mutex_);
  void BindSockets() IPSLA_REQUIRES(mutex_);

  // Control phase (udp_control_phase.cpp).
  void ControlPhase() IPSLA_REQUIRES(mutex_);
  [[nodiscard]] std::string CurrentKey() const IPSLA_REQUIRES(mutex_);
  void ArmControlReceive() IPSLA_REQUIRES(mutex_);
  void ControlResponse(const boost::system::error_code& error, RunNumber run)
      IPSLA_EXCLUDES(mutex_);
  [[nodiscard]] bool TakeControlResponse() IPSLA_REQUIRES(mutex_);
  void HandleResponse() IPSLA_REQUIRES(mutex_);
  void StartMeasurement(const ControlPhaseMessage& response) IPSLA_REQUIRES(mutex_);
  void RejectResponse(const ControlPhaseMessage& response) IPSLA_REQUIRES(mutex_);
  void ControlReceiveFailed(const boost::system::error_code& error) IPSLA_REQUIRES(mutex_);
  void AbortControlPhase() IPSLA_REQUIRES(mutex_);
  void FailControlPhase(ErrorKind kind, const std::string& reason) IPSLA_REQUIRES(mutex_);

  // Measurement.
  [[nodiscard]] SendOutcome SendNextProbe() IPSLA_REQUIRES(mutex_);
  [[nodiscard]] bool TakeReply(const StampedDatagram& datagram) IPSLA_REQUIRES(mutex_);

  // Constant.
  const Endpoint control_destination_;
  const std::uint32_t duration_ms_;  // of a session, agreed with the responder

  // Open during the control phase.
  Socket control_socket_ IPSLA_GUARDED_BY(mutex_);
  sockaddr_in measurement_destination_ IPSLA_GUARDED_BY(mutex_){};  // port: from the response
  // Nonce and digest are those of the last control phase.
  ControlPhaseMessage request_ IPSLA_GUARDED_BY(mutex_);
  ControlMessageBytes response_ IPSLA_GUARDED_BY(mutex_){};  // zeroed at the start of each run
  // Of the responder, in this run. It goes with metrics_.
  std::uint32_t highest_counter_ IPSLA_GUARDED_BY(mutex_) = 0;
};

}  // namespace ipsla

#endif  // IPSLA_UDP_UDP_SENDER_H_
