// The task behind the golden requests.

#ifndef IPSLA_TESTS_UNIT_SUPPORT_UDP_TASK_H_
#define IPSLA_TESTS_UNIT_SUPPORT_UDP_TASK_H_

#include <arpa/inet.h>

#include "config/task_config.h"

namespace ipsla::test {

inline sockaddr_in Endpoint(const char* address, std::uint16_t port) {
  sockaddr_in endpoint{};
  endpoint.sin_family = AF_INET;
  endpoint.sin_addr.s_addr = inet_addr(address);
  endpoint.sin_port = htons(port);
  return endpoint;
}

/// A udp-jitter task without authentication: four different addresses, four different ports, a
/// duration of 1270 ms.
inline SlaTaskConfig UdpTask() {
  SlaTaskConfig task;
  task.sla_id = 7;
  task.sla_type = SlaTestType::kUdpJitter;
  task.control_phase.src = Endpoint("192.0.2.1", 40001);
  task.control_phase.dst = Endpoint("198.51.100.7", 50000);
  task.auth.mode = SlaAuthMode::kNone;
  task.measurement.src = Endpoint("192.0.2.33", 40002);
  task.measurement.dst = Endpoint("198.51.100.8", 50010);
  task.num_packets = 10;
  task.interval = 20;
  task.timeout = 1000;
  return task;
}

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SUPPORT_UDP_TASK_H_
