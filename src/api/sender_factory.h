// The test factory: from a task to its test.

#ifndef IPSLA_API_SENDER_FACTORY_H_
#define IPSLA_API_SENDER_FACTORY_H_

#include <boost/asio/io_context.hpp>
#include <boost/shared_ptr.hpp>

#include "config/task_config.h"
#include "sender/sender.h"

namespace ipsla {

/// Creates the test of one task on the worker context: a UdpSender for types 1 to 3, an IcmpSender
/// for 4 and 5. Throws std::runtime_error ("Unknown sla sender type", or what the test's
/// constructor throws).
[[nodiscard]] boost::shared_ptr<Sender> CreateSender(boost::asio::io_context& worker,
                                                     const SlaTaskConfig& task,
                                                     const SenderContext& context);

}  // namespace ipsla

#endif  // IPSLA_API_SENDER_FACTORY_H_
