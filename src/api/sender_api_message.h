// Sender API datagrams as values: headers, fragments and request bodies. No I/O: daemon and clients
// share it.
//
// Offset  Size  Field            (big-endian unless noted)
//      0     8  prefix           echoed
//      8     1  request marker   1
//      9     1  flags            reply: bit 0 more fragments follow, other bits echoed
//     10     2  reserved         echoed
//     12     4  fragment number  1, 2, 3 ... in the fragments of a JSON reply; echoed in a
//     header-only reply 16     4  datagram length  28 + payload bytes 20     2  command host byte
//     order 22     2  result           host byte order; request 0, reply 0 success, 4 failure 24 4
//     block length     8 + payload bytes 28     n  payload          request: NUL-terminated JSON;
//     reply: a slice of JSON text plus its NUL

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

inline constexpr std::uint16_t kApiPort = 10101;
inline constexpr std::size_t kApiHeaderSize = 28;
inline constexpr std::size_t kApiMaxDatagram = 8192;
inline constexpr std::size_t kApiMaxSlice = kApiMaxDatagram - kApiHeaderSize;
inline constexpr std::uint8_t kApiRequestMarker = 1;
inline constexpr std::uint8_t kApiMoreFragments = 1;
inline constexpr std::uint16_t kApiSuccess = 0;
inline constexpr std::uint16_t kApiFailure = 4;

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

using ApiBytes = std::vector<std::uint8_t>;

/// Reads a header from what was received; bytes that were not received read as zero.
[[nodiscard]] ApiHeader DecodeApiHeader(std::span<const std::uint8_t> received);

/// The 28 bytes of a header.
[[nodiscard]] std::array<std::uint8_t, kApiHeaderSize> EncodeApiHeader(const ApiHeader& header);

/// The JSON text of a datagram: from offset 28 to its NUL or the end of what was received,
/// whichever comes first.
[[nodiscard]] std::string_view ApiPayloadText(std::span<const std::uint8_t> received);

/// "SENDER_API_CSLD_..." of a command code, or "unknown command" for 5 and above.
[[nodiscard]] const char* ApiCommandName(std::uint16_t command);

/// A request with a JSON body (NUL-terminated on the wire) or, with an empty text, without one.
[[nodiscard]] ApiBytes BuildApiRequest(ApiCommand command, std::string_view json);

/// The datagrams of a JSON reply: the text and its NUL in slices of 8164 bytes, built over the
/// request's header. A last slice of exactly 8164 bytes still says that more follow, deliberately.
[[nodiscard]] std::vector<ApiBytes> BuildJsonReply(const ApiHeader& request, std::string_view json);

/// A header-only reply over the request's header, with this result.
[[nodiscard]] ApiBytes BuildHeaderReply(const ApiHeader& request, std::uint16_t result);

/// Metric groups to report per task id.
using StatisticsRequest = std::map<std::int32_t, std::set<std::string>>;

/// The five group names, in alphabetical order.
[[nodiscard]] const std::set<std::string>& MetricGroupNames();

/// Known names of a "metrics" array (anything else in it is dropped), or nothing when it is not an
/// array.
[[nodiscard]] std::optional<std::set<std::string>> ReadMetricGroups(const cJSON* metrics);

}  // namespace ipsla

#endif  // IPSLA_API_SENDER_API_MESSAGE_H_
