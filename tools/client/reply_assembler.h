// The fragments of one Sender API reply, put together. Pure: bytes in, text out.

#ifndef IPSLA_TOOLS_CLIENT_REPLY_ASSEMBLER_H_
#define IPSLA_TOOLS_CLIENT_REPLY_ASSEMBLER_H_

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "api/sender_api_message.h"

namespace ipsla::client {

/// Tells one request's replies from those of another: the daemon echoes the prefix.
using ReplyTag = std::array<std::uint8_t, 8>;

/// Collects the datagrams that answer one request, in any order and each as often as it comes.
class ReplyAssembler {
 public:
  /// What a datagram was.
  enum class Outcome : std::uint8_t {
    kIgnored,    ///< not of this reply, or seen already: nothing changed
    kMore,       ///< taken; others are missing
    kComplete,   ///< taken; Text() is the whole reply
    kRefused,    ///< the daemon answered with a failure
    kMalformed,  ///< contradicts itself or what came before; Fault() says how
  };

  /// For the reply to a request with this prefix and command.
  ReplyAssembler(const ReplyTag& tag, std::uint16_t command) : tag_(tag), command_(command) {}

  /// Takes one received datagram.
  [[nodiscard]] Outcome Add(std::span<const std::uint8_t> datagram);

  /// The reply without its NUL, once complete; empty for a reply that is a header alone.
  [[nodiscard]] std::string Text() const;

  /// What was wrong, after kMalformed.
  [[nodiscard]] const std::string& Fault() const { return fault_; }

  /// Fragments taken so far.
  [[nodiscard]] std::size_t FragmentCount() const { return slices_.size(); }

  /// Fragments known to exist that have not come: gaps below the highest number seen.
  [[nodiscard]] std::vector<std::uint32_t> Missing() const;

 private:
  [[nodiscard]] Outcome Malformed(std::string fault);
  [[nodiscard]] Outcome AddSlice(const ApiHeader& header, std::string slice);

  // Constant: what the reply is told by.
  const ReplyTag tag_;
  const std::uint16_t command_;
  std::map<std::uint32_t, std::string> slices_;  // by fragment number
  std::optional<std::uint32_t> last_;            // number of the last fragment, once it is known
  // Empty while there is none.
  std::string fault_;
};

}  // namespace ipsla::client

#endif  // IPSLA_TOOLS_CLIENT_REPLY_ASSEMBLER_H_
