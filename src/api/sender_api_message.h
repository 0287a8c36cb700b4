// The Sender API's datagrams as values, for daemon and clients alike: no sockets here.
//
// Offset  Size  Field            (big-endian, but for command and result: host byte order)
//      0     8  prefix           the client's, to tell its replies apart
//      8     1  request marker   1
//      9     1  flags            bit 0 of a reply: another fragment follows
//     10     2  reserved
//     12     4  fragment number  counts the datagrams of a JSON reply from 1
//     16     4  datagram length  28 + payload
//     20     2  command          ApiCommand
//     22     2  result           0 in a request; in a reply 0 (done) or 4 (failed)
//     24     4  block length     8 + payload
//     28     n  payload          JSON text and a NUL, in a reply possibly a slice of them
//
// A reply repeats its request's header but for what is set here. Requests are not held to their
// two length fields.

#ifndef IPSLA_API_SENDER_API_MESSAGE_H_
#define IPSLA_API_SENDER_API_MESSAGE_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

struct cJSON;

namespace ipsla {

/// UDP port, sizes in bytes, and the constant values of the header's fields.
inline constexpr std::uint16_t kApiPort = 10101;
inline constexpr std::size_t kApiHeaderSize = 28;
inline constexpr std::size_t kApiMaxDatagram = 8192;
inline constexpr std::size_t kApiMaxSlice = kApiMaxDatagram - kApiHeaderSize;
inline constexpr std::uint8_t kApiRequestMarker = 1;
inline constexpr std::uint8_t kApiMoreFragments = 1;
inline constexpr std::uint16_t kApiSuccess = 0;
inline constexpr std::uint16_t kApiFailure = 4;

/// What a request asks for, by its number.
enum class ApiCommand : std::uint16_t {
  kGetTaskStatistics = 0,
  kGetAllActiveTaskStatistics = 1,
  kGetTaskStatus = 2,
  kParseTasksConfig = 3,
  kParseKeychainConfig = 4,
};

/// The header's fields, integers in host order.
struct ApiHeader {
  std::array<std::uint8_t, 8> prefix{};
  std::uint8_t request_marker = kApiRequestMarker;
  std::uint8_t flags = 0;
  std::array<std::uint8_t, 2> reserved{};
  std::uint32_t fragment_number = 0;
  std::uint32_t datagram_length = kApiHeaderSize;
  std::uint16_t command = 0;
  std::uint16_t result = kApiSuccess;
  std::uint32_t block_length = 8;

  bool operator==(const ApiHeader&) const = default;
};

/// One datagram.
using ApiBytes = std::vector<std::uint8_t>;

/// Reads a header; bytes that are missing read as zero.
[[nodiscard]] ApiHeader DecodeApiHeader(std::span<const std::uint8_t> received);

/// The 28 bytes of a header.
[[nodiscard]] std::array<std::uint8_t, kApiHeaderSize> EncodeApiHeader(const ApiHeader& header);

/// The JSON text in `received`: what lies behind the header, up to its first NUL if it has one.
[[nodiscard]] std::string_view ApiPayloadText(std::span<const std::uint8_t> received);

/// The name that the log gives a command; "unknown command" for a code that is none.
[[nodiscard]] const char* ApiCommandName(std::uint16_t command);

/// A request; an empty `json` means one without a body.
[[nodiscard]] ApiBytes BuildApiRequest(ApiCommand command, std::string_view json);

/// A JSON reply, cut into datagrams. Only the NUL marks its end: a last datagram that is full
/// announces another, which never comes.
[[nodiscard]] std::vector<ApiBytes> BuildJsonReply(const ApiHeader& request, std::string_view json);

/// A reply without JSON.
[[nodiscard]] ApiBytes BuildHeaderReply(const ApiHeader& request, std::uint16_t result);

/// What a client asks for: metric groups by task id.
using StatisticsRequest = std::map<std::int32_t, std::set<std::string>>;

/// The five group names, in alphabetical order.
[[nodiscard]] const std::set<std::string>& MetricGroupNames();

/// The group names in a "metrics" array, other elements left out. Nothing when it is no array.
[[nodiscard]] std::optional<std::set<std::string>> ReadMetricGroups(const cJSON* metrics);

}  // namespace ipsla

#endif  // IPSLA_API_SENDER_API_MESSAGE_H_
