// One measurement task as configured, and the sizes that its type implies.
//
// Everything here is plain data with value semantics and pure functions: no I/O, no globals, any
// thread.

#ifndef IPSLA_CONFIG_TASK_CONFIG_H_
#define IPSLA_CONFIG_TASK_CONFIG_H_

#include <netinet/in.h>

#include <cstdint>
#include <map>
#include <string>

#include "config/names.h"

namespace ipsla {

/// When a task runs.
struct SlaSchedulerConfig {
  std::int32_t time = 0;   ///< period in seconds
  std::string start_time;  ///< "now" or a time as text, interpreted when the test is started
  std::string life_time;   ///< "forever" or seconds as text

  bool operator==(const SlaSchedulerConfig&) const = default;
};

/// Both ends of one phase of a task.
struct SlaEndpointConfig {
  std::uint32_t if_index = 0;  ///< source interface when the source was given as one, else 0
  std::string if_name;         ///< its name, else empty
  sockaddr_in src{};           ///< local source; port and address in network byte order
  sockaddr_in dst{};           ///< remote responder, same form
  bool src_port_any = false;   ///< the system chooses src's port, which is 0 here
  std::string vrf;  ///< network namespace of this phase's sockets; empty: the daemon's own

  /// Compares every configured field (addresses by family, port and address).
  bool operator==(const SlaEndpointConfig& other) const;
};

/// Authentication of the control phase.
struct SlaAuthConfig {
  SlaAuthMode mode = SlaAuthMode::kUndefined;
  SlaAuthAlgorithm algorithm =
      SlaAuthAlgorithm::kUndefined;  ///< undefined when the mode needs none
  std::uint8_t key_id = 0;           ///< key in the key store, mode keychain only
  std::string key_string;            ///< key bytes, mode password only

  bool operator==(const SlaAuthConfig&) const = default;
};

/// One parsed task. Copied whole into its test.
struct SlaTaskConfig {
  std::uint16_t sla_id = 0;
  bool schedule = false;
  SlaTestType sla_type = SlaTestType::kNone;
  SlaSchedulerConfig scheduler;
  SlaEndpointConfig control_phase;
  SlaAuthConfig auth;
  std::int32_t control_timeout = 0;  ///< milliseconds
  std::int32_t control_retry = 0;    ///< seconds until the run after one that could not start
  SlaEndpointConfig measurement;
  std::int32_t num_packets = 0;   ///< probes per run
  std::uint16_t packet_size = 0;  ///< bytes: the configured size less PacketHeaderSize
  std::int32_t interval = 0;      ///< milliseconds between probes
  std::int32_t timeout = 0;       ///< milliseconds, measurement phase
  std::uint8_t ttl = 0;
  std::uint8_t dscp = 0;          ///< 0..63
  std::uint8_t cos = 0;           ///< IEEE 802.1p priority
  std::uint8_t num_rep_hist = 0;  ///< length of the statistics history

  /// True when a reload need not touch the running test: every configured field is equal.
  bool operator==(const SlaTaskConfig&) const = default;
};

/// All tasks, by id (16 bits, widened). Iterated in ascending id.
using SlaTaskMap = std::map<std::int32_t, SlaTaskConfig>;

/// The scheduler's period as decimal text.
[[nodiscard]] std::string ScheduleTimeToString(const SlaSchedulerConfig& scheduler);

/// "any", or the source port in host order as decimal text.
[[nodiscard]] std::string SourcePortToString(const SlaEndpointConfig& endpoint);

/// Dotted text of an IPv4 address in network byte order.
[[nodiscard]] std::string Ipv4ToString(in_addr address);

/// Smallest accepted "packet-size", headers included.
[[nodiscard]] std::int32_t MinPacketSize(SlaTestType type);

/// Bytes of "packet-size" that are not payload: 42 for types 1 to 4, 34 for every other
/// (kept-behaviours.md#icmp-header-sizes-differ).
[[nodiscard]] std::int32_t PacketHeaderSize(SlaTestType type);

/// Time from the first probe of a run to its end when no probe of it is answered, in milliseconds
/// and without any allowance: "timeout" + "interval" x "num-packets". The parser holds it against
/// the period, and it is the ICMP types' measurement timer; both in 32 bits, to which they cut it.
[[nodiscard]] std::int64_t PlainRunMs(const SlaTaskConfig& task);

/// Turns a password "key-string" into the key's bytes: hexadecimal text, with or without a leading
/// "0x", is converted in two-character pieces from position 0 (pieces equal to "0x" are skipped,
/// the last may be one character); any other text is the key itself.
[[nodiscard]] std::string HexKeyToBytes(const std::string& text);

}  // namespace ipsla

#endif  // IPSLA_CONFIG_TASK_CONFIG_H_
