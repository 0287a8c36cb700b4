#include "api/sender_factory.h"

#include <stdexcept>

#include <boost/smart_ptr/make_shared.hpp>

#include "sender/icmp_sender.h"
#include "udp/udp_sender.h"

namespace ipsla {

boost::shared_ptr<Sender> CreateSender(boost::asio::io_context& worker, const SlaTaskConfig& task,
                                       const SenderContext& context) {
  switch (task.sla_type) {
    case SlaTestType::kUdpEcho:
    case SlaTestType::kUdpJitter:
    case SlaTestType::kUdpJitterNtp:
      return boost::make_shared<UdpSender>(worker, task, context);
    case SlaTestType::kIcmpEcho:
    case SlaTestType::kIcmpJitter:
      return boost::make_shared<IcmpSender>(worker, task, context);
    case SlaTestType::kNone:
      break;
  }
  throw std::runtime_error("Unknown sla sender type");
}

}  // namespace ipsla
