#include "client/reply_assembler.h"

#include <algorithm>
#include <utility>

namespace ipsla::client {
namespace {

/// Far beyond the largest reply (all 65536 tasks with every group): a higher number is nonsense.
constexpr std::uint32_t kMaxFragments = 65536;

}  // namespace

ReplyAssembler::Outcome ReplyAssembler::Malformed(std::string fault) {
  fault_ = std::move(fault);
  return Outcome::kMalformed;
}

ReplyAssembler::Outcome ReplyAssembler::Add(std::span<const std::uint8_t> datagram) {
  if (datagram.size() < kApiHeaderSize) {
    return Outcome::kIgnored;
  }
  const ApiHeader header = DecodeApiHeader(datagram);
  if (header.prefix != tag_ || header.command != command_) {
    return Outcome::kIgnored;
  }
  const auto payload = datagram.subspan(kApiHeaderSize);
  if (header.datagram_length != datagram.size() || header.block_length != payload.size() + 8) {
    return Malformed("a reply's length fields do not match its " + std::to_string(datagram.size()) +
                     " bytes");
  }
  if (header.result != kApiSuccess) {
    return Outcome::kRefused;
  }
  if (payload.empty()) {
    return slices_.empty() ? Outcome::kComplete : Malformed("an empty fragment");
  }
  return AddSlice(header, std::string(payload.begin(), payload.end()));
}

ReplyAssembler::Outcome ReplyAssembler::AddSlice(const ApiHeader& header, std::string slice) {
  const std::uint32_t number = header.fragment_number;
  const std::string name = "fragment " + std::to_string(number);
  // The NUL ends the text. The more-fragments bit alone does not tell: a last slice that fills its
  // datagram carries it.
  const bool is_last = slice.back() == '\0';
  if (number == 0 || number > kMaxFragments) {
    return Malformed(name + " cannot be");
  }
  if (slice.find('\0') < slice.size() - 1) {
    return Malformed(name + " has a NUL within its text");
  }
  if (!is_last && ((header.flags & kApiMoreFragments) == 0 || slice.size() != kApiMaxSlice)) {
    return Malformed(name + " is the last but does not end the text");
  }
  if (const auto known = slices_.find(number); known != slices_.end()) {
    return known->second == slice ? Outcome::kIgnored : Malformed(name + " came twice and differs");
  }
  const bool beyond_end = last_ && number > *last_;
  const bool ends_early =
      is_last && (last_ || (!slices_.empty() && slices_.rbegin()->first > number));
  if (beyond_end || ends_early) {
    return Malformed(name + " contradicts the end of the reply");
  }
  slices_.emplace(number, std::move(slice));
  if (is_last) {
    last_ = number;
  }
  return last_ && slices_.size() == *last_ ? Outcome::kComplete : Outcome::kMore;
}

std::string ReplyAssembler::Text() const {
  std::string text;
  for (const auto& [number, slice] : slices_) {
    text += slice;
  }
  if (!text.empty() && text.back() == '\0') {
    text.pop_back();
  }
  return text;
}

std::vector<std::uint32_t> ReplyAssembler::Missing() const {
  std::vector<std::uint32_t> missing;
  std::uint32_t expected = 1;
  for (const auto& [number, slice] : slices_) {
    for (; expected < number; ++expected) {
      missing.push_back(expected);
    }
    expected = number + 1;
  }
  return missing;
}

}  // namespace ipsla::client
