#include "api/sender_api_message.h"

#include <algorithm>
#include <cstring>

#include <boost/endian/conversion.hpp>
#include <cjson/cJSON.h>

namespace ipsla {
namespace {

constexpr std::size_t kMarkerOffset = 8;
constexpr std::size_t kFlagsOffset = 9;
constexpr std::size_t kReservedOffset = 10;
constexpr std::size_t kFragmentOffset = 12;
constexpr std::size_t kDatagramLengthOffset = 16;
constexpr std::size_t kCommandOffset = 20;
constexpr std::size_t kResultOffset = 22;
constexpr std::size_t kBlockLengthOffset = 24;
/// What the block length counts besides the payload: command, result and itself.
constexpr std::uint32_t kBlockHeaderSize = 8;

/// The two length fields of a datagram with this payload.
void SetLengths(ApiHeader& header, std::size_t payload_size) {
  header.datagram_length = static_cast<std::uint32_t>(kApiHeaderSize + payload_size);
  header.block_length = static_cast<std::uint32_t>(kBlockHeaderSize + payload_size);
}

ApiBytes BuildDatagram(const ApiHeader& header, std::span<const std::uint8_t> payload) {
  const auto bytes = EncodeApiHeader(header);
  ApiBytes datagram(bytes.size() + payload.size());
  const auto body = std::copy(bytes.begin(), bytes.end(), datagram.begin());
  std::copy(payload.begin(), payload.end(), body);
  return datagram;
}

/// The text and its NUL.
ApiBytes TerminatedBytes(std::string_view text) {
  ApiBytes bytes(text.begin(), text.end());
  bytes.push_back(0);
  return bytes;
}

}  // namespace

ApiHeader DecodeApiHeader(std::span<const std::uint8_t> received) {
  std::array<std::uint8_t, kApiHeaderSize> bytes{};
  std::copy_n(received.begin(), std::min(received.size(), bytes.size()), bytes.begin());

  ApiHeader header;
  std::copy_n(bytes.begin(), header.prefix.size(), header.prefix.begin());
  header.request_marker = bytes[kMarkerOffset];
  header.flags = bytes[kFlagsOffset];
  std::copy_n(bytes.begin() + kReservedOffset, header.reserved.size(), header.reserved.begin());
  header.fragment_number = boost::endian::load_big_u32(&bytes[kFragmentOffset]);
  header.datagram_length = boost::endian::load_big_u32(&bytes[kDatagramLengthOffset]);
  std::memcpy(&header.command, &bytes[kCommandOffset], sizeof(header.command));
  std::memcpy(&header.result, &bytes[kResultOffset], sizeof(header.result));
  header.block_length = boost::endian::load_big_u32(&bytes[kBlockLengthOffset]);
  return header;
}

std::array<std::uint8_t, kApiHeaderSize> EncodeApiHeader(const ApiHeader& header) {
  std::array<std::uint8_t, kApiHeaderSize> bytes{};
  std::copy(header.prefix.begin(), header.prefix.end(), bytes.begin());
  bytes[kMarkerOffset] = header.request_marker;
  bytes[kFlagsOffset] = header.flags;
  std::copy(header.reserved.begin(), header.reserved.end(), bytes.begin() + kReservedOffset);
  boost::endian::store_big_u32(&bytes[kFragmentOffset], header.fragment_number);
  boost::endian::store_big_u32(&bytes[kDatagramLengthOffset], header.datagram_length);
  std::memcpy(&bytes[kCommandOffset], &header.command, sizeof(header.command));
  std::memcpy(&bytes[kResultOffset], &header.result, sizeof(header.result));
  boost::endian::store_big_u32(&bytes[kBlockLengthOffset], header.block_length);
  return bytes;
}

std::string_view ApiPayloadText(std::span<const std::uint8_t> received) {
  if (received.size() <= kApiHeaderSize) {
    return {};
  }
  const auto payload = received.subspan(kApiHeaderSize);
  const auto end = std::find(payload.begin(), payload.end(), std::uint8_t{0});
  return {reinterpret_cast<const char*>(payload.data()),
          static_cast<std::size_t>(end - payload.begin())};
}

const char* ApiCommandName(std::uint16_t command) {
  switch (static_cast<ApiCommand>(command)) {
    case ApiCommand::kGetTaskStatistics:
      return "SENDER_API_CSLD_GET_TASK_STATISTICS";
    case ApiCommand::kGetAllActiveTaskStatistics:
      return "SENDER_API_CSLD_GET_ALL_ACTIVE_TASK_STATISTICS";
    case ApiCommand::kGetTaskStatus:
      return "SENDER_API_CSLD_GET_TASK_STATUS";
    case ApiCommand::kParseTasksConfig:
      return "SENDER_API_CSLD_PARSE_TASKS_CONFIG";
    case ApiCommand::kParseKeychainConfig:
      return "SENDER_API_CSLD_PARSE_KEYCHAIN_CONFIG";
  }
  return "unknown command";
}

ApiBytes BuildApiRequest(ApiCommand command, std::string_view json) {
  const ApiBytes payload = json.empty() ? ApiBytes{} : TerminatedBytes(json);
  ApiHeader header;
  header.command = static_cast<std::uint16_t>(command);
  SetLengths(header, payload.size());
  return BuildDatagram(header, payload);
}

std::vector<ApiBytes> BuildJsonReply(const ApiHeader& request, std::string_view json) {
  const ApiBytes payload = TerminatedBytes(json);
  std::span<const std::uint8_t> remaining(payload);

  ApiHeader header = request;
  header.result = kApiSuccess;
  header.flags |= kApiMoreFragments;
  header.fragment_number = 0;

  std::vector<ApiBytes> datagrams;
  while (!remaining.empty()) {
    std::size_t slice_size = kApiMaxSlice;
    // A rest that just fills a datagram keeps the bit: clients look for the NUL.
    if (remaining.size() < kApiMaxSlice) {
      slice_size = remaining.size();
      header.flags &= static_cast<std::uint8_t>(~kApiMoreFragments);
    }
    ++header.fragment_number;
    SetLengths(header, slice_size);
    datagrams.push_back(BuildDatagram(header, remaining.first(slice_size)));
    remaining = remaining.subspan(slice_size);
  }
  return datagrams;
}

ApiBytes BuildHeaderReply(const ApiHeader& request, std::uint16_t result) {
  ApiHeader header = request;
  header.result = result;
  header.flags &= static_cast<std::uint8_t>(~kApiMoreFragments);
  SetLengths(header, 0);
  return BuildDatagram(header, {});
}

const std::set<std::string>& MetricGroupNames() {
  static const std::set<std::string> names{"jitter-values", "loss-values", "one-way-latency-values",
                                           "out-of-sequence-values", "rtt-values"};
  return names;
}

std::optional<std::set<std::string>> ReadMetricGroups(const cJSON* metrics) {
  if (cJSON_IsArray(metrics) == 0) {
    return std::nullopt;
  }
  std::set<std::string> groups;
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, metrics) {
    const char* name = cJSON_GetStringValue(element);
    if (name != nullptr && MetricGroupNames().contains(name)) {
      groups.insert(name);
    }
  }
  return groups;
}

}  // namespace ipsla
