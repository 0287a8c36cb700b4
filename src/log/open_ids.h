// Which log files are open, for whoever logs: without a lock.

#ifndef IPSLA_LOG_OPEN_IDS_H_
#define IPSLA_LOG_OPEN_IDS_H_

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace ipsla {

/// A set of test ids. Threads: any.
class OpenIds {
 public:
  /// Never waits.
  [[nodiscard]] bool Has(std::uint16_t id) const {
    return (words_.at(id / kBits).load(std::memory_order_relaxed) & Bit(id)) != 0;
  }
  void Add(std::uint16_t id) { words_.at(id / kBits) |= Bit(id); }
  void Remove(std::uint16_t id) { words_.at(id / kBits) &= ~Bit(id); }

 private:
  static constexpr std::size_t kBits = 64;

  // The bit of `id` in its word.
  static std::uint64_t Bit(std::uint16_t id) { return std::uint64_t{1} << (id % kBits); }

  // One bit for each id.
  std::array<std::atomic<std::uint64_t>, 65536 / kBits> words_{};
};

}  // namespace ipsla

#endif  // IPSLA_LOG_OPEN_IDS_H_
