// ICMP tests: "icmp-echo" (echo requests) and "icmp-jitter" (time-stamp requests) over a raw
// socket. They need no responder program.

#ifndef IPSLA_SENDER_ICMP_SENDER_H_
#define IPSLA_SENDER_ICMP_SENDER_H_

#include <cstddef>
#include <cstdint>
#include <list>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/icmp.hpp>
#include <boost/system/error_code.hpp>

#include "sender/icmp_identifier.h"
#include "sender/sender.h"

namespace ipsla {

/// One ICMP test. Threads, locks and lifetime: see Sender.
class IcmpSender final : public Sender {
 public:
  /// Draws the identifier and prepares the request. Throws what Sender's constructor throws. Use
  /// CreateSender.
  IcmpSender(boost::asio::io_context& worker, const SlaTaskConfig& task,
             const SenderContext& context);

 private:
  static const TimerHandler kTestStop;

  void StartTest() override;
  void CalcTestMetric() override;
  [[nodiscard]] SlaTaskMetrics GetMetrics(const std::list<SlaTaskMetrics>& history) const override;
  void CloseSockets() override;

  // All require mutex_ except the two handlers, which take it.
  void OpenSocket();
  void ArmSend();
  void ArmReceive();
  void SendPacket(const boost::system::error_code& error, RunNumber run);
  void SendProbe();
  void ReceivePacket(const boost::system::error_code& error, RunNumber run);
  [[nodiscard]] bool TakeReplies(std::size_t most = kDatagramsPerTurn);
  void TakeReply(const StampedDatagram& datagram);
  void TestStop();

  const IcmpIdentifier identifier_;
  const bool jitter_;                     // "icmp-jitter": time-stamp requests
  const std::size_t sent_bytes_;          // L: what goes out of send_buffer_
  boost::asio::ip::icmp::socket socket_;  // guarded by mutex_
};

}  // namespace ipsla

#endif  // IPSLA_SENDER_ICMP_SENDER_H_
