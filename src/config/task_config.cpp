#include "config/task_config.h"

#include <arpa/inet.h>

#include <array>
#include <cctype>
#include <cstddef>
#include <string_view>

namespace ipsla {
namespace {

bool SameAddress(const sockaddr_in& a, const sockaddr_in& b) {
  return a.sin_family == b.sin_family && a.sin_port == b.sin_port &&
         a.sin_addr.s_addr == b.sin_addr.s_addr;
}

}  // namespace

bool SlaEndpointConfig::operator==(const SlaEndpointConfig& other) const {
  return if_index == other.if_index && if_name == other.if_name && SameAddress(src, other.src) &&
         SameAddress(dst, other.dst) && src_port_any == other.src_port_any && vrf == other.vrf;
}

std::string ScheduleTimeToString(const SlaSchedulerConfig& scheduler) {
  return std::to_string(scheduler.time);
}

std::string SourcePortToString(const SlaEndpointConfig& endpoint) {
  return endpoint.src_port_any ? "any" : std::to_string(ntohs(endpoint.src.sin_port));
}

std::string Ipv4ToString(in_addr address) {
  std::array<char, INET_ADDRSTRLEN> text{};
  inet_ntop(AF_INET, &address, text.data(),
            text.size());  // cannot fail: the family is known and the text fits
  return text.data();
}

std::int32_t MinPacketSize(SlaTestType type) {
  switch (type) {
    case SlaTestType::kUdpEcho:
      return 46;
    case SlaTestType::kUdpJitter:
      return 70;
    case SlaTestType::kUdpJitterNtp:
      return 98;
    case SlaTestType::kIcmpEcho:
      return 42;
    case SlaTestType::kIcmpJitter:
      return 54;
    default:
      return 34;
  }
}

std::int32_t PacketHeaderSize(SlaTestType type) {
  switch (type) {
    case SlaTestType::kUdpEcho:
    case SlaTestType::kUdpJitter:
    case SlaTestType::kUdpJitterNtp:
    case SlaTestType::kIcmpEcho:
      return 42;
    default:
      return 34;
  }
}

std::int64_t PlainRunMs(const SlaTaskConfig& task) {
  return std::int64_t{task.timeout} + std::int64_t{task.interval} * task.num_packets;
}

std::string HexKeyToBytes(const std::string& text) {
  constexpr std::string_view kPrefix = "0x";
  const std::size_t digits = text.starts_with(kPrefix) ? kPrefix.size() : 0;
  for (const char c : std::string_view(text).substr(digits)) {
    if (std::isxdigit(static_cast<unsigned char>(c)) == 0) return text;
  }
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); i += 2) {
    const std::string piece = text.substr(i, 2);
    if (piece == kPrefix) continue;
    bytes.push_back(static_cast<char>(static_cast<unsigned char>(std::stoul(piece, nullptr, 16))));
  }
  return bytes;
}

}  // namespace ipsla
