// What a test of the daemon shares with its surroundings, made for unit tests: stores, a loopback
// source, an event loop.

#ifndef IPSLA_TESTS_UNIT_SUPPORT_TEST_CONTEXT_H_
#define IPSLA_TESTS_UNIT_SUPPORT_TEST_CONTEXT_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>

#include "config/keychain.h"
#include "config/task_config.h"
#include "sender/interface_table.h"
#include "sender/sender.h"
#include "sender/task_metrics.h"

namespace ipsla::test {

/// Stores and an event loop run by the calling thread. 127.0.0.1 is a running source in the default
/// VRF.
class TestContext {
 public:
  TestContext();

  [[nodiscard]] SenderContext Shared() const { return {statistics, interfaces, keys, pacer}; }

  /// Runs the event loop until `condition` holds, at most `limit`. Tells whether it held.
  [[nodiscard]] bool RunUntil(const std::function<bool()>& condition,
                              std::chrono::milliseconds limit = std::chrono::seconds(20));

  /// Runs every handler that is ready now.
  void RunReady();

  /// Copy of the statistics of one task (zeros when there are none).
  [[nodiscard]] SlaTaskStatistics StatisticsOf(std::uint16_t id) const;

  /// Runs stored for one task.
  [[nodiscard]] std::uint32_t RunsOf(std::uint16_t id) const;

  boost::asio::io_context worker;
  std::shared_ptr<Pacer> pacer = std::make_shared<Pacer>(worker);
  std::shared_ptr<StatisticsStore> statistics = std::make_shared<StatisticsStore>();
  std::shared_ptr<InterfaceTable> interfaces = std::make_shared<InterfaceTable>();
  std::shared_ptr<KeyStore> keys = std::make_shared<KeyStore>();
};

/// A valid task on loopback: "now", "forever", time 10 s, retry 3 s, 2 probes 0 ms apart, time-out
/// 300 ms.
[[nodiscard]] SlaTaskConfig LoopbackTask(std::uint16_t id, SlaTestType type);

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SUPPORT_TEST_CONTEXT_H_
