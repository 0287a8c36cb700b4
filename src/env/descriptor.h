// A file descriptor with an owner.

#ifndef IPSLA_ENV_DESCRIPTOR_H_
#define IPSLA_ENV_DESCRIPTOR_H_

#include <unistd.h>

#include <utility>

namespace ipsla {

/// Owns one file descriptor and closes it, whatever close(2) says. Move-only. Threads: one at a
/// time.
class Descriptor {
 public:
  Descriptor() = default;
  /// Takes over `fd`; a negative one means "none".
  explicit Descriptor(int fd) noexcept : fd_(fd) {}
  ~Descriptor() { Reset(); }

  /// Leaves the other one without a descriptor.
  Descriptor(Descriptor&& other) noexcept : fd_(other.Release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    Reset(other.Release());
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  /// True when there is one.
  [[nodiscard]] explicit operator bool() const noexcept { return fd_ >= 0; }

  /// The descriptor, still owned here; negative when there is none.
  [[nodiscard]] int Get() const noexcept { return fd_; }

  /// Gives the descriptor away: the caller closes it.
  [[nodiscard]] int Release() noexcept { return std::exchange(fd_, -1); }

  /// Closes the descriptor, if any, and owns `fd` from now on.
  void Reset(int fd = -1) noexcept {
    const int old = std::exchange(fd_, fd);
    if (old >= 0) close(old);
  }

 private:
  // -1: none.
  int fd_ = -1;
};

}  // namespace ipsla

#endif  // IPSLA_ENV_DESCRIPTOR_H_
