// UDP tests: "udp-echo", "udp-jitter" and "udp-jitter-ntp". Each run first agrees with the
// responder on a session in a control phase, then sends its probes to the port that the responder
// named.

#ifndef IPSLA_UDP_UDP_SENDER_H_
#define IPSLA_UDP_UDP_SENDER_H_

#include <array>
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

  static const TimerHandler kControlPhaseTimer;
  static const TimerHandler kTestStop;

  void StartTest() override;
  void CalcTestMetric() override;
  [[nodiscard]] SlaTaskMetrics GetMetrics(const std::list<SlaTaskMetrics>& history) const override;
  void CloseSockets() override;

  // The run's start; all require mutex_.
  void OpenSockets();
  void BindSockets();

  // Control phase (udp_control_phase.cpp). All require mutex_ except ControlResponse, which takes
  // it.
  void ControlPhase();
  [[nodiscard]] std::string CurrentKey() const;
  void ArmControlReceive();
  void ControlResponse(const boost::system::error_code& error, RunNumber run);
  [[nodiscard]] bool TakeControlResponse();
  void HandleResponse();
  void StartMeasurement(const ControlPhaseMessage& response);
  void RejectResponse(const ControlPhaseMessage& response);
  void ControlReceiveFailed(const boost::system::error_code& error);
  void AbortControlPhase();
  void FailControlPhase(ErrorKind kind, const std::string& reason);

  // Measurement. All require mutex_ except the two handlers, which take it.
  void ArmSend();
  void ArmReceive();
  void SendPacket(const boost::system::error_code& error, RunNumber run);
  [[nodiscard]] bool SendProbe();
  void ReceivePacket(const boost::system::error_code& error, RunNumber run);
  [[nodiscard]] bool TakeReplies(std::size_t most = kDatagramsPerTurn);
  void TakeReply(const StampedDatagram& datagram);
  void TestStop();

  // Constant.
  const Endpoint control_destination_;

  // All guarded by mutex_.
  Socket measurement_socket_;
  Socket control_socket_;
  Endpoint measurement_destination_;   // from the response
  ControlPhaseMessage request_;        // nonce and digest are those of the last control phase
  ControlMessageBytes response_{};     // zeroed at the start of each run
  std::uint32_t highest_counter_ = 0;  // highest responder counter of this run
};

}  // namespace ipsla

#endif  // IPSLA_UDP_UDP_SENDER_H_
