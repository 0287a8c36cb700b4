// ICMP tests: "icmp-echo" (echo requests) and "icmp-jitter" (time-stamp requests) over a raw
// socket. They need no responder program.

#ifndef IPSLA_SENDER_ICMP_SENDER_H_
#define IPSLA_SENDER_ICMP_SENDER_H_

#include <cstddef>
#include <cstdint>
#include <list>

#include <boost/asio/io_context.hpp>

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
  // SendNextProbe and TakeReply.
  static const ProbeCalls kCalls;

  void StartTest() override IPSLA_REQUIRES(mutex_);
  void CalcTestMetric() override IPSLA_UNCHECKED_LOCKING;
  [[nodiscard]] SlaTaskMetrics GetMetrics(const std::list<SlaTaskMetrics>& history) const override;
  void CloseSockets() override IPSLA_REQUIRES(mutex_);

  // Steps of a run.
  void OpenSocket() IPSLA_REQUIRES(mutex_);
  [[nodiscard]] SendOutcome SendNextProbe() IPSLA_REQUIRES(mutex_);
  [[nodiscard]] bool TakeReply(const StampedDatagram& datagram) IPSLA_REQUIRES(mutex_);

  // Constant.
  const IcmpIdentifier identifier_;
  const bool jitter_;             // "icmp-jitter": time-stamp requests
  const std::size_t sent_bytes_;  // L: what goes out of send_buffer_
};

}  // namespace ipsla

#endif  // IPSLA_SENDER_ICMP_SENDER_H_
