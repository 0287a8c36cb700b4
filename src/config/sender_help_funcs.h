// The tasks file and the test factory.
//
// The parser is strict per task and lenient per file: a task with any fault is skipped with one log
// line that names the first fault, and the other tasks are kept.

#ifndef IPSLA_CONFIG_SENDER_HELP_FUNCS_H_
#define IPSLA_CONFIG_SENDER_HELP_FUNCS_H_

#include <cstdint>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/shared_ptr.hpp>

#include "config/keychain.h"
#include "config/task_config.h"

namespace ipsla {

class Sender;
struct SenderContext;

/// Reads the tasks file into `tasks` (emptied first) and appends the file's "cpus" to `cpus`.
/// `keychain` is only used to check key ids. 0, or -1 after logging the reason; when the network
/// environment failed under a "src-interface" lookup, the tasks accepted before it stay in `tasks`.
/// Threads: one at a time. It may enter a VRF and always returns from it.
[[nodiscard]] int ParseTaskConfigs(const std::string& filename, SlaTaskMap* tasks,
                                   const KeychainStorage& keychain,
                                   std::vector<std::uint8_t>* cpus);

/// Creates the test of one task on the worker context: a UdpSender for types 1 to 3, an IcmpSender
/// for 4 and 5. Throws std::runtime_error ("Unknown sla sender type", or what the test's
/// constructor throws).
[[nodiscard]] boost::shared_ptr<Sender> CreateSender(boost::asio::io_context& worker,
                                                     const SlaTaskConfig& task,
                                                     const SenderContext& context);

}  // namespace ipsla

#endif  // IPSLA_CONFIG_SENDER_HELP_FUNCS_H_
