#include "log/format.h"

#include <algorithm>
#include <cstdio>
#include <exception>

namespace ipsla {

std::string FormatV(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
  va_copy(again, arguments);
  std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  return text;
}

std::string Format(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::string text = FormatV(format, arguments);
  va_end(arguments);
  return text;
}

// Its bytes are written by printf. NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init)
FormattedText::FormattedText(const char* format, va_list arguments) noexcept {
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(usual_.data(), usual_.size(), format, arguments);
  if (length < 0) usual_.front() = '\0';
  length_ = std::min(static_cast<std::size_t>(std::max(length, 0)), usual_.size() - 1);
  try {
    if (length >= static_cast<int>(usual_.size())) long_ = FormatV(format, again);
  } catch (const std::exception&) {
    long_.clear();  // out of memory: the beginning is better than nothing
  }
  va_end(again);
}

}  // namespace ipsla
