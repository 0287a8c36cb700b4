// printf(3) into a string of the right size.

#ifndef IPSLA_LOG_FORMAT_H_
#define IPSLA_LOG_FORMAT_H_

#include <array>
#include <cstdarg>
#include <cstddef>
#include <string>
#include <string_view>

namespace ipsla {

/// The text of `format` and its arguments, whole; empty when the C library cannot format it.
[[nodiscard]] __attribute__((format(printf, 1, 2))) std::string Format(const char* format, ...);

/// The same with `arguments`, which stay usable: a copy is read.
[[nodiscard]] __attribute__((format(printf, 1, 0))) std::string FormatV(const char* format,
                                                                        va_list arguments);

/// The same for the moment, without allocating memory for texts of usual length. Without memory for
/// a longer one it is cut. Never throws.
class FormattedText {
 public:
  /// Reads `arguments`: only va_end is left to do with them.
  FormattedText(const char* format, va_list arguments) noexcept
      __attribute__((format(printf, 2, 0)));

  /// The text; valid as long as this object.
  [[nodiscard]] std::string_view View() const {
    return long_.empty() ? std::string_view(usual_.data(), length_) : std::string_view(long_);
  }
  /// The same, with its terminating zero.
  [[nodiscard]] const char* Text() const { return View().data(); }

 private:
  // Longer texts are allocated.
  static constexpr std::size_t kUsualBytes = 1024;

  // The text: in one of the two, by its length.
  std::array<char, kUsualBytes> usual_;
  std::size_t length_ = 0;
  std::string long_;
};

}  // namespace ipsla

#endif  // IPSLA_LOG_FORMAT_H_
