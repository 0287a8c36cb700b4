#include "support/test_context.h"

#include <arpa/inet.h>
#include <net/if.h>

#include <boost/asio/ip/address_v4.hpp>

namespace ipsla::test {

TestContext::TestContext() {
  interfaces->Set(boost::asio::ip::address_v4::loopback(), "1", {IFF_UP | IFF_RUNNING, 1, "lo"});
}

bool TestContext::RunUntil(const std::function<bool()>& condition,
                           std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    worker.restart();
    worker.run_one_for(std::chrono::milliseconds(20));
  }
  return true;
}

void TestContext::RunReady() {
  worker.restart();
  worker.poll();
}

SlaTaskStatistics TestContext::StatisticsOf(std::uint16_t id) const {
  const MutexLock lock(statistics->mutex);
  const auto found = statistics->tasks.find(id);
  return found == statistics->tasks.end() ? SlaTaskStatistics{} : found->second;
}

std::uint32_t TestContext::RunsOf(std::uint16_t id) const {
  const SlaTaskStatistics stored = StatisticsOf(id);
  return stored.successful_count + stored.failed_count;
}

SlaTaskConfig LoopbackTask(std::uint16_t id, SlaTestType type) {
  SlaTaskConfig task;
  task.sla_id = id;
  task.schedule = true;
  task.sla_type = type;
  task.scheduler = {.time = 10, .start_time = "now", .life_time = "forever"};
  for (SlaEndpointConfig* endpoint : {&task.control_phase, &task.measurement}) {
    endpoint->src.sin_family = AF_INET;
    endpoint->dst.sin_family = AF_INET;
    endpoint->src.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    endpoint->dst.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    endpoint->src_port_any = true;
  }
  task.auth.mode = SlaAuthMode::kNone;
  task.control_timeout = 300;
  task.control_retry = 3;
  task.num_packets = 2;
  task.packet_size = 100;
  task.interval = 0;
  task.timeout = 300;
  task.ttl = 64;
  task.num_rep_hist = 5;
  return task;
}

}  // namespace ipsla::test
